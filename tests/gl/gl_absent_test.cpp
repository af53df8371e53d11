// The GL pipeline in a process without EGL and GLES, as a camera HAL process may be: init_GL
// fails as it does on a system without a display, each step with its own line, and nothing
// that follows draws or crashes.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <vector>

#include "debug/debug_log.h"
#include "gl/gl_api.h"
#include "gl/gl_context.h"
#include "gl/gl_dump.h"
#include "gl/gl_passes.h"
#include "log_capture.h"

namespace {

class GlAbsent : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    // This executable links neither library; the names below exist nowhere.
    gl_api_use_libraries("libvmktr-absent-EGL.so", "libvmktr-absent-GLESv2.so");
    logFlags = kLogGl;
  }
  void TearDown() override {
    logFlags = 0;
    gl_api_use_libraries(nullptr, nullptr);
    PropertyFixture::TearDown();
  }
};

TEST_F(GlAbsent, InitFailsWithTheNoDisplayLinesAndEverythingAfterIsRefused) {
  ASSERT_EQ(dlsym(RTLD_DEFAULT, "eglGetDisplay"), nullptr) << "this process must not have EGL";
  EXPECT_EQ(init_GL(), kGlErrGenTextures);
  EXPECT_FALSE(gl_api_loaded());
  EXPECT_EQ(glContextRecord.isCreated, 0);
  ASSERT_EQ(log.count("EGL/GLES not available: "), 1u);
  EXPECT_EQ(log.count("libvmktr-absent-EGL.so"), 1u);
  EXPECT_EQ(log.count("eglDisplay return EGL_NO_DISPLAY"), 1u);
  EXPECT_EQ(log.count("EglCreateContextSurface failed - ErrCode : 0x17600001"), 1u);
  EXPECT_EQ(log.count("eglInitialize"), 0u);
  // Each program: creation fails at its first error check; init goes on to the next.
  EXPECT_EQ(log.count("glGetError Returned: 0x502"), 5u);
  EXPECT_EQ(log.count("OpenGLCreateShader failed - ErrCode : 0x7600001"), 5u);
  EXPECT_EQ(log.count("glGenTextures failed"), 1u);
  EXPECT_EQ(log.count("OpenGLGenTexturesBuffers failed - ErrCode : 0x7600006"), 1u);

  std::vector<uint8_t> nv21(8 * 8 * 3 / 2, 100), rgba(8 * 8 * 4);
  EXPECT_EQ(gl_pipeline_nv21_to_rgba(nv21.data(), 8, 8, rgba.data()), kGlErrNotCreated);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(8, 8, "_x"), kGlErrNotCreated);
  EXPECT_EQ(OpenGLDumpGPUOutputResult(INT32_MAX, INT32_MAX, "_x"), kGlErrArgument);  // the check must not overflow
  EXPECT_EQ(OpenGLInitTexturesInputConfig(0, 8, 8, GL_LUMINANCE, nullptr), kGlErrIndex);
  EXPECT_EQ(OpenGLInitNativeTexturesBuffersConfig(0, 8, 8, GL_RGBA, nullptr), kGlErrIndex);

  // Tear-down fails at the first EGL call, as with no display, and still clears the flag.
  EXPECT_EQ(deinit_GL(), kGlErrMakeCurrent);
  EXPECT_EQ(log.count("eglMakeCurrent Returned: 0x0"), 1u);
  EXPECT_EQ(glContextRecord.isCreated, 0);

  // The libraries may turn up later: each init looks again.
  log.clear();
  EXPECT_EQ(init_GL(), kGlErrGenTextures);
  EXPECT_EQ(log.count("EGL/GLES not available: "), 1u);
  EXPECT_EQ(deinit_GL(), kGlErrMakeCurrent);
}

}  // namespace
