CREATE FUNCTION kestrava_range_operators_version() RETURNS text
AS 'MODULE_PATHNAME', 'kestrava_range_operators_version'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION kestrava_range_operators_version() IS 'version of the loaded library';
