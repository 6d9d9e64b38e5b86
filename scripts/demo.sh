#!/usr/bin/env bash
# Quick start, step one: installs what is missing, builds and installs the extension, starts a
# throwaway server and runs the demo in it.
source "$(dirname "$0")/lib.sh"

ensure_dependencies
build_extension
install_extension
start_throwaway_server
log "running the demo"
psql -X -q -v ON_ERROR_STOP=1 -f "$PROJECT_ROOT/demo/demo.sql"
