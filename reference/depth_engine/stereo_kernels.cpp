// stereo_kernels.cpp - choice of the stereo kernel set for this processor.
#include "stereo_kernels.h"

#ifdef VM_STEREO_HAVE_AVX2
const StereoKernels* stereo_kernels_avx2_table(void);
#endif

const StereoKernels* stereo_kernels_avx2(void) {
#ifdef VM_STEREO_HAVE_AVX2
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return stereo_kernels_avx2_table();
#endif
  return nullptr;
}

const StereoKernels* stereo_kernels_best(int32_t nd) {
  const StereoKernels* k = stereo_kernels_avx2();
  if (k != nullptr && nd % k->lanes == 0) return k;
  k = stereo_kernels_v128();
  if (nd % k->lanes == 0) return k;
  return stereo_kernels_plain();
}
