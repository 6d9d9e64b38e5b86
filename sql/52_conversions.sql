-- Set representation conversion, sorting and bytea decoders.
--
-- The int4[] forms come with an anyarray overload bound to the same library function, so that an
-- array of another element type reaches the library's "accept only int4[]" check instead of
-- failing at function lookup. An untyped literal goes to the text form at the end of this file.

CREATE FUNCTION zm_int4setconv_int4("char", int4[], "char") RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4setconv_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4setconv_int4("char", int4[], "char") IS
  'rewrites an int4 set from one form into another: ''s'' scalar array (sorted for ''r'' and ''m'' output), ''r'' range array, ''m'' mix array';

CREATE FUNCTION zm_int4setconv_int4("char", anyarray, "char") RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4setconv_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4setconv_int4("char", anyarray, "char") IS
  'rejects arrays whose element type is not int4 ("accept only int4[]")';

CREATE FUNCTION zm_sort_int4(int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_sort_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_sort_int4(int4[]) IS
  'the array''s values in ascending order, duplicates kept (radix sort)';

CREATE FUNCTION zm_sort_int4(anyarray) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_sort_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_sort_int4(anyarray) IS
  'rejects arrays whose element type is not int4 ("accept only int4[]")';

CREATE FUNCTION zm_bytea2floatarray(bytea) RETURNS float4[]
AS 'MODULE_PATHNAME', 'zm_bytea2floatarray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_bytea2floatarray(bytea) IS
  'float4 values packed in a bytea (machine byte order) as float4[]';

CREATE FUNCTION zm_bytea2mix2rangearray(bytea) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_bytea2mix2rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_bytea2mix2rangearray(bytea) IS
  'the int4 elements of a mix array held in a bytea (machine byte order) as a range array, one range per item in item order';

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
