// Buffer slots: sizes, the slot 4/5 placement, lookup by state, and the per-format copy.
#include "memory/buffer_manager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "log_capture.h"
#include "memory/heap.h"

namespace {

class BufferSlots : public ::testing::Test {
 protected:
  void SetUp() override {
    memset(static_cast<void*>(&ctx), 0, sizeof ctx);
    ctx.slots[0].width = 1920;
    ctx.slots[0].height = 1080;
    ctx.slots[1].width = 1280;
    ctx.slots[1].height = 720;
    ctx.slots[2].width = 320;
    ctx.slots[2].height = 240;
    ctx.slots[3].width = 320;
    ctx.slots[3].height = 240;
  }
  void TearDown() override {
    buffer_manager_free(&ctx);
    heap_fault_inject(0, false);
  }
  SessionContext ctx;
};

TEST_F(BufferSlots, SizesAndPlacement) {
  EXPECT_EQ(buffer_manager_half_size(1920, 1080, 2), 4147216);
  ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
  ASSERT_TRUE(buffer_manager_all_allocated(&ctx));
  const BufferSlot& main = ctx.slots[0];
  EXPECT_EQ(main.a.size, 4147216);
  EXPECT_EQ(main.b.size, 4147216);
  EXPECT_EQ(main.b.data - main.a.data, 4147216);
  EXPECT_EQ(main.a.state.load(), kSlotFree);
  EXPECT_EQ(main.b.state.load(), kSlotFree);
  // Working slots: own half as size, B at the half of the 2- and 1-byte slots they follow.
  const BufferSlot& dw = ctx.workSlots[0];
  const BufferSlot& rw = ctx.workSlots[1];
  EXPECT_EQ(dw.width, 0);
  EXPECT_EQ(rw.height, 0);
  EXPECT_EQ(dw.a.size, buffer_manager_half_size(320, 240, 4));
  EXPECT_EQ(dw.b.data - dw.a.data, buffer_manager_half_size(320, 240, 2));
  EXPECT_EQ(rw.b.data - rw.a.data, buffer_manager_half_size(320, 240, 1));
  EXPECT_EQ(ctx.slots[3].a.size, 16 * ((320 * 240 >> 4) + 1));
  // Every buffer can be written to its capacity without leaving its block.
  for (int n = 0; n < kSlotCount; ++n) {
    BufferSlot* s = session_slot(&ctx, n);
    memset(s->a.data, 0xA5, static_cast<size_t>(s->a.capacity));
    memset(s->b.data, 0x5A, static_cast<size_t>(s->b.capacity));
  }
}

TEST_F(BufferSlots, HalfSizeRefusesWhatDoesNotFit) {
  EXPECT_EQ(buffer_manager_half_size(65536, 65536, 2), -1);
  EXPECT_EQ(buffer_manager_half_size(0, 10, 2), 16);  // an empty slot keeps its one unit
  EXPECT_EQ(buffer_manager_half_size(0, 0, 2), 16);
  EXPECT_EQ(buffer_manager_half_size(-4, 10, 2), -1);
  EXPECT_EQ(buffer_manager_half_size(1, 1, 1), 16);
}

TEST_F(BufferSlots, SubPairHoldsAChipMapWhenTheFilterCarriesIt) {
  // A 0 x 0 sub preview: alone it gets one unit; chip depth through the filter needs a map.
  ctx.slots[1].width = ctx.slots[1].height = 0;
  ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
  EXPECT_EQ(ctx.slots[1].a.capacity, 16);
  buffer_manager_free(&ctx);
  ctx.depthFromChip = 1;
  ctx.isUsingTemporalFilter = 1;
  ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
  EXPECT_EQ(ctx.slots[1].a.capacity, buffer_manager_half_size(320, 240, 2));
  EXPECT_EQ(ctx.slots[1].b.capacity, buffer_manager_half_size(320, 240, 2));
  EXPECT_EQ(ctx.slots[1].b.data - ctx.slots[1].a.data, buffer_manager_half_size(320, 240, 2));
  EXPECT_EQ(ctx.slots[1].width, 0);  // the slot still describes the sub preview
}

TEST_F(BufferSlots, AllocationFailureLeavesNullAndIsSeen) {
  heap_fault_inject(3, false);  // order 0, 1, 3, 2, ...: slot 3 fails
  EXPECT_EQ(buffer_manager_allocate(&ctx), 0);
  EXPECT_EQ(ctx.slots[3].a.data, nullptr);
  EXPECT_NE(ctx.slots[2].a.data, nullptr);
  EXPECT_FALSE(buffer_manager_all_allocated(&ctx));
}

TEST_F(BufferSlots, LookupByState) {
  buffer_manager_allocate(&ctx);
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 0, kSlotFilled), nullptr);
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 0, kSlotFree), &ctx.slots[0].a);  // A wins
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 6, kSlotFree), nullptr);
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, -1, kSlotFree), nullptr);
  BufferHalf* w = buffer_manager_get_buffer(&ctx, 0, kSlotFree);
  buffer_manager_publish(w, buffer_manager_get_buffer(&ctx, 0, kSlotFilled));
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 0, kSlotFilled), &ctx.slots[0].a);
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 0, kSlotFree), &ctx.slots[0].b);
  BufferHalf* w2 = buffer_manager_get_buffer(&ctx, 0, kSlotFree);
  buffer_manager_publish(w2, buffer_manager_get_buffer(&ctx, 0, kSlotFilled));
  EXPECT_EQ(ctx.slots[0].a.state.load(), kSlotFree);
  EXPECT_EQ(ctx.slots[0].b.state.load(), kSlotFilled);
  // Marks are extra bits: a filled, used buffer still answers mask 2.
  ctx.slots[0].b.state |= kSlotUsedByEngine;
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 0, kSlotFilled), &ctx.slots[0].b);
  buffer_manager_reset_slot(&ctx, 0);
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 0, kSlotFilled), nullptr);
  buffer_manager_reset_slot(&ctx, 9);  // ignored
}

