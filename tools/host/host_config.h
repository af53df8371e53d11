// host_config.h - settings of one host run of the library, as the command line gives them.
#ifndef VM_HOST_CONFIG_H
#define VM_HOST_CONFIG_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <utility>
#include <vector>

enum class SourceKind { kSynthetic, kPair, kDumps };
enum class FocusMode { kCentre, kFixed, kTrack };

struct HostConfig {
  SourceKind source = SourceKind::kSynthetic;
  std::string sourcePath;    // pair folder or image, or dump directory
  std::string subImagePath;  // second image of a pair given as two files
  std::string outDir = "out";
  int32_t frames = 60;
  bool framesGiven = false;  // dumps: all found unless given
  int32_t mainWidth = 1920, mainHeight = 1080;
  int32_t subWidth = 1280, subHeight = 720;
  int32_t depthWidth = 320, depthHeight = 240;
  int32_t screenWidth = 1080, screenHeight = 2340;
  uint32_t cameraLayout = 2;
  int32_t imageFormat = 0;
  float fStart = 4.0f, fEnd = 1.4f;  // f-number ramp from the first to the last frame
  FocusMode focus = FocusMode::kCentre;
  int32_t focusX = 0, focusY = 0;  // kFixed: main-preview pixels
  bool temporalFilter = false;
  bool portrait = false;
  bool highQuality = false;
  std::vector<std::pair<std::string, std::string>> properties;  // --setprop name=value
  uint32_t seed = 1;
  std::string motion = "still";  // synthetic: still|pan|dolly|object|focus; pair: still|pan
  bool video = true;
  bool sheet = true;
  bool pngFrames = true;
  bool progress = true;  // shown only on a terminal
  int32_t jobs = 0;      // worker threads for the runner's own work; 0: one per core
  bool help = false;     // --help: print the usage and stop
};

// Parses argv into config; on a bad flag or a value the library would refuse, returns false
// with a message naming the option. --help sets config->help and returns true.
bool host_parse_args(int argc, char** argv, HostConfig* config, std::string* error);
void host_print_usage(FILE* out);
// The library reads its numeric properties (persist.vm.ktrrt.sc.*, persist.vm.log.ktrrt.sc) as
// decimal numbers: false with the property named when value is anything else (empty is unset).
bool host_check_property(const std::string& name, const std::string& value, std::string* error);

#endif  // VM_HOST_CONFIG_H
