// engine_gate.h - holds a faked engine call inside until the test opens the gate, so that "the
// worker is busy" lasts exactly as long as the test needs, however loaded the machine is.
#ifndef VMKTR_TESTS_ENGINE_GATE_H
#define VMKTR_TESTS_ENGINE_GATE_H

#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "fakes.h"

// While the gate is closed, every call of the named fake (or only those for which holds() says
// so) stays inside, after it was recorded. Closing it again holds the next such call. The gate
// opens and takes its hook down when it goes out of scope, so no worker is left stuck.
class EngineGate {
 public:
  explicit EngineGate(std::string call, std::function<bool()> holds = nullptr)
      : call_(std::move(call)), closed_(std::make_shared<std::atomic<bool>>(true)) {
    // The hook keeps the flag alive by itself: a worker may still be inside when the gate is gone.
    std::shared_ptr<std::atomic<bool>> closed = closed_;
    fakes::setHook(call_, [closed, holds] {
      if (holds && !holds()) return;
      while (closed->load()) usleep(200);
    });
  }
  ~EngineGate() {
    open();
    fakes::setHook(call_, nullptr);
  }
  EngineGate(const EngineGate&) = delete;
  EngineGate& operator=(const EngineGate&) = delete;

  void open() { closed_->store(false); }
  void close() { closed_->store(true); }

 private:
  std::string call_;
  std::shared_ptr<std::atomic<bool>> closed_;
};

#endif  // VMKTR_TESTS_ENGINE_GATE_H
