// buffer_copy_fuzz.cpp - fuzz entry for the copy of a caller's frame into a slot buffer.
//
// The bytes describe one destination buffer and up to four frames copied into it in turn:
// format code, width, height, stride, scanline, claimed size, null or present planes. Every
// buffer the target owns is allocated at exactly the size it claims (a two-plane frame's luma
// plane holds width x height bytes and its chroma plane the rest of the claimed size; any other
// frame is one block of the claimed size, with an empty second plane when one is given), so
// that the sanitizers catch a read or write past any of them.
//
// Each call must log at most one refusal line. A refused copy must leave the destination's bytes
// and size as they were; an accepted one must be one the frame allowed (non-null buffers, source
// size within the destination's, unpadded, a known format) and must match a per-pixel model of
// the format's layout, written here from the format's description, whose own reads and writes
// are bounds-checked against what the target owns. A frame that plainly covers its format must
// be accepted. A disagreement traps.
//
// Input layout (little-endian; past its end every byte reads 0):
//   destination: flags u8 (bit 0 null data, bits 1-2 capacity form, bits 3-4 size-field form),
//                then the capacity and size-field values the forms take
//   each frame:  format u8, width dim, height dim, flags u8 (bit 0 stride differs, bit 1
//                scanline differs, bit 2 second plane given, bit 3 null data, bits 4-5 size form),
//                the stride and scanline deltas (i8, when flagged), the size value, a fill seed u8
//   dim:         form u8 (0 u8, 1 u16 below 4097, 2 one of the edge values, 3 any i32), value
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "flow/session_context.h"
#include "fuzz_input.h"
#include "memory/buffer_manager.h"
#include "vm_host_platform.h"

