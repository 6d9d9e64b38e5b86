// The range algorithms outside the server: the floor that the SQL functions are measured against.
//
// Reads lines "n<TAB>A<TAB>B<TAB>C" (range arrays as space-separated int4 values, C being the
// complement of A) from standard input and prints, per size and operation, the best time of one
// call in microseconds:  <n> <operation> <microseconds>
// The output vector is reused across calls (no allocation inside the timed loop), so this is the
// pure merge: no detoasting, no result array, no executor. Intersection and exclusion are also
// timed by the step-by-step rules ("_stepwise"), and both ways over distinct random inputs of the
// same size in turn ("_distinct").
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "zelmorraPgRangeArray.h"

namespace {

struct MallocAllocator
{
    static void* allocate(size_t bytes)
    {
        void* block = std::malloc(bytes ? bytes : 1);
        if (!block)
            outOfMemory();
        return block;
    }
    static void deallocate(void* block) { std::free(block); }
    static void diagnostic(const char* line) { std::puts(line); }
    [[noreturn]] static void outOfMemory()
    {
        std::fputs("out of memory\n", stderr);
        std::abort();
    }
};

using Range = zm::pgRangeArray::Range<int>;
using RangeVector = zm::tVectorBase<Range, MallocAllocator>;
using Clock = std::chrono::steady_clock;

std::vector<int32_t> parseValues(const std::string& text)
{
    std::vector<int32_t> values;
    std::istringstream in(text);
    long long v;
    while (in >> v)
        values.push_back(static_cast<int32_t>(v));
    if (values.size() % 2 != 0)
    {
        std::fputs("odd range array length\n", stderr);
        std::exit(1);
    }
    return values;
}

const Range* rangesOf(const std::vector<int32_t>& v) { return reinterpret_cast<const Range*>(v.data()); }

// Best time of one call over several batches, each batch lasting at least `batchSeconds`.
template <typename Call>
double bestMicroseconds(Call call, double batchSeconds)
{
    double best = 1e300;
    for (int batch = 0; batch < 5; ++batch)
    {
        long calls = 0;
        const Clock::time_point start = Clock::now();
        double elapsed = 0;
        do
        {
            call();
            asm volatile("" ::: "memory");  // keep the call inside the loop
            ++calls;
            elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        } while (elapsed < batchSeconds);
        best = std::min(best, elapsed * 1e6 / static_cast<double>(calls));
    }
    return best;
}

volatile size_t sink;

// A canonical random range array drawn like the benchmark table's: from -10 n up, ranges of 1 to 21
// values, 1 to 19 missing values between them.
std::vector<int32_t> randomRangeArray(std::mt19937& rng, size_t n)
{
    std::vector<int32_t> values;
    int64_t upper = -10 * static_cast<int64_t>(n);
    for (size_t i = 0; i < n; ++i)
    {
        const int64_t gap = 2 + rng() % 19, length = rng() % 21;
        upper += gap + length;
        values.push_back(static_cast<int32_t>(upper - length));
        values.push_back(static_cast<int32_t>(upper));
    }
    return values;
}

// Intersection and exclusion, branch-free walk and step-by-step rules, over several distinct input
// pairs in turn. With one input repeated, the branch predictor learns the step-by-step walk of a
// few thousand ranges by heart, which no real workload allows; this shows the cost without that.
void reportDistinctInputs(const std::string& n, double batchSeconds)
{
    const size_t ranges = std::stoul(n);
    const size_t pairs = std::max<size_t>(2, 64000 / std::max<size_t>(ranges, 1));
    std::mt19937 rng(42);
    std::vector<std::vector<int32_t>> inputs;
    for (size_t i = 0; i < 2 * pairs; ++i)
        inputs.push_back(randomRangeArray(rng, ranges));
    RangeVector out;
    out.init(2 * ranges + 1);
    size_t turn = 0;
    auto timeInTurn = [&](const char* operation, auto compute) {
        const double us = bestMicroseconds([&] {
            const std::vector<int32_t>& a = inputs[2 * turn];
            const std::vector<int32_t>& b = inputs[2 * turn + 1];
            compute(rangesOf(a), rangesOf(a) + ranges, rangesOf(b), rangesOf(b) + ranges, out);
            sink = out.size;
            turn = (turn + 1) % pairs;
        }, batchSeconds);
        std::printf("%s %s %.3f\n", n.c_str(), operation, us);
    };
    using namespace zm::pgRangeArray;
    timeInTurn("intersection_distinct", computeIntersection<int, MallocAllocator>);
    timeInTurn("intersection_stepwise_distinct", computeIntersectionStepwise<int, MallocAllocator>);
    timeInTurn("exclusion_distinct", computeExclusion<int, MallocAllocator>);
    timeInTurn("exclusion_stepwise_distinct", computeExclusionStepwise<int, MallocAllocator>);
    out.release();
}

}  // namespace

