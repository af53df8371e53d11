// debug_log.h - the library's log line formats, the flag words and the gates on them.
//
// Every line goes to the Android log at priority 6 under the tag "System.out", prefixed with the
// logging function's name and source line. Macros return the log library's own result, which
// the profiling epilogue of Deinit hands back to its caller.
#ifndef VMKTRRT_DEBUG_DEBUG_LOG_H
#define VMKTRRT_DEBUG_DEBUG_LOG_H

#include <atomic>
#include <cstdint>

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#define VM_LOG_PRIORITY 6
#define VM_LOG_TAG "System.out"
#define VM_LOG_PREFIX "<VEMTA_LOG>[vmKtrRT_SC] %s:%d: "
#define VM_PROFILE_PREFIX "<VEMTA_LOG>[vmKtrRT_SC][PROFILE] %s:%d: "

// Log flag bits.
constexpr int32_t kLogInfo = 0x1;
constexpr int32_t kLogTrace = 0x2;
constexpr int32_t kLogGl = 0x8;
constexpr int32_t kLogStepCost = 0x10;
constexpr int32_t kLogProfileMask = 0x12;

// Process-wide flag words: written on the caller's thread, read on any thread.
extern std::atomic<int32_t> logFlags;
extern std::atomic<int32_t> debugEnable;
extern std::atomic<int32_t> debugDisplay;
extern std::atomic<int32_t> statusInfo;
extern std::atomic<int32_t> dumpFlags;
extern std::atomic<int32_t> debugFlag;

// debugDisplay bits: which debug pictures are laid over the preview.
constexpr int32_t kDisplayText = 0x1;          // the status text block (what statusInfo selects)
constexpr int32_t kDisplayFocusMarker = 0x2;   // the focus marker on the frame and the maps
constexpr int32_t kDisplaySubPreview = 0x8;    // the sub preview pasted into a corner
constexpr int32_t kDisplayOverlay = 0x10;      // pictures cover the whole frame, see below
constexpr int32_t kDisplayDepthMap = 0x40;     // the coloured depth map
constexpr int32_t kDisplayRefocusMap = 0x80;   // the refocus map
constexpr int32_t kDisplayStatistics = 0x100;  // the depth histogram and its figures
constexpr int32_t kDisplayBothMaps = kDisplayDepthMap | kDisplayRefocusMap;

// statusInfo bits: which lines the status text block holds, and the sample labels.
constexpr int32_t kInfoVersions = 0x1;      // the library's, depth engine's and renderer's versions
constexpr int32_t kInfoLens = 0x2;          // lens positions and the focus region
constexpr int32_t kInfoScene = 0x4;         // the scene value and the policy state
constexpr int32_t kInfoSampleLabels = 0x8;  // depth / map samples labelled at five points

// Overlay mode: the overlay bit with at most one of the two maps, which is then drawn opaque
// over the whole frame; with both maps the pictures stay small thumbnails.
inline bool debug_display_overlay(int32_t display) {
  return (display & kDisplayOverlay) != 0 && (display & kDisplayBothMaps) != kDisplayBothMaps;
}

inline bool debug_log_on(int32_t mask) {
  return (logFlags.load(std::memory_order_relaxed) & mask) != 0;
}

// Ungated line with the function-and-line prefix.
#define VM_LOG(fmt, ...) \
  __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, VM_LOG_PREFIX fmt, __func__, __LINE__, ##__VA_ARGS__)
// Line gated by log flag bits.
#define VM_LOG_IF(mask, fmt, ...)                       \
  do {                                                  \
    if (debug_log_on(mask)) VM_LOG(fmt, ##__VA_ARGS__); \
  } while (0)
// Profiling line (no gate of its own; callers test kLogProfileMask).
#define VM_PROFILE(fmt, ...) \
  __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, VM_PROFILE_PREFIX fmt, __func__, __LINE__, ##__VA_ARGS__)
#define VM_PROFILE_IF(fmt, ...)                                        \
  do {                                                                 \
    if (debug_log_on(kLogProfileMask)) VM_PROFILE(fmt, ##__VA_ARGS__); \
  } while (0)

// Wall-clock milliseconds as the profiling lines count them: seconds x 1000 plus microseconds
// / 1000, each reading truncated before any subtraction.
long debug_time_ms(void);
// Milliseconds since start, a debug_time_ms reading: what every cost line prints.
inline long debug_elapsed_ms(long start) {
  return debug_time_ms() - start;
}

// Reads a system property as a decimal integer: an empty or missing value reads as 0, text
// that is not a number as 0, values beyond 32 bits are clamped.
int32_t debug_read_property_int(const char* name);

#endif  // VMKTRRT_DEBUG_DEBUG_LOG_H
