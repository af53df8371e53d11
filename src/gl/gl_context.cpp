// gl_context.cpp - the off-screen EGL context, program building, object pools, the
// configuration of input textures and render targets, and the orderly tear-down.
#include "gl/gl_context.h"

#include <GLES2/gl2ext.h>

#include <cstring>

#include "debug/debug_log.h"
#include "gl/gl_api.h"
#include "gl/gl_passes.h"
#include "memory/heap.h"

GlContextRecord glContextRecord = {EGL_NO_DISPLAY, nullptr, EGL_NO_CONTEXT, EGL_NO_SURFACE, 0, 0, 0, 0, 0};
GlObjectPools glPools;
GlPrograms glPrograms;

namespace {

constexpr int32_t kMaxConfigs = 10;
constexpr int32_t kShaderLogBytes = 2048;
// Bounded drain of stale GL errors: without a current context some dispatchers answer every
// call with the same value, so the loop must not rely on reaching GL_NO_ERROR.
constexpr int32_t kErrorDrainLimit = 16;

void drainGlErrors() {
  for (int32_t i = 0; i < kErrorDrainLimit && glApi.glGetError() != GL_NO_ERROR; ++i) {
  }
}

void clearShapes(GlTextureShape* shapes) {
  memset(static_cast<void*>(shapes), 0, sizeof(GlTextureShape) * kGlPoolSize);
}

// Deletes the first n names of every pool and the five programs; leaves the context alone.
void deleteObjects(int32_t n) {
  if (n > 0) {
    glApi.glDeleteTextures(n, glPools.inputTextures);
    glApi.glDeleteTextures(n, glPools.targetTextures);
    glApi.glDeleteFramebuffers(n, glPools.framebuffers);
    glApi.glDeleteRenderbuffers(n, glPools.renderbuffers);
    glApi.glDeleteBuffers(n, glPools.vertexBuffers);
    size_t bytes = sizeof(GLuint) * static_cast<size_t>(n);
    memset(glPools.inputTextures, 0, bytes);
    memset(glPools.targetTextures, 0, bytes);
    memset(glPools.framebuffers, 0, bytes);
    memset(glPools.renderbuffers, 0, bytes);
    memset(glPools.vertexBuffers, 0, bytes);
  }
  clearShapes(glPools.inputShapes);
  clearShapes(glPools.targetShapes);
  GLuint* programs[] = {&glPrograms.programNV21toRGB, &glPrograms.programScalerBypass, &glPrograms.programGaussX,
                        &glPrograms.programGaussY, &glPrograms.programGaussMask};
  for (GLuint* p : programs) {
    if (*p != 0) glApi.glDeleteProgram(*p);
    *p = 0;
  }
}

// Binds the texture and gives it the pool's sampling and storage.
void configureTexture(GLuint texture, int32_t width, int32_t height, GLenum format, const void* pixels) {
  glApi.glBindTexture(GL_TEXTURE_2D, texture);
  glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
  glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
  glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  // Caller rows are packed without padding (luma rows of any width).
  glApi.glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glApi.glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(format), width, height, 0, format, GL_UNSIGNED_BYTE, pixels);
}

// The index test callers rely on accepts 0..10; there is no eleventh object, so index 10 (and
// an index whose name was never generated) is refused as well rather than reaching past a pool
// or re-specifying GL's default texture.
bool indexUsable(uint8_t index, const GLuint* pool) {
  return index < kGlPoolSize && pool[index] != 0;
}

bool shapeUsable(int32_t width, int32_t height) {
  return width > 0 && height > 0;
}

}  // namespace

