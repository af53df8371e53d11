// host_sources.cpp - synthetic, stereo-pair and dump-directory frame sources.
#include "host_sources.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>

#include "calib_block.h"
#include "host_pool.h"
#include "image_io.h"
#include "synth_scene.h"
#include "tool_cli.h"

namespace {

uint8_t clamp8(float v) {
  return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v + 0.5f);
}

// Rows y0..y1-1 (y0 even) of the whole picture: their luma and the chroma rows they own.
void rgbToNv21Rows(const uint8_t* rgb, int32_t w, int32_t h, int32_t y0, int32_t y1, uint8_t* nv21) {
  for (int32_t y = y0; y < y1; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const uint8_t* p = rgb + (static_cast<size_t>(y) * w + x) * 3;
      nv21[static_cast<size_t>(y) * w + x] = clamp8(0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2]);
    }
  uint8_t* vu = nv21 + static_cast<size_t>(w) * h;
  for (int32_t y = y0; y + 1 < y1 && y + 1 < h; y += 2)
    for (int32_t x = 0; x + 1 < w; x += 2) {
      float r = 0, g = 0, b = 0;
      for (int32_t dy = 0; dy < 2; ++dy)
        for (int32_t dx = 0; dx < 2; ++dx) {
          const uint8_t* p = rgb + (static_cast<size_t>(y + dy) * w + x + dx) * 3;
          r += p[0], g += p[1], b += p[2];
        }
      r /= 4, g /= 4, b /= 4;
      uint8_t* o = vu + static_cast<size_t>(y / 2) * w + x;
      o[0] = clamp8(128.0f + 0.5f * r - 0.418688f * g - 0.081312f * b);  // V
      o[1] = clamp8(128.0f - 0.168736f * r - 0.331264f * g + 0.5f * b);  // U
    }
}

// Rows rowBegin..rowEnd-1 of the scaled picture (dst is the whole picture).
void scaleRgbRows(const uint8_t* src, int32_t sw, int32_t sh, int32_t srcStride, uint8_t* dst, int32_t dw, int32_t dh,
                  int32_t rowBegin, int32_t rowEnd) {
  for (int32_t y = rowBegin; y < rowEnd; ++y) {
    const float fy = std::max(0.0f, (y + 0.5f) * sh / dh - 0.5f);
    const int32_t y0 = std::min(static_cast<int32_t>(fy), sh - 1), y1 = std::min(y0 + 1, sh - 1);
    const float wy = fy - y0;
    for (int32_t x = 0; x < dw; ++x) {
      const float fx = std::max(0.0f, (x + 0.5f) * sw / dw - 0.5f);
      const int32_t x0 = std::min(static_cast<int32_t>(fx), sw - 1), x1 = std::min(x0 + 1, sw - 1);
      const float wx = fx - x0;
      for (int32_t k = 0; k < 3; ++k) {
        auto at = [&](int32_t yy, int32_t xx) {
          return static_cast<float>(src[(static_cast<size_t>(yy) * srcStride + xx) * 3 + k]);
        };
        const float top = at(y0, x0) * (1 - wx) + at(y0, x1) * wx;
        const float bottom = at(y1, x0) * (1 - wx) + at(y1, x1) * wx;
        dst[(static_cast<size_t>(y) * dw + x) * 3 + k] = clamp8(top * (1 - wy) + bottom * wy);
      }
    }
  }
}

// ---- synthetic scene ----

