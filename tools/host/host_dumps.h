// host_dumps.h - names of the library's preview dumps and the plan of a dump folder's replay:
// which files make which frame, in counter order, with every file that is not played named.
#ifndef VM_HOST_DUMPS_H
#define VM_HOST_DUMPS_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

// The largest preview side a dump name may give (the same bound as --main).
constexpr int32_t kHostMaxPreviewSide = 8192;

struct DumpName {
  int64_t counter = 0;  // the library prints it with %04d; parsed wide so no name wraps
  bool isMain = false;
  int32_t width = 0, height = 0, vcm = 0;
  float fNumber = 0;
  int32_t focusX = 0, focusY = 0;
};
// NNNN-preview-main-WxH-VCM-F-XxY.nv21 or NNNN-preview-sub-WxH-VCM.nv21, nothing more or less.
bool host_parse_dump_name(const std::string& name, DumpName* out);
// The one length a dump's file may have: an NV21 frame of the size in its name.
size_t host_dump_bytes(const DumpName& d);

struct DumpFrame {
  std::string mainFile, subFile;  // subFile empty: the frame has no sub dump
  DumpName main, sub;
};
struct DumpNote {
  std::string name, why;
};
struct DumpPlan {
  std::vector<DumpFrame> frames;  // ascending counter, one per counter
  int32_t mainWidth = 0, mainHeight = 0;
  int32_t subWidth = 0, subHeight = 0;  // 0: no sub dump is played
  bool hasEeprom = false;
  std::vector<DumpNote> refused;  // files named like preview dumps that are not played, and why
  std::vector<DumpNote> notes;    // files played with an adjustment (a focus outside the preview)
};
// Plans the replay of a folder from its file names, in any listing order.
void host_plan_dumps(const std::vector<std::string>& names, DumpPlan* plan);

// The newest dump of a kind ("depth", "refocus"; "depth" is not "depth-main") among a folder's
// names: the highest counter wins. Empty when there is none.
std::string host_newest_dump(const std::vector<std::string>& names, const std::string& kind);
// Reads that dump whole when it has `bytes`, or up to its buffer's 16-byte rounding beyond them
// (refocus dumps write their slot's whole size, 16 x (((W x H) >> 4) + 1) bytes); keeps the
// first `bytes`. False when there is no such dump or it is shorter or longer than that.
bool host_read_newest_dump(const std::string& dir, const std::vector<std::string>& names, const std::string& kind,
                           size_t bytes, std::vector<uint8_t>* out);

#endif  // VM_HOST_DUMPS_H
