// A C++ client of the installed library: resizes small 16-bit volumes and checks the results.
// Doubling with the nearest neighbour repeats every voxel 2 x 2 x 2 times; a cubic resize of a
// constant volume keeps the constant. Exits 0 when both hold.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "vekr.h"

namespace {

struct Volume {
    VolumeSize size;
    std::vector<uint16_t> voxels;

    explicit Volume(VolumeSize s) : size(s), voxels(size_t(s.width) * s.height * s.depth) {}
    int rowBytes() const { return size.width * int(sizeof(uint16_t)); }
    int planeBytes() const { return rowBytes() * size.height; }
    uint16_t& at(int x, int y, int z)
    {
        return voxels[(size_t(z) * size.height + y) * size.width + x];
    }
};

// The whole source resized by the factors into a volume of the extent the library reports.
bool resize(Volume& src, Volume& dst, const double factor[3], int interpolation)
{
    const Cuboid srcVoi{0, 0, 0, src.size.width, src.size.height, src.size.depth};
    Cuboid dstVoi{};
    int bufferBytes = 0;
    if (vekrGetResizeCuboid(srcVoi, &dstVoi, factor[0], factor[1], factor[2], 0, 0, 0,
                            interpolation) != StatusOk ||
        vekrResizeGetBufSize(srcVoi, dstVoi, 1, interpolation, &bufferBytes) != StatusOk)
        return false;
    dst = Volume({dstVoi.x + dstVoi.width, dstVoi.y + dstVoi.height, dstVoi.z + dstVoi.depth});
    std::vector<uint8_t> buffer(size_t(bufferBytes) + 1);  // never empty: null is refused
    const Status status =
        vekrResize_16u_C1V(src.voxels.data(), src.size, src.rowBytes(), src.planeBytes(), srcVoi,
                           dst.voxels.data(), dst.rowBytes(), dst.planeBytes(), dstVoi, factor[0],
                           factor[1], factor[2], 0, 0, 0, interpolation, buffer.data());
    if (status != StatusOk) std::fprintf(stderr, "resize: status %d\n", int(status));
    return status == StatusOk;
}

}  // namespace

int main()
{
    int failures = 0;

    Volume ramp({5, 4, 3});
    for (int z = 0; z < 3; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 5; ++x)
                ramp.at(x, y, z) = uint16_t(1 + x + 10 * y + 100 * z);
    Volume doubled({0, 0, 0});
    const double two[3] = {2, 2, 2};
    if (!resize(ramp, doubled, two, InterpolationNearest) || doubled.size.width != 10 ||
        doubled.size.height != 8 || doubled.size.depth != 6)
        return 1;
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 10; ++x)
                if (doubled.at(x, y, z) != ramp.at(x / 2, y / 2, z / 2) && ++failures < 5)
                    std::fprintf(stderr, "nearest: voxel (%d, %d, %d) is %d, want %d\n", x, y, z,
                                 doubled.at(x, y, z), ramp.at(x / 2, y / 2, z / 2));

    Volume flat({7, 5, 4});
    for (uint16_t& v : flat.voxels)
        v = 1234;
    Volume resized({0, 0, 0});
    const double mixed[3] = {1.5, 2, 0.5};
    if (!resize(flat, resized, mixed, InterpolationCubicCatmullRom)) return 1;
    for (size_t i = 0; i < resized.voxels.size(); ++i)
        if (resized.voxels[i] != 1234 && ++failures < 10)
            std::fprintf(stderr, "cubic: voxel %zu is %d, want 1234\n", i, resized.voxels[i]);

    std::printf("resized %dx%dx%d and %dx%dx%d voxels, %d wrong\n", doubled.size.width,
                doubled.size.height, doubled.size.depth, resized.size.width, resized.size.height,
                resized.size.depth, failures);
    return failures == 0 ? 0 : 1;
}
