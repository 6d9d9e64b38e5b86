#!/usr/bin/env bash
# Benchmark of the set aggregates on a throwaway server: zm_int4set_agg and
# zm_int4set_agg_optimized against PostgreSQL's range_agg(int4range(x, x, '[]')) and
# array_agg(DISTINCT x ORDER BY x), and against merely reading the rows (count(x)), serial and with
# 2 parallel workers, on random values and on sorted runs. Prints times (best of REPEAT rounds in
# which every query runs once, after a warm-up round) and ratios,
# then the state sizes measured on the largest table. Parallel runs are timed twice: with the leader
# scanning rows too (the default) and with the two workers alone (2wk_nold).
#
# Data: ROWS values per table. Random: uniform in 0 .. 10 * ROWS - 1. Sorted: runs of 100
# consecutive values separated by gaps of 10, in ascending order. maxinput is the largest value.
#
# Usage: bench/set_aggregates.sh                 (10^6 and 10^7 rows, range_agg and array_agg on
#                                                 10^6 only; about two minutes)
#        SIZES="1000000" REPEAT=5 bench/set_aggregates.sh
#        FULL=1 bench/set_aggregates.sh          (range_agg and array_agg on every size too)
#        USE_RUNNING_SERVER=1 PGHOST=... PGPORT=... bench/set_aggregates.sh
#                                                (a running server with the extension installed)
source "$(dirname "$0")/../scripts/lib.sh"

SIZES=${SIZES:-"1000000 10000000"}
REPEAT=${REPEAT:-2}
FULL=${FULL:-0}

cd "$PROJECT_ROOT"
if [ "${USE_RUNNING_SERVER:-0}" = 1 ]; then
    # PGHOST, PGPORT, PGUSER and PGDATABASE name a server that has the extension installed.
    log "using the running server at ${PGHOST:-default}:${PGPORT:-default}"
    psql -X -q -c "DROP EXTENSION IF EXISTS kestrava_range_operators CASCADE" >/dev/null
else
    ensure_dependencies
    build_extension
    install_extension
    start_throwaway_server
fi

SERIAL="SET max_parallel_workers_per_gather = 0;"
PARALLEL="SET max_parallel_workers_per_gather = 2; SET parallel_setup_cost = 0; SET parallel_tuple_cost = 0;
SET min_parallel_table_scan_size = 0; SET parallel_leader_participation = on;"
# The same without the leader scanning rows: on a machine with two cores, three busy processes
# compete for them.
WORKERS_ONLY="${PARALLEL/parallel_leader_participation = on/parallel_leader_participation = off}"
COMMON="SET jit = off; SET work_mem = '256MB';"

psql_q() { psql -X -q -v ON_ERROR_STOP=1 "$@"; }

