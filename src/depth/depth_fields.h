// depth_fields.h - session fields owned by the depth worker, depth generation and temporal filter.
#ifndef VMKTRRT_DEPTH_FIELDS_H
#define VMKTRRT_DEPTH_FIELDS_H

#include <atomic>
#include <cstdint>

struct DepthFields {
  int32_t unused;  // filled in as the subsystem lands
};

#endif  // VMKTRRT_DEPTH_FIELDS_H
