// host_outputs.cpp - PNG/PPM, video, contact sheet, timing report and trace, progress bar.
#include "host_outputs.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <vector>

#include "host_sources.h"
#include "tool_cli.h"

// PNG through libdeflate when the build has it, else through libpng.
#if defined(VM_HAVE_PNG) && defined(VM_HAVE_LIBDEFLATE)
#include <libdeflate.h>
#elif defined(VM_HAVE_PNG)
#include <png.h>
#include <zlib.h>
#endif

namespace {

// A failed picture leaves no truncated file behind under its name (a device or link stays).
void removePartial(const std::string& path) {
  if (tool_is_regular_file(path)) unlink(path.c_str());
}

#if defined(VM_HAVE_PNG) && !defined(VM_HAVE_LIBDEFLATE)
struct PngFailure {
  std::string message;
  int savedErrno = 0;
};
void pngError(png_structp png, png_const_charp message) {
  auto* f = static_cast<PngFailure*>(png_get_error_ptr(png));
  f->savedErrno = errno;
  f->message = message != nullptr ? message : "libpng error";
  png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

// Everything after setjmp lives in the caller's objects, so a longjmp loses nothing.
bool writePng(FILE* f, const uint8_t* rgb, int32_t width, int32_t height, int compression, PngFailure* failure) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, failure, pngError, pngWarning);
  if (png == nullptr) return false;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, f);
  png_set_compression_level(png, compression);
  if (compression <= 3) {
    // Fast levels are for many large frames: trying every filter on every row costs more than
    // the deflate itself, and "up" with run-length matching is both quicker and smaller on
    // camera-like pictures than level 1 with all filters.
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
    png_set_compression_strategy(png, Z_RLE);
  }
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int32_t y = 0; y < height; ++y)
    png_write_row(png, const_cast<png_bytep>(rgb + static_cast<size_t>(y) * width * 3));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}
#endif

#if defined(VM_HAVE_PNG) && defined(VM_HAVE_LIBDEFLATE)
// Every row "up"-filtered into one block, deflated in one call, written as signature, IHDR, one
// IDAT and IEND: a plain 8-bit RGB PNG like libpng's. At level 1 about twice zlib's speed with
// run-length matching and a little smaller; at 6 the 60-frame demo's contact sheet takes 0.06 s
// where libpng at 9 with every filter took a second, for 7% more bytes.
void putBe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

bool writeChunk(FILE* f, const char* type, const uint8_t* data, size_t size) {
  uint8_t head[8], tail[4];
  putBe32(head, static_cast<uint32_t>(size));
  memcpy(head + 4, type, 4);
  uint32_t crc = libdeflate_crc32(0, head + 4, 4);
  crc = libdeflate_crc32(crc, data, size);
  putBe32(tail, crc);
  return fwrite(head, 1, 8, f) == 8 && (size == 0 || fwrite(data, 1, size, f) == size) && fwrite(tail, 1, 4, f) == 4;
}

