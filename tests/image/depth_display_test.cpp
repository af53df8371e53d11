// Tone curve, palette ramp, depth and grey pictures, markers, histogram, text and the spread.
#include "image/depth_display.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(DepthTone, TableValuesAndWrap) {
  EXPECT_EQ(image_utility_depth_tone(0), 0);
  EXPECT_EQ(image_utility_depth_tone(3), 0);
  EXPECT_EQ(image_utility_depth_tone(4), 1);
  EXPECT_EQ(image_utility_depth_tone(11), 1 + (2 * 7) / 8);
  EXPECT_EQ(image_utility_depth_tone(128), 32);
  EXPECT_EQ(image_utility_depth_tone(517), 70 + (59 * 236) / 237);
  // The 980 segment overshoots with its run of 18 (28 long): 244 + 7 * 27 / 18 = 254.
  EXPECT_EQ(image_utility_depth_tone(1007), 254);
  EXPECT_EQ(image_utility_depth_tone(1020), 254);
  EXPECT_EQ(image_utility_depth_tone(1021), 255);
  EXPECT_EQ(image_utility_depth_tone(1022), 0);  // 256 modulo 256
  EXPECT_EQ(image_utility_depth_tone(1023), 255);
}

TEST(DepthPalette, PassesThroughTheListedPointsAndRampsBetween) {
  const uint8_t red[] = {0, 0, 0, 66, 162, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255};
  const uint8_t green[] = {0, 50, 210, 255, 255, 255, 239, 223, 207, 191, 175, 159, 143, 127, 111, 95};
  const uint8_t blue[] = {128, 255, 255, 189, 93, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  uint8_t rgb[3];
  for (int k = 0; k < 16; ++k) {
    image_utility_depth_palette(static_cast<uint8_t>(16 * k), rgb);
    EXPECT_EQ(rgb[0], red[k]) << k;
    EXPECT_EQ(rgb[1], green[k]) << k;
    EXPECT_EQ(rgb[2], blue[k]) << k;
  }
  image_utility_depth_palette(255, rgb);
  EXPECT_EQ(rgb[0], 255);
  EXPECT_EQ(rgb[1], 80);
  EXPECT_EQ(rgb[2], 0);
  // Smooth: neighbours never jump by more than one step of the steepest segment.
  uint8_t prev[3];
  image_utility_depth_palette(0, prev);
  for (int t = 1; t < 256; ++t) {
    image_utility_depth_palette(static_cast<uint8_t>(t), rgb);
    for (int c = 0; c < 3; ++c) EXPECT_LE(std::abs(rgb[c] - prev[c]), 11) << t;
    memcpy(prev, rgb, 3);
  }
}

std::vector<uint8_t> colour(uint16_t v, int32_t opaque = 1) {
  std::vector<uint8_t> px(4, 0xEE);
  image_utility_depth_to_display(px.data(), &v, 1, 1, opaque);
  return px;
}

TEST(DepthToDisplay, FarSamplesAreRedOnlyAndToneWraps) {
  // 1022: tone 0, red-only: R = 0, so Y 0 and neutral chroma.
  EXPECT_EQ(colour(1022), (std::vector<uint8_t>{0, 128, 128, 210}));
  // 1021: tone 255 red-only: R 255.
  EXPECT_EQ(colour(1021), (std::vector<uint8_t>{76, 84, 255, 210}));
  // 254 uses the full palette at its tone; 255 loses green and blue.
  uint8_t rgb[3];
  image_utility_depth_palette(image_utility_depth_tone(254), rgb);
  const auto full = colour(254);
  EXPECT_EQ(full[0], static_cast<uint8_t>(0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]));
  const auto red = colour(255);
  image_utility_depth_palette(image_utility_depth_tone(255), rgb);
  EXPECT_EQ(red[0], static_cast<uint8_t>(0.299 * rgb[0]));
  EXPECT_NE(full[0], red[0]);
  EXPECT_EQ(colour(500, 0)[3], 0);
}

TEST(GrayToDisplay, OneStepDarkerAndNeutral) {
  const uint8_t g[3] = {0, 1, 255};
  uint8_t px[12];
  image_utility_gray_to_display(px, g, 3, 1, 1);
  EXPECT_EQ(px[0], 0);
  EXPECT_EQ(px[4], 0);
  EXPECT_EQ(px[8], 254);
  EXPECT_EQ(px[9], 128);
  EXPECT_EQ(px[10], 128);
  EXPECT_EQ(px[11], 210);
}

TEST(Marker, ClippedAtTheCornerAndColourWords) {
  std::vector<uint8_t> img(10 * 8, 0);
  image_utility_draw_marker(img.data(), 10, 8, 0, 0, 0, 5, 1);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x) EXPECT_EQ(img[y * 10 + x], (x < 5 && y < 5) ? 255 : 0) << x << "," << y;
  std::vector<uint8_t> disp(4 * 4 * 4, 0);
  image_utility_draw_marker(disp.data(), 4, 4, 1, 2, 2, 1, 3);
  const uint8_t c3[4] = {0xFF, 0x7F, 0x7F, 0x80};
  EXPECT_EQ(0, memcmp(&disp[4 * (1 * 4 + 1)], c3, 4));
  EXPECT_EQ(0, memcmp(&disp[4 * (2 * 4 + 2)], c3, 4));
  EXPECT_EQ(disp[4 * (3 * 4 + 3)], 0);  // exclusive upper bound
  EXPECT_EQ(image_utility_marker_colour(9), image_utility_marker_colour(3));
  EXPECT_EQ(image_utility_marker_colour(2), 0x8000FF00u);
  // Far outside: nothing drawn, nothing touched.
  std::vector<uint8_t> none(16, 0);
  image_utility_draw_marker(none.data(), 4, 4, 0, -100, 100, 5, 1);
  EXPECT_EQ(none, std::vector<uint8_t>(16, 0));
}

