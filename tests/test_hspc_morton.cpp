// Morton index of the HSPC engine: the bit layout against a bit-by-bit reference, exact inverses, the signed
// encoding's bias and corner clamp, lod arithmetic at the ends of the space, pivots, node anchors and boxes.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "hspc/format/CellMapping.h"
#include "hspc/format/MortonIndex3D.h"
#include "hspc/format/MortonLimbs.h"
#include "hspc/format/MortonNodeBox.h"

using namespace HSPC;

namespace
{

// Bit k of axis a goes to bit 3k + a of the whole code, one bit at a time.
template <typename W>
MortonIndex3D<W> referenceEncode(W x, W y, W z)
{
    constexpr unsigned bits = sizeof(W) * 8;
    const W axes[3] = {x, y, z};
    MortonIndex3D<W> code;
    for (unsigned k = 0; k < bits; ++k)
    {
        for (unsigned axis = 0; axis < 3; ++axis)
        {
            const unsigned bit = 3 * k + axis;
            code.words[bit / bits] |= W((axes[axis] >> k) & 1u) << (bit % bits);
        }
    }
    return code;
}

template <typename W>
std::vector<W> interestingValues()
{
    constexpr W top = std::numeric_limits<W>::max();
    constexpr W sign = MortonIndex3D<W>::kSignBit;
    std::vector<W> values{0,
                          1,
                          2,
                          3,
                          top,
                          top - 1,
                          sign,
                          sign - 1,
                          sign + 1,
                          W(0x5555555555555555ull),
                          W(0xaaaaaaaaaaaaaaaaull)};
    std::mt19937_64 random(42);
    for (int i = 0; i < 200; ++i)
    {
        values.push_back(W(random()));
    }
    return values;
}

template <typename W>
class MortonTest : public ::testing::Test
{
};

using Widths = ::testing::Types<uint32_t, uint64_t>;
TYPED_TEST_SUITE(MortonTest, Widths);

TYPED_TEST(MortonTest, EncodeFollowsTheBitLayoutAndDecodeInvertsIt)
{
    using W = TypeParam;
    const std::vector<W> values = interestingValues<W>();
    std::mt19937_64 random(7);
    for (const W x : values)
    {
        const W y = values[random() % values.size()];
        const W z = values[random() % values.size()];
        const MortonIndex3D<W> code = encodeMorton<W>(x, y, z);
        ASSERT_EQ(code, referenceEncode<W>(x, y, z)) << x << " " << y << " " << z;
        ASSERT_EQ(decodeMorton(code), (std::array<W, 3>{x, y, z}));
    }
    // Each axis alone, every bit, so that a wrong slice boundary between the words shows on its own.
    for (unsigned bit = 0; bit < MortonIndex3D<W>::kBitsPerAxis; ++bit)
    {
        const W v = W(1) << bit;
        EXPECT_EQ(encodeMorton<W>(v, 0, 0), referenceEncode<W>(v, 0, 0)) << bit;
        EXPECT_EQ(encodeMorton<W>(0, v, 0), referenceEncode<W>(0, v, 0)) << bit;
        EXPECT_EQ(encodeMorton<W>(0, 0, v), referenceEncode<W>(0, 0, v)) << bit;
    }
    constexpr W top = std::numeric_limits<W>::max();
    EXPECT_EQ(encodeMorton<W>(top, top, top), MortonIndex3D<W>::invalidIndex());
}

// Node decoding takes axes from the code as 64-bit limbs, portably or with PEXT; both must agree with
// decodeMorton bit for bit.
template <typename W, typename Extract>
void expectLimbAxesMatchDecode(const std::vector<W>& values)
{
    using morton_limbs::axisOfLimbs;
    std::mt19937_64 random(11);
    for (const W x : values)
    {
        const std::array<W, 3> axes{x, values[random() % values.size()], values[random() % values.size()]};
        const MortonIndex3D<W> code = encodeMorton<W>(axes[0], axes[1], axes[2]);
        std::array<uint64_t, 3> limbs{code.words[0], code.words[1], code.words[2]};
        if constexpr (sizeof(W) == 4)
        {
            limbs = {uint64_t(code.words[0]) | uint64_t(code.words[1]) << 32, code.words[2], 0};
        }
        ASSERT_EQ((std::array<W, 3>{axisOfLimbs<W, 0, Extract>(limbs), axisOfLimbs<W, 1, Extract>(limbs),
                                    axisOfLimbs<W, 2, Extract>(limbs)}),
                  axes);
    }
}

TYPED_TEST(MortonTest, AxesFromLimbsMatchDecode)
{
    const std::vector<TypeParam> values = interestingValues<TypeParam>();
    expectLimbAxesMatchDecode<TypeParam, morton_limbs::CompactingExtract>(values);
    if (!__builtin_cpu_supports("bmi2"))
    {
        GTEST_SKIP() << "this processor has no BMI2: only the portable extraction was checked";
    }
    expectLimbAxesMatchDecode<TypeParam, morton_limbs::ParallelExtract>(values);
}

TYPED_TEST(MortonTest, SignedEncodingKeepsOrderAndNeverYieldsInvalidIndex)
{
    using W = TypeParam;
    using S = std::make_signed_t<W>;
    constexpr S lowest = std::numeric_limits<S>::min();
    constexpr S highest = std::numeric_limits<S>::max();
    constexpr W sign = MortonIndex3D<W>::kSignBit;

    // Zero is the middle of the space: the three top bits set, all below clear.
    const MortonIndex3D<W> middle = encodeMortonSigned<W>(0, 0, 0);
    EXPECT_EQ(middle, (MortonIndex3D<W>{{0, 0, W(7) << (sizeof(W) * 8 - 3)}}));
    EXPECT_EQ(encodeMortonSigned<W>(lowest, lowest, lowest), MortonIndex3D<W>{});

    // The corner cell is folded below invalidIndex, and so is every one of the top fifteen codes.
    const MortonIndex3D<W> corner = encodeMortonSigned<W>(highest, highest, highest);
    EXPECT_FALSE(corner.isInvalid());
    EXPECT_EQ(corner.words[0] & 0xff, W(0xf0));
    for (S dx = 0; dx < 2; ++dx)
    {
        for (S dy = 0; dy < 2; ++dy)
        {
            for (S dz = 0; dz < 4; ++dz)
            {
                const MortonIndex3D<W> code = encodeMortonSigned<W>(highest - dx, highest - dy, highest - dz);
                EXPECT_FALSE(code.isInvalid());
                EXPECT_LE(code.words[0], MortonIndex3D<W>::kAllOnes - 15);
            }
        }
    }
    // The sixteenth code from the top is a real cell that stays where it is; the corner cell moves onto it.
    const std::array<S, 3> sixteenth{highest - 3, highest - 1, highest - 1};
    const MortonIndex3D<W> sixteenthCode = encodeMortonSigned<W>(sixteenth[0], sixteenth[1], sixteenth[2]);
    EXPECT_EQ(sixteenthCode.words[0], MortonIndex3D<W>::kAllOnes - 15);
    EXPECT_EQ(decodeMortonSigned(sixteenthCode), sixteenth);
    EXPECT_EQ(decodeMortonSigned(corner), sixteenth);

    // Away from the corner the signed encoding is exact, and its unsigned order along an axis is the signed
    // one.
    std::vector<S> xs;
    for (const W v : interestingValues<W>())
    {
        xs.push_back(S(v));
    }
    std::sort(xs.begin(), xs.end());
    for (size_t i = 0; i + 1 < xs.size(); ++i)
    {
        const MortonIndex3D<W> a = encodeMortonSigned<W>(xs[i], -5, 17);
        const MortonIndex3D<W> b = encodeMortonSigned<W>(xs[i + 1], -5, 17);
        EXPECT_EQ(decodeMortonSigned(a), (std::array<S, 3>{xs[i], -5, 17}));
        EXPECT_LE(a, b);
        EXPECT_FALSE(a.isInvalid());
    }
    EXPECT_EQ(decodeMorton(encodeMortonSigned<W>(-1, 0, 1)), (std::array<W, 3>{sign - 1, sign, sign + 1}));
}

TYPED_TEST(MortonTest, ComparisonOrdersByTheTopWordFirst)
{
    using W = TypeParam;
    constexpr W top = std::numeric_limits<W>::max();
    const MortonIndex3D<W> smallTop{{top, top, 1}};
    const MortonIndex3D<W> largerTop{{0, 0, 2}};
    EXPECT_LT(smallTop, largerTop);
    EXPECT_LT((MortonIndex3D<W>{{top, 1, 5}}), (MortonIndex3D<W>{{0, 2, 5}}));
    EXPECT_LT((MortonIndex3D<W>{{1, 2, 5}}), (MortonIndex3D<W>{{2, 2, 5}}));
    EXPECT_EQ((MortonIndex3D<W>{{1, 2, 5}} <=> MortonIndex3D<W>{{1, 2, 5}}), std::strong_ordering::equal);
    // Sorting codes sorts cells by node: the eight children of a node are consecutive.
    std::vector<MortonIndex3D<W>> codes;
    for (W i = 0; i < 8; ++i)
    {
        codes.push_back(encodeMorton<W>(W(2 + (i & 1)), W(2 + ((i >> 1) & 1)), W(2 + (i >> 2))));
    }
    std::sort(codes.begin(), codes.end());
    EXPECT_EQ(codes.back().words[0] - codes.front().words[0], W(7));
}

TYPED_TEST(MortonTest, NextIndexCarriesAcrossWordsAndEndsAtInvalidIndex)
{
    using W = TypeParam;
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;
    constexpr W top = std::numeric_limits<W>::max();
    const MortonIndex3D<W> zero{};

    EXPECT_EQ(nextIndexAtLod(zero, 0), (MortonIndex3D<W>{{1, 0, 0}}));
    EXPECT_EQ(nextIndexAtLod(zero, 2), (MortonIndex3D<W>{{64, 0, 0}}));
    // The carry runs through word 1 into word 2.
    EXPECT_EQ(nextIndexAtLod(MortonIndex3D<W>{{top, top, 3}}, 0), (MortonIndex3D<W>{{0, 0, 4}}));
    // A lod whose step lies in word 1.
    const unsigned lodInWord1 = bits / 3 + 1;
    const MortonIndex3D<W> step = nextIndexAtLod(zero, lodInWord1);
    EXPECT_EQ(step.words[0], W(0));
    EXPECT_EQ(step.words[1], W(1) << (3 * lodInWord1 - bits));

    // The last node of a lod has no successor; neither has anything at the lod of the whole space.
    const unsigned lod = bits - 1;
    const MortonIndex3D<W> lastNodeAtLod{{0, 0, W(7) << (bits - 3)}};
    EXPECT_EQ(nextIndexAtLod(lastNodeAtLod, lod), MortonIndex3D<W>::invalidIndex());
    EXPECT_EQ(nextIndexAtLod(MortonIndex3D<W>{{0, 0, W(6) << (bits - 3)}}, lod), lastNodeAtLod);
    EXPECT_EQ(nextIndexAtLod(zero, bits), MortonIndex3D<W>::invalidIndex());
    EXPECT_EQ(nextIndexAtLod(MortonIndex3D<W>{{top - 15, top, top}}, 0),
              (MortonIndex3D<W>{{top - 14, top, top}}));
    EXPECT_EQ(nextIndexAtLod(MortonIndex3D<W>::invalidIndex(), 0), MortonIndex3D<W>::invalidIndex());
}

TYPED_TEST(MortonTest, LodAndNextIndexFindsTheCoarsestAlignedNode)
{
    using W = TypeParam;
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;

    const LodAndNext<W> whole = lodAndNextIndex(MortonIndex3D<W>{});
    EXPECT_EQ(whole.lod, bits);
    EXPECT_EQ(whole.next, MortonIndex3D<W>::invalidIndex());
    for (unsigned bit = 0; bit < 3; ++bit)
    {
        const LodAndNext<W> single = lodAndNextIndex(MortonIndex3D<W>{{W(1) << bit, 0, 0}});
        EXPECT_EQ(single.lod, 0u) << bit;
        EXPECT_EQ(single.next, (MortonIndex3D<W>{{(W(1) << bit) + 1, 0, 0}}));
    }
    const LodAndNext<W> lod1 = lodAndNextIndex(MortonIndex3D<W>{{8, 0, 0}});
    EXPECT_EQ(lod1.lod, 1u);
    EXPECT_EQ(lod1.next, (MortonIndex3D<W>{{16, 0, 0}}));
    // Trailing zeros counted over the whole code: a code that starts in word 2.
    const LodAndNext<W> high = lodAndNextIndex(MortonIndex3D<W>{{0, 0, 1}});
    EXPECT_EQ(high.lod, 2 * bits / 3);
    EXPECT_EQ(high.next, nextIndexAtLod(MortonIndex3D<W>{{0, 0, 1}}, 2 * bits / 3));
    // The top node of the coarsest real lod has no successor.
    const LodAndNext<W> last = lodAndNextIndex(MortonIndex3D<W>{{0, 0, W(7) << (bits - 3)}});
    EXPECT_EQ(last.lod, bits - 1);
    EXPECT_EQ(last.next, MortonIndex3D<W>::invalidIndex());
}

TYPED_TEST(MortonTest, PivotSplitsAtTheHighestDifferingOctant)
{
    using W = TypeParam;
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;

    const MortonIndex3D<W> p0 = encodeMorton<W>(3, 5, 9);
    const MortonIndex3D<W> p = encodeMorton<W>(3, 5, 17);  // z differs first at bit 4: lod 4
    const auto pivot = computeSmallerPivot(p0, p);
    ASSERT_TRUE(pivot.has_value());
    EXPECT_EQ(pivot->lod, 4u);
    EXPECT_EQ(pivot->index, nextIndexAtLod(p0, 4));
    EXPECT_EQ(commonLodCount(p0, p), 5u);

    const MortonIndex3D<W> top{{0, 0, W(1) << (bits - 1)}};
    const auto topPivot = computeSmallerPivot(MortonIndex3D<W>{}, top);
    ASSERT_TRUE(topPivot.has_value());
    EXPECT_EQ(topPivot->lod, bits - 1);
    EXPECT_EQ(commonLodCount(MortonIndex3D<W>{}, top), bits);
    // The step past the last node of the coarsest lod saturates.
    const auto saturated =
        computeSmallerPivot(MortonIndex3D<W>{{0, 0, W(7) << (bits - 3)}}, MortonIndex3D<W>{});
    ASSERT_TRUE(saturated.has_value());
    EXPECT_EQ(saturated->index, MortonIndex3D<W>::invalidIndex());

    EXPECT_EQ(commonLodCount(p0, p0), 1u);
}

TYPED_TEST(MortonTest, PivotOfEqualCodesFailsAndPrintsBoth)
{
    using W = TypeParam;
    const MortonIndex3D<W> code{{0xabc, 0x12, 0x7}};
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const auto pivot = computeSmallerPivot(code, code);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_FALSE(pivot.has_value());
    EXPECT_EQ(err, "computeSmallerPivot:  too many duplicate points!\np0:  p: ");
    EXPECT_EQ(out, "abc,12,7\nabc,12,7\n");
}

TYPED_TEST(MortonTest, NodeRealBoxCoversTheWholeSignedRangeAtTheTopLod)
{
    using W = TypeParam;
    using S = std::make_signed_t<W>;
    constexpr unsigned bits = MortonIndex3D<W>::kBitsPerAxis;
    constexpr W sign = MortonIndex3D<W>::kSignBit;
    const std::array<double, 3> origin{10.0, -20.0, 0.5};
    const std::array<double, 3> scale{0.5, 2.0, 1.0};

    const std::array<double, 6> whole =
        nodeRealBox<W>(12, bits, origin, scale, {0, 0, 0}, {3, 3, 3}, {4, 4, 4});
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        EXPECT_DOUBLE_EQ(whole[axis], double(std::numeric_limits<S>::min()) * scale[axis] + origin[axis]);
        EXPECT_DOUBLE_EQ(whole[axis + 3], double(std::numeric_limits<S>::max()) * scale[axis] + origin[axis]);
    }

