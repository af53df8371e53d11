// gl_passes.cpp - uploads, the five passes, read-back, the one-call forms and the CPU
// conversion from RGB back to NV21.
#include "gl/gl_passes.h"

#include <cstdint>

#include "debug/debug_log.h"
#include "gl/gl_api.h"
#include "memory/heap.h"

namespace {

uint8_t* g_band = nullptr;
// Sides beyond the largest texture are refused by the CPU conversion too; byte counts then
// stay within 32 bits.
constexpr int32_t kMaxCpuSide = 16384;
int32_t g_maxSize = 0;

// Indices of the one-call forms.
constexpr uint8_t kInY = 0;
constexpr uint8_t kInVU = 1;
constexpr uint8_t kInRgba = 2;
constexpr uint8_t kInPlane = 3;
constexpr uint8_t kTargetRgb = 0;
constexpr uint8_t kTargetBlur = 1;
constexpr uint8_t kTargetBlur2 = 2;
constexpr uint8_t kTargetPlane = 3;

bool contextCurrent() {
  return glContextRecord.isCreated == 1 && glContextRecord.context != EGL_NO_CONTEXT &&
         glApi.eglGetCurrentContext() == glContextRecord.context;
}

int32_t bytesPerPixel(GLenum format) {
  switch (format) {
    case GL_LUMINANCE:
      return 1;
    case GL_LUMINANCE_ALPHA:
      return 2;
    case GL_RGB:
      return 3;
    case GL_RGBA:
      return 4;
    default:
      return 0;
  }
}

bool sizeUsable(int32_t width, int32_t height) {
  return width > 0 && height > 0 && width <= g_maxSize && height <= g_maxSize;
}

bool sameShape(const GlTextureShape& s, int32_t width, int32_t height, GLenum format) {
  return s.width == width && s.height == height && s.format == format;
}

// Common checks of every GL entry: the context is ours and current on this thread.
uint32_t checkCurrent(const char* caller) {
  if (contextCurrent()) return kGlOk;
  VM_LOG_IF(kLogGl, "%s: no pipeline context current on this thread\n", caller);
  return kGlErrNotCreated;
}

uint32_t checkGlError(const char* what) {
  GLenum error = glApi.glGetError();
  if (error == GL_NO_ERROR) return kGlOk;
  VM_LOG_IF(kLogGl, "%s - glGetError Returned: 0x%x\n", what, static_cast<unsigned>(error));
  return kGlErrDraw;
}

struct PassSource {
  GLuint texture;
  const char* sampler;
  GLint filter;
};

// Resolves (pool, index) to a configured texture, or 0.
GLuint sourceTexture(GlPool pool, uint8_t index, GlTextureShape* shape) {
  if (index >= kGlPoolSize || (pool != kGlPoolInput && pool != kGlPoolTarget)) return 0;
  const GLuint* names = pool == kGlPoolTarget ? glPools.targetTextures : glPools.inputTextures;
  const GlTextureShape* shapes = pool == kGlPoolTarget ? glPools.targetShapes : glPools.inputShapes;
  if (names[index] == 0 || shapes[index].width <= 0) return 0;
  *shape = shapes[index];
  return names[index];
}

// Draws one quad over target targetIndex with program, sampling the sources on units 0, 1, ...
// fInWidth/fInHeight are set when the program has them.
uint32_t drawQuad(const char* caller, GLuint program, const PassSource* sources, int32_t sourceCount,
                  uint8_t targetIndex, float fInWidth, float fInHeight) {
  uint32_t current = checkCurrent(caller);
  if (current != kGlOk) return current;
  if (program == 0) {
    VM_LOG_IF(kLogGl, "%s: program not built\n", caller);
    return kGlErrNoProgram;
  }
  if (targetIndex >= kGlPoolSize || glPools.framebuffers[targetIndex] == 0 ||
      glPools.targetShapes[targetIndex].width <= 0) {
    VM_LOG_IF(kLogGl, "%s: target %d not prepared\n", caller, targetIndex);
    return kGlErrIndex;
  }
  const GLuint targetTexture = glPools.targetTextures[targetIndex];
  for (int32_t i = 0; i < sourceCount; ++i) {
    if (sources[i].texture == 0) {
      VM_LOG_IF(kLogGl, "%s: source %d not configured\n", caller, i);
      return kGlErrIndex;
    }
    // Sampling the texture being drawn is undefined in GL.
    if (sources[i].texture == targetTexture) {
      VM_LOG_IF(kLogGl, "%s: source is the target %d\n", caller, targetIndex);
      return kGlErrArgument;
    }
  }
  const float w = static_cast<float>(glPools.targetShapes[targetIndex].width);
  const float h = static_cast<float>(glPools.targetShapes[targetIndex].height);

  glApi.glGetError();  // a stale error belongs to earlier work, not to this pass
  glApi.glBindFramebuffer(GL_FRAMEBUFFER, glPools.framebuffers[targetIndex]);
  GLenum status = glApi.glCheckFramebufferStatus(GL_FRAMEBUFFER);
  if (status != GL_FRAMEBUFFER_COMPLETE) {
    VM_LOG_IF(kLogGl, "%s: glCheckFramebufferStatus Returned: 0x%x\n", caller, static_cast<unsigned>(status));
    return kGlErrDraw;
  }
  glApi.glViewport(0, 0, glPools.targetShapes[targetIndex].width, glPools.targetShapes[targetIndex].height);
  glApi.glDisable(GL_BLEND);
  glApi.glDisable(GL_DEPTH_TEST);
  glApi.glUseProgram(program);

  for (int32_t i = 0; i < sourceCount; ++i) {
    glApi.glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(i));
    glApi.glBindTexture(GL_TEXTURE_2D, sources[i].texture);
    // Clamped sampling: repeat would blend the opposite edge into border pixels, and GLES 2
    // allows repeat only on power-of-two sizes.
    glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, sources[i].filter);
    glApi.glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, sources[i].filter);
    glApi.glUniform1i(glApi.glGetUniformLocation(program, sources[i].sampler), i);
  }
  GLint location = glApi.glGetUniformLocation(program, "fInWidth");
  if (location >= 0) glApi.glUniform1f(location, fInWidth);
  location = glApi.glGetUniformLocation(program, "fInHeight");
  if (location >= 0) glApi.glUniform1f(location, fInHeight);

  // Orthographic projection of the target's pixel grid (0..w, 0..h) onto clip space, column
  // major.
  const GLfloat projection[16] = {2.0f / w, 0, 0, 0, 0, 2.0f / h, 0, 0, 0, 0, -1.0f, 0, -1.0f, -1.0f, 0, 1.0f};
  glApi.glUniformMatrix4fv(glApi.glGetUniformLocation(program, "projection"), 1, GL_FALSE, projection);

  // Triangle strip over the whole target; texture row 0 lands on framebuffer row 0.
  const GLfloat positions[8] = {0, 0, w, 0, 0, h, w, h};
  const GLfloat coordinates[8] = {0, 0, 1, 0, 0, 1, 1, 1};
  const GLint positionAttribute = glApi.glGetAttribLocation(program, "position");
  const GLint coordinateAttribute = glApi.glGetAttribLocation(program, "inputTextureCoordinate");
  if (positionAttribute < 0 || coordinateAttribute < 0) {
    VM_LOG_IF(kLogGl, "%s: program lacks its attributes\n", caller);
    return kGlErrNoProgram;
  }
  glApi.glBindBuffer(GL_ARRAY_BUFFER, 0);
  glApi.glVertexAttribPointer(static_cast<GLuint>(positionAttribute), 2, GL_FLOAT, GL_FALSE, 0, positions);
  glApi.glVertexAttribPointer(static_cast<GLuint>(coordinateAttribute), 2, GL_FLOAT, GL_FALSE, 0, coordinates);
  glApi.glEnableVertexAttribArray(static_cast<GLuint>(positionAttribute));
  glApi.glEnableVertexAttribArray(static_cast<GLuint>(coordinateAttribute));
  glApi.glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  glApi.glDisableVertexAttribArray(static_cast<GLuint>(positionAttribute));
  glApi.glDisableVertexAttribArray(static_cast<GLuint>(coordinateAttribute));
  glApi.glActiveTexture(GL_TEXTURE0);
  return checkGlError(caller);
}