class SyntheticSource : public HostSource {
 public:
  bool open(HostConfig* c, std::string* error) override {
    config_ = *c;
    scene_default(&spec_, c->seed);
    const std::string& m = c->motion;
    spec_.motion = m == "pan"      ? SCENE_PAN
                   : m == "dolly"  ? SCENE_DOLLY
                   : m == "object" ? SCENE_OBJECT
                   : m == "focus"  ? SCENE_FOCUS
                                   : SCENE_STILL;
    spec_.motionAmount = spec_.motion == SCENE_PAN ? 0.05f : spec_.motion == SCENE_DOLLY ? 4.0f : 6.0f;
    spec_.noiseSigma = 1.0f;
    calibration_.assign(CALIB_BLOCK_SIZE, 0);
    if (scene_calibration(&spec_, c->mainWidth, c->mainHeight, c->subWidth, c->subHeight, calibration_.data(),
                          CALIB_BLOCK_SIZE) != 0) {
      *error = "the synthetic scene cannot make a calibration block for these sizes";
      return false;
    }
    return true;
  }
  int32_t frameCount() const override { return config_.frames; }
  // The figure's torso, projected into the main view (the camera pair's own motion aside).
  bool subject(int32_t frame, int32_t* x, int32_t* y) const override {
    for (int32_t i = 0; i < spec_.objectCount && i < SCENE_MAX_OBJECTS; ++i) {
      const SceneObject& o = spec_.objects[i];
      if (o.kind != SCENE_FIGURE) continue;
      float cx = o.center[0], cy = o.center[1] - 0.13f * o.size[1], cz = o.center[2];
      if (spec_.motion == SCENE_OBJECT) {
        cx += o.velocity[0] * spec_.motionAmount * frame;
        cy += o.velocity[1] * spec_.motionAmount * frame;
        cz += o.velocity[2] * spec_.motionAmount * frame;
      }
      if (cz <= 1.0f) return false;
      const float f = scene_focal_px(&spec_, config_.mainWidth);
      *x = std::min(config_.mainWidth - 1, std::max(0, static_cast<int32_t>(config_.mainWidth / 2.0f + f * cx / cz)));
      *y = std::min(config_.mainHeight - 1, std::max(0, static_cast<int32_t>(config_.mainHeight / 2.0f + f * cy / cz)));
      return true;
    }
    return false;
  }
  bool frame(int32_t index, HostFrame* out, std::string* error) override {
    // A still scene is rendered once: every frame of it is the same picture (with the same noise).
    const int32_t sceneFrame = spec_.motion == SCENE_STILL ? 0 : index;
    if (cachedFrame_ != sceneFrame) {
      cachedFrame_ = -1;  // a failure below leaves no half-drawn frame to reuse
      std::string why;
      if (!render(sceneFrame, &why)) {
        *error =
            "synthetic frame " + std::to_string(index) + " could not be rendered" + (why.empty() ? "" : ": " + why);
        return false;
      }
      if ((config_.cameraLayout & 0x10) != 0) makeChip(sceneFrame);
      cachedFrame_ = sceneFrame;
    }
    out->main = main_;
    out->sub = sub_;
    out->chip = chip_;
    out->name = "synthetic frame " + std::to_string(index);
    return true;
  }

 private:
  // Both views in bands of rows (on the pool's threads when there is one), then NV21 as
  // scene_render_nv21 makes it: the bytes do not depend on how the bands were shared out.
  bool render(int32_t sceneFrame, std::string* why) {
    const int32_t mw = config_.mainWidth, mh = config_.mainHeight, sw = config_.subWidth, sh = config_.subHeight;
    mainRgb_.resize(static_cast<size_t>(mw) * mh * 3);
    subRgb_.resize(static_cast<size_t>(sw) * sh * 3);
    constexpr int32_t kBandRows = 16;
    const int32_t mainBands = (mh + kBandRows - 1) / kBandRows, subBands = (sh + kBandRows - 1) / kBandRows;
    std::atomic<int32_t> failed{0};
    auto band = [&](int32_t b) {
      const bool isMain = b < mainBands;
      const int32_t h = isMain ? mh : sh, y0 = (isMain ? b : b - mainBands) * kBandRows;
      if (scene_render_rgb_rows(&spec_, sceneFrame, isMain ? 0 : 1, isMain ? mw : sw, h, 2, y0,
                                std::min(h, y0 + kBandRows), isMain ? mainRgb_.data() : subRgb_.data()) != 0)
        failed.store(1);
    };
    if (pool_ != nullptr) {
      if (!pool_->parallel_for(mainBands + subBands, band, why)) return false;
    } else {
      for (int32_t b = 0; b < mainBands + subBands; ++b) band(b);
    }
    if (failed.load() != 0) return false;
    main_.assign(static_cast<size_t>(mw) * mh * 3 / 2, 0);
    sub_.assign(static_cast<size_t>(sw) * sh * 3 / 2, 0);
    scene_rgb_to_nv21(mainRgb_.data(), mw, mh, main_.data());
    scene_rgb_to_nv21(subRgb_.data(), sw, sh, sub_.data());
    return true;
  }
  // Chip depth from the scene's true disparity, in the depth samples' meaning (1/16 pixel of
  // the depth grid, 10 or 8 bits).
  void makeChip(int32_t frame) {
    const int32_t w = config_.depthWidth, h = config_.depthHeight;
    std::vector<float> disparity(static_cast<size_t>(w) * h);
    scene_truth_disparity(&spec_, frame, w, h, disparity.data());
    const bool eightBit = (config_.cameraLayout & 0x20) == 0;
    chip_.resize(disparity.size());
    for (size_t i = 0; i < disparity.size(); ++i) {
      const float d = disparity[i];
      if (!std::isfinite(d) || d < 0) {
        chip_[i] = eightBit ? 255 : 1023;
      } else {
        const float s = eightBit ? d * 4.0f : d * 16.0f;
        chip_[i] = static_cast<uint16_t>(std::min(s, eightBit ? 254.0f : 1022.0f));
      }
    }
  }
  HostConfig config_;
  SceneSpec spec_{};
  int32_t cachedFrame_ = -1;
  std::vector<uint8_t> main_, sub_, mainRgb_, subRgb_;
  std::vector<uint16_t> chip_;
};