    // A node of lod 3 whose stored corner is the signed cell -8, with points from local 1 to 6.
    const W cornerMinus8 = W(-8) ^ sign;
    const std::array<double, 6> box =
        nodeRealBox<W>(12, 3, origin, scale, {cornerMinus8, sign, sign + 8}, {1, 0, 2}, {6, 7, 8});
    EXPECT_EQ(box, (std::array<double, 6>{-7 * 0.5 + 10.0, 0 * 2.0 - 20.0, 10 * 1.0 + 0.5, -2 * 0.5 + 10.0,
                                          7 * 2.0 - 20.0, 16 * 1.0 + 0.5}));

    // At the top of the space a local maximum one past the node wraps; it is brought back to the largest
    // cell.
    const W topNode = W(0) - 8;  // signed cells highest - 7 .. highest
    const std::array<double, 6> topBox =
        nodeRealBox<W>(12, 3, {0, 0, 0}, {1, 1, 1}, {topNode, topNode, topNode}, {0, 0, 0}, {8, 8, 7});
    EXPECT_EQ(topBox[3], double(std::numeric_limits<S>::max()));
    EXPECT_EQ(topBox[5], double(std::numeric_limits<S>::max()));
    EXPECT_EQ(topBox[0], double(std::numeric_limits<S>::max() - 7));

