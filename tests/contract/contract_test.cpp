// The log-line and dump contract through the five exported functions, with the recording fakes
// standing in for the engines: one table of rows, each naming a session (properties, layout, depth
// source, scripted engine results, frames), a line or dump file written as its printf format, the
// function that must log it and how often it must appear. The texts are those a camera HAL and the
// tuning tools match on, so a changed string fails its row.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "contract_rows.h"
#include "log_capture.h"
#include "session_support.h"
#include "vm_host_platform.h"

namespace {

using contract::atLeastOnce;
using contract::Count;
using contract::exactly;
using contract::never;
using contract::perFakeCall;
using contract::perFrame;
using contract::Times;

// Where the library built for these tests writes its dumps. Kept in one place: the build decides
// the folder.
std::string dumpDir() {
  return VMKTR_DUMP_DIR_FOR_TESTS;
}

// What one session left behind.
struct Outcome {
  std::vector<std::string> lines;
  std::map<std::string, int64_t> files;
  int64_t frames = 0;
  std::map<std::string, int64_t> fakeCalls;
  uint32_t initResult = 0;
};

using Prop = std::pair<const char*, const char*>;

// Drives one session: properties set, fakes and the dump folder cleared, lines captured. After each
// frame it waits (bounded) until every worker woken by that frame has finished its job, so that
// the next frame finds the workers waiting and the counts below do not depend on machine speed.
class Drive {
 public:
  explicit Drive(const std::vector<Prop>& props) {
    vm_host_property_reset();
    for (const Prop& p : props) {
      vm_host_property_set(p.first, p.second);
      if (strcmp(p.first, "persist.vm.log.ktrrt.sc") == 0) logFlags_ = atoi(p.second);
    }
    fakes::reset();
    contract::removeFiles(dumpDir());
  }
  ~Drive() { vm_host_property_reset(); }

  // With trace lines on, waits until the workers Init started have reached their wait, so that
  // the first frames find them ready however late the system schedules them.
  uint32_t init(const InitData& d) {
    out_.initResult = vmKtrRT_SC_Init(d);
    const bool chipDepth = (d.cameraLayout & 0x10) != 0 && (d.cameraLayout & 0x60) != 0;
    const bool depthWorker = !chipDepth || d.isUsingTemporalFilter == 1;
    if (out_.initResult == 0 && (logFlags_ & 0x2) != 0)
      waitUntil([this, depthWorker] {
        return log_.count("vmKtrRT_GenRefocusMap_init[") > 0 && (!depthWorker || log_.count("DMD_STATUS_READY[") > 0);
      });
    return out_.initResult;
  }
  void frame(const TriggerData& t) {
    vmKtrRT_SC_Run(t);
    ++out_.frames;
    waitUntil([this] { return idle(); }, 500);
  }
  bool hasFile(const std::function<bool(const std::string&)>& match) const {
    for (const auto& f : contract::listFiles(dumpDir()))
      if (match(f.first)) return true;
    return false;
  }
  bool hasFileWith(const char* text) const {
    return hasFile([text](const std::string& n) { return n.find(text) != std::string::npos; });
  }
  bool logged(const char* text) const { return log_.count(text) > 0; }
  void cleanDumps() { contract::removeFiles(dumpDir()); }

  Outcome finish() {
    out_.lines = log_.lines();
    out_.files = contract::listFiles(dumpDir());
    for (const std::string& n : fakes::names()) ++out_.fakeCalls[n];
    fakes::reset();
    // For a failing row: CONTRACT_SHOW=1 prints every session's lines.
    if (getenv("CONTRACT_SHOW") != nullptr)
      for (const std::string& l : out_.lines)
        fprintf(stderr, "%s%s", l.c_str(), l.empty() || l.back() != '\n' ? "\n" : "");
    return out_;
  }

