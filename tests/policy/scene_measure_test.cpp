// Scene measures: census count, motion search and mean absolute difference on crafted planes,
// and the fast forms against their per-pixel references on exactly sized buffers.
#include "policy/scene_measure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "debug/debug_log.h"
#include "log_capture.h"
#include "policy/policy_manager.h"

namespace {

using Plane = std::vector<uint8_t>;

Plane noise(int w, int h, uint32_t seed, int maxValue = 255) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> v(0, maxValue);
  Plane p(static_cast<size_t>(w) * h);
  for (auto& b : p) b = static_cast<uint8_t>(v(rng));
  return p;
}

// Fills the w x h rectangle at (x, y) of a width-wide plane with v.
void fill(Plane& p, int width, int x, int y, int w, int h, uint8_t v) {
  for (int j = y; j < y + h; ++j)
    for (int i = x; i < x + w; ++i) p[static_cast<size_t>(j) * width + i] = v;
}

// Copies the 8 x 8 block at (sx, sy) of src to (dx, dy) of dst, both width wide.
void copyBlock(Plane& dst, int dx, int dy, const Plane& src, int sx, int sy, int width) {
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i)
      dst[static_cast<size_t>(dy + j) * width + dx + i] = src[static_cast<size_t>(sy + j) * width + sx + i];
}

class FlagGuard : public ::testing::Test {
 protected:
  void TearDown() override { logFlags.store(0); }
};

// ---- census ----

TEST(SceneCensus, UnchangedOrUniformlyBrighterSceneCountsNothing) {
  const int w = 640, h = 480;
  Plane a = noise(w, h, 1, 200);
  Plane b = a;
  EXPECT_EQ(policy_manager_scene_change_detection(a.data(), b.data(), 200, 400, 150, 350, w, h), 0);
  for (auto& v : b) v = static_cast<uint8_t>(v + 40);
  EXPECT_EQ(policy_manager_scene_change_detection(a.data(), b.data(), 200, 400, 150, 350, w, h), 0);
}

TEST(SceneCensus, BrightenedCentreCellFlipsEveryCellAboveTheOldCentre) {
  // Region centre (128, 128): grid rows 0..111, columns 0..143; centre cell rows 48..63, columns
  // 64..79. The stored frame has every other cell above its centre; the current one lifts the
  // centre above all of them.
  const int w = 256, h = 256;
  Plane stored(static_cast<size_t>(w) * h, 200);
  fill(stored, w, 64, 48, 16, 16, 100);
  Plane current = stored;
  fill(current, w, 64, 48, 16, 16, 255);
  EXPECT_EQ(policy_manager_scene_change_detection(current.data(), stored.data(), 120, 136, 120, 136, w, h), 62);
  // One cell of the stored frame below the centre keeps its bit 0 in both.
  fill(stored, w, 0, 0, 16, 16, 50);
  EXPECT_EQ(policy_manager_scene_change_detection(current.data(), stored.data(), 120, 136, 120, 136, w, h), 61);
}

TEST(SceneCensus, ColumnsLeftOfTheImageReadTheRowBeforeThroughTheLinearIndex) {
  // Centre (64, 200): grid columns -64..79, rows 72..183; cells in columns 0..3 lie wholly left
  // of the image and read the last 64 bytes of the row above. Brightening those bytes flips
  // those 7 x 4 cells and nothing else; a per-column test would see no pixel there.
  const int w = 256, h = 256;
  Plane stored(static_cast<size_t>(w) * h, 100);
  Plane current = stored;
  for (int y = 0; y < h; ++y) fill(current, w, 192, y, 64, 1, 200);
  EXPECT_EQ(policy_manager_scene_change_detection(current.data(), stored.data(), 64, 64, 200, 200, w, h), 28);
}

