// gl_standins.cpp - the test executable's own definitions of a few EGL/GL calls. The pipeline
// looks its functions up in the process's global scope first, where the executable comes
// before any library, so these take the place of the system's; each forwards to the next
// definition (the real library) unless scripted to fail.
#include "gl_standins.h"

#include <EGL/egl.h>
#include <dlfcn.h>

#include <cstdlib>

GlStandIns glStandIns;

void gl_standins_reset() {
  glStandIns.noDisplay = false;
  glStandIns.destroySurfaceFails = 0;
  glStandIns.linkFails = 0;
  glStandIns.brokenSourceType = 0;
}

namespace {

template <typename F>
F real(const char* name) {
  void* p = dlsym(RTLD_NEXT, name);
  if (p == nullptr) abort();  // the real library must be loaded behind us
  return reinterpret_cast<F>(p);
}

bool takeOne(std::atomic<int>& counter) {
  int n = counter.load();
  while (n > 0)
    if (counter.compare_exchange_weak(n, n - 1)) return true;
  return false;
}

}  // namespace

extern "C" {

EGLDisplay eglGetDisplay(EGLNativeDisplayType displayId) {
  static auto next = real<EGLDisplay (*)(EGLNativeDisplayType)>("eglGetDisplay");
  if (glStandIns.noDisplay) return EGL_NO_DISPLAY;
  return next(displayId);
}

// Destroys the surface for real (nothing leaks) but reports failure when scripted.
EGLBoolean eglDestroySurface(EGLDisplay display, EGLSurface surface) {
  static auto next = real<EGLBoolean (*)(EGLDisplay, EGLSurface)>("eglDestroySurface");
  EGLBoolean r = next(display, surface);
  return takeOne(glStandIns.destroySurfaceFails) ? EGL_FALSE : r;
}

// A scripted failure detaches the vertex shader first, so GL itself fails the link and
// writes its own log.
void glLinkProgram(GLuint program) {
  static auto next = real<void (*)(GLuint)>("glLinkProgram");
  if (takeOne(glStandIns.linkFails)) {
    GLuint shaders[4] = {0, 0, 0, 0};
    GLsizei count = 0;
    glGetAttachedShaders(program, 4, &count, shaders);
    for (GLsizei i = 0; i < count; ++i) {
      GLint type = 0;
      glGetShaderiv(shaders[i], GL_SHADER_TYPE, &type);
      if (type == GL_VERTEX_SHADER) glDetachShader(program, shaders[i]);
    }
  }
  next(program);
}

void glShaderSource(GLuint shader, GLsizei count, const GLchar* const* text, const GLint* length) {
  static auto next = real<void (*)(GLuint, GLsizei, const GLchar* const*, const GLint*)>("glShaderSource");
  GLenum broken = glStandIns.brokenSourceType;
  if (broken != 0) {
    GLint type = 0;
    glGetShaderiv(shader, GL_SHADER_TYPE, &type);
    if (static_cast<GLenum>(type) == broken) {
      static const GLchar* const kBad = "void main() { this is not a shader }\n";
      next(shader, 1, &kBad, nullptr);
      return;
    }
  }
  next(shader, count, text, length);
}

}  // extern "C"