int main(int argc, char** argv)
{
    const double batchSeconds = argc > 1 ? std::atof(argv[1]) : 0.05;
    std::string line;
    while (std::getline(std::cin, line))
    {
        std::vector<std::string> fields;
        std::istringstream in(line);
        std::string field;
        while (std::getline(in, field, '\t'))
            fields.push_back(field);
        if (fields.size() != 4)
        {
            std::fputs("expected n, A, B and C separated by tabs\n", stderr);
            return 1;
        }
        const std::vector<int32_t> a = parseValues(fields[1]), b = parseValues(fields[2]), c = parseValues(fields[3]);
        const Range *aBegin = rangesOf(a), *aEnd = aBegin + a.size() / 2;
        const Range *bBegin = rangesOf(b), *bEnd = bBegin + b.size() / 2;
        const Range *cBegin = rangesOf(c), *cEnd = cBegin + c.size() / 2;

        RangeVector out;
        out.init(std::max<size_t>({a.size() / 2, b.size() / 2, 1}));
        const std::string& n = fields[0];
        auto report = [&](const char* operation, double us) { std::printf("%s %s %.3f\n", n.c_str(), operation, us); };

        report("union", bestMicroseconds([&] {
            zm::pgRangeArray::computeUnion(aBegin, aEnd, bBegin, bEnd, out);
            sink = out.size;
        }, batchSeconds));
        report("intersection", bestMicroseconds([&] {
            zm::pgRangeArray::computeIntersection(aBegin, aEnd, bBegin, bEnd, out);
            sink = out.size;
        }, batchSeconds));
        report("exclusion", bestMicroseconds([&] {
            zm::pgRangeArray::computeExclusion(aBegin, aEnd, bBegin, bEnd, out);
            sink = out.size;
        }, batchSeconds));
        // The step-by-step rules that canonical inputs skip: what the branch-free walks save.
        report("intersection_stepwise", bestMicroseconds([&] {
            zm::pgRangeArray::computeIntersectionStepwise(aBegin, aEnd, bBegin, bEnd, out);
            sink = out.size;
        }, batchSeconds));
        report("exclusion_stepwise", bestMicroseconds([&] {
            zm::pgRangeArray::computeExclusionStepwise(aBegin, aEnd, bBegin, bEnd, out);
            sink = out.size;
        }, batchSeconds));
        report("overlap_full_scan", bestMicroseconds([&] {
            sink = zm::pgRangeArray::isOverlapping(aBegin, aEnd, cBegin, cEnd);
        }, batchSeconds));
        report("overlap_early_hit", bestMicroseconds([&] {
            sink = zm::pgRangeArray::isOverlapping(aBegin, aEnd, bBegin, bEnd);
        }, batchSeconds));
        out.release();
        reportDistinctInputs(n, batchSeconds);
        std::fflush(stdout);
    }
    return 0;
}