TEST(SceneCensus, GridAboveTheImageHasNoPixelAndCountsNothing) {
  // Centre (0, 0): every grid row is negative, every linear index below 0.
  const int w = 64, h = 64;
  Plane a = noise(w, h, 2);
  Plane b = noise(w, h, 3);
  EXPECT_EQ(policy_manager_scene_change_detection(a.data(), b.data(), 0, 0, 0, 0, w, h), 0);
  EXPECT_EQ(scene_measure_census_reference(a.data(), b.data(), 0, 0, w, h), 0);
}

TEST(SceneCensus, FastMatchesReferenceAtEveryEdge) {
  std::mt19937 rng(7);
  const int sizes[][2] = {{320, 240}, {64, 48}, {17, 300}, {300, 9}, {1, 1}, {16, 16}, {0, 5}, {-3, 7}};
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    const size_t n = w > 0 && h > 0 ? static_cast<size_t>(w) * h : 0;
    Plane a(n), b(n);
    for (size_t i = 0; i < n; ++i) {
      a[i] = static_cast<uint8_t>(rng());
      b[i] = static_cast<uint8_t>(i % 7 == 0 ? rng() : a[i]);
    }
    std::uniform_int_distribution<int> c(-300, 700);
    for (int k = 0; k < 60; ++k) {
      const int cx = c(rng), cy = c(rng);
      ASSERT_EQ(scene_measure_census(a.data(), b.data(), cx, cy, w, h),
                scene_measure_census_reference(a.data(), b.data(), cx, cy, w, h))
          << w << "x" << h << " centre " << cx << "," << cy;
    }
  }
}

TEST(SceneCensus, FixedFormIsTheWholeFrameRegionOf320x240) {
  Plane a = noise(320, 240, 11);
  Plane b = noise(320, 240, 12);
  const int32_t fixed = policy_manager_scene_change_detection_320x240(a.data(), b.data());
  EXPECT_EQ(fixed, policy_manager_scene_change_detection(a.data(), b.data(), 0, 320, 0, 240, 320, 240));
  EXPECT_GT(fixed, 0);
  // The grid never reaches row 104: a plane cut there reads the same.
  Plane a2(a.begin(), a.begin() + 104 * 320), b2(b.begin(), b.begin() + 104 * 320);
  EXPECT_EQ(policy_manager_scene_change_detection_320x240(a2.data(), b2.data()), fixed);
}

