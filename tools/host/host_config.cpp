// host_config.cpp - command-line parsing and the checks the library would make at Init.
#include "host_config.h"

#include <stdio.h>
#include <string.h>

#include "tool_cli.h"

namespace {

bool onOff(const char* s, bool* out) {
  if (strcmp(s, "on") == 0 || strcmp(s, "1") == 0) return (*out = true), true;
  if (strcmp(s, "off") == 0 || strcmp(s, "0") == 0) return (*out = false), true;
  return false;
}

bool parseFNumber(const char* s, float* out) {
  double v = 0;
  if (!tool_parse_double(s, 0.5, 64.0, &v)) return false;
  *out = static_cast<float>(v);
  return true;
}

// The library's own property buffer holds 91 characters and the terminating zero.
constexpr size_t kPropertyValueMax = 91;

}  // namespace

void host_print_usage(FILE* out) {
  fprintf(out,
          "usage: vmktr_host [options]\n"
          "Runs the bokeh library through its five functions on a sequence of frames.\n"
          "Numbers are decimal.\n\n"
          "sources (default: the built-in synthetic scene)\n"
          "  --synthetic              built-in synthetic scene (a figure before a textured background)\n"
          "  --pair DIR|LEFT.png      stereo pair: a folder with im0/im1 (png/ppm) or the main image\n"
          "  --pair-sub RIGHT.png     the sub image when --pair names a file\n"
          "  --dumps DIR              replay the library's preview-main/preview-sub dumps in counter order;\n"
          "                           each dump must be exactly the NV21 frame its name gives\n"
          "session\n"
          "  --frames N               frames to run, 1..1000000 (default 60; dumps: all found)\n"
          "  --main WxH --sub WxH     preview sizes, even, up to 8192 (default 1920x1080, 1280x720)\n"
          "  --depth WxH              depth map size as the caller sees it (default 320x240)\n"
          "  --screen WxH             display size (default 1080x2340)\n"
          "  --layout N               camera layout word 0..127 (default 2): layout 1..4, plus 16 for chip\n"
          "                           depth, plus 32 (10-bit) or 64 (8-bit); e.g. 50 = 10-bit chip, layout 2\n"
          "  --format N               image format code 0..6 (default 0, one NV21 block)\n"
          "  --fnumber F | A:B        fixed f-number, or a ramp from A to B, 0.5..64 (default 4:1.4)\n"
          "  --focus centre|X,Y|track focus point (default: the subject of a synthetic scene, else the\n"
          "                           centre; X,Y inside the main preview; track follows a slow circle)\n"
          "  --temporal-filter on|off temporal depth filter (default off)\n"
          "  --portrait, --high-quality\n"
          "  --setprop NAME=VALUE     a system property for the library (repeatable); the library's\n"
          "                           persist.vm.ktrrt.sc.* and persist.vm.log.ktrrt.sc are decimal numbers\n"
          "  --seed N, --motion still|pan|dolly|object|focus   synthetic scene and sequence\n"
          "outputs\n"
          "  --out DIR                output folder (default out)\n"
          "  --no-video, --no-sheet, --no-png, --no-progress\n"
          "  --jobs N                 threads for the runner's own work (drawing frames, PNG encoding),\n"
          "                           1..64 (default: one per core); the video has a thread of its own, and\n"
          "                           the library is driven from one thread whatever N is. The outputs are\n"
          "                           the same for any N (the library's own worker threads aside)\n"
          "  Frame pictures are PNG with the 'up' filter at deflate level 1: libdeflate when the build\n"
          "  found it, else zlib level 1 with run-length matching (a 1080p frame in about 20 or 40 ms\n"
          "  and 1.5 MB: frames are many and large); the sheet at level 6 (libpng's filters without\n"
          "  libdeflate).\n"
          "  The video is output.mp4 through ffmpeg when it is on the PATH (started without a shell),\n"
          "  else output.y4m. VM_HOST_FFMPEG names another encoder program taking ffmpeg's arguments\n"
          "  (for tests). An output that cannot be written is named and makes the exit code 5; the\n"
          "  list printed at the end names only what was written.\n"
          "%s",
          kToolExitCodesHelp);
}