uint32_t OpenGLCreateContextSurface(GlContextRecord* record) {
  if (record == nullptr) {
    VM_LOG_IF(kLogGl, "record is null\n");
    return kGlErrArgument;
  }
  record->display = glApi.eglGetDisplay(EGL_DEFAULT_DISPLAY);
  if (record->display == EGL_NO_DISPLAY) {
    VM_LOG_IF(kLogGl, "eglDisplay return EGL_NO_DISPLAY\n");
    return kGlErrNoDisplay;
  }
  VM_LOG_IF(kLogGl, "eglDisplay return successfully\n");

  if (glApi.eglInitialize(record->display, &record->eglMajor, &record->eglMinor) != EGL_TRUE) {
    VM_LOG_IF(kLogGl, "eglInitialize failed\n");
    return kGlErrInitialize;
  }
  VM_LOG_IF(kLogGl, "eglInitialize successfully\n");

  // clang-format off
  const EGLint configAttributes[] = {
      EGL_SURFACE_TYPE, EGL_WINDOW_BIT | EGL_PBUFFER_BIT,
      EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT,
      EGL_RED_SIZE, 8,
      EGL_GREEN_SIZE, 8,
      EGL_BLUE_SIZE, 8,
      EGL_ALPHA_SIZE, EGL_DONT_CARE,
      EGL_DEPTH_SIZE, 24,
      EGL_STENCIL_SIZE, 4,
      EGL_NONE};
  // clang-format on
  EGLConfig configs[kMaxConfigs] = {};
  record->configCount = 0;
  // A display without a matching configuration (Mesa's surfaceless platform has no window
  // configs) answers EGL_TRUE with none found; there is no first configuration to use then.
  if (glApi.eglChooseConfig(record->display, configAttributes, configs, kMaxConfigs, &record->configCount) !=
          EGL_TRUE ||
      record->configCount < 1) {
    VM_LOG_IF(kLogGl, "eglChooseConfig failed\n");
    return kGlErrChooseConfig;
  }
  record->config = configs[0];
  VM_LOG_IF(kLogGl, "eglChooseConfig successfully\n");

  const EGLint surfaceAttributes[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
  record->surface = glApi.eglCreatePbufferSurface(record->display, record->config, surfaceAttributes);
  if (record->surface == EGL_NO_SURFACE) {
    VM_LOG_IF(kLogGl, "eglCreatePbufferSurface failed - eglGetError Returned: 0x%x\n",
              static_cast<unsigned>(glApi.eglGetError()));
    return kGlErrPbufferSurface;
  }
  VM_LOG_IF(kLogGl, "eglCreatePbufferSurface successfully\n");

  const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, record->clientVersion, EGL_NONE};
  record->context = glApi.eglCreateContext(record->display, record->config, EGL_NO_CONTEXT, contextAttributes);
  if (record->context == EGL_NO_CONTEXT) {
    VM_LOG_IF(kLogGl, "eglCreateContext failed - eglGetError Returned: 0x%x\n",
              static_cast<unsigned>(glApi.eglGetError()));
    return kGlErrCreateContext;
  }
  VM_LOG_IF(kLogGl, "eglCreateContext successfully\n");

  if (glApi.eglMakeCurrent(record->display, record->surface, record->surface, record->context) != EGL_TRUE) {
    VM_LOG_IF(kLogGl, "eglMakeCurrent failed - eglGetError Returned: 0x%x\n",
              static_cast<unsigned>(glApi.eglGetError()));
    return kGlErrMakeCurrent;
  }
  // The same text as after context creation: log readers match on it.
  VM_LOG_IF(kLogGl, "eglCreateContext successfully\n");
  record->isCreated = 1;
  return kGlOk;
}

uint32_t OpenGLCreateShader(GLuint* program, const char* vertexSource, const char* fragmentSource) {
  if (program == nullptr || vertexSource == nullptr || fragmentSource == nullptr) {
    VM_LOG_IF(kLogGl, "program or source is null\n");
    return kGlErrArgument;
  }
  // An error left by earlier work must not be taken for a failure of this build.
  drainGlErrors();
  GLuint vertShader = glApi.glCreateShader(GL_VERTEX_SHADER);
  GLuint fragShader = glApi.glCreateShader(GL_FRAGMENT_SHADER);
  glApi.glShaderSource(vertShader, 1, &vertexSource, nullptr);
  glApi.glShaderSource(fragShader, 1, &fragmentSource, nullptr);
  if (debug_log_on(kLogGl) && debug_log_on(kLogTrace)) {
    VM_LOG("vertShader = %d\n", static_cast<int>(vertShader));
    VM_LOG("fragShader = %d\n", static_cast<int>(fragShader));
  }
  GLenum error = glApi.glGetError();
  if (error != GL_NO_ERROR) {
    VM_LOG_IF(kLogGl, "glGetError Returned: 0x%x\n", static_cast<unsigned>(error));
    // Deleting name 0 is ignored, so a failed creation is harmless here.
    glApi.glDeleteShader(vertShader);
    glApi.glDeleteShader(fragShader);
    return kGlErrShaderCreate;
  }

  glApi.glCompileShader(vertShader);
  glApi.glCompileShader(fragShader);
  // Without a current context the query leaves the value alone: start from "failed".
  GLint status = GL_FALSE;
  glApi.glGetShaderiv(vertShader, GL_COMPILE_STATUS, &status);
  if (status != GL_TRUE) {
    char infoLog[kShaderLogBytes] = {0};
    glApi.glGetShaderInfoLog(vertShader, kShaderLogBytes, nullptr, infoLog);
    infoLog[kShaderLogBytes - 1] = '\0';
    glApi.glDeleteShader(vertShader);
    glApi.glDeleteShader(fragShader);
    VM_LOG_IF(kLogGl, "vertShader compiler result: %s\n", infoLog);
    return kGlErrVertexCompile;
  }
  status = GL_FALSE;
  glApi.glGetShaderiv(fragShader, GL_COMPILE_STATUS, &status);
  if (status != GL_TRUE) {
    char infoLog[kShaderLogBytes] = {0};
    glApi.glGetShaderInfoLog(fragShader, kShaderLogBytes, nullptr, infoLog);
    infoLog[kShaderLogBytes - 1] = '\0';
    glApi.glDeleteShader(vertShader);
    glApi.glDeleteShader(fragShader);
    VM_LOG_IF(kLogGl, "fragShader compiler result: %s\n", infoLog);
    return kGlErrFragmentCompile;
  }

  GLuint built = glApi.glCreateProgram();
  glApi.glAttachShader(built, vertShader);
  glApi.glAttachShader(built, fragShader);
  glApi.glLinkProgram(built);
  status = GL_FALSE;
  glApi.glGetProgramiv(built, GL_LINK_STATUS, &status);
  // Attached shaders live on with the program; deleting them now frees them with it.
  glApi.glDeleteShader(vertShader);
  glApi.glDeleteShader(fragShader);
  if (status == GL_TRUE) {
    *program = built;
    return kGlOk;
  }
  GLint logLength = 0;
  glApi.glGetProgramiv(built, GL_INFO_LOG_LENGTH, &logLength);
  if (logLength > 1) {
    char* infoLog = static_cast<char*>(heap_allocate(static_cast<size_t>(logLength)));
    if (infoLog != nullptr) {
      infoLog[0] = '\0';
      glApi.glGetProgramInfoLog(built, logLength, nullptr, infoLog);
      infoLog[logLength - 1] = '\0';
      VM_LOG_IF(kLogGl, "Error linking program: %s\n", infoLog);
      heap_free(infoLog);
    }
  }
  glApi.glDeleteProgram(built);
  return kGlErrLink;
}