 private:
  // Every job a worker accepted has reported its result.
  bool idle() const {
    const size_t depthWoken = log_.count("DMD_STATUS_WAITING[1]");
    const size_t depthDone =
        log_.count("depth_manager_generate_depth[") + log_.count("depth_manager_do_temporal_filter[");
    const size_t mapWoken = log_.count("BMD_STATUS_WAITING[1]");
    const size_t mapDone = log_.count("bokeh_manager_generate_refocus_map[");
    return depthDone >= depthWoken && mapDone >= mapWoken;
  }
  LogCapture log_;
  Outcome out_;
  int32_t logFlags_ = 0;
};

const char* const kLog = "persist.vm.log.ktrrt.sc";
const char* const kDebug = "persist.vm.ktrrt.sc.debug";
const char* const kDisplay = "persist.vm.ktrrt.sc.display";
const char* const kInfo = "persist.vm.ktrrt.sc.info";
const char* const kDump = "persist.vm.ktrrt.sc.dump";
const char* const kDflag = "persist.vm.ktrrt.sc.dflag";

bool isRefocusKind3(const std::string& n) {
  return n.find("-refocus-") != std::string::npos && n.find("-refocus-using-") == std::string::npos;
}

// Layout 1 (half turn) with stereo depth, every log class but the GPU's, every dump but the
// calibration block: until one refocus map has been published and a later one held back.
Outcome stereo() {
  Drive d({{kLog, "19"}, {kDebug, "1"}, {kDisplay, "0"}, {kInfo, "0"}, {kDump, "255"}, {kDflag, "0"}});
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(1));
  for (int i = 0; i < 200 && !(d.hasFileWith("-refocus-using-") && d.hasFile(isRefocusKind3)); ++i)
    d.frame(f.centred());
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// Layout 4 (quarter turn): the engine works on the turned size, the caller sees depth 24 x 32.
Outcome stereoTurned() {
  Drive d({{kLog, "18"}, {kDebug, "1"}, {kDisplay, "0"}, {kDump, "52"}});
  Frames f(64, 48, 64, 48, 24, 32);
  d.init(f.init(4));
  for (int i = 0; i < 200 && !(d.hasFileWith("-depth-main-") && d.logged("Focus Point")); ++i) d.frame(f.centred());
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// Depth from a 10-bit chip (word 0x32), no temporal filter: until a refocus map was published.
Outcome chip() {
  Drive d({{kLog, "19"}, {kDebug, "1"}, {kDisplay, "0"}, {kDump, "140"}});
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(0x32));
  for (int i = 0; i < 200 && !d.hasFileWith("-refocus-using-"); ++i) d.frame(f.centred(true));
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// Chip depth through the temporal filter on the depth worker.
Outcome chipFiltered() {
  Drive d({{kLog, "19"}, {kDebug, "1"}, {kDisplay, "0"}, {kDump, "4"}});
  Frames f(64, 48, 64, 48, 32, 24);
  InitData init = f.init(0x32);
  init.isUsingTemporalFilter = 1;
  d.init(init);
  for (int i = 0; i < 200 && !(d.hasFileWith("-depth-") && d.logged("depth_manager_do_temporal_filter[")); ++i)
    d.frame(f.centred(true));
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// Chip word 0x33: the quarter-turn layout number with chip bits, so the depth size stays as given.
Outcome chipTurnedWord() {
  Drive d({{kLog, "19"}, {kDebug, "1"}, {kDisplay, "0"}, {kDump, "12"}});
  Frames f(64, 48, 64, 48, 24, 32);
  d.init(f.init(0x33));
  for (int i = 0; i < 200 && !(d.hasFileWith("-depth-") && d.hasFileWith("-refocus-using-")); ++i)
    d.frame(f.centred(true));
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// A HAL that leaves the sub image's size (word 14) at 0 when word 12 carries the chip's depth.
Outcome chipWithoutSize() {
  Drive d({{kLog, "19"}, {kDebug, "1"}, {kDisplay, "0"}, {kDump, "4"}});
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(0x32));
  for (int i = 0; i < 12; ++i) {
    TriggerData t = f.centred(true);
    t.subImage.size = 0;
    d.frame(t);
  }
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// Init with one engine call scripted to fail.
Outcome initFails(const char* call, int32_t code, const char* logFlags, bool chipFiltered) {
  Drive d({{kLog, logFlags}, {kDebug, "0"}});
  fakes::queueResult(call, code);
  Frames f(64, 48, 64, 48, 32, 24);
  InitData init = f.init(chipFiltered ? 0x32 : 2);
  init.isUsingTemporalFilter = chipFiltered ? 1 : 0;
  d.init(init);
  vmKtrRT_SC_Deinit();
  return d.finish();
}
Outcome depthEngineInitFails() {
  return initFails("vmDpx2_Express_Init", 0x55, "2", false);
}
Outcome depthEngineInitFailsQuietly() {
  return initFails("vmDpx2_Express_Init", 0x55, "0", false);
}
Outcome filterInitFails() {
  return initFails("vmZu_TemporalFilterU16_Init", 0x66, "2", true);
}
Outcome rendererLayoutFails() {
  return initFails("vmKtrRT_CameraLayout_Set", 0x77, "2", false);
}
Outcome rendererInitFails() {
  return initFails("vmKtrRT_GLInitV1", 0x88, "2", false);
}

// The refocus-map generator answers 9 on every map.
Outcome generatorFails() {
  Drive d({{kLog, "2"}, {kDebug, "0"}});
  fakes::setDefaultResult("vmKtrRT_GenRefocusMap", 9);
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(2));
  for (int i = 0; i < 200 && !d.logged("bokeh_manager_generate_refocus_map[9]"); ++i) d.frame(f.centred());
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// No log class on: a refused region, then the calls a closed session refuses.
Outcome closedSession() {
  Drive d({{kLog, "0"}, {kDebug, "0"}});
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(2));
  d.frame(f.trigger(0, 0, 0, 0));
  d.frame(f.centred());
  vmKtrRT_SC_Deinit();
  vmKtrRT_SC_Run(f.centred());
  vmKtrRT_SC_Set_Function(0x04, 1);
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// Trace lines only, debugging off: a frame without a main image and two feature switches.
Outcome traceOnly() {
  Drive d({{kLog, "2"}, {kDebug, "0"}});
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(2));
  TriggerData t = f.centred();
  t.mainImage.data = nullptr;
  d.frame(t);
  vmKtrRT_SC_Set_Function(0x04, 1);
  vmKtrRT_SC_Set_Function(0x08, 1);
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// The calibration block is dumped at Init with the dump bits the last frame read.
Outcome calibrationDump() {
  Drive d({{kLog, "0"}, {kDebug, "1"}, {kDisplay, "0"}, {kDump, "64"}});
  Frames f(64, 48, 64, 48, 32, 24);
  d.init(f.init(2));
  d.frame(f.centred());
  vmKtrRT_SC_Deinit();
  d.cleanDumps();
  d.init(f.init(2));
  vmKtrRT_SC_Deinit();
  return d.finish();
}

// The refocus dumps hand the f-number and the focus point to a format that reads two ints, a
// double and two ints; on the 32-bit target the ints print the f-number's double-precision words
// (low, high) and the double is the two focus words. This builds that name part.
std::string refocusNameMiddle(float fNumber, int32_t focusX, int32_t focusY) {
  const double f = fNumber;
  uint64_t bits;
  memcpy(&bits, &f, sizeof bits);
  const uint64_t focusBits =
      (static_cast<uint64_t>(static_cast<uint32_t>(focusY)) << 32) | static_cast<uint32_t>(focusX);
  double focus;
  memcpy(&focus, &focusBits, sizeof focus);
  char text[400];
  snprintf(text, sizeof text, "%dx%d-%.2f", static_cast<int32_t>(static_cast<uint32_t>(bits)),
           static_cast<int32_t>(static_cast<uint32_t>(bits >> 32)), focus);
  return text;
}

struct Row {
  const char* label;
  Outcome (*session)();
  bool dumpFile;   // the pattern names a dump file instead of a log line
  const char* fn;  // the function that must log the line (null: any)
  std::string pattern;
  Count count;
  int64_t bytes;  // every matching dump file's size (-1: not checked)
};

Row line(const char* label, Outcome (*s)(), const char* fn, std::string pattern, Count c) {
  return Row{label, s, false, fn, std::move(pattern), c, -1};
}
Row dump(const char* label, Outcome (*s)(), std::string pattern, Count c, int64_t bytes) {
  return Row{label, s, true, nullptr, std::move(pattern), c, bytes};
}

// Sizes of the sessions above: 64 x 48 previews, focus region (16, 48, 12, 36) centred on
// (32, 24), VCM 300 / 280, f/2.8; a 320 x 240 refocus map for stereo depth, the chip's depth size
// for chip depth. A slot of W x H bytes holds 16 x (((W x H) >> 4) + 1) bytes.
constexpr int64_t kPreviewBytes = 64 * 48 * 3 / 2;
constexpr int64_t kDepthBytes = 32 * 24 * 2;
constexpr int64_t kPlaneBlockBytes = 32 * 24 * 4;
constexpr int64_t kStereoRefocusSlotBytes = 16 * (((320 * 240) >> 4) + 1);
constexpr int64_t kChipRefocusSlotBytes = 16 * (((32 * 24) >> 4) + 1);

std::vector<Row> rows() {
  const std::string focusPart = refocusNameMiddle(2.8f, 32, 24);
  std::vector<Row> r = {
      // Init: version, property echoes, profiling, the init data line, engine versions.
      line("InitVersion", stereo, "vmKtrRT_SC_Init", CT_LINE "KtrRT_SC Version:[v0.47]\n", exactly(1)),
      line("InitVersionUngated", depthEngineInitFailsQuietly, "vmKtrRT_SC_Init", CT_LINE "KtrRT_SC Version:[v0.47]\n",
           exactly(1)),
      line("EchoLog", stereo, "vmKtrRT_SC_Init", "<VEMTA_LOG>[vmKtrRT_SC]<SET LOG> %s:%d: 13 \n", exactly(1)),
      line("EchoDebug", stereo, "vmKtrRT_SC_Init", "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG> %s:%d: 1 \n", exactly(1)),
      line("EchoDisplay", stereo, "vmKtrRT_SC_Init", "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG DISPLAY> %s:%d: 0 \n",
           exactly(1)),
      line("EchoDisplayOnlyWithDebug", traceOnly, nullptr, "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG DISPLAY> %s:%d: %x \n",
           never()),
      line("EchoInfo", stereo, "vmKtrRT_SC_Init", "<VEMTA_LOG>[vmKtrRT_SC]<SET STATUS INFO> %s:%d: 0 \n", exactly(1)),
      line("InitProfileIn", stereo, "vmKtrRT_SC_Init", CT_PROFILE "++\n", exactly(1)),
      line("InitProfileOut", stereo, "vmKtrRT_SC_Init", CT_PROFILE "-- cost %ld ms\n", exactly(1)),
      line("InitData", stereo, "flow_controller_fill_initial_data",
           CT_LINE "Screen[1080x2340] Preview Main[64x48] Preview Sub[64x48] depth[32x24] OTP[64] CameraLayout[1] "
                   "OffRender[0] isPortrait[0] isGB[0] isFrontCam[0] ImageFormat[0] ishighDepthQuality[0] "
                   "isUsingTemporalFilter[0] isUsingDistanceMap[0]\n\n",
           exactly(1)),
      line("InitDataChip", chipFiltered, "flow_controller_fill_initial_data",
           CT_LINE "Screen[1080x2340] Preview Main[64x48] Preview Sub[64x48] depth[32x24] OTP[64] CameraLayout[50] "
                   "OffRender[0] isPortrait[0] isGB[0] isFrontCam[0] ImageFormat[0] ishighDepthQuality[0] "
                   "isUsingTemporalFilter[1] isUsingDistanceMap[0]\n\n",
           exactly(1)),
      line("InitDataGated", closedSession, nullptr, CT_LINE "Screen[%dx%d] Preview Main[%s\n\n", never()),
      line("ThreadInfo", stereo, "dump_thread_info",
           CT_LINE "RET[0] PID[%d] TID[%d] POLICY[%d] PRIORITY[%d][%d][%d][%d]\n\n", exactly(3)),
      line("DepthEngineVersion", stereo, "depth_manager_init_Dpx2_LV", CT_LINE "Dpx2_LV Version:[fake-dpx2]\n",
           exactly(1)),
      line("DepthEngineVersionUngated", depthEngineInitFailsQuietly, "depth_manager_init_Dpx2_LV",
           CT_LINE "Dpx2_LV Version:[fake-dpx2]\n", exactly(1)),
      line("FilterVersion", chipFiltered, "depth_manager_init_temporal_filter", CT_LINE "Zu Version:[fake-zu]\n",
           exactly(1)),
      line("RendererVersion", stereo, "bokeh_manager_init", CT_LINE "KtrRT_GL Version:[fake-gl]\n", exactly(1)),

      // Engine set-up failures.
      line("DepthEngineInitError", depthEngineInitFails, "depth_manager_init_Dpx2_LV",
           CT_LINE "vmDpx2_Express_Init:ERROR[55]\n", exactly(1)),
      line("DepthEngineInitErrorGated", depthEngineInitFailsQuietly, nullptr, CT_LINE "vmDpx2_Express_Init:ERROR[%x]\n",
           never()),
      line("FilterInitError", filterInitFails, "depth_manager_init_temporal_filter",
           CT_LINE "vmZu_TemporalFilterU16_Init:ERROR[66]\n", exactly(1)),
      line("RendererLayoutError", rendererLayoutFails, "bokeh_manager_init",
           CT_LINE "vmKtrRT_CameraLayout_Set:ERROR[77]\n", exactly(1)),
      line("RendererInitError", rendererInitFails, "bokeh_manager_init", CT_LINE "vmKtrRT_GLInit:ERROR[88]\n",
           exactly(1)),
      line("GeneratorError", generatorFails, "bokeh_manager_handler",
           CT_LINE "bokeh_manager_generate_refocus_map[9]...\n", atLeastOnce()),

      // Per frame: echoes, the trigger data line, the sub image, the bokeh result, profiling.
      line("EchoDump", stereo, "flow_controller_trigger", "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG DUMP> %s:%d: ff \n",
           perFrame()),
      line("EchoDumpOnlyWithDebug", traceOnly, nullptr, "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG DUMP> %s:%d: %x \n",
           never()),
      line("EchoFlag", stereo, "flow_controller_trigger", "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG FLAG> %s:%d: 0 \n",
           perFrame()),
      line("EchoFlagWithoutDebug", traceOnly, "flow_controller_trigger",
           "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG FLAG> %s:%d: 0 \n", perFrame()),
      line("TriggerData", stereo, "flow_controller_fill_trigger_data",
           CT_LINE "vcmMain[300] vcmSub[280] fnumber[2.800000] Region left[16] right[48] top[12] bottom[36]\n\n",
           perFrame()),
      line("TriggerDataGated", closedSession, nullptr, CT_LINE "vcmMain[%d] vcmSub[%s\n\n", never()),
      // A still scene is stable from the seventh frame on; every stable frame asks for depth.
      line("SubImage", stereo, "flow_controller_fill_trigger_data_depth_requirement", CT_LINE "Get Sub Prreview\n",
           perFrame(6)),
      line("SubImageNotForChip", chip, nullptr, CT_LINE "Get Sub Prreview\n", never()),
      line("BokehResult", stereo, "flow_controller_trigger", CT_LINE "Bokeh RET[%d]\n", perFrame()),
      line("BokehResultGated", closedSession, nullptr, CT_LINE "Bokeh RET[%d]\n", never()),
      line("RunProfileIn", stereo, "vmKtrRT_SC_Run", CT_PROFILE "++\n", perFrame()),
      line("RunProfileOut", stereo, "vmKtrRT_SC_Run", CT_PROFILE "-- cost %ld ms\n", perFrame()),
      line("RegionRefused", closedSession, "flow_controller_fill_trigger_data",
           CT_LINE "ERROR!!! Region left[0] right[0] top[0] bottom[0] SKIP...\n", exactly(1)),
      line("NoMainPreview", traceOnly, "bokeh_manager_trigger", CT_LINE "ERROR: no Main Preview\n", exactly(1)),
      line("SceneCheck", stereo, "policy_manager_scene_change_detection",
           CT_PROFILE "Scene check result = 0 cost %ld ms", perFrame(1)),
      line("PolicySettling", stereo, "policy_manager_check_state_machine",
           CT_LINE "current state [3] Average[0] Count[0]", exactly(1)),
      line("PolicyStable", stereo, "policy_manager_check_state_machine",
           CT_LINE "current state [5] Average[0] Count[0]", exactly(1)),

      // Closed session.
      line("RunWhenClosed", closedSession, "flow_controller_trigger", CT_LINE "ERROR...[8]\n", exactly(1)),
      line("SetFunctionWhenClosed", closedSession, "flow_controller_set_function", CT_LINE "ERROR...[8]\n", exactly(1)),
      line("DeinitWhenClosed", closedSession, "flow_controller_deinit", CT_LINE "ERROR...[8]\n", exactly(1)),
      line("DeinitProfileIn", stereo, "vmKtrRT_SC_Deinit", CT_PROFILE "++\n", exactly(1)),
      line("DeinitProfileOut", stereo, "vmKtrRT_SC_Deinit", CT_PROFILE "-- cost %ld ms\n", exactly(1)),

      // Feature switch trace.
      line("SetFunctionIn", traceOnly, "vmKtrRT_SC_Set_Function", CT_LINE "++\n", exactly(2)),
      line("SetFunctionFlag4", traceOnly, "vmKtrRT_SC_Set_Function", CT_LINE "FLAG[0x04] Enable[1]\n", exactly(1)),
      line("SetFunctionFlag8", traceOnly, "vmKtrRT_SC_Set_Function", CT_LINE "FLAG[0x08] Enable[1]\n", exactly(1)),
      line("SetFunctionOut", traceOnly, "vmKtrRT_SC_Set_Function", CT_LINE "-- cost %ld ms\n", exactly(2)),

      // Depth worker and depth generation.
      line("DepthHandlerStart", stereo, "depth_manager_handler", CT_LINE "Start gen depth handler...\n", exactly(1)),
      line("DepthHandlerReady", stereo, "depth_manager_handler", CT_LINE "ID DMD_STATUS_READY[1]...\n", exactly(1)),
      line("DepthHandlerEnd", stereo, "depth_manager_handler", CT_LINE "End gen depth handler...\n", exactly(1)),
      line("DepthHandlerResult", stereo, "depth_manager_handler", CT_LINE "depth_manager_generate_depth[0]...\n",
           atLeastOnce()),
      line("DepthTrigger", stereo, "depth_manager_trigger",
           CT_LINE "depth_manager_trigger is DMD_STATUS_WAITING[%d]...\n", perFrame(6)),
      line("NoDepthWorkerForChip", chip, nullptr, CT_LINE "Start gen depth handler...\n", never()),
      line("ScaleProfile", stereo, "depth_manager_generate_depth_for_layout_1_2",
           CT_PROFILE "image_utility_nv12 scaling and rotate cost %ld ms\n", perFakeCall("vmDpx2_Run_Express")),
      line("Rotate180Profile", stereo, "depth_manager_generate_depth_for_layout_1_2",
           CT_PROFILE "image_utility rotate180 cost %ld ms\n", perFakeCall("vmDpx2_Run_Express")),
      line("ScaleProfileTurned", stereoTurned, "depth_manager_generate_depth_for_layout_3_4",
           CT_PROFILE "image_utility_nv12 scaling and rotate cost %ld ms\n", perFakeCall("vmDpx2_Run_Express")),
      line("RotateProfileTurned", stereoTurned, "depth_manager_generate_depth_for_layout_3_4",
           CT_PROFILE "image_utility rotate cost %ld ms\n", perFakeCall("vmDpx2_Run_Express")),
      line("EngineProfile", stereo, "depth_manager_generate_depth_dpx2_run",
           CT_PROFILE "vmDpx2_Run_Express cost %ld ms\n", perFakeCall("vmDpx2_Run_Express")),
      // A chip session is stable from the sixth frame on; every stable frame takes the chip's map.
      line("ChipProfile", chip, "depth_manager_get_depth_from_chip",
           CT_PROFILE "depth_manager_get_depth_from_chip cost %ld ms\n", perFrame(5)),
      line("ChipProfileFiltered", chipFiltered, "depth_manager_get_depth_from_chip",
           CT_PROFILE "depth_manager_get_depth_from_chip cost %ld ms\n", perFrame(5)),
      line("ChipProfileWithoutSize", chipWithoutSize, "depth_manager_get_depth_from_chip",
           CT_PROFILE "depth_manager_get_depth_from_chip cost %ld ms\n", perFrame(5)),
      line("FilterHandlerResult", chipFiltered, "depth_manager_handler",
           CT_LINE "depth_manager_do_temporal_filter[0]...\n", atLeastOnce()),
      line("FilterProfile", chipFiltered, "depth_manager_do_temporal_filter",
           CT_PROFILE "vmZu_TemporalFilterU16_Run cost %ld ms\n", perFakeCall("vmZu_TemporalFilterU16_Run")),

      // Refocus-map worker and rendering.
      line("MapHandlerStart", stereo, "bokeh_manager_handler", CT_LINE "Start gen refocus map handler...\n",
           exactly(1)),
      line("MapHandlerReady", stereo, "bokeh_manager_handler", CT_LINE "ID STATUS_READY[1]...\n", exactly(1)),
      line("MapGeneratorInit", stereo, "bokeh_manager_handler", CT_LINE "vmKtrRT_GenRefocusMap_init[0]...\n",
           exactly(1)),
      line("MapHandlerResult", stereo, "bokeh_manager_handler", CT_LINE "bokeh_manager_generate_refocus_map[0]...\n",
           atLeastOnce()),
      line("MapHandlerEnd", stereo, "bokeh_manager_handler", CT_LINE "End gen refocus map handler...\n", exactly(1)),
      line("MapWithoutDepth", stereo, "bokeh_manager_generate_refocus_map", CT_LINE "ERROR: No Depth\n", atLeastOnce()),
      line("FocusPoint", stereo, "bokeh_manager_generate_refocus_map",
           CT_LINE "Focus Point touchP[32x24] depthP[16x12] preview[64x48] depth[32x24]\n", atLeastOnce()),
      line("FocusPointTurned", stereoTurned, "bokeh_manager_generate_refocus_map",
           CT_LINE "Focus Point touchP[32x24] depthP[12x16] preview[64x48] depth[24x32]\n", atLeastOnce()),
      line("MapProfile", stereo, "bokeh_manager_generate_refocus_map", CT_PROFILE "vmKtrRT_GenRefocusMap cost %ld ms\n",
           atLeastOnce()),
      line("NewDepth", stereo, "bokeh_manager_trigger", CT_LINE "NEW Depth...\n", atLeastOnce()),
      line("MapWake", stereo, "bokeh_manager_trigger", CT_LINE "gen refocus map is BMD_STATUS_WAITING[1]...\n",
           atLeastOnce()),
      line("RenderCall", stereo, "bokeh_manager_trigger",
           CT_LINE "vmKtrRT_GLStartV1 preview[64x48] refocus[320x240] Screen[1080x2340] Focus[32 24] "
                   "status[0x%04x] about[0x%04x]...\n",
           perFrame()),
      line("RenderProfile", stereo, "bokeh_manager_trigger", CT_PROFILE "vmKtrRT_GLStartV1 cost %ld ms\n", perFrame()),

      // Dumps: the writer's line, then each kind's file name and byte count.
      line("DumpWrite", stereo, "dump_write_raw", CT_LINE "Write data to %s/%04d-preview-out-64x48.nv21 size 4608\n",
           perFrame()),
      dump("PreviewMain", stereo, "%04d-preview-main-64x48-300-2.80-32x24.nv21", perFrame(), kPreviewBytes),
      dump("PreviewSub", stereo, "%04d-preview-sub-64x48-280.nv21", perFrame(6), kPreviewBytes),
      dump("PreviewOut", stereo, "%04d-preview-out-64x48.nv21", perFrame(), kPreviewBytes),
      dump("Depth", stereo, "%04d-depth-32x24-300-280-2.80-32x24.raw", atLeastOnce(), kDepthBytes),
      dump("DepthMain", stereo, "%04d-depth-main-32x24-300-2.80-32x24.ycc", atLeastOnce(), kPlaneBlockBytes),
      dump("DepthSub", stereo, "%04d-depth-sub-32x24-300-2.80-32x24.ycc", atLeastOnce(), kPlaneBlockBytes),
      // Quarter turn: the depth dump shows the caller's size, the engine inputs the engine's.
      dump("DepthTurned", stereoTurned, "%04d-depth-24x32-300-280-2.80-32x24.raw", atLeastOnce(), kDepthBytes),
      dump("DepthMainTurned", stereoTurned, "%04d-depth-main-32x24-300-2.80-32x24.ycc", atLeastOnce(),
           kPlaneBlockBytes),
      dump("RefocusUsingName", stereo, "%04d-refocus-using-" + focusPart + "-320x240.raw", atLeastOnce(), -1),
      dump("RefocusHeldBackName", stereo, "%04d-refocus-" + focusPart + "-320x240.raw", atLeastOnce(), -1),
      dump("RefocusUsingBytes", stereo, "%04d-refocus-using-%s.raw", atLeastOnce(), kStereoRefocusSlotBytes),
      dump("RefocusHeldBackBytes", stereo, "%04d-refocus-%dx%d-%s.raw", atLeastOnce(), kStereoRefocusSlotBytes),
      // Chip depth on the caller's thread leaves the depth counter alone: every frame rewrites the
      // same file.
      dump("ChipDepth", chip, "0000-depth-32x24-300-280-2.80-32x24.raw", exactly(1), kDepthBytes),
      line("ChipDepthWrites", chip, "dump_write_raw",
           CT_LINE "Write data to %s/0000-depth-32x24-300-280-2.80-32x24.raw size 1536\n", perFrame(5)),
      dump("ChipDepthFiltered", chipFiltered, "%04d-depth-32x24-300-280-2.80-32x24.raw", atLeastOnce(), kDepthBytes),
      dump("ChipRefocusName", chip, "%04d-refocus-using-" + focusPart + "-32x24.raw", atLeastOnce(), -1),
      dump("ChipNeverHoldsBack", chip, "%04d-refocus-%dx%d-%s.raw", never(), -1),
      dump("ChipRefocusBytes", chip, "%04d-refocus-using-%s.raw", atLeastOnce(), kChipRefocusSlotBytes),
      dump("ChipRefocusNameTurnedWord", chipTurnedWord, "%04d-refocus-using-" + focusPart + "-24x32.raw", atLeastOnce(),
           -1),
      dump("ChipDepthBytesTurnedWord", chipTurnedWord, "%04d-depth-%s.raw", atLeastOnce(), 24 * 32 * 2),
      dump("ChipDepthNameTurnedWord", chipTurnedWord, "%04d-depth-24x32-300-280-2.80-32x24.raw", atLeastOnce(),
           24 * 32 * 2),
      dump("ChipDepthWithoutSize", chipWithoutSize, "0000-depth-32x24-300-280-2.80-32x24.raw", exactly(1), kDepthBytes),
      dump("Calibration", calibrationDump, "eeprom.raw", exactly(1), 64),
  };
  return r;
}

std::map<Outcome (*)(), Outcome>& cache() {
  static std::map<Outcome (*)(), Outcome> c;
  return c;
}

const Outcome& outcomeOf(Outcome (*session)()) {
  auto it = cache().find(session);
  if (it == cache().end()) it = cache().emplace(session, session()).first;
  return it->second;
}

// Rows print as their pattern in gtest's messages.
void PrintTo(const Row& row, std::ostream* os) {
  *os << row.pattern;
}

class Contract : public ::testing::TestWithParam<Row> {};

TEST_P(Contract, Row) {
  const Row& row = GetParam();
  const Outcome& out = outcomeOf(row.session);

  std::vector<std::string> texts;
  if (row.dumpFile) {
    for (const auto& f : out.files) texts.push_back(f.first);
  } else {
    texts = out.lines;
  }
  const int64_t seen = static_cast<int64_t>(contract::countMatching(texts, row.pattern, row.fn));
  int64_t want = row.count.n;
  switch (row.count.times) {
    case Times::kExactly:
      break;
    case Times::kPerFrame:
      want = out.frames - row.count.n;
      EXPECT_GT(want, 0) << "the session ran too few frames for this row";
      break;
    case Times::kNever:
      want = 0;
      break;
    case Times::kPerFakeCall: {
      auto it = out.fakeCalls.find(row.count.fakeName);
      want = it == out.fakeCalls.end() ? 0 : it->second;
      EXPECT_GT(want, 0) << "the session never reached " << row.count.fakeName;
      break;
    }
    case Times::kAtLeastOnce:
      want = -1;
      break;
  }
  std::string context = "pattern: " + row.pattern + (row.fn ? std::string("\nfunction: ") + row.fn : "") +
                        "\nexpected " + contract::describe(row.count) + " over " + std::to_string(out.frames) +
                        " frames; seen alike:\n" + contract::alike(texts, row.pattern, 20);
  if (want < 0) {
    EXPECT_GE(seen, 1) << context;
  } else {
    EXPECT_EQ(seen, want) << context;
  }
  if (row.dumpFile && row.bytes >= 0) {
    const std::regex re(contract::patternToRegex(row.pattern, nullptr));
    for (const auto& f : out.files)
      if (std::regex_match(f.first, re)) {
        EXPECT_EQ(f.second, row.bytes) << f.first;
      }
  }
}

// The sessions behind the rows started as a HAL expects: failing engine set-up returns that
// step's own code, the others run.
TEST(ContractSessions, InitResults) {
  EXPECT_EQ(outcomeOf(depthEngineInitFails).initResult, 0x55u);
  EXPECT_EQ(outcomeOf(filterInitFails).initResult, 0x66u);
  EXPECT_EQ(outcomeOf(rendererLayoutFails).initResult, 0x77u);
  EXPECT_EQ(outcomeOf(rendererInitFails).initResult, 0x88u);
  for (Outcome (*s)() : {stereo, stereoTurned, chip, chipFiltered, chipTurnedWord, generatorFails, closedSession})
    EXPECT_EQ(outcomeOf(s).initResult, 0u);
}

std::string rowName(const ::testing::TestParamInfo<Row>& info) {
  return info.param.label;
}

INSTANTIATE_TEST_SUITE_P(Lines, Contract, ::testing::ValuesIn(rows()), rowName);

}  // namespace
