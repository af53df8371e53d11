// stereo_rectify.h - the depth engine's rectifying warp (reachable by tests and the fuzz target).
#ifndef VM_STEREO_RECTIFY_H
#define VM_STEREO_RECTIFY_H

#include <stdint.h>

// Resamples the w x h plane `src` into `dst` (same size): dst(x, y) = src(H (x', y)) bilinearly,
// x' = w - 1 - x when mirrored, else x; `hm` null is the identity. Points outside the source read
// its nearest edge; points the homography sends to infinity or to a non-finite value read the
// top-left pixel. Any homography, however hostile, stays inside both planes.
void stereo_warp_plane(const uint8_t* src, int32_t w, int32_t h, const float hm[9], bool mirror, uint8_t* dst);

#endif  // VM_STEREO_RECTIFY_H
