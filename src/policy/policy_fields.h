// policy_fields.h - session fields owned by the scene measures and the policy state machine.
#ifndef VMKTRRT_POLICY_FIELDS_H
#define VMKTRRT_POLICY_FIELDS_H

#include <atomic>
#include <cstdint>

struct PolicyFields {
  int32_t unused;  // filled in as the subsystem lands
};

#endif  // VMKTRRT_POLICY_FIELDS_H
