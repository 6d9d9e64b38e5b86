#!/usr/bin/env bash
# Opens psql on a throwaway server with the extension created; the server goes away on exit.
source "$(dirname "$0")/lib.sh"

ensure_dependencies
build_extension
install_extension
start_throwaway_server
psql -X -q -c 'CREATE EXTENSION kestrava_range_operators'
psql -X "$@"
