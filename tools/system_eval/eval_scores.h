// eval_scores.h - the scores the quality tools share: pooled luma squared error (PSNR of the mean
// over a mask), the band around depth edges of a disparity map, and one NV21 plane sampled onto the
// depth grid as the system samples it for the depth engine.
#ifndef VM_SYSTEM_EVAL_EVAL_SCORES_H
#define VM_SYSTEM_EVAL_EVAL_SCORES_H

#include <stdint.h>

#include <vector>

// Squared-error sums over the masked pixels of any number of frames: PSNR of the pooled mean.
struct ErrorSum {
  double se = 0;
  double n = 0;
  void add(const uint8_t* a, const uint8_t* b, const std::vector<uint8_t>& mask);
  double psnr() const;  // 0 when nothing was added, 99 for no error
};

// Pixels within `reach` of a jump of at least a pixel in `disparity` (non-finite samples count as 0).
void edge_band(const std::vector<float>& disparity, int32_t w, int32_t h, int32_t reach, std::vector<uint8_t>* band);

// One plane of a w x h NV21 frame sampled at the wd x hd depth grid (nearest, the top-left sample
// of each block): luma (channel 0), or chroma channel 1 (U) / 2 (V).
void sample_plane(const std::vector<uint8_t>& nv21, int32_t w, int32_t h, int32_t wd, int32_t hd, int32_t channel,
                  uint8_t* out);

#endif  // VM_SYSTEM_EVAL_EVAL_SCORES_H
