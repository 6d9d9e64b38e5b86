#!/usr/bin/env bash
# Runs the SQL regression suite on a PostgreSQL 15 built with assertions (--enable-cassert
# --enable-debug): Assert()s in the server and in our extension are checked, memory contexts are
# checked (MEMORY_CONTEXT_CHECKING: writes past a chunk's end, corrupt blocks) and freed memory is
# clobbered (CLOBBER_FREED_MEMORY: use after pfree reads garbage instead of stale data).
#
# The server is built once from Debian's source package of the installed server's version, into
# a cache outside the checkout (KESTRAVA_CASSERT_ROOT, default /var/cache/kestrava-cassert), and
# reused by later runs. The extension is built from a copy of the working tree (tracked and
# untracked, not ignored files), so the checkout's own build products stay untouched.
#
# Runs both schedules (the extended one without the cancellation timings). Fails when a regression test
# fails or when the server log shows an assertion failure, a crash, a memory context warning or a
# resource leak. Prints one line 'cassert: N passed, M failed'.
source "$(dirname "$0")/lib.sh"

ensure_dependencies

version=$(dpkg-query -W -f='${Version}' postgresql-15)
source_package=$(dpkg-query -W -f='${source:Package}' postgresql-15)
source_version=$(dpkg-query -W -f='${source:Version}' postgresql-15)
if [ "$(id -u)" -eq 0 ]; then
    cassert_root=${KESTRAVA_CASSERT_ROOT:-/var/cache/kestrava-cassert}
else
    cassert_root=${KESTRAVA_CASSERT_ROOT:-${XDG_CACHE_HOME:-$HOME/.cache}/kestrava-cassert}
fi
work=$cassert_root/$version
prefix=$work/install
stamp=$work/complete
pg_config=$prefix/bin/pg_config
# Recorded in the stamp: a change of options rebuilds. Readline, zlib, ICU and LLVM are not used
# by the tests; leaving them out keeps the build dependencies down to a compiler and perl.
configure_options=(--prefix="$prefix" --enable-cassert --enable-debug
                   --without-readline --without-zlib --without-icu --without-llvm)
contrib_modules=(dblink pageinspect)  # the regression tests create these extensions
mkdir -p "$work/logs"

# One run at a time per server version: the build, and installing the extension into the shared
# prefix and testing it. fd 9, like lib.sh's install lock, is not inherited by the server.
exec 9>"$work/lock"
flock 9

sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
install_missing() {
    local missing=() p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    if [ ${#missing[@]} -eq 0 ]; then return; fi
    log "installing ${missing[*]}"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

# Prints the tail of a build log and fails.
build_failed() {
    log "FAILED: $1; the end of $2:"
    tail -n 40 "$2" >&2
    exit 1
}

# apt-get and apt-cache with a private configuration that only knows deb-src entries derived from
# the machine's own deb entries: the machine's sources, lists and caches stay as they are.
private_apt() {
    local tool=$1 dir=$work/apt
    shift
    "$tool" -o "Dir::Etc::SourceList=$dir/sources.list" -o "Dir::Etc::SourceParts=$dir/sources.list.d" \
            -o "Dir::State::Lists=$dir/lists" -o "Dir::Cache=$dir/cache" \
            -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= "$@"
}

write_private_sources() {
    local dir=$work/apt sourcelist sourceparts f
    rm -rf "$dir"
    mkdir -p "$dir/sources.list.d" "$dir/lists/partial" "$dir/cache/archives/partial"
    # Where this machine's apt reads its sources from.
    eval "$(apt-config shell sourcelist Dir::Etc::sourcelist/f sourceparts Dir::Etc::sourceparts/d)"
    # One-line format: the main list and *.list parts (apt reads no other names, so disabled
    # files such as foo.list.disabled are skipped here too); comments stay out.
    : > "$dir/sources.list"
    for f in "$sourcelist" "$sourceparts"/*.list; do
        [ -f "$f" ] || continue
        sed -n 's/^[[:space:]]*deb[[:space:]]\{1,\}/deb-src /p' "$f" >> "$dir/sources.list"
    done
    # deb822 format, one stanza per paragraph: a stanza with type deb becomes deb-src; stanzas
    # with 'Enabled: no' or without deb are dropped, and so are comment lines.
    for f in "$sourceparts"/*.sources; do
        [ -f "$f" ] || continue
        awk 'BEGIN { RS = ""; FS = "\n" }
             { out = ""; keep = 1; typed = 0
               for (i = 1; i <= NF; i++) {
                   line = $i
                   if (line ~ /^#/) continue
                   if (tolower(line) ~ /^types:/) {
                       if (line ~ /[: \t]deb([ \t]|$)/ || line ~ /[: \t]deb-src([ \t]|$)/) { line = "Types: deb-src"; typed = 1 }
                       else keep = 0
                   }
                   if (tolower(line) ~ /^enabled:[ \t]*no/) keep = 0
                   out = out line "\n"
               }
               if (keep && typed) printf "%s\n", out }' "$f" > "$dir/sources.list.d/$(basename "$f")"
    done
}

# Downloads the source package of the installed version into $work/src/download and unpacks it
# into $work/src/postgresql. Sets built_source_version. When that version's source cannot be
# downloaded (a security update whose source the mirror does not serve), falls back to the newest
# version of the same source package that can, and says so.
fetch_source() {
    write_private_sources
    private_apt apt-get -qq update > "$work/logs/apt.log" 2>&1 || build_failed "apt-get update (private sources)" "$work/logs/apt.log"
    local candidates v
    candidates=$( { echo "$source_version"; private_apt apt-cache showsrc "$source_package" | sed -n 's/^Version: //p' | sort -rV; } | awk '!seen[$0]++')
    built_source_version=""
    for v in $candidates; do
        log "fetching the source of $source_package $v"
        rm -rf "$work/src"
        mkdir -p "$work/src/download"
        # apt downloads as the unprivileged _apt user, which needs to write here.
        if [ "$(id -u)" -eq 0 ] && id _apt >/dev/null 2>&1; then chown _apt "$work/src/download"; fi
        if (cd "$work/src/download" && private_apt apt-get -q --download-only source "$source_package=$v") >> "$work/logs/apt.log" 2>&1; then
            built_source_version=$v
            break
        fi
        log "no source of $source_package $v to be had (see $work/logs/apt.log)"
    done
    [ -n "$built_source_version" ] || build_failed "no source of $source_package to be had" "$work/logs/apt.log"
    [ "$built_source_version" = "$source_version" ] || log "WARNING: building $built_source_version instead of the installed $source_version"
    # Without Debian's patches: its per-version-dirs patch hard-codes the library directory to
    # /usr/lib/postgresql/15/lib for a prefix without 'postgres' in it, so an install would
    # overwrite the system server's libraries. The other patches are packaging (paths, socket
    # directory, psql history, extension_destdir) and change nothing the tests exercise.
    dpkg-source --no-check --skip-patches -x "$work/src/download/${source_package}_${built_source_version#*:}.dsc" \
        "$work/src/postgresql" >> "$work/logs/apt.log" 2>&1 || build_failed "dpkg-source -x" "$work/logs/apt.log"
    # dpkg-source leaves a copy of the upstream tarball beside the tree.
    rm -rf "$work/apt" "$work/src/download" "$work/src/"*.orig.tar.*
}

build_server() {
    install_missing dpkg-dev build-essential perl bzip2 xz-utils
    fetch_source
    local srcdir=$work/src/postgresql
    # The release tarball ships the bison and flex outputs (gram.c, scan.c, ...): the tools are
    # needed only for a grammar or scanner newer than its output, which a release does not have.
    local f need_parser_tools=no
    while IFS= read -r f; do
        if [ ! -e "${f%.*}.c" ] || [ "$f" -nt "${f%.*}.c" ]; then need_parser_tools=yes; fi
    done < <(find "$srcdir" -name '*.y' -o -name '*.l')
    [ $need_parser_tools = no ] || install_missing bison flex

    log "building PostgreSQL $built_source_version with assertions into $prefix (several minutes)"
    rm -rf "$prefix" "$stamp"
    (cd "$srcdir" && ./configure "${configure_options[@]}") > "$work/logs/configure.log" 2>&1 \
        || build_failed "configure" "$work/logs/configure.log"
    # Nothing may be installed outside the prefix (the system server's files are next door).
    local d
    # shellcheck disable=SC2016  # make, not the shell, expands $($*)
    for d in bindir pkglibdir datadir includedir_server pgxsdir; do
        case $(make -s -C "$srcdir/src/port" --eval 'print-%: ; @echo $($*)' "print-$d") in
            "$prefix"/*) ;;
            *) log "FAILED: the build would install $d outside $prefix"; exit 1 ;;
        esac
    done
    make -C "$srcdir" -j"$(nproc)" > "$work/logs/make.log" 2>&1 || build_failed "make" "$work/logs/make.log"
    make -C "$srcdir" install > "$work/logs/install.log" 2>&1 || build_failed "make install" "$work/logs/install.log"
    local m
    for m in "${contrib_modules[@]}"; do
        make -C "$srcdir/contrib/$m" -j"$(nproc)" install >> "$work/logs/install.log" 2>&1 \
            || build_failed "contrib/$m" "$work/logs/install.log"
    done
}

# Builds only when no complete install with the same options is there.
server_seconds=0
if [ -f "$stamp" ] && [ "$(head -n 1 "$stamp")" = "${configure_options[*]}" ] && [ -x "$pg_config" ]; then
    server_built="cached ($(sed -n 2p "$stamp"))"
else
    started=$SECONDS
    build_server
    server_seconds=$((SECONDS - started))
    printf '%s\nsource %s, built in %d s on %s\n' "${configure_options[*]}" "$built_source_version" \
        "$server_seconds" "$(date -u +%FT%TZ)" > "$stamp"
    server_built="source $built_source_version, built in $server_seconds s"
fi

# The extension, from a copy of the working tree. The copy is kept between runs and files keep
# their modification times, so make rebuilds only what changed; files gone from the tree are
# removed from the copy (the previous run's file list says which).
ext=$work/extension
mkdir -p "$ext"
list=$ext/.copied-files.new
git -C "$PROJECT_ROOT" ls-files -z --cached --others --exclude-standard --deduplicate \
    | while IFS= read -r -d '' f; do
          # a tracked file deleted in the working tree is not copied
          if [ -f "$PROJECT_ROOT/$f" ]; then printf '%s\0' "$f"; fi
      done > "$list"
if [ -f "$ext/.copied-files" ]; then
    comm -z -23 <(sort -z "$ext/.copied-files") <(sort -z "$list") | (cd "$ext" && xargs -0 -r rm -f --)
fi
tar -C "$PROJECT_ROOT" --null -T "$list" -cf - | tar -C "$ext" -xpf -
mv "$list" "$ext/.copied-files"

log "building the extension against the cassert server"
started=$SECONDS
make -C "$ext" -s -j"$(nproc)" PG_CONFIG="$pg_config" > "$work/logs/extension.log" 2>&1 \
    || build_failed "extension build" "$work/logs/extension.log"
make -C "$ext" -s install PG_CONFIG="$pg_config" >> "$work/logs/extension.log" 2>&1 \
    || build_failed "extension install" "$work/logs/extension.log"
extension_seconds=$((SECONDS - started))

PG_BINDIR=$prefix/bin
export PATH="$PG_BINDIR:$PATH"
start_throwaway_server

# Both schedules: the fast suite and the extended one (torture, memory, index pages), less the
# cancellation test, which measures how soon a cancel request takes effect: on the way out this
# server wipes the freed memory (a gigabyte there), slower by design, so its timing is not what
# this run checks.
log "SQL regression tests on the cassert server"
started=$SECONDS
status=0
rm -rf "$ext/build/regress"
mkdir -p "$ext/build"
: > "$ext/build/regress.log"
extended=$(sed -n 's/^test: *//p' "$ext/test/extended_schedule" | grep -vx cancellation | tr '\n' ' ')
make -C "$ext" -s installcheck PG_CONFIG="$pg_config" >> "$ext/build/regress.log" 2>&1 || status=$?
make -C "$ext" -s installcheck PG_CONFIG="$pg_config" REGRESS="$extended" >> "$ext/build/regress.log" 2>&1 || status=$?
suite_seconds=$((SECONDS - started))
cp "$SERVER_LOG" "$ext/build/server.log"  # the throwaway directory goes at exit

sql_passed=$(grep -cE '^(ok|test) .* ok|^ok ' "$ext/build/regress.log" || true)
sql_failed=$(grep -cE 'FAILED|failed \(ignored\)|diff command failed' "$ext/build/regress.log" || true)
[ $status -eq 0 ] || [ "$sql_failed" -gt 0 ] || sql_failed=1
if [ $status -ne 0 ]; then
    log "FAILED: regression tests on the cassert server:"
    cat "$ext/build/regress.log" >&2
    [ ! -f "$ext/build/regress/regression.diffs" ] || head -n 200 "$ext/build/regress/regression.diffs" >&2
fi

# What the server log must not contain. Assertion failures and crashes:
#   TRAP: (failed Assert), a backend killed by a signal or exiting with a code other than 0/1
#   (the postmaster then restarts all backends), PANIC.
# Memory context checks (src/backend/utils/mmgr/{aset,generation,slab}.c, PostgreSQL 15, all
#   WARNINGs): 'problem in alloc set %s: ...', 'problem in Generation %s: ...',
#   'problem in slab %s: ...', 'detected write past chunk end in %s %p'; they are checked at
#   pfree/repalloc, when a context is reset or deleted, and for all contexts after each command.
# Resource leaks that resource owners report at commit (resowner.c, catcache.c, relcache.c,
#   bufmgr.c; WARNINGs in any build).
bad_patterns=(
    'TRAP:'
    'terminated by signal'
    'terminated by exception'
    'exited with exit code ([02-9]|[1-9][0-9]+)'
    'all server processes terminated; reinitializing'
    'PANIC:'
    'problem in alloc set'
    'problem in Generation'
    'problem in slab'
    'detected write past chunk end'
    'reference leak:'
    'refcount leak:'
    'temporary file leak:'
    'dynamic shared memory leak:'
    'leaking still-referenced'
)
bad_regex=$(IFS='|'; echo "${bad_patterns[*]}")

# Source lines of the frames of the backtraces that a failed Assert prints after 'TRAP:' (glibc's
# 'binary(symbol+0xoff) [address]' lines; the backend's own binary shows as its process title).
symbolize_frames() {
    local line bin sym off addr
    while IFS= read -r line; do
        [[ $line =~ ^(.*)\(([^+\(\)]*)\+(0x[0-9a-f]+)\)\ ?\[0x[0-9a-f]+\]$ ]] || continue
        bin=${BASH_REMATCH[1]} sym=${BASH_REMATCH[2]} off=${BASH_REMATCH[3]}
        [[ $bin == /* ]] || bin=$prefix/bin/postgres
        addr=$off
        if [ -n "$sym" ]; then
            addr=$(nm --defined-only "$bin" 2>/dev/null | awk -v s="$sym" '$3 == s { print $1; exit }')
            [ -n "$addr" ] || continue
            addr=$(printf '0x%x' $((0x$addr + off)))
        fi
        printf '    %s\n' "$(addr2line -C -f -i -p -e "$bin" "$addr" 2>/dev/null | tr '\n' ' ')"
    done
}

log_failed=0
if grep -qE "$bad_regex" "$ext/build/server.log"; then
    log_failed=1
    log "FAILED: the cassert server log shows assertion failures, crashes or memory context warnings:"
    grep -nE -B5 -A40 "$bad_regex" "$ext/build/server.log" | head -n 400 >&2
    if grep -q 'TRAP:' "$ext/build/server.log"; then
        log "frames of the first assertion failure's backtrace:"
        sed -n '/TRAP:/,/^[0-9]\{4\}-/p' "$ext/build/server.log" | head -n 40 | symbolize_frames >&2
    fi
    log "full server log: $ext/build/server.log"
fi

log "timings: server $server_built; extension build $extension_seconds s; suite $suite_seconds s"
echo "cassert: $sql_passed passed, $((sql_failed + log_failed)) failed"
[ $status -eq 0 ] && [ $log_failed -eq 0 ]
