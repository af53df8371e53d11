// image_io.h - the few image files the host tools read and write: PNG (when built with libpng),
// binary PGM/PPM with 8-bit samples, and PFM (float, rows stored bottom to top).
#ifndef VM_TOOLS_IMAGE_IO_H
#define VM_TOOLS_IMAGE_IO_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct Image8 {
  int32_t width = 0, height = 0, channels = 0;  // channels 1 (grey) or 3 (RGB)
  std::vector<uint8_t> data;
};

struct ImageF {
  int32_t width = 0, height = 0;
  std::vector<float> data;  // one channel, top row first
};

// What the readers accept. Memory is sized from a file's header, so the header is checked
// against these and against the file's own length before anything is allocated:
// - each side at most kImageMaxSide (the largest preview, depth or calibration size is smaller);
// - at most kImageMaxPixels pixels (8192 x 8192: the largest preview and depth size);
// - PGM/PPM/PFM: the raw samples the header declares must all be in the file;
// - PNG: every chunk up to IEND must be whole (libpng sizes a chunk's buffer from its length),
//   and the declared pixels must fit in what the image data (IDAT) bytes can inflate to (deflate
//   expands at most kImageMaxInflateRatio : 1);
// - the file itself at most kImageMaxFileBytes (a colour PFM at the pixel cap, with room for a
//   header) and a regular file: FIFOs, devices and folders are refused without blocking.
constexpr int32_t kImageMaxSide = 16384;
constexpr int64_t kImageMaxPixels = int64_t(8192) * 8192;
constexpr uint64_t kImageMaxInflateRatio = 1032;
constexpr uint64_t kImageMaxFileBytes = uint64_t(kImageMaxPixels) * 12 + 65536;

// Every error message names the file (or the name given to the in-memory readers) and says
// what is wrong, e.g. "in.ppm: PNM data truncated (needs 48 bytes, has 10)".

// Reads PNG, PGM or PPM by content. Grey+alpha and RGBA lose alpha; 16-bit samples keep the high
// byte. Returns false with a message in `error`.
bool image_read8(const std::string& path, Image8* out, std::string* error);
// The same from bytes in memory; `name` stands for the file in messages.
bool image_decode8(const uint8_t* data, size_t size, const std::string& name, Image8* out, std::string* error);

// PFM: reads one channel (the first of a colour file), either byte order (a negative scale is
// little-endian, a positive one big-endian; a zero or non-finite scale is refused). Samples are
// kept as stored, infinities included.
bool image_read_pfm(const std::string& path, ImageF* out, std::string* error);
bool image_decode_pfm(const uint8_t* data, size_t size, const std::string& name, ImageF* out, std::string* error);

// Writers: binary PGM (1 channel) or PPM (3 channels); one-channel little-endian PFM. Every write
// and the close are checked: false when the image is inconsistent (data size, channels), the file
// cannot be created, or any byte cannot be written (a full disk), with a message naming the path.
bool image_write_pnm(const std::string& path, const Image8& image, std::string* error);
bool image_write_pfm(const std::string& path, const ImageF& image, std::string* error);
bool image_write_pnm(const std::string& path, const Image8& image);
bool image_write_pfm(const std::string& path, const ImageF& image);

bool file_exists(const std::string& path);

#endif  // VM_TOOLS_IMAGE_IO_H
