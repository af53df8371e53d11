// host_outputs.h - what a host run writes: PNG frames and contact sheet, a video (ffmpeg when
// installed, else Y4M), the timing report and its trace, and the terminal progress bar.
#ifndef VM_HOST_OUTPUTS_H
#define VM_HOST_OUTPUTS_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

// RGB 8-bit interleaved. PNG when built with libpng, else a PPM next to the asked name.
// compression: deflate level 0..9 (frames are many and large: 1; the sheet: 6), through
// libdeflate with the "up" filter when the build has it, else libpng.
// true with the path written in *written; false with the reason in *error (a full disk, a
// folder in the way), and no file is left half written under the name.
bool host_write_rgb(const std::string& pngPath, const uint8_t* rgb, int32_t width, int32_t height, int compression,
                    std::string* written, std::string* error);

// The video: NV21 frames piped to an encoder (ffmpeg, started without a shell, found on the PATH
// or named by VM_HOST_FFMPEG) writing MP4, else a Y4M file. An encoder that exits early, cannot
// be started or exits non-zero makes the video a failed output.
class VideoWriter {
 public:
  // false with the reason when the file cannot be created or the encoder cannot be started.
  bool open(const std::string& outDir, int32_t width, int32_t height, bool allowEncoder, std::string* error);
  // false once the output has failed; later frames are dropped.
  bool write(const uint8_t* nv21);
  // Finishes the file and, for an encoder, waits for it. false with the reason when any part failed.
  bool close(std::string* error);
  const std::string& path() const { return path_; }
  ~VideoWriter();

 private:
  FILE* out_ = nullptr;
  int pid_ = -1;  // the encoder, when one runs
  std::string encoder_;
  std::string path_;
  int32_t width_ = 0, height_ = 0;
  std::vector<uint8_t> planar_;
  std::string failure_;  // the first write failure
};
// The encoder program to start: VM_HOST_FFMPEG when set (a name without a slash is looked up on
// the PATH), else ffmpeg on the PATH; "" when there is none.
std::string host_find_encoder(std::string* error);

// One row of the contact sheet: input, colourised depth, refocus map, output (RGB each; the
// maps may be empty when none was made yet). Input and output are already scaled to the cell.
struct SheetRow {
  int32_t frame = 0;
  std::vector<uint8_t> input, output;
  int32_t width = 0, height = 0;
  std::vector<uint8_t> depthRgb;  // depthWidth x depthHeight
  int32_t depthWidth = 0, depthHeight = 0;
  std::vector<uint8_t> mapRgb;
  int32_t mapWidth = 0, mapHeight = 0;
};
// The cell a preview of this size takes on the sheet: its aspect kept inside 480x640, at least
// 1x1, so no preview shape makes the sheet large.
void host_sheet_cell(int32_t width, int32_t height, int32_t* cellWidth, int32_t* cellHeight);
bool host_write_contact_sheet(const std::string& path, const std::vector<SheetRow>& rows, std::string* written,
                              std::string* error);

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
  double wallSeconds = 0;         // from the first frame drawn to the last frame's outputs
  double wholeSeconds = 0;        // the whole run: set-up, frames, the session's end, sheet and video
  std::vector<TraceEvent> events;
  std::vector<std::pair<int32_t, std::string>> threadNames;
};
// p in 0..100 of the values (nearest rank); 0 for none.
double host_percentile(std::vector<double> values, double p);
// Checked writes of timing.txt and trace.json; false with the reason.
bool host_write_timing_text(const std::string& path, const TimingReport& report, std::string* error);
bool host_write_trace(const std::string& path, const TimingReport& report, std::string* error);
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