uint32_t OpenGLGenTexturesBuffers(int32_t n) {
  // A count beyond the pools would write past them; GL itself refuses negative counts. Without
  // the GL library there is nothing to generate names with.
  if (n > kGlPoolSize || !gl_api_loaded()) {
    VM_LOG_IF(kLogGl, "glGenTextures failed\n");
    return kGlErrGenTextures;
  }
  glApi.glGenTextures(n, glPools.inputTextures);
  if (glApi.glGetError() == GL_INVALID_VALUE) {
    VM_LOG_IF(kLogGl, "glGenTextures failed\n");
    return kGlErrGenTextures;
  }
  glApi.glGenTextures(n, glPools.targetTextures);
  if (glApi.glGetError() == GL_INVALID_VALUE) {
    VM_LOG_IF(kLogGl, "glGenTextures failed\n");
    return kGlErrGenTextures;
  }
  glApi.glGenFramebuffers(n, glPools.framebuffers);
  if (glApi.glGetError() == GL_INVALID_VALUE) {
    VM_LOG_IF(kLogGl, "glGenFramebuffers failed\n");
    return kGlErrGenBuffers;
  }
  glApi.glGenRenderbuffers(n, glPools.renderbuffers);
  if (glApi.glGetError() == GL_INVALID_VALUE) {
    VM_LOG_IF(kLogGl, "glGenFramebuffers failed\n");
    return kGlErrGenBuffers;
  }
  glApi.glGenBuffers(n, glPools.vertexBuffers);
  if (glApi.glGetError() == GL_INVALID_VALUE) {
    VM_LOG_IF(kLogGl, "glGenBuffers failed\n");
    return kGlErrGenBuffers;
  }
  clearShapes(glPools.inputShapes);
  clearShapes(glPools.targetShapes);
  return kGlOk;
}

