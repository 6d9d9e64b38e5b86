CREATE FUNCTION kestrava_range_operators_version() RETURNS text
AS 'MODULE_PATHNAME', 'kestrava_range_operators_version'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION kestrava_range_operators_version() IS 'version of the loaded library';

-- Untyped literals. An untyped array literal ('{1,2}', or a parameter a driver sends without a
-- type) matches the int4[] declaration of a function, its anyarray twin (kept so that arrays of
-- another element type reach the library's "accept only int4[]" check) and, for some operators,
-- declarations on int8 and bytea: PostgreSQL cannot choose and reports "is not unique", or reads the
-- literal as an int8. PostgreSQL resolves an untyped literal to a text parameter before any other
-- category, so each of those functions and operators also takes its set as text, declared below
-- its family in SQL that reads the text as an int4[] (this function) and calls the int4[] form.
-- Immutable (reading an int4[] literal depends on no setting) and therefore not inlined: a literal
-- is read once, when the query is planned, not once per row.
CREATE FUNCTION zm_int4array_from_text(text) RETURNS int4[]
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN $1::int4[];
COMMENT ON FUNCTION zm_int4array_from_text(text) IS
  'reads an int4[] literal; the text forms of the set functions and operators call it';
