// Shared pieces of the fuzz targets: a memory arena that plays the part of a memory context, error
// policies that unwind instead of longjmp-ing, an input reader, and the check that turns a broken
// invariant into a crash the fuzzer reports.
//
// An error report of the code under test is a normal outcome: the policies throw FuzzError, the
// target catches it, and the arena gives back everything the input allocated (as deleting a memory
// context does in the server). A crash, an out-of-bounds access, undefined behaviour or a failed
// FUZZ_CHECK is a finding.
//
// Each target defines LLVMFuzzerTestOneInput. Built with -fsanitize=fuzzer it is a libFuzzer
// binary (scripts/fuzz.sh); linked with ReplayMain.cpp it replays the stored corpus in ctest.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "zelmorraPgBitField.h"

namespace fuzz {

// ---- findings -------------------------------------------------------------------------------------

[[noreturn]] inline void checkFailed(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "FUZZ_CHECK failed: %s at %s:%d\n", condition, file, line);
    std::abort();
}

#define FUZZ_CHECK(condition) \
    ((condition) ? (void)0 : ::fuzz::checkFailed(#condition, __FILE__, __LINE__))

// ---- references ------------------------------------------------------------------------------------

// A naive rendering of the set aggregates' union walk (setAggDetail::unionWithRoom): signed order
// of lower bounds (equal bounds take a first), a range joins the last output range when it starts
// at most one value after it ends (in 64 bits), and a list met alone is copied after its leading
// joining ranges. `out` is a growable vector of ranges, emptied first.
template <typename R, typename Out>
void signedUnion(const R* a, const R* aEnd, const R* b, const R* bEnd, Out& out)
{
    out.size = 0;
    const auto joins = [&out](const R& r) { return out.size != 0 && int64_t{r.lower} <= int64_t{out.back().upper} + 1; };
    while (a != aEnd && b != bEnd)
    {
        const R r = b->lower < a->lower ? *b++ : *a++;
        if (joins(r))
            out.back().upper = std::max(out.back().upper, r.upper);
        else
            out.push_back(r);
    }
    const R* rest = a != aEnd ? a : b;
    const R* restEnd = a != aEnd ? aEnd : bEnd;
    for (; rest != restEnd && joins(*rest); ++rest)
        out.back().upper = std::max(out.back().upper, rest->upper);
    for (; rest != restEnd; ++rest)
        out.push_back(*rest);
}

// ---- error reports ----------------------------------------------------------------------------------

// What the server would raise as an ERROR; `code` tells the kinds apart where a target cares.
struct FuzzError
{
    int code;
};

constexpr int outOfMemoryError = 1;
constexpr int bitFieldError = 2;
constexpr int policyError = 3;

// The arena: every block an input allocates, freed together when the input is done. Requests
// beyond maxRequest or beyond the per-input budget fail, as palloc fails beyond MaxAllocSize (the
// limits are lower than the server's so that the fuzzer stays fast).
struct Arena
{
    static constexpr size_t maxRequest = size_t{16} << 20;
    static constexpr size_t budget = size_t{64} << 20;

    static std::unordered_map<void*, size_t>& blocks()
    {
        static std::unordered_map<void*, size_t> live;
        return live;
    }
    static size_t& inUse()
    {
        static size_t bytes = 0;
        return bytes;
    }

    // Null when the request cannot be had.
    static void* tryAllocate(size_t bytes)
    {
        if (bytes > maxRequest || inUse() + bytes > budget)
            return nullptr;
        void* block = std::malloc(bytes ? bytes : 1);
        if (block == nullptr)
            return nullptr;
        blocks().emplace(block, bytes);
        inUse() += bytes;
        return block;
    }

    static void release(void* block)
    {
        auto it = blocks().find(block);
        FUZZ_CHECK(it != blocks().end());  // a block freed twice or never allocated here
        inUse() -= it->second;
        blocks().erase(it);
        std::free(block);
    }

    static void releaseAll()
    {
        for (auto& entry : blocks())
            std::free(entry.first);
        blocks().clear();
        inUse() = 0;
    }
};

// tVectorBase allocator: never returns null, reports instead.
struct Allocator
{
    static void* allocate(size_t bytes)
    {
        void* block = Arena::tryAllocate(bytes);
        if (block == nullptr)
            outOfMemory();
        return block;
    }
    static void deallocate(void* block) { Arena::release(block); }
    static void diagnostic(const char*) {}
    [[noreturn]] static void outOfMemory() { throw FuzzError{outOfMemoryError}; }
};

// BitFieldBase allocator: null on failure, the bitfield reports it.
struct NullableAllocator
{
    static void* allocate(size_t bytes) { return Arena::tryAllocate(bytes); }
    static void deallocate(void* block) { Arena::release(block); }
    static void diagnostic(const char*) {}
};

struct BitFieldErrors
{
    [[noreturn]] static void report(zm::BitFieldError) { throw FuzzError{bitFieldError}; }
};

// Runs one input: error reports end it normally, and whatever it allocated is given back.
template <typename F>
int runInput(F&& body)
{
    try
    {
        body();
    }
    catch (const FuzzError&)
    {
    }
    Arena::releaseAll();
    return 0;
}

// An arena array of n elements that ends exactly at its last element, so that a write past it is
// an AddressSanitizer report.
template <typename T>
T* exactArray(size_t n)
{
    return static_cast<T*>(Allocator::allocate(n * sizeof(T)));
}

// ---- input ----------------------------------------------------------------------------------------

// Reads the fuzzer's bytes front to back; past the end every read gives 0.
class Input
{
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    size_t remaining() const { return size_ - pos_; }
    bool empty() const { return pos_ == size_; }

    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
    uint32_t u32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= static_cast<uint32_t>(u8()) << (8 * i);
        return v;
    }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    uint64_t u64() { return u32() | (static_cast<uint64_t>(u32()) << 32); }
    bool flag() { return (u8() & 1) != 0; }

    // Up to n raw bytes (fewer at the end of the input).
    const uint8_t* take(size_t n, size_t& got)
    {
        got = std::min(n, remaining());
        const uint8_t* p = data_ + pos_;
        pos_ += got;
        return p;
    }

    // A value around `base`: mostly close to it, sometimes one of the int4 limits or anything.
    int32_t valueNear(int32_t base)
    {
        static constexpr int32_t special[] = {INT32_MIN, INT32_MIN + 1, -2, -1, 0, 1, 2, 63, 64, 65,
                                              INT32_MAX - 1, INT32_MAX, 0x40000000, -0x40000000};
        const uint8_t tag = u8();
        switch (tag & 7)
        {
            case 0: return special[u8() % (sizeof special / sizeof special[0])];
            case 1:
            case 2:
            case 3: return wrap(static_cast<int64_t>(base) + static_cast<int8_t>(u8()));
            case 4:
            case 5: return wrap(static_cast<int64_t>(base) + static_cast<int16_t>(u16()));
            default: return i32();
        }
    }

    static int32_t wrap(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v))); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace fuzz
