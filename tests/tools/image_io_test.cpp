// The tools' image files: headers that declare more than the file holds are refused before any
// memory is sized from them, magics are exact, PFM byte order follows the scale, only regular
// files are read, every message names the file, and writers report a full disk.
#include "image_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <future>
#include <string>
#include <utility>
#include <vector>

#ifdef VM_HAVE_PNG
#include <zlib.h>
#endif

namespace {

using Bytes = std::vector<uint8_t>;

Bytes text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes padded(Bytes b, size_t size) {
  b.resize(size, 0);
  return b;
}

class ImageIo : public testing::Test {
 protected:
  void SetUp() override {
    dir = testing::TempDir() + "/image_io_" + std::to_string(getpid());
    mkdir(dir.c_str(), 0700);
  }
  void TearDown() override {
    for (const std::string& f : files) unlink(f.c_str());
    rmdir(dir.c_str());
  }
  std::string put(const std::string& name, const Bytes& bytes) {
    const std::string path = dir + "/" + name;
    FILE* f = fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr) << path;
    if (f != nullptr) {
      if (!bytes.empty()) {  // fwrite takes no null pointer, even for no bytes
        EXPECT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
      }
      fclose(f);
    }
    files.push_back(path);
    return path;
  }
  std::string dir;
  std::vector<std::string> files;
};

// Peak resident size of this process in KiB; it only grows, so a read that touched the memory a
// hostile header asks for shows as a jump.
long peak_kib() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

