// gl_dump.cpp - the GPU output dump and the data dump.
#include "gl/gl_dump.h"

#include <cstdio>
#include <cstring>

#include "debug/debug_log.h"
#include "gl/gl_api.h"
#include "gl/gl_context.h"
#include "memory/heap.h"

extern "C" int __system_property_get(const char* name, char* value);

namespace {

constexpr int32_t kDirBytes = 1024;
constexpr int32_t kPathBytes = kDirBytes + 256;
// Largest dump: one 16384 x 16384 RGBA frame; keeps every count inside 32 bits.
constexpr int64_t kMaxDumpBytes = int64_t{1} << 30;

enum class DumpName { kGpuOutput, kData };

// Property value, then the file name. False when the path does not fit.
bool buildPath(char* path, DumpName kind, int32_t width, int32_t height, const char* suffix) {
  char dir[kDirBytes];
  memset(dir, 0, sizeof dir);
  __system_property_get(VM_GL_DUMP_DIR_PROPERTY, dir);
  dir[kDirBytes - 1] = '\0';
  if (suffix == nullptr) suffix = "";
  int n = kind == DumpName::kGpuOutput
              ? snprintf(path, kPathBytes, "%sGPU_Output_%dx%d%s.raw", dir, width, height, suffix)
              : snprintf(path, kPathBytes, "%sOpenGL_Dump_Data_%dx%d%s.raw", dir, width, height, suffix);
  return n >= 0 && n < kPathBytes;
}

// Copies R, G, B of each RGBA pixel, sixteen pixels a step with a plain tail.
void dropAlpha(const uint8_t* rgba, uint8_t* rgb, int64_t pixels) {
  int64_t i = 0;
  for (; i + 16 <= pixels; i += 16) {
    for (int k = 0; k < 16; ++k) {
      rgb[3 * (i + k)] = rgba[4 * (i + k)];
      rgb[3 * (i + k) + 1] = rgba[4 * (i + k) + 1];
      rgb[3 * (i + k) + 2] = rgba[4 * (i + k) + 2];
    }
  }
  for (; i < pixels; ++i) {
    rgb[3 * i] = rgba[4 * i];
    rgb[3 * i + 1] = rgba[4 * i + 1];
    rgb[3 * i + 2] = rgba[4 * i + 2];
  }
}

}  // namespace

uint32_t OpenGLDumpGPUOutputResult(int32_t width, int32_t height, const char* suffix) {
  if (width <= 0 || height <= 0 || static_cast<int64_t>(width) * height > kMaxDumpBytes / 4) {  // no overflow
    VM_LOG_IF(kLogGl, "dump size %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  if (glContextRecord.isCreated != 1 || glApi.eglGetCurrentContext() != glContextRecord.context) {
    VM_LOG_IF(kLogGl, "no pipeline context current on this thread\n");
    return kGlErrNotCreated;
  }
  const int64_t pixels = static_cast<int64_t>(width) * height;
  uint8_t* rgba = static_cast<uint8_t*>(heap_allocate(static_cast<size_t>(pixels * 4)));
  uint8_t* rgb = static_cast<uint8_t*>(heap_allocate(static_cast<size_t>(pixels * 3)));
  if (rgba == nullptr || rgb == nullptr) {
    VM_LOG_IF(kLogGl, "dump buffers for %dx%d not allocated\n", width, height);
    heap_free(rgba);
    heap_free(rgb);
    return kGlErrMemory;
  }
  // Pixels outside the framebuffer are left alone by GL: they dump as zeros.
  memset(rgba, 0, static_cast<size_t>(pixels * 4));
  glApi.glPixelStorei(GL_PACK_ALIGNMENT, 4);
  glApi.glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, rgba);
  dropAlpha(rgba, rgb, pixels);

  char path[kPathBytes];
  FILE* file = buildPath(path, DumpName::kGpuOutput, width, height, suffix) ? fopen(path, "wb") : nullptr;
  if (file == nullptr) {
    VM_LOG_IF(kLogGl, "Write RAW Image from gpu failed!!!\n");
    // Freed on this path too, unlike the buffers' first owner: a failed dump must not leak.
    heap_free(rgba);
    heap_free(rgb);
    return kGlErrDumpFile;
  }
  fwrite(rgb, 1, static_cast<size_t>(pixels * 3), file);
  fclose(file);
  heap_free(rgba);
  heap_free(rgb);
  return kGlOk;
}

uint32_t OpenGLDumpData(const void* buffer, int32_t width, int32_t height, int32_t a, int32_t b, const char* suffix) {
  if (buffer == nullptr || width < 0 || height < 0 || a < 0 || b < 0) {
    VM_LOG_IF(kLogGl, "dump data %dx%d x %d x %d invalid\n", width, height, a, b);
    return kGlErrArgument;
  }
  // Each factor is below 2^31, so the product of the first two and of the last two fit in
  // 64 bits; the whole is compared without overflowing.
  const int64_t first = static_cast<int64_t>(width) * height;
  const int64_t second = static_cast<int64_t>(a) * b;
  if (second != 0 && first > kMaxDumpBytes / second) {
    VM_LOG_IF(kLogGl, "dump data %dx%d x %d x %d invalid\n", width, height, a, b);
    return kGlErrArgument;
  }
  const int64_t bytes = first * second;
  char path[kPathBytes];
  FILE* file = buildPath(path, DumpName::kData, width, height, suffix) ? fopen(path, "wb") : nullptr;
  if (file == nullptr) {
    VM_LOG_IF(kLogGl, "*OpenGLDumpData Failed!!!\n");
    return kGlErrDumpFile;
  }
  if (bytes > 0) fwrite(buffer, 1, static_cast<size_t>(bytes), file);
  fclose(file);
  return kGlOk;
}
