#!/usr/bin/env bash
# Debian package: dpkg-buildpackage builds postgresql-15-kestrava-range-operators from debian/ in a
# copy of the source tree (it writes into the parent directory); the package holds the extension's
# files; installed on this machine's PostgreSQL (under the install lock), it runs the demo and the
# fast regression suite (make installcheck, what debian/tests/installcheck runs); then it is purged
# and the extension installed from source again, also when a step fails. The versions in the
# control file, META.json, debian/changelog and CHANGELOG.md must agree.
#
# The package is built with DEB_BUILD_OPTIONS=nocheck: its build-time tests (dh_pgxs_test) start a
# cluster with pg_virtualenv, which listens on localhost; the same suite runs here instead, on the
# throwaway server's unix socket, against the installed package.
source "$(dirname "$0")/../../scripts/lib.sh"
prepare_test_server
ensure_packages debhelper dpkg-dev postgresql-server-dev-all g++
take_install_lock   # installing the package replaces the extension every checkout tests

fail() { log "package: $*"; exit 1; }

version=$(sed -n "s/^default_version *= *'\(.*\)'/\1/p" kestrava_range_operators.control)
package=postgresql-15-kestrava-range-operators
deb_version=$(dpkg-parsechangelog -S Version)
[ "${deb_version%-*}" = "$version" ] || fail "debian/changelog is at $deb_version, the extension at $version"
grep -q "^## $version " CHANGELOG.md || fail "CHANGELOG.md has no entry for $version"
[ "$(perl -MJSON::PP -e 'my $m = decode_json(do { local $/; <STDIN> }); print "$m->{version} $m->{provides}{kestrava_range_operators}{version}"' < META.json)" = "$version $version" ] ||
    fail "META.json does not give version $version"

work=$(mktemp -d /tmp/kestrava-package.XXXXXX)
on_exit 'rm -rf "$work"'
src="$work/kestrava-range-operators-$version"
mkdir -p "$src"
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$src"

log "dpkg-buildpackage -us -uc -b (nocheck) in $src"
start=$(date +%s)
(cd "$src" && DEB_BUILD_OPTIONS=nocheck DEB_BUILD_PROFILES=nocheck dpkg-buildpackage -us -uc -b) > "$work/build.log" 2>&1 ||
    { tail -n 60 "$work/build.log"; fail "dpkg-buildpackage failed"; }
build_seconds=$(( $(date +%s) - start ))
deb=$(ls "$work"/${package}_"$deb_version"_*.deb 2>/dev/null | head -n 1)
[ -n "$deb" ] || fail "no $package .deb in $work: $(ls "$work")"

# What the package holds.
[ "$(dpkg-deb -f "$deb" Package)" = "$package" ] || fail "package name $(dpkg-deb -f "$deb" Package)"
grep -q 'postgresql-15' <<<"$(dpkg-deb -f "$deb" Depends)" || fail "the package does not depend on postgresql-15"
contents=$(dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|')
sharedir=$(pg_config --sharedir)/extension
pkglibdir=$(pg_config --pkglibdir)
for f in "$sharedir/kestrava_range_operators.control" "$sharedir/kestrava_range_operators--$version.sql" \
         "$pkglibdir/libKestravaPgRangeOperators3_0.so" "$pkglibdir/bitcode/libKestravaPgRangeOperators3_0.index.bc" \
         $(cd sql && ls released/*.sql updates/*.sql | sed "s|^[a-z]*/|$sharedir/|"); do
    grep -qxF "$f" <<<"$contents" || fail "the package does not hold $f"
done

# Installed on this machine's server; whatever happens next, purged and replaced by the source build.
restore_source_install() {
    dpkg --purge "$package" >/dev/null 2>&1 || true
    make -C "$PROJECT_ROOT" -s install >/dev/null
}
on_exit restore_source_install
dpkg -i "$deb" > "$work/install.log" 2>&1 || { cat "$work/install.log"; fail "dpkg -i failed"; }
grep -qx "$pkglibdir/libKestravaPgRangeOperators3_0.so" <<<"$(dpkg -L "$package")" || fail "dpkg does not list the library"
cmp -s "$src/debian/$package/$pkglibdir/libKestravaPgRangeOperators3_0.so" "$pkglibdir/libKestravaPgRangeOperators3_0.so" ||
    fail "the installed library is not the package's"

db=kestrava_package
dropdb --if-exists "$db" 2>/dev/null
createdb "$db"
on_exit "dropdb --if-exists $db"
psql -X -q -v ON_ERROR_STOP=1 -d "$db" -f demo/demo.sql > "$work/demo.out" 2>&1 || { cat "$work/demo.out"; fail "the demo failed on the package"; }
[ "$(psql -X -At -d "$db" -c "SELECT extversion FROM pg_extension WHERE extname = 'kestrava_range_operators'")" = "$version" ] ||
    fail "the demo did not run version $version"
grep -q '{480,' "$work/demo.out" || fail "the demo's free minutes are missing from its output"
(cd "$src" && make -s installcheck PG_CONFIG="$(command -v pg_config)" > "$work/installcheck.log" 2>&1) ||
    { cat "$work/installcheck.log"; [ -f "$src/build/regress/regression.diffs" ] && head -n 100 "$src/build/regress/regression.diffs"; fail "make installcheck failed on the package"; }
tests=$(grep -cE '^(ok|test) .* ok' "$work/installcheck.log" || true)

restore_source_install
[ -z "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep ' installed')" ] || fail "the package is still installed"
[ -f "$pkglibdir/libKestravaPgRangeOperators3_0.so" ] || fail "the source build was not installed again"
echo "package: $(basename "$deb") built in ${build_seconds} s ($(dpkg-deb -f "$deb" Installed-Size) KB installed), ran the demo and $tests installcheck tests, purged, source build reinstalled"
