// image_io.cpp - PNG/PNM/PFM readers and writers of the host tools. Files are read whole (a
// regular file of bounded size) and decoded from memory, so a header is checked against the
// bytes that are really there before any image memory is allocated.
#include "image_io.h"

#include <errno.h>
#include <float.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "tool_cli.h"

#ifdef VM_HAVE_PNG
#include <png.h>
#endif

namespace {

bool fail(std::string* error, const std::string& name, const std::string& what) {
  *error = name + ": " + what;
  return false;
}

std::string cap_text() {
  return "the readers take at most " + std::to_string(kImageMaxSide) + " per side and " +
         std::to_string(kImageMaxPixels) + " pixels (8192x8192)";
}

// The declared size against the caps, before anything is sized from it.
bool size_within_caps(const std::string& name, const char* kind, int64_t w, int64_t h, std::string* error) {
  if (w < 1 || h < 1) return fail(error, name, std::string(kind) + " declares an empty image");
  if (w > kImageMaxSide || h > kImageMaxSide || w * h > kImageMaxPixels)
    return fail(
        error, name,
        std::string(kind) + " declares " + std::to_string(w) + "x" + std::to_string(h) + ", too large: " + cap_text());
  return true;
}

struct Cursor {
  const uint8_t* data;
  size_t size;
  size_t pos;
};

bool is_space(int c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// Next whitespace-separated token of a PNM/PFM header, skipping comments, and the one whitespace
// byte that must end it (the samples start right after the last one).
bool header_token(Cursor* c, std::string* token) {
  token->clear();
  while (c->pos < c->size) {
    const uint8_t b = c->data[c->pos];
    if (b == '#') {
      while (c->pos < c->size && c->data[c->pos] != '\n') ++c->pos;
    } else if (is_space(b)) {
      ++c->pos;
    } else {
      break;
    }
  }
  while (c->pos < c->size && !is_space(c->data[c->pos])) {
    if (token->size() >= 32) return false;
    token->push_back(char(c->data[c->pos++]));
  }
  if (token->empty() || c->pos >= c->size) return false;
  ++c->pos;
  return true;
}

// A header's side: decimal digits only; anything over the cap is reported by size_within_caps.
bool parse_side(const std::string& t, int64_t* v) {
  if (t.empty() || t.size() > 12) return false;
  for (char ch : t)
    if (ch < '0' || ch > '9') return false;
  return tool_parse_int(t.c_str(), 0, INT64_MAX, v);
}

// The magic must be the whole first token: "P6junk" is not a PPM.
bool magic_is(const uint8_t* data, size_t size, const char* magic) {
  return size >= 3 && data[0] == uint8_t(magic[0]) && data[1] == uint8_t(magic[1]) && is_space(data[2]);
}

bool decode_pnm(const uint8_t* data, size_t size, const std::string& name, Image8* out, std::string* error) {
  const bool colour = magic_is(data, size, "P6");
  if (!colour && !magic_is(data, size, "P5"))
    return fail(error, name, "not a binary PGM/PPM (the file must start with P5 or P6 and whitespace)");
  Cursor c{data, size, 0};
  std::string magic, w, h, maxv;
  if (!header_token(&c, &magic) || !header_token(&c, &w) || !header_token(&c, &h) || !header_token(&c, &maxv))
    return fail(error, name, "bad PNM header (P5/P6, width, height and maxval expected)");
  int64_t width = 0, height = 0, maxval = 0;
  if (!parse_side(w, &width) || !parse_side(h, &height)) return fail(error, name, "bad PNM size '" + w + " " + h + "'");
  if (!size_within_caps(name, "PNM", width, height, error)) return false;
  if (!tool_parse_int(maxv.c_str(), 1, 65535, &maxval))
    return fail(error, name, "bad PNM maxval '" + maxv + "' (1..255 expected)");
  if (maxval > 255) return fail(error, name, "16-bit PNM is not read (maxval " + maxv + ", at most 255)");
  const int32_t channels = colour ? 3 : 1;
  const uint64_t needs = uint64_t(width) * uint64_t(height) * uint64_t(channels);
  const uint64_t has = size - c.pos;
  if (needs > has)
    return fail(error, name,
                "PNM data truncated (needs " + std::to_string(needs) + " bytes, has " + std::to_string(has) + ")");
  out->width = int32_t(width);
  out->height = int32_t(height);
  out->channels = channels;
  out->data.assign(data + c.pos, data + c.pos + needs);
  return true;
}

#ifdef VM_HAVE_PNG
struct PngSource {
  const uint8_t* data;
  size_t size;
  size_t pos;
  char message[200];  // libpng's last error; plain storage because its errors leave by longjmp
};

void png_on_error(png_structp png, png_const_charp message) {
  auto* src = static_cast<PngSource*>(png_get_error_ptr(png));
  snprintf(src->message, sizeof(src->message), "%s", message ? message : "unknown error");
  png_longjmp(png, 1);
}

void png_on_warning(png_structp, png_const_charp) {}

void png_read_memory(png_structp png, png_bytep out, size_t n) {
  auto* src = static_cast<PngSource*>(png_get_io_ptr(png));
  if (n > src->size - src->pos) png_error(png, "PNG data truncated");
  memcpy(out, src->data + src->pos, n);
  src->pos += n;
}

uint32_t be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// The file's structure before libpng sees it: libpng sizes a chunk's buffer from the chunk's
// length field, so every chunk up to IEND must be whole in the file; the sizes in IHDR are checked
// against the caps and against what the IDAT bytes can inflate to. Nothing of libpng's is then
// sized by a length that cannot be true.
bool png_plausible(const uint8_t* data, size_t size, const std::string& name, std::string* error) {
  if (size < 33 || be32(data + 8) != 13 || memcmp(data + 12, "IHDR", 4) != 0)
    return fail(error, name, "bad PNG: no image header (IHDR) after the signature");
  const int64_t w = be32(data + 16), h = be32(data + 20);
  if (!size_within_caps(name, "PNG", w, h, error)) return false;
  const uint32_t depth = data[24];
  uint32_t samples = 0;
  switch (data[25]) {
    case 0:
      samples = 1;
      break;
    case 2:
      samples = 3;
      break;
    case 3:
      samples = 1;
      break;
    case 4:
      samples = 2;
      break;
    case 6:
      samples = 4;
      break;
    default:
      return fail(error, name, "bad PNG colour type " + std::to_string(data[25]));
  }
  if (depth != 1 && depth != 2 && depth != 4 && depth != 8 && depth != 16)
    return fail(error, name, "bad PNG bit depth " + std::to_string(depth));
  uint64_t idatBytes = 0;
  for (size_t pos = 8; pos < size;) {
    const uint64_t left = size - pos;
    const uint64_t length = left >= 4 ? be32(data + pos) : 0;
    if (left < 12 || length > left - 12) {
      return fail(error, name,
                  "PNG data truncated (chunk at byte " + std::to_string(pos) + " needs " + std::to_string(length + 12) +
                      " bytes, has " + std::to_string(left) + ")");
    }
    if (memcmp(data + pos + 4, "IDAT", 4) == 0) idatBytes += length;
    if (memcmp(data + pos + 4, "IEND", 4) == 0) break;
    pos += size_t(length) + 12;
  }
  // Every pass of an interlaced image together still holds all the samples, so this is a lower
  // bound on the inflated bytes either way.
  const uint64_t sampleBytes = uint64_t(w) * uint64_t(h) * samples * depth / 8;
  if (sampleBytes > idatBytes * kImageMaxInflateRatio)
    return fail(error, name,
                "PNG declares " + std::to_string(w) + "x" + std::to_string(h) + " (" + std::to_string(sampleBytes) +
                    " bytes of samples), more than its " + std::to_string(idatBytes) +
                    " bytes of image data can hold (deflate expands at most " + std::to_string(kImageMaxInflateRatio) +
                    ":1)");
  return true;
}

struct PngReader {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }
};

// Everything libpng may leave by longjmp happens here, and no object of this frame with a
// destructor is alive across those calls: the rows and the reader belong to the caller.
bool png_decode_into(PngReader* r, PngSource* src, std::vector<png_bytep>* rows, const std::string& name, Image8* out,
                     std::string* error) {
  if (setjmp(png_jmpbuf(r->png))) return fail(error, name, std::string("PNG decode failed: ") + src->message);
  png_set_user_limits(r->png, kImageMaxSide, kImageMaxSide);
  png_set_chunk_cache_max(r->png, 256);
  png_set_chunk_malloc_max(r->png, 8u << 20);
  png_set_read_fn(r->png, src, png_read_memory);
  png_read_info(r->png, r->info);
  png_set_strip_16(r->png);
  png_set_strip_alpha(r->png);
  png_set_packing(r->png);
  const png_byte type = png_get_color_type(r->png, r->info);
  if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(r->png);
  if (type == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(r->png, r->info) < 8) png_set_expand_gray_1_2_4_to_8(r->png);
  png_set_interlace_handling(r->png);
  png_read_update_info(r->png, r->info);
  const int32_t w = int32_t(png_get_image_width(r->png, r->info));
  const int32_t h = int32_t(png_get_image_height(r->png, r->info));
  const int32_t ch = int32_t(png_get_channels(r->png, r->info));
  if (ch != 1 && ch != 3) return fail(error, name, "unsupported PNG channels (" + std::to_string(ch) + ")");
  const size_t rowBytes = size_t(w) * size_t(ch);
  if (png_get_rowbytes(r->png, r->info) != rowBytes) return fail(error, name, "unsupported PNG sample layout");
  out->data.resize(rowBytes * size_t(h));
  rows->resize(size_t(h));
  for (int32_t y = 0; y < h; ++y) (*rows)[size_t(y)] = out->data.data() + size_t(y) * rowBytes;
  png_read_image(r->png, rows->data());
  out->width = w;
  out->height = h;
  out->channels = ch;
  return true;
}

bool decode_png(const uint8_t* data, size_t size, const std::string& name, Image8* out, std::string* error) {
  if (!png_plausible(data, size, name, error)) return false;
  PngSource src{data, size, 0, {0}};
  PngReader r;
  std::vector<png_bytep> rows;
  r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &src, png_on_error, png_on_warning);
  if (r.png != nullptr) r.info = png_create_info_struct(r.png);
  if (r.png == nullptr || r.info == nullptr) return fail(error, name, "libpng set-up failed");
  return png_decode_into(&r, &src, &rows, name, out, error);
}
#endif