bool host_check_property(const std::string& name, const std::string& value, std::string* error) {
  if (value.size() > kPropertyValueMax) {
    *error = "--setprop " + name + ": value longer than " + std::to_string(kPropertyValueMax) + " bytes";
    return false;
  }
  const bool numeric = name.rfind("persist.vm.ktrrt.sc.", 0) == 0 || name == "persist.vm.log.ktrrt.sc";
  int64_t v = 0;
  if (numeric && !value.empty() && !tool_parse_int(value.c_str(), INT32_MIN, INT32_MAX, &v)) {
    // The library would read "0x1c1" as 0: say so rather than run with the switch off.
    *error = "--setprop " + name + ": '" + value + "' is not a decimal number (the library reads " + name +
             " as decimal; write 0x1c1 as 449)";
    return false;
  }
  return true;
}

namespace {

// Each parse*Option takes the options of one group: true when the current option is one of them
// (a bad value is left in args), false when it belongs to another group.

bool parseSourceOption(ToolArgs* args, HostConfig* c) {
  if (args->is("--synthetic")) {
    c->source = SourceKind::kSynthetic;
  } else if (args->is("--pair")) {
    if (args->string_value(&c->sourcePath)) c->source = SourceKind::kPair;
  } else if (args->is("--pair-sub")) {
    args->string_value(&c->subImagePath);
  } else if (args->is("--dumps")) {
    if (args->string_value(&c->sourcePath)) c->source = SourceKind::kDumps;
  } else {
    return false;
  }
  return true;
}

// The session's frame count and sizes, the camera layout and the image format.
bool parseSizeOption(ToolArgs* args, HostConfig* c) {
  if (args->is("--frames")) {
    if (args->int_value(1, 1000000, &c->frames)) c->framesGiven = true;
  } else if (args->is("--main")) {
    args->size_value(2, 8192, &c->mainWidth, &c->mainHeight);
  } else if (args->is("--sub")) {
    args->size_value(2, 8192, &c->subWidth, &c->subHeight);
  } else if (args->is("--depth")) {
    args->size_value(1, 8192, &c->depthWidth, &c->depthHeight);
  } else if (args->is("--screen")) {
    args->size_value(1, 8192, &c->screenWidth, &c->screenHeight);
  } else if (args->is("--layout")) {
    int32_t layout = 0;
    if (args->int_value(0, 127, &layout)) c->cameraLayout = static_cast<uint32_t>(layout);
  } else if (args->is("--format")) {
    args->int_value(0, 6, &c->imageFormat);
  } else {
    return false;
  }
  return true;
}

// --fnumber F or a ramp A:B.
void parseFNumberValue(ToolArgs* args, const char* v, HostConfig* c) {
  const char* colon = strchr(v, ':');
  if (colon == nullptr) {
    if (!parseFNumber(v, &c->fStart)) args->fail(std::string("--fnumber: '") + v + "' is not an f-number 0.5..64");
    c->fEnd = c->fStart;
    return;
  }
  const std::string first(v, colon);
  if (!parseFNumber(first.c_str(), &c->fStart) || !parseFNumber(colon + 1, &c->fEnd))
    args->fail(std::string("--fnumber: '") + v + "' is not a ramp A:B of f-numbers 0.5..64");
}

// --focus centre, track or X,Y.
void parseFocusValue(ToolArgs* args, const char* v, HostConfig* c) {
  if (strcmp(v, "centre") == 0 || strcmp(v, "center") == 0) {
    c->focus = FocusMode::kCentre;
    return;
  }
  if (strcmp(v, "track") == 0) {
    c->focus = FocusMode::kTrack;
    return;
  }
  int64_t x = 0, y = 0;
  if (!tool_parse_int_pair(v, ',', 0, 8191, &x, &y)) {
    args->fail(std::string("--focus: '") + v + "' is not centre, track or X,Y in main-preview pixels (0..8191 each)");
    return;
  }
  c->focus = FocusMode::kFixed;
  c->focusX = static_cast<int32_t>(x);
  c->focusY = static_cast<int32_t>(y);
}

// --setprop NAME=VALUE, checked as the library will read it.
void parseSetpropValue(ToolArgs* args, const char* v, HostConfig* c) {
  const char* eq = strchr(v, '=');
  if (eq == nullptr || eq == v) {
    args->fail(std::string("--setprop: '") + v + "' is not NAME=VALUE");
    return;
  }
  const std::string name(v, eq), value(eq + 1);
  std::string why;
  if (!host_check_property(name, value, &why)) {
    args->fail(why);
    return;
  }
  c->properties.emplace_back(name, value);
}

// The lens, focus and the library's switches and properties.
bool parseLibraryOption(ToolArgs* args, HostConfig* c) {
  const char* v = nullptr;
  if (args->is("--fnumber")) {
    if (args->value(&v)) parseFNumberValue(args, v, c);
  } else if (args->is("--focus")) {
    if (args->value(&v)) parseFocusValue(args, v, c);
  } else if (args->is("--temporal-filter")) {
    if (args->value(&v) && !onOff(v, &c->temporalFilter))
      args->fail(std::string("--temporal-filter: '") + v + "' is not on or off");
  } else if (args->is("--portrait")) {
    c->portrait = true;
  } else if (args->is("--high-quality")) {
    c->highQuality = true;
  } else if (args->is("--setprop")) {
    if (args->value(&v)) parseSetpropValue(args, v, c);
  } else {
    return false;
  }
  return true;
}

// The synthetic scene's seed and the sequence's motion.
bool parseSceneOption(ToolArgs* args, HostConfig* c) {
  if (args->is("--seed")) {
    int64_t seed = 0;
    if (args->int_value(0, UINT32_MAX, &seed)) c->seed = static_cast<uint32_t>(seed);
  } else if (args->is("--motion")) {
    if (args->string_value(&c->motion) && c->motion != "still" && c->motion != "pan" && c->motion != "dolly" &&
        c->motion != "object" && c->motion != "focus")
      args->fail("--motion: unknown sequence '" + c->motion + "' (still, pan, dolly, object, focus)");
  } else {
    return false;
  }
  return true;
}

bool parseOutputOption(ToolArgs* args, HostConfig* c) {
  if (args->is("--out")) {
    args->string_value(&c->outDir);
  } else if (args->is("--no-video")) {
    c->video = false;
  } else if (args->is("--no-sheet")) {
    c->sheet = false;
  } else if (args->is("--no-png")) {
    c->pngFrames = false;
  } else if (args->is("--no-progress")) {
    c->progress = false;
  } else if (args->is("--jobs")) {
    args->int_value(1, 64, &c->jobs);
  } else {
    return false;
  }
  return true;
}

// What Init would refuse, said before starting rather than after. False with the reason.
bool checkAgainstInit(const HostConfig* c, std::string* error) {
  if ((c->mainWidth | c->mainHeight | c->subWidth | c->subHeight) & 1) {
    *error = "--main, --sub: preview sizes must be even (NV21 has one chroma pair per 2x2 block)";
    return false;
  }
  if (static_cast<int64_t>(c->depthWidth) * c->depthHeight > 4096LL * 4096LL) {
    *error = "--depth: depth map larger than 4096x4096";
    return false;
  }
  const uint32_t layout = c->cameraLayout & 0xF;
  if (layout < 1 || layout > 4) {
    *error = "--layout: the low four bits must be a layout 1..4";
    return false;
  }
  if (c->source == SourceKind::kPair && c->motion != "still" && c->motion != "pan") {
    *error = "--motion: a stereo pair can be played still or as a slow pan only";
    return false;
  }
  // Dumps carry their own focus points and sizes; for the other sources the point must lie
  // inside the main preview, or the focus region would be empty.
  if (c->focus == FocusMode::kFixed && c->source != SourceKind::kDumps &&
      (c->focusX >= c->mainWidth || c->focusY >= c->mainHeight)) {
    *error = "--focus: " + std::to_string(c->focusX) + "," + std::to_string(c->focusY) +
             " lies outside the main preview " + std::to_string(c->mainWidth) + "x" + std::to_string(c->mainHeight);
    return false;
  }
  return true;
}

}  // namespace

bool host_parse_args(int argc, char** argv, HostConfig* c, std::string* error) {
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (parseSourceOption(&args, c) || parseSizeOption(&args, c) || parseLibraryOption(&args, c) ||
        parseSceneOption(&args, c) || parseOutputOption(&args, c))
      continue;
    if (args.is_help()) {
      c->help = true;
      return true;
    }
    args.unknown();
  }
  if (args.failed()) {
    *error = args.error();
    return false;
  }
  return checkAgainstInit(c, error);
}
