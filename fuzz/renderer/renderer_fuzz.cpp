// renderer_fuzz.cpp - fuzz entry for the reference renderer's C interface: set-up, the refocus-map
// generator and the frame call.
//
// The bytes give the preview, depth, refocus and screen sizes (small, or one of a few the renderer
// must refuse), the image format, an optional calibration block (as the system passes it, in pair
// A or B, or a pair that contradicts itself), the depth map, focus point, map, f-number, flags and
// debug pictures. Every buffer is allocated at exactly its size so that the sanitizers catch a
// read or write outside it. A result the renderer does not document for the case traps.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "calib_block.h"
#include "engines/engines.h"
#include "fuzz_input.h"

namespace {

using Bytes = FuzzBytes;

const int32_t kOk = 0, kArgument = 0x4701, kSize = 0x4702, kFormat = 0x4703, kCalibration = 0x4705, kState = 0x4706,
              kNoDepth = 0x4708;

// Sizes the renderer must refuse, whatever the side.
const int32_t kWild[] = {0, -2, INT32_MIN, INT32_MAX, 1 << 20, 8194};

// A preview side: even, 16..128, or refused (odd or out of range).
int32_t preview_side(Bytes* in, bool* refused) {
  const uint8_t v = in->u8();
  if (v < 240) return 16 + 2 * (v % 57);
  *refused = true;
  if (v < 244) return 17 + 2 * (v % 4);  // odd
  return v < 250 ? kWild[v - 244] : 14;
}

// A map side: 4..64, or refused.
int32_t map_side(Bytes* in, bool* refused) {
  const uint8_t v = in->u8();
  if (v < 244) return 4 + v % 61;
  *refused = true;
  return v < 250 ? kWild[v - 244] : v == 250 ? 3 : 4097;
}

struct Setup {
  int32_t pw, ph, dw, dh, rw, rh;
  int32_t format;
  bool portrait;
};

// GLInit with fuzzed arguments; true when the renderer accepted them.
bool init(Bytes* in, uint8_t ctrl, Setup* s) {
  bool refused = false;
  s->pw = preview_side(in, &refused);
  s->ph = preview_side(in, &refused);
  s->dw = map_side(in, &refused);
  s->dh = map_side(in, &refused);
  s->rw = map_side(in, &refused);
  s->rh = map_side(in, &refused);
  const uint8_t screen = in->u8();
  const int32_t sw = screen < 250 ? screen * 64 : (refused = true, screen == 250 ? -1 : 16385);
  const int32_t sh = 1080;
  s->format = int32_t(in->u8() % 9) - 1;
  const bool formatOk = s->format == 0 || s->format == 2 || s->format == 3 || s->format == 7;
  s->portrait = (ctrl & 1) != 0;

  // The calibration: none, a block of the input in pair A or B, or a pair that contradicts itself.
  std::vector<uint8_t> block;
  const uint8_t calib = in->u8();
  const uint8_t* a = nullptr;
  const uint8_t* b = nullptr;
  int32_t sizeA = 0, sizeB = 0;
  bool pairBad = false;
  if ((calib & 3) != 0) {
    const size_t len = (calib & 0x10) != 0 ? size_t(in->u8() % CALIB_BLOCK_SIZE) : CALIB_BLOCK_SIZE;
    block.resize(len);
    for (uint8_t& v : block) v = in->u8();
    if ((calib & 0x20) != 0 && len == CALIB_BLOCK_SIZE) {  // resealed: the checks behind the checksum
      memset(block.data() + 12, 0, 4);
      const uint32_t crc = calib_block_crc32(block.data(), CALIB_BLOCK_SIZE);
      for (int i = 0; i < 4; ++i) block[size_t(12 + i)] = uint8_t(crc >> (8 * i));
    }
    const uint8_t* data = block.empty() ? nullptr : block.data();
    const int32_t size = int32_t(block.size());
    if ((calib & 3) == 1) a = data, sizeA = size;
    if ((calib & 3) == 2) b = data, sizeB = size;
    if ((calib & 3) == 3) a = data, sizeA = -size - 1, pairBad = true;  // an address with no size
  }
  CalibBlock decoded;
  const uint8_t* used = a != nullptr ? a : b;
  const int32_t usedSize = a != nullptr ? sizeA : sizeB;
  const int32_t read = used == nullptr || pairBad ? CALIB_OK : calib_block_read(used, size_t(usedSize), &decoded);

  const int32_t r = (ctrl & 4) != 0 ? vmKtrRT_GLInitV1_1(a, sizeA, b, sizeB, s->pw, s->ph, s->dw, s->dh, s->rw, s->rh,
                                                         sw, sh, s->portrait, ctrl >> 3 & 1, s->format, 0, in->u32())
                                    : vmKtrRT_GLInitV1(a, sizeA, b, sizeB, s->pw, s->ph, s->dw, s->dh, s->rw, s->rh, sw,
                                                       sh, s->portrait, ctrl >> 3 & 1, s->format, 0);
  // Sizes first, then the format, then the pairs, then the block's own reason.
  if (refused) {
    fuzz_check(r == kSize);
  } else if (!formatOk) {
    fuzz_check(r == kFormat);
  } else if (pairBad) {
    fuzz_check(r == kCalibration);
  } else if (read != CALIB_OK) {
    fuzz_check(r == read);
  } else {
    fuzz_check(r == kOk);
  }
  return r == kOk;
}

void frames(Bytes* in, uint8_t ctrl, const Setup& s) {
  const size_t depthSize = size_t(s.dw) * size_t(s.dh), mapSize = size_t(s.rw) * size_t(s.rh);
  std::vector<uint16_t> depth(depthSize);
  const uint8_t fill = in->u8();
  bool anyValid = false;
  for (size_t i = 0; i < depthSize; ++i) {
    depth[i] = (fill & 1) != 0 ? uint16_t(in->u16() & 0x7FF) : uint16_t((i * 37 + fill) % 1030);
    anyValid = anyValid || depth[i] < 1023;
  }
  const bool wide = (ctrl & 0x20) != 0;
  const int32_t fx = wide ? int32_t(in->u32()) : int32_t(in->u8()) - 32;
  const int32_t fy = wide ? int32_t(in->u32()) : int32_t(in->u8()) - 32;
  std::vector<uint8_t> map(mapSize);
  uint16_t lo = 0, hi = 0, target = 0;
  const bool ready = (ctrl & 0x40) == 0;
  if (ready) fuzz_check(vmKtrRT_GenRefocusMap_init() == kOk);
  const bool chip = (ctrl & 2) != 0;
  const int32_t g = chip
                        ? vmKtrRT_GenRefocusMap_VX4810_DispartyBase(map.data(), depth.data(), fx, fy, &lo, &hi, &target)
                        : vmKtrRT_GenRefocusMap(map.data(), depth.data(), fx, fy, &lo, &hi, &target);
  if (!ready) {
    fuzz_check(g == kState);
  } else if (!anyValid) {
    fuzz_check(g == kNoDepth);
  } else {
    fuzz_check(g == kOk);
    fuzz_check(lo <= target && target <= hi && hi < 1023);
  }
  if ((ctrl & 0x80) != 0)  // a map of the input's own, not the generator's
    for (uint8_t& v : map) v = in->u8();

  // Debug pictures: up to two small pictures anywhere, at any display size.
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE];
  memset(table, 0, sizeof table);
  std::vector<uint8_t> pictures[2];
  const uint8_t debug = in->u8();
  for (int k = 0; k < 2 && (debug & (1 << k)) != 0; ++k) {
    DebugPictureEntry& e = table[k];
    e.width = 1 + in->u8() % 16;
    e.height = 1 + in->u8() % 16;
    pictures[k].resize(size_t(e.width) * size_t(e.height) * 4);
    for (uint8_t& v : pictures[k]) v = in->u8();
    e.data = pictures[k].data();
    e.x = wide ? int32_t(in->u32()) : int32_t(in->u8()) - 64;
    e.y = wide ? int32_t(in->u32()) : int32_t(in->u8()) - 64;
    e.displayWidth = int32_t(in->u8()) - 8;
    e.displayHeight = int32_t(in->u8()) - 8;
  }
  if (debug != 0) {
    fuzz_check(vmKtrRT_GLShowDebugPicture(1, debug >> 7) == kOk);
    fuzz_check(vmKtrRT_GLSetDebugPicture(table) == kOk);
  }