#ifdef VM_HAVE_PNG
Bytes be32(uint32_t v) {
  return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

Bytes chunk(const char* type, const Bytes& body) {
  Bytes typed = text(type) + body;
  return be32(uint32_t(body.size())) + typed + be32(uint32_t(crc32(0, typed.data(), uInt(typed.size()))));
}

Bytes deflate(const Bytes& raw, int level) {
  uLongf n = compressBound(uLong(raw.size()));
  Bytes out(n);
  EXPECT_EQ(compress2(out.data(), &n, raw.data(), uLong(raw.size()), level), Z_OK);
  out.resize(n);
  return out;
}

// A PNG assembled by hand: one IDAT holding `idat`, so headers can say anything.
Bytes png_file(uint32_t w, uint32_t h, uint8_t depth, uint8_t type, const Bytes& idat, const Bytes& extra = {}) {
  const Bytes ihdr = be32(w) + be32(h) + Bytes{depth, type, 0, 0, 0};
  return Bytes{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'} + chunk("IHDR", ihdr) + extra + chunk("IDAT", idat) +
         chunk("IEND", {});
}

// Scanlines with filter type 0 in front of each row of `rowBytes` bytes.
Bytes scanlines(const Bytes& samples, size_t rowBytes) {
  Bytes raw;
  for (size_t at = 0; at < samples.size(); at += rowBytes) {
    raw.push_back(0);
    raw.insert(raw.end(), samples.begin() + long(at), samples.begin() + long(at + rowBytes));
  }
  return raw;
}

// What the tools feed in: 8-bit RGB as is, 16-bit keeps the high byte, alpha is dropped, a 1-bit
// palette is unpacked to RGB.
TEST_F(ImageIo, PngDecodesWhatTheDesignUses) {
  struct Case {
    uint32_t w;
    uint8_t depth, type;
    Bytes samples, extra;
    int32_t channels;
    Bytes expected;
  };
  const Bytes rgb = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18};
  const Case cases[] = {
      {3, 8, 2, rgb, {}, 3, rgb},
      {2, 16, 0, {0x12, 0x34, 0xab, 0xcd}, {}, 1, {0x12, 0xab}},
      {2, 8, 4, {7, 255, 9, 0}, {}, 1, {7, 9}},
      {1, 8, 6, {1, 2, 3, 4}, {}, 3, {1, 2, 3}},
      {3, 1, 3, {0x40}, chunk("PLTE", {0, 0, 0, 200, 100, 50}), 3, {0, 0, 0, 200, 100, 50, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    const size_t rowBytes = (size_t(c.w) * c.depth * (c.type == 2 ? 3 : c.type == 4 ? 2 : c.type == 6 ? 4 : 1) + 7) / 8;
    const uint32_t h = uint32_t(c.samples.size() / rowBytes);
    Image8 im;
    std::string error;
    ASSERT_TRUE(image_read8(
        put("in.png", png_file(c.w, h, c.depth, c.type, deflate(scanlines(c.samples, rowBytes), 6), c.extra)), &im,
        &error))
        << error;
    EXPECT_EQ(im.width, int32_t(c.w));
    EXPECT_EQ(im.height, int32_t(h));
    EXPECT_EQ(im.channels, c.channels);
    EXPECT_EQ(im.data, c.expected) << "type " << int(c.type) << " depth " << int(c.depth);
  }
}

// The guards must not refuse honest files: an image of zeros compressed as far as zlib goes sits
// near deflate's ratio, and an incompressible image in one IDAT larger than libpng's chunk limit.
TEST_F(ImageIo, PngGuardsAcceptHonestExtremes) {
  Image8 im;
  std::string error;
  const Bytes zeros(size_t(4096) * 4096, 0);
  const std::string flat = put("flat.png", png_file(4096, 4096, 8, 0, deflate(scanlines(zeros, 4096), 9)));
  ASSERT_TRUE(image_read8(flat, &im, &error)) << error;
  EXPECT_EQ(im.data.size(), zeros.size());

  Bytes noise(size_t(2048) * 1536 * 3);
  uint32_t s = 12345;
  for (uint8_t& b : noise) b = uint8_t((s = s * 1664525u + 1013904223u) >> 24);
  const Bytes idat = deflate(scanlines(noise, 2048 * 3), 1);
  ASSERT_GT(idat.size(), size_t(8) << 20);
  ASSERT_TRUE(image_read8(put("noise.png", png_file(2048, 1536, 8, 2, idat)), &im, &error)) << error;
  EXPECT_EQ(im.data, noise);
}
#endif

// Headers that declare far more than the file holds: refused with the reason and the path, and
// nothing near the declared size is ever touched.
TEST_F(ImageIo, HugeHeadersRefusedBeforeAllocating) {
  struct Case {
    const char* name;
    Bytes bytes;
    const char* reason;
  };
  std::vector<Case> cases = {
      {"huge.ppm", padded(text("P6\n65536 65536\n255\n"), 120), "too large"},
      {"big.ppm", padded(text("P6\n8000 8000\n255\n"), 120), "PNM data truncated (needs 192000000 bytes, has 103)"},
      {"wide.pgm", padded(text("P5\n4294967297 1\n255\n"), 120), "too large"},
      {"huge.pfm", padded(text("PF\n65536 65536\n-1.0\n"), 120), "too large"},
      {"big.pfm", padded(text("PF\n8192 8192\n-1.0\n"), 120), "PFM data truncated (needs 805306368 bytes"},
  };
#ifdef VM_HAVE_PNG
  const Bytes tiny = deflate(Bytes(64, 0), 9);
  cases.push_back({"huge20k.png", png_file(20000, 20000, 8, 2, tiny), "too large"});
  cases.push_back({"huge100k.png", png_file(100000, 100000, 8, 2, tiny), "too large"});
  // Within the caps, but 69 bytes cannot inflate to 3 MB of samples.
  cases.push_back({"dense.png", png_file(1000, 1000, 8, 2, tiny), "deflate expands at most 1032:1"});
  cases.push_back({"cap.png", png_file(8192, 8192, 16, 6, tiny), "deflate expands at most 1032:1"});
  // libpng sizes a chunk's buffer from its length field: 1.8 GB for a text chunk in 80 bytes.
  cases.push_back({"bigchunk.png", png_file(2, 1, 8, 0, tiny, be32(0x6e000008) + text("tEXtComment")),
                   "PNG data truncated (chunk at byte 33 needs 1845493780 bytes, has"});
  EXPECT_EQ(png_file(20000, 20000, 8, 2, tiny).size(), 69u);
#endif
  for (const Case& c : cases) {
    const std::string path = put(c.name, c.bytes);
    const long before = peak_kib();
    std::string error;
    bool ok;
    if (std::string(c.name).find(".pfm") != std::string::npos) {
      ImageF im;
      ok = image_read_pfm(path, &im, &error);
    } else {
      Image8 im;
      ok = image_read8(path, &im, &error);
    }
    EXPECT_FALSE(ok) << c.name;
    EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_LT(peak_kib() - before, 64 * 1024) << c.name;
  }
}

TEST_F(ImageIo, TruncatedFilesRefusedAtEveryLength) {
  const Bytes ppm = text("P6\n# made by hand\n3 2\n255\n") + Bytes(18, 77);
  Bytes pfm = text("Pf\n2 2\n-1.0\n");
  for (int i = 0; i < 16; ++i) pfm.push_back(uint8_t(i * 13));
  std::vector<std::pair<std::string, Bytes>> inputs = {{"t.ppm", ppm}, {"t.pfm", pfm}};
  size_t pngEnd = 0;
#ifdef VM_HAVE_PNG
  Bytes png = png_file(3, 2, 8, 2, deflate(scanlines(Bytes(18, 5), 9), 6));
  pngEnd = png.size() - 12;  // cut cleanly before IEND the image is still whole
  inputs.push_back({"t.png", png});
#endif
  for (const auto& f : inputs) {
    const bool isPfm = f.first == "t.pfm";
    for (size_t len = 0; len <= f.second.size(); ++len) {
      const std::string path = put(f.first, Bytes(f.second.begin(), f.second.begin() + long(len)));
      std::string error;
      Image8 im8;
      ImageF imf;
      const bool ok = isPfm ? image_read_pfm(path, &imf, &error) : image_read8(path, &im8, &error);
      if (len != f.second.size() && !(f.first == "t.png" && len == pngEnd)) {
        EXPECT_FALSE(ok) << f.first << " cut to " << len;
        EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
      } else {
        EXPECT_TRUE(ok) << f.first << " of " << len << ": " << error;
      }
    }
  }
  std::string error;
  Image8 im;
  EXPECT_FALSE(image_read8(put("short.ppm", text("P6\n4 4\n255\n") + Bytes(10, 0)), &im, &error));
  EXPECT_NE(error.find("short.ppm: PNM data truncated (needs 48 bytes, has 10)"), std::string::npos) << error;
}

TEST_F(ImageIo, MagicMustBeExact) {
  Image8 im;
  ImageF imf;
  std::string error;
  for (const char* bad : {"P6junk\n2 2\n255\n", "P6#c\n2 2\n255\n", "P7\n2 2\n255\n", "P5"}) {
    const std::string path = put("bad.pnm", padded(text(bad), 40));
    EXPECT_FALSE(image_read8(path, &im, &error)) << bad;
    EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
  }
  for (const char* bad : {"Pfjunk\n1 1\n-1\n", "PF5\n1 1\n-1\n", "pf\n1 1\n-1\n", "P6\n1 1\n-1\n"}) {
    const std::string path = put("bad.pfm", padded(text(bad), 40));
    EXPECT_FALSE(image_read_pfm(path, &imf, &error)) << bad;
    EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
  }
  // Any whitespace after the magic, and comments between fields, are accepted.
  ASSERT_TRUE(image_read8(put("ok.pgm", text("P5\t# grey\n2\n1 255\r") + Bytes{9, 8}), &im, &error)) << error;
  EXPECT_EQ(im.channels, 1);
  EXPECT_EQ(im.data, (Bytes{9, 8}));
  for (const char* bad : {"P5\n2 1 256\n", "P5\n2 1 0\n", "P5\n-2 1 255\n", "P5\n0 1 255\n", "P5\n2x 1 255\n"}) {
    EXPECT_FALSE(image_read8(put("bad.pgm", padded(text(bad), 40)), &im, &error)) << bad;
  }
}

Bytes float_bytes(float v, bool little) {
  uint32_t u;
  memcpy(&u, &v, 4);
  Bytes b = {uint8_t(u), uint8_t(u >> 8), uint8_t(u >> 16), uint8_t(u >> 24)};
  if (!little) std::swap(b[0], b[3]), std::swap(b[1], b[2]);
  return b;
}

TEST_F(ImageIo, PfmByteOrderFollowsTheScale) {
  // Stored bottom row first; colour files give their first channel.
  const float stored[4] = {1.5f, -2.0f, INFINITY, 0.25f};
  for (bool little : {true, false}) {
    for (bool colour : {false, true}) {
      Bytes file = text(std::string(colour ? "PF" : "Pf") + "\n2 2\n" + (little ? "-1.0" : "1.0") + "\n");
      for (float v : stored) {
        file = file + float_bytes(v, little);
        if (colour) file = file + float_bytes(99.0f, little) + float_bytes(-99.0f, little);
      }
      ImageF im;
      std::string error;
      ASSERT_TRUE(image_read_pfm(put("o.pfm", file), &im, &error)) << error;
      ASSERT_EQ(im.data.size(), 4u);
      EXPECT_EQ(im.data[0], INFINITY) << little << colour;
      EXPECT_EQ(im.data[1], 0.25f);
      EXPECT_EQ(im.data[2], 1.5f);
      EXPECT_EQ(im.data[3], -2.0f);
    }
  }
  for (const char* scale : {"nan", "-inf", "inf", "0", "-0.0", "1e999", "0x1p3", "abc"}) {
    ImageF im;
    std::string error;
    const std::string path = put("s.pfm", text(std::string("Pf\n1 1\n") + scale + "\n") + Bytes(4, 0));
    EXPECT_FALSE(image_read_pfm(path, &im, &error)) << scale;
    EXPECT_NE(error.find(path + ": bad PFM scale"), std::string::npos) << error;
  }
}

TEST_F(ImageIo, OnlyRegularFilesAreRead) {
  const std::string fifo = dir + "/pipe.ppm";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  files.push_back(fifo);
  for (bool pfm : {false, true}) {
    auto reader = std::async(std::launch::async, [&] {
      std::string error;
      Image8 im;
      ImageF imf;
      const bool ok = pfm ? image_read_pfm(fifo, &imf, &error) : image_read8(fifo, &im, &error);
      return std::make_pair(ok, error);
    });
    if (reader.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "reading a FIFO blocked";
      const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);  // lets the reader go
      if (fd >= 0) close(fd);
    }
    const auto result = reader.get();
    EXPECT_FALSE(result.first);
    EXPECT_EQ(result.second, fifo + ": cannot read: not a regular file");
  }
  Image8 im;
  std::string error;
  EXPECT_FALSE(image_read8(dir, &im, &error));
  EXPECT_EQ(error.rfind(dir + ": ", 0), 0u) << error;
  EXPECT_FALSE(image_read8(dir + "/missing.png", &im, &error));
  EXPECT_EQ(error.rfind(dir + "/missing.png: ", 0), 0u) << error;
  const std::string empty = put("empty.png", {});
  EXPECT_FALSE(image_read8(empty, &im, &error));
  EXPECT_EQ(error, empty + ": unknown image format (PNG, binary PGM or binary PPM expected)");
}

TEST_F(ImageIo, WritersRoundTripAndReportFailedWrites) {
  Image8 rgb;
  rgb.width = 3, rgb.height = 2, rgb.channels = 3;
  for (int i = 0; i < 18; ++i) rgb.data.push_back(uint8_t(i * 14));
  Image8 grey = rgb;
  grey.channels = 1;
  grey.data.resize(6);
  ImageF depth;
  depth.width = 2, depth.height = 3;
  depth.data = {0.5f, 1.0f, INFINITY, -3.0f, 7.25f, 0.0f};

  std::string error;
  for (const Image8* im : {&rgb, &grey}) {
    const std::string path = dir + "/w.pnm";
    files.push_back(path);
    ASSERT_TRUE(image_write_pnm(path, *im, &error)) << error;
    Image8 back;
    ASSERT_TRUE(image_read8(path, &back, &error)) << error;
    EXPECT_EQ(back.channels, im->channels);
    EXPECT_EQ(back.data, im->data);
  }
  const std::string pfmPath = dir + "/w.pfm";
  files.push_back(pfmPath);
  ASSERT_TRUE(image_write_pfm(pfmPath, depth));
  ImageF back;
  ASSERT_TRUE(image_read_pfm(pfmPath, &back, &error)) << error;
  EXPECT_EQ(back.data, depth.data);

  // A full disk shows at the latest when the file is closed.
  if (access("/dev/full", W_OK) == 0) {
    EXPECT_FALSE(image_write_pnm("/dev/full", rgb));
    EXPECT_FALSE(image_write_pnm("/dev/full", rgb, &error));
    EXPECT_EQ(error.rfind("/dev/full: write failed", 0), 0u) << error;
    EXPECT_FALSE(image_write_pfm("/dev/full", depth, &error));
    EXPECT_EQ(error.rfind("/dev/full: write failed", 0), 0u) << error;
  }
  const std::string nowhere = dir + "/no/such/folder/out.ppm";
  EXPECT_FALSE(image_write_pnm(nowhere, rgb, &error));
  EXPECT_EQ(error.rfind(nowhere + ": cannot create", 0), 0u) << error;
  // An image whose data does not match its size is not written at all.
  Image8 broken = rgb;
  broken.data.pop_back();
  EXPECT_FALSE(image_write_pnm(dir + "/broken.ppm", broken, &error));
  EXPECT_FALSE(file_exists(dir + "/broken.ppm"));
  ImageF brokenF = depth;
  brokenF.height = 4;
  EXPECT_FALSE(image_write_pfm(dir + "/broken.pfm", brokenF, &error));
  EXPECT_FALSE(file_exists(dir + "/broken.pfm"));
}

}  // namespace
