// The context, programs, pools, configuration and tear-down of the GL pipeline, including the
// failure paths driven by the stand-ins.
#include <gtest/gtest.h>

#include <set>

#include "gl_test_support.h"

namespace {

using GlContext = GlFixture;

GLuint allPrograms(int i) {
  const GLuint p[] = {glPrograms.programNV21toRGB, glPrograms.programScalerBypass, glPrograms.programGaussX,
                      glPrograms.programGaussY, glPrograms.programGaussMask};
  return p[i];
}

TEST_F(GlContext, InitMakesAOnePixelPbufferContextWithTheRequestedConfig) {
  const GlContextRecord& r = glContextRecord;
  EXPECT_EQ(r.isCreated, 1);
  EXPECT_EQ(r.clientVersion, 2);
  EXPECT_GE(r.configCount, 1);
  EXPECT_LE(r.configCount, 10);
  EXPECT_GE(r.eglMajor, 1);
  EXPECT_EQ(eglGetCurrentContext(), r.context);
  EGLint v = 0;
  ASSERT_TRUE(eglQuerySurface(r.display, r.surface, EGL_WIDTH, &v));
  EXPECT_EQ(v, 1);
  ASSERT_TRUE(eglQuerySurface(r.display, r.surface, EGL_HEIGHT, &v));
  EXPECT_EQ(v, 1);
  ASSERT_TRUE(eglGetConfigAttrib(r.display, r.config, EGL_SURFACE_TYPE, &v));
  EXPECT_EQ(v & (EGL_WINDOW_BIT | EGL_PBUFFER_BIT), EGL_WINDOW_BIT | EGL_PBUFFER_BIT);
  ASSERT_TRUE(eglGetConfigAttrib(r.display, r.config, EGL_DEPTH_SIZE, &v));
  EXPECT_GE(v, 24);
  ASSERT_TRUE(eglGetConfigAttrib(r.display, r.config, EGL_STENCIL_SIZE, &v));
  EXPECT_GE(v, 4);
  ASSERT_TRUE(eglQueryContext(r.display, r.context, EGL_CONTEXT_CLIENT_VERSION, &v));
  EXPECT_GE(v, 2);

  for (int i = 0; i < 5; ++i) EXPECT_TRUE(glIsProgram(allPrograms(i))) << i;
  std::set<GLuint> textures;
  for (int i = 0; i < kGlPoolSize; ++i) {
    EXPECT_NE(glPools.framebuffers[i], 0u);
    EXPECT_NE(glPools.renderbuffers[i], 0u);
    EXPECT_NE(glPools.vertexBuffers[i], 0u);
    textures.insert(glPools.inputTextures[i]);
    textures.insert(glPools.targetTextures[i]);
  }
  EXPECT_EQ(textures.size(), 2u * kGlPoolSize);
  EXPECT_EQ(textures.count(0u), 0u);
}

TEST_F(GlContext, CreationLogsEachStepOnlyUnderTheGlFlag) {
  ASSERT_EQ(deinit_GL(), kGlOk);
  log.clear();
  logFlags = 0x7fffffff & ~kLogGl;
  init_GL();
  ASSERT_EQ(glContextRecord.isCreated, 1);
  EXPECT_EQ(deinit_GL(), kGlOk);
  EXPECT_TRUE(log.lines().empty()) << log.lines()[0];

  logFlags = kLogGl;
  init_GL();
  ASSERT_EQ(glContextRecord.isCreated, 1);
  std::vector<std::string> expected = {"eglDisplay return successfully", "eglInitialize successfully",
                                       "eglChooseConfig successfully",   "eglCreatePbufferSurface successfully",
                                       "eglCreateContext successfully",  "eglCreateContext successfully"};
  std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NE(lines[i].find("OpenGLCreateContextSurface:"), std::string::npos) << lines[i];
    EXPECT_NE(lines[i].find(expected[i]), std::string::npos) << lines[i];
  }
}

TEST_F(GlContext, ShaderNamesAreTracedOnlyWithTheTraceFlagToo) {
  GLuint program = 0;
  ASSERT_EQ(OpenGLCreateShader(&program, kGlVertexShader, kGlFragmentScalerBypass), kGlOk);
  EXPECT_EQ(log.count("vertShader = "), 0u);
  glDeleteProgram(program);
  logFlags = kLogGl | kLogTrace;
  ASSERT_EQ(OpenGLCreateShader(&program, kGlVertexShader, kGlFragmentScalerBypass), kGlOk);
  EXPECT_EQ(log.count("vertShader = "), 1u);
  EXPECT_EQ(log.count("fragShader = "), 1u);
  EXPECT_TRUE(glIsProgram(program));
  glDeleteProgram(program);
}

