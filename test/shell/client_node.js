// Client test: node-postgres sends array parameters without a type (a JavaScript array becomes the
// text '{3,1,2}' with type 0), so the server resolves them as untyped literals. The common
// functions and operators must answer as with typed arguments. Prints one line on success; every
// mismatch, and the first failing call, on failure.
'use strict';
const { Client } = require('pg');

const checks = [
  // [sql, parameters, expected first column of the first row]
  ['SELECT zm_sort_int4($1)', [[3, 1, 2, 1]], [1, 1, 2, 3]],
  ['SELECT zm_range_pack($1)', [[7, 9]], '38654705671'],
  ['SELECT zm_range_pack($1, $2)', [7, 9], '38654705671'],
  ['SELECT $1::int4 <@ $2', [5, [1, 3, 5, 9]], true],
  ['SELECT $1::int4 <@ $2', [4, [1, 3, 5, 9]], false],
  ['SELECT $1::int4 && $2', [4, [1, 3, 5, 9]], false],
  ['SELECT $1 &&& $2', [[1, 3], [3, 9]], true],
  ['SELECT $1 <@@ $2', [[2, 3, 4, 5], [1, 5]], true],
  ['SELECT zm_int4range_union($1, $2)', [[1, 3], [4, 6]], [1, 6]],
  ['SELECT zm_int4range_intersection($1, $2)', [[1, 10], [3, 4, 6, 12]], [3, 4, 6, 10]],
  ['SELECT zm_int4range_exclusion($1, $2)', [[1, 10], [3, 4, 6, 7]], [1, 2, 5, 5, 8, 10]],
  ['SELECT zm_int4range_is_overlap($1, $2)', [[1, 3], [4, 6]], false],
  ['SELECT zm_int4_in_rangearray($1, $2)', [5, [1, 3, 5, 9]], true],
  ['SELECT zm_int4setconv_int4($1, $2, $3)', ['s', [1, 2, 3, 5, 7, 8], 'r'], [1, 3, 5, 5, 7, 8]],
  ['SELECT zm_int4setconv_int4($1, $2, $3)', ['r', [1, 3, 7, 7], 'm'], [4, -2147483647, 3, 7]],
  ["SELECT encode(zm_int4set2bitfield_int4($1, $2), 'hex')", ['r', [3, 17]], '0300000011000000fffe000000000000'],
  ['SELECT zm_count_scalar_in_int4set($1, $2)', ['r', [1, 3, 7, 7]], 4],
  ['SELECT zm_int4set_overlap_bitfield($1, $2, zm_int4set2bitfield_int4($1, $3))', ['s', [11, 12], [12]], true],
  ['SELECT zm_int4set_included_in_bitfield($1, $2, zm_int4set2bitfield_int4($1, $3))', ['s', [12, 13], [12]], false],
  ["SELECT zm_int4set_agg(x, 'r') FROM unnest($1::int4[]) x", [[1, 2, 3, 7]], [1, 3, 7, 7]],
  ['SELECT zm_sort_int4($1)', [null], null],
];

// Calls that fail, with the SQLSTATE they must fail with: an array of another element type still
// reaches the library's check; on a packed range, && takes an untyped array as an int8 (see the
// README: write $1::int4[]).
const failures = [
  ['SELECT zm_sort_int4($1::int8[])', [[3, 1]], '22023'],
  ['SELECT zm_range_pack(1, 5) && $1', [[3, 4]], '22P02'],
  ['SELECT zm_int4setconv_int4($1, $2, $3)', ['x', [1, 2], 'r'], '22015'],
];

function same(a, b) {
  return JSON.stringify(a) === JSON.stringify(b);
}

async function main() {
  const client = new Client({
    host: process.env.PGHOST, // the throwaway server's unix socket directory
    port: Number(process.env.PGPORT),
    user: process.env.PGUSER,
    database: process.env.KESTRAVA_CLIENT_DATABASE,
  });
  await client.connect();
  const problems = [];
  let calls = 0;
  try {
    for (const [sql, params, expected] of checks) {
      const result = await client.query(sql, params);
      calls++;
      const got = result.rows[0][result.fields[0].name];
      if (!same(got, expected)) {
        problems.push(`${sql} with ${JSON.stringify(params)}: got ${JSON.stringify(got)}, expected ${JSON.stringify(expected)}`);
      }
    }
    // A named statement executed often enough for the server to switch to a generic plan.
    for (let i = 0; i < 8; i++) {
      const values = [i + 3, i, i + 1];
      const result = await client.query({ name: 'sort', text: 'SELECT zm_sort_int4($1) AS s', values: [values] });
      calls++;
      const expected = [...values].sort((x, y) => x - y);
      if (!same(result.rows[0].s, expected)) {
        problems.push(`prepared zm_sort_int4 run ${i}: got ${JSON.stringify(result.rows[0].s)}, expected ${JSON.stringify(expected)}`);
      }
      const member = await client.query({ name: 'member', text: 'SELECT $1::int4 <@ $2 AS m', values: [i, [2, 4]] });
      calls++;
      if (member.rows[0].m !== (i >= 2 && i <= 4)) {
        problems.push(`prepared <@ run ${i}: got ${member.rows[0].m}`);
      }
    }
    for (const [sql, params, sqlstate] of failures) {
      try {
        await client.query(sql, params);
        problems.push(`${sql} with ${JSON.stringify(params)}: succeeded, expected SQLSTATE ${sqlstate}`);
      } catch (e) {
        if (e.code !== sqlstate) {
          problems.push(`${sql} with ${JSON.stringify(params)}: SQLSTATE ${e.code} (${e.message}), expected ${sqlstate}`);
        }
      }
      calls++;
    }
  } finally {
    await client.end();
  }
  if (problems.length) {
    console.error(`client_node: ${problems.length} of ${calls} calls answered wrongly:`);
    for (const p of problems) console.error('  ' + p);
    process.exit(1);
  }
  console.log(`client_node: ${calls} calls through node-postgres with untyped array parameters answered as expected`);
}

main().catch((e) => {
  console.error('client_node: ' + (e.stack || e));
  process.exit(1);
});