bool read_whole(const std::string& path, std::vector<uint8_t>* bytes, std::string* error) {
  std::string why;
  if (tool_read_file(path, size_t(kImageMaxFileBytes), bytes, &why)) return true;
  if (why.compare(0, 12, "larger than ") == 0) why += " (the largest image file read; " + cap_text() + ")";
  return fail(error, path, "cannot read: " + why);
}

bool write_checked(const std::string& path, const std::string& header, const std::vector<const uint8_t*>& rows,
                   size_t rowBytes, std::string* error) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return fail(error, path, std::string("cannot create: ") + strerror(errno));
  bool ok = fwrite(header.data(), 1, header.size(), f) == header.size();
  for (size_t i = 0; ok && i < rows.size(); ++i) ok = fwrite(rows[i], 1, rowBytes, f) == rowBytes;
  if (!ok) {
    const int e = errno;
    fclose(f);
    return fail(error, path, std::string("write failed: ") + strerror(e));
  }
  std::string why;
  if (!tool_close_checked(f, &why)) return fail(error, path, "write failed: " + why);
  return true;
}

}  // namespace

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool image_decode8(const uint8_t* data, size_t size, const std::string& name, Image8* out, std::string* error) {
  if (size >= 2 && data[0] == 'P' && (data[1] == '5' || data[1] == '6'))
    return decode_pnm(data, size, name, out, error);
  static const uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (size >= 8 && memcmp(data, kPngSignature, 8) == 0) {
#ifdef VM_HAVE_PNG
    return decode_png(data, size, name, out, error);
#else
    return fail(error, name, "built without PNG support");
#endif
  }
  return fail(error, name, "unknown image format (PNG, binary PGM or binary PPM expected)");
}

