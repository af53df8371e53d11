// bokeh_fields.h - session fields owned by the refocus-map worker, per-frame rendering and debug display.
#ifndef VMKTRRT_BOKEH_FIELDS_H
#define VMKTRRT_BOKEH_FIELDS_H

#include <atomic>
#include <cstdint>

struct BokehFields {
  int32_t unused;  // filled in as the subsystem lands
};

#endif  // VMKTRRT_BOKEH_FIELDS_H
