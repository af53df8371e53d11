// host_config.cpp - command-line parsing and the checks the library would make at Init.
#include "host_config.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

bool parseInt(const char* s, int64_t lo, int64_t hi, int32_t* out) {
  char* end = nullptr;
  long long v = strtoll(s, &end, 0);
  if (end == s || *end != '\0' || v < lo || v > hi) return false;
  *out = static_cast<int32_t>(v);
  return true;
}

bool parseFloat(const char* s, float lo, float hi, float* out) {
  char* end = nullptr;
  double v = strtod(s, &end);
  if (end == s || *end != '\0' || !(v >= lo && v <= hi)) return false;
  *out = static_cast<float>(v);
  return true;
}

bool parseSize(const char* s, int32_t* w, int32_t* h) {
  int consumed = 0;
  if (sscanf(s, "%dx%d%n", w, h, &consumed) != 2 || s[consumed] != '\0') return false;
  return *w > 0 && *h > 0 && *w <= 8192 && *h <= 8192;
}

bool onOff(const char* s, bool* out) {
  if (strcmp(s, "on") == 0 || strcmp(s, "1") == 0) return (*out = true), true;
  if (strcmp(s, "off") == 0 || strcmp(s, "0") == 0) return (*out = false), true;
  return false;
}

}  // namespace

void host_print_usage(FILE* out) {
  fprintf(out,
          "usage: vmktr_host [options]\n"
          "Runs the bokeh library through its five functions on a sequence of frames.\n\n"
          "sources (default: the built-in synthetic scene)\n"
          "  --synthetic              built-in synthetic scene (a figure before a textured background)\n"
          "  --pair DIR|LEFT.png      stereo pair: a folder with im0/im1 (png/ppm) or the main image\n"
          "  --pair-sub RIGHT.png     the sub image when --pair names a file\n"
          "  --dumps DIR              replay the library's preview-main/preview-sub dumps in frame order\n"
          "session\n"
          "  --frames N               frames to run (default 60; dumps: all found)\n"
          "  --main WxH --sub WxH     preview sizes (default 1920x1080, 1280x720)\n"
          "  --depth WxH              depth map size as the caller sees it (default 320x240)\n"
          "  --screen WxH             display size (default 1080x2340)\n"
          "  --layout N               camera layout word (default 2; 0x10|0x20/0x40 chip depth)\n"
          "  --format N               image format code 0..6 (default 0, one NV21 block)\n"
          "  --fnumber F | A:B        fixed f-number, or a ramp from A to B (default 4:1.4)\n"
          "  --focus centre|X,Y|track focus point (default: the subject of a synthetic scene, else the\n"
          "                           centre; track follows a slow circle)\n"
          "  --temporal-filter on|off temporal depth filter (default off)\n"
          "  --portrait, --high-quality\n"
          "  --setprop NAME=VALUE     a system property for the library (repeatable)\n"
          "  --seed N, --motion still|pan|dolly|object|focus   synthetic scene and sequence\n"
          "outputs\n"
          "  --out DIR                output folder (default out)\n"
          "  --no-video, --no-sheet, --no-png, --no-progress\n");
}

