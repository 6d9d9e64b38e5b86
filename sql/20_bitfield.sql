-- Bitfields: a bytea holding the first and last value of a span (int4 each, machine byte order)
-- and one bit per value of the span in whole 64-bit words, most significant bit first.

-- Building and counting. Strict: a NULL kind or set gives NULL. The anyarray forms exist so that
-- arrays of another element type reach the library's own check.
CREATE FUNCTION zm_int4set2bitfield_int4("char", int4[]) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_int4set2bitfield_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 20;
COMMENT ON FUNCTION zm_int4set2bitfield_int4("char", int4[]) IS
  'bitfield of a set given as a range (''r''), scalar (''s'') or mix (''m'') array';

CREATE FUNCTION zm_int4set2bitfield_int4("char", anyarray) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_int4set2bitfield_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 20;
COMMENT ON FUNCTION zm_int4set2bitfield_int4("char", anyarray) IS
  'rejects arrays whose elements are not int4 ("accept only int4[]")';

CREATE FUNCTION zm_count_scalar_in_int4set("char", int4[]) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_count_scalar_in_int4set'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_count_scalar_in_int4set("char", int4[]) IS
  'number of values of a set given as a range (''r''), scalar (''s'') or mix (''m'') array';

CREATE FUNCTION zm_count_scalar_in_int4set("char", anyarray) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_count_scalar_in_int4set'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_count_scalar_in_int4set("char", anyarray) IS
  'NULL for arrays whose elements are not int4';

-- Tests against a bitfield (strict: NULL in, NULL out).
CREATE FUNCTION zm_int4_in_rangebitfield(int4, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_in_rangebitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4_in_rangebitfield(int4, bytea) IS 'the value''s bit is set in the bitfield';

CREATE FUNCTION zm_int4rangepacked_in_rangebitfield(int8, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_in_rangebitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_int4rangepacked_in_rangebitfield(int8, bytea) IS
  'some value of the packed range has its bit set in the bitfield';

CREATE FUNCTION zm_int4set_overlap_bitfield("char", int4[], bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_overlap_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_overlap_bitfield("char", int4[], bytea) IS
  'some member of the set (''r'', ''s'' or ''m'' array) has its bit set in the bitfield';

CREATE FUNCTION zm_int4set_overlap_bitfield("char", anyarray, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_overlap_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_overlap_bitfield("char", anyarray, bytea) IS
  'rejects arrays whose elements are not int4 ("accept only int4[]")';

CREATE FUNCTION zm_int4set_included_in_bitfield("char", int4[], bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_included_in_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_included_in_bitfield("char", int4[], bytea) IS
  'every member of the set (''r'', ''s'' or ''m'' array) has its bit set in the bitfield';

CREATE FUNCTION zm_int4set_included_in_bitfield("char", anyarray, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_included_in_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_included_in_bitfield("char", anyarray, bytea) IS
  'rejects arrays whose elements are not int4 ("accept only int4[]")';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = bytea, FUNCTION = zm_int4_in_rangebitfield,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, bytea) IS 'value''s bit is set in the bitfield';

CREATE OPERATOR && (
  LEFTARG = int8, RIGHTARG = bytea, FUNCTION = zm_int4rangepacked_in_rangebitfield,
  RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int8, bytea) IS 'some value of the packed range has its bit set in the bitfield';

-- Untyped literals (see zm_int4array_from_text): the set also as text.
CREATE FUNCTION zm_int4set2bitfield_int4("char", text) RETURNS bytea
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_int4set2bitfield_int4($1, zm_int4array_from_text($2));
COMMENT ON FUNCTION zm_int4set2bitfield_int4("char", text) IS
  'zm_int4set2bitfield_int4 with the set given as text (an untyped literal)';

CREATE FUNCTION zm_count_scalar_in_int4set("char", text) RETURNS int4
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_count_scalar_in_int4set($1, zm_int4array_from_text($2));
COMMENT ON FUNCTION zm_count_scalar_in_int4set("char", text) IS
  'zm_count_scalar_in_int4set with the set given as text (an untyped literal)';

CREATE FUNCTION zm_int4set_overlap_bitfield("char", text, bytea) RETURNS bool
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_int4set_overlap_bitfield($1, zm_int4array_from_text($2), $3);
COMMENT ON FUNCTION zm_int4set_overlap_bitfield("char", text, bytea) IS
  'zm_int4set_overlap_bitfield with the set given as text (an untyped literal)';

CREATE FUNCTION zm_int4set_included_in_bitfield("char", text, bytea) RETURNS bool
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_int4set_included_in_bitfield($1, zm_int4array_from_text($2), $3);
COMMENT ON FUNCTION zm_int4set_included_in_bitfield("char", text, bytea) IS
  'zm_int4set_included_in_bitfield with the set given as text (an untyped literal)';