// ---- stereo pair ----

class PairSource : public HostSource {
 public:
  bool open(HostConfig* c, std::string* error) override {
    config_ = *c;
    if ((c->cameraLayout & 0x10) != 0) {
      *error = "a stereo pair has no chip depth: use a layout without 0x10";
      return false;
    }
    std::string left = c->sourcePath, right = c->subImagePath;
    struct stat st;
    if (stat(left.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      const std::string dir = left;
      left = right = "";
      for (const char* ext : {".png", ".ppm", ".pgm"}) {
        if (left.empty() && file_exists(dir + "/im0" + ext)) left = dir + "/im0" + ext;
        if (right.empty() && file_exists(dir + "/im1" + ext)) right = dir + "/im1" + ext;
      }
      if (left.empty() || right.empty()) {
        *error = "no im0/im1 image pair (png, ppm or pgm) in " + dir;
        return false;
      }
      readNdisp(dir + "/calib.txt");
    } else if (right.empty()) {
      *error = "--pair names an image: give the sub image with --pair-sub";
      return false;
    }
    // A FIFO or device named like an image would block the reader: regular files only.
    for (const std::string* path : {&left, &right})
      if (!tool_is_regular_file(*path)) {
        *error = *path + ": " + (file_exists(*path) ? "not a regular file" : "cannot be opened (no such file)");
        return false;
      }
    if (!image_read8(left, &left_, error) || !image_read8(right, &right_, error)) return false;
    if (left_.width != right_.width || left_.height != right_.height) {
      *error = "the two views differ in size: " + left + " is " + std::to_string(left_.width) + "x" +
               std::to_string(left_.height) + ", " + right + " is " + std::to_string(right_.width) + "x" +
               std::to_string(right_.height);
      return false;
    }
    if (left_.width < 16 || left_.height < 16) {
      *error = "the images are too small (at least 16x16)";
      return false;
    }
    toRgb(&left_);
    toRgb(&right_);
    // The played window covers 90% of the image width at the main preview's aspect ratio.
    const float aspect = static_cast<float>(c->mainWidth) / c->mainHeight;
    cropW_ = std::min(left_.width * 9 / 10, static_cast<int32_t>(left_.height * aspect));
    cropH_ = std::min(left_.height, static_cast<int32_t>(cropW_ / aspect));
    CalibBlock block;
    // Disparity range at the main preview's size: the pair's range scaled by the window.
    const float scale = static_cast<float>(c->mainWidth) / cropW_;
    const float maxDisparity = std::max(8.0f, (ndisp_ > 0 ? ndisp_ : left_.width / 4.0f) * scale);
    calib_block_defaults(&block, c->mainWidth, c->mainHeight, c->subWidth, c->subHeight, 0.0f, maxDisparity);
    calibration_.assign(CALIB_BLOCK_SIZE, 0);
    if (calib_block_write(&block, calibration_.data(), calibration_.size()) != CALIB_OK) {
      *error = "no calibration block can describe this pair at these sizes";
      return false;
    }
    return true;
  }
  int32_t frameCount() const override { return config_.frames; }
  bool frame(int32_t index, HostFrame* out, std::string* error) override {
    // Still: the window centred; pan: it slides across the spare width and back.
    const int32_t spareX = left_.width - cropW_, spareY = left_.height - cropH_;
    int32_t x0 = spareX / 2;
    if (config_.motion == "pan" && config_.frames > 1) {
      const float t = static_cast<float>(index) / (config_.frames - 1);
      x0 = static_cast<int32_t>(spareX * (t < 0.5f ? 2 * t : 2 - 2 * t));
    }
    const int32_t y0 = spareY / 2;
    out->main.resize(static_cast<size_t>(config_.mainWidth) * config_.mainHeight * 3 / 2);
    out->sub.resize(static_cast<size_t>(config_.subWidth) * config_.subHeight * 3 / 2);
    out->name = "pair frame " + std::to_string(index);
    std::string why;
    if (!render(left_, x0, y0, config_.mainWidth, config_.mainHeight, out->main.data(), &why) ||
        !render(right_, x0, y0, config_.subWidth, config_.subHeight, out->sub.data(), &why)) {
      *error = out->name + " could not be drawn: " + why;
      return false;
    }
    return true;
  }

 private:
  // The pair's disparity range, when its calib.txt gives one (a missing or odd file leaves it open).
  void readNdisp(const std::string& path) {
    std::vector<uint8_t> bytes;
    std::string ignored;
    if (!tool_read_file(path, 1 << 16, &bytes, &ignored)) return;
    const std::string text(bytes.begin(), bytes.end());
    for (size_t at = 0; at < text.size();) {
      const size_t eol = std::min(text.find('\n', at), text.size());
      std::string line = text.substr(at, eol - at);
      while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
      double v = 0;
      if (line.rfind("ndisp=", 0) == 0 && tool_parse_double(line.c_str() + 6, 1, 100000, &v))
        ndisp_ = static_cast<float>(v);
      at = eol + 1;
    }
  }
  static void toRgb(Image8* im) {
    if (im->channels == 3) return;
    std::vector<uint8_t> rgb(static_cast<size_t>(im->width) * im->height * 3);
    for (size_t i = 0; i < static_cast<size_t>(im->width) * im->height; ++i)
      rgb[3 * i] = rgb[3 * i + 1] = rgb[3 * i + 2] = im->data[i];
    im->data.swap(rgb);
    im->channels = 3;
  }
  // In bands of even rows on the pool when there is one; every row is computed alone, so the
  // bytes are the same either way.
  bool render(const Image8& im, int32_t x0, int32_t y0, int32_t w, int32_t h, uint8_t* nv21, std::string* error) {
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
    const uint8_t* src = im.data.data() + (static_cast<size_t>(y0) * im.width + x0) * 3;
    constexpr int32_t kBandRows = 32;
    const int32_t bands = (h + kBandRows - 1) / kBandRows;
    auto band = [&](int32_t b) {
      const int32_t r0 = b * kBandRows, r1 = std::min(h, r0 + kBandRows);
      scaleRgbRows(src, cropW_, cropH_, im.width, rgb.data(), w, h, r0, r1);
      rgbToNv21Rows(rgb.data(), w, h, r0, r1, nv21);
    };
    if (pool_ != nullptr) return pool_->parallel_for(bands, band, error);
    for (int32_t b = 0; b < bands; ++b) band(b);
    return true;
  }
  HostConfig config_;
  Image8 left_, right_;
  int32_t cropW_ = 0, cropH_ = 0;
  float ndisp_ = 0;
};

// ---- dump directory ----

class DumpSource : public HostSource {
 public:
  bool open(HostConfig* c, std::string* error) override {
    config_ = c;
    if ((c->cameraLayout & 0x10) != 0) {
      *error = "recorded dumps carry no chip depth: use a layout without 0x10";
      return false;
    }
    DIR* dir = opendir(c->sourcePath.c_str());
    if (dir == nullptr) {
      *error = "cannot open the dump directory " + c->sourcePath + ": " + strerror(errno);
      return false;
    }
    std::vector<std::string> names;
    while (dirent* e = readdir(dir))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(dir);
    host_plan_dumps(names, &plan_);
    for (const DumpNote& n : plan_.refused) skip(n.name, n.why);
    for (const DumpNote& n : plan_.notes) fprintf(stderr, "vmktr_host: %s: %s\n", n.name.c_str(), n.why.c_str());
    if (plan_.frames.empty()) {
      *error = "no playable preview-main dumps (NNNN-preview-main-WxH-VCM-F-XxY.nv21) in " + c->sourcePath;
      return false;
    }
    c->mainWidth = plan_.mainWidth;
    c->mainHeight = plan_.mainHeight;
    if (plan_.subWidth > 0) c->subWidth = plan_.subWidth, c->subHeight = plan_.subHeight;
    if (c->framesGiven && c->frames < static_cast<int32_t>(plan_.frames.size()))
      plan_.frames.resize(static_cast<size_t>(c->frames));
    c->frames = static_cast<int32_t>(plan_.frames.size());
    const std::string eeprom = c->sourcePath + "/eeprom.raw";
    if (plan_.hasEeprom) {
      // A calibration block is 128 bytes; anything near a megabyte is not one.
      if (!tool_read_file(eeprom, 1 << 20, &calibration_, error)) {
        *error = eeprom + ": " + *error;
        return false;
      }
      if (calibration_.empty())
        fprintf(stderr, "vmktr_host: %s is empty: using a default calibration block\n", eeprom.c_str());
    } else {
      fprintf(stderr, "vmktr_host: no eeprom.raw in %s: using a default calibration block\n", c->sourcePath.c_str());
    }
    if (calibration_.empty()) {
      CalibBlock block;
      calib_block_defaults(&block, c->mainWidth, c->mainHeight, c->subWidth, c->subHeight, 0.0f, c->mainWidth / 8.0f);
      calibration_.assign(CALIB_BLOCK_SIZE, 0);
      calib_block_write(&block, calibration_.data(), calibration_.size());
    }
    lastSub_.assign(static_cast<size_t>(c->subWidth) * c->subHeight * 3 / 2, 128);
    return true;
  }
  int32_t frameCount() const override { return static_cast<int32_t>(plan_.frames.size()); }
  bool frame(int32_t index, HostFrame* out, std::string* error) override {
    const DumpFrame& e = plan_.frames.at(static_cast<size_t>(index));
    out->name = e.mainFile;
    if (!readDump(e.mainFile, e.main, &out->main, error)) return false;
    // Frames without a sub dump did not ask for depth when recorded: the library does not read
    // the sub image then, so the last one is handed over again.
    if (!e.subFile.empty()) {
      std::vector<uint8_t> sub;
      std::string why;
      if (readDump(e.subFile, e.sub, &sub, &why))
        lastSub_.swap(sub);
      else
        skip(e.subFile, why + "; the previous sub frame is used");
    }
    out->sub = lastSub_;
    out->vcmMain = e.main.vcm;
    out->vcmSub = e.subFile.empty() ? e.main.vcm : e.sub.vcm;
    out->hasFNumber = true;
    out->fNumber = e.main.fNumber;
    out->hasFocus = true;
    out->focusX = e.main.focusX;
    out->focusY = e.main.focusY;
    out->name = e.mainFile;
    return true;
  }

