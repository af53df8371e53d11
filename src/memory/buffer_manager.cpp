// buffer_manager.cpp - slot allocation, lookup by state and the per-format frame copy.
#include "memory/buffer_manager.h"

#include <cstring>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "image/image_utility.h"
#include "memory/heap.h"

namespace {

void setHalf(BufferHalf* h, uint8_t* data, int32_t size) {
  h->data = data;
  h->size = size;
  h->capacity = data != nullptr ? size : 0;
  h->state.store(kSlotFree, std::memory_order_release);
}

// One block of twice the half size; B at A + bOffset. Slots 4 and 5 place B at the half of the
// 2- and 1-byte slot whose dimensions they share, inside A's range: the working buffers are
// used one at a time.
void allocateSlot(BufferSlot* slot, int32_t width, int32_t height, int32_t bpp, int32_t bOffset, int32_t atLeast = 0) {
  int32_t half = buffer_manager_half_size(width, height, bpp);
  if (half > 0 && atLeast > half) half = atLeast;
  uint8_t* block =
      half > 0 && half <= INT32_MAX / 2 ? static_cast<uint8_t*>(heap_allocate(2 * static_cast<size_t>(half))) : nullptr;
  if (bOffset < 0) bOffset = half;
  setHalf(&slot->a, block, half);
  setHalf(&slot->b, block != nullptr ? block + bOffset : nullptr, half);
  // B's usable bytes end with the block.
  if (block != nullptr) slot->b.capacity = 2 * half - bOffset;
}

}  // namespace

int32_t buffer_manager_half_size(int32_t width, int32_t height, int32_t bytesPerPixel) {
  const int64_t bytes = static_cast<int64_t>(width) * height * bytesPerPixel;
  // A 0 x 0 slot (an unused sub preview, say) still gets its one 16-byte unit per buffer.
  if (width < 0 || height < 0 || bytesPerPixel <= 0 || bytes > INT32_MAX) return -1;
  const int64_t half = 16 * ((bytes >> 4) + 1);
  return half > INT32_MAX ? -1 : static_cast<int32_t>(half);
}

int32_t buffer_manager_allocate(SessionContext* ctx) {
  // Allocation order and bytes per pixel of the four slots with sizes of their own (slots 4
  // and 5 follow below).
  struct SlotOrder {
    int slot;
    int32_t bytesPerPixel;
  };
  static const SlotOrder kOrder[] = {{0, 2}, {1, 2}, {3, 1}, {2, 2}};
  // With chip depth through the temporal filter the chip's map travels in the sub preview
  // pair, so its buffers hold at least one map whatever the sub preview's size.
  const BufferSlot& map = ctx->slots[kSlotDepth];
  const int32_t chipMap = ctx->depthFromChip == 1 && ctx->isUsingTemporalFilter == 1
                              ? buffer_manager_half_size(map.width, map.height, 2)
                              : 0;
  for (const SlotOrder& o : kOrder) {
    BufferSlot* s = session_slot(ctx, o.slot);
    allocateSlot(s, s->width, s->height, o.bytesPerPixel, -1, o.slot == kSlotSub ? chipMap : 0);
  }
  // Slots 5 and 4 keep width and height as initialisation zeroed them; sizes follow 3 and 2.
  const BufferSlot& depth = ctx->slots[kSlotDepth];
  const BufferSlot& refocus = ctx->slots[kSlotRefocus];
  allocateSlot(session_slot(ctx, kSlotRefocusWork), refocus.width, refocus.height, 4,
               buffer_manager_half_size(refocus.width, refocus.height, 1));
  allocateSlot(session_slot(ctx, kSlotDepthWork), depth.width, depth.height, 4,
               buffer_manager_half_size(depth.width, depth.height, 2));
  return 0;
}

bool buffer_manager_all_allocated(const SessionContext* ctx) {
  for (int n = 0; n < kSlotCount; ++n)
    if (session_slot(const_cast<SessionContext*>(ctx), n)->a.data == nullptr) return false;
  return true;
}