uint32_t OpenGLInitTexturesInputConfig(uint8_t a_ucIndex, int32_t width, int32_t height, GLenum format,
                                       const void* pixels) {
  if (!indexUsable(a_ucIndex, glPools.inputTextures)) {
    VM_LOG_IF(kLogGl, "a_ucIndex failed\n");
    return kGlErrIndex;
  }
  if (!shapeUsable(width, height)) {
    VM_LOG_IF(kLogGl, "size %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  configureTexture(glPools.inputTextures[a_ucIndex], width, height, format, pixels);
  glPools.inputShapes[a_ucIndex] = GlTextureShape{width, height, format};
  return kGlOk;
}

uint32_t OpenGLInitNativeTexturesBuffersConfig(uint8_t a_ucIndex, int32_t width, int32_t height, GLenum format,
                                               const void* pixels) {
  if (!indexUsable(a_ucIndex, glPools.targetTextures) || glPools.framebuffers[a_ucIndex] == 0 ||
      glPools.renderbuffers[a_ucIndex] == 0) {
    VM_LOG_IF(kLogGl, "a_ucIndex failed\n");
    return kGlErrIndex;
  }
  if (!shapeUsable(width, height)) {
    VM_LOG_IF(kLogGl, "size %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  GLuint texture = glPools.targetTextures[a_ucIndex];
  configureTexture(texture, width, height, format, pixels);
  glApi.glBindFramebuffer(GL_FRAMEBUFFER, glPools.framebuffers[a_ucIndex]);
  glApi.glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
  glApi.glBindRenderbuffer(GL_RENDERBUFFER, glPools.renderbuffers[a_ucIndex]);
  glApi.glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT24_OES, width, height);
  glApi.glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER,
                                  glPools.renderbuffers[a_ucIndex]);
  glPools.targetShapes[a_ucIndex] = GlTextureShape{width, height, format};
  return kGlOk;
}

uint32_t OpenGLDelete(uint8_t n, GlContextRecord* record) {
  if (n >= 11) {
    VM_LOG_IF(kLogGl, "OpenGLDelete failed that a_ucBufferLength invalid\n");
    return kGlErrDeleteLength;
  }
  if (record == nullptr) {
    VM_LOG_IF(kLogGl, "record is null\n");
    return kGlErrArgument;
  }
  deleteObjects(n);

  EGLBoolean returned = glApi.eglMakeCurrent(record->display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  if (returned != EGL_TRUE) {
    VM_LOG_IF(kLogGl, "eglMakeCurrent Returned: 0x%x\n", static_cast<unsigned>(returned));
    return kGlErrMakeCurrent;
  }
  returned = glApi.eglDestroySurface(record->display, record->surface);
  if (returned != EGL_TRUE) {
    VM_LOG_IF(kLogGl, "eglDestroySurface Returned: 0x%x\n", static_cast<unsigned>(returned));
    return kGlErrDestroySurface;
  }
  record->surface = EGL_NO_SURFACE;
  returned = glApi.eglDestroyContext(record->display, record->context);
  if (returned != EGL_TRUE) {
    VM_LOG_IF(kLogGl, "eglDestroyContext Returned: 0x%x\n", static_cast<unsigned>(returned));
    return kGlErrDestroyContext;
  }
  record->context = EGL_NO_CONTEXT;
  returned = glApi.eglTerminate(record->display);
  if (returned != EGL_TRUE) {
    VM_LOG_IF(kLogGl, "eglTerminate Returned: 0x%x\n", static_cast<unsigned>(returned));
    return kGlErrTerminate;
  }
  record->display = EGL_NO_DISPLAY;
  record->config = nullptr;
  record->isCreated = 0;
  return kGlOk;
}

uint32_t init_GL(void) {
  // EGL and GLES are looked up now, not when the library is loaded. Without them every step
  // below fails as it does on a system without a display, and says so in its own line.
  gl_api_load();
  if (glContextRecord.isCreated == 0) {
    glContextRecord.clientVersion = 2;
    uint32_t created = OpenGLCreateContextSurface(&glContextRecord);
    if (created != kGlOk) VM_LOG_IF(kLogGl, "EglCreateContextSurface failed - ErrCode : 0x%x\n", created);
  } else {
    // A repeated initialisation keeps the context; the earlier programs and names are released
    // first so that they do not leak.
    deleteObjects(kGlPoolSize);
  }

  struct {
    GLuint* program;
    const char* fragment;
  } const builds[] = {
      {&glPrograms.programNV21toRGB, kGlFragmentNV21toRGB}, {&glPrograms.programScalerBypass, kGlFragmentScalerBypass},
      {&glPrograms.programGaussX, kGlFragmentGaussX},       {&glPrograms.programGaussY, kGlFragmentGaussY},
      {&glPrograms.programGaussMask, kGlFragmentGaussMask},
  };
  for (const auto& b : builds) {
    uint32_t built = OpenGLCreateShader(b.program, kGlVertexShader, b.fragment);
    if (built != kGlOk) VM_LOG_IF(kLogGl, "OpenGLCreateShader failed - ErrCode : 0x%x\n", built);
  }

  uint32_t generated = OpenGLGenTexturesBuffers(kGlPoolSize);
  if (generated != kGlOk) VM_LOG_IF(kLogGl, "OpenGLGenTexturesBuffers failed - ErrCode : 0x%x\n", generated);
  // The passes' band buffer and size limits; a failure shows in the passes that need them.
  if (glContextRecord.isCreated == 1) gl_pipeline_reserve();
  return generated;
}

uint32_t deinit_GL(void) {
  uint32_t deleted = OpenGLDelete(kGlPoolSize, &glContextRecord);
  if (deleted != kGlOk) VM_LOG_IF(kLogGl, "OpenGLDelete failed - ErrCode : 0x%x\n", deleted);
  glContextRecord.isCreated = 0;
  gl_pipeline_release();
  return deleted;
}