TEST(Histogram, LayoutOfBarsMarksAndFrames) {
  const int W = 260, H = 260;
  std::vector<uint8_t> d(W * H * 4, 0);
  std::vector<uint32_t> bins(256, 0);
  bins[10] = 5;
  bins[20] = 255;
  image_utility_draw_histogram(d.data(), W, H, bins.data(), 256, 256, 10, 20, 10);
  auto px = [&](int x, int y) { return std::vector<uint8_t>(&d[4 * (y * W + x)], &d[4 * (y * W + x)] + 4); };
  const int y0 = 1;  // (260 - 256 - 2) / 2
  EXPECT_EQ(px(0, 0), (std::vector<uint8_t>{127, 127, 127, 127}));
  EXPECT_EQ(px(100, y0), (std::vector<uint8_t>{0, 128, 128, 0}));
  // Bin 10 (markA wins over markC): columns 252..256 coloured, 251 not.
  EXPECT_EQ(px(252, y0 + 11)[0], 76);
  EXPECT_EQ(px(256, y0 + 11)[2], 255);
  EXPECT_EQ(px(251, y0 + 11)[0], 127);
  EXPECT_EQ(px(257, y0 + 11), (std::vector<uint8_t>{0, 128, 128, 0}));
  EXPECT_EQ(px(258, y0 + 11), (std::vector<uint8_t>{76, 255, 255, 0}));
  EXPECT_EQ(px(2, y0 + 21)[0], 149);  // 255-long bar starts at column 2
  EXPECT_EQ(px(1, y0 + 21)[0], 127);
  EXPECT_EQ(px(0, y0 + 5), (std::vector<uint8_t>{0, 128, 128, 0}));
  EXPECT_EQ(px(5, y0 + 257), (std::vector<uint8_t>{0, 127, 127, 0}));
  // A bin longer than the bar is held to it, and a short picture is clipped without a fault.
  std::vector<uint8_t> small(8 * 4 * 4, 0);
  bins[0] = 1000;
  image_utility_draw_histogram(small.data(), 8, 4, bins.data(), 256, 256, 0, 1, 2);
}

TEST(Text, MeasuresAndPaddingWithTheSpaceGlyph) {
  int32_t w = -1, h = -1;
  EXPECT_EQ(image_utility_text_size("ab\ncde", &w, &h), 2304);
  EXPECT_EQ(w, 24);
  EXPECT_EQ(h, 24);
  EXPECT_EQ(image_utility_text_size("", &w, &h), 0);
  EXPECT_EQ(w, 0);
  EXPECT_EQ(h, 12);

  std::vector<uint8_t> pic(2304, 0xAB);
  image_utility_draw_text(pic.data(), 2304, "ab\ncde");
  std::vector<uint8_t> space(384, 0), padded(384, 0);
  image_utility_draw_text(space.data(), 384, " ");
  // First line, third column, every row equals the space glyph.
  for (int r = 0; r < 12; ++r) EXPECT_EQ(0, memcmp(&pic[4 * (r * 24 + 16)], &space[4 * (r * 8)], 32)) << r;
  // 'a' is not blank.
  EXPECT_NE(0, memcmp(&pic[4 * (6 * 24)], &space[4 * (6 * 8)], 32));
  // Distinct characters draw differently.
  std::vector<uint8_t> one(384), other(384);
  image_utility_draw_text(one.data(), 384, "0");
  image_utility_draw_text(other.data(), 384, "O");
  EXPECT_NE(one, other);
}

TEST(Text, RefusesShortCapacityIncludingPaddedLines) {
  std::vector<uint8_t> pic(2304, 0xAB);
  image_utility_draw_text(pic.data(), 2303, "ab\ncde");
  EXPECT_EQ(pic, std::vector<uint8_t>(2304, 0xAB));
  // 6 characters but 3 x 3 glyphs: 384 x 6 would not hold the padded picture.
  std::vector<uint8_t> tall(384 * 6, 0xAB);
  image_utility_draw_text(tall.data(), 384 * 6, "abc\n\n");
  EXPECT_EQ(tall, std::vector<uint8_t>(384 * 6, 0xAB));
}

TEST(StandardDeviation, LastValidSampleMeanAndInvalidMaps) {
  // Samples 10, 20, 1023, 30: count 3, mean = 30 / 3 = 10; d = 0, 10, 20: acc 500; sqrt(166) = 12.
  const uint16_t m[] = {10, 20, 1023, 30};
  EXPECT_EQ(image_utility_depth_map_standard_deviation(m, 4, 1), 12u);
  const uint16_t bad[] = {1023, 1023, 2000};
  EXPECT_EQ(image_utility_depth_map_standard_deviation(bad, 3, 1), 0u);
  // Below the mean the difference wraps and the sum saturates: sqrt(0xFFFFFFFF / 2).
  const uint16_t wrap[] = {0, 1000};
  EXPECT_EQ(image_utility_depth_map_standard_deviation(wrap, 2, 1), 46340u);
  EXPECT_EQ(image_utility_depth_map_standard_deviation(nullptr, 2, 1), 0u);
}

}  // namespace