TEST_F(FlagGuard, CensusProfileLineFollowsTheProfileMask) {
  LogCapture log;
  Plane a(64 * 64, 1);
  policy_manager_scene_change_detection(a.data(), a.data(), 0, 64, 0, 64, 64, 64);
  EXPECT_EQ(log.count("Scene check result"), 0u);
  logFlags.store(kLogStepCost);
  policy_manager_scene_change_detection(a.data(), a.data(), 0, 64, 0, 64, 64, 64);
  const auto lines = log.matching("Scene check result = 0 cost ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("[PROFILE] policy_manager_scene_change_detection:"), std::string::npos);
}

// ---- motion ----

TEST_F(FlagGuard, MotionRefusesAnEmptyRegionOrAMissingPlane) {
  LogCapture log;
  Plane a(64 * 64, 0);
  EXPECT_EQ(policy_manager_estimate_motion(a.data(), a.data(), 10, 10, 0, 20, 64, 64), -1);
  EXPECT_EQ(policy_manager_estimate_motion(a.data(), a.data(), 0, 20, 5, 4, 64, 64), -1);
  EXPECT_EQ(policy_manager_estimate_motion(nullptr, a.data(), 0, 20, 0, 20, 64, 64), -1);
  EXPECT_TRUE(log.lines().empty());
  logFlags.store(kLogTrace);
  EXPECT_EQ(policy_manager_estimate_motion(a.data(), a.data(), 10, 10, 0, 20, 64, 64), -1);
  EXPECT_EQ(policy_manager_estimate_motion(a.data(), nullptr, 0, 20, 0, 20, 64, 64), -1);
  EXPECT_EQ(log.count("invalid FACE RECT in Motion Estimation"), 1u);
  EXPECT_EQ(log.count("input data is NULL, a_pucInputImage = 0x"), 1u);
}

TEST(SceneMotion, SmallRegionSpacesBlocksEightApart) {
  // A 4 x 4 region anchored at (40, 40): with spacing 8 the first block sits at (32, 32). Its
  // match at displacement (-16, -16) is the first candidate searched and costs 0, so no later
  // candidate of any block can replace it.
  const int w = 96, h = 96;
  Plane stored = noise(w, h, 21);
  Plane current = noise(w, h, 22);
  copyBlock(current, 32, 32, stored, 16, 16, w);
  int32_t v[5][2];
  EXPECT_EQ(scene_measure_motion_search(current.data(), stored.data(), 36, 40, 36, 40, w, h, v), 5);
  for (auto& p : v) {
    EXPECT_EQ(p[0], -16);
    EXPECT_EQ(p[1], -16);
  }
}

TEST(SceneMotion, EqualCostsGoToTheLaterCandidateOnlyWhenNoLonger) {
  // Region (40..64, 40..64): spacing 24, anchor (64, 64), first block at (40, 40). Exact matches
  // at (0, -10) and later at p2; every other candidate of every block costs more than 0.
  const int w = 128, h = 128;
  struct Case {
    int p2x, p2y, wantX, wantY;
  } cases[] = {{6, 8, 6, 8}, {-10, 0, -10, 0}, {7, 8, 0, -10}, {0, 11, 0, -10}};
  for (const Case& c : cases) {
    Plane stored = noise(w, h, 31);
    Plane current = noise(w, h, 32);
    copyBlock(stored, 40 + c.p2x, 40 + c.p2y, stored, 40, 30, w);
    copyBlock(current, 40, 40, stored, 40, 30, w);
    int32_t v[5][2];
    int32_t fast = scene_measure_motion_search(current.data(), stored.data(), 40, 64, 40, 64, w, h, v);
    EXPECT_EQ(v[0][0], c.wantX) << c.p2x << "," << c.p2y;
    EXPECT_EQ(v[0][1], c.wantY) << c.p2x << "," << c.p2y;
    // Carried state: the later blocks find nothing at cost 0 and keep the vector.
    EXPECT_EQ(v[4][0], c.wantX);
    EXPECT_EQ(v[4][1], c.wantY);
    EXPECT_EQ(fast, 5);
    int32_t r[5][2];
    EXPECT_EQ(scene_measure_motion_search_reference(current.data(), stored.data(), 40, 64, 40, 64, w, h, r), fast);
    EXPECT_EQ(0, memcmp(v, r, sizeof v));
  }
}

TEST(SceneMotion, BestCostFallsEvenWhenTheVectorIsKept) {
  // Block 1: (0, -10) costs 5, then (10, 10) costs 0 but is longer, so the vector stays and the
  // best cost becomes 0. Block 2's own match at (1, 1) costs 3 and is therefore ignored.
  const int w = 128, h = 128;
  Plane stored = noise(w, h, 41);
  Plane current = noise(w, h, 42);
  copyBlock(stored, 50, 50, stored, 40, 30, w);
  copyBlock(current, 40, 40, stored, 40, 30, w);
  uint8_t& s = stored[30 * w + 40];
  s = static_cast<uint8_t>(s < 128 ? s + 5 : s - 5);
  copyBlock(current, 88, 40, stored, 89, 41, w);
  uint8_t& c = current[40 * w + 88];
  c = static_cast<uint8_t>(c < 128 ? c + 3 : c - 3);
  int32_t v[5][2];
  EXPECT_EQ(scene_measure_motion_search(current.data(), stored.data(), 40, 64, 40, 64, w, h, v), 5);
  EXPECT_EQ(v[0][0], 0);
  EXPECT_EQ(v[0][1], -10);
  EXPECT_EQ(v[1][0], 0);
  EXPECT_EQ(v[1][1], -10);
}

TEST(SceneMotion, CandidatesStartUpToEightColumnsLeftOfTheImage) {
  // Region (8..16, 32..40): spacing 8, first block at (8, 32), first candidate at (-8, 16),
  // which covers the last 8 bytes of rows 15..22.
  const int w = 64, h = 64;
  Plane stored = noise(w, h, 51);
  Plane current = noise(w, h, 52);
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i) current[(32 + j) * w + 8 + i] = stored[(15 + j) * w + 56 + i];
  int32_t v[5][2];
  EXPECT_EQ(scene_measure_motion_search(current.data(), stored.data(), 8, 16, 32, 40, w, h, v), 5);
  EXPECT_EQ(v[0][0], -16);
  EXPECT_EQ(v[0][1], -16);

  // One column further left (block at (7, 32), match at x = -9) is never evaluated.
  Plane current2 = noise(w, h, 53);
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i) current2[(32 + j) * w + 7 + i] = stored[(15 + j) * w + 55 + i];
  scene_measure_motion_search(current2.data(), stored.data(), 7, 15, 32, 40, w, h, v);
  EXPECT_FALSE(v[0][0] == -16 && v[0][1] == -16);
  int32_t r[5][2];
  scene_measure_motion_search_reference(current2.data(), stored.data(), 7, 15, 32, 40, w, h, r);
  EXPECT_EQ(0, memcmp(v, r, sizeof v));
}

