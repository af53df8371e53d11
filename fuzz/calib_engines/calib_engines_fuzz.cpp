// calib_engines_fuzz.cpp - fuzz entry for the calibration block reader and the two reference depth
// engines behind it.
//
// The bytes give a 128-byte block (optionally resealed, so that the checks behind the checksum are
// reached), the depth and guide sizes (small, or one of a few the engines must refuse) and the
// image contents. The block goes through the reader, a write/read round trip, the stereo engine's
// Init and one run, then the temporal filter's Init and one run on the engine's output. Buffers are
// allocated at exactly their size so that the sanitizers catch any read outside them. A broken
// promise (a code outside the documented ones, a sample out of range) traps.
#include <cstdint>
#include <cstring>
#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "fuzz_input.h"

namespace {

using Bytes = FuzzBytes;

// A small side (lo..lo+120) most of the time; sometimes one the engines must refuse.
int32_t side(Bytes* in, int32_t lo) {
  const uint8_t v = in->u8();
  if (v < 248) return lo + v % 121;
  static const int32_t kWild[] = {0, -1, 7, -8, 8193, 16385, 1 << 20, INT32_MIN};
  return kWild[v - 248];
}

bool small(int32_t v, int32_t lo) {
  return v >= lo && v <= lo + 120;
}

bool calib_code(int32_t r) {
  return r >= CALIB_ERR_MISSING && r <= CALIB_ERR_GEOMETRY;
}

void stereo_and_filter(Bytes* in, const std::vector<uint8_t>& block, int32_t blockSize, uint8_t ctrl) {
  const int32_t w = side(in, 8), h = side(in, 8);
  vmDpx2RT_FieldofDepth_Set(1 + (ctrl >> 4 & 1));
  const bool pairB = (ctrl & 2) != 0;
  const uint8_t* data = block.empty() ? nullptr : block.data();
  const int32_t r = pairB ? vmDpx2_Express_Init(nullptr, 0, w, h, data, blockSize)
                          : vmDpx2_Express_Init(data, blockSize, w, h, nullptr, 0);
  CalibBlock decoded;
  const int32_t read = calib_block_read(data, blockSize > 0 ? size_t(blockSize) : 0, &decoded);
  fuzz_check(read == CALIB_OK || r == read);  // the block's own reason comes first, unchanged
  if (read == CALIB_OK && !(small(w, 8) && small(h, 8))) fuzz_check(r == 1);
  if (r != 0) {
    fuzz_check(read != CALIB_OK || r == 1 || r == 0x701);
    // A refused Init leaves nothing to run.
    std::vector<uint16_t> none(1);
    fuzz_check(vmDpx2_Run_Express(none.data(), nullptr, nullptr, 0, 0) == 3);
    return;
  }
  fuzz_check(read == CALIB_OK);

  const size_t n = size_t(w) * size_t(h);
  std::vector<uint8_t> mainPlanes(3 * n), subPlanes(3 * n);
  const uint8_t pattern = in->u8();
  for (size_t i = 0; i < n; ++i) {
    mainPlanes[i] = (pattern & 1) ? in->u8() : uint8_t(i * 7 + i / size_t(w) * 3);
    subPlanes[i] = (pattern & 2) ? in->u8() : mainPlanes[(i + pattern % 9) % n];
  }
  DpxImage m{
      DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {mainPlanes.data(), mainPlanes.data() + n, mainPlanes.data() + 2 * n}};
  DpxImage s{
      DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {subPlanes.data(), subPlanes.data() + n, subPlanes.data() + 2 * n}};
  std::vector<uint16_t> depth(n, 0xBEEF);
  fuzz_check(vmDpx2_Run_Express(depth.data(), &m, &s, int32_t(in->u32()), int32_t(in->u32())) == 0);
  for (uint16_t d : depth) fuzz_check(d <= 1023);

  // The temporal filter on that map, guided by a main luma of its own (small) size.
  const int32_t mw = side(in, 1), mh = side(in, 1);
  const int32_t fr = vmZu_TemporalFilterU16_Init(mw, mh, w, h);
  if (!(small(mw, 1) && small(mh, 1))) {
    const bool inRange = mw > 0 && mh > 0 && mw <= 16384 && mh <= 16384;
    if (!inRange) fuzz_check(fr == 1);
    if (fr == 0) vmZu_TemporalFilterU16_Close();  // accepted, but too large to run here
  } else {
    fuzz_check(fr == 0);
    std::vector<uint8_t> guide(size_t(mw) * size_t(mh));
    for (size_t i = 0; i < guide.size(); ++i) guide[i] = (pattern & 4) ? in->u8() : mainPlanes[i % n];
    std::vector<uint16_t> filtered(n);
    for (int k = 0; k < 2; ++k) {
      fuzz_check(vmZu_TemporalFilterU16_Run(filtered.data(), depth.data(), w, h, guide.data(), mw, mh) == 0);
      for (uint16_t d : filtered) fuzz_check(d <= 1023);
    }
    // Sizes other than Init's are refused.
    fuzz_check(vmZu_TemporalFilterU16_Run(filtered.data(), depth.data(), w + 1, h, guide.data(), mw, mh) == 1);
    vmZu_TemporalFilterU16_Close();
  }
  fuzz_check(vmDpx2_Express_Close() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in{data, size, 0};
  const uint8_t ctrl = in.u8();
  // The block: up to 128 bytes of input; bit 0 reseals the checksum, bit 2 hands over only the
  // bytes the input held (a truncated block), bit 3 hands over no block at all.
  std::vector<uint8_t> block(CALIB_BLOCK_SIZE, 0);
  size_t got = 0;
  for (; got < CALIB_BLOCK_SIZE && in.at < in.n; ++got) block[got] = in.u8();
  if ((ctrl & 1) != 0) {
    memset(block.data() + 12, 0, 4);
    const uint32_t crc = calib_block_crc32(block.data(), CALIB_BLOCK_SIZE);
    for (int i = 0; i < 4; ++i) block[size_t(12 + i)] = uint8_t(crc >> (8 * i));
  }
  int32_t blockSize = CALIB_BLOCK_SIZE;
  if ((ctrl & 4) != 0) block.resize(got), blockSize = int32_t(got);
  if ((ctrl & 8) != 0) block.clear(), blockSize = 0;

  CalibBlock decoded;
  const int32_t read = calib_block_read(block.empty() ? nullptr : block.data(), block.size(), &decoded);
  fuzz_check(read == CALIB_OK || calib_code(read));
  if (read == CALIB_OK) {
    // What the reader accepts the writer writes, and it reads back the same.
    uint8_t again[CALIB_BLOCK_SIZE];
    fuzz_check(calib_block_write(&decoded, again, sizeof again) == CALIB_OK);
    CalibBlock back;
    fuzz_check(calib_block_read(again, sizeof again, &back) == CALIB_OK);
    fuzz_check(memcmp(&back, &decoded, sizeof back) == 0);
  }
  stereo_and_filter(&in, block, blockSize, ctrl);
  return 0;
}
