// policy_fields.h - session fields owned by the scene measures and the policy state machine.
//
// The policy state itself (policyState, prevPolicyState) sits in the session head, since the
// per-frame flow and the refocus-map worker read it too.
#ifndef VMKTRRT_POLICY_FIELDS_H
#define VMKTRRT_POLICY_FIELDS_H

#include <cstdint>

constexpr int kPolicyRingSize = 64;

// Policy states (policyState). 0 and 1 leave the machine inert; 2..5 run it.
constexpr int32_t kPolicyUnsettled = 2;
constexpr int32_t kPolicySettling = 3;
constexpr int32_t kPolicyDisturbed = 4;
constexpr int32_t kPolicyStable = 5;

// True for the states the machine moves through.
inline bool policy_state_active(int32_t state) {
  return state >= kPolicyUnsettled && state <= kPolicyStable;
}
// True once the scene has settled enough for a refocus map to be drawn with (3..5).
inline bool policy_state_map_usable(int32_t state) {
  return state >= kPolicySettling && state <= kPolicyStable;
}

// The census of the refocus-map check reads one plane of this fixed size (stride its width);
// refocus maps of depth the library computes itself are made this size so that they can be
// checked.
constexpr int32_t kPolicyPlaneWidth = 320;
constexpr int32_t kPolicyPlaneHeight = 240;

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