TEST_F(GlContext, CompileFailuresReportTheirShaderAndGlsLog) {
  GLuint program = 77;
  glStandIns.brokenSourceType = GL_VERTEX_SHADER;
  EXPECT_EQ(OpenGLCreateShader(&program, kGlVertexShader, kGlFragmentScalerBypass), kGlErrVertexCompile);
  glStandIns.brokenSourceType = GL_FRAGMENT_SHADER;
  EXPECT_EQ(OpenGLCreateShader(&program, kGlVertexShader, kGlFragmentScalerBypass), kGlErrFragmentCompile);
  EXPECT_EQ(program, 77u);  // untouched on failure
  auto vert = log.matching("vertShader compiler result: ");
  auto frag = log.matching("fragShader compiler result: ");
  ASSERT_EQ(vert.size(), 1u);
  ASSERT_EQ(frag.size(), 1u);
  // The compiler's own message follows the text.
  EXPECT_GT(vert[0].size(), vert[0].find("result: ") + 10);
  EXPECT_GT(frag[0].size(), frag[0].find("result: ") + 10);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(GlContext, AFailedLinkIsLoggedAndInitGoesOnWithTheOtherPrograms) {
  ASSERT_EQ(deinit_GL(), kGlOk);
  log.clear();
  glStandIns.linkFails = 1;  // the first program built: NV21 to RGB
  EXPECT_EQ(init_GL(), kGlOk);
  ASSERT_EQ(glContextRecord.isCreated, 1);
  EXPECT_EQ(glPrograms.programNV21toRGB, 0u);
  for (int i = 1; i < 5; ++i) EXPECT_TRUE(glIsProgram(allPrograms(i))) << i;
  EXPECT_EQ(log.count("Error linking program: "), 1u);
  EXPECT_EQ(log.count("OpenGLCreateShader failed - ErrCode : 0x7600004"), 1u);
  // The pass whose program is missing refuses to draw.
  ASSERT_EQ(gl_pipeline_upload_nv21(0, 1, std::vector<uint8_t>(8 * 8 * 3 / 2, 9).data(), 8, 8), kGlOk);
  ASSERT_EQ(gl_pipeline_prepare_target(0, 8, 8), kGlOk);
  EXPECT_EQ(NV21toRGB(0, 1, 0), kGlErrNoProgram);
}

TEST_F(GlContext, SecondInitKeepsTheContextAndRebuildsWorkingObjects) {
  const EGLContext context = glContextRecord.context;
  const EGLSurface surface = glContextRecord.surface;
  EXPECT_EQ(init_GL(), kGlOk);
  EXPECT_EQ(glContextRecord.context, context);
  EXPECT_EQ(glContextRecord.surface, surface);
  EXPECT_EQ(log.count("eglInitialize successfully"), 0u);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(glIsProgram(allPrograms(i))) << i;
  // The rebuilt objects draw: a 3 x 2 RGBA image through the bypass comes back unchanged.
  std::vector<uint8_t> in = randomBytes(3 * 2 * 4, 5), out(in.size());
  ASSERT_EQ(gl_pipeline_upload(6, in.data(), 3, 2, 12, GL_RGBA), kGlOk);
  ASSERT_EQ(gl_pipeline_prepare_target(6, 3, 2), kGlOk);
  ASSERT_EQ(shader_ScalerBypass(kGlPoolInput, 6, 6), kGlOk);
  ASSERT_EQ(gl_pipeline_read_rgba(6, out.data(), static_cast<int64_t>(out.size())), kGlOk);
  EXPECT_EQ(out, in);
}

TEST_F(GlContext, DeinitReleasesEverything) {
  EXPECT_EQ(deinit_GL(), kGlOk);
  EXPECT_EQ(glContextRecord.isCreated, 0);
  EXPECT_EQ(glContextRecord.display, EGL_NO_DISPLAY);
  EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
  for (int i = 0; i < kGlPoolSize; ++i) {
    EXPECT_EQ(glPools.inputTextures[i], 0u);
    EXPECT_EQ(glPools.framebuffers[i], 0u);
  }
  for (int i = 0; i < 5; ++i) EXPECT_EQ(allPrograms(i), 0u);
  EXPECT_TRUE(log.lines().empty());
  // The passes refuse without a context rather than drawing into nothing.
  std::vector<uint8_t> rgba(16);
  EXPECT_EQ(gl_pipeline_read_rgba(0, rgba.data(), 16), kGlErrNotCreated);
}

TEST_F(GlContext, IndexOutOfRangeIsRefusedWithoutTouchingGlState) {
  std::vector<uint8_t> pixels(4 * 4 * 4, 1);
  glBindTexture(GL_TEXTURE_2D, glPools.inputTextures[2]);
  glBindFramebuffer(GL_FRAMEBUFFER, 0);
  for (uint8_t index : {uint8_t{10}, uint8_t{11}, uint8_t{255}}) {
    EXPECT_EQ(OpenGLInitTexturesInputConfig(index, 4, 4, GL_RGBA, pixels.data()), kGlErrIndex);
    EXPECT_EQ(OpenGLInitNativeTexturesBuffersConfig(index, 4, 4, GL_RGBA, nullptr), kGlErrIndex);
  }
  EXPECT_EQ(log.count("a_ucIndex failed"), 6u);
  GLint bound = 0;
  glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound);
  EXPECT_EQ(static_cast<GLuint>(bound), glPools.inputTextures[2]);
  glGetIntegerv(GL_FRAMEBUFFER_BINDING, &bound);
  EXPECT_EQ(bound, 0);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(GlContext, RenderTargetGetsColourTextureAndDepth24AndStaysBound) {
  ASSERT_EQ(OpenGLInitNativeTexturesBuffersConfig(4, 64, 30, GL_RGBA, nullptr), kGlOk);
  GLint v = 0;
  glGetIntegerv(GL_FRAMEBUFFER_BINDING, &v);
  EXPECT_EQ(static_cast<GLuint>(v), glPools.framebuffers[4]);
  EXPECT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER), static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
  glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME,
                                        &v);
  EXPECT_EQ(static_cast<GLuint>(v), glPools.targetTextures[4]);
  glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &v);
  EXPECT_EQ(static_cast<GLuint>(v), glPools.renderbuffers[4]);
  glBindRenderbuffer(GL_RENDERBUFFER, glPools.renderbuffers[4]);
  glGetRenderbufferParameteriv(GL_RENDERBUFFER, GL_RENDERBUFFER_DEPTH_SIZE, &v);
  EXPECT_EQ(v, 24);
  glGetRenderbufferParameteriv(GL_RENDERBUFFER, GL_RENDERBUFFER_WIDTH, &v);
  EXPECT_EQ(v, 64);
  glGetRenderbufferParameteriv(GL_RENDERBUFFER, GL_RENDERBUFFER_HEIGHT, &v);
  EXPECT_EQ(v, 30);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(GlContext, PoolGenerationFailsOnlyOnInvalidValue) {
  EXPECT_EQ(OpenGLGenTexturesBuffers(-1), kGlErrGenTextures);
  EXPECT_EQ(log.count("glGenTextures failed"), 1u);
  // More names than a pool holds is refused before GL is asked.
  EXPECT_EQ(OpenGLGenTexturesBuffers(kGlPoolSize + 1), kGlErrGenTextures);
  // Another error left pending is not a generation failure.
  glEnable(0x1234);  // GL_INVALID_ENUM
  glDeleteTextures(kGlPoolSize, glPools.inputTextures);
  glDeleteTextures(kGlPoolSize, glPools.targetTextures);
  glDeleteFramebuffers(kGlPoolSize, glPools.framebuffers);
  glDeleteRenderbuffers(kGlPoolSize, glPools.renderbuffers);
  glDeleteBuffers(kGlPoolSize, glPools.vertexBuffers);
  EXPECT_EQ(OpenGLGenTexturesBuffers(kGlPoolSize), kGlOk);
  EXPECT_NE(glPools.inputTextures[0], 0u);
}