class BufferCopy : public ::testing::Test {
 protected:
  static constexpr int32_t W = 8, H = 4, N = W * H;
  void SetUp() override {
    storage.assign(4096, 0xEE);
    dst.data = storage.data();
    dst.size = 2048;
    dst.capacity = 2048;
    dst.state = kSlotFree;
    for (int i = 0; i < 256; ++i) image[i] = static_cast<uint8_t>(i);
    src.data = image;
    src.plane2 = image + 128;
    src.size = N * 3 / 2;
  }
  bool untouched() const {
    for (uint8_t b : storage)
      if (b != 0xEE) return false;
    return dst.size == 2048;
  }
  std::vector<uint8_t> storage;
  BufferHalf dst;
  uint8_t image[256];
  ImageDesc src{};
  LogCapture log;
};

TEST_F(BufferCopy, SingleBlockFormatsCopySourceSize) {
  for (int32_t fmt : {0, 1, 3, 4, 5}) {
    SetUp();
    buffer_manager_copy_buffer_from_trigger(&dst, &src, fmt, W, H, W, H);
    EXPECT_EQ(dst.size, N * 3 / 2);
    EXPECT_EQ(memcmp(storage.data(), image, N * 3 / 2), 0);
    EXPECT_EQ(storage[N * 3 / 2], 0xEE) << "format " << fmt;
  }
  EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(BufferCopy, ThreePlaneInterleavesFirstPlaneFirst) {
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 2, W, H, W, H);
  EXPECT_EQ(memcmp(storage.data(), image, N), 0);
  for (int i = 0; i < N / 4; ++i) {
    EXPECT_EQ(storage[N + 2 * i], image[N + i]);
    EXPECT_EQ(storage[N + 2 * i + 1], image[N + N / 4 + i]);
  }
  EXPECT_EQ(storage[N + N / 2], 0xEE);
}

