// policy_fields.h - session fields owned by the scene measures and the policy state machine.
//
// The policy state itself (policyState, prevPolicyState) sits in the session head, since the
// per-frame flow and the refocus-map worker read it too.
#ifndef VMKTRRT_POLICY_FIELDS_H
#define VMKTRRT_POLICY_FIELDS_H

#include <cstdint>

constexpr int kPolicyRingSize = 64;

// previousFrameState values.
constexpr int32_t kPolicyStoreNone = 0;   // no store (its allocation failed or was refused)
constexpr int32_t kPolicyStoreEmpty = 1;  // allocated, nothing stored yet
constexpr int32_t kPolicyStoreFull = 2;   // holds the reference frame

struct PolicyFields {
  uint8_t* previousFrame;  // the reference luma frame (with its chroma), allocated at init
  int32_t previousFrameState;
  uint32_t previousFrameSize;      // previewMainWidth x previewMainHeight x 2
  uint32_t previousFrameCapacity;  // bytes actually allocated: size rounded down to 16, plus 16
  uint32_t policyFrameCount;       // frames seen by the update since init
  int32_t sceneSamples[kPolicyRingSize];
  uint32_t sceneSampleCount;  // values recorded since the ring was last cleared
  // The refocus-map worker compares its refocus counter against this; written at init, before
  // that worker starts.
  int32_t refocusCountLimit;
  int32_t sceneValue;  // last scene-change count, kept while debugging is enabled
};

#endif  // VMKTRRT_POLICY_FIELDS_H
