// The catalogue of error sites: every failure the extension reports, declared once with its
// SQLSTATE, reported function, reported file and line, and message.
//
// A site whose location is part of the interface (ZM_FIXED_SITE) states its line; every other site
// (ZM_SITE) reports the line of its own declaration below, which moves only when this catalogue
// changes, never when the code that raises it does. The reported file is the source file of the
// site's family (the server shows its base name), also where the raising code lives elsewhere.
// test/sql/error_locations.sql triggers every fixed site once and scripts/test.sh checks its
// locations against this file; no other test shows a location.
//
// Messages used by more than one site are declared once in `message`; a message is a printf
// format when the site's raise passes arguments. Server glue raises a site with zm::pg::raise
// (zelmorraPgUtils.h); algorithms return statuses, which the glue maps to sites.
#pragma once

extern "C" {
#include "postgres.h"
}

#include "zelmorraPgKeepSingle.h"

namespace zm {
namespace pg {

struct ErrorSite
{
    int sqlstate;
    const char* function;
    const char* file;
    int line;
    const char* message;  // null: a report without message text (out of memory)
    bool locationFixed;
};

#define ZM_SITE(sqlstate, function, file, message) ::zm::pg::ErrorSite{(sqlstate), (function), (file), __LINE__, (message), false}
#define ZM_FIXED_SITE(sqlstate, function, file, line, message) \
    ::zm::pg::ErrorSite{(sqlstate), (function), (file), (line), (message), true}

// SQLSTATEs reported by the extension.
constexpr int outOfMemory = ERRCODE_OUT_OF_MEMORY;                      // 53200
constexpr int datatypeMismatch = ERRCODE_DATATYPE_MISMATCH;             // 42804
constexpr int invalidParameter = ERRCODE_INVALID_PARAMETER_VALUE;       // 22023
constexpr int valueError = MAKE_SQLSTATE('2', '2', '0', '1', '5');      // 22015
constexpr int invalidBinary = ERRCODE_INVALID_BINARY_REPRESENTATION;    // 22P03
constexpr int indexInternal = MAKE_SQLSTATE('X', 'X', '0', '0', '2');   // XX002
constexpr int setExpressionError = MAKE_SQLSTATE('0', '2', '0', '0', '0');  // 02000

namespace file {
constexpr const char* utils = "pluginimpl/inc/zelmorraPgUtils.h";
constexpr const char* bitField = "common/inc/zelmorraPgBitField.h";
constexpr const char* aggregators = "pluginimpl/src/zelmorraPgRangeAggregators.cpp";
constexpr const char* compare = "pluginimpl/src/zelmorraPgRangeCompare.cpp";
constexpr const char* conversions = "pluginimpl/src/zelmorraPgRangeConversions.cpp";
constexpr const char* gist = "pluginimpl/src/zelmorraPgGistRange.cpp";
constexpr const char* keepSingle = "pluginimpl/src/zelmorraPgAggKeepSingle.cpp";
}  // namespace file

namespace message {
constexpr const char* lengthNotEven = "array length should be even";
constexpr const char* invalidRangeArray = "invalid range array";
constexpr const char* invalidBitfieldArray = "invalid bitfield array";
constexpr const char* invalidRangeArrayCount = "invalid int4 count to represent a rangearray";
constexpr const char* acceptOnlyInt4 = "accept only int4[]";
constexpr const char* acceptOnlyEvenInt4 = "accept only int4[] with an even size";
constexpr const char* unsupportedConversion = "unsuported conversion";
constexpr const char* arrayOverflowRanges = "array overflow ";  // range outputs, with the trailing blank
constexpr const char* arrayOverflow = "array overflow";
constexpr const char* combineMismatch = "fail to combine Int4ToSetOpDataSet";
constexpr const char* invalidRangeDefinition = "Invalid range definition";
}  // namespace message

namespace site {

// ---- module frame and helpers -------------------------------------------------------------------
constexpr ErrorSite allocateBytea = ZM_FIXED_SITE(outOfMemory, "allocateBytea", file::utils, 54, nullptr);
constexpr ErrorSite allocateResultArray = ZM_FIXED_SITE(outOfMemory, "allocateResultArray", file::utils, 79, nullptr);
constexpr ErrorSite vectorOutOfMemory = ZM_SITE(outOfMemory, "tVector", file::utils, nullptr);
constexpr ErrorSite nonAggregateContext =
    ZM_SITE(invalidParameter, "aggregateContext", file::utils, "%s called in non-aggregate context");
constexpr ErrorSite kindLetter = ZM_FIXED_SITE(valueError, "ArrayDataTypeFromChar", file::aggregators, 555,
                                               "int4_agg array type should be 'r','s' or 'm'");

// ---- bitfield -------------------------------------------------------------------------------------
constexpr ErrorSite bitFieldInvalidCapacity = ZM_SITE(valueError, "reserve", file::bitField, "bitfield invalid capacity");
constexpr ErrorSite bitFieldOutOfMemory = ZM_SITE(outOfMemory, "reserve", file::bitField, nullptr);
constexpr ErrorSite bitFieldSizeOverflow = ZM_SITE(valueError, "resize", file::bitField, "tSize overflow ");

// ---- range-array set operators ------------------------------------------------------------------
// "...OneNull": the argument copied when the other one is NULL.
constexpr ErrorSite unionOddOneNull =
    ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_union", file::aggregators, 60, message::lengthNotEven);
constexpr ErrorSite unionOdd = ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_union", file::aggregators, 80, message::lengthNotEven);
constexpr ErrorSite intersectionOdd =
    ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_intersection", file::aggregators, 132, message::lengthNotEven);
constexpr ErrorSite exclusionOddOneNull =
    ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_exclusion", file::aggregators, 181, message::lengthNotEven);
constexpr ErrorSite exclusionOdd =
    ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_exclusion", file::aggregators, 201, message::lengthNotEven);
constexpr ErrorSite strictlyIncludeOdd =
    ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_is_strictly_include", file::aggregators, 252, message::lengthNotEven);
constexpr ErrorSite isOverlapOdd =
    ZM_FIXED_SITE(datatypeMismatch, "zm_int4range_is_overlap", file::aggregators, 284, message::lengthNotEven);

// ---- set-expression aggregate ------------------------------------------------------------------
constexpr ErrorSite closeRootGroup = ZM_SITE(valueError, "closeGroup", file::aggregators, "try to close root parenthesis group");
constexpr ErrorSite maxGroupDepth = ZM_SITE(invalidParameter, "addValue", file::aggregators, "reach max parenthesis group depth");
constexpr ErrorSite unknownOperation = ZM_SITE(invalidParameter, "addToCurrentGroup", file::aggregators, "Unknown operation id %i");
constexpr ErrorSite oddOperand = ZM_SITE(datatypeMismatch, "addValue", file::aggregators, message::lengthNotEven);
constexpr ErrorSite nullOperation =
    ZM_SITE(setExpressionError, "zm_int4range_op_transfn", file::aggregators, "null operation is not now allowed");
constexpr ErrorSite setExpressionOverflow =
    ZM_SITE(valueError, "zm_int4range_op_finalfn", file::aggregators, message::arrayOverflowRanges);

// ---- set aggregates ---------------------------------------------------------------------------------
constexpr ErrorSite combineMismatch = ZM_SITE(valueError, "addOtherCtx", file::aggregators, message::combineMismatch);
constexpr ErrorSite setAggNotRangeArray =
    ZM_SITE(valueError, "addRange", file::aggregators, "zm_int4set_agg_transfn input is not a range array");
constexpr ErrorSite setAggNotImplemented = ZM_SITE(valueError, "addRange", file::aggregators, "zm_int4set_agg_transfn not implemented");
constexpr ErrorSite setAggDanglingOpener = ZM_SITE(valueError, "addRange", file::aggregators, message::invalidRangeDefinition);
constexpr ErrorSite setAggEmptyBytea = ZM_SITE(valueError, "fromBytea", file::aggregators, "zm_int4set_agg_deserialfn empty bytea");
constexpr ErrorSite setAggEmptyRangeArray =
    ZM_SITE(valueError, "fromBytea", file::aggregators, "zm_int4set_agg_deserialfn range array should not be empty");
constexpr ErrorSite setAggInvalidSize =
    ZM_SITE(valueError, "fromBytea", file::aggregators, "zm_int4set_agg_deserialfn invalid range array size");
constexpr ErrorSite setAggRangeOverflow =
    ZM_SITE(valueError, "zm_int4set_agg_finalfn", file::aggregators, message::arrayOverflowRanges);
constexpr ErrorSite setAggOverflow = ZM_SITE(valueError, "zm_int4set_agg_finalfn", file::aggregators, message::arrayOverflow);
constexpr ErrorSite setAggFinalNotImplemented =
    ZM_SITE(valueError, "zm_int4set_agg_finalfn", file::aggregators, "zm_int4set_agg_finalfn not implemented");

constexpr ErrorSite optimizedMaxInput =
    ZM_SITE(valueError, "addRange", file::aggregators, "int4set_agg_optimized invalid 'maxinput' value ");
constexpr ErrorSite optimizedValueOutOfRange =
    ZM_SITE(valueError, "addRange", file::aggregators, "int4set_agg_optimized value %i is out of range [0;%i]");
constexpr ErrorSite optimizedRangeOutOfRange =
    ZM_SITE(valueError, "addRange", file::aggregators, "int4set_agg_optimized value is out of range [0;%i]");
constexpr ErrorSite optimizedScalarOutOfRange =
    ZM_SITE(valueError, "addRange", file::aggregators, "int4set_agg_optimized input scalar is out of range [0;%i]");
constexpr ErrorSite optimizedNotRangeArray =
    ZM_SITE(valueError, "addRange", file::aggregators, "int4set_agg_optimized input is not a range array");
constexpr ErrorSite optimizedNotImplemented =
    ZM_SITE(valueError, "addRange", file::aggregators, "zm_int4set_agg_optimized_transfn not implemented");
constexpr ErrorSite optimizedDanglingOpener = ZM_SITE(valueError, "addRange", file::aggregators, message::invalidRangeDefinition);
constexpr ErrorSite optimizedEmptyBytea =
    ZM_SITE(valueError, "fromBytea", file::aggregators, "zm_int4set_agg_optimized_deserialfn empty bytea");
constexpr ErrorSite optimizedCorrupted =
    ZM_SITE(valueError, "fromBytea", file::aggregators, "zm_int4set_agg_optimized_deserialfn corrupted");
constexpr ErrorSite optimizedOverflow =
    ZM_SITE(valueError, "zm_int4set_agg_optimized_finalfn", file::aggregators, message::arrayOverflowRanges);
constexpr ErrorSite optimizedFinalNotImplemented = ZM_SITE(valueError, "zm_int4set_agg_optimized_finalfn", file::aggregators,
                                                           "zm_int4set_agg_optimized_finalfn not implemented");

// ---- membership, comparison and bitfield tests --------------------------------------------------
constexpr ErrorSite overlapRangeArrayOdd =
    ZM_FIXED_SITE(invalidParameter, "zm_int4range_overlap_rangearray", file::compare, 123, message::invalidRangeArray);
constexpr ErrorSite packedInRangeArrayOdd =
    ZM_FIXED_SITE(invalidParameter, "zm_int4rangepacked_in_rangearray", file::compare, 164, message::invalidRangeArray);
constexpr ErrorSite bitFieldArgument = ZM_SITE(invalidParameter, "getBitFieldInfo", file::compare, message::invalidBitfieldArray);
constexpr ErrorSite packedInBitFieldShort =
    ZM_FIXED_SITE(invalidParameter, "zm_int4rangepacked_in_rangebitfield", file::compare, 188, message::invalidBitfieldArray);
constexpr ErrorSite packedInBitFieldLength =
    ZM_FIXED_SITE(invalidParameter, "zm_int4rangepacked_in_rangebitfield", file::compare, 203, message::invalidBitfieldArray);
constexpr ErrorSite setTestNotInt4 =
    ZM_FIXED_SITE(invalidParameter, "int4set_test_bitfield", file::compare, 223, message::acceptOnlyInt4);
constexpr ErrorSite setTestUnsupportedKind =
    ZM_FIXED_SITE(invalidParameter, "int4set_test_bitfield", file::compare, 258, "unsupported input type");
constexpr ErrorSite setIncludedOdd =
    ZM_FIXED_SITE(invalidBinary, "int4set_test_bitfield", file::compare, 318, message::invalidRangeArrayCount);
constexpr ErrorSite setOverlapOdd =
    ZM_FIXED_SITE(invalidBinary, "int4set_test_bitfield", file::compare, 384, message::invalidRangeArrayCount);
constexpr ErrorSite setTestDanglingOpener = ZM_SITE(valueError, "int4set_test_bitfield", file::compare, message::invalidRangeDefinition);

// ---- conversions ----------------------------------------------------------------------------------
constexpr ErrorSite packArrayShape = ZM_SITE(invalidParameter, "zm_range_pack", file::conversions, "accept only int4[] with a size of 2 ");
constexpr ErrorSite packArity =
    ZM_SITE(invalidParameter, "zm_range_pack", file::conversions, "accept only int4[] with a size of 2 or 2 int4");
constexpr ErrorSite packInvalidRange = ZM_SITE(invalidParameter, "zm_range_pack", file::conversions, "invalid range");

constexpr ErrorSite convertNotInt4 = ZM_SITE(invalidParameter, "zm_int4setconv_int4", file::conversions, message::acceptOnlyInt4);
constexpr ErrorSite convertSameKind = ZM_SITE(invalidBinary, "zm_int4setconv_int4", file::conversions, message::unsupportedConversion);
constexpr ErrorSite convertScalarToRangeNotSorted =
    ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, "convertScalarToRangeArray input data is not sorted");
constexpr ErrorSite convertScalarToMixNotSorted =
    ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, "convertScalarToMixArrayInt4 input data is not sorted");
constexpr ErrorSite convertOdd = ZM_SITE(invalidBinary, "zm_int4setconv_int4", file::conversions, message::invalidRangeArrayCount);
constexpr ErrorSite convertOutputTooSmall = ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, "Output array is too small");
constexpr ErrorSite convertInvalidRange = ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, message::invalidRangeDefinition);
constexpr ErrorSite convertError = ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, "Conversion error");
constexpr ErrorSite convertRangeOverflow = ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, message::arrayOverflowRanges);
constexpr ErrorSite convertOverflow = ZM_SITE(valueError, "zm_int4setconv_int4", file::conversions, message::arrayOverflow);
constexpr ErrorSite sortNotInt4 = ZM_SITE(invalidParameter, "zm_sort_int4", file::conversions, message::acceptOnlyInt4);