 private:
  // Exactly the bytes the name implies: a longer file is refused without being read, so a
  // huge file named like a small frame costs nothing; FIFOs and devices are refused unopened.
  bool readDump(const std::string& file, const DumpName& d, std::vector<uint8_t>* out, std::string* error) {
    const size_t bytes = host_dump_bytes(d);
    if (!tool_read_file(config_->sourcePath + "/" + file, bytes, out, error)) {
      if (error->rfind("larger than", 0) == 0)
        *error = "longer than the " + std::to_string(bytes) + " bytes of the NV21 frame its name implies";
      return false;
    }
    if (out->size() != bytes) {
      *error = std::to_string(out->size()) + " bytes, shorter than the " + std::to_string(bytes) +
               " bytes of the NV21 frame its name implies";
      return false;
    }
    return true;
  }
  void skip(const std::string& what, const std::string& why) {
    if (report_ != nullptr) {
      std::unique_lock<std::mutex> lock;
      if (reportMu_ != nullptr) lock = std::unique_lock<std::mutex>(*reportMu_);
      report_->skip(what, why);
    } else
      fprintf(stderr, "vmktr_host: skipped %s: %s\n", what.c_str(), why.c_str());
  }
  HostConfig* config_ = nullptr;
  DumpPlan plan_;
  std::vector<uint8_t> lastSub_;
};

}  // namespace