# Times every (label, settings, query) triple given as arguments (three per triple) in one session,
# round-robin: one warm-up round, then REPEAT timed rounds, so that load from other processes hits
# all of them alike. Prints "label best_ms" lines.
time_round_robin() {
    local -a args=("$@")
    {
        echo "$COMMON"
        echo '\o /dev/null'
        for round in $(seq 0 "$REPEAT"); do
            for ((i = 0; i < ${#args[@]}; i += 3)); do
                echo '\timing off'
                echo "${args[i + 1]}"
                echo '\timing on'
                echo "${args[i + 2]};"
                [ "$round" -eq 0 ] || echo "\\echo @ ${args[i]}"
            done
        done
    } | psql_q | awk '/^Time: / { t = $2 } /^@ / { if (!($2 in best) || t < best[$2]) best[$2] = t }
                      END { for (k in best) print k, best[k] }'
}

# Fails unless the query's plan (with the given settings) contains the text.
expect_plan() {
    local settings=$1 query=$2 text=$3
    if ! { echo "$COMMON $settings"; echo "EXPLAIN (COSTS OFF) $query;"; } | psql_q | grep -q "$text"; then
        echo "plan of [$query] does not contain [$text]" >&2
        exit 1
    fi
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.1f", a / b; else print "-" }'; }

psql_q -c "CREATE EXTENSION kestrava_range_operators"
for n in $SIZES; do
    log "tables of $n rows"
    psql_q <<SQL
DROP TABLE IF EXISTS rnd_$n, srt_$n;
SELECT setseed(0.5);
CREATE TABLE rnd_$n AS SELECT (random() * ($n * 10 - 1))::int4 AS x FROM generate_series(1, $n);
CREATE TABLE srt_$n AS SELECT (g + (g / 100) * 10)::int4 AS x FROM generate_series(0, $n - 1) g;
VACUUM ANALYZE rnd_$n;
VACUUM ANALYZE srt_$n;
SQL
done

printf '\n%-10s %-7s %-44s %10s %10s %9s %10s %9s\n' rows input method serial_ms 2wk_ms vs_serial 2wk_nold vs_serial
results=()
for n in $SIZES; do
    for kind in rnd srt; do
        table="${kind}_$n"
        max=$(psql_q -At -c "SELECT max(x) FROM $table")
        declare -A t=()
        methods=(read set opt)
        queries=(
            "SELECT count(x) FROM $table"
            "SELECT cardinality(zm_int4set_agg(x, 'r')) FROM $table"
            "SELECT cardinality(zm_int4set_agg_optimized(x, $max, 'r')) FROM $table"
        )
        if [ "$FULL" = 1 ] || [ "$n" = "$(echo "$SIZES" | awk '{print $1}')" ]; then
            methods+=(range_agg array_agg)
            queries+=(
                "SELECT range_agg(int4range(x, x, '[]')) IS NULL FROM $table"
                "SELECT cardinality(array_agg(DISTINCT x ORDER BY x)) FROM $table"
            )
        fi
        expect_plan "$PARALLEL" "${queries[1]}" "Partial Aggregate"
        expect_plan "$PARALLEL" "${queries[2]}" "Partial Aggregate"
        triples=()
        for i in "${!methods[@]}"; do
            m=${methods[$i]}
            triples+=("$m,s" "$SERIAL" "${queries[$i]}")
            if [ "$m" != range_agg ] && [ "$m" != array_agg ]; then   # no partial aggregation for these
                triples+=("$m,p" "$PARALLEL" "${queries[$i]}" "$m,w" "$WORKERS_ONLY" "${queries[$i]}")
            fi
        done
        while read -r key ms; do t[$key]=$ms; done < <(time_round_robin "${triples[@]}")
        for i in "${!methods[@]}"; do
            m=${methods[$i]}
            q=${queries[$i]}
            printf '%-10s %-7s %-44s %10s %10s %9s %10s %9s\n' "$n" "$kind" "${q:7:44}" "${t[$m,s]}" "${t[$m,p]:--}" \
                "$( [ -n "${t[$m,p]:-}" ] && ratio "${t[$m,s]}" "${t[$m,p]}" || echo -)" "${t[$m,w]:--}" \
                "$( [ -n "${t[$m,w]:-}" ] && ratio "${t[$m,s]}" "${t[$m,w]}" || echo -)"
        done
        line="$n $kind: set/read $(ratio "${t[set,s]}" "${t[read,s]}"), opt/read $(ratio "${t[opt,s]}" "${t[read,s]}")"
        line+=", parallel speed-up set $(ratio "${t[set,s]}" "${t[set,p]}") ($(ratio "${t[set,s]}" "${t[set,w]}") without leader)"
        line+=", opt $(ratio "${t[opt,s]}" "${t[opt,p]}") ($(ratio "${t[opt,s]}" "${t[opt,w]}") without leader)"
        line+=", read $(ratio "${t[read,s]}" "${t[read,p]}") ($(ratio "${t[read,s]}" "${t[read,w]}") without leader)"
        if [ -n "${t[range_agg,s]:-}" ]; then
            line+="; range_agg/set $(ratio "${t[range_agg,s]}" "${t[set,s]}"), range_agg/opt $(ratio "${t[range_agg,s]}" "${t[opt,s]}")"
            line+=", array_agg/set $(ratio "${t[array_agg,s]}" "${t[set,s]}"), array_agg/opt $(ratio "${t[array_agg,s]}" "${t[opt,s]}")"
        fi
        results+=("$line")
        unset t
    done
done

printf '\nRatios (times slower; "parallel speed-up" = serial / 2 workers):\n'
printf '  %s\n' "${results[@]}"

# State sizes on the largest tables: the state's own memory context at the end of the aggregation
# (an aggregate whose final function is the serial function leaves it alive until the query ends),
# and the length of its serial form.
n=$(echo "$SIZES" | awk '{print $NF}')
printf '\nState sizes after %s rows (serial plan):\n' "$n"
psql_q <<SQL
$COMMON $SERIAL
CREATE AGGREGATE set_state(int4, "char") (SFUNC = zm_int4set_agg_transfn_A, STYPE = internal,
  FINALFUNC = zm_int4set_agg_serialfn);
CREATE AGGREGATE opt_state(int4, int4, "char") (SFUNC = zm_int4set_agg_optimized_transfn_A, STYPE = internal,
  FINALFUNC = zm_int4set_agg_optimized_serialfn);
CREATE OR REPLACE FUNCTION state_bytes(text) RETURNS bigint LANGUAGE sql AS
  \$\$ SELECT sum(total_bytes)::bigint FROM pg_backend_memory_contexts WHERE name = \$1 \$\$;
\pset footer off
-- One statement per state: the contexts of a statement's aggregates all live until it ends.
WITH s AS MATERIALIZED (SELECT set_state(x, 'r') AS b FROM rnd_$n)
SELECT 'zm_int4set_agg, random' AS aggregate, (octet_length(b) - 2) / 8 AS runs, octet_length(b) + 4 AS serialised_bytes,
       state_bytes('zm_int4set_agg_transfn') AS state_context_bytes FROM s;
\pset tuples_only on
WITH s AS MATERIALIZED (SELECT set_state(x, 'r') AS b FROM srt_$n)
SELECT 'zm_int4set_agg, sorted', (octet_length(b) - 2) / 8, octet_length(b) + 4,
       state_bytes('zm_int4set_agg_transfn') FROM s;
WITH s AS MATERIALIZED (SELECT opt_state(x, $n * 10 - 1, 'r') AS b FROM rnd_$n)
SELECT 'zm_int4set_agg_optimized, random', NULL::int, octet_length(b) + 4,
       state_bytes('zm_int4set_agg_optimized_transfn_impl') FROM s;
SQL
