// The module's radix sort against std::stable_sort: any length, keys over the whole int32 range or
// with digits shared by every item (skipped passes), sorting in place or into another buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <utility>
#include <vector>

#include "zelmorraPgRadixSort.h"

namespace {

struct Item
{
    int32_t key;
    uint32_t position;  // the input order, to see stability
};

bool sameItems(const std::vector<Item>& a, const std::vector<Item>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Item& x, const Item& y) { return x.key == y.key && x.position == y.position; });
}

std::vector<Item> randomItems(std::mt19937& rng, size_t n, int shape)
{
    std::vector<Item> items(n);
    for (size_t i = 0; i < n; ++i)
    {
        int32_t k;
        switch (shape)
        {
            case 0: k = static_cast<int32_t>(rng()); break;                           // whole range
            case 1: k = static_cast<int32_t>(rng() % 2048); break;                    // one digit varies
            case 2: k = static_cast<int32_t>((rng() % 7) << 22) - (3 << 22); break;  // top digit only
            case 3: k = 12345; break;                                                // all equal
            default: k = rng() % 2 ? INT32_MIN + static_cast<int32_t>(rng() % 3) : INT32_MAX - static_cast<int32_t>(rng() % 3);
        }
        items[i] = Item{k, static_cast<uint32_t>(i)};
    }
    return items;
}

}  // namespace

TEST(RadixSort, StableAndSortedLikeStdStableSort)
{
    std::mt19937 rng(17);
    const auto key = [](const Item& item) { return item.key; };
    for (size_t n : {size_t{0}, size_t{1}, size_t{2}, size_t{63}, size_t{64}, size_t{65}, size_t{1000}, size_t{70000}})
        for (int shape = 0; shape < 5; ++shape)
        {
            const std::vector<Item> input = randomItems(rng, n, shape);
            std::vector<Item> expected = input;
            std::stable_sort(expected.begin(), expected.end(), [](const Item& a, const Item& b) { return a.key < b.key; });

            std::vector<Item> inPlace = input;
            std::vector<Item> other(n);
            zm::radixSortBySignedKey<zm::NoInterrupts>(inPlace.data(), inPlace.data(), other.data(), n, key);
            EXPECT_TRUE(sameItems(inPlace, expected)) << "in place, n " << n << " shape " << shape;

            std::vector<Item> out(n);
            zm::radixSortBySignedKey<zm::NoInterrupts>(input.data(), out.data(), other.data(), n, key);
            EXPECT_TRUE(sameItems(out, expected)) << "into another buffer, n " << n << " shape " << shape;
        }
}
