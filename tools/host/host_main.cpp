// host_main.cpp - vmktr_host: drives the bokeh library through its five exported functions, the
// way a camera HAL does, on synthetic scenes, stereo pairs or recorded dumps, and writes the
// rendered frames, a contact sheet, a video, the library's log and a timing report.
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host_config.h"
#include "host_outputs.h"
#include "host_sources.h"
#include "image/depth_display.h"
#include "vmKtrRT_SC.h"
#include "vm_host_platform.h"

#ifndef VMKTRRT_DUMP_DIR
#define VMKTRRT_DUMP_DIR "/data/misc/camera/vemtadc"
#endif

namespace {

int64_t nowUs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int32_t threadId() {
  return static_cast<int32_t>(syscall(SYS_gettid));
}

bool makeDirs(const std::string& path) {
  std::string partial;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    if (i < path.size()) partial.push_back(path[i]);
  }
  return true;
}

std::set<std::string> listDir(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.insert(e->d_name);
    closedir(d);
  }
  return names;
}

bool moveFile(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) == 0) return true;
  FILE* in = fopen(from.c_str(), "rb");
  FILE* out = in != nullptr ? fopen(to.c_str(), "wb") : nullptr;
  bool ok = in != nullptr && out != nullptr;
  char buf[65536];
  size_t n;
  while (ok && (n = fread(buf, 1, sizeof buf, in)) > 0) ok = fwrite(buf, 1, n, out) == n;
  if (in != nullptr) fclose(in);
  if (out != nullptr) ok = fclose(out) == 0 && ok;
  if (ok) unlink(from.c_str());
  return ok;
}

// Everything the log hook collects. The hook runs on whichever thread logs.
struct LogState {
  std::mutex mu;
  FILE* file = nullptr;
  int32_t pid = 0;
  int32_t callerTid = 0;
  int64_t originUs = 0;
  TimingReport* report = nullptr;
  std::vector<std::string> errors;  // the library's ERROR lines, shown to the user
  std::map<int32_t, std::string> threads;
};
LogState g_log;

void onLogLine(void* /*user*/, int prio, const char* tag, const char* message) {
  const int64_t t = nowUs();
  const int32_t tid = threadId();
  std::lock_guard<std::mutex> lock(g_log.mu);
  std::string line = message;
  while (!line.empty() && line.back() == '\n') line.pop_back();
  if (g_log.file != nullptr) {
    static const char kLetters[] = "??VDIWEF";
    fprintf(g_log.file, "%c/%s(%d): %s\n", prio >= 2 && prio <= 7 ? kLetters[prio] : '?', tag, g_log.pid, line.c_str());
  }
  if (line.find("ERROR") != std::string::npos && g_log.errors.size() < 50) g_log.errors.push_back(line);
  // The library's cost lines give the workers' times: the event ends now and lasted that long.
  struct Cost {
    const char* marker;
    const char* name;
    std::vector<double> TimingReport::*list;
    const char* thread;
  } const costs[] = {{" vmDpx2_Run_Express cost ", "depth engine", &TimingReport::depthMs, "depth worker"},
                     {" vmKtrRT_GenRefocusMap cost ", "refocus map", &TimingReport::refocusMs, "refocus-map worker"},
                     {" vmKtrRT_GLStartV1 cost ", "render", nullptr, nullptr}};
  if (g_log.report == nullptr) return;
  for (const Cost& c : costs) {
    const size_t at = line.find(c.marker);
    if (at == std::string::npos) continue;
    const long ms = strtol(line.c_str() + at + strlen(c.marker), nullptr, 10);
    if (c.list != nullptr) (g_log.report->*c.list).push_back(static_cast<double>(ms));
    if (c.thread != nullptr && tid != g_log.callerTid) g_log.threads.emplace(tid, c.thread);
    g_log.report->events.push_back(TraceEvent{c.name, t - ms * 1000 - g_log.originUs, ms * 1000, tid});
  }
}

// Newest dump of a kind in the dump directory (highest frame counter), read whole.
bool newestDump(const std::string& dir, const std::string& kind, std::vector<uint8_t>* out) {
  std::string best;
  int bestCounter = -1;
  for (const std::string& name : listDir(dir)) {
    int counter = 0, consumed = 0;
    char kindBuf[32];
    if (sscanf(name.c_str(), "%d-%31[a-z-]%n", &counter, kindBuf, &consumed) != 2) continue;
    std::string k = kindBuf;
    // The kind is followed by a dash, and a negative first number brings a second one.
    while (!k.empty() && k.back() == '-') k.pop_back();
    if (k != kind || counter < bestCounter) continue;
    bestCounter = counter;
    best = name;
  }
  if (best.empty()) return false;
  FILE* f = fopen((dir + "/" + best).c_str(), "rb");
  if (f == nullptr) return false;
  out->clear();
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
  fclose(f);
  return true;
}

