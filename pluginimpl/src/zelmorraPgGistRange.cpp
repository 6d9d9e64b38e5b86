// GiST support for packed ranges: an int4 column or a packed-range (int8) column indexed by keys
// that are packed ranges, searchable by range arrays, bitfields, packed ranges and values.
//
// Keys are by-value int8s, so union, same, penalty and decompress allocate nothing; compress and
// the int4 fetch allocate one GISTENTRY per leaf key. The rules themselves live in
// zelmorraPgGistAlgorithms.h.
#include "zelmorraPgUtils.h"
#include "zelmorraPgBitFieldServer.h"
#include "zelmorraPgGistAlgorithms.h"
#include "zelmorraPgPackedRange.h"

extern "C" {
#include "access/gist.h"
#include "access/stratnum.h"
#include "miscadmin.h"
#include "utils/builtins.h"
#include "utils/rel.h"
#include "utils/sortsupport.h"
}

using zm::pgRangeArray::Range;
using zm::pgRangeArray::packRange;
using zm::pgRangeArray::unpackRange;

extern "C" {
PG_FUNCTION_INFO_V1(zm_gist_range_consistent);
PG_FUNCTION_INFO_V1(zm_gist_range_union);
PG_FUNCTION_INFO_V1(zm_gist_range_compress_int4);
PG_FUNCTION_INFO_V1(zm_gist_range_compress_int8);
PG_FUNCTION_INFO_V1(zm_gist_range_decompress);
PG_FUNCTION_INFO_V1(zm_gist_range_penalty);
PG_FUNCTION_INFO_V1(zm_gist_range_same);
PG_FUNCTION_INFO_V1(zm_gist_range_picksplit);
PG_FUNCTION_INFO_V1(zm_gist_range_sortsupport);
PG_FUNCTION_INFO_V1(zm_gist_range_fetch_int4);
PG_FUNCTION_INFO_V1(zm_gist_range_fetch_int8);
PG_FUNCTION_INFO_V1(zm_int4_overlap_rangearray);
}

namespace {

Range<int> entryKey(const GISTENTRY& entry) { return unpackRange(DatumGetInt64(entry.key)); }

// Range-array query (strategies 1 and 11). Only int4 arrays are accepted; an array that is not
// one-dimensional or has a null bitmap holds no ranges and matches nothing. `refused` is the
// caller's error site.
__attribute__((noinline)) bool rangeArrayConsistent(Datum query, Range<int> key, const zm::pg::ErrorSite& refused)
{
    ArrayType* array = zm::pg::detoastArray(query);
    if (ARR_ELEMTYPE(array) != INT4OID)
        zm::pg::raiseWithDetail(refused, "Argument 2 has elements of type %s.", format_type_be(ARR_ELEMTYPE(array)));
    const zm::pg::Int4ArrayView ranges = zm::pg::viewInt4Array(array);
    if (ranges.count % 2 != 0)
        zm::pg::raiseWithDetail(refused, ZM_ODD_RANGE_ARRAY_DETAIL, 2, ranges.count);
    return zm::pgRangeArray::rangeArrayQueryConsistent<zm::pg::ServerInterruptCheck>(key, ranges.rangesBegin(), ranges.rangesEnd());
}

// Bitfield query (strategy 2), by zm::bitFieldKeyConsistent: on a leaf only the key's lower end is
// looked at (on an int4 column it is the value itself), on an inner page any set bit in the part of
// the span the key covers. An empty bitfield matches nothing, exactly, on any page.
__attribute__((noinline)) bool bitFieldConsistent(Datum query, Range<int> key, bool leaf, bool* recheck)
{
    const zm::BitFieldInfo info =
        zm::pg::readBitFieldArgument(query, zm::pg::site::gistBitFieldQuery, zm::pg::site::gistBitFieldQuery);
    if (info.status == zm::BitFieldStatus::Empty)
    {
        *recheck = false;
        return false;
    }
    *recheck = !leaf;
    return zm::bitFieldKeyConsistent<zm::pg::ServerInterruptCheck>(info, key.lower, key.upper, leaf);
}

// Order of the keys for a sorted CREATE INDEX (zm_gist_range_sortsupport): the lower list's order of
// the page split, lower end then upper end, so that the build packs neighbouring ranges into the
// same page. Keys equal in both ends compare equal; which of two identical ranges lands on which
// page does not matter. The comparison is signed, like every bound comparison of the keys, and
// must agree with PackedRangeWithSplitOffsetSortLower.
int comparePackedKeys(Datum a, Datum b, SortSupport)
{
    const Range<int> ra = unpackRange(DatumGetInt64(a));
    const Range<int> rb = unpackRange(DatumGetInt64(b));
    if (ra.lower != rb.lower)
        return ra.lower < rb.lower ? -1 : 1;
    if (ra.upper != rb.upper)
        return ra.upper < rb.upper ? -1 : 1;
    return 0;
}

[[noreturn]] __attribute__((noinline, cold)) void unimplementedStrategy()
{
    zm::pg::raise(zm::pg::site::gistStrategy);
}

}  // namespace

