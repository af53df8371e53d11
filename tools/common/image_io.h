// image_io.h - the few image files the host tools read and write: PNG (when built with libpng),
// binary PGM/PPM with 8-bit samples, and PFM (float, rows stored bottom to top).
#ifndef VM_TOOLS_IMAGE_IO_H
#define VM_TOOLS_IMAGE_IO_H

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

// Reads PNG, PGM or PPM by content. Grey+alpha and RGBA lose alpha; 16-bit PNG keeps the high
// byte. Returns false with a message in `error`.
bool image_read8(const std::string& path, Image8* out, std::string* error);
bool image_write_pnm(const std::string& path, const Image8& image);

// PFM: reads one channel (the first of a colour file); writes one channel, little-endian.
bool image_read_pfm(const std::string& path, ImageF* out, std::string* error);
bool image_write_pfm(const std::string& path, const ImageF& image);

bool file_exists(const std::string& path);

#endif  // VM_TOOLS_IMAGE_IO_H
