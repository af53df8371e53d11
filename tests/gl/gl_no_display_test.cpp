// The pipeline on a system without a usable display: ctest runs these on Mesa's surfaceless
// platform (EGL_PLATFORM=surfaceless), whose display has no window-capable configs, and with
// eglGetDisplay stood in to answer EGL_NO_DISPLAY.
#include <gtest/gtest.h>

#include <cstring>

#include "gl/gl_dump.h"
#include "gl_test_support.h"

namespace {

class GlNoDisplay : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    gl_standins_reset();
    logFlags = kLogGl;
  }
  void TearDown() override {
    // eglInitialize loaded the driver even though no context came of it; keep it loaded past
    // the eglTerminate below, as GlFixture does, so its lifetime blocks stay reachable.
    pinMesaModules();
    GlFixture::cleanUpAfterFailedContext();
    gl_standins_reset();
    logFlags = 0;
    PropertyFixture::TearDown();
  }
  static bool surfaceless() {
    const char* p = getenv("EGL_PLATFORM");
    return p != nullptr && strcmp(p, "surfaceless") == 0;
  }
};

TEST_F(GlNoDisplay, SurfacelessInitReturnsThePoolResultAndLogsTheContextFailure) {
  if (!surfaceless()) {
    GTEST_SKIP() << "needs EGL_PLATFORM=surfaceless";
  }
  EXPECT_EQ(init_GL(), kGlOk);  // pool generation, with no context current, reports nothing
  EXPECT_EQ(glContextRecord.isCreated, 0);
  EXPECT_EQ(log.count("eglDisplay return successfully"), 1u);
  EXPECT_EQ(log.count("eglChooseConfig failed"), 1u);
  EXPECT_EQ(log.count("EglCreateContextSurface failed - ErrCode : 0x17600003"), 1u);
  // Without a context no program can be built; each failure is logged and init goes on.
  EXPECT_EQ(log.count("OpenGLCreateShader failed - ErrCode : 0x"), 5u);

  // Nothing draws, nothing crashes.
  std::vector<uint8_t> nv21(8 * 8 * 3 / 2, 100), rgba(8 * 8 * 4);
  EXPECT_EQ(gl_pipeline_nv21_to_rgba(nv21.data(), 8, 8, rgba.data()), kGlErrNotCreated);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(8, 8, "_x"), kGlErrNotCreated);

  // Tear-down stops at the surface that was never made, and still clears the flag.
  EXPECT_EQ(deinit_GL(), kGlErrDestroySurface);
  EXPECT_EQ(glContextRecord.isCreated, 0);
}

TEST_F(GlNoDisplay, NoDisplayAtAllIsCode1AndInitStillReturnsThePoolResult) {
  glStandIns.noDisplay = true;
  EXPECT_EQ(init_GL(), kGlOk);
  EXPECT_EQ(glContextRecord.isCreated, 0);
  EXPECT_EQ(log.count("eglDisplay return EGL_NO_DISPLAY"), 1u);
  EXPECT_EQ(log.count("EglCreateContextSurface failed - ErrCode : 0x17600001"), 1u);
  EXPECT_EQ(log.count("eglInitialize"), 0u);
  // Releasing a context on no display fails at the first EGL call.
  EXPECT_EQ(deinit_GL(), kGlErrMakeCurrent);
  EXPECT_EQ(log.count("eglMakeCurrent Returned: 0x0"), 1u);
  EXPECT_EQ(glContextRecord.isCreated, 0);
}

}  // namespace
