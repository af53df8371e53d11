// buffer_manager.h - the session's six double-buffered image slots and the copy of the caller's
// frames into them.
//
// No lock: a buffer's state word is the hand-over between the caller's thread and the workers.
// A producer takes the free buffer (mask 1), writes it, then frees the previously filled one and
// marks the new one filled (release); a consumer takes the filled buffer (mask 2, acquire).
#ifndef VMKTRRT_MEMORY_BUFFER_MANAGER_H
#define VMKTRRT_MEMORY_BUFFER_MANAGER_H

#include <cstdint>

#include "vmKtrRT_SC.h"

struct SessionContext;
struct BufferHalf;

// Half size of a slot: 16 x (((W x H x b) >> 4) + 1) bytes (16 for 0 x 0), or -1 for a negative
// side or when that does not fit 32 bits.
int32_t buffer_manager_half_size(int32_t width, int32_t height, int32_t bytesPerPixel);

// Allocates the six slots in the order 0, 1, 3, 2, 5, 4 from the sizes in slots 0..3 (slot 1 at
// least a depth map's size when chip depth goes through the temporal filter). Returns 0; a block
// that could not be had leaves null data pointers (the caller checks).
int32_t buffer_manager_allocate(SessionContext* ctx);
// True when every slot got its block.
bool buffer_manager_all_allocated(const SessionContext* ctx);
// Frees every slot's block; returns 0.
int32_t buffer_manager_free(SessionContext* ctx);
// The buffer of slot whose state has a bit of mask: A first, then B; null when none or slot > 5.
BufferHalf* buffer_manager_get_buffer(SessionContext* ctx, int32_t slot, uint32_t mask);
// Marks both buffers of slot 0..5 free.
void buffer_manager_reset_slot(SessionContext* ctx, int32_t slot);
// Hands a freshly written buffer over: the previously filled one (if any) becomes free, the
// written one filled. Reader holds survive the change.
void buffer_manager_publish(BufferHalf* written, BufferHalf* previouslyFilled);

// Holding a buffer across threads. A reader that is not the slot's producer holds the filled
// buffer while it reads it; the producer writes only a free buffer that nobody holds, so a
// buffer flipped to free while it is read is not overwritten until the reader lets it go.
// The filled buffer of slot, held; null when none is filled.
BufferHalf* buffer_manager_hold_filled(SessionContext* ctx, int32_t slot);
void buffer_manager_release(BufferHalf* held);
// The free buffer of slot that a producer may write now (A first); null when the only free one
// is held. Slots 4 and 5 overlap their two buffers, so there either buffer held blocks writing.
BufferHalf* buffer_manager_get_writable(SessionContext* ctx, int32_t slot);
// For a producer on the caller's thread, which must not drop its frame: the writable buffer as
// above or, when the only free one is still held, the filled one taken back while nobody holds
// it (its content is older than the frame about to be written, which replaces it). Null only
// when both buffers are held. Not for slots 4 and 5.
BufferHalf* buffer_manager_get_writable_or_reclaim(SessionContext* ctx, int32_t slot);
// Sets and clears mark bits (used, seen) without disturbing the state or the holds.
void buffer_manager_mark(BufferHalf* half, uint32_t bits);
void buffer_manager_unmark(BufferHalf* half, uint32_t bits);

// Copies a caller image into a slot buffer per image format (0..6). Refusals log their line
// and leave the destination untouched.
void buffer_manager_copy_buffer_from_trigger(BufferHalf* destination, const ImageDesc* source, int32_t imageFormat,
                                             int32_t width, int32_t height, int32_t stride, int32_t scanline);

#endif  // VMKTRRT_MEMORY_BUFFER_MANAGER_H