// Strategies: 1, 11 range array; 2 bitfield; 3, 13 packed range overlap; 14 key inside the packed
// range; 15 key contains the packed range; 16 value inside the key. Leaf answers are exact (no
// recheck); an inner answer only says that a match may lie below. Called for every entry of every
// page a search visits: the scalar strategies stay on a short path.
extern "C" Datum zm_gist_range_consistent(PG_FUNCTION_ARGS)
{
    const GISTENTRY* entry = reinterpret_cast<GISTENTRY*>(PG_GETARG_POINTER(0));
    const uint16 strategy = PG_GETARG_UINT16(2);
    bool* recheck = reinterpret_cast<bool*>(PG_GETARG_POINTER(4));
    *recheck = true;

    const Range<int> key = entryKey(*entry);
    const bool leaf = GistPageIsLeaf(entry->page) != 0;
    bool result;
    switch (strategy)
    {
        case zm::pgRangeArray::GistStrategyPackedOverlap:
        case zm::pgRangeArray::GistStrategyPackedOverlapAlt:
        case zm::pgRangeArray::GistStrategyPackedContainedBy:
        case zm::pgRangeArray::GistStrategyPackedContains:
            result = zm::pgRangeArray::packedQueryConsistent(strategy, key, unpackRange(PG_GETARG_INT64(1)), leaf);
            break;
        case zm::pgRangeArray::GistStrategyValue:
            result = zm::pgRangeArray::valueQueryConsistent(key, PG_GETARG_INT32(1));
            break;
        case zm::pgRangeArray::GistStrategyRangeArray:
        case zm::pgRangeArray::GistStrategyRangeArrayAlt:
            result = rangeArrayConsistent(PG_GETARG_DATUM(1), key, zm::pg::site::gistRangeArrayQuery);
            break;
        case zm::pgRangeArray::GistStrategyBitField:
            PG_RETURN_BOOL(bitFieldConsistent(PG_GETARG_DATUM(1), key, leaf, recheck));
        default:
            unimplementedStrategy();
    }
    *recheck = !leaf;
    PG_RETURN_BOOL(result);
}

extern "C" Datum zm_gist_range_union(PG_FUNCTION_ARGS)
{
    const GistEntryVector* entryvec = reinterpret_cast<GistEntryVector*>(PG_GETARG_POINTER(0));
    int* size = reinterpret_cast<int*>(PG_GETARG_POINTER(1));
    const GISTENTRY* entries = entryvec->vector;
    const int64 result =
        zm::pgRangeArray::unionOfPackedKeys(entryvec->n, [entries](int i) { return DatumGetInt64(entries[i].key); });
    *size = sizeof(int64);
    PG_RETURN_INT64(result);
}

namespace {

// A leaf entry gets a new entry holding its packed key; inner keys are already packed ranges.
Datum compressedLeaf(const GISTENTRY* entry, int64 packed)
{
    GISTENTRY* compressed = static_cast<GISTENTRY*>(palloc(sizeof(GISTENTRY)));
    gistentryinit(*compressed, Int64GetDatum(packed), entry->rel, entry->page, entry->offset, false);
    return PointerGetDatum(compressed);
}

}  // namespace

extern "C" Datum zm_gist_range_compress_int4(PG_FUNCTION_ARGS)
{
    GISTENTRY* entry = reinterpret_cast<GISTENTRY*>(PG_GETARG_POINTER(0));
    if (!entry->leafkey)
        PG_RETURN_POINTER(entry);
    const int32 v = DatumGetInt32(entry->key);
    return compressedLeaf(entry, packRange(v, v));
}

