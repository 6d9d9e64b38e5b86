#!/usr/bin/env bash
# Client test: node-postgres (pg, from npm) calls the common functions and operators with untyped
# array parameters over the throwaway server's unix socket (test/shell/client_node.js). pg is
# installed into build/node-client (ignored by git) once.
source "$(dirname "$0")/../../scripts/lib.sh"
prepare_test_server
ensure_node

client_dir="$PROJECT_ROOT/build/node-client"
if [ ! -f "$client_dir/node_modules/pg/package.json" ]; then
    log "installing node-postgres into $client_dir"
    mkdir -p "$client_dir"
    npm install --prefix "$client_dir" --no-save --no-audit --no-fund --loglevel=error pg@8 >/dev/null
fi

db=kestrava_client
dropdb --if-exists "$db" 2>/dev/null
createdb "$db"
on_exit "dropdb --if-exists $db"
psql -X -q -v ON_ERROR_STOP=1 -d "$db" -c "CREATE EXTENSION kestrava_range_operators"
KESTRAVA_CLIENT_DATABASE=$db NODE_PATH="$client_dir/node_modules" node "$PROJECT_ROOT/test/shell/client_node.js"
