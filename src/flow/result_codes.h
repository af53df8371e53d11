// result_codes.h - the result codes the library's own steps return, by name. The values are
// those the five exported functions hand back to the camera HAL, so they never change.
#ifndef VMKTRRT_FLOW_RESULT_CODES_H
#define VMKTRRT_FLOW_RESULT_CODES_H

#include <cstdint>

constexpr int32_t kResultOk = 0;
constexpr int32_t kResultRefused = 1;         // InitData refused, or a feature flag not known
constexpr int32_t kResultOutOfMemory = 2;     // a buffer or block of the session not allocated
constexpr int32_t kResultNoBuffer = 3;        // a buffer is missing or its inputs were already used
constexpr int32_t kResultDiscarded = 5;       // the map was made stale by a scene change and dropped
constexpr int32_t kResultBadCalibration = 6;  // no calibration block, or one of an unknown kind

#endif  // VMKTRRT_FLOW_RESULT_CODES_H