uint32_t singleSourcePass(const char* caller, GLuint program, GlPool pool, uint8_t sourceIndex, uint8_t targetIndex,
                          GLint filter) {
  GlTextureShape shape = {0, 0, 0};
  PassSource source = {sourceTexture(pool, sourceIndex, &shape), "inputImageTexture", filter};
  return drawQuad(caller, program, &source, 1, targetIndex, static_cast<float>(shape.width),
                  static_cast<float>(shape.height));
}

uint32_t runBlur(GlPool pool, uint8_t sourceIndex, GlBlur blur, uint8_t* finalTarget) {
  switch (blur) {
    case kGlBlurX:
      *finalTarget = kTargetBlur;
      return shader_GaussX(pool, sourceIndex, kTargetBlur);
    case kGlBlurY:
      *finalTarget = kTargetBlur;
      return shader_GaussY(pool, sourceIndex, kTargetBlur);
    case kGlBlurMask:
      *finalTarget = kTargetBlur;
      return shader_GaussMask(pool, sourceIndex, kTargetBlur);
    case kGlBlurXY: {
      *finalTarget = kTargetBlur2;
      uint32_t r = shader_GaussX(pool, sourceIndex, kTargetBlur);
      return r != kGlOk ? r : shader_GaussY(kGlPoolTarget, kTargetBlur, kTargetBlur2);
    }
  }
  return kGlErrArgument;
}

