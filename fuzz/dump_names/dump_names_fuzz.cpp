// dump_names_fuzz.cpp - fuzz entry for the host runner's dump names and replay plan.
//
// The bytes are a folder listing: one file name per line (at most 64 names). The plan is made
// from the names as listed and again in reverse order; the two must agree, and every promise the
// runner relies on is checked: frames in strictly rising counter order, one size for every main
// and every sub played, focus points inside the preview, each preview-like name either played
// or refused, and no name's frame larger than the biggest preview.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "host_dumps.h"

namespace {

bool samePlan(const DumpPlan& a, const DumpPlan& b) {
  if (a.frames.size() != b.frames.size() || a.refused.size() != b.refused.size() || a.mainWidth != b.mainWidth ||
      a.mainHeight != b.mainHeight || a.subWidth != b.subWidth || a.subHeight != b.subHeight ||
      a.hasEeprom != b.hasEeprom)
    return false;
  for (size_t i = 0; i < a.frames.size(); ++i)
    if (a.frames[i].mainFile != b.frames[i].mainFile || a.frames[i].subFile != b.frames[i].subFile) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> names;
  std::string current;
  for (size_t i = 0; i < size && names.size() < 64; ++i) {
    if (data[i] == '\n') {
      names.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(data[i]));
    }
  }
  if (!current.empty() && names.size() < 64) names.push_back(current);

  size_t previewLike = 0;
  for (const std::string& n : names) {
    DumpName d;
    const bool parsed = host_parse_dump_name(n, &d);
    if (parsed) {
      fuzz_check(d.counter >= 0 && d.width >= 2 && d.height >= 2 && ((d.width | d.height) & 1) == 0);
      fuzz_check(d.width <= kHostMaxPreviewSide && d.height <= kHostMaxPreviewSide);
      fuzz_check(host_dump_bytes(d) <= size_t(kHostMaxPreviewSide) * kHostMaxPreviewSide * 3 / 2);
    }
    if (parsed || n.find("preview-main") != std::string::npos || n.find("preview-sub") != std::string::npos)
      ++previewLike;
  }

  DumpPlan plan;
  host_plan_dumps(names, &plan);
  size_t played = 0;
  for (size_t i = 0; i < plan.frames.size(); ++i) {
    const DumpFrame& f = plan.frames[i];
    fuzz_check(f.main.isMain && f.main.width == plan.mainWidth && f.main.height == plan.mainHeight);
    fuzz_check(f.main.focusX >= 0 && f.main.focusX < f.main.width && f.main.focusY >= 0 &&
               f.main.focusY < f.main.height);
    if (i > 0) fuzz_check(plan.frames[i - 1].main.counter < f.main.counter);
    ++played;
    if (!f.subFile.empty()) {
      fuzz_check(!f.sub.isMain && f.sub.counter == f.main.counter);
      fuzz_check(f.sub.width == plan.subWidth && f.sub.height == plan.subHeight);
      ++played;
    }
  }
  // Every name that looks like a preview dump is played or refused by name, never dropped; a
  // name listed twice counts twice.
  fuzz_check(played + plan.refused.size() == previewLike);

  std::vector<std::string> reversed(names.rbegin(), names.rend());
  DumpPlan again;
  host_plan_dumps(reversed, &again);
  fuzz_check(samePlan(plan, again));
  return 0;
}
