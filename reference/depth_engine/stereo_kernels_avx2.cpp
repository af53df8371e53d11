// stereo_kernels_avx2.cpp - the stereo row kernels on 256-bit vectors; built with AVX2 code
// generation on x86 only and chosen at run time when the processor has AVX2.
#define VM_STEREO_VB 32
#define VM_STEREO_TABLE stereo_kernels_avx2_table
#define VM_STEREO_NAME "avx2"
#include "stereo_kernels_impl.h"