void host_rgb_to_nv21(const uint8_t* rgb, int32_t w, int32_t h, uint8_t* nv21) {
  rgbToNv21Rows(rgb, w, h, 0, h, nv21);
}

void host_nv21_to_rgb(const uint8_t* nv21, int32_t w, int32_t h, uint8_t* rgb) {
  const uint8_t* vu = nv21 + static_cast<size_t>(w) * h;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const float Y = nv21[static_cast<size_t>(y) * w + x];
      const uint8_t* c = vu + static_cast<size_t>(y / 2) * w + (x & ~1);
      const float V = c[0] - 128.0f, U = c[1] - 128.0f;
      uint8_t* o = rgb + (static_cast<size_t>(y) * w + x) * 3;
      o[0] = clamp8(Y + 1.402f * V);
      o[1] = clamp8(Y - 0.344136f * U - 0.714136f * V);
      o[2] = clamp8(Y + 1.772f * U);
    }
}

void host_scale_rgb(const uint8_t* src, int32_t sw, int32_t sh, int32_t srcStride, uint8_t* dst, int32_t dw,
                    int32_t dh) {
  scaleRgbRows(src, sw, sh, srcStride, dst, dw, dh, 0, dh);
}

std::unique_ptr<HostSource> host_make_source(const HostConfig& config) {
  switch (config.source) {
    case SourceKind::kPair:
      return std::make_unique<PairSource>();
    case SourceKind::kDumps:
      return std::make_unique<DumpSource>();
    default:
      return std::make_unique<SyntheticSource>();
  }
}
