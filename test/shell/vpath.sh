#!/usr/bin/env bash
# Out-of-tree build, the way pg_buildext and `dh --with pgxs` build a package:
#   make -C build -f $src/Makefile VPATH=$src
# from a clean copy of the source tree (in-tree build products would otherwise be found through
# VPATH). Checks that the library exports every function the install script binds, that the
# install script is the one an in-tree build writes, that `make installcheck` and
# `make installcheck-extended` would run the expected tests, that `make install` stages every file
# of the extension, and that nothing was written into the source tree.
source "$(dirname "$0")/../../scripts/lib.sh"
ensure_dependencies
cd "$PROJECT_ROOT"

work=$(mktemp -d /tmp/kestrava-vpath.XXXXXX)
on_exit 'rm -rf "$work"'
src="$work/src"
mkdir -p "$src" "$work/build" "$work/stage"
# Tracked and new (not ignored) files of the checkout, as a source package would hold them.
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$src"
find "$src" -type f | sort > "$work/before"

fail() { log "vpath: $*"; exit 1; }

log "out-of-tree build in $work/build"
make -C "$work/build" -f "$src/Makefile" VPATH="$src" -s -j"$(nproc)" >/dev/null
make -C "$work/build" -f "$src/Makefile" VPATH="$src" -s install DESTDIR="$work/stage" >/dev/null

version=$(sed -n "s/^default_version *= *'\(.*\)'/\1/p" kestrava_range_operators.control)
script="$work/build/kestrava_range_operators--$version.sql"
library="$work/build/libKestravaPgRangeOperators3_0.so"
[ -s "$script" ] || fail "no install script $script"
[ -s "$library" ] || fail "no library $library"

# The same install script as an in-tree build writes (built here from a second clean copy).
cp -r "$src" "$work/intree"
make -C "$work/intree" -s "kestrava_range_operators--$version.sql" >/dev/null
cmp "$script" "$work/intree/kestrava_range_operators--$version.sql" || fail "the install script differs from the in-tree build's"
# Every fragment of sql/ went into it.
for fragment in sql/*.sql; do
    grep -qxF -- "-- $fragment" "$script" || fail "$fragment is missing from the install script"
done
objects=$(grep -cE '^CREATE (FUNCTION|AGGREGATE|OPERATOR|OPERATOR CLASS) ' "$script")
fragment_objects=$(cat sql/*.sql | grep -cE '^CREATE (FUNCTION|AGGREGATE|OPERATOR|OPERATOR CLASS) ')
[ "$objects" -eq "$fragment_objects" ] && [ "$objects" -gt 50 ] || fail "install script holds $objects objects, the fragments $fragment_objects"

# Every library function the script binds is exported with its info record, and the magic block.
symbols=$(nm -D --defined-only "$library" | awk '{print $3}' | sort -u)
bound=$(sed -n "s/^AS 'MODULE_PATHNAME', '\([A-Za-z0-9_]*\)'.*/\1/p" "$script" | sort -u)
[ "$(echo "$bound" | wc -l)" -gt 50 ] || fail "the install script binds only $(echo "$bound" | wc -l) library functions"
missing=$(for f in $bound; do for s in "$f" "pg_finfo_$f"; do grep -qxF "$s" <<<"$symbols" || echo "$s"; done; done)
grep -qxF Pg_magic_func <<<"$symbols" || missing="$missing Pg_magic_func"
[ -z "$missing" ] || fail "the library does not export: $missing"

# The tests that `make installcheck` and `make installcheck-extended` would run (dry runs).
all_tests=$(ls test/sql/*.sql | xargs -n1 basename | sed 's/\.sql$//' | sort)
extended=$(sed -n 's/^test: *//p' test/extended_schedule | sort)
expected_fast=$(comm -23 <(echo "$all_tests") <(echo "$extended") | tr '\n' ' ')
fast=$(make -C "$work/build" -f "$src/Makefile" VPATH="$src" -n installcheck | grep pg_regress |
       grep -o -- "--dbname=contrib_regression .*" | cut -d' ' -f2- | tr ' ' '\n' | sort | tr '\n' ' ')
[ "$fast" = "$expected_fast" ] || fail "make installcheck would run: '$fast', expected '$expected_fast'"
extended_run=$(make -C "$work/build" -f "$src/Makefile" VPATH="$src" -n installcheck-extended)
grep -q -- "--schedule=$src/test/extended_schedule" <<<"$extended_run" ||
    fail "make installcheck-extended does not run the extended schedule"

# make install staged the control file, the library and its bitcode, the current install script,
# the released install scripts and the upgrade scripts.
staged=$(cd "$work/stage" && find . -type f | sed 's|^\./||' | sort)
share=$(pg_config --sharedir | sed 's|^/||')/extension
pkglib=$(pg_config --pkglibdir | sed 's|^/||')
for f in "$share/kestrava_range_operators.control" "$share/kestrava_range_operators--$version.sql" \
         "$pkglib/libKestravaPgRangeOperators3_0.so" "$pkglib/bitcode/libKestravaPgRangeOperators3_0.index.bc" \
         $(cd sql && ls released/*.sql updates/*.sql 2>/dev/null | sed "s|^[a-z]*/|$share/|"); do
    grep -qxF "$f" <<<"$staged" || fail "make install did not stage $f"
done

# Nothing was written into the source tree.
find "$src" -type f | sort | diff "$work/before" - >/dev/null || fail "the build wrote into the source tree: $(find "$src" -type f | sort | diff "$work/before" - | head)"
echo "vpath: out-of-tree build exports $(echo "$bound" | wc -l) functions, script of $objects objects, $(echo "$fast" | wc -w) fast and $(echo "$extended" | wc -w) extended tests"
