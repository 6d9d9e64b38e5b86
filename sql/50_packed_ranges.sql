-- Packed ranges: one closed int4 range [lower, upper] in an int8, lower in bits 0..31 and upper in
-- bits 32..63: (upper << 32) | (lower & 0xFFFFFFFF). Both ends are inclusive.

-- One library entry point behind both forms; it tells them apart by the argument count.
CREATE FUNCTION zm_range_pack(int4, int4) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_range_pack'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_range_pack(int4, int4) IS 'packs the range [lower, upper] into an int8; lower must not exceed upper';

CREATE FUNCTION zm_range_pack(int4[]) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_range_pack'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_range_pack(int4[]) IS
  'packs a one-dimensional int4[] of exactly two elements {lower, upper} without NULLs into an int8';

-- Other array types reach the library's element-type check, which refuses them.
CREATE FUNCTION zm_range_pack(anyarray) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_range_pack'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_range_pack(anyarray) IS 'accepts only int4[] {lower, upper}; other element types are refused';

CREATE FUNCTION zm_rangepacked_lower(int8) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_rangepacked_lower'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_rangepacked_lower(int8) IS 'lower end of a packed range (its low 32 bits)';

CREATE FUNCTION zm_rangepacked_upper(int8) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_rangepacked_upper'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_rangepacked_upper(int8) IS 'upper end of a packed range (its high 32 bits)';

-- Untyped literals (see zm_int4array_from_text): zm_range_pack('{7,9}').
CREATE FUNCTION zm_range_pack(text) RETURNS int8
LANGUAGE sql IMMUTABLE STRICT PARALLEL SAFE
RETURN zm_range_pack(zm_int4array_from_text($1));
COMMENT ON FUNCTION zm_range_pack(text) IS 'zm_range_pack with {lower, upper} given as text (an untyped literal)';
