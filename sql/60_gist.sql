-- GiST index over packed ranges. Every key, leaf or inner, is a packed range (int8); an inner key
-- covers the keys below it. Two operator classes share the support functions and differ in how a
-- column value becomes a key: an int4 value v is the range [v, v], a packed range is itself.
--
-- Each strategy is bound to the operator whose result on a row equals the strategy's leaf rule for
-- that column type, so an index scan returns exactly the rows of a sequential scan:
--   strategy  query          leaf rule                    int4 column        packed-range column
--   1, 11     int4[] ranges  a range overlaps the key     && (int4, int4[])  && (int8, int4[])
--   2         bitfield       the key's lower end is set   <@ (int4, bytea)   -
--   3, 13     packed range   the ranges overlap           <@ (int4, int8)    && (int8, int8)
--   14        packed range   the key lies inside it       (as 3)             <@ (int8, int8)
--   15        packed range   the key contains it          -                  @> (int8, int8)
--   16        int4 value     the key contains the value   = (int4, int4)     @> (int8, int4)
-- An operator belongs to a family once, so 11 and 13 (and 14 on the int4 column, where it means
-- the same as 3) carry no operator of their own. No operator means "the packed range equals
-- [v, v]" (15 on the int4 column) or "the packed range's lower end is set in the bitfield" (2 on
-- the packed-range column; && (int8, bytea) tests every value of the range), so those are left out.

CREATE FUNCTION zm_gist_range_consistent(internal, int4, int2, oid, internal) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_gist_range_consistent'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_consistent(internal, int4, int2, oid, internal) IS
  'GiST consistent function of zm_int4_gist_ops';

CREATE FUNCTION zm_gist_range_consistent(internal, int8, int2, oid, internal) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_gist_range_consistent'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_consistent(internal, int8, int2, oid, internal) IS
  'GiST consistent function of zm_int4rangepacked_gist_ops';

CREATE FUNCTION zm_gist_range_union(internal, internal) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_gist_range_union'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_union(internal, internal) IS 'GiST union: the packed range covering all keys';

CREATE FUNCTION zm_gist_range_compress_int4(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_compress_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_compress_int4(internal) IS 'GiST compress: an int4 value v becomes the key [v, v]';

CREATE FUNCTION zm_gist_range_compress_int8(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_compress_int8'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_compress_int8(internal) IS
  'GiST compress: a packed range is its own key; one whose upper end is below its lower end is refused';

CREATE FUNCTION zm_gist_range_decompress(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_decompress'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_decompress(internal) IS 'GiST decompress: keys are used as stored';

CREATE FUNCTION zm_gist_range_fetch_int4(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_fetch_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_fetch_int4(internal) IS 'GiST fetch: the key [v, v] gives back the int4 v (index-only scans)';

CREATE FUNCTION zm_gist_range_fetch_int8(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_fetch_int8'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_fetch_int8(internal) IS 'GiST fetch: a packed-range key is the column value (index-only scans)';

CREATE FUNCTION zm_gist_range_penalty(internal, internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_penalty'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_penalty(internal, internal, internal) IS
  'GiST penalty: values added to the key, plus a fraction below 1 favouring the key the new range fills more';

CREATE FUNCTION zm_gist_range_picksplit(internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_picksplit'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_picksplit(internal, internal) IS
  'GiST picksplit: two-ended greedy split, the left page growing from the lowest ranges, the right from the highest';

CREATE FUNCTION zm_gist_range_same(int8, int8, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_same'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_same(int8, int8, internal) IS 'GiST same: the two keys are bitwise equal';

CREATE FUNCTION zm_gist_range_sortsupport(internal) RETURNS void
AS 'MODULE_PATHNAME', 'zm_gist_range_sortsupport'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_sortsupport(internal) IS
  'GiST sort support: keys ordered by lower then upper end, so that CREATE INDEX builds the index sorted';

-- A value overlaps a range array when it lies in one of its ranges. Unlike <@ (int4, int4[]), which
-- ignores an odd trailing element and binary-searches, this reads the array exactly as the index
-- does (an odd element count is an error), so the int4 class can bind it. A C function: an
-- operator over an inlined SQL function could not be matched to the index.
CREATE FUNCTION zm_int4_overlap_rangearray(int4, int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_overlap_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_int4_overlap_rangearray(int4, int4[]) IS
  'the value lies in a range of the range array; an odd element count is an error';

CREATE OPERATOR && (
  LEFTARG = int4, RIGHTARG = int4[], FUNCTION = zm_int4_overlap_rangearray,
  RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int4, int4[]) IS 'value lies in a range of the range array';

CREATE OPERATOR CLASS zm_int4_gist_ops
FOR TYPE int4 USING gist AS
  OPERATOR 1 && (int4, int4[]),
  OPERATOR 2 <@ (int4, bytea),
  OPERATOR 3 <@ (int4, int8),
  OPERATOR 16 = (int4, int4),
  FUNCTION 1 zm_gist_range_consistent(internal, int4, int2, oid, internal),
  FUNCTION 2 zm_gist_range_union(internal, internal),
  FUNCTION 3 zm_gist_range_compress_int4(internal),
  FUNCTION 5 zm_gist_range_penalty(internal, internal, internal),
  FUNCTION 6 zm_gist_range_picksplit(internal, internal),
  FUNCTION 7 zm_gist_range_same(int8, int8, internal),
  FUNCTION 9 zm_gist_range_fetch_int4(internal),
  FUNCTION 11 zm_gist_range_sortsupport(internal),
  STORAGE int8;
COMMENT ON OPERATOR CLASS zm_int4_gist_ops USING gist IS
  'packed-range keys over an int4 column: && range array, <@ bitfield, <@ packed range, = value';

CREATE OPERATOR CLASS zm_int4rangepacked_gist_ops
FOR TYPE int8 USING gist AS
  OPERATOR 1 && (int8, int4[]),
  OPERATOR 3 && (int8, int8),
  OPERATOR 14 <@ (int8, int8),
  OPERATOR 15 @> (int8, int8),
  OPERATOR 16 @> (int8, int4),
  FUNCTION 1 zm_gist_range_consistent(internal, int8, int2, oid, internal),
  FUNCTION 2 zm_gist_range_union(internal, internal),
  FUNCTION 3 zm_gist_range_compress_int8(internal),
  FUNCTION 5 zm_gist_range_penalty(internal, internal, internal),
  FUNCTION 6 zm_gist_range_picksplit(internal, internal),
  FUNCTION 7 zm_gist_range_same(int8, int8, internal),
  FUNCTION 9 zm_gist_range_fetch_int8(internal),
  FUNCTION 11 zm_gist_range_sortsupport(internal),
  STORAGE int8;
COMMENT ON OPERATOR CLASS zm_int4rangepacked_gist_ops USING gist IS
  'packed-range column: && range array, && / <@ / @> packed range, @> value';