bool image_read8(const std::string& path, Image8* out, std::string* error) {
  std::vector<uint8_t> bytes;
  return read_whole(path, &bytes, error) && image_decode8(bytes.data(), bytes.size(), path, out, error);
}

bool image_decode_pfm(const uint8_t* data, size_t size, const std::string& name, ImageF* out, std::string* error) {
  const bool colour = magic_is(data, size, "PF");
  if (!colour && !magic_is(data, size, "Pf"))
    return fail(error, name, "not a PFM (the file must start with Pf or PF and whitespace)");
  Cursor c{data, size, 0};
  std::string magic, w, h, scaleText;
  if (!header_token(&c, &magic) || !header_token(&c, &w) || !header_token(&c, &h) || !header_token(&c, &scaleText))
    return fail(error, name, "bad PFM header (Pf/PF, width, height and scale expected)");
  int64_t width = 0, height = 0;
  if (!parse_side(w, &width) || !parse_side(h, &height)) return fail(error, name, "bad PFM size '" + w + " " + h + "'");
  if (!size_within_caps(name, "PFM", width, height, error)) return false;
  double scale = 0;
  // The scale's sign is the byte order; a zero or non-finite one says none.
  if (!tool_parse_double(scaleText.c_str(), -DBL_MAX, DBL_MAX, &scale) || scale == 0)
    return fail(error, name, "bad PFM scale '" + scaleText + "' (a finite non-zero number expected)");
  const bool little = scale < 0;
  const size_t channels = colour ? 3 : 1;
  const uint64_t needs = uint64_t(width) * uint64_t(height) * channels * 4;
  const uint64_t has = size - c.pos;
  if (needs > has)
    return fail(error, name,
                "PFM data truncated (needs " + std::to_string(needs) + " bytes, has " + std::to_string(has) + ")");
  const uint8_t* raw = data + c.pos;
  const size_t wz = size_t(width), hz = size_t(height);
  out->width = int32_t(width);
  out->height = int32_t(height);
  out->data.resize(wz * hz);
  for (size_t y = 0; y < hz; ++y) {
    for (size_t x = 0; x < wz; ++x) {
      const uint8_t* p = raw + ((hz - 1 - y) * wz + x) * channels * 4;
      const uint32_t u = little ? (uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24)
                                : (uint32_t(p[3]) | uint32_t(p[2]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[0]) << 24);
      float v;
      memcpy(&v, &u, 4);
      out->data[y * wz + x] = v;
    }
  }
  return true;
}

