// Memory-speed reference for building bitfields: memset of a buffer next to the bitfield writer
// filling the same number of bytes, both into freshly allocated memory (what the server does for a
// new bytea) and into memory already touched.
//
// usage: bitfield_memset <data bytes> <ranges>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "zelmorraPgBitField.h"

namespace {

struct NoPoll
{
    void operator()() const {}
};

double seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Fastest of a few runs.
template <typename F>
double best(F f)
{
    double t = 1e30;
    for (int i = 0; i < 5; ++i)
    {
        const auto start = std::chrono::steady_clock::now();
        f();
        const double s = seconds(start);
        if (s < t)
            t = s;
    }
    return t;
}

volatile uint8_t sink;

}  // namespace

int main(int argc, char** argv)
{
    const uint32_t bytes = argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : (1u << 28);
    const uint32_t rangeCount = argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)) : 1;
    const uint64_t bits = uint64_t{bytes} * 8;

    // Ranges spread evenly over the span, covering about half of it (one range: all of it).
    std::vector<int32_t> ranges;
    const uint64_t step = bits / rangeCount;
    for (uint32_t i = 0; i < rangeCount; ++i)
    {
        const uint64_t lo = i * step;
        const uint64_t hi = rangeCount == 1 ? bits - 1 : lo + step / 2;
        ranges.push_back(static_cast<int32_t>(lo));
        ranges.push_back(static_cast<int32_t>(hi));
    }
    const zm::BitFieldShape shape{ranges.front(), ranges.back(), bytes, true};

    auto fresh = [&](auto body) {
        return best([&] {
            uint8_t* p = static_cast<uint8_t*>(std::malloc(bytes));
            body(p);
            sink = p[bytes / 2];
            std::free(p);
        });
    };
    auto memsetBody = [&](uint8_t* p) { std::memset(p, 0xFF, bytes); };
    auto writerBody = [&](uint8_t* p) {
        NoPoll poll;
        zm::BitFieldSetWriter<NoPoll> w(p, shape, poll);
        w.rangeArray(ranges.data(), static_cast<uint32_t>(ranges.size()));
        w.finish();
    };
    std::vector<uint8_t> warm(bytes, 1);
    const double memsetFresh = fresh(memsetBody);
    const double writerFresh = fresh(writerBody);
    const double memsetWarm = best([&] { memsetBody(warm.data()); sink = warm[bytes / 2]; });
    const double writerWarm = best([&] { writerBody(warm.data()); sink = warm[bytes / 2]; });

    const double mb = bytes / 1e6;
    std::printf("%-44s %10.0f MB/s\n", "memset, fresh memory", mb / memsetFresh);
    std::printf("%-44s %10.0f MB/s  (%.2f of memset)\n", "bitfield writer, fresh memory", mb / writerFresh,
                memsetFresh / writerFresh);
    std::printf("%-44s %10.0f MB/s\n", "memset, warm memory", mb / memsetWarm);
    std::printf("%-44s %10.0f MB/s  (%.2f of memset)\n", "bitfield writer, warm memory", mb / writerWarm,
                memsetWarm / writerWarm);
    return 0;
}
