// depth_fields.h - session fields owned by the depth worker, depth generation and temporal filter.
#ifndef VMKTRRT_DEPTH_FIELDS_H
#define VMKTRRT_DEPTH_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "flow/worker_thread.h"

struct SessionContext;

// Ownership of a worker plane block.
constexpr int32_t kPlaneBorrowed = 1;
constexpr int32_t kPlaneOwned = 2;

struct DepthPlaneBlock {
  uint8_t* data;  // three planes of depthWidth x depthHeight bytes: Y, U, V
  int32_t kind;   // kPlaneOwned or kPlaneBorrowed
  int32_t size;   // bytes
};

// The depth worker: its thread and what the thread works with.
struct DepthWorker {
  WorkerThread thread;
  SessionContext* context;
  DepthPlaneBlock planes[2];  // main camera, sub camera (block A, block B of the filter)
  int32_t engineOpen;         // vmDpx2_Express_Init succeeded: shut-down closes the engine
  uint8_t* scaleScratch;      // the scaler's work area for one preview, kept for the session
  size_t scaleScratchBytes;
  uint16_t* depthScratch;  // the engine's map before its quarter turn into the slot, kept for the session
  int64_t depthScratchSamples;
};

struct DepthFields {
  DepthWorker worker;
  int32_t chipSizeRefusalLogged;  // frame thread only; cleared with the session at Init
};

#endif  // VMKTRRT_DEPTH_FIELDS_H
