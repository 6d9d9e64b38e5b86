-- Errors whose reported function, file and line are part of the interface: each one once, with its
-- location. scripts/test.sh checks these locations against the catalogue of error sites
-- (pluginimpl/inc/zelmorraPgErrorSites.h); no other test shows a location.
-- not triggered: allocateBytea, zelmorraPgUtils.h:54 (no bytea result comes near the 1 GB limit here)
-- not triggered: int4set_test_bitfield, zelmorraPgRangeCompare.cpp:258 (a bad kind letter is refused first)
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
RESET client_min_messages;
\set VERBOSITY verbose
\set SHOW_CONTEXT never
-- A result beyond the server's allocation limit.
SELECT zm_int4setconv_int4('r', '{0,299999999}'::int4[], 's');
-- A kind letter other than r, s, m.
SELECT zm_int4setconv_int4('x', '{1}'::int4[], 'r');
-- Range arrays of odd length in the set operators: with the other argument NULL, and with both.
SELECT zm_int4range_union('{1,2,3}'::int4[], NULL);
SELECT zm_int4range_union('{1,2,3}'::int4[], '{1,2}'::int4[]);
SELECT zm_int4range_intersection('{1,2}'::int4[], '{1,2,3}'::int4[]);
SELECT zm_int4range_exclusion('{1,2,3}'::int4[], NULL);
SELECT zm_int4range_exclusion('{1,2,3}'::int4[], '{1,2}'::int4[]);
SELECT zm_int4range_is_strictly_include('{1,2,3}'::int4[], '{1,2}'::int4[]);
SELECT zm_int4range_is_overlap('{1,2}'::int4[], '{1,2,3}'::int4[]);
-- The comparison operators' range arrays.
SELECT zm_int4range_overlap_rangearray('{1,2,3}'::int4[], '{1,2}'::int4[]);
SELECT zm_int4rangepacked_in_rangearray(zm_range_pack(1, 2), '{1,2,3}'::int4[]);
-- Bitfields: shorter than their header, and with a data length that does not fit their span.
SELECT zm_int4rangepacked_in_rangebitfield(zm_range_pack(1, 2), '\x0000'::bytea);
SELECT zm_int4rangepacked_in_rangebitfield(zm_range_pack(1, 2), '\x000000000a00000000'::bytea);
-- Sets tested against a bitfield: another element type, odd range arrays.
SELECT zm_int4set_overlap_bitfield('r', '{1,2}'::int8[], zm_int4set2bitfield_int4('r', '{1,5}'::int4[]));
SELECT zm_int4set_included_in_bitfield('r', '{1,2,3}'::int4[], zm_int4set2bitfield_int4('r', '{1,5}'::int4[]));
SELECT zm_int4set_overlap_bitfield('r', '{1,2,3}'::int4[], zm_int4set2bitfield_int4('r', '{1,5}'::int4[]));