TEST(SceneMotion, BytesBeforeThePlaneReadAsZero) {
  // First candidate at (-8, 0): its top row lies before the plane and reads as zeros, its other
  // rows are the ends of rows 0..6. A reference block built that way matches at cost 0.
  const int w = 64, h = 64;
  Plane stored = noise(w, h, 61);
  Plane current = noise(w, h, 62);
  for (int i = 0; i < 8; ++i) current[16 * w + 8 + i] = 0;
  for (int j = 1; j < 8; ++j)
    for (int i = 0; i < 8; ++i) current[(16 + j) * w + 8 + i] = stored[(j - 1) * w + 56 + i];
  int32_t v[5][2];
  scene_measure_motion_search(current.data(), stored.data(), 8, 16, 16, 24, w, h, v);
  EXPECT_EQ(v[0][0], -16);
  EXPECT_EQ(v[0][1], -16);
  EXPECT_EQ(scene_measure_read(stored.data(), -1, 0, w, static_cast<int64_t>(w) * h), kSceneOutsideValue);
  EXPECT_EQ(scene_measure_read(stored.data(), -1, 1, w, static_cast<int64_t>(w) * h), stored[w - 1]);
  EXPECT_EQ(scene_measure_read(stored.data(), 0, h, w, static_cast<int64_t>(w) * h), kSceneOutsideValue);
}

TEST(SceneMotion, FastMatchesReferenceOnRandomAndFlatScenes) {
  std::mt19937 rng(71);
  const int sizes[][2] = {{64, 48}, {24, 24}, {7, 40}, {40, 7}, {9, 9}, {100, 30}};
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    for (int maxValue : {255, 2}) {
      Plane a = noise(w, h, rng(), maxValue);
      Plane b = noise(w, h, rng(), maxValue);
      std::uniform_int_distribution<int> c(-20, 120);
      for (int k = 0; k < 12; ++k) {
        int l = c(rng), r = c(rng), t = c(rng), bt = c(rng);
        if (r <= l) r = l + 1 + static_cast<int>(rng() % 5);
        if (bt <= t) bt = t + 1 + static_cast<int>(rng() % 5);
        int32_t v[5][2], ref[5][2];
        const int32_t n1 = scene_measure_motion_search(a.data(), b.data(), l, r, t, bt, w, h, v);
        const int32_t n2 = scene_measure_motion_search_reference(a.data(), b.data(), l, r, t, bt, w, h, ref);
        ASSERT_EQ(n1, n2) << w << "x" << h << " region " << l << "," << r << "," << t << "," << bt;
        ASSERT_EQ(0, memcmp(v, ref, sizeof v)) << w << "x" << h << " region " << l << "," << r << "," << t << "," << bt;
      }
    }
  }
}

