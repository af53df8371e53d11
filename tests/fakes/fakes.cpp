// fakes.cpp - recording fakes of the depth engine, the temporal filter and the renderer.
#include "fakes.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "engines/engines.h"

namespace fakes {
namespace {

struct State {
  std::mutex mu;
  std::vector<Call> calls;
  std::map<std::string, std::deque<int32_t>> queued;
  std::map<std::string, int32_t> defaults;
  std::map<std::string, int32_t> delays;
  uint64_t sequence = 0;
  int32_t depthWidth = 0;
  int32_t depthHeight = 0;
  int32_t depthFrames = 0;
  bool echoLuma = false;
  std::map<std::string, std::function<void()>> hooks;
  int32_t glDepthWidth = 0, glDepthHeight = 0, refocusWidth = 0, refocusHeight = 0;
  uint64_t lastMapSum = 0;
  uint32_t lastDepthSum = 0;
  std::function<void(uint8_t*)> mapWriter;
};

State& state() {
  static State s;
  return s;
}

int32_t record(const char* name, std::vector<int64_t> args, float f = 0.0f) {
  State& s = state();
  int32_t delay = 0;
  int32_t result = 0;
  std::function<void()> hook;
  {
    std::lock_guard<std::mutex> g(s.mu);
    s.calls.push_back(Call{name, std::move(args), pthread_self(), s.sequence++, f});
    auto q = s.queued.find(name);
    if (q != s.queued.end() && !q->second.empty()) {
      result = q->second.front();
      q->second.pop_front();
    } else {
      auto d = s.defaults.find(name);
      result = d != s.defaults.end() ? d->second : 0;
    }
    auto dl = s.delays.find(name);
    delay = dl != s.delays.end() ? dl->second : 0;
    auto hk = s.hooks.find(name);
    if (hk != s.hooks.end()) hook = hk->second;
  }
  if (delay > 0) usleep(static_cast<useconds_t>(delay) * 1000);
  if (hook) hook();
  return result;
}

void keepRendererSizes(int32_t dw, int32_t dh, int32_t rw, int32_t rh) {
  std::lock_guard<std::mutex> g(state().mu);
  state().glDepthWidth = dw;
  state().glDepthHeight = dh;
  state().refocusWidth = rw;
  state().refocusHeight = rh;
}

// A refocus map made from the depth it is given: reads every depth sample, writes every map byte.
void writeRefocusMap(uint8_t* map, const uint16_t* depth, int32_t fx, int32_t fy) {
  int32_t dw, dh, rw, rh;
  std::function<void(uint8_t*)> writer;
  {
    std::lock_guard<std::mutex> g(state().mu);
    writer = state().mapWriter;
    dw = state().glDepthWidth;
    dh = state().glDepthHeight;
    rw = state().refocusWidth;
    rh = state().refocusHeight;
  }
  uint32_t depthSum = 0;
  if (depth != nullptr)
    for (int32_t i = 0; i < dw * dh; ++i) depthSum += depth[i];
  {
    std::lock_guard<std::mutex> g(state().mu);
    state().lastDepthSum = depthSum;
  }
  if (map != nullptr && writer) {
    writer(map);
    return;
  }
  if (map != nullptr)
    for (int32_t i = 0; i < rw * rh; ++i) map[i] = refocusMapValue(i, fx, fy);
}

uint64_t readMap(const uint8_t* map) {
  int32_t n;
  {
    std::lock_guard<std::mutex> g(state().mu);
    n = state().refocusWidth * state().refocusHeight;
  }
  // Every byte is read (the sanitizers then see a map rewritten while it is rendered); 32-bit
  // sums over blocks let the compiler vectorise it, so that benchmarks of Run count little of it.
  uint64_t sum = 0;
  if (map != nullptr)
    for (int32_t start = 0; start < n; start += 1 << 20) {
      const int32_t end = n - start > (1 << 20) ? start + (1 << 20) : n;
      uint32_t block = 0;
      for (int32_t i = start; i < end; ++i) block += map[i];
      sum += block;
    }
  std::lock_guard<std::mutex> g(state().mu);
  state().lastMapSum = sum;
  return sum;
}

int64_t addr(const void* p) {
  return static_cast<int64_t>(reinterpret_cast<intptr_t>(p));
}

void writeText(char* text, int32_t size, const char* value) {
  if (text != nullptr && size > 0) snprintf(text, static_cast<size_t>(size), "%s", value);
}

}  // namespace

void reset() {
  State& s = state();
  std::lock_guard<std::mutex> g(s.mu);
  s.calls.clear();
  s.queued.clear();
  s.defaults.clear();
  s.delays.clear();
  s.sequence = 0;
  s.depthFrames = 0;
  s.echoLuma = false;
  s.hooks.clear();
  s.lastMapSum = 0;
  s.mapWriter = nullptr;
}

void setRefocusMapWriter(std::function<void(uint8_t* map)> writer) {
  std::lock_guard<std::mutex> g(state().mu);
  state().mapWriter = std::move(writer);
}

void setDepthEchoesMainLuma(bool on) {
  std::lock_guard<std::mutex> g(state().mu);
  state().echoLuma = on;
}

void setHook(const std::string& name, std::function<void()> hook) {
  std::lock_guard<std::mutex> g(state().mu);
  state().hooks[name] = std::move(hook);
}

uint8_t refocusMapValue(int32_t index, int32_t x, int32_t y) {
  return static_cast<uint8_t>((index + x * 5 + y * 3) & 0xFF);
}

uint64_t lastRenderedMapSum() {
  std::lock_guard<std::mutex> g(state().mu);
  return state().lastMapSum;
}

std::vector<Call> calls() {
  std::lock_guard<std::mutex> g(state().mu);
  return state().calls;
}

std::vector<Call> calls(const std::string& name) {
  std::vector<Call> out;
  for (const Call& c : calls())
    if (c.name == name) out.push_back(c);
  return out;
}

size_t count(const std::string& name) {
  return calls(name).size();
}

std::vector<std::string> names() {
  std::vector<std::string> out;
  for (const Call& c : calls()) out.push_back(c.name);
  return out;
}

void queueResult(const std::string& name, int32_t result) {
  std::lock_guard<std::mutex> g(state().mu);
  state().queued[name].push_back(result);
}

void setDefaultResult(const std::string& name, int32_t result) {
  std::lock_guard<std::mutex> g(state().mu);
  state().defaults[name] = result;
}

void setDelayMs(const std::string& name, int32_t ms) {
  std::lock_guard<std::mutex> g(state().mu);
  state().delays[name] = ms;
}

uint16_t fakeDepthValue(int32_t x, int32_t y, int32_t frame) {
  return static_cast<uint16_t>((x * 3 + y * 7 + frame * 11) % 1023);
}

}  // namespace fakes

