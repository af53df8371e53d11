// The tiled 8-bit plane turns and the 16-bit quarter turns against their pixel-by-pixel references,
// with strides and odd sizes.
#include "image/plane_rotate.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(PlaneRotate, TiledMatchesReference) {
  for (auto [w, h] : {std::pair{1, 1}, std::pair{31, 33}, std::pair{64, 32}, std::pair{100, 7}, std::pair{45, 97}}) {
    const int32_t srcStride = w + 3;
    std::vector<uint8_t> src(static_cast<size_t>(srcStride) * h);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 31 + 7);
    for (PlaneTurn turn : {TURN_QUARTER_CW, TURN_HALF, TURN_QUARTER_CCW}) {
      const bool quarter = turn != TURN_HALF;
      const int32_t outW = quarter ? h : w, outH = quarter ? w : h;
      const int32_t dstStride = outW + 5;
      // Exactly sized outputs: a write past the end faults under the address sanitizer.
      std::vector<uint8_t> fast(static_cast<size_t>(dstStride) * (outH - 1) + outW, 0);
      std::vector<uint8_t> ref(fast.size(), 0);
      plane_rotate_u8(src.data(), w, h, srcStride, fast.data(), dstStride, turn);
      plane_rotate_u8_reference(src.data(), w, h, srcStride, ref.data(), dstStride, turn);
      ASSERT_EQ(fast, ref) << w << "x" << h << " turn " << turn;
    }
  }
}

TEST(PlaneRotate, QuarterTurnsRoundTripAndUnknownDegreeDoesNothing) {
  const int32_t w = 37, h = 20;
  std::vector<uint8_t> src(w * h), turned(w * h), back(w * h);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i);
  plane_rotate_u8(src.data(), w, h, w, turned.data(), h, TURN_QUARTER_CW);
  EXPECT_EQ(turned[0 * h + (h - 1)], src[0]);  // top-left goes to top-right
  plane_rotate_u8(turned.data(), h, w, h, back.data(), w, TURN_QUARTER_CCW);
  EXPECT_EQ(back, src);
  std::vector<uint8_t> same(w * h, 1);
  plane_rotate_u8(src.data(), w, h, w, same.data(), w, TURN_NONE);
  plane_rotate_u8(src.data(), w, h, w, same.data(), w, static_cast<PlaneTurn>(4));
  EXPECT_EQ(same, std::vector<uint8_t>(w * h, 1));
}

// Sizes around the 8 x 8 block: none whole, one, whole blocks plus a strip on either side or
// both. Source and destination are exactly sized heap blocks, so that a read or write past
// either end faults under the address sanitizer; every sample is distinct.
TEST(PlaneRotate16, QuarterTurnsMatchReferenceOnEverySize) {
  const std::pair<int32_t, int32_t> sizes[] = {{1, 1},  {7, 3},  {8, 8},   {9, 8},   {8, 9},    {15, 17},
                                               {16, 8}, {3, 40}, {41, 24}, {33, 67}, {320, 240}};
  for (auto [w, h] : sizes) {
    const size_t n = static_cast<size_t>(w) * h;
    std::vector<uint16_t> src(n);
    for (size_t i = 0; i < n; ++i) src[i] = static_cast<uint16_t>(i * 2654435761u >> 7);
    for (PlaneTurn turn : {TURN_QUARTER_CW, TURN_QUARTER_CCW}) {
      std::vector<uint16_t> fast(n, 0xBEEF), ref(n, 0xBEEF);
      plane_rotate_u16(src.data(), w, h, fast.data(), turn);
      plane_rotate_u16_reference(src.data(), w, h, ref.data(), turn);
      ASSERT_EQ(fast, ref) << w << "x" << h << " turn " << turn;
    }
  }
}

TEST(PlaneRotate16, ReferencePlacesCornersAndRefusesWhatItCannotTurn) {
  const int32_t w = 3, h = 2;
  const std::vector<uint16_t> src = {1, 2, 3, 4, 5, 6};
  std::vector<uint16_t> cw(6), ccw(6);
  plane_rotate_u16_reference(src.data(), w, h, cw.data(), TURN_QUARTER_CW);
  EXPECT_EQ(cw, (std::vector<uint16_t>{4, 1, 5, 2, 6, 3}));
  plane_rotate_u16_reference(src.data(), w, h, ccw.data(), TURN_QUARTER_CCW);
  EXPECT_EQ(ccw, (std::vector<uint16_t>{3, 6, 2, 5, 1, 4}));
  std::vector<uint16_t> same(6, 9);
  plane_rotate_u16(src.data(), w, h, same.data(), TURN_HALF);
  plane_rotate_u16(src.data(), 0, h, same.data(), TURN_QUARTER_CW);
  plane_rotate_u16(src.data(), w, -1, same.data(), TURN_QUARTER_CW);
  plane_rotate_u16(nullptr, w, h, same.data(), TURN_QUARTER_CW);
  plane_rotate_u16(src.data(), w, h, nullptr, TURN_QUARTER_CW);
  EXPECT_EQ(same, std::vector<uint16_t>(6, 9));
}

TEST(PlaneAlloc, SixteenByteAligned) {
  void* p = plane_alloc(1000);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
  plane_free(p);
}

}  // namespace