// The vector block cost against the plain one: random, flat and extreme blocks (all 0 against
// all 255 gives the largest sum), strides from a packed block up, each candidate block ending
// exactly at the end of its allocation so that a read past it faults under the address sanitizer.
TEST(SceneMotion, BlockCostVectorMatchesPlain) {
  std::mt19937 rng(5);
  for (int64_t stride : {8, 9, 17, 1920}) {
    for (int kind = 0; kind < 4; ++kind) {
      for (int round = 0; round < 20; ++round) {
        Plane ref = noise(8, 8, rng(), kind == 1 ? 3 : 255);
        std::vector<uint8_t> cand(static_cast<size_t>(7 * stride + 8));
        for (auto& b : cand) b = static_cast<uint8_t>(rng());
        if (kind == 2) {
          std::fill(ref.begin(), ref.end(), 0);
          std::fill(cand.begin(), cand.end(), 255);
        } else if (kind == 3) {
          for (int j = 0; j < 8; ++j) memcpy(&ref[j * 8], &cand[j * stride], 8);
        }
        const uint32_t full = scene_measure_block_cost_plain(ref.data(), cand.data(), stride, UINT32_MAX);
        ASSERT_EQ(scene_measure_block_cost(ref.data(), cand.data(), stride, UINT32_MAX), full) << stride;
        if (kind == 2) {
          ASSERT_EQ(full, 64u * 255u);
        } else if (kind == 3) {
          ASSERT_EQ(full, 0u);
        }
        // Under a limit both answer the same at or below it, and both answer above it otherwise.
        for (uint32_t limit : {0u, full / 2, full}) {
          const uint32_t v = scene_measure_block_cost(ref.data(), cand.data(), stride, limit);
          const uint32_t p = scene_measure_block_cost_plain(ref.data(), cand.data(), stride, limit);
          if (full <= limit) {
            ASSERT_EQ(v, full);
            ASSERT_EQ(p, full);
          } else {
            ASSERT_GT(v, limit);
            ASSERT_GT(p, limit);
          }
        }
      }
    }
  }
}

// Unrelated full-size frames (no match anywhere: every candidate is summed) and a panned one,
// with regions in the middle and against each edge of the frame.
TEST(SceneMotion, FastMatchesReferenceOnFullFrames) {
  const int w = 1920, h = 1080;
  const Plane a = noise(w, h, 11);
  const Plane unrelated = noise(w, h, 12);
  Plane panned(a.size(), 0);
  const Plane* const others[] = {&unrelated, &panned};
  for (int y = 2; y < h; ++y)
    memcpy(&panned[static_cast<size_t>(y) * w + 3], &a[static_cast<size_t>(y - 2) * w], w - 3);
  const int regions[][4] = {{860, 1060, 440, 640}, {0, 40, 0, 30}, {1880, 1920, 1050, 1080}, {1900, 1919, 0, 1079}};
  for (const Plane* b : others) {
    for (const auto& g : regions) {
      int32_t v[5][2], ref[5][2];
      const int32_t n1 = scene_measure_motion_search(a.data(), b->data(), g[0], g[1], g[2], g[3], w, h, v);
      const int32_t n2 = scene_measure_motion_search_reference(a.data(), b->data(), g[0], g[1], g[2], g[3], w, h, ref);
      ASSERT_EQ(n1, n2) << g[0] << "," << g[1] << "," << g[2] << "," << g[3];
      ASSERT_EQ(0, memcmp(v, ref, sizeof v)) << g[0] << "," << g[1] << "," << g[2] << "," << g[3];
    }
  }
}

