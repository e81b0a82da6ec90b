// Every size and field offset of the public records (vekcore.h declares none), on 32-bit x86
// (4-byte pointers) and on x86-64. A field moved, widened or padded differently on one target
// shows here, not as a corrupted record in a caller.
#include <gtest/gtest.h>

#include <cstddef>

#include "vekr.h"

namespace {

static_assert(sizeof(void*) == 4 || sizeof(void*) == 8);
constexpr bool kPointers32 = sizeof(void*) == 4;

struct Layout {
    const char* what;
    size_t actual;
    size_t expected32;  // with 4-byte pointers
    size_t expected64;  // with 8-byte pointers
};

#define VEKR_SIZE(type, bytes32, bytes64) {"sizeof(" #type ")", sizeof(type), bytes32, bytes64}
#define VEKR_FIELD(type, field, at32, at64) {#type "." #field, offsetof(type, field), at32, at64}

const Layout kLayouts[] = {
    VEKR_SIZE(Status, 4, 4),
    VEKR_SIZE(LibVersion, 32, 48),
    VEKR_FIELD(LibVersion, majorVersion, 0, 0),
    VEKR_FIELD(LibVersion, minorVersion, 4, 4),
    VEKR_FIELD(LibVersion, updateNumber, 8, 8),
    VEKR_FIELD(LibVersion, revision, 12, 12),
    VEKR_FIELD(LibVersion, cpuTag, 16, 16),
    VEKR_FIELD(LibVersion, name, 20, 24),
    VEKR_FIELD(LibVersion, versionText, 24, 32),
    VEKR_FIELD(LibVersion, buildDate, 28, 40),
    VEKR_SIZE(TriangleAccel, 40, 40),
    VEKR_FIELD(TriangleAccel, axes, 0, 0),
    VEKR_FIELD(TriangleAccel, nu, 4, 4),
    VEKR_FIELD(TriangleAccel, pk, 8, 8),
    VEKR_FIELD(TriangleAccel, nv, 12, 12),
    VEKR_FIELD(TriangleAccel, pu, 16, 16),
    VEKR_FIELD(TriangleAccel, pv, 20, 20),
    VEKR_FIELD(TriangleAccel, e2u, 24, 24),
    VEKR_FIELD(TriangleAccel, e2v, 28, 28),
    VEKR_FIELD(TriangleAccel, e1u, 32, 32),
    VEKR_FIELD(TriangleAccel, e1v, 36, 36),
    VEKR_SIZE(BoundBox, 24, 24),
    VEKR_FIELD(BoundBox, minX, 0, 0),
    VEKR_FIELD(BoundBox, minY, 4, 4),
    VEKR_FIELD(BoundBox, minZ, 8, 8),
    VEKR_FIELD(BoundBox, maxX, 12, 12),
    VEKR_FIELD(BoundBox, maxY, 16, 16),
    VEKR_FIELD(BoundBox, maxZ, 20, 20),
    VEKR_SIZE(KDTreeBuildParams, 20, 24),
    VEKR_FIELD(KDTreeBuildParams, method, 0, 0),
    VEKR_FIELD(KDTreeBuildParams, maxDepth, 4, 4),
    VEKR_FIELD(KDTreeBuildParams, ratio, 8, 8),
    VEKR_FIELD(KDTreeBuildParams, memoryLimitMB, 12, 12),
    VEKR_FIELD(KDTreeBuildParams, pBoundBox, 16, 16),
    VEKR_SIZE(IntersectContext, 12, 24),
    VEKR_FIELD(IntersectContext, boundBox, 0, 0),
    VEKR_FIELD(IntersectContext, triangleAccel, 4, 8),
    VEKR_FIELD(IntersectContext, rootNode, 8, 16),
    VEKR_SIZE(Size2D, 8, 8),
    VEKR_FIELD(Size2D, width, 0, 0),
    VEKR_FIELD(Size2D, height, 4, 4),
    // The state heads a buffer the caller may copy or move: 16 bytes, its tables found by byte
    // offsets rather than pointers, on every target.
    VEKR_SIZE(SHState, 16, 16),
    VEKR_FIELD(SHState, order, 0, 0),
    VEKR_FIELD(SHState, method, 4, 4),
    VEKR_FIELD(SHState, coeffA, 8, 8),
    VEKR_FIELD(SHState, coeffB, 12, 12),
    VEKR_SIZE(VolumeSize, 12, 12),
    VEKR_FIELD(VolumeSize, width, 0, 0),
    VEKR_FIELD(VolumeSize, height, 4, 4),
    VEKR_FIELD(VolumeSize, depth, 8, 8),
    VEKR_SIZE(Cuboid, 24, 24),
    VEKR_FIELD(Cuboid, x, 0, 0),
    VEKR_FIELD(Cuboid, y, 4, 4),
    VEKR_FIELD(Cuboid, z, 8, 8),
    VEKR_FIELD(Cuboid, width, 12, 12),
    VEKR_FIELD(Cuboid, height, 16, 16),
    VEKR_FIELD(Cuboid, depth, 20, 20),
};

#undef VEKR_SIZE
#undef VEKR_FIELD

}  // namespace

TEST(PublicRecords, SizesAndOffsetsMatchTheTarget)
{
    for (const Layout& l : kLayouts)
        EXPECT_EQ(l.actual, kPointers32 ? l.expected32 : l.expected64)
            << l.what << " with " << sizeof(void*) << "-byte pointers";
}
