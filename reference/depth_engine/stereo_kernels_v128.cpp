// stereo_kernels_v128.cpp - the stereo row kernels on 128-bit vectors: SSE2 on x86, NEON on ARM
// (plain scalar code from the same source where the target has neither).
#define VM_STEREO_VB 16
#define VM_STEREO_TABLE stereo_kernels_v128
#define VM_STEREO_NAME "v128"
#include "stereo_kernels_impl.h"
