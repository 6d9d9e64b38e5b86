CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Decoding float4 arrays and mix arrays carried in bytea (machine byte order: little-endian here).
CREATE FUNCTION pg_temp.try(query text) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result text;
BEGIN
  EXECUTE query INTO result;
  RETURN result;
EXCEPTION WHEN OTHERS THEN
  RETURN 'ERROR ' || SQLSTATE || ': [' || SQLERRM || ']';
END $$;
-- int4 elements as little-endian bytes
CREATE FUNCTION pg_temp.le_bytes(a int4[]) RETURNS bytea LANGUAGE sql AS $$
  SELECT coalesce(string_agg(decode(lpad(to_hex(v & 255), 2, '0') || lpad(to_hex((v >> 8) & 255), 2, '0')
                                    || lpad(to_hex((v >> 16) & 255), 2, '0') || lpad(to_hex((v >> 24) & 255), 2, '0'), 'hex'),
                             ''::bytea ORDER BY o), ''::bytea)
  FROM unnest(a) WITH ORDINALITY u(v, o)
$$;
CREATE FUNCTION pg_temp.mix(a int4[]) RETURNS text LANGUAGE sql AS $$
  SELECT pg_temp.try(format('SELECT zm_bytea2mix2rangearray(%L::bytea)', pg_temp.le_bytes(a)))
$$;
SELECT pg_temp.le_bytes('{1,-2147483647,258}');

-- empty payloads
SELECT zm_bytea2floatarray(''::bytea), zm_bytea2mix2rangearray(''::bytea);
SELECT array_ndims(a), array_lower(a, 1), array_length(a, 1), pg_column_size(a)
FROM (VALUES (zm_bytea2mix2rangearray(''::bytea)), (zm_bytea2mix2rangearray('\x00000000'::bytea))) v(a);
SELECT array_ndims(zm_bytea2floatarray(''::bytea)), pg_column_size(zm_bytea2floatarray(''::bytea));

-- payload lengths that are not a multiple of 4
SELECT pg_temp.try($$SELECT zm_bytea2floatarray('\x000000000000'::bytea)$$);
SELECT pg_temp.try($$SELECT zm_bytea2mix2rangearray('\x000000000000'::bytea)$$);
SELECT pg_temp.try($$SELECT zm_bytea2floatarray('\x01'::bytea)$$);
SELECT pg_temp.try($$SELECT zm_bytea2mix2rangearray('\x0400000001000080030000000700'::bytea)$$);

-- float4 values, bytes copied unchanged: 1, -2, 0.5, -0, infinity, NaN, a denormal
SELECT zm_bytea2floatarray('\x0000803f000000c00000003f00000080'::bytea);
SELECT zm_bytea2floatarray('\x0000807f0000c07f01000000'::bytea);
SELECT float4send(v) FROM unnest(zm_bytea2floatarray('\x0000c0ff00000080'::bytea)) v;
SELECT pg_typeof(zm_bytea2floatarray('\x0000803f'::bytea)), array_lower(zm_bytea2floatarray('\x0000803f'::bytea), 1);
-- float4send writes big-endian: reversed, its bytes decode to the same value
SELECT setseed(0.5);
SELECT count(*) AS float_mismatches
FROM (SELECT (random() * 2e6 - 1e6)::float4 AS f FROM generate_series(1, 1000)) r,
     LATERAL (SELECT encode(float4send(f), 'hex') AS h) x
WHERE zm_bytea2floatarray(decode(substr(h, 7, 2) || substr(h, 5, 2) || substr(h, 3, 2) || substr(h, 1, 2), 'hex'))
      IS DISTINCT FROM ARRAY[f];

-- mix payloads: item order kept, element 0 not read
SELECT pg_temp.mix('{4,-2147483647,3,7}');
SELECT pg_temp.mix('{2,9,5}');
SELECT pg_temp.mix('{1,5}');
SELECT pg_temp.mix('{0}');
SELECT pg_temp.mix('{-1234,5,-2147483648,2147483647}');
SELECT pg_temp.mix('{3,-1,2147483647,0}');
SELECT pg_temp.mix('{1,-2147483643}');
SELECT pg_temp.mix('{1,-2147483643,-1}');
SELECT pg_temp.mix('{1,-2147483643,2}');
SELECT pg_temp.mix('{9,1,2,-2147483645,4,-2147483643,4}');
SELECT pg_temp.mix('{-2147483648}');

-- NULL in, NULL out
SELECT zm_bytea2floatarray(NULL) IS NULL, zm_bytea2mix2rangearray(NULL) IS NULL;

-- large payloads, stored TOASTed (compressed and out of line)
CREATE TABLE bytea_decoders_payloads (id int, p bytea);
ALTER TABLE bytea_decoders_payloads ALTER COLUMN p SET STORAGE EXTERNAL;
INSERT INTO bytea_decoders_payloads
SELECT 1, pg_temp.le_bytes(array_prepend(0, ARRAY(SELECT v FROM generate_series(0, 99999) v)));
INSERT INTO bytea_decoders_payloads
SELECT 2, pg_temp.le_bytes(array_prepend(0, ARRAY(SELECT (-2147483648 + 2 * v) | 0 FROM generate_series(0, 4999) v)));
SELECT id, octet_length(p), pg_column_size(p) >= octet_length(p) AS uncompressed,
       CASE WHEN id = 1 THEN cardinality(zm_bytea2mix2rangearray(p)) END AS elements,
       cardinality(zm_bytea2floatarray(p)) AS floats
FROM bytea_decoders_payloads ORDER BY id;
SELECT count(*) AS toast_mismatches FROM bytea_decoders_payloads
WHERE id = 1 AND zm_bytea2mix2rangearray(p) IS DISTINCT FROM
      ARRAY(SELECT x FROM generate_series(0, 99999) v, LATERAL (VALUES (1, v), (2, v)) y(k, x) ORDER BY v, k);
SELECT pg_temp.try($$SELECT zm_bytea2mix2rangearray(p)::text FROM bytea_decoders_payloads WHERE id = 2$$);
DROP TABLE bytea_decoders_payloads;

-- random garbage and truncated payloads: a result or one of the specified errors
SELECT setseed(0.17);
CREATE TEMP TABLE garbage AS
SELECT id, decode(string_agg(lpad(to_hex(CASE WHEN random() < 0.7 THEN (random() * 40)::int
                                               WHEN random() < 0.5 THEN 128 + (random() * 127)::int
                                               ELSE (random() * 255)::int END), 2, '0'), '' ORDER BY n), 'hex') AS p
FROM generate_series(1, 2000) id, LATERAL generate_series(1, 1 + id % 23) n
GROUP BY id;
SELECT CASE WHEN r LIKE '{%' THEN 'decoded' ELSE r END AS mix_outcome, count(*) > 20 AS common
FROM (SELECT pg_temp.try(format('SELECT zm_bytea2mix2rangearray(%L::bytea)', p)) AS r FROM garbage) g
GROUP BY 1 ORDER BY 1;
SELECT CASE WHEN r LIKE '{%' THEN 'decoded' ELSE r END AS float_outcome, count(*) > 20 AS common
FROM (SELECT pg_temp.try(format('SELECT zm_bytea2floatarray(%L::bytea)', p)) AS r FROM garbage) g
GROUP BY 1 ORDER BY 1;
