// The system library with the reference depth engine, temporal filter and renderer, driven only
// through its five exported functions on a synthetic still scene: the depth it publishes (read
// back from its own depth dump) is scored against the scene's ground truth.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "calib_block.h"
#include "log_capture.h"
#include "synth_scene.h"
#include "test_dump_dir.h"
#include "vmKtrRT_SC.h"

namespace {

const std::string kDumpDir = VMKTR_DUMP_DIR_FOR_TESTS;

void clearDepthDumps() {
  if (DIR* d = opendir(kDumpDir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string n = e->d_name;
      if (n.find("-depth-") != std::string::npos) unlink((kDumpDir + "/" + n).c_str());
    }
    closedir(d);
  }
}

// The newest depth dump (highest frame counter), or an empty map.
std::vector<uint16_t> newestDepthDump(size_t samples) {
  std::string best;
  int bestCounter = -1;
  if (DIR* d = opendir(kDumpDir.c_str())) {
    while (dirent* e = readdir(d)) {
      int counter = 0;
      const std::string n = e->d_name;
      if (n.find("-depth-") == std::string::npos || n.find(".raw") == std::string::npos) continue;
      if (sscanf(n.c_str(), "%d-", &counter) == 1 && counter > bestCounter) bestCounter = counter, best = n;
    }
    closedir(d);
  }
  std::vector<uint16_t> map;
  if (best.empty()) return map;
  std::ifstream f(kDumpDir + "/" + best, std::ios::binary);
  map.resize(samples);
  f.read(reinterpret_cast<char*>(map.data()), static_cast<std::streamsize>(samples * 2));
  if (static_cast<size_t>(f.gcount()) != samples * 2) map.clear();
  return map;
}

class SystemOnReferenceEngines : public PropertyFixture {};

TEST_F(SystemOnReferenceEngines, StillSceneDepthIsWithinTheEnginesBound) {
  constexpr int32_t kW = 640, kH = 360, kDepthW = 320, kDepthH = 180;
  SceneSpec desc;
  scene_default(&desc, 3);
  desc.noiseSigma = 1.0f;
  std::vector<uint8_t> main(kW * kH * 3 / 2), sub(main.size()), work(main.size());
  ASSERT_EQ(scene_render_nv21(&desc, 0, 0, kW, kH, 2, main.data()), 0);
  ASSERT_EQ(scene_render_nv21(&desc, 0, 1, kW, kH, 2, sub.data()), 0);
  std::vector<uint8_t> calib(CALIB_BLOCK_SIZE);
  ASSERT_EQ(scene_calibration(&desc, kW, kH, kW, kH, calib.data(), CALIB_BLOCK_SIZE), 0);

  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.dump", "4");  // depth dumps
  clearDepthDumps();
  InitData init{};
  init.screenWidth = 1080;
  init.screenHeight = 2340;
  init.previewMainWidth = init.previewMainStride = init.previewSubWidth = init.previewSubStride = kW;
  init.previewMainHeight = init.previewMainScanline = init.previewSubHeight = init.previewSubScanline = kH;
  init.depthWidth = kDepthW;
  init.depthHeight = kDepthH;
  init.cameraLayout = 2;
  init.otpData = calib.data();
  init.otpSize = static_cast<int32_t>(calib.size());
  init.OffRender = 1;
  ASSERT_EQ(vmKtrRT_SC_Init(init), 0u);

  std::vector<uint16_t> depth;
  int32_t renders = 0;
  for (int frame = 0; frame < 600 && (depth.empty() || renders == 0 || frame < 40); ++frame) {
    work = main;  // the library renders in place
    TriggerData t{};
    t.vcmMain = t.vcmSub = 300;
    t.fnumber = 2.0f;
    t.regionLeft = kW / 2 - 20;
    t.regionRight = kW / 2 + 20;
    t.regionTop = kH / 2 - 20;
    t.regionBottom = kH / 2 + 20;
    t.mainImage.data = work.data();
    t.mainImage.plane2 = work.data() + kW * kH;
    t.mainImage.size = static_cast<int32_t>(work.size());
    t.subImage.data = sub.data();
    t.subImage.plane2 = sub.data() + kW * kH;
    t.subImage.size = static_cast<int32_t>(sub.size());
    const int32_t r = static_cast<int32_t>(vmKtrRT_SC_Run(t));
    ASSERT_GE(r, 0) << "renderer code " << -r << " at frame " << frame;
    renders += r == 0 ? 1 : 0;  // 0: rendered with a published map
    if (depth.empty()) depth = newestDepthDump(static_cast<size_t>(kDepthW) * kDepthH);
    usleep(5000);  // frames arrive at camera pace, not in a burst
  }
  EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  ASSERT_FALSE(depth.empty()) << "no depth map was published";
  EXPECT_GT(renders, 0) << "no frame rendered with a refocus map";

  // Depth samples are disparity in 1/16 pixel of the depth grid; 1023 means none.
  std::vector<float> truth(static_cast<size_t>(kDepthW) * kDepthH);
  ASSERT_EQ(scene_truth_disparity(&desc, 0, kDepthW, kDepthH, truth.data()), 0);
  size_t bad = 0, valid = 0;
  for (size_t i = 0; i < truth.size(); ++i) {
    if (depth[i] == 1023) {
      ++bad;
      continue;
    }
    ++valid;
    if (std::fabs(depth[i] / 16.0 - truth[i]) > 1.0) ++bad;
  }
  const double badRate = 100.0 * static_cast<double>(bad) / static_cast<double>(truth.size());
  const double fill = 100.0 * static_cast<double>(valid) / static_cast<double>(truth.size());
  // The engine's own bound on synthetic scenes: under 8% of pixels off by more than a pixel.
  EXPECT_LT(badRate, 8.0) << "fill " << fill << "%";
  RecordProperty("bad1_percent", std::to_string(badRate));
  printf("published depth: bad 1.0 = %.2f%%, fill %.1f%%\n", badRate, fill);
}

}  // namespace