using fakes::addr;
using fakes::record;

extern "C" {

int32_t vmDpx2_VersionInfo_Get_LV(char* text, int32_t size) {
  fakes::writeText(text, size, "fake-dpx2");
  return record("vmDpx2_VersionInfo_Get_LV", {addr(text), size});
}
int32_t vmDpx2_CameraLayout_Set_LV(int32_t layout) {
  return record("vmDpx2_CameraLayout_Set_LV", {layout});
}
int32_t vmDpx2RT_FieldofDepth_Set(int32_t mode) {
  return record("vmDpx2RT_FieldofDepth_Set", {mode});
}
int32_t vmDpx2_Express_Init(const uint8_t* a, int32_t sa, int32_t w, int32_t h, const uint8_t* b, int32_t sb) {
  {
    std::lock_guard<std::mutex> g(fakes::state().mu);
    fakes::state().depthWidth = w;
    fakes::state().depthHeight = h;
  }
  return record("vmDpx2_Express_Init", {addr(a), sa, w, h, addr(b), sb});
}
int32_t vmDpx2_Run_Express(uint16_t* out, DpxImage* mainImage, DpxImage* subImage, int32_t vcmMain, int32_t vcmSub) {
  int32_t w, h, frame;
  bool echo;
  {
    std::lock_guard<std::mutex> g(fakes::state().mu);
    w = fakes::state().depthWidth;
    h = fakes::state().depthHeight;
    frame = fakes::state().depthFrames++;
    echo = fakes::state().echoLuma;
  }
  // The map is written before the call's delay and hook, as an engine that works while it runs.
  if (out != nullptr)
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x)
        out[y * w + x] =
            echo && mainImage != nullptr ? mainImage->plane[0][y * w + x] : fakes::fakeDepthValue(x, y, frame);
  return record("vmDpx2_Run_Express", {addr(out), addr(mainImage), addr(subImage), vcmMain, vcmSub});
}
int32_t vmDpx2_Express_Close(void) {
  return record("vmDpx2_Express_Close", {});
}

int32_t vmZu_VersionInfo_Get(char* text, int32_t size) {
  fakes::writeText(text, size, "fake-zu");
  return record("vmZu_VersionInfo_Get", {addr(text), size});
}
int32_t vmZu_TemporalFilterU16_Init(int32_t mw, int32_t mh, int32_t dw, int32_t dh) {
  return record("vmZu_TemporalFilterU16_Init", {mw, mh, dw, dh});
}
int32_t vmZu_TemporalFilterU16_Run(uint16_t* out, const uint16_t* in, int32_t dw, int32_t dh, const uint8_t* guide,
                                   int32_t mw, int32_t mh) {
  // Passes the depth through so that the data path can be followed.
  if (out != nullptr && in != nullptr && out != in && dw > 0 && dh > 0)
    memmove(out, in, static_cast<size_t>(dw) * static_cast<size_t>(dh) * sizeof(uint16_t));
  return record("vmZu_TemporalFilterU16_Run", {addr(out), addr(in), dw, dh, addr(guide), mw, mh});
}
int32_t vmZu_TemporalFilterU16_Close(void) {
  return record("vmZu_TemporalFilterU16_Close", {});
}

