// Scratch memory from the core allocator, held by an owner that frees it on every path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "vekcore.h"

namespace vekr::frame {

// count elements of T, or null for a count below 1, for a byte size the address space cannot
// hold, and when the core allocator has no memory.
template <class T>
T* allocElements(int count)
{
    if (count < 1) return nullptr;
    const uint64_t bytes = uint64_t(count) * sizeof(T);
    if (bytes > SIZE_MAX) return nullptr;
    return static_cast<T*>(vekMalloc(size_t(bytes)));
}

// Owns a vekMalloc block until release() hands it on.
template <class T>
class ScratchArray {
public:
    explicit ScratchArray(int count) : data_(allocElements<T>(count)) {}
    ~ScratchArray() { vekFree(data_); }
    ScratchArray(const ScratchArray&) = delete;
    ScratchArray& operator=(const ScratchArray&) = delete;

    explicit operator bool() const { return data_ != nullptr; }
    T* get() const { return data_; }
    T* release() { return std::exchange(data_, nullptr); }

private:
    T* data_;
};

}  // namespace vekr::frame