  const size_t lumaSize = size_t(s.pw) * size_t(s.ph);
  std::vector<uint8_t> frame(lumaSize + lumaSize / 2);
  const uint8_t content = in->u8();
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = uint8_t(i * (content | 1) >> 3);
  // Any bit pattern, or a plausible f-number.
  const uint32_t bits = in->u32();
  float fNumber;
  if ((in->u8() & 1) != 0) {
    memcpy(&fNumber, &bits, sizeof fNumber);
  } else {
    fNumber = float(bits & 0xFF) / 16.0f;
  }
  const int32_t noMap = in->u8() % 3;
  const bool splitChroma = (content & 1) != 0;
  std::vector<uint8_t> chroma;
  if (splitChroma) chroma.assign(frame.begin() + long(lumaSize), frame.end());
  const int32_t r = vmKtrRT_GLStartV1(frame.data(), splitChroma ? chroma.data() : nullptr, map.data(), fx, fy, fNumber,
                                      noMap, 0, 0, s.pw, s.ph);
  const bool argOk = noMap != 2 && fNumber > 0.0f && !std::isinf(fNumber);
  fuzz_check(r == (argOk ? kOk : kArgument));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in{data, size, 0};
  const uint8_t ctrl = in.u8();
  KtrRTParameter effect{{0, 0, 0, 0, 1, 0}};
  vmKtrRT_SetParameter(2, effect);
  Setup s;
  if (init(&in, ctrl, &s)) {
    // Effect switch: sometimes off for the frame.
    effect.word[4] = in.u8() & 1;
    fuzz_check(vmKtrRT_SetParameter(2, effect) == kOk);
    frames(&in, ctrl, s);
  } else {
    // Nothing was set up: the generator and the frame call refuse.
    fuzz_check(vmKtrRT_GenRefocusMap_init() == kState);
    uint8_t luma[16] = {0};
    fuzz_check(vmKtrRT_GLStartV1(luma, nullptr, nullptr, 0, 0, 2.0f, 0, 0, 0, 0, 0) == kState);
  }
  vmKtrRT_GenRefocusMap_Deinit();
  vmKtrRT_GLShowDebugPicture(0, 0);
  vmKtrRT_GLClose();
  return 0;
}