TEST(SceneMotion, AccumulatorAddsEveryCallsVectors) {
  const int w = 96, h = 96;
  Plane stored = noise(w, h, 81);
  Plane current = noise(w, h, 82);
  copyBlock(current, 32, 32, stored, 16, 16, w);
  int32_t before[5][2];
  memcpy(before, policyMotionVectors, sizeof before);
  EXPECT_EQ(policy_manager_estimate_motion(current.data(), stored.data(), 36, 40, 36, 40, w, h), 5);
  EXPECT_EQ(policy_manager_estimate_motion(current.data(), stored.data(), 36, 40, 36, 40, w, h), 5);
  for (int k = 0; k < 5; ++k) {
    EXPECT_EQ(policyMotionVectors[k][0] - before[k][0], -32);
    EXPECT_EQ(policyMotionVectors[k][1] - before[k][1], -32);
  }
  // On a flat plane every candidate costs 0 and the shortest vector, (0, 0), wins.
  Plane flat(static_cast<size_t>(w) * h, 9);
  EXPECT_EQ(policy_manager_estimate_motion(flat.data(), flat.data(), 36, 40, 36, 40, w, h), 0);
}

// ---- mean absolute difference ----

TEST_F(FlagGuard, MeanDifferenceOverTheClippedInclusiveRegion) {
  const int w = 10, h = 8;
  Plane a(w * h, 10), b(w * h, 10);
  EXPECT_EQ(policy_manager_calculate_SAD(a.data(), b.data(), 0, 9, 0, 7, w, h), 0.0f);
  // Bounds are inclusive: (2..3, 2..3) is four pixels, one of which differs by 8.
  b[2 * w + 3] = 18;
  EXPECT_FLOAT_EQ(policy_manager_calculate_SAD(a.data(), b.data(), 2, 3, 2, 3, w, h), 2.0f);
  // Reaching past the plane counts only the pixels inside: rows 6..7, columns 8..9.
  b[7 * w + 9] = 2;
  EXPECT_FLOAT_EQ(policy_manager_calculate_SAD(a.data(), b.data(), 8, 50, 6, 50, w, h), 2.0f);
  EXPECT_FLOAT_EQ(policy_manager_calculate_SAD(b.data(), a.data(), -5, 9, -5, 7, w, h), 16.0f / 80.0f);
}

TEST_F(FlagGuard, MeanDifferenceIsNaNOutsideTheImageAndRefusesBadInput) {
  LogCapture log;
  const int w = 10, h = 8;
  Plane a(w * h, 10), b(w * h, 200);
  EXPECT_TRUE(std::isnan(policy_manager_calculate_SAD(a.data(), b.data(), 20, 30, 0, 5, w, h)));
  EXPECT_TRUE(std::isnan(policy_manager_calculate_SAD(a.data(), b.data(), -30, -20, -9, -2, w, h)));
  EXPECT_EQ(policy_manager_calculate_SAD(a.data(), b.data(), 3, 3, 0, 5, w, h), -1.0f);
  EXPECT_EQ(policy_manager_calculate_SAD(a.data(), nullptr, 0, 3, 0, 5, w, h), -1.0f);
  EXPECT_TRUE(log.lines().empty());
  logFlags.store(kLogTrace);
  EXPECT_EQ(policy_manager_calculate_SAD(a.data(), b.data(), 0, 3, 5, 5, w, h), -1.0f);
  EXPECT_EQ(policy_manager_calculate_SAD(nullptr, b.data(), 0, 3, 0, 5, w, h), -1.0f);
  EXPECT_EQ(log.count("invalid FACE RECT in CalculateSAD"), 1u);
  EXPECT_EQ(log.count("input data is NULL"), 1u);
  logFlags.store(kLogProfileMask);
  policy_manager_calculate_SAD(a.data(), b.data(), 20, 30, 0, 5, w, h);
  EXPECT_EQ(log.count("Average Pixel Diff = nan cost ") + log.count("Average Pixel Diff = -nan cost "), 1u);
}

}  // namespace
