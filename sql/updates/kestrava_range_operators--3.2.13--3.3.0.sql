-- complain if script is sourced in psql, rather than via ALTER EXTENSION
\echo Use "ALTER EXTENSION kestrava_range_operators UPDATE TO '3.3.0'" to load this file. \quit

-- Upgrade from 3.2.13 to 3.3.0: the objects that 3.3.0 adds, as sql/ declares them. Nothing is
-- dropped or replaced, so indexes, views and constraints over the 3.2.13 objects stay as they are.
-- (The extension becomes trusted through the control file, which holds no SQL.)

-- Untyped literals. An untyped array literal ('{1,2}', or a parameter that a driver sends without
-- a type) fits both the int4[] declaration of a function and its anyarray twin (kept so that arrays
-- of another element type reach the library's "accept only int4[]" check), and PostgreSQL reports
-- "is not unique"; after v <@ it is read as an int8 (the packed-range operator). PostgreSQL gives
-- an untyped literal to a text parameter before any other, so those functions and operators also
-- take their set as text, in SQL declared after each family: the text is read as an int4[] by this
-- function and handed to the int4[] form.
-- Immutable: reading an int4[] literal depends on no setting (the cast is marked stable only because
-- other element types can depend on settings). So the planner reads a literal once, when it plans
-- the query, instead of once per row.
CREATE FUNCTION zm_int4array_from_text(text) RETURNS int4[]
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN $1::int4[];
COMMENT ON FUNCTION zm_int4array_from_text(text) IS
  'reads an int4[] literal; the text forms of the set functions and operators call it';

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

-- Untyped literals (see zm_int4array_from_text): zm_range_pack('{7,9}').
CREATE FUNCTION zm_range_pack(text) RETURNS int8
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_range_pack(zm_int4array_from_text($1));
COMMENT ON FUNCTION zm_range_pack(text) IS 'zm_range_pack with {lower, upper} given as text (an untyped literal)';
-- failing at function lookup. An untyped literal goes to the text form at the end of this file.

-- Untyped literals (see zm_int4array_from_text): the set also as text.
CREATE FUNCTION zm_int4setconv_int4("char", text, "char") RETURNS int4[]
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_int4setconv_int4($1, zm_int4array_from_text($2), $3);
COMMENT ON FUNCTION zm_int4setconv_int4("char", text, "char") IS
  'zm_int4setconv_int4 with the set given as text (an untyped literal)';

CREATE FUNCTION zm_sort_int4(text) RETURNS int4[]
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_sort_int4(zm_int4array_from_text($1));
COMMENT ON FUNCTION zm_sort_int4(text) IS 'zm_sort_int4 with the array given as text (an untyped literal)';

-- The comments of the final functions say what they do with their state.
COMMENT ON FUNCTION zm_int4range_op_finalfn(internal) IS
  'final function of zm_int4range_op: closes the groups left open and returns the range array; frees the state''s buffers and keeps the result for a second finalisation';
COMMENT ON FUNCTION zm_int4set_agg_finalfn(internal) IS
  'zm_int4set_agg final: the set in the requested form (the state stays for the aggregate context to reclaim)';
COMMENT ON FUNCTION zm_int4set_agg_optimized_finalfn(internal) IS
  'zm_int4set_agg_optimized final: the set bits in the requested form (the state stays for the aggregate context to reclaim)';
COMMENT ON FUNCTION zm_agg_keep_single_finalfn(internal, anyelement) IS
  'agg_keep_single final: the kept value (the state stays for the aggregate context to reclaim)';
COMMENT ON FUNCTION zm_agg_keep_single_finalfn(internal, anyelement, bool) IS
  'agg_keep_single final: the kept value (the state stays for the aggregate context to reclaim)';
