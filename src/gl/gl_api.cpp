// gl_api.cpp - the pipeline's EGL/GLES function table: stand-ins until init_GL resolves the real
// functions, and the resolution itself.
#include "gl/gl_api.h"

#include <dlfcn.h>

#include "debug/debug_log.h"

namespace {

// What a call answers with no EGL or GL behind it: a zero value of its result type (no display,
// EGL_FALSE, no object), nothing written through its pointers.
template <typename F>
struct Missing;
template <typename R, typename... A>
struct Missing<R (*)(A...)> {
  static R call(A...) { return R(); }
};

// "Nothing can be called": shader creation then fails at its first error check, as it does
// without a context.
GLenum GL_APIENTRY missingGlGetError() {
  return GL_INVALID_OPERATION;
}

#define VM_GL_API_MISSING(name) &Missing<decltype(&::name)>::call,
constexpr GlApi kMissing = {VM_GL_API_EGL_FUNCTIONS(VM_GL_API_MISSING) VM_GL_API_GLES_FUNCTIONS(VM_GL_API_MISSING)};
#undef VM_GL_API_MISSING

constexpr GlApi withMissingGetError(GlApi api) {
  api.glGetError = &missingGlGetError;
  return api;
}
constexpr GlApi kStandIns = withMissingGetError(kMissing);

#ifdef __ANDROID__
const char* const kEglNames[] = {"libEGL.so", nullptr};
const char* const kGlesNames[] = {"libGLESv2.so", nullptr};
#else
const char* const kEglNames[] = {"libEGL.so.1", "libEGL.so", nullptr};
const char* const kGlesNames[] = {"libGLESv2.so.2", "libGLESv2.so", nullptr};
#endif

const char* g_eglOverride = nullptr;
const char* g_glesOverride = nullptr;
bool g_loaded = false;

// A library for the pipeline: local binding, so the process's own lookups stay as they were.
void* openFirst(const char* override, const char* const* names) {
  if (override != nullptr) return dlopen(override, RTLD_NOW | RTLD_LOCAL);
  for (const char* const* n = names; *n != nullptr; ++n)
    if (void* h = dlopen(*n, RTLD_NOW | RTLD_LOCAL)) return h;
  return nullptr;
}

// One library's functions: the global scope first, then the library, opened on first need.
// Returns the first name found nowhere, or null when all were found.
struct Resolver {
  const char* override;
  const char* const* names;
  void* handle;
  bool opened;
  const char* openError;

  void* find(const char* name) {
    if (void* p = dlsym(RTLD_DEFAULT, name)) return p;
    if (!opened) {
      opened = true;
      handle = openFirst(override, names);
      if (handle == nullptr) openError = dlerror();
    }
    return handle != nullptr ? dlsym(handle, name) : nullptr;
  }
};

}  // namespace

GlApi glApi = kStandIns;

bool gl_api_load(void) {
  if (g_loaded) return true;
  Resolver egl = {g_eglOverride, kEglNames, nullptr, false, nullptr};
  Resolver gles = {g_glesOverride, kGlesNames, nullptr, false, nullptr};
  GlApi found = kMissing;
  const char* missing = nullptr;
#define VM_GL_API_FIND(resolver, name)                                                      \
  if (missing == nullptr) {                                                                 \
    void* p = resolver.find(#name);                                                         \
    if (p == nullptr) missing = #name;                                                      \
    found.name = reinterpret_cast<decltype(found.name)>(p); /* same type as the function */ \
  }
#define VM_GL_API_FIND_EGL(name) VM_GL_API_FIND(egl, name)
#define VM_GL_API_FIND_GLES(name) VM_GL_API_FIND(gles, name)
  VM_GL_API_EGL_FUNCTIONS(VM_GL_API_FIND_EGL)
  VM_GL_API_GLES_FUNCTIONS(VM_GL_API_FIND_GLES)
#undef VM_GL_API_FIND_GLES
#undef VM_GL_API_FIND_EGL
#undef VM_GL_API_FIND
  if (missing != nullptr) {
    const char* why = egl.openError != nullptr ? egl.openError : gles.openError;
    VM_LOG_IF(kLogGl, "EGL/GLES not available: %s not found (%s)\n", missing, why != nullptr ? why : "not exported");
    if (egl.handle != nullptr) dlclose(egl.handle);
    if (gles.handle != nullptr) dlclose(gles.handle);
    return false;
  }
  glApi = found;
  g_loaded = true;
  return true;
}

bool gl_api_loaded(void) {
  return g_loaded;
}

void gl_api_use_libraries(const char* egl, const char* gles) {
  g_eglOverride = egl;
  g_glesOverride = gles;
}