bool blurKnown(GlBlur blur) {
  return blur == kGlBlurX || blur == kGlBlurY || blur == kGlBlurXY || blur == kGlBlurMask;
}

uint8_t clampRound(float v) {
  if (!(v > 0.0f)) return 0;  // also NaN
  if (v >= 255.0f) return 255;
  return static_cast<uint8_t>(v + 0.5f);
}

// Converts rows (even count) of RGB(A) to NV21 luma rows and VU rows.
void convertRows(const uint8_t* rgb, int32_t width, int32_t rows, int32_t pixelBytes, uint8_t* luma, uint8_t* vu) {
  const size_t pixel = static_cast<size_t>(pixelBytes);
  const size_t rowBytes = static_cast<size_t>(width) * pixel;
  for (int32_t y = 0; y < rows; ++y) {
    const uint8_t* p = rgb + rowBytes * static_cast<size_t>(y);
    uint8_t* out = luma + static_cast<size_t>(width) * static_cast<size_t>(y);
    for (int32_t x = 0; x < width; ++x, p += pixelBytes)
      out[x] = clampRound(0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2]);
  }
  for (int32_t y = 0; y < rows; y += 2) {
    const uint8_t* top = rgb + rowBytes * static_cast<size_t>(y);
    const uint8_t* bottom = top + rowBytes;
    uint8_t* out = vu + static_cast<size_t>(width) * static_cast<size_t>(y / 2);
    for (int32_t x = 0; x < width; x += 2) {
      const uint8_t* a = top + static_cast<size_t>(x) * pixel;
      const uint8_t* b = bottom + static_cast<size_t>(x) * pixel;
      float r = 0.25f * static_cast<float>(a[0] + a[pixelBytes] + b[0] + b[pixelBytes]);
      float g = 0.25f * static_cast<float>(a[1] + a[pixelBytes + 1] + b[1] + b[pixelBytes + 1]);
      float bl = 0.25f * static_cast<float>(a[2] + a[pixelBytes + 2] + b[2] + b[pixelBytes + 2]);
      float yy = 0.299f * r + 0.587f * g + 0.114f * bl;
      out[x] = clampRound((r - yy) / 1.402f + 128.0f);       // V
      out[x + 1] = clampRound((bl - yy) / 1.772f + 128.0f);  // U
    }
  }
}

}  // namespace

uint32_t gl_pipeline_reserve(void) {
  GLint texture = 0, renderbuffer = 0;
  GLint viewport[2] = {0, 0};
  glApi.glGetIntegerv(GL_MAX_TEXTURE_SIZE, &texture);
  glApi.glGetIntegerv(GL_MAX_RENDERBUFFER_SIZE, &renderbuffer);
  glApi.glGetIntegerv(GL_MAX_VIEWPORT_DIMS, viewport);
  int32_t limit = texture;
  if (renderbuffer < limit) limit = renderbuffer;
  if (viewport[0] < limit) limit = viewport[0];
  if (viewport[1] < limit) limit = viewport[1];
  // Keeps every byte count of a texture within 32 bits (16384 x 16384 x 4 = 2^30).
  if (limit > 16384) limit = 16384;
  g_maxSize = limit > 0 ? limit : 0;
  if (g_band == nullptr) g_band = static_cast<uint8_t*>(heap_allocate(kGlBandScratchBytes));
  if (g_band == nullptr) {
    VM_LOG_IF(kLogGl, "band buffer of %d bytes not allocated\n", kGlBandScratchBytes);
    return kGlErrMemory;
  }
  return kGlOk;
}

