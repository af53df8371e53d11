// engine_tap.h - a measuring tap on the engine calls the system library makes: the executable
// defines the engine functions it wants to watch and forwards each call to the engine library
// (the system binds its engine calls at load time, so the executable's definitions come first).
// It tells which preview frame each depth map came from, which depth map and focus point each
// refocus map was made from, and which refocus map drew each frame.
#ifndef VM_SYSTEM_EVAL_ENGINE_TAP_H
#define VM_SYSTEM_EVAL_ENGINE_TAP_H

#include <stdint.h>

#include <vector>

// What drew one frame of the system's run.
struct TapDraw {
  int32_t submitted = -1;          // the frame index the tool passed to this run call
  int32_t depthFrame = -1;         // the preview frame the map's depth came from; -1 when no map or unknown
  int32_t focusX = 0, focusY = 0;  // the focus point the map was made for, on the depth grid
  uint16_t target = 0;             // the generator's focus depth for that map
  uint64_t mapHash = 0;            // the drawn map's contents (0 when no map)
  std::vector<uint16_t> depth;     // the depth the map was made from (empty when no map)
};

// Counts over one watched run.
struct TapCounts {
  int32_t engineRuns = 0;    // depth engine calls
  int32_t filterRuns = 0;    // temporal filter calls
  int32_t mapsMade = 0;      // refocus maps the generator wrote
  int32_t unknownDepth = 0;  // generator calls on depth the tap did not see produced
};

// Starts watching. `lumaSmall[i]` is frame i's luma at the depth size (box-averaged), used to tell
// which frame the depth engine was given; frames are identified against the one the tool last
// submitted and the three before it.
void tap_begin(const std::vector<std::vector<uint8_t>>* lumaSmall, int32_t depthWidth, int32_t depthHeight);
// Depth the tool hands the system itself (a depth chip's map) and the frame it belongs to.
void tap_remember_depth(const uint16_t* depth, int32_t frame);
// The frame index the next run call passes (call before each vmKtrRT_SC_Run).
void tap_submit(int32_t frame);
// What drew the last run call's frame (call after it returns).
TapDraw tap_last_draw();
// Which frame each depth engine call since the last tap_take_engine_frames was given.
std::vector<int32_t> tap_take_engine_frames();
TapCounts tap_counts();
// Stops watching; later engine calls pass straight through.
void tap_end();

#endif  // VM_SYSTEM_EVAL_ENGINE_TAP_H