TEST_F(BufferCopy, TwoPlaneReLaysChroma) {
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 6, W, H, W, H);
  EXPECT_EQ(dst.size, src.size);
  EXPECT_EQ(memcmp(storage.data(), image, N), 0);
  // Row y, pair k takes source pair (k & ~1) + (y >> 2) * 2W; H = 4 rows all use source row 0.
  for (int y = 0; y < H; ++y)
    for (int k = 0; k < W / 2; ++k) {
      EXPECT_EQ(storage[N + y * W + 2 * k], image[128 + (k & ~1)]);
      EXPECT_EQ(storage[N + y * W + 2 * k + 1], image[128 + (k & ~1) + 1]);
    }
}

TEST_F(BufferCopy, RefusalsLogAndLeaveDestination) {
  struct Case {
    int32_t fmt, stride, scanline;
    const char* line;
  } cases[] = {{2, W + 2, H, "NOT SUPPORT"},
               {0, W, H + 1, "NOT SUPPORT"},
               {6, W + 1, H, "NOT SUPPORT"},
               {7, W, H, "NOT SUPPORT"},
               {-1, W, H, "NOT SUPPORT"}};
  for (const Case& c : cases) {
    log.clear();
    buffer_manager_copy_buffer_from_trigger(&dst, &src, c.fmt, W, H, c.stride, c.scanline);
    EXPECT_TRUE(untouched()) << "format " << c.fmt;
    EXPECT_EQ(log.count("<VEMTA_LOG>!!!ERROR!!! NOT SUPPORT.............\n"), 1u) << "format " << c.fmt;
  }
  auto expectBufferError = [&](const char* what) {
    EXPECT_TRUE(untouched()) << what;
    EXPECT_EQ(log.count("<VEMTA_LOG>!!!BUFFER ERROR!!!\n"), 1u) << what;
    log.clear();
  };
  log.clear();
  src.size = 4096;  // larger than the destination's size
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 0, W, H, W, H);
  expectBufferError("source larger");
  src.size = 10;
  src.data = nullptr;
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 0, W, H, W, H);
  expectBufferError("null source");
  src.data = image;
  buffer_manager_copy_buffer_from_trigger(nullptr, &src, 0, W, H, W, H);
  EXPECT_EQ(log.count("BUFFER ERROR"), 1u);
  log.clear();
  // A three-plane frame whose claimed size does not cover its planes is not read past.
  src.size = N;
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 2, W, H, W, H);
  expectBufferError("short three-plane frame");
  // A two-plane frame without its chroma plane.
  src.size = N * 3 / 2;
  src.plane2 = nullptr;
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 6, W, H, W, H);
  EXPECT_TRUE(untouched());
  // A destination whose block is smaller than the re-laid output.
  src.plane2 = image + 128;
  dst.capacity = N + 4;
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 6, W, H, W, H);
  EXPECT_TRUE(untouched());
}

TEST_F(BufferCopy, SizeFieldHoldsTheFrameSizeAfterACopy) {
  src.size = 40;
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 0, W, H, W, H);
  EXPECT_EQ(dst.size, 40);
  log.clear();
  src.size = 41;  // a larger later frame is refused by the size test
  buffer_manager_copy_buffer_from_trigger(&dst, &src, 0, W, H, W, H);
  EXPECT_EQ(log.count("BUFFER ERROR"), 1u);
}

}  // namespace

