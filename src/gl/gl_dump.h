// gl_dump.h - debug dumps of the GPU pipeline: the read-back of the bound framebuffer and any
// caller buffer, as raw files under the directory named by "persist.vm.OpenGL.fileDir".
//
// The property is a plain prefix: the file name is appended without a separator, so it must
// end with a slash to name a directory; unset, files land in the working directory.
#ifndef VMKTRRT_GL_GL_DUMP_H
#define VMKTRRT_GL_GL_DUMP_H

#include <cstdint>

#define VM_GL_DUMP_DIR_PROPERTY "persist.vm.OpenGL.fileDir"

// Reads width x height pixels of the bound framebuffer and writes them as R, G, B bytes, rows
// in glReadPixels order, to "GPU_Output_<w>x<h><suffix>.raw". Must run on the thread that holds
// the pipeline's context. Returns 0, kGlErrDumpFile when the file cannot be created,
// kGlErrArgument for a bad size, kGlErrMemory, or kGlErrNotCreated.
uint32_t OpenGLDumpGPUOutputResult(int32_t width, int32_t height, const char* suffix);

// Writes width x height x a x b bytes of buffer to "OpenGL_Dump_Data_<w>x<h><suffix>.raw".
// Touches no GL state. Returns 0, kGlErrDumpFile, or kGlErrArgument for a null buffer or a
// negative or overflowing byte count.
uint32_t OpenGLDumpData(const void* buffer, int32_t width, int32_t height, int32_t a, int32_t b, const char* suffix);

#endif  // VMKTRRT_GL_GL_DUMP_H
