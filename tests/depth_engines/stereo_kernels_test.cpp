// stereo_kernels_test.cpp - every vector kernel set of the stereo matcher against the plain
// reference, bit for bit: each kernel on random input with exactly sized buffers (so the
// sanitizers see any overread), and whole runs on random and synthetic pairs.
#include "stereo_kernels.h"

#include <gtest/gtest.h>

#include <vector>

#include "stereo_core.h"
#include "synth_scene.h"

namespace {

struct Rng {
  uint64_t s;
  uint32_t next() {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return uint32_t(s >> 33);
  }
};

std::vector<const StereoKernels*> vector_sets() {
  std::vector<const StereoKernels*> sets = {stereo_kernels_v128()};
  if (stereo_kernels_avx2() != nullptr) sets.push_back(stereo_kernels_avx2());
  return sets;
}

std::vector<uint8_t> random_image(Rng& r, int32_t w, int32_t h, int32_t levels) {
  std::vector<uint8_t> img(size_t(w) * size_t(h));
  for (uint8_t& v : img) v = uint8_t(r.next() % uint32_t(levels) * (255 / (levels - 1)));
  return img;
}

TEST(StereoKernels, CensusMatchesTheReference) {
  Rng r{7};
  for (const StereoKernels* k : vector_sets()) {
    for (int32_t quality : {1, 2}) {
      for (int32_t w : {9, 33, 70}) {
        const int32_t h = 11;
        // Few grey levels give many equal neighbours, where a wrong comparison would show.
        std::vector<uint8_t> img = random_image(r, w, h, 4);
        std::vector<uint64_t> plain(img.size()), fast(img.size());
        stereo_census_with(stereo_kernels_plain(), img.data(), w, w, h, quality, plain.data());
        stereo_census_with(k, img.data(), w, w, h, quality, fast.data());
        EXPECT_EQ(plain, fast) << k->name << " quality " << quality << " width " << w;
      }
    }
  }
}

// Costs of one row, with the right row reversed between zero margins as stereo_run lays it out.
template <typename Word>
std::vector<uint8_t> costs(const StereoKernels* k, const std::vector<Word>& left, const std::vector<Word>& right,
                           int32_t nd, int32_t dmin, int32_t bits) {
  const int32_t w = int32_t(left.size());
  const size_t margin = size_t(nd) + size_t(dmin < 0 ? -dmin : dmin) + 32;
  std::vector<Word> reversed(size_t(w) + 2 * margin, 0);
  for (int32_t t = 0; t < w; ++t) reversed[margin + size_t(t)] = right[size_t(w - 1 - t)];
  std::vector<uint8_t> out(size_t(w) * size_t(nd), 0xAB);
  k->cost_row(left.data(), reversed.data() + margin, w, nd, dmin, bits, sizeof(Word) == 8, out.data());
  return out;
}

TEST(StereoKernels, CostsMatchTheReferenceInsideAndAtTheSides) {
  Rng r{11};
  for (const StereoKernels* k : vector_sets()) {
    for (int32_t nd : {16, 64}) {
      for (int32_t dmin : {-6, 0, 5}) {
        for (int32_t w : {23, 80}) {
          std::vector<uint32_t> l32(static_cast<size_t>(w)), r32(l32.size());
          std::vector<uint64_t> l64(l32.size()), r64(l32.size());
          for (int32_t x = 0; x < w; ++x) {
            l32[size_t(x)] = r.next() & 0x3FFFFFFFu;
            r32[size_t(x)] = r.next() & 0x3FFFFFFFu;
            l64[size_t(x)] = (uint64_t(r.next()) << 32 | r.next()) >> 2;
            r64[size_t(x)] = (uint64_t(r.next()) << 32 | r.next()) >> 2;
          }
          EXPECT_EQ(costs(stereo_kernels_plain(), l32, r32, nd, dmin, 30), costs(k, l32, r32, nd, dmin, 30))
              << k->name << " nd " << nd << " dmin " << dmin << " w " << w;
          EXPECT_EQ(costs(stereo_kernels_plain(), l64, r64, nd, dmin, 62), costs(k, l64, r64, nd, dmin, 62))
              << k->name << " nd " << nd << " dmin " << dmin << " w " << w;
        }
      }
    }
  }
}

struct Selected {
  std::vector<int16_t> disp, rowDisp;
  std::vector<uint8_t> kind;
  std::vector<uint16_t> rowMin;
};

Selected select(const StereoKernels* k, const std::vector<uint16_t>& sum, int32_t w, int32_t nd, int32_t dmin,
                int32_t uniqueness, bool small = false) {
  const int32_t margin = nd + (dmin < 0 ? -dmin : dmin) + 32;
  Selected s;
  s.disp.assign(size_t(w), 0);
  s.kind.assign(size_t(w), 9);
  s.rowMin.assign(size_t(w + 2 * margin), 0xFFFF);
  s.rowDisp.assign(size_t(w + 2 * margin), STEREO_INVALID);
  (small ? k->select_row_small : k->select_row)(sum.data(), w, nd, dmin, uniqueness, s.disp.data(), s.kind.data(),
                                                s.rowMin.data() + margin, s.rowDisp.data() + margin);
  // Only the right view's real pixels count; the margins are scratch.
  s.rowMin = std::vector<uint16_t>(s.rowMin.begin() + margin, s.rowMin.begin() + margin + w);
  s.rowDisp = std::vector<int16_t>(s.rowDisp.begin() + margin, s.rowDisp.begin() + margin + w);
  return s;
}

TEST(StereoKernels, SelectionMatchesTheReferenceWithTies) {
  Rng r{13};
  for (const StereoKernels* k : vector_sets()) {
    for (int32_t nd : {16, 48, 64}) {
      if (nd % k->lanes != 0) continue;
      for (int32_t dmin : {-3, 0, 4}) {
        // A small range makes ties common; range 0: saturated sums (0xFFFF, a few 0xFFFE), so
        // that whole pixels have no smaller value. Sums below 1023 also go the packed-key way.
        for (uint32_t range : {4u, 1023u, 3000u, 65536u, 0u}) {
          const int32_t w = 45;
          std::vector<uint16_t> sum(size_t(w) * size_t(nd));
          for (uint16_t& v : sum)
            v = range > 0 ? uint16_t(r.next() % range) : uint16_t(r.next() % 50 ? 0xFFFF : 0xFFFE);
          for (int32_t uniqueness : {5, 0, 60}) {
            Selected a = select(stereo_kernels_plain(), sum, w, nd, dmin, uniqueness);
            for (bool small : {false, true}) {
              if (small && (range == 0 || range > 1023 || nd > 64)) continue;
              Selected b = select(k, sum, w, nd, dmin, uniqueness, small);
              EXPECT_EQ(a.disp, b.disp) << k->name << " nd " << nd << " dmin " << dmin << " range " << range
                                        << " small " << small;
              EXPECT_EQ(a.kind, b.kind) << k->name << " small " << small;
              EXPECT_EQ(a.rowMin, b.rowMin) << k->name << " small " << small;
              EXPECT_EQ(a.rowDisp, b.rowDisp) << k->name << " small " << small;
            }
          }
        }
      }
    }
  }
}

// Whole runs: aggregation (every path layout, saturating sums) and all later stages.
std::vector<int16_t> run(const StereoKernels* k, const StereoParams& p, const std::vector<uint8_t>& left,
                         const std::vector<uint8_t>& right) {
  StereoBuffers b;
  EXPECT_TRUE(stereo_alloc(&b, &p));
  b.kernels = k;
  std::vector<int16_t> d(size_t(p.width) * size_t(p.height));
  stereo_run(&b, left.data(), p.width, right.data(), p.width, d.data());
  stereo_free(&b);
  return d;
}

TEST(StereoKernels, WholeRunsMatchTheReferenceOnRandomPairs) {
  Rng r{17};
  for (const StereoKernels* k : vector_sets()) {
    for (int32_t quality : {1, 2}) {
      for (int32_t passes : {1, 2}) {
        for (int32_t paths : {4, 8}) {
          if (passes == 1 && paths == 8) continue;  // one pass always walks three paths
          StereoParams p;
          ASSERT_TRUE(stereo_params_default(&p, 53, 21, paths == 4 ? -3 : 2, 32, quality));
          p.passes = passes;
          p.paths = paths;
          std::vector<uint8_t> left = random_image(r, p.width, p.height, 256), right = left;
          for (size_t i = 0; i + 4 < right.size(); ++i) right[i] = left[i + 4];  // a 4-pixel shift plus noise
          for (uint8_t& v : right) v = uint8_t(v ^ (r.next() % 8 == 0 ? 0x10 : 0));
          const std::vector<int16_t> plain = run(stereo_kernels_plain(), p, left, right);
          EXPECT_EQ(plain, run(k, p, left, right)) << k->name << " quality " << quality << " passes " << passes;
          p.p2 = 60000;  // sums saturate
          EXPECT_EQ(run(stereo_kernels_plain(), p, left, right), run(k, p, left, right)) << k->name << " saturating";
        }
      }
    }
  }
}

// Byte path costs are used only where they are exact: the same maps as 16-bit ones.
TEST(StereoKernels, BytePathCostsGiveTheSameMapsAsSixteenBit) {
  Rng r{19};
  std::vector<const StereoKernels*> sets = vector_sets();
  sets.push_back(stereo_kernels_plain());
  for (const StereoKernels* k : sets) {
    for (int32_t passes : {1, 2}) {
      StereoParams p;
      ASSERT_TRUE(stereo_params_default(&p, 70, 24, 0, 64, 1));
      p.passes = passes;
      std::vector<uint8_t> left = random_image(r, p.width, p.height, 256), right = left;
      for (size_t i = 0; i + 7 < right.size(); ++i) right[i] = uint8_t(left[i + 7] + (r.next() % 5));
      const std::vector<int16_t> bytes = run(k, p, left, right);
      p.bytePaths = false;
      EXPECT_EQ(bytes, run(k, p, left, right)) << k->name << " passes " << passes;
    }
  }
}

TEST(StereoKernels, WholeRunsMatchTheReferenceOnASyntheticScene) {
  const int32_t w = 128, h = 72;
  SceneSpec s;
  scene_default(&s, 3);
  s.noiseSigma = 1.0f;
  std::vector<uint8_t> main(size_t(w) * h * 3 / 2), sub(main.size());
  ASSERT_EQ(0, scene_render_nv21(&s, 0, 0, w, h, 2, main.data()));
  ASSERT_EQ(0, scene_render_nv21(&s, 0, 1, w, h, 2, sub.data()));
  main.resize(size_t(w) * h);  // the luma planes
  sub.resize(size_t(w) * h);
  for (const StereoKernels* k : vector_sets()) {
    for (int32_t quality : {1, 2}) {
      StereoParams p;
      ASSERT_TRUE(stereo_params_default(&p, w, h, 0, 48, quality));
      if (p.disparities % k->lanes != 0) p.disparities = 64;
      EXPECT_EQ(run(stereo_kernels_plain(), p, main, sub), run(k, p, main, sub)) << k->name << " quality " << quality;
    }
  }
}

}  // namespace
