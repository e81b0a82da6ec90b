// A volume between guard pages, rows padded, every element (padding included) starting as 0xA5
// bytes, so an access past a plane or a write into the padding shows.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "support/guard_buffer.h"
#include "vekr.h"

namespace vekr::test {

// Rows padded by rowPad voxels. Planar: each plane in a mapping of its own flush against a guard
// page, so a plane overrun faults too. Block: one mapping, planes padded by one row. The plane
// pointer arrays sit flush against guard pages as well.
template <class T>
class GuardedVolume {
public:
    explicit GuardedVolume(VolumeSize size, bool planar = true, FlushEnd end = FlushEnd::Back,
                           int rowPad = 3)
        : size_(size), rowStep_(size.width + rowPad), pool_{end, {}}
    {
        const size_t planeVoxels = size_t(rowStep_) * (size.height - 1) + size.width;
        planeStride_ = planar ? planeVoxels : size_t(rowStep_) * (size.height + 1);
        std::vector<T*> planes;
        for (int z = 0; z < size.depth; ++z) {
            if (planar || z == 0)
                mappings_.push_back(std::make_unique<GuardedArray<T>>(
                    planar ? planeVoxels : planeStride_ * (size.depth - 1) + planeVoxels, end));
            planes.push_back(mappings_.back()->data() + (planar ? 0 : planeStride_ * z));
        }
        for (auto& m : mappings_)
            std::memset(m->data(), 0xA5, m->size() * sizeof(T));
        planes_ = pool_.copy(planes);
        constPlanes_ = pool_.copy(std::vector<const T*>(planes.begin(), planes.end()));
    }

    T& at(int x, int y, int z) { return planes_[z][size_t(y) * rowStep_ + x]; }
    T at(int x, int y, int z) const { return planes_[z][size_t(y) * rowStep_ + x]; }
    VolumeSize size() const { return size_; }
    int rowStep() const { return rowStep_; }
    int rowBytes() const { return rowStep_ * int(sizeof(T)); }
    int planeBytes() const { return int(planeStride_ * sizeof(T)); }
    T* block() { return planes_[0]; }
    T* const* planes() { return planes_; }
    const T* const* constPlanes() const { return constPlanes_; }

    // Every element of every mapping, padding included, and where element e of it lies (x at
    // or past the width, or y at the height, in the padding).
    std::vector<T> storage() const
    {
        std::vector<T> all;
        for (const auto& m : mappings_)
            all.insert(all.end(), m->data(), m->data() + m->size());
        return all;
    }
    void locate(size_t e, int& x, int& y, int& z) const
    {
        z = int(e / planeStride_), y = int(e % planeStride_ / rowStep_);
        x = int(e % planeStride_ % rowStep_);
    }

    template <class F>
    void fill(F value)
    {
        for (int z = 0; z < size_.depth; ++z)
            for (int y = 0; y < size_.height; ++y)
                for (int x = 0; x < size_.width; ++x)
                    at(x, y, z) = value(x, y, z);
    }
    bool sameVoxels(const GuardedVolume& other) const
    {
        for (int z = 0; z < size_.depth; ++z)
            for (int y = 0; y < size_.height; ++y)
                if (std::memcmp(planes_[z] + size_t(y) * rowStep_,
                                other.planes_[z] + size_t(y) * other.rowStep_,
                                size_.width * sizeof(T)) != 0)
                    return false;
        return true;
    }

private:
    VolumeSize size_;
    int rowStep_;
    size_t planeStride_;
    std::vector<std::unique_ptr<GuardedArray<T>>> mappings_;
    GuardPool pool_;
    T* const* planes_;
    const T* const* constPlanes_;
};

}  // namespace vekr::test
