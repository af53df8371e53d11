// gl_passes.h - the passes that draw with the pipeline's programs, uploads and read-back, and
// a small API for a caller that owns the pipeline's thread.
//
// Use: on one thread, init_GL(); then any of the calls below; then deinit_GL(). Every call
// returns 0 or a code of gl_context.h and needs the pipeline's context current on the calling
// thread (kGlErrNotCreated otherwise).
//
// Orientation: images go up row 0 first and come back row 0 first. Texture row 0 is drawn at
// framebuffer row 0 and glReadPixels delivers framebuffer row 0 first, so no pass flips.
//
// Every pass draws one quad covering its render target, whose size it takes from the target's
// configuration, through an orthographic projection of the target's pixel grid. Sources are
// sampled clamped to their edges; the pass sets each source's filter (nearest for the NV21
// planes and the 3 x 3 mask, linear for the scaler and the half-texel Gaussian taps).
//
// Pool indices used by the one-call functions (others are free for the caller's own passes):
//   gl_pipeline_nv21_to_rgba  inputs 0 (Y) and 1 (VU), target 0
//   gl_pipeline_blur_rgba     input 2, targets 1 and 2
//   gl_pipeline_blur_nv21     inputs 0 and 1, targets 0, 1 and 2
//   gl_pipeline_scale_plane   input 3, target 3
#ifndef VMKTRRT_GL_GL_PASSES_H
#define VMKTRRT_GL_GL_PASSES_H

#include <cstdint>

#include "gl/gl_context.h"

// Which pool a pass reads its source from: a caller's upload, or an earlier pass's target.
enum GlPool : int32_t {
  kGlPoolInput = 0,
  kGlPoolTarget = 1,
};

enum GlBlur : int32_t {
  kGlBlurX = 0,     // horizontal 9 taps
  kGlBlurY = 1,     // vertical 9 taps
  kGlBlurXY = 2,    // horizontal, then vertical
  kGlBlurMask = 3,  // 3 x 3
};

// Bytes of the read-back band buffer reserved by init_GL: read-backs that need conversion go
// through it in bands of rows, so no pass allocates.
constexpr int32_t kGlBandScratchBytes = 1 << 20;

// Reserves the band buffer and reads the context's size limits; init_GL calls it, and
// deinit_GL calls the release. Reserve returns kGlErrMemory when the heap refuses.
uint32_t gl_pipeline_reserve(void);
void gl_pipeline_release(void);

// Largest width or height a texture or target may have (0 before init_GL made a context).
int32_t gl_pipeline_max_size(void);

// Uploads width x height pixels of format (GL_LUMINANCE, GL_LUMINANCE_ALPHA, GL_RGB or GL_RGBA;
// 1..4 bytes a pixel) into input texture index, stride bytes between row starts (at least
// width x bytes a pixel). The texture is re-specified only when its size or format changes.
uint32_t gl_pipeline_upload(uint8_t index, const uint8_t* pixels, int32_t width, int32_t height, int32_t stride,
                            GLenum format);

// Uploads an NV21 frame (width x height luma, then width/2 x height/2 pairs V, U; even sizes,
// no padding): luma into input yIndex, the pairs into input vuIndex as luminance-alpha.
uint32_t gl_pipeline_upload_nv21(uint8_t yIndex, uint8_t vuIndex, const uint8_t* nv21, int32_t width, int32_t height);

// Makes target index an RGBA render target of width x height (re-configured only on change).
uint32_t gl_pipeline_prepare_target(uint8_t index, int32_t width, int32_t height);

// The passes. Each renders into target targetIndex, which must be prepared, and leaves its
// framebuffer bound (the GPU output dump reads it). A source may not be the target itself.
uint32_t NV21toRGB(uint8_t yIndex, uint8_t vuIndex, uint8_t targetIndex);
uint32_t shader_ScalerBypass(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex);
uint32_t shader_GaussX(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex);
uint32_t shader_GaussY(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex);
uint32_t shader_GaussMask(GlPool pool, uint8_t sourceIndex, uint8_t targetIndex);

// Reads target index back as RGBA, row 0 first, into rgba of capacity bytes (at least
// width x height x 4 of the target).
uint32_t gl_pipeline_read_rgba(uint8_t index, uint8_t* rgba, int64_t capacity);

// One-call forms (indices above). Sizes must be positive and within gl_pipeline_max_size().
// NV21 frame (even sizes) to RGBA of width x height x 4 bytes.
uint32_t gl_pipeline_nv21_to_rgba(const uint8_t* nv21, int32_t width, int32_t height, uint8_t* rgba);
// RGBA to RGBA through one of the blurs.
uint32_t gl_pipeline_blur_rgba(const uint8_t* rgba, int32_t width, int32_t height, GlBlur blur, uint8_t* out);
// NV21 frame to RGB on the GPU, blurred there, and back to NV21 on the CPU through the band
// buffer (even sizes; in and out may not overlap).
uint32_t gl_pipeline_blur_nv21(const uint8_t* nv21, int32_t width, int32_t height, GlBlur blur, uint8_t* out);
// The GPU scaling path of the image utilities: an 8-bit plane scaled with linear filtering
// (pixel centres aligned, edges clamped) by the bypass pass.
uint32_t gl_pipeline_scale_plane(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride,
                                 uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstStride);

// CPU conversion back from RGB(A) to NV21 (BT.601 full range, the inverse of the NV21 pass's
// matrix): Y per pixel, V and U from the mean of each 2 x 2 block; pixelBytes 3 or 4, rows of
// width x pixelBytes; even sizes up to 16384. Writes width x height x 3 / 2 bytes.
uint32_t gl_pipeline_rgba_to_nv21(const uint8_t* rgb, int32_t width, int32_t height, int32_t pixelBytes, uint8_t* nv21);

#endif  // VMKTRRT_GL_GL_PASSES_H
