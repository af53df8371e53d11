// host_outputs.h - what a host run writes: PNG frames and contact sheet, a video (ffmpeg when
// installed, else Y4M), the timing report and its trace, and the terminal progress bar.
#ifndef VM_HOST_OUTPUTS_H
#define VM_HOST_OUTPUTS_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

// RGB 8-bit interleaved. PNG when built with libpng, else a PPM next to the asked name.
// Returns the path written, or "" on failure.
// compression: zlib level 0..9 (frames are many and large: 1; a single sheet: 9).
std::string host_write_rgb(const std::string& pngPath, const uint8_t* rgb, int32_t width, int32_t height,
                           int compression = 1);

class VideoWriter {
 public:
  // Pipes NV21 frames to ffmpeg (MP4) when it is on the PATH, else writes a Y4M file.
  bool open(const std::string& outDir, int32_t width, int32_t height, bool allowFfmpeg);
  bool write(const uint8_t* nv21);
  // Returns the path of the finished video, or "" when it failed.
  std::string close();
  ~VideoWriter();

 private:
  FILE* out_ = nullptr;
  bool pipe_ = false;
  std::string path_;
  int32_t width_ = 0, height_ = 0;
  std::vector<uint8_t> planar_;
  bool failed_ = false;
};

// One row of the contact sheet: input, colourised depth, refocus map, output (RGB each; the
// maps may be empty when none was made yet).
struct SheetRow {
  int32_t frame = 0;
  std::vector<uint8_t> input, output;  // main preview size
  int32_t width = 0, height = 0;
  std::vector<uint8_t> depthRgb;  // depthWidth x depthHeight
  int32_t depthWidth = 0, depthHeight = 0;
  std::vector<uint8_t> mapRgb;
  int32_t mapWidth = 0, mapHeight = 0;
};
std::string host_write_contact_sheet(const std::string& path, const std::vector<SheetRow>& rows);

// Timing of one run.
struct TraceEvent {
  std::string name;
  int64_t startUs = 0, durationUs = 0;
  int32_t tid = 0;
};
struct TimingReport {
  std::vector<double> runMs;      // per frame, the caller's thread
  std::vector<double> depthMs;    // per depth map, as the library's cost lines report it
  std::vector<double> refocusMs;  // per refocus map
  double wallSeconds = 0;
  std::vector<TraceEvent> events;
  std::vector<std::pair<int32_t, std::string>> threadNames;
};
// p in 0..100 of the values (nearest rank); 0 for none.
double host_percentile(std::vector<double> values, double p);
bool host_write_timing(const std::string& textPath, const std::string& tracePath, const TimingReport& report);
std::string host_timing_summary(const TimingReport& report);

class ProgressBar {
 public:
  explicit ProgressBar(bool enabled);
  void update(int32_t done, int32_t total, double elapsedSeconds);
  void finish();

 private:
  bool enabled_;
  bool drawn_ = false;
};

#endif  // VM_HOST_OUTPUTS_H
