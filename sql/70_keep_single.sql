-- Keep-single aggregate over bool, bytea, int8, int2, int4, text, float4 and float8.
--
-- One library function serves both forms of each support step; it tells them apart by its number
-- of arguments. Each state owns a memory context (8 KB first block) that the aggregate context
-- reclaims: the final function copies the kept value out and leaves the state, because a hashed
-- aggregate that is rescanned finalises its groups again. FINALFUNC_MODIFY = READ_WRITE gives two
-- identical calls in a query a state each and refuses window use. The final function takes
-- the aggregated arguments as extra NULL arguments (FINALFUNC_EXTRA) so that the result type can
-- be resolved from an internal state.

CREATE FUNCTION zm_agg_keep_single_transfn(internal, anyelement) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_transfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_transfn(internal, anyelement) IS
  'agg_keep_single transition: keeps the first value, every further value must equal it';

CREATE FUNCTION zm_agg_keep_single_transfn(internal, anyelement, bool) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_transfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_transfn(internal, anyelement, bool) IS
  'agg_keep_single transition: keeps the first value; with policy true every further value must equal it';

CREATE FUNCTION zm_agg_keep_single_finalfn(internal, anyelement) RETURNS anyelement
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_finalfn(internal, anyelement) IS
  'agg_keep_single final: the kept value (the state stays for the aggregate context to reclaim)';

CREATE FUNCTION zm_agg_keep_single_finalfn(internal, anyelement, bool) RETURNS anyelement
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_finalfn(internal, anyelement, bool) IS
  'agg_keep_single final: the kept value (the state stays for the aggregate context to reclaim)';

-- Combine states live in the aggregate context, hence non-strict.
CREATE FUNCTION zm_agg_keep_single_combinefn(internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_combinefn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_combinefn(internal, internal) IS
  'agg_keep_single combine: a new state merging two partial states';

-- Strict: a worker that saw no rows hands over NULL, which then skips serialisation and combine.
CREATE FUNCTION zm_agg_keep_single_serialfn(internal) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_serialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_serialfn(internal) IS
  'agg_keep_single serialisation: kind, isNull, type oid, then the datum or the text/bytea bytes';

CREATE FUNCTION zm_agg_keep_single_deserialfn(bytea, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_deserialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_deserialfn(bytea, internal) IS
  'agg_keep_single deserialisation: rebuilds a partial state (policy false)';

CREATE AGGREGATE agg_keep_single(anyelement) (
  SFUNC = zm_agg_keep_single_transfn,
  STYPE = internal,
  SSPACE = 8400,
  FINALFUNC = zm_agg_keep_single_finalfn,
  FINALFUNC_EXTRA,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_agg_keep_single_combinefn,
  SERIALFUNC = zm_agg_keep_single_serialfn,
  DESERIALFUNC = zm_agg_keep_single_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE agg_keep_single(anyelement) IS
  'the one value of the group; fails with "agg_keep_single value missmatch" when rows disagree';

CREATE AGGREGATE agg_keep_single(anyelement, bool) (
  SFUNC = zm_agg_keep_single_transfn,
  STYPE = internal,
  SSPACE = 8400,
  FINALFUNC = zm_agg_keep_single_finalfn,
  FINALFUNC_EXTRA,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_agg_keep_single_combinefn,
  SERIALFUNC = zm_agg_keep_single_serialfn,
  DESERIALFUNC = zm_agg_keep_single_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE agg_keep_single(anyelement, bool) IS
  'with policy true as agg_keep_single(value); with policy false the first value of the group, the others ignored';
