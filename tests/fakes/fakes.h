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
#include <functional>
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

// When on, the depth engine fake writes the main camera's luma plane as the depth map instead
// of the pattern, so that a test can follow the image's orientation through the whole road.
void setDepthEchoesMainLuma(bool on);

// Runs hook inside every call of name (after its delay, before it returns), on the calling
// thread: to change the world while an engine "runs".
void setHook(const std::string& name, std::function<void()> hook);

// The refocus-map generator fake writes map[i] = refocusMapValue(i, depth) for the whole map
// (sizes from the renderer's set-up), reading the depth map it is given; the renderer fake
// reads the whole map it is given. Both make a data race visible to the thread sanitizer.
uint8_t refocusMapValue(int32_t index, int32_t x, int32_t y);
// Replaces what the generator fakes write into the map (null: the pattern above).
void setRefocusMapWriter(std::function<void(uint8_t* map)> writer);
// Sum of the map bytes the last vmKtrRT_GLStartV1 read (0 without a map).
uint64_t lastRenderedMapSum();

}  // namespace fakes

#endif  // VMKTR_TESTS_FAKES_H
