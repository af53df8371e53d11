// host_sources.h - where the frames of a host run come from: the built-in synthetic scene, a
// stereo pair played as a short sequence, or a directory of the library's own raw dumps.
#ifndef VM_HOST_SOURCES_H
#define VM_HOST_SOURCES_H

#include <stdint.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host_config.h"
#include "host_dumps.h"

struct ToolReport;
class HostPool;

struct HostFrame {
  std::vector<uint8_t> main;   // NV21, main preview size
  std::vector<uint8_t> sub;    // NV21, sub preview size
  std::vector<uint16_t> chip;  // chip depth at the depth size, when the layout asks for it
  int32_t vcmMain = 300, vcmSub = 300;
  bool hasFNumber = false;  // recorded f-number (dumps)
  float fNumber = 0;
  bool hasFocus = false;  // recorded focus point (dumps)
  int32_t focusX = 0, focusY = 0;
  std::string name;  // what the frame was made from, for messages
};

class HostSource {
 public:
  virtual ~HostSource() = default;
  // Sizes and calibration are known after open.
  virtual bool open(HostConfig* config, std::string* error) = 0;
  virtual int32_t frameCount() const = 0;
  // false with a message when the frame cannot be had: the run reports it and skips the frame.
  virtual bool frame(int32_t index, HostFrame* out, std::string* error) = 0;
  const std::vector<uint8_t>& calibration() const { return calibration_; }
  // Where files the source passes over are counted (dumps refused by name); mu, when given, is
  // held around each use (frames may be drawn on another thread than the report's owner's).
  void setReport(ToolReport* report, std::mutex* mu = nullptr) {
    report_ = report;
    reportMu_ = mu;
  }
  // Worker threads a frame may be drawn on in bands, byte for byte as on one thread (none: the
  // calling thread draws). frame() itself is called from one thread at a time, in order.
  void setPool(HostPool* pool) { pool_ = pool; }
  // Where the scene's subject is in the main preview, when the source knows it.
  virtual bool subject(int32_t /*frame*/, int32_t* /*x*/, int32_t* /*y*/) const { return false; }

 protected:
  std::vector<uint8_t> calibration_;
  ToolReport* report_ = nullptr;
  std::mutex* reportMu_ = nullptr;
  HostPool* pool_ = nullptr;
};

std::unique_ptr<HostSource> host_make_source(const HostConfig& config);

// NV21 <-> RGB (BT.601 full range) and bilinear RGB scaling, shared with the outputs.
void host_rgb_to_nv21(const uint8_t* rgb, int32_t width, int32_t height, uint8_t* nv21);
void host_nv21_to_rgb(const uint8_t* nv21, int32_t width, int32_t height, uint8_t* rgb);
void host_scale_rgb(const uint8_t* src, int32_t sw, int32_t sh, int32_t srcStride, uint8_t* dst, int32_t dw,
                    int32_t dh);

#endif  // VM_HOST_SOURCES_H
