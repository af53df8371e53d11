// stereo_kernels_plain.cpp - the plain scalar reference of the stereo row kernels.
#define VM_STEREO_VB 0
#define VM_STEREO_TABLE stereo_kernels_plain
#define VM_STEREO_NAME "plain"
#include "stereo_kernels_impl.h"
