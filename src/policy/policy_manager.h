// policy_manager.h - scene policy: measures scene change against a reference frame and decides
// when depth and refocus maps are regenerated.
//
// init, deinit and update run on the caller's thread (init and deinit from the bokeh manager's
// set-up and tear-down, update once per frame); refocus_map_check runs on the refocus-map worker.
// The scene measures work on 8-bit luma planes with stride equal to the width; the current frame
// is passed first, the stored frame second, the focus region as left, right, top, bottom.
#ifndef VMKTRRT_POLICY_POLICY_MANAGER_H
#define VMKTRRT_POLICY_POLICY_MANAGER_H

#include <cstdint>

#include "policy/policy_fields.h"

struct SessionContext;

// Sets up the session's policy fields and allocates the reference-frame store. Returns 0.
int32_t policy_manager_init(SessionContext* ctx);
// Frees the reference-frame store. Returns 0.
int32_t policy_manager_deinit(SessionContext* ctx);
// 1 when the scene is stable (policy state 5 after the update), else 0.
int32_t policy_manager_update(SessionContext* ctx);
// Records one scene-change value in the ring and runs the five-state machine.
void policy_manager_check_state_machine(SessionContext* ctx, int32_t value);
// 1 when the refocus map may be kept, 0 when it must be remade. Both planes are read as 320 x 240
// luma planes (stride 320) whatever width and height say; they must hold at least that many bytes.
int32_t policy_manager_refocus_map_check(const uint8_t* current, const uint8_t* reference, int32_t width,
                                         int32_t height);
// Automatic F-number ramp from 10 towards target over 1000 time units; *start is the caller's
// ramp start, moved on here.
float policy_manager_calculate_F_number(uint32_t* start, uint32_t now, float target, int32_t hold);

// Census scene-change count, 0..63: cells of a 7 x 9 grid of 16 x 16 cells above and left of the
// region's centre whose above-centre-cell bit differs between the two planes. Checks nothing
// beyond what keeps its reads inside the two width x height planes.
int32_t policy_manager_scene_change_detection(const uint8_t* a_pucInputImage, const uint8_t* a_pucPreviewInputImage,
                                              int32_t left, int32_t right, int32_t top, int32_t bottom, int32_t width,
                                              int32_t height);
// The same count over two 320 x 240 planes (stride 320) with the whole frame as region.
int32_t policy_manager_scene_change_detection_320x240(const uint8_t* a_pucInputImage,
                                                      const uint8_t* a_pucPreviewInputImage);
// Block matching of five 8 x 8 blocks laid around (right, bottom), +-16 pixel full search. Number
// of blocks that moved 7 pixels or more (0..5), or -1 for an empty region or a null plane. Adds
// each block's vector to policyMotionVectors.
int32_t policy_manager_estimate_motion(const uint8_t* a_pucInputImage, const uint8_t* a_pucPreviewInputImage,
                                       int32_t left, int32_t right, int32_t top, int32_t bottom, int32_t width,
                                       int32_t height);
// Mean absolute pixel difference over the region (bounds inclusive) clipped to the plane; NaN
// when no pixel of the region lies inside; -1.0 for an empty region or a null plane.
float policy_manager_calculate_SAD(const uint8_t* a_pucInputImage, const uint8_t* a_pucPreviewInputImage, int32_t left,
                                   int32_t right, int32_t top, int32_t bottom, int32_t width, int32_t height);

// Motion-vector accumulator, one (dx, dy) pair per block position in search order. Process-wide,
// zero at start, never cleared here; only one thread may run the motion estimation at a time.
extern int32_t policyMotionVectors[5][2];

#endif  // VMKTRRT_POLICY_POLICY_MANAGER_H
