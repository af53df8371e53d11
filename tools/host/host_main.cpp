// host_main.cpp - vmktr_host: drives the bokeh library through its five exported functions, the
// way a camera HAL does, on synthetic scenes, stereo pairs or recorded dumps, and writes the
// rendered frames, a contact sheet, a video, the library's log and a timing report.
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "depth_display.h"
#include "host_config.h"
#include "host_dumps.h"
#include "host_outputs.h"
#include "host_pool.h"
#include "host_sources.h"
#include "tool_cli.h"
#include "vmKtrRT_SC.h"
#include "vm_host_platform.h"

namespace {

int64_t nowUs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int32_t threadId() {
  return static_cast<int32_t>(syscall(SYS_gettid));
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

// Moves one of the library's dumps; a copy across file systems is checked, and the original is
// removed only once the copy is whole (a failure never loses the dump).
bool moveFile(const std::string& from, const std::string& to, std::string* error) {
  if (rename(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EXDEV) {
    *error = strerror(errno);
    return false;
  }
  if (!tool_is_regular_file(from)) {
    *error = from + " is not a regular file";
    return false;
  }
  FILE* in = fopen(from.c_str(), "rb");
  if (in == nullptr) {
    *error = from + ": " + strerror(errno);
    return false;
  }
  FILE* out = fopen(to.c_str(), "wb");
  if (out == nullptr) {
    *error = strerror(errno);
    fclose(in);
    return false;
  }
  bool ok = true;
  char buf[65536];
  size_t n;
  while (ok && (n = fread(buf, 1, sizeof buf, in)) > 0) ok = fwrite(buf, 1, n, out) == n;
  if (!ok) *error = strerror(errno);
  if (ok && ferror(in)) ok = false, *error = from + " could not be read";
  fclose(in);
  if (!tool_close_checked(out, error)) ok = false;
  if (ok)
    unlink(from.c_str());
  else
    unlink(to.c_str());
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

// A place among the outputs in flight, taken when made (waiting for one) and given back when
// destroyed.
struct InFlightPlace {
  explicit InFlightPlace(HostInFlight* f) : flight(f) { flight->acquire(); }
  ~InFlightPlace() { flight->release(); }
  InFlightPlace(const InFlightPlace&) = delete;
  InFlightPlace& operator=(const InFlightPlace&) = delete;
  HostInFlight* flight;
};
// One output frame on its way to the workers; it holds its place until the last of them lets
// go of it.
struct OutFrame {
  explicit OutFrame(HostInFlight* f) : place(f) {}
  InFlightPlace place;  // first: taken before the copy is made, given back even if it fails
  int32_t index = 0;
  std::vector<uint8_t> nv21;
};

// A frame as the drawing thread hands it over, or why it could not be had.
struct Drawn {
  int32_t index = 0;
  bool ok = false;
  HostFrame frame;
  std::string error;
};

// The drawing and video threads; whatever ends the run, they are stopped and joined.
struct RunnerThreads {
  std::function<void()> closeAll;
  std::thread feeder, video;
  void join() {
    if (closeAll) closeAll();
    if (feeder.joinable()) feeder.join();
    if (video.joinable()) video.join();
  }
  ~RunnerThreads() { join(); }
};

bool hasProperty(const HostConfig& c, const std::string& name) {
  for (const auto& p : c.properties)
    if (p.first == name) return true;
  return false;
}

const char* initResultMeaning(uint32_t result) {
  switch (result) {
    case 1:
      return "bad argument or unknown flag";
    case 2:
      return "out of memory";
    case 3:
      return "a buffer slot missing";
    case 5:
      return "result discarded on request";
    case 6:
      return "invalid or missing calibration";
    default:
      return "an engine's code, passed through";
  }
}

// The library reads these as decimal numbers; values from VM_HOST_PROPERTIES or the property
// file are held to that as --setprop's are.
const char* const kLibraryProperties[] = {"persist.vm.log.ktrrt.sc",     "persist.vm.ktrrt.sc.debug",
                                          "persist.vm.ktrrt.sc.display", "persist.vm.ktrrt.sc.info",
                                          "persist.vm.ktrrt.sc.dump",    "persist.vm.ktrrt.sc.dflag"};

bool closeLog(ToolReport* report, const std::string& path) {
  std::lock_guard<std::mutex> lock(g_log.mu);
  if (g_log.file == nullptr) return false;
  std::string error;
  const bool ok = tool_close_checked(g_log.file, &error);
  g_log.file = nullptr;
  if (!ok) report->write_failed(path, error);
  return ok;
}

// Everything one run holds from its set-up through its frames to its outputs. Lives in
// hostMain's frame: the log hook and the library's threads hold addresses into it.
struct HostRun {
  int64_t startUs = nowUs();  // the whole run's clock: set-up, frames and the last outputs
  HostConfig config;
  std::string error;  // the latest failure's reason, one string for the whole run
  ToolReport report;
  std::mutex reportMu;  // guards report once the drawing and output threads run
  std::string out;
  bool pngFrames = false;
  std::unique_ptr<HostSource> source;
  int32_t frames = 0;
  int32_t w = 0, h = 0;
  size_t mainBytes = 0;
  std::vector<uint8_t> work;  // the frame the library draws on
  int32_t cellW = 0, cellH = 0;
  std::vector<int32_t> sheetFrames;
  // One slot per sheet frame, filled by a worker; a skipped frame leaves its slot empty.
  std::vector<SheetRow> sheetRows;
  std::vector<char> sheetFilled;
  std::vector<SheetRow> sheet;  // the filled slots, in order, once the run is over
  std::string logPath;
  TimingReport timing;
  std::string dumpDir;
  VideoWriter video;
  bool videoOpen = false;
  std::atomic<int32_t> written{0};
};

// The library's switches: the user's, plus cost lines for the timing report and the depth
// and refocus dumps the contact sheet shows. False when a library property is not decimal.
bool setUpProperties(HostRun* r) {
  const HostConfig& config = r->config;
  vm_host_property_reset();
  for (const auto& p : config.properties) vm_host_property_set(p.first.c_str(), p.second.c_str());
  for (const char* name : kLibraryProperties) {
    char value[92] = "";
    __system_property_get(name, value);
    if (!host_check_property(name, value, &r->error)) {
      fprintf(stderr, "vmktr_host: %s\n", r->error.c_str());
      return false;
    }
  }
  if (!hasProperty(config, "persist.vm.log.ktrrt.sc")) vm_host_property_set("persist.vm.log.ktrrt.sc", "16");
  if (config.sheet) {
    if (!hasProperty(config, "persist.vm.ktrrt.sc.debug")) vm_host_property_set("persist.vm.ktrrt.sc.debug", "1");
    char dump[92] = "";
    __system_property_get("persist.vm.ktrrt.sc.dump", dump);
    int64_t flags = 0;
    if (dump[0] != '\0') tool_parse_int(dump, INT32_MIN, INT32_MAX, &flags);  // checked decimal above
    vm_host_property_set("persist.vm.ktrrt.sc.dump", std::to_string(flags | 0x0C).c_str());
  }
  return true;
}

// The large buffers come before Init, so an allocation failure never leaves a session open.
void setUpBuffers(HostRun* r) {
  r->mainBytes = static_cast<size_t>(r->w) * r->h * 3 / 2;
  r->work.resize(r->mainBytes);
  host_sheet_cell(r->w, r->h, &r->cellW, &r->cellH);
  const int32_t sheetCount = std::min(r->frames, 4);
  for (int32_t k = 0; k < sheetCount; ++k)
    r->sheetFrames.push_back(sheetCount == 1 ? r->frames - 1 : k * (r->frames - 1) / (sheetCount - 1));
  r->sheetRows.resize(r->config.sheet ? r->sheetFrames.size() : 0);
  r->sheetFilled.assign(r->sheetRows.size(), 0);
}

// The library's log goes to out/log.txt through the hook, which also collects the timing.
void setUpLog(HostRun* r) {
  r->logPath = r->out + "/log.txt";
  g_log.file = fopen(r->logPath.c_str(), "we");
  if (g_log.file == nullptr) r->report.write_failed(r->logPath, strerror(errno));
  g_log.pid = static_cast<int32_t>(getpid());
  g_log.callerTid = threadId();
  g_log.originUs = nowUs();
  g_log.report = &r->timing;
  g_log.threads.emplace(g_log.callerTid, "caller (HAL) thread");
  vm_host_log_set_hook(onLogLine, nullptr);
}

// Opens the session. Returns kToolExitDone when it is open, else the exit code (the log is
// closed and the message printed).
int setUpSession(HostRun* r) {
  const HostConfig& config = r->config;
  // The library dumps into a folder of this run only (VM_HOST_DUMP_DIR, read by the host
  // platform), so the contact sheet never shows an earlier run's files; they move to
  // out/dumps at the end.
  r->dumpDir = r->out + "/.dumps-XXXXXX";
  if (mkdtemp(&r->dumpDir[0]) == nullptr) {
    fprintf(stderr, "vmktr_host: cannot create the run's dump folder in %s (%s)\n", r->out.c_str(), strerror(errno));
    vm_host_log_set_hook(nullptr, nullptr);
    closeLog(&r->report, r->logPath);
    return kToolExitWrite;
  }
  setenv("VM_HOST_DUMP_DIR", r->dumpDir.c_str(), 1);

  InitData init;
  memset(&init, 0, sizeof init);
  init.screenWidth = config.screenWidth;
  init.screenHeight = config.screenHeight;
  init.previewMainWidth = init.previewMainStride = r->w;
  init.previewMainHeight = init.previewMainScanline = r->h;
  init.previewSubWidth = init.previewSubStride = config.subWidth;
  init.previewSubHeight = init.previewSubScanline = config.subHeight;
  init.depthWidth = config.depthWidth;
  init.depthHeight = config.depthHeight;
  init.cameraLayout = config.cameraLayout;
  init.otpData = r->source->calibration().data();
  init.otpSize = static_cast<int32_t>(r->source->calibration().size());
  init.OffRender = 1;
  init.isPortrait = config.portrait ? 1 : 0;
  init.ImageFormat = config.imageFormat;
  init.ishighDepthQuality = config.highQuality ? 1 : 0;
  init.isUsingTemporalFilter = config.temporalFilter ? 1 : 0;
  const uint32_t initResult = vmKtrRT_SC_Init(init);
  if (initResult != 0) {
    fprintf(stderr, "vmktr_host: vmKtrRT_SC_Init refused the session: result %u (%s)\n", initResult,
            initResultMeaning(initResult));
    for (const std::string& l : g_log.errors) fprintf(stderr, "  %s\n", l.c_str());
    vm_host_log_set_hook(nullptr, nullptr);
    closeLog(&r->report, r->logPath);
    rmdir(r->dumpDir.c_str());  // removed when empty; a dump written before the refusal keeps it
    return kToolExitRefused;
  }
  return kToolExitDone;
}

// Set-up: options, output folders, the frame source, the library's properties, buffers, log
// and session. Returns kToolExitDone when the run can start, else the exit code.
int hostSetUp(int argc, char** argv, HostRun* r) {
  // A finished encoder must show as a failed write, not end the runner.
  signal(SIGPIPE, SIG_IGN);
  if (getenv("VM_HOST_LOG") == nullptr) setenv("VM_HOST_LOG", "none", 1);  // the log goes to out/log.txt
  HostConfig& config = r->config;
  if (!host_parse_args(argc, argv, &config, &r->error)) {
    fprintf(stderr, "vmktr_host: %s\n(run with --help for the options)\n", r->error.c_str());
    return kToolExitUsage;
  }
  if (config.help) {
    host_print_usage(stdout);
    return kToolExitDone;
  }
  if (config.imageFormat == 2) {
    fprintf(stderr, "vmktr_host: --format 2 (three planes) is not produced by this tool; use 0 or 6\n");
    return kToolExitUsage;
  }
  r->report.tool = "vmktr_host";
  r->out = config.outDir;
  if (!tool_make_dirs(r->out, &r->error)) {
    fprintf(stderr, "vmktr_host: cannot create the output folder %s (%s)\n", r->out.c_str(), r->error.c_str());
    return kToolExitWrite;
  }
  r->pngFrames = config.pngFrames;
  if (r->pngFrames && !tool_make_dirs(r->out + "/frames", &r->error)) {
    r->report.write_failed(r->out + "/frames", r->error + "; no frame pictures are written");
    r->pngFrames = false;
  }
  r->source = host_make_source(config);
  r->source->setReport(&r->report);
  if (!r->source->open(&config, &r->error)) {
    fprintf(stderr, "vmktr_host: %s\n", r->error.c_str());
    return kToolExitUsage;
  }
  r->frames = std::min(r->source->frameCount(), config.frames);
  r->w = config.mainWidth, r->h = config.mainHeight;
  if (!setUpProperties(r)) return kToolExitUsage;
  setUpBuffers(r);
  setUpLog(r);
  return setUpSession(r);
}

// The focus point of frame i: the frame's own, the fixed one, the scene's subject or a circle,
// in 64 bits and held inside the preview: no focus, given or computed, can wrap or leave it.
void runFocusPoint(HostRun* r, const HostFrame& f, int32_t i, int64_t* focusX, int64_t* focusY) {
  const HostConfig& config = r->config;
  const int32_t w = r->w, h = r->h, frames = r->frames;
  int64_t fx = w / 2, fy = h / 2;
  if (f.hasFocus) {
    fx = f.focusX, fy = f.focusY;
  } else if (config.focus == FocusMode::kFixed) {
    fx = config.focusX, fy = config.focusY;
  } else if (config.focus == FocusMode::kCentre) {
    int32_t sx = 0, sy = 0;
    if (r->source->subject(i, &sx, &sy)) fx = sx, fy = sy;  // the subject when the scene knows it
  } else if (config.focus == FocusMode::kTrack) {
    // A circle that fits the preview whichever side is the shorter.
    const double a = 2 * M_PI * i / std::max(1, frames), radius = std::min(w, h) / 6.0;
    fx += static_cast<int64_t>(radius * std::cos(a));
    fy += static_cast<int64_t>(radius * std::sin(a));
  }
  *focusX = std::min<int64_t>(std::max<int64_t>(fx, 0), w - 1);
  *focusY = std::min<int64_t>(std::max<int64_t>(fy, 0), h - 1);
}

// The call's data for frame i, drawing on r->work; the library reads the sub frame from f and chip
// depth from chipBytes.
TriggerData runTrigger(HostRun* r, HostFrame& f, int32_t i, std::vector<uint8_t>* chipBytes) {
  const HostConfig& config = r->config;
  const int32_t w = r->w, h = r->h, frames = r->frames;
  TriggerData t;
  memset(&t, 0, sizeof t);
  t.vcmMain = f.vcmMain;
  t.vcmSub = f.vcmSub;
  t.fnumber = f.hasFNumber ? f.fNumber
                           : config.fStart + (config.fEnd - config.fStart) * (frames > 1 ? float(i) / (frames - 1) : 0);
  int64_t fx = 0, fy = 0;
  runFocusPoint(r, f, i, &fx, &fy);
  // A small region around the focus point; its centre, as the library computes it, is the point.
  const int64_t half = std::max(1, w / 40);
  t.regionLeft = static_cast<int32_t>(std::max<int64_t>(0, fx - half));
  t.regionRight = static_cast<int32_t>(std::min<int64_t>(w, fx + half));
  t.regionTop = static_cast<int32_t>(std::max<int64_t>(0, fy - half));
  t.regionBottom = static_cast<int32_t>(std::min<int64_t>(h, fy + half));
  t.mainImage.data = r->work.data();
  t.mainImage.plane2 = r->work.data() + static_cast<size_t>(w) * h;
  t.mainImage.size = static_cast<int32_t>(r->mainBytes);
  if ((config.cameraLayout & 0x10) != 0) {
    const bool tenBit = (config.cameraLayout & 0x20) != 0;
    chipBytes->resize(f.chip.size() * (tenBit ? 2 : 1));
    for (size_t k = 0; k < f.chip.size(); ++k) {
      if (tenBit)
        memcpy(&(*chipBytes)[2 * k], &f.chip[k], 2);
      else
        (*chipBytes)[k] = static_cast<uint8_t>(f.chip[k]);
    }
    t.subImage.data = chipBytes->data();
    t.subImage.size = static_cast<int32_t>(chipBytes->size());
  } else {
    t.subImage.data = f.sub.data();
    t.subImage.plane2 = f.sub.data() + static_cast<size_t>(config.subWidth) * config.subHeight;
    t.subImage.size = static_cast<int32_t>(f.sub.size());
  }
  return t;
}

// Sheet slot k from output frame o and its input: the newest maps are the ones this frame was
// drawn with, so they are read now, on the caller's thread; the pictures are made on the pool.
void runSubmitSheetRow(HostRun* r, HostPool* pool, const std::shared_ptr<OutFrame>& o, size_t k,
                       std::vector<uint8_t>&& input) {
  const HostConfig& config = r->config;
  std::vector<uint8_t> depthRaw, mapRaw;
  const bool chip = (config.cameraLayout & 0x10) != 0;
  const int32_t mapW = chip ? config.depthWidth : 320, mapH = chip ? config.depthHeight : 240;
  const std::set<std::string> names = listDir(r->dumpDir);
  const std::vector<std::string> listing(names.begin(), names.end());
  const bool hasDepth = host_read_newest_dump(
      r->dumpDir, listing, "depth", static_cast<size_t>(config.depthWidth) * config.depthHeight * 2, &depthRaw);
  const bool hasMap = host_read_newest_dump(r->dumpDir, listing, "refocus", static_cast<size_t>(mapW) * mapH, &mapRaw);
  pool->submit([r, o, k, hasDepth, hasMap, mapW, mapH, input = std::move(input), depthRaw = std::move(depthRaw),
                mapRaw = std::move(mapRaw)] {
    const int32_t w = r->w, h = r->h, cellW = r->cellW, cellH = r->cellH;
    SheetRow row;
    row.frame = o->index;
    row.width = cellW;
    row.height = cellH;
    std::vector<uint8_t> full(static_cast<size_t>(w) * h * 3);
    host_nv21_to_rgb(o->nv21.data(), w, h, full.data());
    row.output.resize(static_cast<size_t>(cellW) * cellH * 3);
    host_scale_rgb(full.data(), w, h, w, row.output.data(), cellW, cellH);
    host_nv21_to_rgb(input.data(), w, h, full.data());
    row.input.resize(row.output.size());
    host_scale_rgb(full.data(), w, h, w, row.input.data(), cellW, cellH);
    if (hasDepth) {
      row.depthWidth = r->config.depthWidth;
      row.depthHeight = r->config.depthHeight;
      colouriseDepth(depthRaw, row.depthWidth, row.depthHeight, &row.depthRgb);
    }
    if (hasMap) {
      row.mapWidth = mapW;
      row.mapHeight = mapH;
      greyMap(mapRaw, row.mapWidth, row.mapHeight, &row.mapRgb);
    }
    r->sheetRows[k] = std::move(row);
    r->sheetFilled[k] = 1;
  });
}

void runReportFailed(HostRun* r, const std::string& path, const std::string& why) {
  std::lock_guard<std::mutex> lock(r->reportMu);
  r->report.write_failed(path, why);
}

void runTraceEvent(HostRun* r, const char* name, int64_t t0, const char* thread) {
  const int64_t t1 = nowUs();
  const int32_t tid = threadId();
  std::lock_guard<std::mutex> lock(g_log.mu);
  r->timing.events.push_back(TraceEvent{name, t0 - g_log.originUs, t1 - t0, tid});
  g_log.threads.emplace(tid, thread);
}

// One output frame as a PNG picture, on a pool worker.
void runWriteFrame(HostRun* r, const std::shared_ptr<OutFrame>& o) {
  const int32_t w = r->w, h = r->h;
  const int64_t t0 = nowUs();
  char name[64];
  snprintf(name, sizeof name, "/frames/frame_%04d.png", o->index);
  const std::string path = r->out + name;
  std::string why, where;
  try {
    // Per task, not per worker: only frames in flight hold one, however many workers there are.
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
    host_nv21_to_rgb(o->nv21.data(), w, h, rgb.data());
    if (host_write_rgb(path, rgb.data(), w, h, 1, &where, &why)) ++r->written;
  } catch (const std::bad_alloc&) {
    why = "out of memory";
  }
  if (!why.empty()) runReportFailed(r, path, why);
  runTraceEvent(r, "png frame", t0, "runner worker");
}

// The runner's own work beside the caller's thread, which alone drives the library: the
// feeder draws the next frames (in bands on the pool) while the library runs this one, the
// pool encodes the outputs, the video thread writes them in order. At most 2 drawn frames
// and jobs + 2 outputs wait at any time, and the outputs (each a frame and, while encoded, its
// RGB picture) within about 1 GiB: memory stays bounded whatever the frame count and size.
// Members end in reverse order: the threads first, the places in flight last, so that what
// the pool's queued tasks use outlives them, however the run ends.
struct RunWorkers {
  RunWorkers(int32_t jobs, int64_t outputLimit)
      : inFlight(static_cast<int32_t>(outputLimit)),
        pool(jobs),
        videoQueue(static_cast<size_t>(outputLimit)),
        drawn(2) {}
  HostInFlight inFlight;
  HostPool pool;
  HostQueue<std::shared_ptr<OutFrame>> videoQueue;
  HostQueue<Drawn> drawn;
  RunnerThreads threads;
};

int64_t runOutputLimit(const HostRun* r, int32_t jobs) {
  return std::max<int64_t>(2, std::min<int64_t>(jobs + 2, (int64_t{1} << 30) / static_cast<int64_t>(r->mainBytes * 3)));
}

// The frame drawing thread and, when the video is open, the video thread.
void runStartThreads(HostRun* r, RunWorkers* k) {
  k->threads.closeAll = [k] {
    k->drawn.close();
    k->videoQueue.close();
  };
  k->threads.feeder = std::thread([r, k] {
    try {
      for (int32_t i = 0; i < r->frames; ++i) {
        Drawn d;
        d.index = i;
        const int64_t t0 = nowUs();
        try {
          d.ok = r->source->frame(i, &d.frame, &d.error);
        } catch (const std::exception& e) {
          d.ok = false;
          d.error = std::string("could not be drawn: ") + e.what();
        }
        runTraceEvent(r, "draw frame", t0, "frame drawing thread");
        if (!k->drawn.push(std::move(d))) break;
      }
    } catch (const std::exception&) {
      // The caller counts every frame that never arrived as skipped.
    }
    k->drawn.close();
  });
  if (r->videoOpen) {
    k->threads.video = std::thread([r, k] {
      std::shared_ptr<OutFrame> o;
      while (k->videoQueue.pop(&o)) {
        const int64_t t0 = nowUs();
        r->video.write(o->nv21.data());  // a failure is kept and said at close
        o.reset();
        runTraceEvent(r, "video frame", t0, "video thread");
      }
    });
  }
}

// What the caller's thread keeps from frame to frame.
struct RunCaller {
  std::vector<uint8_t> chipBytes;
  int32_t renderErrors = 0;
  const char* lineStart = "";  // ends the progress line before a message
};

// Frame i, drawn: through the library, then its outputs handed to the workers.
void runFrame(HostRun* r, RunWorkers* k, RunCaller* caller, Drawn* d, int32_t i) {
  HostFrame& f = d->frame;
  {
    std::lock_guard<std::mutex> lock(r->reportMu);
    ++r->report.processed;
  }
  memcpy(r->work.data(), f.main.data(), r->mainBytes);
  const TriggerData t = runTrigger(r, f, i, &caller->chipBytes);

  const int64_t t0 = nowUs();
  const int32_t result = static_cast<int32_t>(vmKtrRT_SC_Run(t));
  const int64_t t1 = nowUs();
  r->timing.runMs.push_back((t1 - t0) / 1000.0);
  {
    std::lock_guard<std::mutex> lock(g_log.mu);
    r->timing.events.push_back(TraceEvent{"vmKtrRT_SC_Run", t0 - g_log.originUs, t1 - t0, g_log.callerTid});
  }
  if (result < 0 && caller->renderErrors++ < 5)
    fprintf(stderr, "%svmktr_host: frame %d: vmKtrRT_SC_Run returned %d (renderer code %d)\n", caller->lineStart, i,
            result, -result);

  // The outputs are the runner's: a copy of the frame goes to the workers and the caller
  // moves on to the next frame (waiting only while the most outputs allowed are unfinished).
  const auto sheetAt = std::find(r->sheetFrames.begin(), r->sheetFrames.end(), i);
  const bool onSheet = r->config.sheet && sheetAt != r->sheetFrames.end();
  if (r->videoOpen || r->pngFrames || onSheet) {
    auto o = std::make_shared<OutFrame>(&k->inFlight);
    o->index = i;
    o->nv21 = r->work;
    if (r->videoOpen) k->videoQueue.push(o);
    if (r->pngFrames) k->pool.submit([r, o] { runWriteFrame(r, o); });
    if (onSheet)
      runSubmitSheetRow(r, &k->pool, o, static_cast<size_t>(sheetAt - r->sheetFrames.begin()), std::move(f.main));
  }
}

// The run: every frame through the library on the caller's thread, the runner's own work
// beside it, until every output is finished.
void hostRun(HostRun* r) {
  const HostConfig& config = r->config;
  if (config.video) {
    r->videoOpen = r->video.open(r->out, r->w, r->h, true, &r->error);
    if (!r->videoOpen) r->report.write_failed(r->video.path(), r->error);
  }
  // The report is shared with the drawing and output threads from here on.
  r->source->setReport(&r->report, &r->reportMu);
  ProgressBar progress(config.progress);
  RunCaller caller;
  caller.lineStart = config.progress ? "\n" : "";
  const int64_t start = nowUs();
  const int32_t jobs = config.jobs > 0 ? config.jobs : host_default_jobs();
  RunWorkers workers(jobs, runOutputLimit(r, jobs));
  r->source->setPool(&workers.pool);
  runStartThreads(r, &workers);
  for (int32_t i = 0; i < r->frames; ++i) {
    Drawn d;
    if (!workers.drawn.pop(&d)) {
      fputs(caller.lineStart, stderr);
      std::lock_guard<std::mutex> lock(r->reportMu);
      r->report.skip("frame " + std::to_string(i), "it was never drawn (the drawing thread stopped)");
      continue;
    }
    if (!d.ok) {
      fputs(caller.lineStart, stderr);
      std::lock_guard<std::mutex> lock(r->reportMu);
      r->report.skip(d.frame.name.empty() ? "frame " + std::to_string(i) : d.frame.name, d.error);
      continue;
    }
    runFrame(r, &workers, &caller, &d, i);
    progress.update(i + 1, r->frames, (nowUs() - start) / 1e6);
  }
  // Every frame has been run; the outputs finish before the session ends.
  workers.threads.join();
  workers.pool.wait_idle();
  progress.finish();
  r->timing.wallSeconds = (nowUs() - start) / 1e6;
  // A task that failed outside its own checks (it names its file when it can) is never lost.
  for (const std::string& failure : workers.pool.failures())
    runReportFailed(r, r->out, "a worker thread failed: " + failure);
  for (size_t k = 0; k < r->sheetRows.size(); ++k)
    if (r->sheetFilled[k] != 0) r->sheet.push_back(std::move(r->sheetRows[k]));
  r->source->setPool(nullptr);  // the pool ends with the run
}

// The library's dumps of this run move into the output folder; one that cannot stays where
// the library wrote it. Returns how many moved.
int32_t outputsMoveDumps(HostRun* r) {
  const std::string& out = r->out;
  int32_t moved = 0;
  bool dumpsFolder = false, dumpsFolderFailed = false;
  for (const std::string& name : listDir(r->dumpDir)) {
    if (!dumpsFolder && !dumpsFolderFailed) {
      dumpsFolder = tool_make_dirs(out + "/dumps", &r->error);
      dumpsFolderFailed = !dumpsFolder;
      if (dumpsFolderFailed) r->report.write_failed(out + "/dumps", r->error + "; the dumps stay in " + r->dumpDir);
    }
    if (!dumpsFolder) break;
    if (moveFile(r->dumpDir + "/" + name, out + "/dumps/" + name, &r->error))
      ++moved;
    else
      r->report.write_failed(out + "/dumps/" + name, r->error + "; it stays in " + r->dumpDir);
  }
  return moved;
}

// Outputs: the session ends, then the log, dumps, video, contact sheet, timing and trace are
// written and what is really on disk is listed. Returns the exit code.
int hostOutputs(HostRun* r) {
  const std::string& out = r->out;
  ToolReport& report = r->report;
  std::string& error = r->error;
  vmKtrRT_SC_Deinit();
  vm_host_log_set_hook(nullptr, nullptr);
  for (const auto& t : g_log.threads) r->timing.threadNames.push_back(t);
  const bool logWritten = closeLog(&report, r->logPath);
  const int32_t moved = outputsMoveDumps(r);

  std::string videoPath, sheetPath;
  if (r->videoOpen) {
    if (r->video.close(&error))
      videoPath = r->video.path();
    else
      report.write_failed(r->video.path(), error);
  }
  if (r->config.sheet && !r->sheet.empty() &&
      !host_write_contact_sheet(out + "/contact_sheet.png", r->sheet, &sheetPath, &error))
    report.write_failed(out + "/contact_sheet.png", error);
  r->timing.wholeSeconds = (nowUs() - r->startUs) / 1e6;
  const bool timingWritten = host_write_timing_text(out + "/timing.txt", r->timing, &error);
  if (!timingWritten) report.write_failed(out + "/timing.txt", error);
  const bool traceWritten = host_write_trace(out + "/trace.json", r->timing, &error);
  if (!traceWritten) report.write_failed(out + "/trace.json", error);

  printf("%s", host_timing_summary(r->timing).c_str());
  if (!g_log.errors.empty()) {
    printf("the library reported %zu ERROR line(s), the first:\n  %s\n", g_log.errors.size(), g_log.errors[0].c_str());
  }
  // Only what is really on disk.
  if (r->written > 0) printf("frames written: %d of %d in %s/frames\n", r->written.load(), r->frames, out.c_str());
  if (!sheetPath.empty()) printf("contact sheet: %s\n", sheetPath.c_str());
  if (!videoPath.empty()) printf("video: %s\n", videoPath.c_str());
  if (logWritten) printf("log: %s\n", r->logPath.c_str());
  if (timingWritten) printf("timing: %s/timing.txt\n", out.c_str());
  if (traceWritten) printf("trace: %s/trace.json\n", out.c_str());
  if (moved > 0) printf("library dumps: %d file(s) in %s/dumps\n", moved, out.c_str());
  rmdir(r->dumpDir.c_str());  // empty unless a dump could not be moved (reported above)
  fflush(stdout);
  return report.finish();
}

int hostMain(int argc, char** argv) {
  HostRun run;
  const int setUp = hostSetUp(argc, argv, &run);
  if (setUp != kToolExitDone || run.config.help) return setUp;
  hostRun(&run);
  return hostOutputs(&run);
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main("vmktr_host", argc, argv, hostMain);
}
