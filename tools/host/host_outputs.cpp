// host_outputs.cpp - PNG/PPM, video, contact sheet, timing report and trace, progress bar.
#include "host_outputs.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "host_sources.h"

#ifdef VM_HAVE_PNG
#include <png.h>
#endif

std::string host_write_rgb(const std::string& pngPath, const uint8_t* rgb, int32_t width, int32_t height,
                           int compression) {
#ifdef VM_HAVE_PNG
  FILE* f = fopen(pngPath.c_str(), "wb");
  if (f == nullptr) return "";
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (png == nullptr || info == nullptr || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    fclose(f);
    return "";
  }
  png_init_io(png, f);
  png_set_compression_level(png, compression);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int32_t y = 0; y < height; ++y)
    png_write_row(png, const_cast<png_bytep>(rgb + static_cast<size_t>(y) * width * 3));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return fclose(f) == 0 ? pngPath : "";
#else
  (void)compression;  // PPM is not compressed
  std::string path = pngPath.substr(0, pngPath.rfind('.')) + ".ppm";
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return "";
  fprintf(f, "P6\n%d %d\n255\n", width, height);
  const size_t n = static_cast<size_t>(width) * height * 3;
  const bool ok = fwrite(rgb, 1, n, f) == n;
  return fclose(f) == 0 && ok ? path : "";
#endif
}

namespace {
bool onPath(const char* program) {
  const char* path = getenv("PATH");
  if (path == nullptr) return false;
  std::string p = path;
  size_t start = 0;
  while (start <= p.size()) {
    const size_t end = std::min(p.find(':', start), p.size());
    const std::string candidate = p.substr(start, end - start) + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}
}  // namespace

bool VideoWriter::open(const std::string& outDir, int32_t width, int32_t height, bool allowFfmpeg) {
  width_ = width;
  height_ = height;
  if (allowFfmpeg && onPath("ffmpeg")) {
    path_ = outDir + "/output.mp4";
    const std::string cmd = "ffmpeg -y -loglevel error -f rawvideo -pix_fmt nv21 -s " + std::to_string(width) + "x" +
                            std::to_string(height) + " -r 30 -i - -pix_fmt yuv420p -q:v 3 '" + path_ + "'";
    out_ = popen(cmd.c_str(), "w");
    pipe_ = out_ != nullptr;
  }
  if (out_ == nullptr) {
    path_ = outDir + "/output.y4m";
    out_ = fopen(path_.c_str(), "wb");
    if (out_ == nullptr) return false;
    fprintf(out_, "YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n", width, height);
  }
  return true;
}

bool VideoWriter::write(const uint8_t* nv21) {
  if (out_ == nullptr) return false;
  const size_t luma = static_cast<size_t>(width_) * height_;
  if (pipe_) {
    failed_ |= fwrite(nv21, 1, luma * 3 / 2, out_) != luma * 3 / 2;
    return !failed_;
  }
  // Y4M wants planar 4:2:0 with U before V.
  planar_.resize(luma * 3 / 2);
  memcpy(planar_.data(), nv21, luma);
  uint8_t* u = planar_.data() + luma;
  uint8_t* v = u + luma / 4;
  const uint8_t* vu = nv21 + luma;
  for (size_t i = 0; i < luma / 4; ++i) {
    v[i] = vu[2 * i];
    u[i] = vu[2 * i + 1];
  }
  fputs("FRAME\n", out_);
  failed_ |= fwrite(planar_.data(), 1, planar_.size(), out_) != planar_.size();
  return !failed_;
}

std::string VideoWriter::close() {
  if (out_ == nullptr) return "";
  const int rc = pipe_ ? pclose(out_) : fclose(out_);
  out_ = nullptr;
  return rc == 0 && !failed_ ? path_ : "";
}

VideoWriter::~VideoWriter() {
  close();
}

std::string host_write_contact_sheet(const std::string& path, const std::vector<SheetRow>& rows) {
  if (rows.empty()) return "";
  constexpr int32_t kTileW = 480, kGap = 8;
  const int32_t tileH = std::max(1, kTileW * rows[0].height / std::max(1, rows[0].width));
  const int32_t sheetW = 4 * kTileW + 5 * kGap;
  const int32_t sheetH = static_cast<int32_t>(rows.size()) * (tileH + kGap) + kGap;
  std::vector<uint8_t> sheet(static_cast<size_t>(sheetW) * sheetH * 3, 24);
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
      if (tiles[t].rgb->empty() || tiles[t].w <= 0 || tiles[t].h <= 0) continue;
      std::vector<uint8_t> scaled(static_cast<size_t>(kTileW) * tileH * 3);
      host_scale_rgb(tiles[t].rgb->data(), tiles[t].w, tiles[t].h, tiles[t].w, scaled.data(), kTileW, tileH);
      const int32_t x0 = kGap + t * (kTileW + kGap), y0 = kGap + static_cast<int32_t>(r) * (tileH + kGap);
      for (int32_t y = 0; y < tileH; ++y)
        memcpy(&sheet[(static_cast<size_t>(y0 + y) * sheetW + x0) * 3], &scaled[static_cast<size_t>(y) * kTileW * 3],
               static_cast<size_t>(kTileW) * 3);
    }
  }
  return host_write_rgb(path, sheet.data(), sheetW, sheetH, 9);
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
  snprintf(line, sizeof line,
           "frames %zu in %.2f s of wall time; caller thread sustains %.1f frames/s; depth refreshed %.1f times/s\n",
           r.runMs.size(), r.wallSeconds, callerFps, depthFps);
  s += line;
  return s;
}

bool host_write_timing(const std::string& textPath, const std::string& tracePath, const TimingReport& r) {
  FILE* t = fopen(textPath.c_str(), "w");
  if (t == nullptr) return false;
  fputs(host_timing_summary(r).c_str(), t);
  fputs("\nframe  run_ms\n", t);
  for (size_t i = 0; i < r.runMs.size(); ++i) fprintf(t, "%5zu  %.3f\n", i, r.runMs[i]);
  bool ok = fclose(t) == 0;
  // Chrome trace-event format: complete events ("X") in microseconds, thread names as metadata.
  FILE* j = fopen(tracePath.c_str(), "w");
  if (j == nullptr) return false;
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
  return fclose(j) == 0 && ok;
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
