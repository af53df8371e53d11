// buffer_copy_fuzz.cpp - fuzz entry for the frame copy into a slot buffer.
//
// The bytes choose the format, the claimed sizes and strides, the destination's capacity and
// the image. Source and destination are allocated at exactly their sizes. A refused copy must
// leave the destination as it was; an accepted single-block copy must equal its source; the
// planar copy must interleave the chroma first-plane-first. A disagreement traps.
#include <cstdint>
#include <cstring>
#include <vector>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "memory/buffer_manager.h"
#include "vm_host_platform.h"

namespace {

struct Bytes {
  const uint8_t* p;
  size_t n;
  size_t at;
  uint8_t u8() { return at < n ? p[at++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
  int32_t dim() {
    const uint8_t k = u8();
    if (k < 220) return u8() % 65;
    return static_cast<int32_t>(static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16));
  }
};

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// Every refusal writes its line whatever the log flags say; an accepted copy writes none.
int g_lines = 0;
void countLine(void*, int, const char*, const char*) {
  ++g_lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in{data, size, 0};
  const int32_t format = static_cast<int8_t>(in.u8()) % 9;
  const int32_t width = in.dim();
  const int32_t height = in.dim();
  const uint8_t pad = in.u8();
  const int32_t stride = (pad & 1) ? in.dim() : width;
  const int32_t scanline = (pad & 2) ? in.dim() : height;
  const int32_t claimed = static_cast<int32_t>(in.u16() % 12000) - ((pad & 4) ? 100 : 0);
  const int32_t capacity = static_cast<int32_t>(in.u16() % 12000);

  std::vector<uint8_t> src(static_cast<size_t>(claimed > 0 ? claimed : 0));
  for (uint8_t& b : src) b = in.u8();
  std::vector<uint8_t> dst(static_cast<size_t>(capacity), 0xEE);
  const int64_t pixels = static_cast<int64_t>(width) * height;

  ImageDesc desc;
  memset(&desc, 0, sizeof desc);
  desc.data = (pad & 8) != 0 || src.empty() ? nullptr : src.data();
  desc.size = claimed;
  // The chroma plane of format 6 follows the luma inside the claimed frame.
  desc.plane2 =
      desc.data != nullptr && pixels >= 0 && pixels <= static_cast<int64_t>(src.size()) ? desc.data + pixels : nullptr;
  BufferHalf half;
  half.data = dst.empty() ? nullptr : dst.data();
  half.state.store(kSlotFree);
  half.size = capacity;
  half.capacity = capacity;

  g_lines = 0;
  vm_host_log_set_hook(countLine, nullptr);
  buffer_manager_copy_buffer_from_trigger(&half, &desc, format, width, height, stride, scanline);
  vm_host_log_set_hook(nullptr, nullptr);
  const bool accepted = g_lines == 0;
  if (!accepted) {
    check(dst == std::vector<uint8_t>(dst.size(), 0xEE));  // refused: untouched
    check(half.size == capacity);
  } else {
    check(half.size == claimed && claimed <= capacity && desc.data != nullptr);
    if (format == 0 || format == 1 || format == 3 || format == 4 || format == 5)
      check(memcmp(dst.data(), src.data(), static_cast<size_t>(claimed)) == 0);
    if (format == 2 && pixels >= 4) {
      check(memcmp(dst.data(), src.data(), static_cast<size_t>(pixels)) == 0);
      const size_t q = static_cast<size_t>(pixels / 4);
      for (size_t i = 0; i < q; ++i) {
        check(dst[static_cast<size_t>(pixels) + 2 * i] == src[static_cast<size_t>(pixels) + i]);
        check(dst[static_cast<size_t>(pixels) + 2 * i + 1] == src[static_cast<size_t>(pixels) + q + i]);
      }
    }
    if (format == 6) check(memcmp(dst.data(), src.data(), static_cast<size_t>(pixels)) == 0);
  }
  check(half.state.load() == kSlotFree);  // the copy never changes the state
  return 0;
}