int32_t buffer_manager_free(SessionContext* ctx) {
  for (int n = 0; n < kSlotCount; ++n) {
    BufferSlot* s = session_slot(ctx, n);
    heap_free(s->a.data);
    // The pointers are dropped too, so that a second tear-down cannot free them again.
    s->a.data = nullptr;
    s->b.data = nullptr;
    s->a.capacity = s->b.capacity = 0;
  }
  return 0;
}

BufferHalf* buffer_manager_get_buffer(SessionContext* ctx, int32_t slot, uint32_t mask) {
  if (slot < 0 || slot >= kSlotCount) return nullptr;
  BufferSlot* s = session_slot(ctx, slot);
  if ((s->a.state.load(std::memory_order_acquire) & mask) != 0) return &s->a;
  if ((s->b.state.load(std::memory_order_acquire) & mask) != 0) return &s->b;
  return nullptr;
}

namespace {

// Makes a buffer free whatever marks it carried, keeping the readers' holds.
void makeFree(BufferHalf* h) {
  uint32_t s = h->state.load(std::memory_order_relaxed);
  while (!h->state.compare_exchange_weak(s, (s & ~kSlotStateBits) | kSlotFree, std::memory_order_acq_rel,
                                         std::memory_order_relaxed)) {
  }
}

bool held(const BufferHalf* h) {
  return (h->state.load(std::memory_order_acquire) & ~kSlotStateBits) != 0;
}

bool tryHold(BufferHalf* h) {
  uint32_t s = h->state.load(std::memory_order_acquire);
  while ((s & kSlotFilled) != 0) {
    if (h->state.compare_exchange_weak(s, s + kSlotReaderUnit, std::memory_order_acq_rel, std::memory_order_acquire))
      return true;
  }
  return false;
}

}  // namespace

void buffer_manager_reset_slot(SessionContext* ctx, int32_t slot) {
  if (slot < 0 || slot >= kSlotCount) return;
  BufferSlot* s = session_slot(ctx, slot);
  makeFree(&s->a);
  makeFree(&s->b);
}

void buffer_manager_publish(BufferHalf* written, BufferHalf* previouslyFilled) {
  if (previouslyFilled != nullptr && previouslyFilled != written) makeFree(previouslyFilled);
  // The written buffer was free and unheld (holds need the filled state), so nothing is lost.
  if (written != nullptr) written->state.store(kSlotFilled, std::memory_order_release);
}

BufferHalf* buffer_manager_hold_filled(SessionContext* ctx, int32_t slot) {
  if (slot < 0 || slot >= kSlotCount) return nullptr;
  BufferSlot* s = session_slot(ctx, slot);
  // The producer may flip the pair between the two tries; one more round finds the new one.
  for (int round = 0; round < 2; ++round) {
    if (tryHold(&s->a)) return &s->a;
    if (tryHold(&s->b)) return &s->b;
  }
  return nullptr;
}

void buffer_manager_release(BufferHalf* h) {
  if (h != nullptr) h->state.fetch_sub(kSlotReaderUnit, std::memory_order_release);
}

BufferHalf* buffer_manager_get_writable(SessionContext* ctx, int32_t slot) {
  if (slot < 0 || slot >= kSlotCount) return nullptr;
  BufferSlot* s = session_slot(ctx, slot);
  if ((slot == kSlotDepthWork || slot == kSlotRefocusWork) && (held(&s->a) || held(&s->b))) return nullptr;
  BufferHalf* const halves[2] = {&s->a, &s->b};
  for (BufferHalf* h : halves) {
    const uint32_t st = h->state.load(std::memory_order_acquire);
    if ((st & kSlotFree) != 0 && (st & ~kSlotStateBits) == 0) return h;
  }
  return nullptr;
}