    // Older data sets: unsigned cells, no bias.
    const std::array<double, 6> old = nodeRealBox<W>(11, 3, origin, scale, {8, 16, 24}, {1, 0, 2}, {6, 7, 8});
    EXPECT_EQ(old, (std::array<double, 6>{9 * 0.5 + 10.0, 16 * 2.0 - 20.0, 26 + 0.5, 14 * 0.5 + 10.0,
                                          23 * 2.0 - 20.0, 32 + 0.5}));
}

}  // namespace

TEST(MortonNodeAnchor, SignedDataSetsAnchorAtTheCornerNearestZero)
{
    constexpr uint8_t m96 = MortonIndex3D<uint32_t>::kAttributeTypeCode;
    constexpr uint8_t m192 = MortonIndex3D<uint64_t>::kAttributeTypeCode;
    ASSERT_EQ(m96, 10);
    ASSERT_EQ(m192, 11);

    // Lod 3 nodes: cells -8..-1 anchor at 0, cells 8..15 at 8, cells -16..-9 at -8 (sign-extended for M96).
    const auto m96Anchor = nodeAnchor(m96, 12, 3, 0x7ffffff8u, 0x80000008u, 0x7ffffff0u);
    ASSERT_TRUE(m96Anchor.has_value());
    EXPECT_EQ(*m96Anchor, (std::array<int64_t, 3>{0, 8, -8}));
    const auto m192Anchor = nodeAnchor(m192, 12, 3, 0x7ffffffffffffff8ull, 0x8000000000000008ull, 0);
    ASSERT_TRUE(m192Anchor.has_value());
    EXPECT_EQ(*m192Anchor, (std::array<int64_t, 3>{0, 8, std::numeric_limits<int64_t>::min() + 8}));

    // The two halves of the space at the coarsest real lod both anchor at zero; the whole space does too.
    EXPECT_EQ(*nodeAnchor(m96, 12, 31, 0, 0x80000000u, 0), (std::array<int64_t, 3>{0, 0, 0}));
    EXPECT_EQ(*nodeAnchor(m192, 13, 64, 5, 6, 7), (std::array<int64_t, 3>{0, 0, 0}));

    // Other position types fail on signed data sets, as do lods beyond the width; old data sets pass through.
    EXPECT_FALSE(nodeAnchor(6, 12, 3, 1, 2, 3).has_value());
    EXPECT_FALSE(nodeAnchor(m96, 12, 33, 1, 2, 3).has_value());
    EXPECT_EQ(*nodeAnchor(6, 11, 3, 1, 2, 0xffffffffffffffffull), (std::array<int64_t, 3>{1, 2, -1}));
}

