// fuzz_input.h - how every fuzz target reads its input: little-endian values, zeros past the end,
// and a check that stops the fuzzer on a broken promise.
#ifndef VMKTR_FUZZ_INPUT_H
#define VMKTR_FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>

struct FuzzBytes {
  const uint8_t* p;
  size_t n;
  size_t at;
  bool done() const { return at >= n; }
  uint8_t u8() { return at < n ? p[at++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(u8() | (u8() << 8)); }
  uint32_t u32() { return static_cast<uint32_t>(u16()) | (static_cast<uint32_t>(u16()) << 16); }
  int32_t i32() { return static_cast<int32_t>(u32()); }
};

// A trap rather than an assert: it fires in release replays too.
inline void fuzz_check(bool ok) {
  if (!ok) __builtin_trap();
}

#endif  // VMKTR_FUZZ_INPUT_H