BufferHalf* buffer_manager_get_writable_or_reclaim(SessionContext* ctx, int32_t slot) {
  BufferHalf* w = buffer_manager_get_writable(ctx, slot);
  if (w != nullptr || slot < 0 || slot >= kSlotDepthWork) return w;
  BufferSlot* s = session_slot(ctx, slot);
  BufferHalf* const halves[2] = {&s->a, &s->b};
  for (BufferHalf* h : halves) {
    uint32_t st = h->state.load(std::memory_order_acquire);
    // Only an unheld filled buffer; a reader taking hold at the same moment wins the exchange.
    while ((st & kSlotFilled) != 0 && (st & ~kSlotStateBits) == 0) {
      if (h->state.compare_exchange_weak(st, kSlotFree, std::memory_order_acq_rel, std::memory_order_acquire)) return h;
    }
  }
  return nullptr;
}

void buffer_manager_mark(BufferHalf* h, uint32_t bits) {
  if (h != nullptr) h->state.fetch_or(bits & kSlotStateBits, std::memory_order_acq_rel);
}

void buffer_manager_unmark(BufferHalf* h, uint32_t bits) {
  if (h != nullptr) h->state.fetch_and(~(bits & kSlotStateBits), std::memory_order_acq_rel);
}

void buffer_manager_copy_buffer_from_trigger(BufferHalf* dst, const ImageDesc* src, int32_t imageFormat, int32_t width,
                                             int32_t height, int32_t stride, int32_t scanline) {
  if (dst == nullptr || src == nullptr || dst->data == nullptr || src->data == nullptr || dst->size < src->size ||
      src->size < 0) {
    VM_LOG("<VEMTA_LOG>!!!BUFFER ERROR!!!\n");
    return;
  }
  const bool unpadded = width == stride && height == scanline;
  const int64_t pixels = width > 0 && height > 0 ? static_cast<int64_t>(width) * height : -1;
  // What each format reads from the caller and writes into the slot; a frame whose claimed
  // size or dimensions do not cover that is refused rather than read or written past its end.
  int64_t reads = src->size;
  int64_t writes = src->size;
  bool supported = unpadded;
  switch (imageFormat) {
    case 0:
    case 1:
    case 3:
    case 4:
    case 5:
      break;
    case 2:
      reads = pixels + 2 * (pixels / 4);
      writes = reads;
      supported = supported && pixels >= 0;
      break;
    case 6:
      // The chroma plane is separate; the frame's size covers both planes.
      reads = pixels + image_utility_rechroma_chroma_read_bytes(width, height);
      writes = image_utility_rechroma_output_bytes(width, height);
      supported = supported && pixels > 0 && src->plane2 != nullptr;
      break;
    default:
      supported = false;
      break;
  }
  if (!supported) {
    VM_LOG("<VEMTA_LOG>!!!ERROR!!! NOT SUPPORT.............\n");
    return;
  }
  if (reads > src->size || writes > dst->capacity) {
    VM_LOG("<VEMTA_LOG>!!!BUFFER ERROR!!!\n");
    return;
  }
  dst->size = src->size;
  switch (imageFormat) {
    case 2: {
      const size_t n = static_cast<size_t>(pixels);
      memcpy(dst->data, src->data, n);
      // Planar 4:2:0 to semi-planar, first chroma plane first.
      const uint8_t* c1 = src->data + n;
      const uint8_t* c2 = c1 + n / 4;
      uint8_t* out = dst->data + n;
      if (pixels >= 4)
        for (size_t i = 0; i < n / 4; ++i) {
          out[2 * i] = c1[i];
          out[2 * i + 1] = c2[i];
        }
      break;
    }
    case 6:
      image_utility_copy_nv12_rechroma(dst->data, dst->data + pixels, src->data, src->plane2, width, height);
      break;
    default:
      memcpy(dst->data, src->data, static_cast<size_t>(src->size));
      break;
  }
}
