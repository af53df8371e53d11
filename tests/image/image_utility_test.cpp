// NV12 scale-expand-turn on its exact grid, the 16-bit turns and the chroma re-layout copy.
#include "image/image_utility.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "memory/heap.h"

namespace {

// Source NV12 frame with distinct luma per position and chroma pairs that encode their place.
// Odd sizes carry ((w + 1) / 2) x ((h + 1) / 2) chroma pairs, exactly as many bytes as that.
struct Nv12 {
  int32_t w, h, cs;  // cs: bytes of a chroma row
  std::vector<uint8_t> bytes;
  Nv12(int32_t width, int32_t height)
      : w(width),
        h(height),
        cs((width + 1) & ~1),
        bytes(static_cast<size_t>(width) * height + static_cast<size_t>(cs) * ((height + 1) / 2)) {
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) bytes[y * w + x] = static_cast<uint8_t>(x * 7 + y * 13);
    for (int32_t r = 0; r < (h + 1) / 2; ++r)
      for (int32_t p = 0; p < (w + 1) / 2; ++p) {
        bytes[w * h + r * cs + 2 * p] = static_cast<uint8_t>(100 + r * 5 + p);
        bytes[w * h + r * cs + 2 * p + 1] = static_cast<uint8_t>(200 - r * 3 - p);
      }
  }
};

// The grid written out with multiplication instead of accumulation: the two must agree.
void expectedPlanes(const Nv12& s, int32_t dw, int32_t dh, std::vector<uint8_t> out[3]) {
  const int64_t stepX = ((static_cast<int64_t>(s.w) << 16) / dw) + 1;
  const int64_t stepY = ((static_cast<int64_t>(s.h) << 16) / dh) + 1;
  for (int p = 0; p < 3; ++p) out[p].assign(static_cast<size_t>(dw) * dh, 0);
  for (int32_t r = 0; r < (dh & ~3); ++r)
    for (int32_t c = 0; c < (dw & ~3); ++c) {
      const int64_t Y = r * stepY, X = c * stepX;
      out[0][r * dw + c] = s.bytes[(Y >> 16) * s.w + (X >> 16)];
      const int32_t er = r & ~1, ec = c & ~1;
      const int64_t EY = er * stepY, EX = ec * stepX;
      const size_t at = static_cast<size_t>(s.w) * s.h + (EY >> 17) * s.cs + 2 * (EX >> 17);
      out[1][r * dw + c] = s.bytes[at];
      out[2][r * dw + c] = s.bytes[at + 1];
    }
}

struct Planes {
  std::vector<uint8_t> p[3];
  explicit Planes(size_t n) {
    for (auto& v : p) v.assign(n, 0xCD);
  }
};

void run(const Nv12& s, int32_t dw, int32_t dh, int32_t code, Planes& out) {
  image_utility_nv12_scale_rotate(s.bytes.data(), out.p[0].data(), out.p[1].data(), out.p[2].data(), s.w, s.h, s.w, s.h,
                                  dw, dh, plane_turn_from_layout(code), nullptr, 0);
}

TEST(ScaleRotate, NoTurnMatchesTheGridIncludingBorders) {
  const Nv12 src(64, 48);
  for (auto [dw, dh] : {std::pair{20, 12}, std::pair{22, 15}, std::pair{64, 48}, std::pair{33, 17}}) {
    std::vector<uint8_t> want[3];
    expectedPlanes(src, dw, dh, want);
    Planes got(static_cast<size_t>(dw) * dh);
    run(src, dw, dh, 2, got);
    for (int p = 0; p < 3; ++p) EXPECT_EQ(got.p[p], want[p]) << "plane " << p << " at " << dw << "x" << dh;
  }
}

TEST(ScaleRotate, OddSourcesReadTheirRoundedUpChromaRows) {
  // The frames hold exactly their bytes, so a read past the last chroma pair is caught.
  for (auto [w, h] : {std::pair{9, 7}, std::pair{31, 17}, std::pair{8, 7}, std::pair{9, 8}}) {
    const Nv12 src(w, h);
    std::vector<uint8_t> want[3];
    expectedPlanes(src, 8, 4, want);
    Planes got(8 * 4);
    run(src, 8, 4, 2, got);
    for (int p = 0; p < 3; ++p) EXPECT_EQ(got.p[p], want[p]) << "plane " << p << " of " << w << "x" << h;
  }
}

