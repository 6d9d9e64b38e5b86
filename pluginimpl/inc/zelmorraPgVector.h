// Growable array over a pluggable allocator.
//
// The vector is a plain aggregate (no constructor, no destructor) so that it can live inside
// zero-filled aggregate states and on C++ frames that PostgreSQL may longjmp across. The owner
// calls init() with a capacity of at least 1 and release() when done; inside the server a memory
// context reset releases it as well.
//
// This header has no PostgreSQL dependency: the server instantiates it with a palloc allocator,
// the unit tests and fuzz targets with malloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace zm {

// Allocator concept:
//   static void* allocate(size_t bytes);      never returns null (reports or aborts instead)
//   static void  deallocate(void* block);
//   static void  diagnostic(const char* line); one line to standard output
//   [[noreturn]] static void outOfMemory();
template <typename T, typename Allocator>
struct tVectorBase
{
    static_assert(std::is_trivially_copyable_v<T>, "elements are moved with memcpy");

    size_t capacity;
    size_t size;
    T* data;

    void init(size_t initialCapacity)
    {
        capacity = initialCapacity;
        size = 0;
        data = initialCapacity ? static_cast<T*>(Allocator::allocate(initialCapacity * sizeof(T))) : nullptr;
    }

    void release()
    {
        if (data)
            Allocator::deallocate(data);
        data = nullptr;
        capacity = 0;
        size = 0;
    }

    bool empty() const { return size == 0; }
    T* begin() { return data; }
    T* end() { return data + size; }
    const T* begin() const { return data; }
    const T* end() const { return data + size; }
    T& operator[](size_t i) { return data[i]; }
    const T& operator[](size_t i) const { return data[i]; }
    T& back() { return data[size - 1]; }
    void clear() { size = 0; }

    // Capacity doubles until it holds `need` elements; there is no minimum step, but an empty
    // vector starts from one element so that a forgotten init() cannot spin forever.
    void reserveFor(size_t need)
    {
        if (need <= capacity)
            return;
        constexpr size_t maxElements = SIZE_MAX / 2 / sizeof(T);
        size_t c = capacity ? capacity : 1;
        while (c < need)
        {
            if (c > maxElements)
            {
                Allocator::diagnostic("tSize overflow");
                Allocator::outOfMemory();
            }
            c *= 2;
        }
        T* grown = static_cast<T*>(Allocator::allocate(c * sizeof(T)));
        if (size)
            std::memcpy(grown, data, size * sizeof(T));
        if (data)
            Allocator::deallocate(data);
        data = grown;
        capacity = c;
    }

    // New elements are left uninitialised; shrinking only changes size.
    void resize(size_t n)
    {
        reserveFor(n);
        size = n;
    }

    void push_back(const T& value)
    {
        const T copy = value;  // value may live in the block that growth frees
        reserveFor(size + 1);
        data[size++] = copy;
    }

    void append(const T* first, const T* last)
    {
        const size_t count = static_cast<size_t>(last - first);
        if (count == 0)
            return;
        reserveFor(size + count);
        std::memcpy(data + size, first, count * sizeof(T));
        size += count;
    }
};

}  // namespace zm
