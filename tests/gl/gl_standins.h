// gl_standins.h - scripted stand-ins for single EGL/GL calls, defined in the test executable.
// Each forwards to the real function unless a test asked it to fail.
#ifndef VMKTR_TESTS_GL_STANDINS_H
#define VMKTR_TESTS_GL_STANDINS_H

#include <GLES2/gl2.h>

#include <atomic>

struct GlStandIns {
  std::atomic<bool> noDisplay{false};       // eglGetDisplay answers EGL_NO_DISPLAY
  std::atomic<int> destroySurfaceFails{0};  // the next n eglDestroySurface report EGL_FALSE
  std::atomic<int> linkFails{0};            // the next n glLinkProgram link without a vertex shader
  std::atomic<GLenum> brokenSourceType{0};  // glShaderSource gives shaders of this type bad text
};

extern GlStandIns glStandIns;

// Back to forwarding everything.
void gl_standins_reset();

#endif  // VMKTR_TESTS_GL_STANDINS_H
