-- Conversions between the forms, the sort, bitfield building and counting, packed ranges and the
-- bytea decoders.
\set x random(1, 10000)
SELECT cardinality(zm_int4setconv_int4('r', a, 's')), cardinality(zm_int4setconv_int4('s', s, 'r')),
       cardinality(zm_int4setconv_int4('s', s, 'm')), cardinality(zm_int4setconv_int4('m', m, 's')),
       cardinality(zm_int4setconv_int4('m', m, 'r')), cardinality(zm_int4setconv_int4('r', b, 'm')),
       cardinality(zm_sort_int4(b || s)), octet_length(zm_int4set2bitfield_int4('r', a)),
       octet_length(zm_int4set2bitfield_int4('s', s)), octet_length(zm_int4set2bitfield_int4('m', m)),
       zm_count_scalar_in_int4set('r', a), zm_count_scalar_in_int4set('m', m),
       zm_rangepacked_upper(zm_range_pack(a[1:2])), cardinality(zm_bytea2mix2rangearray(mb)),
       cardinality(zm_bytea2floatarray(mb))
FROM load_sets WHERE id = :x;
