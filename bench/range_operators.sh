#!/usr/bin/env bash
# Times the range-array set operators against PostgreSQL's int4multirange on identical canonical
# random sets of 10^3, 10^4 and 10^5 ranges, inputs read from a table (detoasting included), and
# against a bare in-process merge of the same arrays. Prints each time and the ratios.
#
# Environment: SIZES (comma-separated range counts, default 1000,10000,100000),
#              SECONDS_PER_RUN (length of one timed execution, default 0.15).
source "$(dirname "$0")/../scripts/lib.sh"

SIZES=${SIZES:-1000,10000,100000}
SECONDS_PER_RUN=${SECONDS_PER_RUN:-0.15}

ensure_dependencies
cd "$PROJECT_ROOT"
mkdir -p build/bench

log "building the bare merge program"
g++ -std=c++17 -O2 -fno-strict-aliasing -fwrapv -fno-exceptions -fno-rtti -Wall -Wextra \
    -I pluginimpl/inc -o build/bench/bare_merge bench/bare_merge.cpp

build_extension
install_extension
start_throwaway_server

export PGOPTIONS="-c jit=off"
log "generating the range sets (sizes $SIZES)"
psql -X -q -v sizes="$SIZES" -f bench/range_operators_setup.sql >/dev/null

log "checking that both representations hold the same sets and give the same results"
mismatches=$(psql -X -At -c "
    SELECT count(*) FILTER (WHERE NOT ok) FROM bench_pair, LATERAL (VALUES
        (a::text = bench_from_multirange(ma)::text),
        (b::text = bench_from_multirange(mb)::text),
        (c::text = bench_from_multirange(mc)::text),
        (zm_int4range_union(a, b)::text = bench_from_multirange(ma + mb)::text),
        (zm_int4range_intersection(a, b)::text = bench_from_multirange(ma * mb)::text),
        (zm_int4range_exclusion(a, b)::text = bench_from_multirange(ma - mb)::text),
        (zm_int4range_is_overlap(a, c) = (ma && mc)),
        (zm_int4range_is_overlap(a, b) = (ma && mb))) AS checks(ok)")
if [ "$mismatches" != "0" ]; then
    log "$mismatches results differ between the range arrays and int4multirange"
    exit 1
fi
psql -X -At -F ' ' -c "
    SELECT n, pg_column_size(a), pg_column_size(ma), cardinality(zm_int4range_intersection(a, b)) / 2
    FROM bench_pair ORDER BY n" |
    while read -r n stored_a stored_ma inter; do
        log "  n=$n: range array stored in $stored_a bytes, multirange in $stored_ma bytes; A*B has $inter ranges"
    done

log "timing the bare merge"
psql -X -At -F $'\t' -c "
    SELECT n, array_to_string(a, ' '), array_to_string(b, ' '), array_to_string(c, ' ')
    FROM bench_pair ORDER BY n" > build/bench/arrays.tsv
build/bench/bare_merge < build/bench/arrays.tsv > build/bench/bare.txt

# operation | our expression | multirange expression
OPERATIONS=(
    "union|zm_int4range_union(a, b)|ma + mb"
    "intersection|zm_int4range_intersection(a, b)|ma * mb"
    "exclusion|zm_int4range_exclusion(a, b)|ma - mb"
    "overlap_full_scan|zm_int4range_is_overlap(a, c)|ma && mc"
    "overlap_early_hit|zm_int4range_is_overlap(a, b)|ma && mb"
)

time_sql() {  # size expression -> microseconds per row
    local query="SELECT count($2) FROM bench_pair, generate_series(1, \$1) WHERE n = $1"
    psql -X -At -v ON_ERROR_STOP=1 -v q="$query" <<< "SELECT round(bench_us(:'q', $SECONDS_PER_RUN)::numeric, 2);"
}

bare_us() {  # size operation -> microseconds, or "-" when not measured
    awk -v n="$1" -v op="$2" 'BEGIN { t = "-" } $1 == n && $2 == op { t = $3 } END { print t }' build/bench/bare.txt
}

results=build/bench/results.txt
: > "$results"
for n in ${SIZES//,/ }; do
    log "timing $n ranges"
    rows=$(time_sql "$n" "n")
    read_both=$(time_sql "$n" "array_length(a, 1) + array_length(b, 1)")
    for entry in "${OPERATIONS[@]}"; do
        IFS='|' read -r op ours theirs <<< "$entry"
        our_us=$(time_sql "$n" "$ours")
        their_us=$(time_sql "$n" "$theirs")
        echo "$n $op $our_us $their_us $(bare_us "$n" "$op") $rows $read_both" >> "$results"
    done
done

echo
echo "Per call, microseconds (best of 3 runs; inputs read from a table, detoasting included)."
echo "bare = the same algorithm on the same arrays in a plain C++ program (no server)."
awk '
BEGIN {
    printf "%8s  %-18s %12s %12s %9s %10s %9s\n", "ranges", "operation", "multirange", "ours", "mr/ours", "bare", "ours/bare"
}
{
    n = $1; op = $2; ours = $3; theirs = $4; bare = $5
    ratio = theirs / ours
    if (bare != "-") { b = sprintf("%10.2f", bare); ob = sprintf("%9.1f", ours / bare) } else { b = sprintf("%10s", "-"); ob = sprintf("%9s", "-") }
    printf "%8d  %-18s %12.2f %12.2f %8.1fx %s %s\n", n, op, theirs, ours, ratio, b, ob
    if (!(n in overhead)) order[++sizes] = n
    overhead[n] = sprintf("row overhead %.2f us, detoasting both inputs %.2f us", $6, $7)
    if (n == 10000 && (op == "union" || op == "intersection" || op == "exclusion")) {
        checked++
        if (ratio >= 30) fast++
        if (bare != "-" && ours / bare <= 3) near++
    }
}
END {
    print ""
    for (i = 1; i <= sizes; i++) printf "%8d ranges: %s\n", order[i], overhead[order[i]]
    if (checked) {
        printf "\ntargets at 10^4 ranges (union, intersection, exclusion): >= 30x multirange: %d of %d met; within 3x of the bare merge: %d of %d met\n", fast, checked, near, checked
    }
}' "$results"

echo
echo "Bare merge, branch-free walk / step-by-step rules (which canonical inputs skip), microseconds;"
echo "once with the table's input repeated, once over several distinct random inputs in turn:"
awk '
{ t[$1 " " $2] = $3; if (!($1 in seen)) { seen[$1] = 1; order[++sizes] = $1 } }
END {
    for (i = 1; i <= sizes; i++) {
        n = order[i]
        printf "%8d ranges  repeated: intersection %.1f / %.1f, exclusion %.1f / %.1f;", n,
            t[n " intersection"], t[n " intersection_stepwise"], t[n " exclusion"], t[n " exclusion_stepwise"]
        printf "  distinct: intersection %.1f / %.1f, exclusion %.1f / %.1f\n",
            t[n " intersection_distinct"], t[n " intersection_stepwise_distinct"],
            t[n " exclusion_distinct"], t[n " exclusion_stepwise_distinct"]
    }
}' build/bench/bare.txt