bool image_read_pfm(const std::string& path, ImageF* out, std::string* error) {
  std::vector<uint8_t> bytes;
  return read_whole(path, &bytes, error) && image_decode_pfm(bytes.data(), bytes.size(), path, out, error);
}

bool image_write_pnm(const std::string& path, const Image8& image, std::string* error) {
  if (image.width < 1 || image.height < 1 || (image.channels != 1 && image.channels != 3) ||
      image.data.size() != size_t(image.width) * size_t(image.height) * size_t(image.channels))
    return fail(error, path, "not written: the image's size, channels and data do not agree");
  const std::string header = std::string(image.channels == 3 ? "P6" : "P5") + "\n" + std::to_string(image.width) + " " +
                             std::to_string(image.height) + "\n255\n";
  return write_checked(path, header, {image.data.data()}, image.data.size(), error);
}

bool image_write_pfm(const std::string& path, const ImageF& image, std::string* error) {
  const size_t w = size_t(image.width > 0 ? image.width : 0), h = size_t(image.height > 0 ? image.height : 0);
  if (w == 0 || h == 0 || image.data.size() != w * h)
    return fail(error, path, "not written: the image's size and data do not agree");
  // Little-endian rows, bottom row first.
  std::vector<uint8_t> raw(w * h * 4);
  std::vector<const uint8_t*> rows(h);
  for (size_t y = 0; y < h; ++y) {
    uint8_t* row = raw.data() + y * w * 4;
    rows[y] = row;
    for (size_t x = 0; x < w; ++x) {
      uint32_t u;
      memcpy(&u, &image.data[(h - 1 - y) * w + x], 4);
      uint8_t* p = row + x * 4;
      p[0] = uint8_t(u), p[1] = uint8_t(u >> 8), p[2] = uint8_t(u >> 16), p[3] = uint8_t(u >> 24);
    }
  }
  return write_checked(path, "Pf\n" + std::to_string(w) + " " + std::to_string(h) + "\n-1.0\n", rows, w * 4, error);
}

bool image_write_pnm(const std::string& path, const Image8& image) {
  std::string error;
  return image_write_pnm(path, image, &error);
}

bool image_write_pfm(const std::string& path, const ImageF& image) {
  std::string error;
  return image_write_pfm(path, image, &error);
}
