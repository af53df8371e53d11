// session_support.h - records, frames and waiting for the workers, for suites that drive the
// shared library through its five functions.
#ifndef VMKTR_TESTS_SESSION_SUPPORT_H
#define VMKTR_TESTS_SESSION_SUPPORT_H

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "fakes.h"
#include "vmKtrRT_SC.h"

struct Frames {
  int32_t mainW, mainH, subW, subH, depthW, depthH;
  std::vector<uint8_t> otp = std::vector<uint8_t>(64, 0x5C);
  std::vector<uint8_t> main, sub, chip;

  Frames(int32_t mw, int32_t mh, int32_t sw, int32_t sh, int32_t dw, int32_t dh)
      : mainW(mw), mainH(mh), subW(sw), subH(sh), depthW(dw), depthH(dh) {
    main.resize(static_cast<size_t>(mw) * mh * 3 / 2);
    sub.resize(static_cast<size_t>(sw) * sh * 3 / 2);
    chip.assign(static_cast<size_t>(dw) * dh * 2, 0);
    paint(0);
  }
  // Unrelated grey levels per 16 x 16 block: a different seed is a different scene.
  static uint8_t blockValue(int32_t bx, int32_t by, int32_t seed) {
    const uint32_t h = static_cast<uint32_t>(bx) * 73856093u ^ static_cast<uint32_t>(by) * 19349663u ^
                       static_cast<uint32_t>(seed + 1) * 83492791u;
    return static_cast<uint8_t>((h * 2654435761u) >> 24);
  }
  // A textured scene; seed picks it.
  void paint(int32_t seed) {
    for (int32_t y = 0; y < mainH; ++y)
      for (int32_t x = 0; x < mainW; ++x) main[static_cast<size_t>(y) * mainW + x] = blockValue(x / 16, y / 16, seed);
    memset(main.data() + static_cast<size_t>(mainW) * mainH, 128, static_cast<size_t>(mainW) * mainH / 2);
    for (size_t i = 0; i < sub.size(); ++i) sub[i] = static_cast<uint8_t>(i * 7 + seed);
    for (size_t i = 0; i + 1 < chip.size(); i += 2) {
      chip[i] = static_cast<uint8_t>(i / 2 + seed);
      chip[i + 1] = 0x01;
    }
  }

  InitData init(uint32_t layout = 2) {
    InitData d;
    memset(&d, 0, sizeof d);
    d.screenWidth = 1080;
    d.screenHeight = 2340;
    d.previewMainWidth = d.previewMainStride = mainW;
    d.previewMainHeight = d.previewMainScanline = mainH;
    d.previewSubWidth = d.previewSubStride = subW;
    d.previewSubHeight = d.previewSubScanline = subH;
    d.depthWidth = depthW;
    d.depthHeight = depthH;
    d.cameraLayout = layout;
    d.otpData = otp.data();
    d.otpSize = static_cast<int32_t>(otp.size());
    return d;
  }
  TriggerData trigger(int32_t left, int32_t right, int32_t top, int32_t bottom, bool chipDepth = false) {
    TriggerData t;
    memset(&t, 0, sizeof t);
    t.vcmMain = 300;
    t.vcmSub = 280;
    t.fnumber = 2.8f;
    t.regionLeft = left;
    t.regionRight = right;
    t.regionTop = top;
    t.regionBottom = bottom;
    t.mainImage.data = main.data();
    t.mainImage.size = static_cast<int32_t>(main.size());
    t.subImage.data = chipDepth ? chip.data() : sub.data();
    t.subImage.size = static_cast<int32_t>(chipDepth ? chip.size() : sub.size());
    return t;
  }
  // A region around the centre: 100 x 100 where the preview allows, else half the preview.
  TriggerData centred(bool chipDepth = false) {
    const int32_t hw = std::min(50, mainW / 4), hh = std::min(50, mainH / 4);
    return trigger(mainW / 2 - hw, mainW / 2 + hw, mainH / 2 - hh, mainH / 2 + hh, chipDepth);
  }
};

inline bool waitUntil(const std::function<bool()>& done, int32_t ms = 3000) {
  for (int32_t i = 0; i < ms; ++i) {
    if (done()) return true;
    usleep(1000);
  }
  return done();
}

#endif  // VMKTR_TESTS_SESSION_SUPPORT_H
