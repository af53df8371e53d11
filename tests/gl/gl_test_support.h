// gl_test_support.h - the fixture that brings the GL pipeline up for a test (or skips the test
// when no EGL display with window-capable configs can be had), and image helpers.
#ifndef VMKTR_TESTS_GL_TEST_SUPPORT_H
#define VMKTR_TESTS_GL_TEST_SUPPORT_H

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "debug/debug_log.h"
#include "gl/gl_context.h"
#include "gl/gl_passes.h"
#include "gl_standins.h"
#include "log_capture.h"

// Keeps Mesa's driver libraries loaded once they are in. Each eglTerminate unloads them, and
// the blocks that LLVM inside the driver keeps for the life of the process then lose the only
// references to them (in the unloaded module's data): the leak checker reports them from an
// unknown module. With the modules pinned nothing is reported and no suppression is needed.
inline void pinMesaModules() {
  dl_iterate_phdr(
      [](struct dl_phdr_info* info, size_t, void*) {
        const char* name = info->dlpi_name;
        if (name != nullptr && (strstr(name, "_dri.so") || strstr(name, "libLLVM") || strstr(name, "libgallium") ||
                                strstr(name, "libEGL_mesa") || strstr(name, "libglapi")))
          dlopen(name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
        return 0;
      },
      nullptr);
}

// Brings the pipeline up with the GL log flag set; a machine without a usable display skips.
class GlFixture : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    gl_standins_reset();
    logFlags = kLogGl;
    init_GL();
    if (glContextRecord.isCreated != 1) {
      deinit_GL();
      cleanUpAfterFailedContext();
      logFlags = 0;
      GTEST_SKIP() << "no EGL display with window-capable configs (run under xvfb-run)";
    }
    pinMesaModules();
    log.clear();
  }
  void TearDown() override {
    if (glContextRecord.isCreated == 1) {
      EXPECT_EQ(deinit_GL(), kGlOk);
    }
    gl_standins_reset();
    logFlags = 0;
    PropertyFixture::TearDown();
  }

 public:
  // What a failed tear-down left behind, released with the real calls.
  static void cleanUpAfterFailedContext() {
    GlContextRecord& r = glContextRecord;
    if (r.display == EGL_NO_DISPLAY) return;
    eglMakeCurrent(r.display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (r.surface != EGL_NO_SURFACE) eglDestroySurface(r.display, r.surface);
    if (r.context != EGL_NO_CONTEXT) eglDestroyContext(r.display, r.context);
    eglTerminate(r.display);
    r.display = EGL_NO_DISPLAY;
    r.surface = EGL_NO_SURFACE;
    r.context = EGL_NO_CONTEXT;
  }
};

// Deterministic pseudo-random bytes.
inline std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  uint32_t s = seed * 2654435761u + 1u;
  for (auto& b : v) {
    s = s * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(s >> 24);
  }
  return v;
}

// Largest absolute difference per channel of two interleaved images with `channels` channels.
inline std::vector<int> maxDiffPerChannel(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int channels) {
  std::vector<int> d(static_cast<size_t>(channels), 0);
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    int diff = std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i]));
    int& m = d[i % static_cast<size_t>(channels)];
    if (diff > m) m = diff;
  }
  return d;
}

inline std::string describe(const std::vector<int>& d) {
  std::string s;
  for (int v : d) s += (s.empty() ? "" : " ") + std::to_string(v);
  return s;
}

#endif  // VMKTR_TESTS_GL_TEST_SUPPORT_H