void gl_pipeline_release(void) {
  heap_free(g_band);
  g_band = nullptr;
  g_maxSize = 0;
}

int32_t gl_pipeline_max_size(void) {
  return g_maxSize;
}

uint32_t gl_pipeline_upload(uint8_t index, const uint8_t* pixels, int32_t width, int32_t height, int32_t stride,
                            GLenum format) {
  uint32_t current = checkCurrent(__func__);
  if (current != kGlOk) return current;
  const int32_t pixelBytes = bytesPerPixel(format);
  if (pixels == nullptr || pixelBytes == 0 || !sizeUsable(width, height) ||
      static_cast<int64_t>(stride) < static_cast<int64_t>(width) * pixelBytes) {
    VM_LOG_IF(kLogGl, "upload %dx%d stride %d format 0x%x invalid\n", width, height, stride,
              static_cast<unsigned>(format));
    return kGlErrArgument;
  }
  if (index >= kGlPoolSize || glPools.inputTextures[index] == 0) {
    VM_LOG_IF(kLogGl, "a_ucIndex failed\n");
    return kGlErrIndex;
  }
  glApi.glGetError();
  const bool packed = stride == width * pixelBytes;
  if (!sameShape(glPools.inputShapes[index], width, height, format)) {
    uint32_t r = OpenGLInitTexturesInputConfig(index, width, height, format, packed ? pixels : nullptr);
    if (r != kGlOk) return r;
    if (packed) return checkGlError(__func__);
  } else {
    glApi.glBindTexture(GL_TEXTURE_2D, glPools.inputTextures[index]);
    glApi.glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  }
  if (packed) {
    glApi.glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, format, GL_UNSIGNED_BYTE, pixels);
  } else {
    // GLES 2 has no row length for unpacking: padded rows go up one by one.
    for (int32_t y = 0; y < height; ++y)
      glApi.glTexSubImage2D(GL_TEXTURE_2D, 0, 0, y, width, 1, format, GL_UNSIGNED_BYTE,
                            pixels + static_cast<size_t>(stride) * static_cast<size_t>(y));
  }
  return checkGlError(__func__);
}

