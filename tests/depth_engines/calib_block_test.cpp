// calib_block_test.cpp - calibration block round trip and refusals.
#include "calib_block.h"

#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <vector>

namespace {

CalibBlock sample_block() {
  CalibBlock b;
  calib_block_defaults(&b, 1920, 1080, 1280, 720, 0.0f, 96.0f);
  b.homographySub[2] = 3.5f;  // a shift, so homographies are not both identity
  b.focalBaseline = 1500.0f * 20.0f;
  b.flags = CALIB_FLAG_SUB_LEFT;
  b.disparityScale = 8;
  return b;
}

std::vector<uint8_t> encoded(const CalibBlock& b) {
  std::vector<uint8_t> bytes(CALIB_BLOCK_SIZE);
  EXPECT_EQ(CALIB_OK, calib_block_write(&b, bytes.data(), bytes.size()));
  return bytes;
}

// Re-seals a tampered block so that only the tampered field is wrong.
void reseal(std::vector<uint8_t>& bytes) {
  memset(bytes.data() + 12, 0, 4);
  uint32_t crc = calib_block_crc32(bytes.data(), CALIB_BLOCK_SIZE);
  for (int i = 0; i < 4; ++i) bytes[12 + i] = uint8_t(crc >> (8 * i));
}

TEST(CalibBlock, RoundTripKeepsEveryField) {
  CalibBlock in = sample_block();
  std::vector<uint8_t> bytes = encoded(in);
  EXPECT_EQ(0, memcmp(bytes.data(), "VMCB", 4));
  CalibBlock out;
  ASSERT_EQ(CALIB_OK, calib_block_read(bytes.data(), bytes.size(), &out));
  EXPECT_EQ(in.mainWidth, out.mainWidth);
  EXPECT_EQ(in.subHeight, out.subHeight);
  EXPECT_EQ(0, memcmp(in.homographySub, out.homographySub, sizeof(in.homographySub)));
  EXPECT_EQ(in.disparityScale, out.disparityScale);
  EXPECT_EQ(in.flags, out.flags);
  EXPECT_EQ(in.maxDisparity, out.maxDisparity);
  EXPECT_EQ(in.focalBaseline, out.focalBaseline);
}

TEST(CalibBlock, Crc32MatchesTheKnownCheckValue) {
  const char* text = "123456789";
  EXPECT_EQ(0xCBF43926u, calib_block_crc32(reinterpret_cast<const uint8_t*>(text), 9));
}

TEST(CalibBlock, LongerAreaIsAcceptedAndTailIgnored) {
  std::vector<uint8_t> bytes = encoded(sample_block());
  bytes.resize(512, 0xAB);
  CalibBlock out;
  EXPECT_EQ(CALIB_OK, calib_block_read(bytes.data(), bytes.size(), &out));
}

TEST(CalibBlock, TruncatedBlocksAreRefusedWithoutOverread) {
  std::vector<uint8_t> bytes = encoded(sample_block());
  CalibBlock out;
  EXPECT_EQ(CALIB_ERR_MISSING, calib_block_read(nullptr, 128, &out));
  EXPECT_EQ(CALIB_ERR_MISSING, calib_block_read(bytes.data(), 0, &out));
  // Every shorter length, in an exactly sized heap copy so that an overread is caught.
  for (size_t n = 1; n < CALIB_BLOCK_SIZE; ++n) {
    std::vector<uint8_t> part(bytes.begin(), bytes.begin() + long(n));
    EXPECT_EQ(CALIB_ERR_TRUNCATED, calib_block_read(part.data(), part.size(), &out)) << n;
  }
}

TEST(CalibBlock, HeaderFaultsAreRefusedByKind) {
  CalibBlock out;
  std::vector<uint8_t> good = encoded(sample_block());

  std::vector<uint8_t> b = good;
  b[0] = 'X';
  EXPECT_EQ(CALIB_ERR_MAGIC, calib_block_read(b.data(), b.size(), &out));

  b = good;
  b[4] = 2;
  reseal(b);
  EXPECT_EQ(CALIB_ERR_VERSION, calib_block_read(b.data(), b.size(), &out));

  b = good;
  b[8] = 200;  // claims 200 bytes
  reseal(b);
  EXPECT_EQ(CALIB_ERR_SIZE, calib_block_read(b.data(), b.size(), &out));

  b = good;
  b[9] = 0xFF;  // claims an absurd size: refused before anything is read past 128 bytes
  EXPECT_EQ(CALIB_ERR_SIZE, calib_block_read(b.data(), b.size(), &out));

  for (size_t i : {size_t(16), size_t(40), size_t(104), size_t(127)}) {
    b = good;
    b[i] ^= 0x10;
    EXPECT_EQ(CALIB_ERR_CHECKSUM, calib_block_read(b.data(), b.size(), &out)) << i;
  }
}

TEST(CalibBlock, AbsurdValuesAreRefused) {
  CalibBlock out;
  struct Case {
    const char* what;
    void (*spoil)(CalibBlock&);
  } cases[] = {
      {"zero width", [](CalibBlock& b) { b.mainWidth = 0; }},
      {"negative height", [](CalibBlock& b) { b.subHeight = -720; }},
      {"huge width", [](CalibBlock& b) { b.subWidth = 1 << 20; }},
      {"scale 0", [](CalibBlock& b) { b.disparityScale = 0; }},
      {"scale 65", [](CalibBlock& b) { b.disparityScale = 65; }},
      {"unknown flag", [](CalibBlock& b) { b.flags = 0x8; }},
      {"empty range", [](CalibBlock& b) { b.maxDisparity = b.minDisparity; }},
      {"nan range", [](CalibBlock& b) { b.maxDisparity = NAN; }},
      {"wide range", [](CalibBlock& b) { b.minDisparity = -4050.0f; }},
      {"singular homography", [](CalibBlock& b) { memset(b.homographyMain, 0, sizeof(b.homographyMain)); }},
      {"infinite homography", [](CalibBlock& b) { b.homographySub[4] = INFINITY; }},
      {"negative focal baseline", [](CalibBlock& b) { b.focalBaseline = -1.0f; }},
  };
  for (const Case& c : cases) {
    CalibBlock b = sample_block();
    c.spoil(b);
    uint8_t bytes[CALIB_BLOCK_SIZE];
    EXPECT_EQ(CALIB_ERR_VALUE, calib_block_write(&b, bytes, sizeof(bytes))) << c.what;
  }
  // A sealed block with a bad value (written by someone else's tool) is refused by the reader.
  std::vector<uint8_t> b = encoded(sample_block());
  b[104] = 0;  // S = 0
  b[105] = 0;
  reseal(b);
  EXPECT_EQ(CALIB_ERR_VALUE, calib_block_read(b.data(), b.size(), &out));
}

// Homographies that are finite and regular yet unusable: every pixel must map to a finite point
// with w in [CALIB_MIN_W, CALIB_MAX_W] and at most CALIB_MAX_REACH image sizes outside the image.
TEST(CalibBlock, HomographiesOutsideTheUsableRangeAreRefused) {
  struct Case {
    const char* what;
    void (*spoil)(CalibBlock&);
  } cases[] = {
      {"3e36 scale", [](CalibBlock& b) { b.homographyMain[0] = b.homographyMain[4] = 3e36f; }},
      {"3e36 in w", [](CalibBlock& b) { b.homographySub[6] = 3e36f; }},
      // w = 1 - x / 1920 reaches 0 at the right edge: that corner maps to infinity.
      {"corner at infinity", [](CalibBlock& b) { b.homographyMain[6] = -1.0f / 1919.5f; }},
      {"negative w", [](CalibBlock& b) { b.homographyMain[7] = -2.0f / 1080.0f; }},
      {"tiny w", [](CalibBlock& b) { b.homographySub[8] = 1e-4f; }},
      {"w too large", [](CalibBlock& b) { b.homographySub[8] = 2e3f; }},
      {"shifted beyond reach", [](CalibBlock& b) { b.homographyMain[2] = 2.0f * 1920.0f + 1.0f; }},
      // The sub camera's homography is bounded by the sub image (1280 wide), not the main one.
      {"sub shifted beyond its own reach", [](CalibBlock& b) { b.homographySub[2] = -2.0f * 1280.0f - 1.0f; }},
  };
  for (const Case& c : cases) {
    CalibBlock b = sample_block();
    c.spoil(b);
    uint8_t bytes[CALIB_BLOCK_SIZE];
    EXPECT_EQ(CALIB_ERR_GEOMETRY, calib_block_write(&b, bytes, sizeof(bytes))) << c.what;
  }
  // The same from a sealed block written by someone else's tool.
  std::vector<uint8_t> bytes = encoded(sample_block());
  const float huge = 3e36f;
  memcpy(bytes.data() + 32, &huge, 4);  // main homography h[0]
  memcpy(bytes.data() + 48, &huge, 4);  // main homography h[4]
  reseal(bytes);
  CalibBlock out;
  EXPECT_EQ(CALIB_ERR_GEOMETRY, calib_block_read(bytes.data(), bytes.size(), &out));
}

TEST(CalibBlock, UsableHomographiesUpToTheBoundsAreAccepted) {
  CalibBlock b = sample_block();
  b.homographyMain[2] = 2.0f * 1920.0f - 1.0f;  // just within reach
  b.homographySub[8] = 2e-3f;                   // small w, scaled numerators: a shift of the image
  b.homographySub[0] = b.homographySub[4] = 2e-3f;
  b.homographySub[2] = 0.0f;
  uint8_t bytes[CALIB_BLOCK_SIZE];
  EXPECT_EQ(CALIB_OK, calib_block_write(&b, bytes, sizeof(bytes)));
  // A mild keystone and rotation, as a real rectification has.
  const float rect[9] = {0.998f, -0.035f, 20.0f, 0.035f, 0.998f, -15.0f, 2e-5f, -1e-5f, 1.0f};
  b = sample_block();
  memcpy(b.homographyMain, rect, sizeof(rect));
  ASSERT_EQ(CALIB_OK, calib_block_write(&b, bytes, sizeof(bytes)));
  CalibBlock out;
  EXPECT_EQ(CALIB_OK, calib_block_read(bytes, sizeof(bytes), &out));
}

TEST(CalibBlock, HomographyApply) {
  float h[9] = {2, 0, 1, 0, 1, -3, 0, 0, 1};
  float x, y;
  ASSERT_TRUE(calib_homography_apply(h, 10, 20, &x, &y));
  EXPECT_FLOAT_EQ(21.0f, x);
  EXPECT_FLOAT_EQ(17.0f, y);
  float projective[9] = {1, 0, 0, 0, 1, 0, 1, 0, 0};
  EXPECT_FALSE(calib_homography_apply(projective, 0, 5, &x, &y));
  // A result that overflows the float range (inf, or NaN from inf - inf) is no point either.
  float huge[9] = {3e36f, -3e36f, 0, 3e36f, 3e36f, 0, 0, 0, 1};
  EXPECT_FALSE(calib_homography_apply(huge, 200, 200, &x, &y));
  EXPECT_FALSE(calib_homography_apply(huge, 300, 0, &x, &y));
}

}  // namespace