void colouriseDepth(const std::vector<uint8_t>& raw, int32_t w, int32_t h, std::vector<uint8_t>* rgb) {
  const size_t n = static_cast<size_t>(w) * h;
  if (raw.size() < n * 2) return;
  rgb->resize(n * 3);
  for (size_t i = 0; i < n; ++i) {
    const uint16_t v = static_cast<uint16_t>(raw[2 * i] | (raw[2 * i + 1] << 8));
    image_utility_depth_palette(image_utility_depth_tone(v), &(*rgb)[3 * i]);
  }
}

void greyMap(const std::vector<uint8_t>& raw, int32_t w, int32_t h, std::vector<uint8_t>* rgb) {
  const size_t n = static_cast<size_t>(w) * h;
  if (raw.size() < n) return;
  rgb->resize(n * 3);
  for (size_t i = 0; i < n; ++i) (*rgb)[3 * i] = (*rgb)[3 * i + 1] = (*rgb)[3 * i + 2] = raw[i];
}

bool hasProperty(const HostConfig& c, const std::string& name) {
  for (const auto& p : c.properties)
    if (p.first == name) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (getenv("VM_HOST_LOG") == nullptr) setenv("VM_HOST_LOG", "none", 1);  // the log goes to out/log.txt
  HostConfig config;
  std::string error;
  if (!host_parse_args(argc, argv, &config, &error)) {
    if (error == "help") {
      host_print_usage(stdout);
      return 0;
    }
    fprintf(stderr, "vmktr_host: %s\n(run with --help for the options)\n", error.c_str());
    return 2;
  }
  if (config.imageFormat == 2) {
    fprintf(stderr, "vmktr_host: image format 2 (three planes) is not produced by this tool; use 0 or 6\n");
    return 2;
  }
  if (!makeDirs(config.outDir + "/frames")) {
    fprintf(stderr, "vmktr_host: cannot create the output folder %s\n", config.outDir.c_str());
    return 2;
  }
  auto source = host_make_source(config);
  if (!source->open(&config, &error)) {
    fprintf(stderr, "vmktr_host: %s\n", error.c_str());
    return 2;
  }
  const int32_t frames = std::min(source->frameCount(), config.frames);

  // The library's switches: the user's, plus cost lines for the timing report and the depth
  // and refocus dumps the contact sheet shows.
  vm_host_property_reset();
  for (const auto& p : config.properties) vm_host_property_set(p.first.c_str(), p.second.c_str());
  if (!hasProperty(config, "persist.vm.log.ktrrt.sc")) vm_host_property_set("persist.vm.log.ktrrt.sc", "16");
  if (config.sheet) {
    if (!hasProperty(config, "persist.vm.ktrrt.sc.debug")) vm_host_property_set("persist.vm.ktrrt.sc.debug", "1");
    char dump[92] = "";
    __system_property_get("persist.vm.ktrrt.sc.dump", dump);
    vm_host_property_set("persist.vm.ktrrt.sc.dump", std::to_string(atoi(dump) | 0x0C).c_str());
  }

  TimingReport report;
  g_log.file = fopen((config.outDir + "/log.txt").c_str(), "w");
  g_log.pid = static_cast<int32_t>(getpid());
  g_log.callerTid = threadId();
  g_log.originUs = nowUs();
  g_log.report = &report;
  g_log.threads.emplace(g_log.callerTid, "caller (HAL) thread");
  vm_host_log_set_hook(onLogLine, nullptr);

  const std::string dumpDir = VMKTRRT_DUMP_DIR;
  const std::set<std::string> dumpsBefore = listDir(dumpDir);

  InitData init;
  memset(&init, 0, sizeof init);
  init.screenWidth = config.screenWidth;
  init.screenHeight = config.screenHeight;
  init.previewMainWidth = init.previewMainStride = config.mainWidth;
  init.previewMainHeight = init.previewMainScanline = config.mainHeight;
  init.previewSubWidth = init.previewSubStride = config.subWidth;
  init.previewSubHeight = init.previewSubScanline = config.subHeight;
  init.depthWidth = config.depthWidth;
  init.depthHeight = config.depthHeight;
  init.cameraLayout = config.cameraLayout;
  init.otpData = source->calibration().data();
  init.otpSize = static_cast<int32_t>(source->calibration().size());
  init.OffRender = 1;
  init.isPortrait = config.portrait ? 1 : 0;
  init.ImageFormat = config.imageFormat;
  init.ishighDepthQuality = config.highQuality ? 1 : 0;
  init.isUsingTemporalFilter = config.temporalFilter ? 1 : 0;
  const uint32_t initResult = vmKtrRT_SC_Init(init);
  if (initResult != 0) {
    fprintf(stderr, "vmktr_host: vmKtrRT_SC_Init refused the session: result %u\n", initResult);
    for (const std::string& l : g_log.errors) fprintf(stderr, "  %s\n", l.c_str());
    vm_host_log_set_hook(nullptr, nullptr);
    if (g_log.file != nullptr) fclose(g_log.file);
    return 3;
  }

  VideoWriter video;
  const bool videoOpen = config.video && video.open(config.outDir, config.mainWidth, config.mainHeight, true);
  std::vector<int32_t> sheetFrames;
  const int32_t sheetRows = std::min(frames, 4);
  for (int32_t k = 0; k < sheetRows; ++k)
    sheetFrames.push_back(sheetRows == 1 ? frames - 1 : k * (frames - 1) / (sheetRows - 1));
  std::vector<SheetRow> sheet;

  ProgressBar progress(config.progress);
  const size_t mainBytes = static_cast<size_t>(config.mainWidth) * config.mainHeight * 3 / 2;
  std::vector<uint8_t> work(mainBytes), rgb(static_cast<size_t>(config.mainWidth) * config.mainHeight * 3);
  std::vector<uint8_t> chipBytes;
  int32_t skipped = 0, renderErrors = 0, written = 0;
  const int64_t start = nowUs();
  for (int32_t i = 0; i < frames; ++i) {
    HostFrame f;
    if (!source->frame(i, &f, &error)) {
      fprintf(stderr, "%svmktr_host: skipping frame %d: %s\n", config.progress ? "\n" : "", i, error.c_str());
      ++skipped;
      continue;
    }
    memcpy(work.data(), f.main.data(), mainBytes);
    TriggerData t;
    memset(&t, 0, sizeof t);
    t.vcmMain = f.vcmMain;
    t.vcmSub = f.vcmSub;
    t.fnumber = f.hasFNumber
                    ? f.fNumber
                    : config.fStart + (config.fEnd - config.fStart) * (frames > 1 ? float(i) / (frames - 1) : 0);
    int32_t fx = config.mainWidth / 2, fy = config.mainHeight / 2;
    if (f.hasFocus) {
      fx = f.focusX, fy = f.focusY;
    } else if (config.focus == FocusMode::kFixed) {
      fx = config.focusX, fy = config.focusY;
    } else if (config.focus == FocusMode::kCentre) {
      source->subject(i, &fx, &fy);  // the subject when the scene knows it, else the centre
    } else if (config.focus == FocusMode::kTrack) {
      const double a = 2 * M_PI * i / std::max(1, frames);
      fx += static_cast<int32_t>(config.mainHeight / 6.0 * std::cos(a));
      fy += static_cast<int32_t>(config.mainHeight / 6.0 * std::sin(a));
    }
    // A small region around the focus point; its centre, as the library computes it, is the point.
    const int32_t half = std::max(1, config.mainWidth / 40);
    t.regionLeft = std::max(0, fx - half);
    t.regionRight = std::min(config.mainWidth, fx + half);
    t.regionTop = std::max(0, fy - half);
    t.regionBottom = std::min(config.mainHeight, fy + half);
    t.mainImage.data = work.data();
    t.mainImage.plane2 = work.data() + static_cast<size_t>(config.mainWidth) * config.mainHeight;
    t.mainImage.size = static_cast<int32_t>(mainBytes);
    if ((config.cameraLayout & 0x10) != 0) {
      const bool tenBit = (config.cameraLayout & 0x20) != 0;
      chipBytes.resize(f.chip.size() * (tenBit ? 2 : 1));
      for (size_t k = 0; k < f.chip.size(); ++k) {
        if (tenBit)
          memcpy(&chipBytes[2 * k], &f.chip[k], 2);
        else
          chipBytes[k] = static_cast<uint8_t>(f.chip[k]);
      }
      t.subImage.data = chipBytes.data();
      t.subImage.size = static_cast<int32_t>(chipBytes.size());
    } else {
      t.subImage.data = f.sub.data();
      t.subImage.plane2 = f.sub.data() + static_cast<size_t>(config.subWidth) * config.subHeight;
      t.subImage.size = static_cast<int32_t>(f.sub.size());
    }

    const int64_t t0 = nowUs();
    const int32_t result = static_cast<int32_t>(vmKtrRT_SC_Run(t));
    const int64_t t1 = nowUs();
    report.runMs.push_back((t1 - t0) / 1000.0);
    {
      std::lock_guard<std::mutex> lock(g_log.mu);
      report.events.push_back(TraceEvent{"vmKtrRT_SC_Run", t0 - g_log.originUs, t1 - t0, g_log.callerTid});
    }
    if (result < 0 && renderErrors++ < 5)
      fprintf(stderr, "%svmktr_host: frame %d: vmKtrRT_SC_Run returned %d (renderer code %d)\n",
              config.progress ? "\n" : "", i, result, -result);

    if (videoOpen) video.write(work.data());
    const bool onSheet = config.sheet && std::find(sheetFrames.begin(), sheetFrames.end(), i) != sheetFrames.end();
    if (config.pngFrames || onSheet) host_nv21_to_rgb(work.data(), config.mainWidth, config.mainHeight, rgb.data());
    if (config.pngFrames) {
      char name[64];
      snprintf(name, sizeof name, "/frames/frame_%04d.png", i);
      if (!host_write_rgb(config.outDir + name, rgb.data(), config.mainWidth, config.mainHeight).empty()) ++written;
    }
    if (onSheet) {
      SheetRow row;
      row.frame = i;
      row.width = config.mainWidth;
      row.height = config.mainHeight;
      row.output = rgb;
      row.input.resize(rgb.size());
      host_nv21_to_rgb(f.main.data(), config.mainWidth, config.mainHeight, row.input.data());
      std::vector<uint8_t> raw;
      if (newestDump(dumpDir, "depth", &raw)) {
        row.depthWidth = config.depthWidth;
        row.depthHeight = config.depthHeight;
        colouriseDepth(raw, row.depthWidth, row.depthHeight, &row.depthRgb);
      }
      if (newestDump(dumpDir, "refocus", &raw)) {
        const bool chip = (config.cameraLayout & 0x10) != 0;
        row.mapWidth = chip ? config.depthWidth : 320;
        row.mapHeight = chip ? config.depthHeight : 240;
        greyMap(raw, row.mapWidth, row.mapHeight, &row.mapRgb);
      }
      sheet.push_back(std::move(row));
    }
    progress.update(i + 1, frames, (nowUs() - start) / 1e6);
  }
  progress.finish();
  report.wallSeconds = (nowUs() - start) / 1e6;
  vmKtrRT_SC_Deinit();
  vm_host_log_set_hook(nullptr, nullptr);
  for (const auto& t : g_log.threads) report.threadNames.push_back(t);
  if (g_log.file != nullptr) fclose(g_log.file);

  // The library's dumps of this run move into the output folder.
  int32_t moved = 0;
  for (const std::string& name : listDir(dumpDir)) {
    if (dumpsBefore.count(name) != 0) continue;
    if (moved == 0) makeDirs(config.outDir + "/dumps");
    if (moveFile(dumpDir + "/" + name, config.outDir + "/dumps/" + name)) ++moved;
  }

  const std::string videoPath = videoOpen ? video.close() : "";
  const std::string sheetPath =
      config.sheet ? host_write_contact_sheet(config.outDir + "/contact_sheet.png", sheet) : std::string();
  host_write_timing(config.outDir + "/timing.txt", config.outDir + "/trace.json", report);

  printf("%s", host_timing_summary(report).c_str());
  if (!g_log.errors.empty()) {
    printf("the library reported %zu ERROR line(s), the first:\n  %s\n", g_log.errors.size(), g_log.errors[0].c_str());
  }
  printf("frames written: %d (%d skipped) in %s/frames\n", written, skipped, config.outDir.c_str());
  if (!sheetPath.empty()) printf("contact sheet: %s\n", sheetPath.c_str());
  if (!videoPath.empty()) printf("video: %s\n", videoPath.c_str());
  printf("log: %s/log.txt  timing: %s/timing.txt  trace: %s/trace.json\n", config.outDir.c_str(), config.outDir.c_str(),
         config.outDir.c_str());
  if (moved > 0) printf("library dumps: %d file(s) in %s/dumps\n", moved, config.outDir.c_str());
  return skipped > 0 && skipped == frames ? 4 : 0;
}