extern "C" Datum zm_gist_range_compress_int8(PG_FUNCTION_ARGS)
{
    GISTENTRY* entry = reinterpret_cast<GISTENTRY*>(PG_GETARG_POINTER(0));
    if (!entry->leafkey)
        PG_RETURN_POINTER(entry);
    const int64 packed = DatumGetInt64(entry->key);
    const Range<int> r = unpackRange(packed);
    if (r.upper < r.lower)
        zm::pg::raise(zm::pg::site::gistInvalidPackedRange, r.lower, r.upper);
    return compressedLeaf(entry, packed);
}

extern "C" Datum zm_gist_range_decompress(PG_FUNCTION_ARGS) { PG_RETURN_POINTER(PG_GETARG_POINTER(0)); }

// Fetch turns a leaf key back into the column value, so that index-only scans can answer queries
// that need nothing but the indexed column: [v, v] gives v back, a packed range is its own key.
extern "C" Datum zm_gist_range_fetch_int4(PG_FUNCTION_ARGS)
{
    GISTENTRY* entry = reinterpret_cast<GISTENTRY*>(PG_GETARG_POINTER(0));
    GISTENTRY* fetched = static_cast<GISTENTRY*>(palloc(sizeof(GISTENTRY)));
    gistentryinit(*fetched, Int32GetDatum(entryKey(*entry).lower), entry->rel, entry->page, entry->offset, false);
    PG_RETURN_POINTER(fetched);
}

extern "C" Datum zm_gist_range_fetch_int8(PG_FUNCTION_ARGS) { PG_RETURN_POINTER(PG_GETARG_POINTER(0)); }

extern "C" Datum zm_gist_range_penalty(PG_FUNCTION_ARGS)
{
    const GISTENTRY* orig = reinterpret_cast<GISTENTRY*>(PG_GETARG_POINTER(0));
    const GISTENTRY* add = reinterpret_cast<GISTENTRY*>(PG_GETARG_POINTER(1));
    float* penalty = reinterpret_cast<float*>(PG_GETARG_POINTER(2));
    *penalty = zm::pgRangeArray::computePenalty(entryKey(*orig), entryKey(*add));
    PG_RETURN_POINTER(penalty);
}

extern "C" Datum zm_gist_range_same(PG_FUNCTION_ARGS)
{
    bool* result = reinterpret_cast<bool*>(PG_GETARG_POINTER(2));
    *result = PG_GETARG_INT64(0) == PG_GETARG_INT64(1);
    PG_RETURN_POINTER(result);
}

namespace {

// Index entries per page: a key tuple is a header and one int8, each maximally aligned. (The page
// layout and the options below are those of access/gist_private.h, which C++ cannot include.)
constexpr uint32_t GIST_PAGE_SPACE = BLCKSZ - SizeOfPageHeaderData - MAXALIGN(sizeof(GISTPageOpaqueData));
constexpr uint32_t ENTRIES_PER_PAGE =
    GIST_PAGE_SPACE / (MAXALIGN(sizeof(IndexTupleData)) + MAXALIGN(sizeof(int64)) + sizeof(ItemIdData));
static_assert(ENTRIES_PER_PAGE == 407 || BLCKSZ != 8192, "16-byte tuples on 8 kB pages");

// The leading fields of a GiST index's options.
struct GistOptionsPrefix
{
    int32 vl_len_;
    int fillfactor;
};
constexpr int GIST_DEFAULT_FILL = 90;

// Entries per inner page that a sorted build aims at. A scan reads every entry of each page it
// visits, so small inner pages (a few more of them, a negligible part of the index) keep the work
// of a search low, while the leaves, which make the index's size, are filled to the fillfactor.
constexpr uint32_t SORTED_BUILD_INNER_ENTRIES = 64;

// A sorted CREATE INDEX fills a few pages in key order and then hands all their entries to
// picksplit to distribute them over as many pages as needed. Those pages live in the build's own
// memory and have never been written (their LSN is 0), whereas every page that an insert splits
// has been. Only single-column indexes are recognised, where every tuple has the same size.
bool isSortedBuildBatch(const GISTENTRY& entry)
{
    return entry.page != nullptr && PageGetLSN(entry.page) == InvalidXLogRecPtr && entry.rel != nullptr &&
           RelationGetNumberOfAttributes(entry.rel) == 1;
}

uint32_t sortedBuildTarget(const GISTENTRY& entry)
{
    if (!GistPageIsLeaf(entry.page))
        return SORTED_BUILD_INNER_ENTRIES;
    const GistOptionsPrefix* options = reinterpret_cast<const GistOptionsPrefix*>(entry.rel->rd_options);
    const int fillfactor = options ? options->fillfactor : GIST_DEFAULT_FILL;
    const uint32_t target = ENTRIES_PER_PAGE * static_cast<uint32_t>(fillfactor) / 100;
    return target ? target : 1;
}

}  // namespace