bool writePngFast(FILE* f, const uint8_t* rgb, int32_t width, int32_t height, int level, std::string* error) {
  if (width <= 0 || height <= 0) {
    *error = "a PNG needs at least one pixel";
    return false;
  }
  const size_t row = static_cast<size_t>(width) * 3, rows = static_cast<size_t>(height);
  std::vector<uint8_t> filtered(rows * (row + 1));
  for (size_t y = 0; y < rows; ++y) {
    uint8_t* out = &filtered[y * (row + 1)];
    const uint8_t* line = rgb + y * row;
    out[0] = 2;  // up; the first row's "up" is the row itself
    if (y == 0) {
      memcpy(out + 1, line, row);
    } else {
      const uint8_t* above = line - row;
      for (size_t i = 0; i < row; ++i) out[1 + i] = static_cast<uint8_t>(line[i] - above[i]);
    }
  }
  libdeflate_compressor* c = libdeflate_alloc_compressor(level < 0 ? 0 : level > 9 ? 9 : level);
  if (c == nullptr) {
    *error = "out of memory for the PNG compressor";
    return false;
  }
  std::vector<uint8_t> packed(libdeflate_zlib_compress_bound(c, filtered.size()));
  const size_t packedSize = libdeflate_zlib_compress(c, filtered.data(), filtered.size(), packed.data(), packed.size());
  libdeflate_free_compressor(c);
  // A PNG chunk holds less than 2^31 bytes; the frame sizes the runner accepts stay far below.
  if (packedSize == 0 || packedSize >= 0x7fffffffu) {
    *error = "the picture does not fit one PNG data chunk";
    return false;
  }
  static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  uint8_t ihdr[13];
  putBe32(ihdr, static_cast<uint32_t>(width));
  putBe32(ihdr + 4, static_cast<uint32_t>(height));
  ihdr[8] = 8;   // bits per sample
  ihdr[9] = 2;   // RGB
  ihdr[10] = 0;  // deflate
  ihdr[11] = 0;  // adaptive filtering
  ihdr[12] = 0;  // not interlaced
  errno = 0;
  if (fwrite(kSignature, 1, 8, f) != 8 || !writeChunk(f, "IHDR", ihdr, sizeof ihdr) ||
      !writeChunk(f, "IDAT", packed.data(), packedSize) || !writeChunk(f, "IEND", nullptr, 0)) {
    *error = std::string("write failed: ") + strerror(errno != 0 ? errno : EIO);
    return false;
  }
  return true;
}
#endif

}  // namespace

bool host_write_rgb(const std::string& pngPath, const uint8_t* rgb, int32_t width, int32_t height, int compression,
                    std::string* written, std::string* error) {
#ifdef VM_HAVE_PNG
  const std::string path = pngPath;
#else
  (void)compression;  // PPM is not compressed
  const std::string path = pngPath.substr(0, pngPath.rfind('.')) + ".ppm";
#endif
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) {
    *error = strerror(errno);
    return false;
  }
#ifdef VM_HAVE_PNG
#ifdef VM_HAVE_LIBDEFLATE
  const bool encoded = writePngFast(f, rgb, width, height, compression, error);
#else
  PngFailure failure;
  errno = 0;
  const bool encoded = writePng(f, rgb, width, height, compression, &failure);
  if (!encoded) {
    *error = failure.message.empty() ? "the PNG writer could not start" : failure.message;
    if (failure.savedErrno != 0) *error += std::string(": ") + strerror(failure.savedErrno);
  }
#endif
  if (!encoded) {
    fclose(f);
    removePartial(path);
    return false;
  }
#else
  fprintf(f, "P6\n%d %d\n255\n", width, height);
  const size_t n = static_cast<size_t>(width) * height * 3;
  if (fwrite(rgb, 1, n, f) != n) {
    *error = strerror(errno);
    fclose(f);
    removePartial(path);
    return false;
  }
#endif
  if (!tool_close_checked(f, error)) {
    removePartial(path);
    return false;
  }
  *written = path;
  return true;
}

