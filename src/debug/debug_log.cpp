// debug_log.cpp - flag words, property parsing and the profiling clock.
#include "debug/debug_log.h"

#include <sys/time.h>

#include <climits>
#include <cstdlib>

extern "C" int __system_property_get(const char* name, char* value);

std::atomic<int32_t> logFlags{0};
std::atomic<int32_t> debugEnable{0};
std::atomic<int32_t> debugDisplay{0};
std::atomic<int32_t> statusInfo{0};
std::atomic<int32_t> dumpFlags{0};
std::atomic<int32_t> debugFlag{0};

namespace {
constexpr int kPropertyValueMax = 92;  // the platform's maximum, zero included
}

long debug_time_ms(void) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<long>(tv.tv_sec) * 1000 + static_cast<long>(tv.tv_usec) / 1000;
}

int32_t debug_read_property_int(const char* name) {
  char value[kPropertyValueMax] = {0};
  __system_property_get(name, value);
  value[kPropertyValueMax - 1] = '\0';
  if (value[0] == '\0') return 0;
  // atoi's reading (leading blanks, sign, digits, stop at the first other character), without
  // its undefined result on overflow.
  long long v = strtoll(value, nullptr, 10);
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}