namespace {

TEST_F(BufferSlots, HeldBuffersAreNeverHandedToTheProducer) {
  ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
  BufferHalf* a = buffer_manager_get_writable(&ctx, 2);
  ASSERT_EQ(a, &ctx.slots[2].a);
  buffer_manager_publish(a, nullptr);
  EXPECT_EQ(buffer_manager_hold_filled(&ctx, 2), a);
  // B written and published: A becomes free but stays held, so nothing is writable.
  BufferHalf* b = buffer_manager_get_writable(&ctx, 2);
  ASSERT_EQ(b, &ctx.slots[2].b);
  buffer_manager_publish(b, a);
  EXPECT_EQ(buffer_manager_get_buffer(&ctx, 2, kSlotFree), a);
  EXPECT_EQ(buffer_manager_get_writable(&ctx, 2), nullptr);
  buffer_manager_reset_slot(&ctx, 2);  // a reset keeps the hold too
  EXPECT_EQ(buffer_manager_get_writable(&ctx, 2), b);
  buffer_manager_release(a);
  EXPECT_EQ(buffer_manager_get_writable(&ctx, 2), a);
  EXPECT_EQ(a->state.load(), kSlotFree);
  // Marks come and go without touching holds or states.
  buffer_manager_publish(a, nullptr);
  EXPECT_EQ(buffer_manager_hold_filled(&ctx, 2), a);
  buffer_manager_mark(a, kSlotUsedByEngine);
  EXPECT_EQ(a->state.load(), kSlotFilled | kSlotUsedByEngine | kSlotReaderUnit);
  buffer_manager_unmark(a, kSlotUsedByEngine);
  buffer_manager_release(a);
  EXPECT_EQ(a->state.load(), kSlotFilled);
  EXPECT_EQ(buffer_manager_hold_filled(&ctx, 6), nullptr);
}

TEST_F(BufferSlots, ProducerTakesBackTheUnheldFilledBufferWhenTheFreeOneIsHeld) {
  ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
  BufferHalf* a = buffer_manager_get_writable_or_reclaim(&ctx, 0);
  ASSERT_EQ(a, &ctx.slots[0].a);  // the free buffer, as long as there is one
  buffer_manager_publish(a, nullptr);
  ASSERT_EQ(buffer_manager_hold_filled(&ctx, 0), a);
  BufferHalf* b = buffer_manager_get_writable_or_reclaim(&ctx, 0);
  ASSERT_EQ(b, &ctx.slots[0].b);
  buffer_manager_publish(b, a);
  buffer_manager_mark(b, kSlotUsedByEngine);
  // A free but held: B, filled and marked, is taken back as a plain free buffer.
  EXPECT_EQ(buffer_manager_get_writable_or_reclaim(&ctx, 0), b);
  EXPECT_EQ(b->state.load(), kSlotFree);
  EXPECT_EQ(a->state.load(), kSlotFree | kSlotReaderUnit);
  // Both held: nothing is handed out.
  buffer_manager_publish(b, nullptr);
  ASSERT_EQ(buffer_manager_hold_filled(&ctx, 0), b);
  EXPECT_EQ(buffer_manager_get_writable_or_reclaim(&ctx, 0), nullptr);
  EXPECT_EQ(b->state.load(), kSlotFilled | kSlotReaderUnit);
  buffer_manager_release(a);
  buffer_manager_release(b);
  // The overlapping work slots never give a filled buffer back.
  BufferHalf* w = buffer_manager_get_writable(&ctx, 4);
  buffer_manager_publish(w, nullptr);
  ASSERT_EQ(buffer_manager_hold_filled(&ctx, 4), w);
  EXPECT_EQ(buffer_manager_get_writable_or_reclaim(&ctx, 4), nullptr);
  buffer_manager_release(w);
}

TEST_F(BufferSlots, OverlappingWorkBuffersBlockWritingWhileEitherIsHeld) {
  ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
  BufferHalf* a = buffer_manager_get_writable(&ctx, 4);
  buffer_manager_publish(a, nullptr);
  ASSERT_EQ(buffer_manager_hold_filled(&ctx, 4), a);
  EXPECT_EQ(buffer_manager_get_writable(&ctx, 4), nullptr);  // B lies inside A's bytes
  buffer_manager_release(a);
  EXPECT_EQ(buffer_manager_get_writable(&ctx, 4), &ctx.workSlots[0].b);
}

}  // namespace