constexpr ErrorSite bitFieldBuildNotInt4 =
    ZM_SITE(invalidParameter, "zm_int4set2bitfield_int4", file::conversions, message::acceptOnlyInt4);
constexpr ErrorSite bitFieldBuildOdd = ZM_SITE(invalidBinary, "zm_int4set2bitfield_int4", file::conversions, message::invalidRangeArrayCount);
constexpr ErrorSite bitFieldBuildDanglingOpener =
    ZM_SITE(valueError, "zm_int4set2bitfield_int4", file::conversions, message::invalidRangeDefinition);
constexpr ErrorSite countOdd = ZM_SITE(invalidBinary, "zm_count_scalar_in_int4set", file::conversions, message::invalidRangeArrayCount);

constexpr ErrorSite floatPayloadLength =
    ZM_SITE(invalidBinary, "zm_bytea2floatarray", file::conversions, "invalid byte count to represent a float array");
constexpr ErrorSite mixPayloadLength =
    ZM_SITE(invalidBinary, "zm_bytea2mix2rangearray", file::conversions, "invalid byte count to represent an int4 mixarray");
constexpr ErrorSite mixPayloadInvalidRange =
    ZM_SITE(valueError, "zm_bytea2mix2rangearray", file::conversions, message::invalidRangeDefinition);
