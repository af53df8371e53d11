// Debug pictures: drawn where the table says, at their display size, alpha-blended, only while
// shown, and only for the frame they were handed over with.
#include "renderer_test_util.h"

namespace {

constexpr int32_t kW = 64, kH = 48;

class DebugPictures : public RendererFixture {
 protected:
  void SetUp() override { ASSERT_EQ(RGL_OK, init(kW, kH, 16, 12, 16, 12)); }
  int32_t render(Frame& f) { return vmKtrRT_GLStartV1(f.luma(), f.chroma(), nullptr, 0, 0, 2.0f, 1, 0, 0, kW, kH); }
  // A w x h picture of one colour.
  static std::vector<uint8_t> picture(int32_t w, int32_t h, uint8_t y, uint8_t cb, uint8_t cr, uint8_t a) {
    std::vector<uint8_t> p(static_cast<size_t>(w) * h * 4);
    for (size_t i = 0; i < p.size(); i += 4) p[i] = y, p[i + 1] = cb, p[i + 2] = cr, p[i + 3] = a;
    return p;
  }
};

TEST_F(DebugPictures, LandAtTheirPositionAndDisplaySize) {
  std::vector<uint8_t> pic = picture(4, 3, 250, 90, 170, 255);
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE] = {};
  table[0] = {pic.data(), 4, 3, 10, 6, 8, 6};  // doubled
  vmKtrRT_GLShowDebugPicture(1, 0);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLSetDebugPicture(table));
  Frame f = make_frame(kW, kH, 20, 128);
  ASSERT_EQ(RGL_OK, render(f));
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x) {
      const bool in = x >= 10 && x < 18 && y >= 6 && y < 12;
      ASSERT_EQ(in ? 250 : 20, f.y(x, y)) << x << "," << y;
    }
  // NV21: V (Cr) first. Chroma sample (5, 3) covers luma (10, 6).
  const uint8_t* c = f.chroma() + 3 * kW + 2 * 5;
  EXPECT_EQ(170, c[0]);
  EXPECT_EQ(90, c[1]);
  EXPECT_EQ(128, f.chroma()[2 * kW + 2 * 5]);  // the row above the picture
}

TEST_F(DebugPictures, AlphaBlendsAndTransparentPixelsLeaveTheFrame) {
  std::vector<uint8_t> pic = picture(2, 2, 230, 128, 128, 210);
  pic[3 * 4 + 3] = 0;  // bottom-right pixel transparent
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE] = {};
  table[0] = {pic.data(), 2, 2, 0, 0, 2, 2};
  vmKtrRT_GLShowDebugPicture(1, 1);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLSetDebugPicture(table));
  Frame f = make_frame(kW, kH, 20, 128);
  ASSERT_EQ(RGL_OK, render(f));
  EXPECT_EQ((210 * 230 + 45 * 20 + 127) / 255, f.y(0, 0));
  EXPECT_EQ(20, f.y(1, 1));
}

TEST_F(DebugPictures, ClippedAtTheFrameAndSkippedWhenBroken) {
  std::vector<uint8_t> pic = picture(8, 8, 240, 128, 128, 255);
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE] = {};
  table[0] = {pic.data(), 8, 8, kW - 4, kH - 4, 16, 16};  // runs off the bottom-right corner
  table[1] = {pic.data(), 8, 8, -6, -6, 8, 8};            // off the top-left corner
  table[2] = {pic.data(), 0, 8, 20, 20, 8, 8};            // broken: no width
  table[3] = {nullptr, 8, 8, 30, 30, 8, 8};
  vmKtrRT_GLShowDebugPicture(1, 0);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLSetDebugPicture(table));
  Frame f = make_frame(kW, kH, 20, 128);
  ASSERT_EQ(RGL_OK, render(f));
  EXPECT_EQ(240, f.y(kW - 1, kH - 1));
  EXPECT_EQ(240, f.y(1, 1));
  EXPECT_EQ(20, f.y(2, 2));
  EXPECT_EQ(20, f.y(22, 22));
  EXPECT_EQ(20, f.y(32, 32));
}

TEST_F(DebugPictures, OnlyWhileShownAndOnlyForOneFrame) {
  std::vector<uint8_t> pic = picture(2, 2, 240, 128, 128, 255);
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE] = {};
  table[0] = {pic.data(), 2, 2, 4, 4, 2, 2};
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_GLSetDebugPicture(nullptr));
  vmKtrRT_GLShowDebugPicture(0, 0);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLSetDebugPicture(table));
  Frame f = make_frame(kW, kH, 20, 128);
  ASSERT_EQ(RGL_OK, render(f));
  EXPECT_EQ(20, f.y(4, 4));
  vmKtrRT_GLShowDebugPicture(1, 0);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLSetDebugPicture(table));
  ASSERT_EQ(RGL_OK, render(f));
  EXPECT_EQ(240, f.y(4, 4));
  Frame g = make_frame(kW, kH, 20, 128);
  ASSERT_EQ(RGL_OK, render(g));  // no new table: nothing drawn
  EXPECT_EQ(20, g.y(4, 4));
}

TEST_F(DebugPictures, PlanarFramesTakeChromaInTheirPlanes) {
  ASSERT_EQ(RGL_OK, init(kW, kH, 16, 12, 16, 12, 0, 2));
  std::vector<uint8_t> pic = picture(2, 2, 240, 90, 170, 255);
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE] = {};
  table[0] = {pic.data(), 2, 2, 0, 0, 2, 2};
  vmKtrRT_GLShowDebugPicture(1, 0);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLSetDebugPicture(table));
  Frame f = make_frame(kW, kH, 20, 128);
  ASSERT_EQ(RGL_OK, render(f));
  EXPECT_EQ(90, f.chroma()[0]);
  EXPECT_EQ(170, f.chroma()[(kW / 2) * (kH / 2)]);
}

}  // namespace