// Page split: the two-ended greedy split. The batches of a sorted CREATE INDEX are instead cut in
// key order into pages filled to the fillfactor (see isSortedBuildBatch).
extern "C" Datum zm_gist_range_picksplit(PG_FUNCTION_ARGS)
{
    const GistEntryVector* entryvec = reinterpret_cast<GistEntryVector*>(PG_GETARG_POINTER(0));
    GIST_SPLITVEC* splitvec = reinterpret_cast<GIST_SPLITVEC*>(PG_GETARG_POINTER(1));
    const uint16 maxoff = static_cast<uint16>(entryvec->n - 1);
    if (maxoff < 2)
        zm::pg::raise(zm::pg::site::picksplitSize);

    static_assert(sizeof(OffsetNumber) == sizeof(uint16_t), "offsets are written as uint16");
    zm::pgRangeArray::SplitSide left{static_cast<uint16_t*>(palloc(maxoff * sizeof(OffsetNumber))), 0, {0, 0}};
    zm::pgRangeArray::SplitSide right{static_cast<uint16_t*>(palloc(maxoff * sizeof(OffsetNumber))), 0, {0, 0}};
    splitvec->spl_left = left.offsets;
    splitvec->spl_right = right.offsets;
    splitvec->spl_nleft = 0;
    splitvec->spl_nright = 0;

    const GISTENTRY* entries = entryvec->vector;
    const auto keyAt = [entries](uint16_t i) { return DatumGetInt64(entries[i].key); };
    const zm::pgRangeArray::SplitStatus status =
        isSortedBuildBatch(entries[FirstOffsetNumber])
            ? zm::pgRangeArray::pickSplitSorted<zm::pg::PallocAllocator>(maxoff, keyAt, sortedBuildTarget(entries[FirstOffsetNumber]),
                                                                        ENTRIES_PER_PAGE, left, right)
            : zm::pgRangeArray::pickSplit<zm::pg::PallocAllocator>(maxoff, keyAt, left, right);
    switch (status)
    {
        case zm::pgRangeArray::SplitStatus::Ok:
            break;
        case zm::pgRangeArray::SplitStatus::InvalidSize: zm::pg::raise(zm::pg::site::picksplitSize);
        case zm::pgRangeArray::SplitStatus::LowerListOutOfBound: zm::pg::raise(zm::pg::site::picksplitLowerList);
        case zm::pgRangeArray::SplitStatus::UpperListOutOfBound: zm::pg::raise(zm::pg::site::picksplitUpperList);
        case zm::pgRangeArray::SplitStatus::RangeAlreadyTagged: zm::pg::raise(zm::pg::site::picksplitTagged);
    }
    splitvec->spl_nleft = left.count;
    splitvec->spl_nright = right.count;
    splitvec->spl_ldatum = Int64GetDatum(packRange(left.unionKey.lower, left.unionKey.upper));
    splitvec->spl_rdatum = Int64GetDatum(packRange(right.unionKey.lower, right.unionKey.upper));
    PG_RETURN_POINTER(splitvec);
}

// Lets CREATE INDEX sort the keys and fill pages bottom-up instead of inserting them one by one;
// later inserts still go through penalty and picksplit.
extern "C" Datum zm_gist_range_sortsupport(PG_FUNCTION_ARGS)
{
    SortSupport ssup = reinterpret_cast<SortSupport>(PG_GETARG_POINTER(0));
    ssup->comparator = comparePackedKeys;
    PG_RETURN_VOID();
}

// The operator of strategy 1 on an int4 column: the value lies in a range of the range array, the
// array being read exactly as the index reads it, so that a sequential scan and an index scan
// agree also on malformed arrays (an odd element count is an error in both).
extern "C" Datum zm_int4_overlap_rangearray(PG_FUNCTION_ARGS)
{
    const int32 v = PG_GETARG_INT32(0);
    PG_RETURN_BOOL(rangeArrayConsistent(PG_GETARG_DATUM(1), Range<int>{v, v}, zm::pg::site::overlapOperatorRangeArray));
}
