// stereo_run.h - the stereo depth engine run once on a rectified pair of equal size through its C
// functions, set up as the evaluation tools set it up (identity calibration, the given search range).
#ifndef VM_DEPTH_EVAL_STEREO_RUN_H
#define VM_DEPTH_EVAL_STEREO_RUN_H

#include <stdint.h>

#include <string>
#include <vector>

#include "image_io.h"

// An RGB or grey image as the engine's three full-resolution planes (BT.601 full range).
void to_planes(const Image8& im, std::vector<uint8_t>* planes);

// Runs the engine (quality = its depth mode) on one pair of equal size with the search range
// [dmin, dmax] in pixels; disparity in pixels, +inf where there is none; *ms the run's time.
bool run_engine(const Image8& left, const Image8& right, float dmin, float dmax, int32_t quality, ImageF* disp,
                double* ms, std::string* error);

#endif  // VM_DEPTH_EVAL_STEREO_RUN_H