std::string host_find_encoder(std::string* error) {
  const char* forced = getenv("VM_HOST_FFMPEG");
  const std::string program = forced != nullptr && *forced != '\0' ? forced : "ffmpeg";
  if (program.find('/') != std::string::npos) {
    if (access(program.c_str(), X_OK) == 0) return program;
    *error = "VM_HOST_FFMPEG: " + program + " is not an executable program";
    return "";
  }
  const char* path = getenv("PATH");
  const std::string p = path != nullptr ? path : "";
  for (size_t start = 0; start <= p.size();) {
    const size_t end = std::min(p.find(':', start), p.size());
    const std::string dir = end > start ? p.substr(start, end - start) : ".";
    const std::string candidate = dir + "/" + program;
    if (tool_is_regular_file(candidate) && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  if (forced != nullptr && *forced != '\0') *error = "VM_HOST_FFMPEG: " + program + " is not on the PATH";
  return "";
}

bool VideoWriter::open(const std::string& outDir, int32_t width, int32_t height, bool allowEncoder,
                       std::string* error) {
  width_ = width;
  height_ = height;
  failure_.clear();
  error->clear();
  encoder_ = allowEncoder ? host_find_encoder(error) : "";
  if (!error->empty()) {
    path_ = outDir + "/output.mp4";
    return false;
  }
  if (!encoder_.empty()) {
    path_ = outDir + "/output.mp4";
    // An argument vector, no shell: the folder's name is never read as a command. "file:" keeps a
    // name that starts with '-' or holds a colon from being read as an option or a protocol.
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    const std::string target = "file:" + path_;
    std::vector<std::string> args = {encoder_,   "-nostdin", "-y",      "-loglevel", "error", "-f",  "rawvideo",
                                     "-pix_fmt", "nv21",     "-s",      size,        "-r",    "30",  "-i",
                                     "pipe:0",   "-pix_fmt", "yuv420p", "-q:v",      "3",     target};
    // -nostdin stops ffmpeg reading keys from its input; the frames come on pipe:0 all the same.
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      *error = std::string("no pipe for the encoder: ") + strerror(errno);
      return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);  // the runner ignores SIGPIPE; the encoder gets it back
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, encoder_.c_str(), &actions, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    ::close(fds[0]);
    if (rc != 0) {
      ::close(fds[1]);
      *error = "the encoder " + encoder_ + " could not be started: " + strerror(rc);
      return false;
    }
    pid_ = pid;
    out_ = fdopen(fds[1], "wb");
    if (out_ == nullptr) {
      ::close(fds[1]);
      std::string ignored;
      close(&ignored);
      *error = "the encoder's pipe could not be opened";
      return false;
    }
    return true;
  }
  path_ = outDir + "/output.y4m";
  out_ = fopen(path_.c_str(), "wb");
  if (out_ == nullptr) {
    *error = strerror(errno);
    return false;
  }
  fprintf(out_, "YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n", width, height);
  return true;
}

bool VideoWriter::write(const uint8_t* nv21) {
  if (out_ == nullptr || !failure_.empty()) return false;
  const size_t luma = static_cast<size_t>(width_) * height_;
  if (pid_ > 0) {
    if (fwrite(nv21, 1, luma * 3 / 2, out_) != luma * 3 / 2)
      failure_ = errno == EPIPE ? "the encoder " + encoder_ + " stopped reading frames (it exited early)"
                                : std::string("writing to the encoder failed: ") + strerror(errno);
    return failure_.empty();
  }
  // Y4M wants planar 4:2:0 with U before V.
  try {
    planar_.resize(luma * 3 / 2);
  } catch (const std::bad_alloc&) {
    failure_ = "out of memory";
    return false;
  }
  memcpy(planar_.data(), nv21, luma);
  uint8_t* u = planar_.data() + luma;
  uint8_t* v = u + luma / 4;
  const uint8_t* vu = nv21 + luma;
  for (size_t i = 0; i < luma / 4; ++i) {
    v[i] = vu[2 * i];
    u[i] = vu[2 * i + 1];
  }
  if (fputs("FRAME\n", out_) == EOF || fwrite(planar_.data(), 1, planar_.size(), out_) != planar_.size())
    failure_ = strerror(errno);
  return failure_.empty();
}

bool VideoWriter::close(std::string* error) {
  if (out_ == nullptr && pid_ <= 0) {
    *error = failure_.empty() ? "not open" : failure_;
    return false;
  }
  std::string closeError;
  const bool closed = out_ == nullptr || tool_close_checked(out_, &closeError);
  out_ = nullptr;
  std::string encoderError;
  if (pid_ > 0) {
    int status = 0;
    pid_t r;
    while ((r = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (r < 0)
      encoderError = "the encoder " + encoder_ + " could not be waited for";
    else if (WIFSIGNALED(status))
      encoderError = "the encoder " + encoder_ + " was ended by signal " + std::to_string(WTERMSIG(status));
    else if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
      encoderError = "the encoder " + encoder_ + " exited with status " + std::to_string(WEXITSTATUS(status));
    else if (failure_.empty() && !tool_is_regular_file(path_))
      encoderError = "the encoder " + encoder_ + " finished without writing the file";
  }
  // The first cause is the one worth reading: an early exit explains the broken pipe.
  *error = !failure_.empty() ? failure_ : !encoderError.empty() ? encoderError : closed ? "" : closeError;
  if (!failure_.empty() && !encoderError.empty()) *error += "; " + encoderError;
  return error->empty();
}

VideoWriter::~VideoWriter() {
  if (out_ != nullptr || pid_ > 0) {
    std::string ignored;
    close(&ignored);
  }
}

void host_sheet_cell(int32_t width, int32_t height, int32_t* cellWidth, int32_t* cellHeight) {
  constexpr int64_t kMaxW = 480, kMaxH = 640;
  const int64_t w = std::max<int64_t>(1, width), h = std::max<int64_t>(1, height);
  if (h * kMaxW <= w * kMaxH) {  // wide: the width is the limit
    *cellWidth = static_cast<int32_t>(kMaxW);
    *cellHeight = static_cast<int32_t>(std::max<int64_t>(1, kMaxW * h / w));
  } else {
    *cellHeight = static_cast<int32_t>(kMaxH);
    *cellWidth = static_cast<int32_t>(std::max<int64_t>(1, kMaxH * w / h));
  }
}

bool host_write_contact_sheet(const std::string& path, const std::vector<SheetRow>& rows, std::string* written,
                              std::string* error) {
  if (rows.empty()) {
    *error = "no frame to show";
    return false;
  }
  constexpr int32_t kGap = 8;
  int32_t cellW = 0, cellH = 0;
  host_sheet_cell(rows[0].width, rows[0].height, &cellW, &cellH);
  const int32_t sheetW = 4 * cellW + 5 * kGap;
  const int32_t sheetH = static_cast<int32_t>(rows.size()) * (cellH + kGap) + kGap;
  std::vector<uint8_t> sheet(static_cast<size_t>(sheetW) * sheetH * 3, 24);
  std::vector<uint8_t> scaled(static_cast<size_t>(cellW) * cellH * 3);
  for (size_t r = 0; r < rows.size(); ++r) {
    const SheetRow& row = rows[r];
    struct Tile {
      const std::vector<uint8_t>* rgb;
      int32_t w, h;
    } tiles[4] = {{&row.input, row.width, row.height},
                  {&row.depthRgb, row.depthWidth, row.depthHeight},
                  {&row.mapRgb, row.mapWidth, row.mapHeight},
                  {&row.output, row.width, row.height}};
    for (int t = 0; t < 4; ++t) {
      const Tile& tile = tiles[t];
      if (tile.w <= 0 || tile.h <= 0 || tile.rgb->size() < static_cast<size_t>(tile.w) * tile.h * 3) continue;
      host_scale_rgb(tile.rgb->data(), tile.w, tile.h, tile.w, scaled.data(), cellW, cellH);
      const int32_t x0 = kGap + t * (cellW + kGap), y0 = kGap + static_cast<int32_t>(r) * (cellH + kGap);
      for (int32_t y = 0; y < cellH; ++y)
        memcpy(&sheet[(static_cast<size_t>(y0 + y) * sheetW + x0) * 3], &scaled[static_cast<size_t>(y) * cellW * 3],
               static_cast<size_t>(cellW) * 3);
    }
  }
  return host_write_rgb(path, sheet.data(), sheetW, sheetH, 6, written, error);
}

double host_percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const double rank = std::ceil(p / 100.0 * values.size());
  const size_t index = static_cast<size_t>(std::max(1.0, rank)) - 1;
  return values[std::min(index, values.size() - 1)];
}

namespace {
std::string statLine(const char* what, const std::vector<double>& v) {
  char line[256];
  if (v.empty()) {
    snprintf(line, sizeof line, "%-22s none reported\n", what);
  } else {
    double sum = 0;
    for (double x : v) sum += x;
    snprintf(line, sizeof line, "%-22s n %5zu  mean %8.3f  p50 %8.3f  p95 %8.3f  max %8.3f ms\n", what, v.size(),
             sum / v.size(), host_percentile(v, 50), host_percentile(v, 95), *std::max_element(v.begin(), v.end()));
  }
  return line;
}
}  // namespace

std::string host_timing_summary(const TimingReport& r) {
  std::string s;
  s += statLine("Run (caller thread)", r.runMs);
  s += statLine("depth map (worker)", r.depthMs);
  s += statLine("refocus map (worker)", r.refocusMs);
  double runTotal = 0;
  for (double x : r.runMs) runTotal += x;
  char line[256];
  const double callerFps = runTotal > 0 ? r.runMs.size() * 1000.0 / runTotal : 0;
  const double depthFps = r.wallSeconds > 0 ? r.depthMs.size() / r.wallSeconds : 0;
  const double wallFps = r.wallSeconds > 0 ? r.runMs.size() / r.wallSeconds : 0;
  snprintf(line, sizeof line,
           "frames %zu in %.2f s of wall time (%.1f frames/s, drawing and outputs included); caller thread sustains "
           "%.1f frames/s; depth refreshed %.1f times/s\n",
           r.runMs.size(), r.wallSeconds, wallFps, callerFps, depthFps);
  s += line;
  if (r.wholeSeconds > 0) {
    snprintf(line, sizeof line, "whole run %.2f s with set-up, the session's end, sheet and video (%.1f frames/s)\n",
             r.wholeSeconds, r.runMs.size() / r.wholeSeconds);
    s += line;
  }
  return s;
}

bool host_write_timing_text(const std::string& path, const TimingReport& r, std::string* error) {
  FILE* t = fopen(path.c_str(), "w");
  if (t == nullptr) {
    *error = strerror(errno);
    return false;
  }
  fputs(host_timing_summary(r).c_str(), t);
  fputs("\nframe  run_ms\n", t);
  for (size_t i = 0; i < r.runMs.size(); ++i) fprintf(t, "%5zu  %.3f\n", i, r.runMs[i]);
  return tool_close_checked(t, error);  // a full disk shows in the flush at the latest
}

bool host_write_trace(const std::string& path, const TimingReport& r, std::string* error) {
  // Chrome trace-event format: complete events ("X") in microseconds, thread names as metadata.
  FILE* j = fopen(path.c_str(), "w");
  if (j == nullptr) {
    *error = strerror(errno);
    return false;
  }
  fputs("{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n", j);
  bool first = true;
  for (const auto& n : r.threadNames) {
    fprintf(j, "%s{\"name\":\"thread_name\",\"ph\":\"M\",\"pid\":1,\"tid\":%d,\"args\":{\"name\":\"%s\"}}",
            first ? "" : ",\n", n.first, n.second.c_str());
    first = false;
  }
  for (const TraceEvent& e : r.events) {
    fprintf(j, "%s{\"name\":\"%s\",\"ph\":\"X\",\"pid\":1,\"tid\":%d,\"ts\":%lld,\"dur\":%lld}", first ? "" : ",\n",
            e.name.c_str(), e.tid, static_cast<long long>(e.startUs), static_cast<long long>(e.durationUs));
    first = false;
  }
  fputs("\n]}\n", j);
  return tool_close_checked(j, error);
}

ProgressBar::ProgressBar(bool enabled) : enabled_(enabled && isatty(STDERR_FILENO) != 0) {}

void ProgressBar::update(int32_t done, int32_t total, double elapsed) {
  if (!enabled_ || total <= 0) return;
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(static_cast<int64_t>(kWidth) * done / total);
  const double fps = elapsed > 0 ? done / elapsed : 0;
  const double left = fps > 0 ? (total - done) / fps : 0;
  char bar[kWidth + 1];
  for (int i = 0; i < kWidth; ++i) bar[i] = i < filled ? '#' : '.';
  bar[kWidth] = '\0';
  fprintf(stderr, "\r[%s] %d/%d frames  %5.1f fps  %d:%02d left ", bar, done, total, fps, static_cast<int>(left) / 60,
          static_cast<int>(left) % 60);
  drawn_ = true;
}

void ProgressBar::finish() {
  if (drawn_) fputc('\n', stderr);
  drawn_ = false;
}
