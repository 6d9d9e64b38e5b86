// The interrupt policy of every long loop, without PostgreSQL dependency.
//
// A policy is a type with `static void check()`: the server's (zm::pg::ServerInterruptCheck) lets
// a pending cancel request or statement timeout end the call there; NoInterrupts, for unit tests
// and fuzz targets, does nothing and compiles away. Long loops check once every
// interruptCheckInterval steps (elements, ranges, bytes copied or 64-bit words scanned): a walk over
// a gigabyte takes seconds, and a check costs a load and a branch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zm {

struct NoInterrupts
{
    static void check() {}
};

constexpr uint32_t interruptCheckInterval = uint32_t{1} << 20;

// Counts the steps of a loop and checks every interruptCheckInterval of them.
template <typename Interrupts>
struct InterruptCountdown
{
    uint32_t left = interruptCheckInterval;
    void step()
    {
        if (--left == 0)
        {
            left = interruptCheckInterval;
            Interrupts::check();
        }
    }
};

// memcpy of n bytes, interruptCheckInterval bytes at a time with a check in between.
template <typename Interrupts>
void copyInterruptibly(void* to, const void* from, size_t n)
{
    uint8_t* t = static_cast<uint8_t*>(to);
    const uint8_t* f = static_cast<const uint8_t*>(from);
    while (n > interruptCheckInterval)
    {
        std::memcpy(t, f, interruptCheckInterval);
        t += interruptCheckInterval;
        f += interruptCheckInterval;
        n -= interruptCheckInterval;
        Interrupts::check();
    }
    if (n)
        std::memcpy(t, f, n);
}

}  // namespace zm
