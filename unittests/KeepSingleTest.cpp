#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "zelmorraPgKeepSingle.h"

namespace ks = zm::keepSingle;

TEST(KeepSingleTypes, Table)
{
    for (uint32_t t : {16u, 20u, 21u, 23u, 700u, 701u})
        EXPECT_EQ(ks::valueKindOf(t), ks::ValueKind::ByValue) << t;
    for (uint32_t t : {17u, 25u})
        EXPECT_EQ(ks::valueKindOf(t), ks::ValueKind::VariableLength) << t;
    for (uint32_t t : {0u, 18u, 19u, 1043u, 1082u, 1700u, 1007u})
        EXPECT_EQ(ks::valueKindOf(t), ks::ValueKind::Unsupported) << t;
}

TEST(KeepSingleTypes, Equality)
{
    EXPECT_TRUE(ks::sameBytes("abc", 3, "abc", 3));
    EXPECT_FALSE(ks::sameBytes("abc", 3, "abd", 3));
    EXPECT_FALSE(ks::sameBytes("abc", 3, "ab", 2));
    EXPECT_TRUE(ks::sameBytes(nullptr, 0, "x", 0));
}

TEST(KeepSingleTypes, CanonicalDatum)
{
    // The server's own datums are left as they are...
    EXPECT_EQ(ks::canonicalDatum(ks::int4Type, static_cast<uint64_t>(int64_t{-1})), static_cast<uint64_t>(int64_t{-1}));
    EXPECT_EQ(ks::canonicalDatum(ks::int2Type, static_cast<uint64_t>(int64_t{-2})), static_cast<uint64_t>(int64_t{-2}));
    EXPECT_EQ(ks::canonicalDatum(ks::boolType, 1), 1u);
    EXPECT_EQ(ks::canonicalDatum(ks::int8Type, 0x8000000000000000ull), 0x8000000000000000ull);
    // ...and a zero-extended or padded one is brought to that form.
    EXPECT_EQ(ks::canonicalDatum(ks::int4Type, 0xffffffffull), static_cast<uint64_t>(int64_t{-1}));
    EXPECT_EQ(ks::canonicalDatum(ks::float4Type, 0x1234567880000000ull), 0xffffffff80000000ull);
    EXPECT_EQ(ks::canonicalDatum(ks::int2Type, 0xabcd0005ull), 5u);
    EXPECT_EQ(ks::canonicalDatum(ks::boolType, 0x100), 1u);
    // float8 datums are compared bitwise: 0.0 and -0.0 differ.
    EXPECT_NE(ks::canonicalDatum(ks::float8Type, 0), ks::canonicalDatum(ks::float8Type, 0x8000000000000000ull));
}

TEST(KeepSingleLayout, DatumState)
{
    uint8_t out[ks::datumStateSize];
    ks::writeHeader(out, ks::datumKind, false, true, ks::int4Type);
    ks::writeDatum(out, 0x0102030405060708ull);
    const uint8_t expected[] = {1, 2, 23, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1};  // flags: policy
    ASSERT_EQ(sizeof expected, sizeof out);
    EXPECT_EQ(std::memcmp(out, expected, sizeof out), 0);

    ks::DecodedState state;
    ASSERT_EQ(ks::decodeState(out, sizeof out, state), ks::DecodeStatus::Ok);
    EXPECT_EQ(state.kind, ks::datumKind);
    EXPECT_FALSE(state.isNull);
    EXPECT_TRUE(state.policy);
    EXPECT_EQ(state.type, 23u);
    EXPECT_EQ(state.datum, 0x0102030405060708ull);
}