TEST(ScaleRotate, UnsampledBorderIsZeroAndTheGridKeepsItsExtraStep) {
  // 64 -> 48: the step is 87381 + 1. Column 3 sits at 262146, past sample 4's start; without
  // the extra 1 it would sit at 262143 and take sample 3.
  const Nv12 grid(64, 48);
  Planes g(48 * 48);
  run(grid, 48, 48, 2, g);
  EXPECT_EQ(g.p[0][3], grid.bytes[4]);
  EXPECT_NE(grid.bytes[4], grid.bytes[3]);
  const Nv12 src(1920, 1080);
  // Width 322: columns 320 and 321 are not sampled.
  Planes odd(322 * 243);
  run(src, 322, 243, 2, odd);
  for (int32_t r = 0; r < 243; ++r) {
    EXPECT_EQ(odd.p[0][r * 322 + 320], 0);
    EXPECT_EQ(odd.p[2][r * 322 + 321], 0);
  }
  for (int32_t c = 0; c < 322; ++c) EXPECT_EQ(odd.p[1][240 * 322 + c], 0);  // rows 240..242
}

TEST(ScaleRotate, TurnsForEveryCode) {
  const Nv12 src(64, 48);
  const int32_t dw = 16, dh = 12;
  std::vector<uint8_t> want[3];
  expectedPlanes(src, dw, dh, want);
  for (int32_t code : {0, 1, 3, 4, 5}) {
    Planes got(dw * dh);
    run(src, dw, dh, code, got);
    for (int p = 0; p < 3; ++p)
      for (int32_t y = 0; y < dh; ++y)
        for (int32_t x = 0; x < dw; ++x) {
          uint8_t v;
          if (code == 3)
            v = got.p[p][x * dh + (dh - 1 - y)];  // clockwise, dh wide
          else if (code == 4)
            v = got.p[p][(dw - 1 - x) * dh + y];  // counter-clockwise
          else
            v = got.p[p][(dh - 1 - y) * dw + (dw - 1 - x)];  // half turn
          ASSERT_EQ(v, want[p][y * dw + x]) << "code " << code << " plane " << p << " at " << x << "," << y;
        }
  }
}

TEST(ScaleRotate, LargeUpscaleStaysInsideTheFrame) {
  // A tiny source scaled far up: the grid may step past the last sample; it must repeat it.
  const Nv12 src(4, 2);
  Planes got(4096 * 8);
  run(src, 4096, 8, 2, got);
  EXPECT_EQ(got.p[0][4095 - 3], src.bytes[3]);
}

TEST(ScaleRotate, BadSizesWriteNothing) {
  const Nv12 src(16, 8);
  Planes got(64);
  run(src, 0, 8, 2, got);
  run(src, 8, -4, 2, got);
  image_utility_nv12_scale_rotate(nullptr, got.p[0].data(), got.p[1].data(), got.p[2].data(), 16, 8, 16, 8, 8, 8,
                                  TURN_NONE, nullptr, 0);
  for (auto& p : got.p)
    for (uint8_t b : p) ASSERT_EQ(b, 0xCD);
  heap_fault_inject(1, false);  // the temporary block cannot be had
  run(src, 8, 8, 2, got);
  heap_fault_inject(0, false);
  EXPECT_EQ(got.p[0][0], 0xCD);
}

TEST(ScaleRotate, StagesHonourStridesAndRefuseBadPlanes) {
  // The stages on padded rows give the composition's planes; a refused call writes nothing.
  const Nv12 src(31, 17);
  const int32_t dw = 12, dh = 8, pad = 5, stride = dw + pad, srcStride = src.w + 3;
  std::vector<uint8_t> padded(static_cast<size_t>(srcStride) * src.h, 0xEE);
  for (int32_t y = 0; y < src.h; ++y) memcpy(&padded[y * srcStride], &src.bytes[y * src.w], src.w);
  Planes want(dw * dh);
  run(src, dw, dh, 2, want);
  std::vector<uint8_t> luma(stride * dh, 0xAB), first(stride * dh, 0xAB), second(stride * dh, 0xAB);
  ASSERT_TRUE(image_utility_scale_plane(padded.data(), srcStride, src.w, src.h, luma.data(), stride, dw, dh));
  ASSERT_TRUE(image_utility_expand_chroma(src.bytes.data() + src.w * src.h, src.cs, src.w, src.h, first.data(), stride,
                                          second.data(), stride, dw, dh));
  std::vector<uint8_t> turned(stride * dw, 0xAB);
  ASSERT_TRUE(image_utility_turn_plane(luma.data(), stride, dw, dh, turned.data(), stride, TURN_QUARTER_CW));
  for (int32_t y = 0; y < dh; ++y)
    for (int32_t x = 0; x < dw; ++x) {
      ASSERT_EQ(luma[y * stride + x], want.p[0][y * dw + x]) << x << "," << y;
      ASSERT_EQ(first[y * stride + x], want.p[1][y * dw + x]) << x << "," << y;
      ASSERT_EQ(second[y * stride + x], want.p[2][y * dw + x]) << x << "," << y;
      ASSERT_EQ(turned[x * stride + (dh - 1 - y)], want.p[0][y * dw + x]) << x << "," << y;
    }
  for (int32_t y = 0; y < dh; ++y) EXPECT_EQ(luma[y * stride + dw], 0xAB);  // padding left alone
  std::vector<uint8_t> untouched(stride * dh, 0xAB);
  EXPECT_FALSE(image_utility_scale_plane(padded.data(), src.w - 1, src.w, src.h, untouched.data(), stride, dw, dh));
  EXPECT_FALSE(image_utility_scale_plane(padded.data(), srcStride, src.w, src.h, untouched.data(), dw - 1, dw, dh));
  EXPECT_FALSE(image_utility_expand_chroma(nullptr, src.cs, src.w, src.h, untouched.data(), stride, untouched.data(),
                                           stride, dw, dh));
  EXPECT_FALSE(image_utility_turn_plane(luma.data(), stride, dw, dh, untouched.data(), dh - 1, TURN_QUARTER_CW));
  EXPECT_EQ(untouched, std::vector<uint8_t>(stride * dh, 0xAB));
}

