// gl_api.h - the EGL and OpenGL ES 2 functions the off-screen pipeline calls, reached through
// one table that init_GL fills at run time. The library records no load-time dependency on
// libEGL or libGLESv2: a process that never runs the pipeline loads it without them, and one
// without them gets the pipeline's "no display" failures instead of a failed load.
//
// Threading: the table is filled by init_GL and read by the pipeline's functions, all on the
// one thread that holds the context.
#ifndef VMKTRRT_GL_GL_API_H
#define VMKTRRT_GL_GL_API_H

#include <EGL/egl.h>
#include <GLES2/gl2.h>

// Every EGL function of the pipeline; X(name).
#define VM_GL_API_EGL_FUNCTIONS(X) \
  X(eglChooseConfig)               \
  X(eglCreateContext)              \
  X(eglCreatePbufferSurface)       \
  X(eglDestroyContext)             \
  X(eglDestroySurface)             \
  X(eglGetCurrentContext)          \
  X(eglGetDisplay)                 \
  X(eglGetError)                   \
  X(eglInitialize)                 \
  X(eglMakeCurrent)                \
  X(eglTerminate)

// Every OpenGL ES 2 function of the pipeline; X(name).
#define VM_GL_API_GLES_FUNCTIONS(X) \
  X(glActiveTexture)                \
  X(glAttachShader)                 \
  X(glBindBuffer)                   \
  X(glBindFramebuffer)              \
  X(glBindRenderbuffer)             \
  X(glBindTexture)                  \
  X(glCheckFramebufferStatus)       \
  X(glCompileShader)                \
  X(glCreateProgram)                \
  X(glCreateShader)                 \
  X(glDeleteBuffers)                \
  X(glDeleteFramebuffers)           \
  X(glDeleteProgram)                \
  X(glDeleteRenderbuffers)          \
  X(glDeleteShader)                 \
  X(glDeleteTextures)               \
  X(glDisable)                      \
  X(glDisableVertexAttribArray)     \
  X(glDrawArrays)                   \
  X(glEnableVertexAttribArray)      \
  X(glFramebufferRenderbuffer)      \
  X(glFramebufferTexture2D)         \
  X(glGenBuffers)                   \
  X(glGenFramebuffers)              \
  X(glGenRenderbuffers)             \
  X(glGenTextures)                  \
  X(glGetAttribLocation)            \
  X(glGetError)                     \
  X(glGetIntegerv)                  \
  X(glGetProgramInfoLog)            \
  X(glGetProgramiv)                 \
  X(glGetShaderInfoLog)             \
  X(glGetShaderiv)                  \
  X(glGetUniformLocation)           \
  X(glLinkProgram)                  \
  X(glPixelStorei)                  \
  X(glReadPixels)                   \
  X(glRenderbufferStorage)          \
  X(glShaderSource)                 \
  X(glTexImage2D)                   \
  X(glTexParameteri)                \
  X(glTexSubImage2D)                \
  X(glUniform1f)                    \
  X(glUniform1i)                    \
  X(glUniformMatrix4fv)             \
  X(glUseProgram)                   \
  X(glVertexAttribPointer)          \
  X(glViewport)

// Calls are written glApi.glReadPixels(...): each member has the type of the function it names.
struct GlApi {
#define VM_GL_API_MEMBER(name) decltype(&::name) name;
  VM_GL_API_EGL_FUNCTIONS(VM_GL_API_MEMBER)
  VM_GL_API_GLES_FUNCTIONS(VM_GL_API_MEMBER)
#undef VM_GL_API_MEMBER
};

// Until gl_api_load succeeds every member is a stand-in that behaves as EGL and GL do without a
// display or context: eglGetDisplay answers EGL_NO_DISPLAY, other EGL calls EGL_FALSE or no
// object, glGetError GL_INVALID_OPERATION, other GL calls nothing and leave outputs untouched.
extern GlApi glApi;

// Resolves every function, each first in the process's global scope (a definition of the
// executable, or a library the process loaded, takes precedence) and then in libEGL/libGLESv2
// opened for the pipeline. All or nothing: with any function missing the table stays on its
// stand-ins and the reason is logged under the GL log flag. Returns true when the table is filled
// (at once when an earlier call filled it). The libraries stay loaded for the process's life.
bool gl_api_load(void);

// True once gl_api_load filled the table.
bool gl_api_loaded(void);

// The library file names gl_api_load opens when the global scope lacks a function; null
// restores the platform's names. For tests that need the libraries absent.
void gl_api_use_libraries(const char* egl, const char* gles);

#endif  // VMKTRRT_GL_GL_API_H
