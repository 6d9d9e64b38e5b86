CREATE FUNCTION kestrava_range_operators_version() RETURNS text
AS 'MODULE_PATHNAME', 'kestrava_range_operators_version'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION kestrava_range_operators_version() IS 'version of the loaded library';

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