TEST_F(GlContext, CheckedDeleteRefusesLengthElevenAndDeletesNothing) {
  EXPECT_EQ(OpenGLDelete(11, &glContextRecord), kGlErrDeleteLength);
  EXPECT_EQ(log.count("OpenGLDelete failed that a_ucBufferLength invalid"), 1u);
  EXPECT_EQ(glContextRecord.isCreated, 1);
  EXPECT_EQ(eglGetCurrentContext(), glContextRecord.context);
  EXPECT_TRUE(glIsProgram(glPrograms.programGaussX));
  ASSERT_EQ(OpenGLInitNativeTexturesBuffersConfig(9, 2, 2, GL_RGBA, nullptr), kGlOk);
  EXPECT_TRUE(glIsFramebuffer(glPools.framebuffers[9]));
}

TEST_F(GlContext, FailedSurfaceDestroyEndsTearDownButClearsIsCreated) {
  glStandIns.destroySurfaceFails = 1;
  EXPECT_EQ(deinit_GL(), kGlErrDestroySurface);
  EXPECT_EQ(glContextRecord.isCreated, 0);
  EXPECT_EQ(log.count("eglDestroySurface Returned: 0x0"), 1u);
  EXPECT_EQ(log.count("OpenGLDelete failed - ErrCode : 0x17600007"), 1u);
  // The sequence stopped there: context and display were not released.
  EXPECT_NE(glContextRecord.context, EGL_NO_CONTEXT);
  EXPECT_NE(glContextRecord.display, EGL_NO_DISPLAY);
  glContextRecord.surface = EGL_NO_SURFACE;  // the stand-in did destroy it
  cleanUpAfterFailedContext();
}

}  // namespace
