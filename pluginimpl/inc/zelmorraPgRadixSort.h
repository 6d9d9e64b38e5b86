// The one sort of the module for large inputs: a stable least-significant-digit radix sort on a
// signed 32-bit key, used by the set aggregates (ranges by lower bound) and by zm_sort_int4
// (values). No PostgreSQL dependency.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zelmorraPgInterrupts.h"

namespace zm {

// Sorts src[0, n) by key(item) (an int32_t) into out[0, n), with `other` (room for n) as scratch.
// src may be out itself; other must differ from both. Three digits of 11 bits of the sign-flipped
// key; a digit that is the same for every item costs no pass. The first pass reads src and the
// passes alternate between out and other so that the last one writes out (when src is out and
// the first pass would have to write it, src is first copied to other). Short inputs are
// insertion-sorted. Interrupts are checked every interruptCheckInterval items of each pass and
// between passes.
template <typename Interrupts, typename T, typename Key>
void radixSortBySignedKey(const T* src, T* out, T* other, size_t n, Key key)
{
    const auto copyToOut = [&] {
        if (src != out && n)
            std::memcpy(out, src, n * sizeof(T));
    };
    if (n < 64)
    {
        copyToOut();
        for (size_t i = 1; i < n; ++i)
        {
            const T item = out[i];
            size_t j = i;
            for (; j > 0 && key(out[j - 1]) > key(item); --j)
                out[j] = out[j - 1];
            out[j] = item;
        }
        return;
    }
    constexpr unsigned digitBits = 11;
    constexpr unsigned buckets = 1u << digitBits;
    constexpr unsigned digits = 3;
    const auto unsignedKey = [&key](const T& item) { return static_cast<uint32_t>(key(item)) ^ 0x80000000u; };
    const auto digitOf = [](uint32_t k, unsigned d) { return (k >> (d * digitBits)) & (buckets - 1); };

    size_t histogram[digits][buckets] = {};
    for (size_t i = 0; i < n; ++i)
    {
        if ((i & (interruptCheckInterval - 1)) == interruptCheckInterval - 1)
            Interrupts::check();
        const uint32_t k = unsignedKey(src[i]);
        for (unsigned d = 0; d < digits; ++d)
            ++histogram[d][digitOf(k, d)];
    }
    bool needed[digits];
    unsigned passes = 0;
    for (unsigned d = 0; d < digits; ++d)
    {
        needed[d] = histogram[d][digitOf(unsignedKey(src[0]), d)] != n;
        passes += needed[d];
    }
    if (passes == 0)
    {
        copyToOut();
        return;
    }

    const T* from = src;
    T* to = passes % 2 == 1 ? out : other;
    if (to == src)
    {
        std::memcpy(other, src, n * sizeof(T));
        from = other;
    }
    for (unsigned d = 0; d < digits; ++d)
    {
        if (!needed[d])
            continue;
        size_t offset = 0;
        for (unsigned b = 0; b < buckets; ++b)
        {
            const size_t c = histogram[d][b];
            histogram[d][b] = offset;
            offset += c;
        }
        size_t* position = histogram[d];
        for (size_t i = 0; i < n; ++i)
        {
            if ((i & (interruptCheckInterval - 1)) == interruptCheckInterval - 1)
                Interrupts::check();
            const T item = from[i];
            to[position[digitOf(unsignedKey(item), d)]++] = item;
        }
        from = to;
        to = to == out ? other : out;
        Interrupts::check();
    }
}

}  // namespace zm
