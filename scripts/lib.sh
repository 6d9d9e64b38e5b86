# Shared shell functions of the project scripts: dependencies, build, and a throwaway server.
# shellcheck shell=bash
set -euo pipefail

PROJECT_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# The server's programs; KESTRAVA_PG_BINDIR (or setting PG_BINDIR before start_throwaway_server)
# selects another build, such as scripts/cassert.sh's.
PG_BINDIR=${KESTRAVA_PG_BINDIR:-/usr/lib/postgresql/15/bin}
export PATH="$PG_BINDIR:$PATH"

log() { printf '==> %s\n' "$*" >&2; }

# Installs the Debian packages the build and the tests need, only when one is missing.
ensure_dependencies() {
    ensure_packages postgresql-15 postgresql-server-dev-15 postgresql-contrib libgtest-dev libbenchmark-dev cmake g++ make clang \
                    clang-14 libclang-rt-14-dev
}

# Installs the given Debian packages, only those that are missing.
ensure_packages() {
    local missing=()
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    log "installing ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

build_extension() {
    log "building the extension"
    make -C "$PROJECT_ROOT" -s -j"$(nproc)" >/dev/null
}

# Installs into the server's directories. Concurrent runs from other checkouts would replace the
# library under a running test, so installing and using the installed extension happen under one
# lock (held until the calling script exits).
install_extension() {
    take_install_lock
    log "installing the extension"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo make -C "$PROJECT_ROOT" -s install >/dev/null
}

# The install lock, held until the calling script exits. A script run by another that holds it
# (scripts/test.sh running the shell tests) shares it.
take_install_lock() {
    if [ "${KESTRAVA_INSTALL_LOCK_HELD:-}" != 1 ]; then
        exec 9>/tmp/kestrava_range_operators.install.lock
        flock 9
        export KESTRAVA_INSTALL_LOCK_HELD=1
    fi
}

# Server processes run as an unprivileged user: 'postgres' when we are root, else ourselves.
as_server_user() {
    if [ "$(id -u)" -eq 0 ]; then
        # From /: the checkout may lie in a directory the server user cannot enter (every path
        # given here is absolute).
        (cd / && runuser -u postgres -- "$@")
    else
        "$@"
    fi
}

# Starts a throwaway cluster listening only on a unix socket in a fresh temporary directory, and
# arranges for it to be stopped and removed when the calling script exits, whatever the outcome.
# The server must not inherit the install lock (fd 9): a script killed before its exit trap runs
# would otherwise leave a server behind that holds the lock for every other checkout.
# Exports PGHOST, PGPORT, PGUSER, PGDATABASE and SERVER_LOG.
start_throwaway_server() {
    THROWAWAY_DIR=$(mktemp -d /tmp/kestrava-pg.XXXXXX)
    chmod 755 "$THROWAWAY_DIR"
    [ "$(id -u)" -ne 0 ] || chown postgres: "$THROWAWAY_DIR"
    install_exit_trap
    trap 'exit 130' INT TERM
    export PGHOST="$THROWAWAY_DIR" PGPORT=$((50000 + RANDOM % 10000))
    export PGUSER=$(as_server_user id -un) PGDATABASE=postgres
    export SERVER_LOG="$THROWAWAY_DIR/server.log"
    log "starting a throwaway server in $THROWAWAY_DIR"
    as_server_user "$PG_BINDIR/initdb" -D "$THROWAWAY_DIR/data" --auth=trust --no-sync -E UTF8 --locale=C.UTF-8 >/dev/null
    as_server_user "$PG_BINDIR/pg_ctl" -D "$THROWAWAY_DIR/data" -l "$SERVER_LOG" -w -o \
        "-c listen_addresses='' -c unix_socket_directories='$THROWAWAY_DIR' -p $PGPORT -c fsync=off -c max_worker_processes=8 -c max_parallel_workers=8 -c log_line_prefix='%m [%p] '" \
        start >/dev/null 9>&-
}

# Commands that run when the calling script exits, whatever the outcome, before the throwaway
# server it started (if any) is stopped: on_exit 'rm -rf "$dir"'.
# The handler turns errexit off: under it, restoring a failing exit status before stopping the server
# would end the handler there and leave the server running.
EXIT_COMMANDS=()
on_exit() {
    EXIT_COMMANDS+=("$1")
    install_exit_trap
}
install_exit_trap() {
    if [ -n "${THROWAWAY_DIR:-}" ]; then
        trap 'exit_status=$?; set +e; run_exit_commands; (exit $exit_status); stop_throwaway_server' EXIT
    else
        trap 'exit_status=$?; set +e; run_exit_commands; exit $exit_status' EXIT
    fi
}
run_exit_commands() {
    local command
    for command in "${EXIT_COMMANDS[@]}"; do
        eval "$command" || true
    done
}

stop_throwaway_server() {
    local status=$?
    if [ -n "${THROWAWAY_DIR:-}" ] && [ -d "$THROWAWAY_DIR" ]; then
        as_server_user "$PG_BINDIR/pg_ctl" -D "$THROWAWAY_DIR/data" -m immediate stop >/dev/null 2>&1 || true
        if grep -q 'terminated by signal' "$SERVER_LOG" 2>/dev/null; then
            log "the server log shows a backend terminated by a signal:"
            grep -B2 -A2 'terminated by signal' "$SERVER_LOG" >&2
            status=1
        fi
        rm -rf "$THROWAWAY_DIR"
    fi
    exit $status
}

# The shell tests (test/shell/*.sh) run alone, or from scripts/test.sh on its server with the
# extension it built and installed (KESTRAVA_TEST_SERVER=1, PGHOST and PGPORT exported).
prepare_test_server() {
    if [ "${KESTRAVA_TEST_SERVER:-}" = 1 ]; then
        cd "$PROJECT_ROOT"
        return
    fi
    ensure_dependencies
    build_extension
    install_extension
    start_throwaway_server
    cd "$PROJECT_ROOT"
}

# Node.js and npm for the client test: Debian's packages, only when no node and npm are installed
# (a machine may have them from elsewhere).
ensure_node() {
    if command -v node >/dev/null && command -v npm >/dev/null; then
        return
    fi
    ensure_packages nodejs npm
}