constexpr ErrorSite mixPayloadOverflow =
    ZM_SITE(valueError, "zm_bytea2mix2rangearray", file::conversions, message::arrayOverflowRanges);

// ---- GiST support ---------------------------------------------------------------------------------
constexpr ErrorSite gistRangeArrayQuery =
    ZM_SITE(invalidParameter, "zm_gist_range_consistent", file::gist, message::acceptOnlyEvenInt4);
constexpr ErrorSite overlapOperatorRangeArray =
    ZM_SITE(invalidParameter, "zm_int4_overlap_rangearray", file::gist, message::acceptOnlyEvenInt4);
constexpr ErrorSite gistBitFieldQuery = ZM_SITE(invalidParameter, "zm_gist_range_consistent", file::gist, message::invalidBitfieldArray);
constexpr ErrorSite gistStrategy =
    ZM_SITE(invalidParameter, "zm_gist_range_consistent", file::gist, "GIST consistent unimplemented strategy");
constexpr ErrorSite gistInvalidPackedRange =
    ZM_SITE(invalidParameter, "zm_gist_range_compress_int8", file::gist, "GIST invalid input packed range [%d;%d]");
constexpr ErrorSite picksplitSize =
    ZM_SITE(indexInternal, "zm_gist_range_picksplit", file::gist, "GIST picksplit input vector has an invalid size");