namespace {

// Largest block the target allocates (1920 x 1080 slots fit); a larger claim is folded below
// 64 KiB, which keeps the runs fast and the claim exact.
const int64_t kMaxBytes = int64_t{1} << 22;
const int kMaxFrames = 4;

using Bytes = FuzzBytes;

int32_t dim(Bytes* in) {
  static const int32_t kEdge[] = {0,     1,     2,     3,     4,    5,    6,         7,        8,
                                  -1,    -2,    -4,    1920,  1080, 1440, 65535,     65536,    46340,
                                  46341, 32768, 16384, 65537, 4096, 2047, INT32_MAX, INT32_MIN};
  switch (in->u8() % 4) {
    case 0:
      return in->u8();
    case 1:
      return in->u16() % 4097;
    case 2:
      return kEdge[in->u8() % (sizeof kEdge / sizeof kEdge[0])];
    default:
      return static_cast<int32_t>(in->u32());
  }
}

int32_t cut(int64_t bytes) {
  return static_cast<int32_t>(bytes > kMaxBytes ? bytes % 65536 : bytes);
}

// a + b in two's complement, as a caller's own arithmetic would give it.
int32_t wrapped(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// An exactly sized block; a zero-byte block is still a distinct pointer no byte of which may be touched.
struct Block {
  uint8_t* p = nullptr;
  size_t n = 0;
  void take(int64_t bytes) {
    n = bytes > 0 ? static_cast<size_t>(bytes) : 0;
    p = static_cast<uint8_t*>(malloc(n));
  }
  ~Block() { free(p); }
};

// Log lines seen since the last reset.
int g_bufferErrors = 0;
int g_notSupported = 0;
void countLine(void*, int, const char*, const char* message) {
  if (strstr(message, "<VEMTA_LOG>!!!BUFFER ERROR!!!\n") != nullptr) ++g_bufferErrors;
  if (strstr(message, "<VEMTA_LOG>!!!ERROR!!! NOT SUPPORT.............\n") != nullptr) ++g_notSupported;
}

// The bytes a normal frame of the format claims; negative dimensions claim nothing.
int64_t usualSize(int32_t format, int64_t pixels) {
  if (pixels < 0) return 0;
  if (format == 2) return pixels + 2 * (pixels / 4);
  if (format == 6) return pixels + pixels / 2;
  return 2 * pixels;
}

// Reads and writes of the layout model; any index outside what the target owns traps.
uint8_t at(const Block& b, int64_t i) {
  fuzz_check(b.p != nullptr && i >= 0 && i < static_cast<int64_t>(b.n));
  return b.p[i];
}
void put(std::vector<uint8_t>* out, int64_t i, uint8_t v) {
  fuzz_check(i >= 0 && i < static_cast<int64_t>(out->size()));
  (*out)[static_cast<size_t>(i)] = v;
}
// The first n bytes of the source unchanged.
void head(std::vector<uint8_t>* out, const Block& data, int64_t n) {
  if (n <= 0) return;
  fuzz_check(data.p != nullptr && n <= static_cast<int64_t>(data.n) && n <= static_cast<int64_t>(out->size()));
  memcpy(out->data(), data.p, static_cast<size_t>(n));
}

// What the destination holds after an accepted copy, from its previous bytes.
void model(std::vector<uint8_t>* out, const Block& data, const Block& plane2, int32_t format, int32_t width,
           int32_t height, int32_t size) {
  const int64_t pixels = static_cast<int64_t>(width) * height;
  switch (format) {
    case 2:
      head(out, data, pixels);
      // Two chroma planes of W x H / 4 bytes each, interleaved first plane first.
      if (pixels >= 4)
        for (int64_t i = 0; i < pixels / 4; ++i) {
          put(out, pixels + 2 * i, at(data, pixels + i));
          put(out, pixels + 2 * i + 1, at(data, pixels + pixels / 4 + i));
        }
      break;
    case 6:
      head(out, data, pixels);
      // Row y, pair k takes the source chroma pair at (k rounded down to even) + (y >> 2) x 2 x W;
      // chroma rows are W rounded down to even bytes long.
      for (int64_t y = 0; y < height; ++y)
        for (int64_t k = 0; k < width / 2; ++k) {
          const int64_t s = (k & ~int64_t{1}) + (y >> 2) * 2 * width;
          const int64_t d = pixels + y * (width & ~1) + 2 * k;
          put(out, d, at(plane2, s));
          put(out, d + 1, at(plane2, s + 1));
        }
      break;
    default:
      head(out, data, size);
      break;
  }
}

// A pattern whose period (251 bytes, prime) matches no row or plane length of interest.
void fill(Block* b, uint8_t seed) {
  uint8_t period[251];
  for (size_t i = 0; i < sizeof period; ++i) period[i] = static_cast<uint8_t>(i * 131 + seed);
  for (size_t i = 0; i < b->n; i += sizeof period)
    memcpy(b->p + i, period, b->n - i < sizeof period ? b->n - i : sizeof period);
}

void frame(Bytes* in, BufferHalf* dst, int32_t capacity) {
  const uint8_t f = in->u8();
  // Mostly the codes 0..9; otherwise any small signed code or the extremes.
  const int32_t format = f < 200 ? f % 10 : f < 250 ? static_cast<int8_t>(in->u8()) : f & 1 ? INT32_MAX : INT32_MIN;
  const int32_t width = dim(in);
  const int32_t height = dim(in);
  const uint8_t flags = in->u8();
  const int32_t stride = (flags & 1) != 0 ? wrapped(width, static_cast<int8_t>(in->u8())) : width;
  const int32_t scanline = (flags & 2) != 0 ? wrapped(height, static_cast<int8_t>(in->u8())) : height;
  const bool hasPlane2 = (flags & 4) != 0;
  const bool nullData = (flags & 8) != 0;
  const int64_t pixels = width > 0 && height > 0 ? static_cast<int64_t>(width) * height : -1;
  int32_t size;
  switch ((flags >> 4) & 3) {
    case 0:
      size = cut(usualSize(format, pixels));
      break;
    case 1:
      size = cut(usualSize(format, pixels) + static_cast<int8_t>(in->u8()));
      break;
    case 2:
      size = in->u16();
      break;
    default:
      size = cut(static_cast<int32_t>(in->u32()));
      break;
  }
  const uint8_t seed = in->u8();

  Block data, plane2;
  if (format == 6 && hasPlane2) {
    // Luma in the first plane, the rest of the claimed bytes in the second.
    const int64_t luma = pixels > 0 && pixels <= size ? pixels : size;
    if (!nullData) data.take(luma);
    plane2.take(size > luma ? size - luma : 0);
  } else {
    if (!nullData) data.take(size);
    if (hasPlane2) plane2.take(0);
  }
  if (data.p != nullptr) fill(&data, seed);
  if (plane2.p != nullptr) fill(&plane2, static_cast<uint8_t>(seed ^ 0x5A));
  ImageDesc src{};
  src.data = data.p;
  src.plane2 = plane2.p;
  src.size = size;

  const uint8_t* dstData = dst->data;
  std::vector<uint8_t> before;
  if (dstData != nullptr) before.assign(dstData, dstData + capacity);
  const int32_t sizeBefore = dst->size;
  const uint32_t stateBefore = dst->state.load();
  g_bufferErrors = g_notSupported = 0;
  buffer_manager_copy_buffer_from_trigger(dst, &src, format, width, height, stride, scanline);

  fuzz_check(dst->data == dstData && dst->capacity == capacity && dst->state.load() == stateBefore);
  const int refusals = g_bufferErrors + g_notSupported;
  fuzz_check(refusals <= 1);
  const bool unpadded = width == stride && height == scanline;
  const bool known = format >= 0 && format <= 6;
  if (refusals == 1) {
    fuzz_check(dst->size == sizeBefore);
    fuzz_check(before.empty() || memcmp(before.data(), dstData, before.size()) == 0);
    // A frame that plainly covers its format is not refused.
    const bool plain = dstData != nullptr && data.p != nullptr && size >= 0 && size <= sizeBefore && size <= capacity &&
                       unpadded && known && (format != 2 || (pixels > 0 && size >= usualSize(2, pixels))) &&
                       (format != 6 || (hasPlane2 && pixels > 0 && width % 2 == 0 && height % 2 == 0 &&
                                        size >= usualSize(6, pixels) && 2 * pixels <= capacity));
    fuzz_check(!plain);
    return;
  }
  fuzz_check(dstData != nullptr && data.p != nullptr && size >= 0 && size <= sizeBefore && unpadded && known);
  fuzz_check(format != 6 || plane2.p != nullptr);
  fuzz_check(dst->size == size);
  model(&before, data, plane2, format, width, height, size);
  fuzz_check(before.empty() || memcmp(before.data(), dstData, before.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t n) {
  static bool hooked = false;
  if (!hooked) {
    vm_host_log_set_hook(countLine, nullptr);
    hooked = true;
  }
  Bytes in{bytes, n, 0};
  const uint8_t flags = in.u8();
  int64_t capacity;
  switch ((flags >> 1) & 3) {
    case 0: {
      // A main-preview slot's half, from its dimensions in steps of 8 pixels.
      const int32_t w = 8 * in.u8(), h = 8 * in.u8();
      capacity = buffer_manager_half_size(w, h, 2);
      break;
    }
    case 1:
      capacity = in.u16();
      break;
    case 2:
      capacity = in.u8();
      break;
    default:
      capacity = in.u32() % (kMaxBytes + 1);
      break;
  }
  capacity = capacity < 0 ? 0 : capacity > kMaxBytes ? kMaxBytes : capacity;
  Block block;
  if ((flags & 1) == 0) {
    block.take(capacity);
    if (block.p != nullptr) memset(block.p, 0xEE, block.n);
  }
  BufferHalf dst;
  dst.data = block.p;
  dst.capacity = static_cast<int32_t>(capacity);
  dst.state.store(kSlotFree);
  switch ((flags >> 3) & 3) {
    case 0:
      dst.size = dst.capacity;
      break;
    case 1:
      dst.size = dst.capacity - in.u8();
      break;
    case 2:
      dst.size = static_cast<int32_t>(in.u32());
      break;
    default:
      dst.size = dst.capacity + in.u8();
      break;
  }
  for (int i = 0; i < kMaxFrames && !in.done(); ++i) frame(&in, &dst, dst.capacity);
  return 0;
}
