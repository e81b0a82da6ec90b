// Buffers flush against inaccessible pages: any read or write past either end faults at once.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

namespace vekr::test {

// Which end of the array touches its guard page. The other end has up to a page of slack, so
// a test runs both to catch an access past either end.
enum class FlushEnd { Back, Front };

// count elements of T between two PROT_NONE pages, flush against the chosen one. With count 0
// the data pointer is the guard page itself.
template <class T>
class GuardedArray {
public:
    explicit GuardedArray(size_t count, FlushEnd flush = FlushEnd::Back) : count_(count)
    {
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        const size_t bytes = count * sizeof(T);
        dataPages_ = (bytes + page - 1) / page;
        mapBytes_ = (dataPages_ + 2) * page;
        void* map = mmap(nullptr, mapBytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) throw std::runtime_error("mmap failed");
        map_ = static_cast<char*>(map);
        if (dataPages_ > 0 && mprotect(map_ + page, dataPages_ * page, PROT_READ | PROT_WRITE) != 0)
            throw std::runtime_error("mprotect failed");
        data_ = flush == FlushEnd::Front
                    ? reinterpret_cast<T*>(map_ + page)
                    : reinterpret_cast<T*>(map_ + page + dataPages_ * page - bytes);
    }
    ~GuardedArray() { munmap(map_, mapBytes_); }
    GuardedArray(const GuardedArray&) = delete;
    GuardedArray& operator=(const GuardedArray&) = delete;

    T* data() { return data_; }
    size_t size() const { return count_; }

    void copyFrom(const T* src)
    {
        if (count_ > 0) std::memcpy(data_, src, count_ * sizeof(T));
    }

private:
    size_t count_;
    size_t dataPages_ = 0;
    size_t mapBytes_ = 0;
    char* map_ = nullptr;
    T* data_ = nullptr;
};

// Guarded copies of vectors, each flush against a guard page at `end`; a lead of k puts k spare
// elements in front of the copy (a lead of 1 takes it off 16-byte alignment).
struct GuardPool {
    FlushEnd end;
    std::vector<std::shared_ptr<void>> arrays;  // each pointing at its copy

    template <class T>
    T* copy(const std::vector<T>& v, size_t lead = 0)
    {
        auto array = std::make_shared<GuardedArray<T>>(v.size() + lead, end);
        std::copy(v.begin(), v.end(), array->data() + lead);
        arrays.emplace_back(array, array->data() + lead);
        return array->data() + lead;
    }
};

}  // namespace vekr::test
