// host_dumps.cpp - preview dump names and the replay plan of a dump folder.
#include "host_dumps.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>

#include "tool_cli.h"

namespace {

// Reads a name left to right; every field is checked for its range before it is stored.
struct Cursor {
  const char* p;
  const char* end;

  bool literal(const char* s) {
    const size_t n = strlen(s);
    if (static_cast<size_t>(end - p) < n || memcmp(p, s, n) != 0) return false;
    p += n;
    return true;
  }
  static bool digit(char c) { return c >= '0' && c <= '9'; }
  bool integer(bool allowSign, int64_t lo, int64_t hi, int64_t* out) {
    const char* q = p;
    const bool negative = allowSign && q < end && *q == '-';
    if (negative) ++q;
    if (q == end || !digit(*q)) return false;
    int64_t v = 0;
    for (; q < end && digit(*q); ++q) {
      if (v > (INT64_MAX - 9) / 10) return false;  // more digits than any field may have
      v = v * 10 + (*q - '0');
    }
    if (negative) v = -v;
    if (v < lo || v > hi) return false;
    *out = v;
    p = q;
    return true;
  }
  bool int32(bool allowSign, int32_t lo, int32_t hi, int32_t* out) {
    int64_t v = 0;
    if (!integer(allowSign, lo, hi, &v)) return false;
    *out = static_cast<int32_t>(v);
    return true;
  }
  // %.2f of a float: an optional sign, digits, an optional fraction (never inf or nan).
  bool decimal(float* out) {
    const char* q = p;
    if (q < end && *q == '-') ++q;
    const char* digits = q;
    while (q < end && digit(*q)) ++q;
    if (q == digits) return false;
    if (q < end && *q == '.') {
      ++q;
      while (q < end && digit(*q)) ++q;
    }
    if (q - p > 48) return false;
    const std::string text(p, q);
    const double v = strtod(text.c_str(), nullptr);
    if (!isfinite(v) || fabs(v) > 3.4e38) return false;
    *out = static_cast<float>(v);
    p = q;
    return true;
  }
  bool size(int32_t* w, int32_t* h) {
    return int32(false, 1, kHostMaxPreviewSide, w) && literal("x") && int32(false, 1, kHostMaxPreviewSide, h) &&
           ((*w | *h) & 1) == 0;  // NV21 has one chroma pair per 2x2 block
  }
};

// The counter as the library prints it (%04d); 18 digits keep it far from int64's end.
constexpr int64_t kMaxCounter = 999999999999999999LL;

std::string counterText(int64_t c) {
  char s[32];
  snprintf(s, sizeof s, "%04lld", static_cast<long long>(c));
  return s;
}

std::string sizeText(int32_t w, int32_t h) {
  return std::to_string(w) + "x" + std::to_string(h);
}

}  // namespace

bool host_parse_dump_name(const std::string& name, DumpName* out) {
  DumpName d;
  Cursor c{name.data(), name.data() + name.size()};
  if (!c.integer(false, 0, kMaxCounter, &d.counter)) return false;
  if (c.literal("-preview-main-")) {
    d.isMain = true;
    if (!c.size(&d.width, &d.height) || !c.literal("-") || !c.int32(true, INT32_MIN, INT32_MAX, &d.vcm) ||
        !c.literal("-") || !c.decimal(&d.fNumber) || !c.literal("-") ||
        !c.int32(true, INT32_MIN, INT32_MAX, &d.focusX) || !c.literal("x") ||
        !c.int32(true, INT32_MIN, INT32_MAX, &d.focusY))
      return false;
  } else if (c.literal("-preview-sub-")) {
    if (!c.size(&d.width, &d.height) || !c.literal("-") || !c.int32(true, INT32_MIN, INT32_MAX, &d.vcm)) return false;
  } else {
    return false;
  }
  if (!c.literal(".nv21") || c.p != c.end) return false;
  *out = d;
  return true;
}

size_t host_dump_bytes(const DumpName& d) {
  return static_cast<size_t>(d.width) * static_cast<size_t>(d.height) * 3 / 2;
}