bool host_parse_args(int argc, char** argv, HostConfig* c, std::string* error) {
  auto fail = [&](const std::string& m) {
    *error = m;
    return false;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char** v) {
      if (i + 1 >= argc) return false;
      *v = argv[++i];
      return true;
    };
    const char* v = nullptr;
    if (a == "--synthetic") {
      c->source = SourceKind::kSynthetic;
    } else if (a == "--pair") {
      if (!value(&v)) return fail("--pair needs a folder or an image");
      c->source = SourceKind::kPair;
      c->sourcePath = v;
    } else if (a == "--pair-sub") {
      if (!value(&v)) return fail("--pair-sub needs an image");
      c->subImagePath = v;
    } else if (a == "--dumps") {
      if (!value(&v)) return fail("--dumps needs a directory");
      c->source = SourceKind::kDumps;
      c->sourcePath = v;
    } else if (a == "--frames") {
      if (!value(&v) || !parseInt(v, 1, 1000000, &c->frames)) return fail("--frames needs a count of at least 1");
      c->framesGiven = true;
    } else if (a == "--main") {
      if (!value(&v) || !parseSize(v, &c->mainWidth, &c->mainHeight)) return fail("--main needs WxH");
    } else if (a == "--sub") {
      if (!value(&v) || !parseSize(v, &c->subWidth, &c->subHeight)) return fail("--sub needs WxH");
    } else if (a == "--depth") {
      if (!value(&v) || !parseSize(v, &c->depthWidth, &c->depthHeight)) return fail("--depth needs WxH");
    } else if (a == "--screen") {
      if (!value(&v) || !parseSize(v, &c->screenWidth, &c->screenHeight)) return fail("--screen needs WxH");
    } else if (a == "--layout") {
      int32_t layout = 0;
      if (!value(&v) || !parseInt(v, 0, 0x7F, &layout)) return fail("--layout needs a layout word 0..0x7f");
      c->cameraLayout = static_cast<uint32_t>(layout);
    } else if (a == "--format") {
      if (!value(&v) || !parseInt(v, 0, 6, &c->imageFormat)) return fail("--format needs an image format code 0..6");
    } else if (a == "--fnumber") {
      if (!value(&v)) return fail("--fnumber needs F or A:B");
      const char* colon = strchr(v, ':');
      if (colon == nullptr) {
        if (!parseFloat(v, 0.5f, 64.0f, &c->fStart)) return fail("--fnumber: not an f-number between 0.5 and 64");
        c->fEnd = c->fStart;
      } else {
        const std::string first(v, colon);
        if (!parseFloat(first.c_str(), 0.5f, 64.0f, &c->fStart) || !parseFloat(colon + 1, 0.5f, 64.0f, &c->fEnd))
          return fail("--fnumber: not a ramp A:B of f-numbers between 0.5 and 64");
      }
    } else if (a == "--focus") {
      if (!value(&v)) return fail("--focus needs centre, X,Y or track");
      if (strcmp(v, "centre") == 0 || strcmp(v, "center") == 0) {
        c->focus = FocusMode::kCentre;
      } else if (strcmp(v, "track") == 0) {
        c->focus = FocusMode::kTrack;
      } else {
        int consumed = 0;
        if (sscanf(v, "%d,%d%n", &c->focusX, &c->focusY, &consumed) != 2 || v[consumed] != '\0' || c->focusX < 0 ||
            c->focusY < 0)
          return fail("--focus: expected centre, track or X,Y in main-preview pixels");
        c->focus = FocusMode::kFixed;
      }
    } else if (a == "--temporal-filter") {
      if (!value(&v) || !onOff(v, &c->temporalFilter)) return fail("--temporal-filter needs on or off");
    } else if (a == "--portrait") {
      c->portrait = true;
    } else if (a == "--high-quality") {
      c->highQuality = true;
    } else if (a == "--setprop") {
      if (!value(&v) || strchr(v, '=') == nullptr || v[0] == '=') return fail("--setprop needs NAME=VALUE");
      const char* eq = strchr(v, '=');
      if (strlen(eq + 1) > 91) return fail(std::string("--setprop: value longer than 91 bytes for ") + v);
      c->properties.emplace_back(std::string(v, eq), std::string(eq + 1));
    } else if (a == "--seed") {
      int32_t seed = 0;
      if (!value(&v) || !parseInt(v, 0, 0x7FFFFFFF, &seed)) return fail("--seed needs a number");
      c->seed = static_cast<uint32_t>(seed);
    } else if (a == "--motion") {
      if (!value(&v)) return fail("--motion needs a sequence kind");
      c->motion = v;
      if (c->motion != "still" && c->motion != "pan" && c->motion != "dolly" && c->motion != "object" &&
          c->motion != "focus")
        return fail("--motion: unknown sequence '" + c->motion + "' (still, pan, dolly, object, focus)");
    } else if (a == "--out") {
      if (!value(&v) || v[0] == '\0') return fail("--out needs a folder");
      c->outDir = v;
    } else if (a == "--no-video") {
      c->video = false;
    } else if (a == "--no-sheet") {
      c->sheet = false;
    } else if (a == "--no-png") {
      c->pngFrames = false;
    } else if (a == "--no-progress") {
      c->progress = false;
    } else if (a == "--help" || a == "-h") {
      return fail("help");
    } else {
      return fail("unknown option '" + a + "'");
    }
  }
  // What Init would refuse: say so before starting rather than after.
  if ((c->mainWidth | c->mainHeight | c->subWidth | c->subHeight) & 1)
    return fail("preview sizes must be even (NV21 has one chroma pair per 2x2 block)");
  if (static_cast<int64_t>(c->depthWidth) * c->depthHeight > 4096LL * 4096LL)
    return fail("depth map larger than 4096x4096");
  const uint32_t layout = c->cameraLayout & 0xF;
  if (layout < 1 || layout > 4) return fail("--layout: the low four bits must be a layout 1..4");
  if (c->source == SourceKind::kPair && c->motion != "still" && c->motion != "pan")
    return fail("--motion: a stereo pair can be played still or as a slow pan only");
  return true;
}
