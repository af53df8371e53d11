// session_fuzz.cpp - fuzz entry driving the five exported functions in any order.
//
// The bytes are a program: each step picks Init, Run, Set_Function, Deinit or a debug property
// and fills its record from the following bytes. Sizes in the records are the caller's claims;
// every image and calibration block handed over is allocated at exactly its claimed size (the
// caller's side of the contract), so the sanitizers catch any read or write the library makes
// beyond what it was told. The engines are the recording fakes. Each input ends with Deinit.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fakes.h"
#include "fuzz_input.h"
#include "vmKtrRT_SC.h"
#include "vm_host_platform.h"

namespace {

struct Bytes : FuzzBytes {
  // A size: mostly small and sensible, sometimes any value.
  int32_t size(int32_t limit) {
    const uint8_t kind = u8();
    if (kind < 200) return static_cast<int32_t>(u16() % static_cast<uint32_t>(limit + 1));
    if (kind < 240) return -static_cast<int32_t>(u8());
    return i32();
  }
};

// Claimed sizes are honoured up to this many bytes; beyond it the claim is cut (a caller cannot
// hand over more memory than it has).
constexpr int32_t kMaxBlock = 1 << 17;

struct Owned {
  std::vector<uint8_t> otp, main, sub;
};

int32_t blockSize(int32_t claimed) {
  return claimed < 0 ? 0 : (claimed > kMaxBlock ? kMaxBlock : claimed);
}

// Where the second plane starts within an image block: after the luma the session expects.
int32_t lumaBytes(int32_t width, int32_t height) {
  const int64_t n = static_cast<int64_t>(width) * height;
  return n < 0 ? 0 : (n > kMaxBlock ? kMaxBlock : static_cast<int32_t>(n));
}

InitData initFrom(Bytes* in, Owned* own) {
  InitData d;
  memset(&d, 0, sizeof d);
  d.screenWidth = in->size(4096);
  d.screenHeight = in->size(4096);
  d.previewMainWidth = in->size(160);
  d.previewMainHeight = in->size(120);
  const uint8_t stride = in->u8();
  d.previewMainStride = (stride & 1) ? in->size(200) : d.previewMainWidth;
  d.previewMainScanline = (stride & 2) ? in->size(200) : d.previewMainHeight;
  d.previewSubWidth = in->size(160);
  d.previewSubHeight = in->size(120);
  d.previewSubStride = (stride & 4) ? in->size(200) : d.previewSubWidth;
  d.previewSubScanline = (stride & 8) ? in->size(200) : d.previewSubHeight;
  d.depthWidth = in->size(96);
  d.depthHeight = in->size(96);
  d.cameraLayout = in->u8();
  d.otpSize = in->size(512);
  own->otp.assign(static_cast<size_t>(blockSize(d.otpSize)), 0x5A);
  const uint8_t which = in->u8() % 3;
  // The block must hold what the size claims: a claim beyond what was allocated is cut.
  if (d.otpSize > kMaxBlock) d.otpSize = kMaxBlock;
  if (which == 0) d.otpData = own->otp.data();
  if (which == 1) d.otpDataAlt = own->otp.data();
  d.rendererExtraParam = in->u8() < 32 ? in->u16() : 0;
  d.OffRender = in->u8() % 3;
  d.isPortrait = in->u8() % 3;
  d.isGB = in->u8() % 3;
  d.isFrontCam = in->u8() % 3;
  d.ImageFormat = static_cast<int8_t>(in->u8()) % 9;
  d.ishighDepthQuality = in->u8() % 3;
  d.isUsingTemporalFilter = in->u8() % 3;
  d.isUsingDistanceMap = in->u8() % 3;
  return d;
}

void imageFrom(Bytes* in, std::vector<uint8_t>* block, ImageDesc* desc, int32_t planeOffset) {
  const int32_t claimed = in->size(160 * 120 * 2);
  const uint8_t kind = in->u8();
  block->assign(static_cast<size_t>(blockSize(claimed)), static_cast<uint8_t>(kind));
  for (size_t i = 0; i < block->size(); i += 7) (*block)[i] = in->u8();
  desc->size = claimed > kMaxBlock ? kMaxBlock : claimed;
  desc->data = (kind & 0x80) != 0 || block->empty() ? nullptr : block->data();
  // The second plane follows the first within the same block, as the frame's size covers both.
  const int32_t offset = planeOffset < 0 ? 0 : planeOffset;
  desc->plane2 = desc->data != nullptr && offset <= static_cast<int32_t>(block->size()) ? desc->data + offset : nullptr;
  desc->extra3 = kind;
  desc->extra4 = 0;
}

TriggerData triggerFrom(Bytes* in, Owned* own, int32_t mainLuma, int32_t subLuma) {
  TriggerData t;
  memset(&t, 0, sizeof t);
  t.vcmMain = in->i32();
  t.vcmSub = in->i32();
  const uint8_t f = in->u8();
  t.fnumber = f == 255 ? -1.0f : static_cast<float>(f) / 16.0f;
  t.regionLeft = static_cast<int16_t>(in->u16());
  t.regionRight = static_cast<int16_t>(in->u16());
  t.regionTop = static_cast<int16_t>(in->u16());
  t.regionBottom = static_cast<int16_t>(in->u16());
  imageFrom(in, &own->main, &t.mainImage, mainLuma);
  imageFrom(in, &own->sub, &t.subImage, subLuma);
  return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in{{data, size, 0}};
  Owned own;
  int32_t mainLuma = 0, subLuma = 0;
  vm_host_property_reset();
  fakes::reset();
  for (int step = 0; step < 64 && !in.done(); ++step) {
    switch (in.u8() % 6) {
      case 0: {
        const InitData d = initFrom(&in, &own);
        mainLuma = lumaBytes(d.previewMainWidth, d.previewMainHeight);
        subLuma = lumaBytes(d.previewSubWidth, d.previewSubHeight);
        vmKtrRT_SC_Init(d);
        break;
      }
      case 1:
      case 2: {
        const uint8_t frames = static_cast<uint8_t>(1 + in.u8() % 8);
        const TriggerData t = triggerFrom(&in, &own, mainLuma, subLuma);
        for (uint8_t k = 0; k < frames; ++k) vmKtrRT_SC_Run(t);
        break;
      }
      case 3:
        vmKtrRT_SC_Set_Function(in.u8() % 8, static_cast<int8_t>(in.u8()));
        break;
      case 4:
        vmKtrRT_SC_Deinit();
        break;
      case 5: {
        // Debug switches for the next Init; dumps stay off (they would write files).
        static const char* const kNames[] = {"persist.vm.ktrrt.sc.debug", "persist.vm.ktrrt.sc.display",
                                             "persist.vm.ktrrt.sc.info", "persist.vm.log.ktrrt.sc",
                                             "persist.vm.ktrrt.sc.dflag"};
        char value[16];
        snprintf(value, sizeof value, "%d", in.u16() & 0x1FF);
        vm_host_property_set(kNames[in.u8() % 5], value);
        break;
      }
    }
  }
  vmKtrRT_SC_Deinit();
  vm_host_property_reset();
  return 0;
}
