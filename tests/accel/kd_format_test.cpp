#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <random>
#include <vector>

#include "accel/kd_format.h"

using namespace vekr::accel;

namespace {

std::vector<int32_t> decodedIndices(const KdNode* node)
{
    const LeafTriangles leaf = decodeLeaf(node);
    std::vector<int32_t> out;
    for (int i = 0; i < leaf.count; ++i)
        out.push_back(leaf[i]);
    return out;
}

// Encodes indices compactly; returns the decoded list, or nothing when they do not fit.
std::optional<std::vector<int32_t>> compactRoundTrip(std::vector<int32_t> indices)
{
    KdNode node{};
    if (!encodeCompactLeaf(indices.data(), int(indices.size()), node)) return std::nullopt;
    EXPECT_TRUE(isLeaf(node));
    EXPECT_TRUE(isCompactLeaf(node));
    return decodedIndices(&node);
}

}  // namespace

TEST(KdFormat, OneTriangleLeafAtItsLimits)
{
    for (int32_t index : {0, 1, 0x1FFFFFFF, 0x20000000, INT32_MAX})
        EXPECT_EQ(compactRoundTrip({index}), std::vector<int32_t>{index}) << index;
    EXPECT_EQ(compactRoundTrip({-1}), std::nullopt);
    KdNode node{};
    ASSERT_TRUE(encodeCompactLeaf(std::vector<int32_t>{9}.data(), 1, node));
    EXPECT_EQ(uint32_t(node.word0), 0x80000009u);
    EXPECT_EQ(node.word1, 0x80000001u);
}

TEST(KdFormat, TwoTriangleLeafPutsTheSmallIndexInTheCount)
{
    const int32_t pair[2] = {7, 0x30000000};
    KdNode node{};
    ASSERT_TRUE(encodeCompactLeaf(pair, 2, node));
    EXPECT_EQ(node.word1, uint32_t(7 * 4) | 0x80000002u);
    EXPECT_EQ(uint32_t(node.word0), 0xB0000000u);
    // Word 0's index comes first, the one in the count second.
    EXPECT_EQ(decodedIndices(&node), (std::vector<int32_t>{0x30000000, 7}));

    // The second qualifies alone: it goes into the count.
    EXPECT_EQ(compactRoundTrip({0x30000000, 7}), (std::vector<int32_t>{0x30000000, 7}));
    // Both qualify: the first goes into the count and so decodes second.
    EXPECT_EQ(compactRoundTrip({0x1FFFFFFF, 3}), (std::vector<int32_t>{3, 0x1FFFFFFF}));
    EXPECT_EQ(compactRoundTrip({0x20000000, 0x20000001}), std::nullopt);
    EXPECT_EQ(compactRoundTrip({-1, 3}), std::nullopt);
    EXPECT_EQ(compactRoundTrip({3, INT32_MIN}), std::nullopt);
}

TEST(KdFormat, ThreeTriangleLeafStoresBaseAndSpreads)
{
    const int32_t triple[3] = {5, 9, 2};
    KdNode node{};
    ASSERT_TRUE(encodeCompactLeaf(triple, 3, node));
    EXPECT_EQ(uint32_t(node.word0), 0x80030004u);
    EXPECT_EQ(node.word1, 0x80000017u);
    EXPECT_EQ(decodedIndices(&node), (std::vector<int32_t>{2, 5, 9}));

    // Each limit, just inside and just beyond.
    EXPECT_EQ(compactRoundTrip({0, 32767, 32767 + 65535}),
              (std::vector<int32_t>{0, 32767, 32767 + 65535}));
    EXPECT_EQ(compactRoundTrip({0, 32768, 32769}), std::nullopt);
    EXPECT_EQ(compactRoundTrip({0, 1, 65537}), std::nullopt);
    EXPECT_EQ(compactRoundTrip({0x1FFFFFFF, 0x1FFFFFFE, 0x20000000}),
              (std::vector<int32_t>{0x1FFFFFFE, 0x1FFFFFFF, 0x20000000}));
    EXPECT_EQ(compactRoundTrip({0x20000000, 0x20000000, 0x20000000}), std::nullopt);
    EXPECT_EQ(compactRoundTrip({0, 40000, 40001}), std::nullopt);
    EXPECT_EQ(compactRoundTrip({4, 4, 4}), (std::vector<int32_t>{4, 4, 4}));
    EXPECT_EQ(compactRoundTrip({-1, 0, 1}), std::nullopt);
}

TEST(KdFormat, FourOrMoreTrianglesNeverFitACompactForm)
{
    const int32_t four[4] = {0, 1, 2, 3};
    KdNode node{};
    EXPECT_FALSE(encodeCompactLeaf(four, 4, node));
    EXPECT_FALSE(encodeCompactLeaf(four, 0, node));
}

TEST(KdFormat, ListLeafPointsForwardToItsList)
{
    // A node at slot 3 of a block whose list starts at byte 40.
    alignas(8) int32_t block[16] = {};
    auto* node = reinterpret_cast<KdNode*>(block) + 3;
    int32_t* list = block + 10;
    for (int i = 0; i < 5; ++i)
        list[i] = 100 + i;
    *node =
        encodeListLeaf(int32_t(reinterpret_cast<char*>(list) - reinterpret_cast<char*>(node)), 5);
    EXPECT_TRUE(isLeaf(*node));
    EXPECT_FALSE(isCompactLeaf(*node));
    EXPECT_EQ(node->word0, -16);
    const LeafTriangles leaf = decodeLeaf(node);
    EXPECT_EQ(leaf.list, list);
    EXPECT_EQ(decodedIndices(node), (std::vector<int32_t>{100, 101, 102, 103, 104}));

    // The low two bits of word 0 are not part of the distance.
    node->word0 |= 3;
    EXPECT_EQ(decodeLeaf(node).list, list);

    // An empty leaf ignores word 0.
    const KdNode empty{int32_t(0x80000000u), 0};
    EXPECT_EQ(decodeLeaf(&empty).count, 0);
}

TEST(KdFormat, InnerNodeRoundTrip)
{
    alignas(8) KdNode nodes[8] = {};
    for (int axis = 0; axis < 3; ++axis) {
        for (float split : {0.0f, -3.25f, 1e30f}) {
            nodes[1] = encodeInner(48, axis, split);
            EXPECT_FALSE(isLeaf(nodes[1]));
            EXPECT_EQ(innerAxis(nodes[1]), axis);
            EXPECT_EQ(innerChildOffset(nodes[1]), 48);
            EXPECT_EQ(innerSplit(nodes[1]), split);
            EXPECT_EQ(innerChildren(&nodes[1]), &nodes[7]);
        }
    }
    // The largest offset the 28 offset bits hold stays an inner node.
    const KdNode far = encodeInner(0x7FFFFFF8, 2, 1.0f);
    EXPECT_FALSE(isLeaf(far));
    EXPECT_EQ(innerChildOffset(far), 0x7FFFFFF8);
    EXPECT_EQ(innerAxis(far), 2);
}