constexpr ErrorSite picksplitLowerList =
    ZM_SITE(indexInternal, "zm_gist_range_picksplit", file::gist, "GIST picksplit internal error (lower list out of bound)");
constexpr ErrorSite picksplitUpperList =
    ZM_SITE(indexInternal, "zm_gist_range_picksplit", file::gist, "GIST picksplit internal error (upper list out of bound)");
constexpr ErrorSite picksplitTagged =
    ZM_SITE(indexInternal, "pushRange", file::gist, "GIST picksplit internal error (range already tagged)");

// ---- keep-single aggregate ------------------------------------------------------------------------
constexpr ErrorSite keepUnsupportedType = ZM_SITE(valueError, "addValue", file::keepSingle, keepSingle::unsupportedTypeOnStore);
constexpr ErrorSite keepTypeOrPolicyChanged = ZM_SITE(valueError, "addValue", file::keepSingle, keepSingle::typeOrPolicyChanged);
constexpr ErrorSite keepValueMismatch = ZM_SITE(valueError, "addValue", file::keepSingle, keepSingle::valueMismatch);
constexpr ErrorSite keepUnsupportedCompare = ZM_SITE(valueError, "addValue", file::keepSingle, keepSingle::unsupportedTypeOnCompare);
constexpr ErrorSite keepFinalTypeChanged =
    ZM_SITE(valueError, "zm_agg_keep_single_finalfn", file::keepSingle, keepSingle::typeOrPolicyChanged);
constexpr ErrorSite keepFinalUnsupported =
    ZM_SITE(valueError, "zm_agg_keep_single_finalfn", file::keepSingle, keepSingle::unsupportedTypeOnCompare);
constexpr ErrorSite keepEmptyBytea = ZM_SITE(valueError, "fromBytea", file::keepSingle, "zm_agg_keep_single_deserialfn empty bytea");
constexpr ErrorSite keepUnexpectedSize =
    ZM_SITE(valueError, "fromBytea", file::keepSingle, "zm_agg_keep_single_deserialfn unexpected bytea size");
constexpr ErrorSite keepNotImplemented =
    ZM_SITE(valueError, "fromBytea", file::keepSingle, "zm_agg_keep_single_deserialfn not implemented bytea");

}  // namespace site
}  // namespace pg
}  // namespace zm