TEST(KeepSingleLayout, PayloadState)
{
    std::vector<uint8_t> out(ks::headerSize + 2);
    ks::writeHeader(out.data(), ks::payloadKind, false, false, ks::textType);
    out[6] = 'a';
    out[7] = 'b';
    EXPECT_EQ(out, (std::vector<uint8_t>{2, 0, 25, 0, 0, 0, 'a', 'b'}));
    ks::DecodedState state;
    ASSERT_EQ(ks::decodeState(out.data(), out.size(), state), ks::DecodeStatus::Ok);
    EXPECT_EQ(state.type, 25u);
    ASSERT_EQ(state.payloadLength, 2u);
    EXPECT_EQ(std::memcmp(state.payload, "ab", 2), 0);

    // A kept NULL text: kind 2 without payload.
    uint8_t nullText[ks::headerSize];
    ks::writeHeader(nullText, ks::payloadKind, true, true, ks::textType);
    EXPECT_EQ(nullText[1], 3);  // NULL and policy
    ASSERT_EQ(ks::decodeState(nullText, sizeof nullText, state), ks::DecodeStatus::Ok);
    EXPECT_TRUE(state.isNull);
    EXPECT_TRUE(state.policy);
    EXPECT_EQ(state.payloadLength, 0u);

    // Type oids above 255 are little-endian.
    ks::writeHeader(nullText, ks::datumKind, false, false, 0x01020304u);
    EXPECT_EQ(nullText[2], 4);
    EXPECT_EQ(nullText[5], 1);
}

TEST(KeepSingleLayout, DecodeErrors)
{
    ks::DecodedState state;
    EXPECT_EQ(ks::decodeState(nullptr, 0, state), ks::DecodeStatus::Empty);
    const uint8_t kind3[] = {3, 0, 23, 0, 0, 0};
    EXPECT_EQ(ks::decodeState(kind3, sizeof kind3, state), ks::DecodeStatus::NotImplemented);
    const uint8_t kind0[] = {0};
    EXPECT_EQ(ks::decodeState(kind0, sizeof kind0, state), ks::DecodeStatus::NotImplemented);
    for (size_t length : {1u, 5u, 6u, 13u, 15u, 30u})
    {
        std::vector<uint8_t> bytes(length, 0);
        bytes[0] = 1;
        EXPECT_EQ(ks::decodeState(bytes.data(), length, state), ks::DecodeStatus::UnexpectedSize) << length;
    }
    for (size_t length : {1u, 2u, 5u})
    {
        std::vector<uint8_t> bytes(length, 0);
        bytes[0] = 2;
        EXPECT_EQ(ks::decodeState(bytes.data(), length, state), ks::DecodeStatus::UnexpectedSize) << length;
    }
    // A kind-1 state cannot carry a text or bytea value (its datum would be a dangling pointer).
    uint8_t textAsDatum[ks::datumStateSize] = {};
    ks::writeHeader(textAsDatum, ks::datumKind, false, false, ks::textType);
    EXPECT_EQ(ks::decodeState(textAsDatum, sizeof textAsDatum, state), ks::DecodeStatus::NotImplemented);
    ks::writeHeader(textAsDatum, ks::datumKind, true, false, ks::byteaType);
    EXPECT_EQ(ks::decodeState(textAsDatum, sizeof textAsDatum, state), ks::DecodeStatus::Ok);

}

TEST(KeepSingleLayout, RandomBytesStayInBounds)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 20000; ++round)
    {
        const size_t n = rng() % 24;
        std::unique_ptr<uint8_t[]> bytes(new uint8_t[n]);
        for (size_t i = 0; i < n; ++i)
            bytes[i] = static_cast<uint8_t>(rng() % 4 == 0 ? rng() : rng() % 3);
        ks::DecodedState state;
        if (ks::decodeState(bytes.get(), n, state) == ks::DecodeStatus::Ok && state.kind == ks::payloadKind)
        {
            ASSERT_EQ(state.payload + state.payloadLength, bytes.get() + n);
        }
    }
}

TEST(KeepSingleMessages, ExactTexts)
{
    EXPECT_STREQ(ks::unsupportedTypeOnStore, "agg_keep_single unsuported type");
    EXPECT_STREQ(ks::unsupportedTypeOnCompare, "agg_keep_singleunsuported type");
    EXPECT_STREQ(ks::typeOrPolicyChanged, "agg_keep_single type or policy changed");
    EXPECT_STREQ(ks::valueMismatch, "agg_keep_single value missmatch");
}
