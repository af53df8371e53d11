// image_io.cpp - PNG/PNM/PFM readers and writers of the host tools.
#include "image_io.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <cmath>

#ifdef VM_HAVE_PNG
#include <png.h>
#endif

namespace {

struct File {
  FILE* f;
  explicit File(const std::string& path, const char* mode) : f(fopen(path.c_str(), mode)) {}
  ~File() {
    if (f) fclose(f);
  }
};

// Next whitespace-separated token of a PNM/PFM header, skipping comments.
bool header_token(FILE* f, std::string* token) {
  token->clear();
  int c = fgetc(f);
  while (c != EOF) {
    if (c == '#') {
      while (c != EOF && c != '\n') c = fgetc(f);
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      c = fgetc(f);
    } else {
      break;
    }
  }
  while (c != EOF && !(c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
    token->push_back(char(c));
    if (token->size() > 32) return false;
    c = fgetc(f);
  }
  return !token->empty();  // the single whitespace after the token has been consumed
}

bool parse_dim(const std::string& t, int32_t* v) {
  char* end = nullptr;
  long x = strtol(t.c_str(), &end, 10);
  if (end == t.c_str() || *end != '\0' || x <= 0 || x > 65536) return false;
  *v = int32_t(x);
  return true;
}

bool read_pnm(FILE* f, Image8* out, std::string* error) {
  std::string magic, w, h, maxv;
  if (!header_token(f, &magic) || !header_token(f, &w) || !header_token(f, &h) || !header_token(f, &maxv)) {
    *error = "bad PNM header";
    return false;
  }
  int32_t width, height, maxval;
  if (!parse_dim(w, &width) || !parse_dim(h, &height) || !parse_dim(maxv, &maxval) || maxval > 255) {
    *error = "unsupported PNM size or depth";
    return false;
  }
  out->width = width;
  out->height = height;
  out->channels = magic == "P6" ? 3 : 1;
  out->data.resize(size_t(width) * size_t(height) * size_t(out->channels));
  if (fread(out->data.data(), 1, out->data.size(), f) != out->data.size()) {
    *error = "PNM data truncated";
    return false;
  }
  return true;
}

#ifdef VM_HAVE_PNG
bool read_png(FILE* f, Image8* out, std::string* error) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!png || !info) {
    png_destroy_read_struct(&png, &info, nullptr);
    *error = "libpng set-up failed";
    return false;
  }
  std::vector<png_bytep> rows;
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    *error = "PNG decode failed";
    return false;
  }
  png_init_io(png, f);
  png_read_info(png, info);
  png_set_strip_16(png);
  png_set_strip_alpha(png);
  png_set_packing(png);
  png_byte type = png_get_color_type(png, info);
  if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
  if (type == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(png, info) < 8) png_set_expand_gray_1_2_4_to_8(png);
  png_read_update_info(png, info);
  out->width = int32_t(png_get_image_width(png, info));
  out->height = int32_t(png_get_image_height(png, info));
  out->channels = int32_t(png_get_channels(png, info));
  if (out->channels != 1 && out->channels != 3) {
    png_destroy_read_struct(&png, &info, nullptr);
    *error = "unsupported PNG channels";
    return false;
  }
  out->data.resize(size_t(out->width) * size_t(out->height) * size_t(out->channels));
  rows.resize(size_t(out->height));
  for (int32_t y = 0; y < out->height; ++y)
    rows[size_t(y)] = out->data.data() + size_t(y) * size_t(out->width) * size_t(out->channels);
  png_read_image(png, rows.data());
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}
#endif

}  // namespace

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool image_read8(const std::string& path, Image8* out, std::string* error) {
  File file(path, "rb");
  if (!file.f) {
    *error = "cannot open " + path;
    return false;
  }
  unsigned char sig[8] = {0};
  size_t got = fread(sig, 1, 8, file.f);
  rewind(file.f);
  if (got >= 2 && sig[0] == 'P' && (sig[1] == '5' || sig[1] == '6')) return read_pnm(file.f, out, error);
  if (got == 8 && sig[0] == 0x89 && sig[1] == 'P' && sig[2] == 'N' && sig[3] == 'G') {
#ifdef VM_HAVE_PNG
    return read_png(file.f, out, error);
#else
    *error = "built without PNG support: " + path;
    return false;
#endif
  }
  *error = "unknown image format: " + path;
  return false;
}

bool image_write_pnm(const std::string& path, const Image8& image) {
  File file(path, "wb");
  if (!file.f) return false;
  fprintf(file.f, "%s\n%d %d\n255\n", image.channels == 3 ? "P6" : "P5", image.width, image.height);
  return fwrite(image.data.data(), 1, image.data.size(), file.f) == image.data.size();
}

bool image_read_pfm(const std::string& path, ImageF* out, std::string* error) {
  File file(path, "rb");
  if (!file.f) {
    *error = "cannot open " + path;
    return false;
  }
  std::string magic, w, h, scale;
  if (!header_token(file.f, &magic) || !header_token(file.f, &w) || !header_token(file.f, &h) ||
      !header_token(file.f, &scale) || (magic != "Pf" && magic != "PF")) {
    *error = "bad PFM header: " + path;
    return false;
  }
  int32_t width, height;
  if (!parse_dim(w, &width) || !parse_dim(h, &height)) {
    *error = "bad PFM size: " + path;
    return false;
  }
  bool little = atof(scale.c_str()) < 0;
  int channels = magic == "PF" ? 3 : 1;
  std::vector<uint8_t> raw(size_t(width) * size_t(height) * size_t(channels) * 4);
  if (fread(raw.data(), 1, raw.size(), file.f) != raw.size()) {
    *error = "PFM data truncated: " + path;
    return false;
  }
  out->width = width;
  out->height = height;
  out->data.resize(size_t(width) * size_t(height));
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const uint8_t* p = raw.data() + ((size_t(height - 1 - y) * size_t(width) + size_t(x)) * size_t(channels)) * 4;
      uint32_t u = little ? (uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24)
                          : (uint32_t(p[3]) | uint32_t(p[2]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[0]) << 24);
      float v;
      memcpy(&v, &u, 4);
      out->data[size_t(y) * size_t(width) + size_t(x)] = v;
    }
  }
  return true;
}

bool image_write_pfm(const std::string& path, const ImageF& image) {
  File file(path, "wb");
  if (!file.f) return false;
  fprintf(file.f, "Pf\n%d %d\n-1.0\n", image.width, image.height);
  std::vector<uint8_t> raw(size_t(image.width) * size_t(image.height) * 4);
  for (int32_t y = 0; y < image.height; ++y) {
    for (int32_t x = 0; x < image.width; ++x) {
      uint32_t u;
      memcpy(&u, &image.data[size_t(image.height - 1 - y) * size_t(image.width) + size_t(x)], 4);
      uint8_t* p = raw.data() + (size_t(y) * size_t(image.width) + size_t(x)) * 4;
      p[0] = uint8_t(u), p[1] = uint8_t(u >> 8), p[2] = uint8_t(u >> 16), p[3] = uint8_t(u >> 24);
    }
  }
  return fwrite(raw.data(), 1, raw.size(), file.f) == raw.size();
}
