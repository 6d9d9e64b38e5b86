-- Range arrays: int4[] of sorted, disjoint lower/upper pairs, both bounds inclusive.

-- Set algebra. Non-strict: each function has its own rule for NULL arguments.
CREATE FUNCTION zm_int4range_union(int4[], int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_union'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_union(int4[], int4[]) IS
  'union of two range arrays; NULL when both are NULL, a copy of the other when one is NULL';

CREATE FUNCTION zm_int4range_intersection(int4[], int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_intersection'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_intersection(int4[], int4[]) IS
  'intersection of two range arrays; NULL when either is NULL';

CREATE FUNCTION zm_int4range_exclusion(int4[], int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_exclusion'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_exclusion(int4[], int4[]) IS
  'values of the first range array that are not in the second; NULL when the first is NULL, a copy of it when the second is NULL';

CREATE FUNCTION zm_int4range_is_strictly_include(int4[], int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4range_is_strictly_include'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_is_strictly_include(int4[], int4[]) IS
  'true when every range of the first array lies inside a single range of the second';

CREATE FUNCTION zm_int4range_is_overlap(int4[], int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4range_is_overlap'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_is_overlap(int4[], int4[]) IS
  'true when the two range arrays share a value';

-- Membership and comparison tests (strict: NULL in, NULL out).
CREATE FUNCTION zm_int4_in_rangearray(int4, int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_in_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_int4_in_rangearray(int4, int4[]) IS 'the value lies in a range of the range array (binary search)';

CREATE FUNCTION zm_int4range_overlap_rangearray(int4[], int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4range_overlap_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_overlap_rangearray(int4[], int4[]) IS 'the two range arrays share a value';

CREATE FUNCTION zm_int4rangepacked_in_rangearray(int8, int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_in_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4rangepacked_in_rangearray(int8, int4[]) IS 'the packed range shares a value with the range array';

CREATE FUNCTION zm_int4rangepacked_in_int4rangepacked(int8, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_in_int4rangepacked'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_in_int4rangepacked(int8, int8) IS 'the two packed ranges overlap';

CREATE FUNCTION zm_int4rangepacked_included_in_int4rangepacked(int8, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_included_in_int4rangepacked'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_included_in_int4rangepacked(int8, int8) IS 'the first packed range lies inside the second';

CREATE FUNCTION zm_int4rangepacked_contains_int4rangepacked(int8, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_contains_int4rangepacked'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_contains_int4rangepacked(int8, int8) IS 'the second packed range lies inside the first';

CREATE FUNCTION zm_int4_in_packedrange(int4, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_in_packedrange'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4_in_packedrange(int4, int8) IS 'the value lies inside the packed range';

-- The library function reads the value from its second and the packed range from its third
-- argument; the first is not read.
CREATE FUNCTION zm_int4rangepacked_contains_int4(int8, int4, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_contains_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_contains_int4(int8, int4, int8) IS
  'the value (second argument) lies inside the packed range (third argument); the first argument is ignored';

CREATE FUNCTION zm_int4rangepacked_contains_value(int8, int4) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_contains_value'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_contains_value(int8, int4) IS 'the packed range contains the value';

-- Operators. None is defined on (int4[], int4[]) under a name that core arrays or intarray use.
CREATE OPERATOR &&& (
  LEFTARG = int4[], RIGHTARG = int4[], FUNCTION = zm_int4range_overlap_rangearray,
  COMMUTATOR = &&&, RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR &&& (int4[], int4[]) IS 'range arrays overlap';

CREATE OPERATOR <@@ (
  LEFTARG = int4[], RIGHTARG = int4[], FUNCTION = zm_int4range_is_strictly_include,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@@ (int4[], int4[]) IS 'every range of the left range array lies inside one range of the right one';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = int4[], FUNCTION = zm_int4_in_rangearray,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, int4[]) IS 'value lies in the range array';

CREATE OPERATOR && (
  LEFTARG = int8, RIGHTARG = int4[], FUNCTION = zm_int4rangepacked_in_rangearray,
  RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int8, int4[]) IS 'packed range overlaps the range array';

CREATE OPERATOR && (
  LEFTARG = int8, RIGHTARG = int8, FUNCTION = zm_int4rangepacked_in_int4rangepacked,
  COMMUTATOR = &&, RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int8, int8) IS 'packed ranges overlap';

CREATE OPERATOR <@ (
  LEFTARG = int8, RIGHTARG = int8, FUNCTION = zm_int4rangepacked_included_in_int4rangepacked,
  COMMUTATOR = @>, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int8, int8) IS 'left packed range lies inside the right one';

CREATE OPERATOR @> (
  LEFTARG = int8, RIGHTARG = int8, FUNCTION = zm_int4rangepacked_contains_int4rangepacked,
  COMMUTATOR = <@, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR @> (int8, int8) IS 'left packed range contains the right one';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = int8, FUNCTION = zm_int4_in_packedrange,
  COMMUTATOR = @>, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, int8) IS 'value lies inside the packed range';

CREATE OPERATOR @> (
  LEFTARG = int8, RIGHTARG = int4, FUNCTION = zm_int4rangepacked_contains_value,
  COMMUTATOR = <@, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR @> (int8, int4) IS 'packed range contains the value';

-- Untyped literals (see zm_int4array_from_text): the range array also as text, so that
-- v <@ '{0,10}' reads '{0,10}' as a range array instead of an int8. The SQL is inlined into the
-- int4[] operator, so the literal is read once, at planning. (p && '{1,10}' cannot be helped: for
-- a binary operator PostgreSQL first tries the other operand's type, and && (int8, int8) exists.)
CREATE FUNCTION zm_int4_in_rangearray(int4, text) RETURNS bool
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN $1 <@ zm_int4array_from_text($2);
COMMENT ON FUNCTION zm_int4_in_rangearray(int4, text) IS 'zm_int4_in_rangearray with the range array given as text (an untyped literal)';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = text, FUNCTION = zm_int4_in_rangearray,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, text) IS 'value lies in the range array written as text';
