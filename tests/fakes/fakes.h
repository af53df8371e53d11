// fakes.h - recording fakes of the three engine libraries, linked into test executables so that
// the system library's undefined engine symbols bind to them.
//
// Every call is recorded with its name, its arguments (as 64-bit words; addresses included),
// the calling thread and a global sequence number. Results are scripted per function: queued
// results are used first, then the function's default (0 unless set).
#ifndef VMKTR_TESTS_FAKES_H
#define VMKTR_TESTS_FAKES_H

#include <pthread.h>

#include <cstdint>
#include <string>
#include <vector>

namespace fakes {

struct Call {
  std::string name;
  std::vector<int64_t> args;
  pthread_t thread;
  uint64_t sequence;
  float fArg;  // the float argument of the calls that take one (the f-number)
};

// Forgets calls and scripts, and the depth engine's frame counter.
void reset();
std::vector<Call> calls();
std::vector<Call> calls(const std::string& name);
size_t count(const std::string& name);
// Names of all calls in order.
std::vector<std::string> names();

void queueResult(const std::string& name, int32_t result);
void setDefaultResult(const std::string& name, int32_t result);

// Milliseconds the named call sleeps before returning (to keep a worker busy).
void setDelayMs(const std::string& name, int32_t ms);

// The depth engine fake's output: sample (x, y) of an engine-sized map is
// fakeDepthValue(x, y, frame), where frame counts vmDpx2_Run_Express calls from 0.
uint16_t fakeDepthValue(int32_t x, int32_t y, int32_t frame);

}  // namespace fakes

#endif  // VMKTR_TESTS_FAKES_H