void host_plan_dumps(const std::vector<std::string>& names, DumpPlan* plan) {
  *plan = DumpPlan();
  struct Found {
    std::vector<std::string> mains, subs;
    std::vector<DumpName> mainNames, subNames;
  };
  std::map<int64_t, Found> byCounter;  // sorted: the listing order of the folder does not matter
  std::vector<std::string> sorted = names;
  std::sort(sorted.begin(), sorted.end());
  for (const std::string& name : sorted) {
    if (name == "eeprom.raw") {
      plan->hasEeprom = true;
      continue;
    }
    DumpName d;
    if (!host_parse_dump_name(name, &d)) {
      // The library's other dumps (depth, refocus, preview-out) and foreign files are not frames.
      if (name.find("preview-main") != std::string::npos || name.find("preview-sub") != std::string::npos)
        plan->refused.push_back({name,
                                 "not a preview dump name (NNNN-preview-main-WxH-VCM-F-XxY.nv21 or "
                                 "NNNN-preview-sub-WxH-VCM.nv21 with even sizes up to 8192)"});
      continue;
    }
    Found& f = byCounter[d.counter];
    (d.isMain ? f.mains : f.subs).push_back(name);
    (d.isMain ? f.mainNames : f.subNames).push_back(d);
  }

  // Two files claiming one counter: neither is known to be the recorded one, so both are refused.
  auto refuseDuplicates = [&](int64_t counter, const std::vector<std::string>& files, const char* kind) {
    if (files.size() < 2) return false;
    for (const std::string& f : files)
      plan->refused.push_back({f, std::to_string(files.size()) + " " + kind + " dumps have the counter " +
                                      counterText(counter) + ": the frame is ambiguous"});
    return true;
  };
  std::string firstMain, firstSub;
  std::vector<std::pair<int64_t, Found*>> withSub;
  for (auto& entry : byCounter) {
    const int64_t counter = entry.first;
    Found& f = entry.second;
    const bool mainDup = refuseDuplicates(counter, f.mains, "preview-main");
    const bool subDup = refuseDuplicates(counter, f.subs, "preview-sub");
    if (f.mains.empty() || mainDup) {
      if (!subDup)
        for (const std::string& s : f.subs)
          plan->refused.push_back({s, "no preview-main dump is played with the counter " + counterText(counter)});
      continue;
    }
    const DumpName& m = f.mainNames[0];
    if (firstMain.empty()) {
      firstMain = f.mains[0];
      plan->mainWidth = m.width;
      plan->mainHeight = m.height;
    } else if (m.width != plan->mainWidth || m.height != plan->mainHeight) {
      plan->refused.push_back({f.mains[0], "its size " + sizeText(m.width, m.height) +
                                               " differs from the first frame's " +
                                               sizeText(plan->mainWidth, plan->mainHeight) + " (" + firstMain + ")"});
      if (!subDup && !f.subs.empty())
        plan->refused.push_back({f.subs[0], "its frame's preview-main dump is not played"});
      continue;
    }
    DumpFrame frame;
    frame.mainFile = f.mains[0];
    frame.main = m;
    // A focus point outside the preview cannot come from the library; it is held to the edge.
    const int32_t fx = std::min(std::max(m.focusX, 0), m.width - 1);
    const int32_t fy = std::min(std::max(m.focusY, 0), m.height - 1);
    if (fx != m.focusX || fy != m.focusY) {
      plan->notes.push_back({frame.mainFile, "focus " + std::to_string(m.focusX) + "," + std::to_string(m.focusY) +
                                                 " lies outside the " + sizeText(m.width, m.height) +
                                                 " preview: held to " + std::to_string(fx) + "," + std::to_string(fy)});
      frame.main.focusX = fx;
      frame.main.focusY = fy;
    }
    if (!subDup && !f.subs.empty()) {
      const DumpName& s = f.subNames[0];
      if (firstSub.empty()) {
        firstSub = f.subs[0];
        plan->subWidth = s.width;
        plan->subHeight = s.height;
      }
      if (s.width == plan->subWidth && s.height == plan->subHeight) {
        frame.subFile = f.subs[0];
        frame.sub = s;
      } else {
        plan->refused.push_back({f.subs[0], "its size " + sizeText(s.width, s.height) +
                                                " differs from the first sub dump's " +
                                                sizeText(plan->subWidth, plan->subHeight) + " (" + firstSub + ")"});
      }
    }
    plan->frames.push_back(frame);
  }
}

std::string host_newest_dump(const std::vector<std::string>& names, const std::string& kind) {
  std::string best;
  int64_t bestCounter = -1;
  for (const std::string& name : names) {
    // NNNN-<kind>-<number>...: the next character tells "depth" from "depth-main".
    size_t at = 0;
    int64_t counter = 0;
    while (at < name.size() && at < 18 && name[at] >= '0' && name[at] <= '9')
      counter = counter * 10 + (name[at++] - '0');
    if (at == 0 || name.compare(at, kind.size() + 2, "-" + kind + "-") != 0) continue;
    const char next = at + kind.size() + 2 < name.size() ? name[at + kind.size() + 2] : '\0';
    if (!(next == '-' || (next >= '0' && next <= '9')) || counter < bestCounter) continue;
    bestCounter = counter;
    best = name;
  }
  return best;
}

bool host_read_newest_dump(const std::string& dir, const std::vector<std::string>& names, const std::string& kind,
                           size_t bytes, std::vector<uint8_t>* out) {
  const std::string best = host_newest_dump(names, kind);
  std::string error;
  if (best.empty() || !tool_read_file(dir + "/" + best, bytes + 16, out, &error) || out->size() < bytes) return false;
  out->resize(bytes);
  return true;
}