std::vector<uint16_t> ramp(int32_t w, int32_t h) {
  std::vector<uint16_t> m(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < m.size(); ++i) m[i] = static_cast<uint16_t>(i * 37 % 1024);
  return m;
}

TEST(DepthTurns, QuarterTurnsRoundTripAndPlaceSamples) {
  const int32_t w = 7, h = 5;
  const auto src = ramp(w, h);
  std::vector<uint16_t> cw(w * h), back(w * h);
  image_utility_rotate(cw.data(), src.data(), w, h, TURN_QUARTER_CW);
  // Clockwise: (y, x) to row x, column h-1-y.
  EXPECT_EQ(cw[2 * h + (h - 1 - 1)], src[1 * w + 2]);
  image_utility_rotate(back.data(), cw.data(), h, w, TURN_QUARTER_CCW);
  EXPECT_EQ(back, src);
  std::vector<uint16_t> ccw(w * h);
  image_utility_rotate(ccw.data(), src.data(), w, h, TURN_QUARTER_CCW);
  EXPECT_EQ(ccw[(w - 1 - 2) * h + 1], src[1 * w + 2]);
  std::vector<uint16_t> half(w * h), untouched(w * h, 9);
  image_utility_rotate(half.data(), src.data(), w, h, TURN_HALF);
  EXPECT_EQ(half[0], src.back());
  image_utility_rotate(untouched.data(), src.data(), w, h, static_cast<PlaneTurn>(4));
  EXPECT_EQ(untouched, std::vector<uint16_t>(w * h, 9));
}

TEST(DepthTurns, HalfTurnInPlace) {
  auto m = ramp(6, 4);
  const auto orig = m;
  image_utility_rotate180(m.data(), 6, 4);
  for (size_t i = 0; i < m.size(); ++i) ASSERT_EQ(m[i], orig[m.size() - 1 - i]);
  std::vector<uint16_t> one{42};
  image_utility_rotate180(one.data(), 1, 1);
  EXPECT_EQ(one[0], 42);
  image_utility_rotate180(one.data(), 0, 5);
  image_utility_rotate180(one.data(), -1, 1);
  EXPECT_EQ(one[0], 42);
}

TEST(Rechroma, EachSourceRowServesFourOutputRowsAndReadsStayInsideOnePlane) {
  const int32_t w = 10, h = 10;
  std::vector<uint8_t> luma(w * h), chroma(w * h / 2);  // exactly one NV12 chroma plane
  for (size_t i = 0; i < luma.size(); ++i) luma[i] = static_cast<uint8_t>(i);
  for (size_t i = 0; i < chroma.size(); ++i) chroma[i] = static_cast<uint8_t>(200 - i);
  std::vector<uint8_t> outLuma(w * h), outChroma(h * (w & ~1), 0);
  image_utility_copy_nv12_rechroma(outLuma.data(), outChroma.data(), luma.data(), chroma.data(), w, h);
  EXPECT_EQ(outLuma, luma);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t k = 0; k < w / 2; ++k) {
      const size_t s = static_cast<size_t>(k & ~1) + static_cast<size_t>(y >> 2) * 2 * w;
      ASSERT_EQ(outChroma[y * w + 2 * k], chroma[s]);
      ASSERT_EQ(outChroma[y * w + 2 * k + 1], chroma[s + 1]);
    }
  EXPECT_EQ(image_utility_rechroma_output_bytes(w, h), w * h + h * w);
  for (int32_t ew = 2; ew <= 64; ew += 2)
    for (int32_t eh = 2; eh <= 64; eh += 2)
      ASSERT_LE(image_utility_rechroma_chroma_read_bytes(ew, eh), ew * eh / 2) << ew << "x" << eh;
  EXPECT_EQ(image_utility_rechroma_chroma_read_bytes(1920, 1080), 269 * 3840 + 960);
  EXPECT_EQ(image_utility_rechroma_output_bytes(5, 3), 15 + 12);
}

}  // namespace