int32_t vmKtr_GLVersionInfo_Get(char* text, int32_t size) {
  fakes::writeText(text, size, "fake-gl");
  return record("vmKtr_GLVersionInfo_Get", {addr(text), size});
}
int32_t vmKtrRT_CameraLayout_Set(int32_t layout) {
  return record("vmKtrRT_CameraLayout_Set", {layout});
}
int32_t vmKtrRT_GLInitV1(const uint8_t* a, int32_t sa, const uint8_t* b, int32_t sb, int32_t pw, int32_t ph, int32_t dw,
                         int32_t dh, int32_t rw, int32_t rh, int32_t sw, int32_t sh, int32_t portrait,
                         int32_t offRender, int32_t format, int32_t gb) {
  fakes::keepRendererSizes(dw, dh, rw, rh);
  return record("vmKtrRT_GLInitV1",
                {addr(a), sa, addr(b), sb, pw, ph, dw, dh, rw, rh, sw, sh, portrait, offRender, format, gb});
}
int32_t vmKtrRT_GLInitV1_1(const uint8_t* a, int32_t sa, const uint8_t* b, int32_t sb, int32_t pw, int32_t ph,
                           int32_t dw, int32_t dh, int32_t rw, int32_t rh, int32_t sw, int32_t sh, int32_t portrait,
                           int32_t offRender, int32_t format, int32_t gb, uint32_t extra) {
  fakes::keepRendererSizes(dw, dh, rw, rh);
  return record("vmKtrRT_GLInitV1_1",
                {addr(a), sa, addr(b), sb, pw, ph, dw, dh, rw, rh, sw, sh, portrait, offRender, format, gb, extra});
}
int32_t vmKtrRT_SetParameter(int32_t id, KtrRTParameter p) {
  return record("vmKtrRT_SetParameter", {id, p.word[0], p.word[1], p.word[2], p.word[3], p.word[4], p.word[5]});
}
int32_t vmKtrRT_GLShowDebugPicture(int32_t enable, int32_t overlay) {
  return record("vmKtrRT_GLShowDebugPicture", {enable, overlay});
}
int32_t vmKtrRT_GLSetDebugPicture(DebugPictureEntry* table) {
  return record("vmKtrRT_GLSetDebugPicture", {addr(table)});
}
int32_t vmKtrRT_GenRefocusMap_init(void) {
  return record("vmKtrRT_GenRefocusMap_init", {});
}
int32_t vmKtrRT_GenRefocusMap(uint8_t* map, const uint16_t* depth, int32_t x, int32_t y, uint16_t* mn, uint16_t* mx,
                              uint16_t* target) {
  fakes::writeRefocusMap(map, depth, x, y);
  if (mn != nullptr) *mn = 10;
  if (mx != nullptr) *mx = 900;
  if (target != nullptr) *target = 400;
  return record("vmKtrRT_GenRefocusMap", {addr(map), addr(depth), x, y, addr(mn), addr(mx), addr(target)});
}
int32_t vmKtrRT_GenRefocusMap_VX4810_DispartyBase(uint8_t* map, const uint16_t* depth, int32_t x, int32_t y,
                                                  uint16_t* mn, uint16_t* mx, uint16_t* target) {
  fakes::writeRefocusMap(map, depth, x, y);
  if (mn != nullptr) *mn = 10;
  if (mx != nullptr) *mx = 900;
  if (target != nullptr) *target = 400;
  return record("vmKtrRT_GenRefocusMap_VX4810_DispartyBase",
                {addr(map), addr(depth), x, y, addr(mn), addr(mx), addr(target)});
}
int32_t vmKtrRT_GenRefocusMap_Deinit(void) {
  return record("vmKtrRT_GenRefocusMap_Deinit", {});
}
int32_t vmKtrRT_GLStartV1(uint8_t* luma, uint8_t* chroma, const uint8_t* map, int32_t fx, int32_t fy, float fNumber,
                          int32_t noMapFlag, int32_t l, int32_t t, int32_t r, int32_t b) {
  fakes::readMap(map);
  return record("vmKtrRT_GLStartV1", {addr(luma), addr(chroma), addr(map), fx, fy, noMapFlag, l, t, r, b}, fNumber);
}
int32_t vmKtrRT_GLClose(void) {
  return record("vmKtrRT_GLClose", {});
}

}  // extern "C"