TEST(MortonCellMapping, RoundsHalvesAwayFromZeroAndKeepsLow32BitsForM96)
{
    const CellMapping unit({0.0, 0.0, 0.0}, {1.0, 1.0, 1.0});
    EXPECT_EQ(unit.toCell({0.5, -0.5, 2.5}), (std::array<int64_t, 3>{1, -1, 3}));
    EXPECT_EQ(unit.toCell({-2.5, 0.49, -0.49}), (std::array<int64_t, 3>{-3, 0, 0}));

    const std::array<double, 3> scale{0.001, 0.01, 0.25};
    const std::array<double, 3> p{101.2346, -49.5, 1.0};
    const CellMapping mapping({100.0, -50.0, 2.0}, scale);
    EXPECT_EQ(mapping.toCell(p), (std::array<int64_t, 3>{1235, 50, -4}));
    const std::array<double, 3> back = mapping.decode(mapping.encode<uint32_t>(p));
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        EXPECT_NEAR(back[axis], p[axis], 0.5 * scale[axis]);
    }

    // A cell beyond 32 bits wraps for M96 and is kept whole for M192.
    const std::array<double, 3> far{4294967296.0 + 5.0, -3.0, 0.0};
    EXPECT_EQ(decodeMortonSigned(unit.encode<uint32_t>(far)), (std::array<int32_t, 3>{5, -3, 0}));
    EXPECT_EQ(decodeMortonSigned(unit.encode<uint64_t>(far)), (std::array<int64_t, 3>{4294967301ll, -3, 0}));
}
