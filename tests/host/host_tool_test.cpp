// The host tool end to end: outputs of a synthetic run, a record-and-replay round trip through
// the library's own dumps, and the bad-input cases.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"

namespace {

struct Result {
  int exitCode = -1;
  std::string output;  // stdout and stderr together
};

Result runTool(const std::string& args) {
  Result r;
  const std::string cmd = std::string(VMKTR_HOST_TOOL) + " --no-progress " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
  const int status = pclose(p);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::string tempDir(const std::string& name) {
  // One folder per process: several builds' suites may run at once on one machine.
  const std::string d = testing::TempDir() + "/vmktr_host_" + std::to_string(getpid()) + "_" + name;
  std::string cmd = "rm -rf '" + d + "' && mkdir -p '" + d + "'";
  EXPECT_EQ(system(cmd.c_str()), 0);
  return d;
}

std::string readAll(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

std::vector<std::string> list(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A small JSON checker: enough to prove the trace is well formed.
struct Json {
  const std::string& s;
  size_t i = 0;
  void ws() {
    while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
  }
  bool value() {
    ws();
    if (i >= s.size()) return false;
    const char c = s[i];
    if (c == '{' || c == '[') {
      const char close = c == '{' ? '}' : ']';
      ++i;
      ws();
      if (i < s.size() && s[i] == close) return ++i, true;
      for (;;) {
        if (c == '{') {
          ws();
          if (!string()) return false;
          ws();
          if (i >= s.size() || s[i++] != ':') return false;
        }
        if (!value()) return false;
        ws();
        if (i < s.size() && s[i] == ',') {
          ++i;
          continue;
        }
        return i < s.size() && s[i++] == close;
      }
    }
    if (c == '"') return string();
    const size_t start = i;
    while (i < s.size() && (isalnum(static_cast<unsigned char>(s[i])) || s[i] == '-' || s[i] == '.' || s[i] == '+'))
      ++i;
    return i > start;
  }
  bool string() {
    if (i >= s.size() || s[i] != '"') return false;
    for (++i; i < s.size(); ++i) {
      if (s[i] == '\\')
        ++i;
      else if (s[i] == '"')
        return ++i, true;
    }
    return false;
  }
};

size_t occurrences(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

const char* kSmall = "--main 320x240 --sub 320x240 --depth 80x60";

TEST(HostTool, SyntheticRunWritesEveryOutput) {
  const std::string out = tempDir("synthetic");
  const Result r = runTool(std::string(kSmall) + " --frames 6 --no-video --out " + out);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("contact sheet: " + out + "/contact_sheet.png"), std::string::npos) << r.output;
  const auto frames = list(out + "/frames");
  ASSERT_EQ(frames.size(), 6u);
  for (const std::string& f : frames) {
    Image8 im;
    std::string error;
    ASSERT_TRUE(image_read8(out + "/frames/" + f, &im, &error)) << f << ": " << error;
    EXPECT_EQ(im.width, 320);
    EXPECT_EQ(im.height, 240);
  }
  Image8 sheet;
  std::string error;
  ASSERT_TRUE(image_read8(out + "/contact_sheet.png", &sheet, &error)) << error;
  EXPECT_GT(sheet.width, 4 * 320);
  const std::string log = readAll(out + "/log.txt");
  EXPECT_NE(log.find("KtrRT_SC Version:[v0.47]"), std::string::npos);
  EXPECT_NE(log.find("<SET LOG> vmKtrRT_SC_Init:"), std::string::npos);
  const std::string trace = readAll(out + "/trace.json");
  Json json{trace};
  EXPECT_TRUE(json.value()) << "trace.json is not well-formed JSON near byte " << json.i;
  EXPECT_EQ(occurrences(trace, "\"name\":\"vmKtrRT_SC_Run\""), 6u);
  EXPECT_NE(readAll(out + "/timing.txt").find("caller thread sustains"), std::string::npos);
}

TEST(HostTool, VideoFallsBackToY4mWithEveryFrame) {
  const std::string out = tempDir("video");
  const std::string path = std::string(getenv("PATH") != nullptr ? getenv("PATH") : "");
  // Without ffmpeg on the PATH the tool writes Y4M.
  setenv("PATH", "/nonexistent", 1);
  const Result r = runTool(std::string(kSmall) + " --frames 3 --no-png --no-sheet --out " + out);
  setenv("PATH", path.c_str(), 1);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const std::string y4m = readAll(out + "/output.y4m");
  ASSERT_EQ(y4m.rfind("YUV4MPEG2 W320 H240 ", 0), 0u);
  EXPECT_EQ(occurrences(y4m, "FRAME\n"), 3u);
  const size_t header = y4m.find('\n') + 1;
  EXPECT_EQ(y4m.size(), header + 3 * (6 + 320 * 240 * 3 / 2));
}

std::map<std::string, std::string> dumpsOf(const std::string& dir, const std::string& kind) {
  std::map<std::string, std::string> files;
  for (const std::string& n : list(dir))
    if (n.find(kind) != std::string::npos) files[n] = readAll(dir + "/" + n);
  return files;
}

TEST(HostTool, ReplayFeedsExactlyTheRecordedFrames) {
  const std::string rec = tempDir("record"), rep = tempDir("replay");
  const std::string props = " --setprop persist.vm.ktrrt.sc.debug=1 --setprop persist.vm.ktrrt.sc.dump=3";
  Result r = runTool(std::string(kSmall) + " --frames 5 --motion pan --focus track --no-sheet --no-video --no-png" +
                     props + " --out " + rec);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const auto recorded = dumpsOf(rec + "/dumps", "preview-main");
  ASSERT_EQ(recorded.size(), 5u) << r.output;
  r = runTool("--dumps " + rec + "/dumps --no-sheet --no-video --no-png" + props + " --out " + rep);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const auto replayed = dumpsOf(rep + "/dumps", "preview-main");
  // Same names (counter, sizes, VCM, f-number, focus) and the same bytes, frame by frame.
  ASSERT_EQ(replayed.size(), recorded.size());
  for (auto a = recorded.begin(), b = replayed.begin(); a != recorded.end(); ++a, ++b) {
    EXPECT_EQ(a->first, b->first);
    EXPECT_TRUE(a->second == b->second) << a->first << " differs";
  }
  // The sub frames that were recorded are fed again where the library asks for them.
  const auto subRec = dumpsOf(rec + "/dumps", "preview-sub"), subRep = dumpsOf(rep + "/dumps", "preview-sub");
  for (const auto& s : subRep) {
    ASSERT_EQ(subRec.count(s.first), 1u) << s.first;
    EXPECT_TRUE(subRec.at(s.first) == s.second) << s.first;
  }
}

void writePpm(const std::string& path, int w, int h) {
  std::ofstream f(path, std::ios::binary);
  f << "P6\n" << w << " " << h << "\n255\n";
  for (int i = 0; i < w * h * 3; ++i) f.put(static_cast<char>(i * 7));
}

TEST(HostTool, BadInputIsNamedAndEndsNonZero) {
  const std::string dir = tempDir("bad");
  Result r = runTool("--frobnicate");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("unknown option '--frobnicate'"), std::string::npos) << r.output;
  r = runTool("--main 321x240");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("even"), std::string::npos) << r.output;
  r = runTool("--pair " + dir + "/missing.png --pair-sub " + dir + "/missing2.png --out " + dir + "/o1");
  EXPECT_NE(r.exitCode, 0);
  EXPECT_NE(r.output.find("missing.png"), std::string::npos) << r.output;
  writePpm(dir + "/l.ppm", 64, 48);
  writePpm(dir + "/r.ppm", 60, 48);
  r = runTool("--pair " + dir + "/l.ppm --pair-sub " + dir + "/r.ppm --out " + dir + "/o2");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("differ in size"), std::string::npos) << r.output;
  r = runTool("--dumps " + dir + "/nothing-here --out " + dir + "/o3");
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_NE(r.output.find("nothing-here"), std::string::npos) << r.output;
}

TEST(HostTool, DumpDirectoryWithGapsAndBrokenFilesIsPlayedAroundThem) {
  const std::string dir = tempDir("gaps");
  const std::string frame(64 * 48 * 3 / 2, '\x55');
  std::ofstream(dir + "/0001-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0003-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0004-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << "short";
  std::ofstream(dir + "/0005-preview-main-garbage.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0006-preview-sub-64x48-300.nv21", std::ios::binary) << frame;
  const Result r = runTool("--dumps " + dir + " --depth 32x24 --no-sheet --no-video --out " + dir + "/out");
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("0004-preview-main-64x48-300-2.80-32x24.nv21"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("0005-preview-main-garbage.nv21"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("frame 0006 has a sub dump but no preview-main dump"), std::string::npos) << r.output;
  EXPECT_EQ(list(dir + "/out/frames").size(), 2u);
}

}  // namespace
