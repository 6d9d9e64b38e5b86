// The GiST page split and penalty on random keys: every entry is placed exactly once, both sides
// get at least one, and each side's union is exactly the cover of its keys; no key, however wide or
// damaged, stops a split.
#include <vector>

#include "FuzzSupport.h"
#include "zelmorraPgGistAlgorithms.h"

namespace {

using fuzz::Input;
using zm::pgRangeArray::Range;
using zm::pgRangeArray::SplitSide;
using zm::pgRangeArray::SplitStatus;

void checkSides(const std::vector<int64_t>& keys, uint16_t maxoff, const SplitSide& left, const SplitSide& right)
{
    FUZZ_CHECK(left.count >= 1 && right.count >= 1 && left.count + right.count == maxoff);
    std::vector<int> seen(maxoff + 1, 0);
    for (const SplitSide* side : {&left, &right})
    {
        Range<int> cover = zm::pgRangeArray::unpackRange(keys[side->offsets[0]]);
        for (int i = 0; i < side->count; ++i)
        {
            const uint16_t offset = side->offsets[i];
            FUZZ_CHECK(offset >= 1 && offset <= maxoff);
            ++seen[offset];
            const Range<int> k = zm::pgRangeArray::unpackRange(keys[offset]);
            cover.lower = std::min(cover.lower, k.lower);
            cover.upper = std::max(cover.upper, k.upper);
        }
        FUZZ_CHECK(side->unionKey.lower == cover.lower && side->unionKey.upper == cover.upper);
    }
    for (uint16_t i = 1; i <= maxoff; ++i)
        FUZZ_CHECK(seen[i] == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::runInput([&] {
        Input in(data, size);
        const uint8_t mode = in.u8();
        const uint16_t maxoff = static_cast<uint16_t>(in.u16() % 700);
        // keys[0] is the unused slot before the first offset, as in a GiST entry vector.
        std::vector<int64_t> keys(maxoff + 1, 0);
        int32_t base = in.valueNear(0);
        for (uint16_t i = 1; i <= maxoff; ++i)
        {
            if (mode & 1)
            {
                keys[i] = static_cast<int64_t>(in.u64());  // anything, reversed halves included
                continue;
            }
            // A key as compress and union make them: lower <= upper.
            const int32_t lower = in.valueNear(base);
            const int32_t upper = (mode & 2) ? in.valueNear(lower) : Input::wrap(int64_t{lower} + in.u8());
            keys[i] = zm::pgRangeArray::packRange(std::min(lower, upper), std::max(lower, upper));
            if (in.u8() % 8 == 0 && i > 1)
                keys[i] = keys[1 + in.u16() % (i - 1)];  // duplicates
            base = lower;
        }
        const auto keyAt = [&keys](uint16_t i) { return keys.at(i); };

        SplitSide left{fuzz::exactArray<uint16_t>(maxoff), 0, {0, 0}};
        SplitSide right{fuzz::exactArray<uint16_t>(maxoff), 0, {0, 0}};
        const SplitStatus status = zm::pgRangeArray::pickSplit<fuzz::Allocator>(maxoff, keyAt, left, right);
        if (maxoff < 2)
            FUZZ_CHECK(status == SplitStatus::InvalidSize);
        else
        {
            FUZZ_CHECK(status == SplitStatus::Ok);
            checkSides(keys, maxoff, left, right);
        }

        // The split of a sorted build's batch: pages of `target` entries in key order.
        const uint32_t target = 1 + in.u16() % 512;
        const uint32_t capacity = 1 + in.u16() % 512;
        SplitSide sortedLeft{fuzz::exactArray<uint16_t>(maxoff), 0, {0, 0}};
        SplitSide sortedRight{fuzz::exactArray<uint16_t>(maxoff), 0, {0, 0}};
        const SplitStatus sorted =
            zm::pgRangeArray::pickSplitSorted<fuzz::Allocator>(maxoff, keyAt, target, capacity, sortedLeft, sortedRight);
        if (maxoff < 2)
            FUZZ_CHECK(sorted == SplitStatus::InvalidSize);
        else
        {
            FUZZ_CHECK(sorted == SplitStatus::Ok);
            checkSides(keys, maxoff, sortedLeft, sortedRight);
        }

        // Penalties: never negative; a key already covering the new one costs less than one value.
        for (int k = 0; k < 16 && maxoff >= 1 && !in.empty(); ++k)
        {
            const Range<int> orig = zm::pgRangeArray::unpackRange(keys[1 + in.u16() % maxoff]);
            const Range<int> add = zm::pgRangeArray::unpackRange(keys[1 + in.u16() % maxoff]);
            const float penalty = zm::pgRangeArray::computePenalty(orig, add);
            FUZZ_CHECK(penalty >= 0.0f);
            const bool valid = orig.lower <= orig.upper && add.lower <= add.upper;
            if (valid && orig.lower <= add.lower && add.upper <= orig.upper)
                FUZZ_CHECK(penalty < 1.0f);
        }
        if (maxoff >= 1)
        {
            const int64_t u = zm::pgRangeArray::unionOfPackedKeys(maxoff, [&keys](int i) { return keys[i + 1]; });
            const Range<int> r = zm::pgRangeArray::unpackRange(u);
            for (uint16_t i = 1; i <= maxoff; ++i)
            {
                const Range<int> k = zm::pgRangeArray::unpackRange(keys[i]);
                FUZZ_CHECK(r.lower <= k.lower && k.upper <= r.upper);
            }
        }
    });
}