uint32_t gl_pipeline_upload_nv21(uint8_t yIndex, uint8_t vuIndex, const uint8_t* nv21, int32_t width, int32_t height) {
  if (nv21 == nullptr || width < 2 || height < 2 || (width & 1) != 0 || (height & 1) != 0 || yIndex == vuIndex) {
    VM_LOG_IF(kLogGl, "NV21 frame %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  uint32_t r = gl_pipeline_upload(yIndex, nv21, width, height, width, GL_LUMINANCE);
  if (r != kGlOk) return r;
  const uint8_t* vu = nv21 + static_cast<size_t>(width) * static_cast<size_t>(height);
  return gl_pipeline_upload(vuIndex, vu, width / 2, height / 2, width, GL_LUMINANCE_ALPHA);
}

uint32_t gl_pipeline_prepare_target(uint8_t index, int32_t width, int32_t height) {
  uint32_t current = checkCurrent(__func__);
  if (current != kGlOk) return current;
  if (!sizeUsable(width, height)) {
    VM_LOG_IF(kLogGl, "target %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  if (index < kGlPoolSize && sameShape(glPools.targetShapes[index], width, height, GL_RGBA)) return kGlOk;
  glApi.glGetError();
  uint32_t r = OpenGLInitNativeTexturesBuffersConfig(index, width, height, GL_RGBA, nullptr);
  if (r != kGlOk) return r;
  return checkGlError(__func__);
}

uint32_t NV21toRGB(uint8_t yIndex, uint8_t vuIndex, uint8_t targetIndex) {
  GlTextureShape yShape = {0, 0, 0}, vuShape = {0, 0, 0};
  PassSource sources[2] = {
      {sourceTexture(kGlPoolInput, yIndex, &yShape), "inputYTexture", GL_NEAREST},
      {sourceTexture(kGlPoolInput, vuIndex, &vuShape), "inputUVTexture", GL_NEAREST},
  };
  // Nearest chroma gives every pixel of a 2 x 2 block its own pair; that needs the chroma
  // texture to be exactly half the luma in each direction.
  if (sources[0].texture != 0 && sources[1].texture != 0 &&
      (yShape.width != 2 * vuShape.width || yShape.height != 2 * vuShape.height)) {
    VM_LOG_IF(kLogGl, "chroma %dx%d does not match luma %dx%d\n", vuShape.width, vuShape.height, yShape.width,
              yShape.height);
    return kGlErrArgument;
  }
  return drawQuad(__func__, glPrograms.programNV21toRGB, sources, 2, targetIndex, 0.0f, 0.0f);
}

uint32_t shader_ScalerBypass(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex) {
  return singleSourcePass(__func__, glPrograms.programScalerBypass, pool, sourceIndex, targetIndex, GL_LINEAR);
}

uint32_t shader_GaussX(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex) {
  return singleSourcePass(__func__, glPrograms.programGaussX, pool, sourceIndex, targetIndex, GL_LINEAR);
}

uint32_t shader_GaussY(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex) {
  return singleSourcePass(__func__, glPrograms.programGaussY, pool, sourceIndex, targetIndex, GL_LINEAR);
}

uint32_t shader_GaussMask(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex) {
  return singleSourcePass(__func__, glPrograms.programGaussMask, pool, sourceIndex, targetIndex, GL_NEAREST);
}

uint32_t gl_pipeline_read_rgba(uint8_t index, uint8_t* rgba, int64_t capacity) {
  uint32_t current = checkCurrent(__func__);
  if (current != kGlOk) return current;
  if (index >= kGlPoolSize || glPools.framebuffers[index] == 0 || glPools.targetShapes[index].width <= 0) {
    VM_LOG_IF(kLogGl, "target %d not prepared\n", index);
    return kGlErrIndex;
  }
  const GlTextureShape& shape = glPools.targetShapes[index];
  if (rgba == nullptr || capacity < static_cast<int64_t>(shape.width) * shape.height * 4) {
    VM_LOG_IF(kLogGl, "read-back buffer of %lld bytes too small for %dx%d\n", static_cast<long long>(capacity),
              shape.width, shape.height);
    return kGlErrArgument;
  }
  glApi.glGetError();
  glApi.glBindFramebuffer(GL_FRAMEBUFFER, glPools.framebuffers[index]);
  glApi.glPixelStorei(GL_PACK_ALIGNMENT, 4);
  glApi.glReadPixels(0, 0, shape.width, shape.height, GL_RGBA, GL_UNSIGNED_BYTE, rgba);
  return checkGlError(__func__);
}

uint32_t gl_pipeline_nv21_to_rgba(const uint8_t* nv21, int32_t width, int32_t height, uint8_t* rgba) {
  if (rgba == nullptr) return kGlErrArgument;
  uint32_t r = gl_pipeline_upload_nv21(kInY, kInVU, nv21, width, height);
  if (r == kGlOk) r = gl_pipeline_prepare_target(kTargetRgb, width, height);
  if (r == kGlOk) r = NV21toRGB(kInY, kInVU, kTargetRgb);
  if (r == kGlOk) r = gl_pipeline_read_rgba(kTargetRgb, rgba, static_cast<int64_t>(width) * height * 4);
  return r;
}

uint32_t gl_pipeline_blur_rgba(const uint8_t* rgba, int32_t width, int32_t height, GlBlur blur, uint8_t* out) {
  if (out == nullptr || !blurKnown(blur)) {
    VM_LOG_IF(kLogGl, "blur %d or output invalid\n", static_cast<int>(blur));
    return kGlErrArgument;
  }
  uint8_t finalTarget = kTargetBlur;
  uint32_t r = gl_pipeline_upload(kInRgba, rgba, width, height, width * 4, GL_RGBA);
  if (r == kGlOk) r = gl_pipeline_prepare_target(kTargetBlur, width, height);
  if (r == kGlOk && blur == kGlBlurXY) r = gl_pipeline_prepare_target(kTargetBlur2, width, height);
  if (r == kGlOk) r = runBlur(kGlPoolInput, kInRgba, blur, &finalTarget);
  if (r == kGlOk) r = gl_pipeline_read_rgba(finalTarget, out, static_cast<int64_t>(width) * height * 4);
  return r;
}

uint32_t gl_pipeline_blur_nv21(const uint8_t* nv21, int32_t width, int32_t height, GlBlur blur, uint8_t* out) {
  if (out == nullptr || !blurKnown(blur)) {
    VM_LOG_IF(kLogGl, "blur %d or output invalid\n", static_cast<int>(blur));
    return kGlErrArgument;
  }
  if (g_band == nullptr) {
    VM_LOG_IF(kLogGl, "no band buffer\n");
    return kGlErrMemory;
  }
  uint8_t finalTarget = kTargetBlur;
  uint32_t r = gl_pipeline_upload_nv21(kInY, kInVU, nv21, width, height);
  if (r == kGlOk) r = gl_pipeline_prepare_target(kTargetRgb, width, height);
  if (r == kGlOk) r = gl_pipeline_prepare_target(kTargetBlur, width, height);
  if (r == kGlOk && blur == kGlBlurXY) r = gl_pipeline_prepare_target(kTargetBlur2, width, height);
  if (r == kGlOk) r = NV21toRGB(kInY, kInVU, kTargetRgb);
  if (r == kGlOk) r = runBlur(kGlPoolTarget, kTargetRgb, blur, &finalTarget);
  if (r != kGlOk) return r;

  // Read back in bands of an even number of rows and convert each on the CPU.
  const int32_t bandRows = (kGlBandScratchBytes / (width * 4)) & ~1;
  uint8_t* luma = out;
  uint8_t* vu = out + static_cast<size_t>(width) * static_cast<size_t>(height);
  glApi.glBindFramebuffer(GL_FRAMEBUFFER, glPools.framebuffers[finalTarget]);
  glApi.glPixelStorei(GL_PACK_ALIGNMENT, 4);
  for (int32_t y = 0; y < height; y += bandRows) {
    const int32_t rows = height - y < bandRows ? height - y : bandRows;
    glApi.glReadPixels(0, y, width, rows, GL_RGBA, GL_UNSIGNED_BYTE, g_band);
    convertRows(g_band, width, rows, 4, luma + static_cast<size_t>(width) * static_cast<size_t>(y),
                vu + static_cast<size_t>(width) * static_cast<size_t>(y / 2));
  }
  return checkGlError(__func__);
}

uint32_t gl_pipeline_scale_plane(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride,
                                 uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstStride) {
  if (dst == nullptr || dstStride < dstWidth) {
    VM_LOG_IF(kLogGl, "destination stride %d invalid for width %d\n", dstStride, dstWidth);
    return kGlErrArgument;
  }
  if (g_band == nullptr) {
    VM_LOG_IF(kLogGl, "no band buffer\n");
    return kGlErrMemory;
  }
  uint32_t r = gl_pipeline_upload(kInPlane, src, srcWidth, srcHeight, srcStride, GL_LUMINANCE);
  if (r == kGlOk) r = gl_pipeline_prepare_target(kTargetPlane, dstWidth, dstHeight);
  if (r == kGlOk) r = shader_ScalerBypass(kGlPoolInput, kInPlane, kTargetPlane);
  if (r != kGlOk) return r;

  const int32_t bandRows = kGlBandScratchBytes / (dstWidth * 4);
  glApi.glBindFramebuffer(GL_FRAMEBUFFER, glPools.framebuffers[kTargetPlane]);
  glApi.glPixelStorei(GL_PACK_ALIGNMENT, 4);
  for (int32_t y = 0; y < dstHeight; y += bandRows) {
    const int32_t rows = dstHeight - y < bandRows ? dstHeight - y : bandRows;
    glApi.glReadPixels(0, y, dstWidth, rows, GL_RGBA, GL_UNSIGNED_BYTE, g_band);
    // A luminance source renders as (L, L, L, 1): the plane is the red channel.
    for (int32_t row = 0; row < rows; ++row) {
      const uint8_t* p = g_band + static_cast<size_t>(row) * static_cast<size_t>(dstWidth) * 4;
      uint8_t* o = dst + static_cast<size_t>(y + row) * static_cast<size_t>(dstStride);
      for (int32_t x = 0; x < dstWidth; ++x) o[x] = p[4 * x];
    }
  }
  return checkGlError(__func__);
}

uint32_t gl_pipeline_rgba_to_nv21(const uint8_t* rgb, int32_t width, int32_t height, int32_t pixelBytes,
                                  uint8_t* nv21) {
  if (rgb == nullptr || nv21 == nullptr || (pixelBytes != 3 && pixelBytes != 4) || width < 2 || height < 2 ||
      (width & 1) != 0 || (height & 1) != 0 || width > kMaxCpuSide || height > kMaxCpuSide) {
    VM_LOG_IF(kLogGl, "RGB %dx%d with %d bytes a pixel invalid\n", width, height, pixelBytes);
    return kGlErrArgument;
  }
  convertRows(rgb, width, height, pixelBytes, nv21, nv21 + static_cast<size_t>(width) * static_cast<size_t>(height));
  return kGlOk;
}
