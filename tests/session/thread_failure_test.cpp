// A worker thread that cannot be started: the session still starts, frames keep flowing (rendered
// without a map, or not touched at all), the failure is logged, and shut-down does not wait for
// a thread that never ran. pthread_create is replaced in this executable so that a chosen call
// fails; every other call goes to the real one.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "log_capture.h"
#include "session_support.h"

namespace {

std::atomic<int> g_failCountdown{0};  // the n-th pthread_create from now fails; 0: none

using CreateFn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
  static const CreateFn real = reinterpret_cast<CreateFn>(dlsym(RTLD_NEXT, "pthread_create"));
  const int n = g_failCountdown.load();
  if (n > 0 && g_failCountdown.fetch_sub(1) == 1) return EAGAIN;
  return real != nullptr ? real(thread, attr, start, arg) : EAGAIN;
}

namespace {

class ThreadFailure : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    fakes::reset();
    setProp("persist.vm.log.ktrrt.sc", "2");
  }
  void TearDown() override {
    g_failCountdown.store(0);
    vmKtrRT_SC_Deinit();
    fakes::reset();
    PropertyFixture::TearDown();
  }
};

TEST_F(ThreadFailure, SessionGoesOnWithoutTheWorkerThatDidNotStart) {
  struct Case {
    int failing;  // 1: the depth worker (started first), 2: the refocus-map worker
    const char* line;
  };
  for (Case k : {Case{1, "Create gen depth thread failed..."}, Case{2, "Create gen refocus map thread failed..."}}) {
    SCOPED_TRACE(k.failing);
    fakes::reset();
    log.clear();
    Frames f(64, 48, 64, 48, 32, 24);
    g_failCountdown.store(k.failing);
    ASSERT_EQ(vmKtrRT_SC_Init(f.init(2)), 0u);
    EXPECT_EQ(g_failCountdown.load(), 0);  // the chosen creation was reached
    EXPECT_EQ(log.count(k.line), 1u);

    // A still scene asks for depth every frame once settled; with one worker missing no map
    // is ever made, and every frame is either drawn without one or left as it came.
    const std::vector<uint8_t> before = f.main;
    const auto frame = [&] {
      f.main = before;
      vmKtrRT_SC_Run(f.centred());
    };
    for (int i = 0; i < 40; ++i) {
      frame();
      usleep(1000);
    }
    // Where the depth worker runs, frames keep coming until it has made depth, however long the
    // machine takes to give it a processor.
    if (k.failing == 2)
      waitUntil([&] {
        frame();
        return fakes::count("vmDpx2_Run_Express") > 0;
      });
    EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap"), 0u);
    for (const fakes::Call& c : fakes::calls("vmKtrRT_GLStartV1")) EXPECT_EQ(c.args[5], 1);  // no map
    // Depth is still made when only the refocus-map worker is missing.
    EXPECT_EQ(fakes::count("vmDpx2_Run_Express") > 0, k.failing == 2);
    // Returns (its value follows the profile log, on here), closing the engines as ever.
    vmKtrRT_SC_Deinit();
    EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 1u);
    EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 1u);
  }
}

}  // namespace
