// gl_reference.h - plain CPU versions of the GPU passes, the same maths on the same 8-bit
// inputs: the reference that tests and benchmarks put beside each pass, and a fallback for a
// caller without a GL context. Images are packed rows (stride = width x bytes a pixel) except
// where a stride is given; sampling is clamped to the edges as the passes sample.
#ifndef VMKTRRT_GL_GL_REFERENCE_H
#define VMKTRRT_GL_GL_REFERENCE_H

#include <cstdint>

// NV21 (even sizes) to RGBA with the NV21 pass's matrix; each pixel takes its 2 x 2 block's pair.
uint32_t gl_reference_nv21_to_rgba(const uint8_t* nv21, int32_t width, int32_t height, uint8_t* rgba);

// The 9-tap horizontal or vertical blur of the Gaussian passes on RGBA (all four channels),
// half-texel taps as linear filtering gives them, weights not renormalised.
uint32_t gl_reference_gauss_x(const uint8_t* rgba, int32_t width, int32_t height, uint8_t* out);
uint32_t gl_reference_gauss_y(const uint8_t* rgba, int32_t width, int32_t height, uint8_t* out);

// The 3 x 3 mask pass on RGBA.
uint32_t gl_reference_gauss_mask(const uint8_t* rgba, int32_t width, int32_t height, uint8_t* out);

// Bilinear scaling of an 8-bit plane with pixel centres aligned, as the bypass pass samples.
uint32_t gl_reference_scale_plane(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride,
                                  uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstStride);

#endif  // VMKTRRT_GL_GL_REFERENCE_H
