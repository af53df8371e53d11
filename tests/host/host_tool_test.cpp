// The host tool end to end: outputs of a synthetic run, a record-and-replay round trip through
// the library's own dumps, and the bad-input cases.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"
#include "tool_run.h"

namespace {

struct Result {
  int exitCode = -1;
  std::string output;  // stdout and stderr together
};

// env: assignments put before the tool (NAME=value ...). A hang would show as exit 124.
Result runTool(const std::string& args, const std::string& env = "") {
  Result r;
  // By its full path: some runs clear the PATH.
  const char* timeout = access("/usr/bin/timeout", X_OK) == 0 ? "/usr/bin/timeout 120 " : "";
  const std::string cmd = env + " " + timeout + std::string(VMKTR_HOST_TOOL) + " --no-progress " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
  const int status = pclose(p);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// A fresh folder per case inside one folder of this process, removed when the suite ends
// (several builds' suites may run at once on one machine). The runs go through a shell command
// line, so the folder's name has no space or quote.
std::string tempDir(const std::string& name) {
  static const std::string base = [] {
    const std::string b = testing::TempDir() + "/vmktr_host_" + std::to_string(getpid());
    mkdir(b.c_str(), 0755);
    struct CleanUp : testing::Environment {
      std::string path;
      explicit CleanUp(std::string p) : path(std::move(p)) {}
      void TearDown() override { nftw(path.c_str(), tool_run_remove_entry, 16, FTW_DEPTH | FTW_PHYS); }
    };
    testing::AddGlobalTestEnvironment(new CleanUp(b));
    return b;
  }();
  const std::string d = base + "/" + name;
  nftw(d.c_str(), tool_run_remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  EXPECT_EQ(mkdir(d.c_str(), 0755), 0) << d;
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

// Every run dumps into a fresh folder of its own: a dump left by an earlier process where the
// caller pointed the library (VM_HOST_DUMP_DIR) is neither read, moved nor touched, and the
// run's folder is gone once its dumps are in out/dumps.
TEST(HostTool, EachRunDumpsIntoAFolderOfItsOwn) {
  const std::string stale = tempDir("stale_dumps"), out = tempDir("own_dumps");
  const std::string staleName = "9999-depth-80x60-0-0-2.80-160x120.raw";
  std::ofstream(stale + "/" + staleName, std::ios::binary) << std::string(80 * 60 * 2, '\xff');
  // The policy asks for depth from frame 8 on; frames are not paced, so a loaded machine gets
  // plenty of them to find the depth worker waiting.
  const Result r = runTool(std::string(kSmall) + " --frames 40 --no-video --out " + out, "VM_HOST_DUMP_DIR=" + stale);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(list(stale), std::vector<std::string>{staleName});
  EXPECT_EQ(readAll(stale + "/" + staleName).size(), 80u * 60 * 2);
  const auto dumps = list(out + "/dumps");
  size_t depth = 0;
  for (const std::string& n : dumps) {
    EXPECT_NE(n.rfind("9999-", 0), 0u) << n;
    depth += n.find("-depth-") != std::string::npos ? 1 : 0;
  }
  EXPECT_GT(depth, 0u) << r.output;
  std::vector<std::string> hidden;
  if (DIR* d = opendir(out.c_str())) {
    while (dirent* e = readdir(d))
      if (strncmp(e->d_name, ".dumps-", 7) == 0) hidden.push_back(e->d_name);
    closedir(d);
  }
  EXPECT_TRUE(hidden.empty()) << hidden[0];
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

TEST(HostTool, DumpDirectoryWithGapsAndBrokenFilesIsPlayedAroundThemAndSaysSo) {
  const std::string dir = tempDir("gaps");
  const std::string frame(64 * 48 * 3 / 2, '\x55');
  std::ofstream(dir + "/0001-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0003-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0004-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << "short";
  std::ofstream(dir + "/0005-preview-main-garbage.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0006-preview-sub-64x48-300.nv21", std::ios::binary) << frame;
  // Longer than its name implies (sparse: costs no disk), a FIFO that would block a reader,
  // two dumps claiming one counter, a sub dump of another size than the first one.
  std::ofstream(dir + "/0007-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  ASSERT_EQ(truncate((dir + "/0007-preview-main-64x48-300-2.80-32x24.nv21").c_str(), 1LL << 30), 0);
  ASSERT_EQ(mkfifo((dir + "/0008-preview-main-64x48-300-2.80-32x24.nv21").c_str(), 0644), 0);
  std::ofstream(dir + "/0009-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/009-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0001-preview-sub-64x48-300.nv21", std::ios::binary) << frame;
  std::ofstream(dir + "/0003-preview-sub-32x24-300.nv21", std::ios::binary) << std::string(32 * 24 * 3 / 2, 'x');
  const Result r = runTool("--dumps " + dir + " --depth 32x24 --no-sheet --no-video --out " + dir + "/out");
  EXPECT_EQ(r.exitCode, 2) << r.output;  // frames were played, but not all: never 0
  for (const char* named :
       {"0004-preview-main-64x48-300-2.80-32x24.nv21: 5 bytes, shorter than the 4608 bytes",
        "0005-preview-main-garbage.nv21: not a preview dump name",
        "0006-preview-sub-64x48-300.nv21: no preview-main dump is played with the counter 0006",
        "0007-preview-main-64x48-300-2.80-32x24.nv21: longer than the 4608 bytes",
        "0008-preview-main-64x48-300-2.80-32x24.nv21: not a regular file",
        "0009-preview-main-64x48-300-2.80-32x24.nv21: 2 preview-main dumps have the counter 0009",
        "009-preview-main-64x48-300-2.80-32x24.nv21: 2 preview-main dumps",
        "0003-preview-sub-32x24-300.nv21: its size 32x24 differs from the first sub dump's 64x48", "skipped 8 items"})
    EXPECT_NE(r.output.find(named), std::string::npos) << named << "\n" << r.output;
  EXPECT_EQ(list(dir + "/out/frames").size(), 2u);
  EXPECT_NE(r.output.find("frames written: 2 of 5"), std::string::npos) << r.output;
}

TEST(HostTool, DumpFolderCalibrationIsReadOrSaidWhy) {
  const std::string dir = tempDir("eeprom");
  std::ofstream(dir + "/0001-preview-main-64x48-300-2.80-32x24.nv21", std::ios::binary)
      << std::string(64 * 48 * 3 / 2, 'x');
  std::ofstream(dir + "/eeprom.raw", std::ios::binary);  // empty
  Result r = runTool("--dumps " + dir + " --depth 32x24 --no-sheet --no-video --no-png --out " + dir + "/o1");
  EXPECT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find(dir + "/eeprom.raw is empty"), std::string::npos) << r.output;
  // Not a calibration block: Init refuses, and the code is given with its meaning.
  std::ofstream(dir + "/eeprom.raw", std::ios::binary) << "12345";
  r = runTool("--dumps " + dir + " --depth 32x24 --no-sheet --no-video --no-png --out " + dir + "/o2");
  EXPECT_EQ(r.exitCode, 3) << r.output;
  EXPECT_NE(r.output.find("vmKtrRT_SC_Init refused the session: result "), std::string::npos) << r.output;
  EXPECT_NE(r.output.find(" ("), std::string::npos) << r.output;
  unlink((dir + "/eeprom.raw").c_str());
  ASSERT_EQ(mkfifo((dir + "/eeprom.raw").c_str(), 0644), 0);
  r = runTool("--dumps " + dir + " --depth 32x24 --no-sheet --no-video --no-png --out " + dir + "/o3");
  EXPECT_EQ(r.exitCode, 2) << r.output;
  EXPECT_NE(r.output.find(dir + "/eeprom.raw: not a regular file"), std::string::npos) << r.output;
}

TEST(HostTool, EncoderRunsWithoutAShellAndAnEarlyExitIsAFailedOutput) {
  const std::string dir = tempDir("encoder");
  // A stand-in encoder: the frames go into its last argument's file.
  const std::string fake = dir + "/enc.sh";
  std::ofstream(fake) << "#!/bin/sh\nfor last; do :; done\nexec cat > \"${last#file:}\"\n";
  ASSERT_EQ(chmod(fake.c_str(), 0755), 0);
  const std::string out = dir + "/a b'c;touch INJECTED;'";
  Result r = runTool(std::string(kSmall) + " --frames 3 --no-png --no-sheet --out \"" + out + "\"",
                     "cd " + dir + " && VM_HOST_FFMPEG=" + fake);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(readAll(out + "/output.mp4").size(), 3u * 320 * 240 * 3 / 2);
  EXPECT_NE(r.output.find("video: " + out + "/output.mp4"), std::string::npos) << r.output;
  EXPECT_FALSE(file_exists(dir + "/INJECTED"));
  EXPECT_FALSE(file_exists("INJECTED"));
  // An encoder that exits at once: the video is a failed output, everything else is still done.
  for (const char* encoder : {"/bin/false", "/bin/true"}) {
    const std::string o = dir + "/early";
    r = runTool(std::string(kSmall) + " --frames 4 --no-png --out " + o, std::string("VM_HOST_FFMPEG=") + encoder);
    EXPECT_EQ(r.exitCode, 5) << encoder << "\n" << r.output;
    EXPECT_NE(r.output.find("could not write " + o + "/output.mp4: the encoder " + encoder), std::string::npos)
        << r.output;
    EXPECT_EQ(r.output.find("video:"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("contact sheet: " + o + "/contact_sheet.png"), std::string::npos) << r.output;
    EXPECT_NE(readAll(o + "/timing.txt").find("caller thread sustains"), std::string::npos);
    EXPECT_NE(readAll(o + "/log.txt").find("vmKtrRT_SC_Deinit"), std::string::npos);
    EXPECT_EQ(occurrences(readAll(o + "/trace.json"), "\"name\":\"vmKtrRT_SC_Run\""), 4u);
  }
  r = runTool(std::string(kSmall) + " --frames 1 --no-png --no-sheet --out " + dir + "/missing",
              "VM_HOST_FFMPEG=" + dir + "/no-such-encoder");
  EXPECT_EQ(r.exitCode, 5) << r.output;
  EXPECT_NE(r.output.find("no-such-encoder"), std::string::npos) << r.output;
}

TEST(HostTool, EveryOutputIsCheckedAndOnlyWrittenOnesAreListed) {
  const std::string dir = tempDir("writes");
  // A file where frames/ goes: no frame pictures, the rest written, exit 5 naming it.
  ASSERT_EQ(mkdir((dir + "/o1").c_str(), 0755), 0);
  std::ofstream(dir + "/o1/frames") << "in the way";
  Result r = runTool(std::string(kSmall) + " --frames 2 --no-video --out " + dir + "/o1");
  EXPECT_EQ(r.exitCode, 5) << r.output;
  EXPECT_NE(r.output.find("could not write " + dir + "/o1/frames"), std::string::npos) << r.output;
  EXPECT_EQ(r.output.find("frames written"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("contact sheet: " + dir + "/o1/contact_sheet.png"), std::string::npos) << r.output;
  // log.txt a folder, timing.txt and a frame on a full device.
  ASSERT_EQ(mkdir((dir + "/o2").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir + "/o2/log.txt").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir + "/o2/frames").c_str(), 0755), 0);
  ASSERT_EQ(symlink("/dev/full", (dir + "/o2/timing.txt").c_str()), 0);
  ASSERT_EQ(symlink("/dev/full", (dir + "/o2/frames/frame_0001.png").c_str()), 0);
  r = runTool(std::string(kSmall) + " --frames 2 --no-video --out " + dir + "/o2");
  EXPECT_EQ(r.exitCode, 5) << r.output;
  for (const char* failed : {"/o2/log.txt", "/o2/timing.txt", "/o2/frames/frame_0001.png"})
    EXPECT_NE(r.output.find("could not write " + dir + failed), std::string::npos) << failed << "\n" << r.output;
  EXPECT_NE(r.output.find("3 outputs could not be written"), std::string::npos) << r.output;
  EXPECT_EQ(r.output.find("log: "), std::string::npos) << r.output;
  EXPECT_EQ(r.output.find("timing: "), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("trace: " + dir + "/o2/trace.json"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("frames written: 1 of 2"), std::string::npos) << r.output;
}

TEST(HostTool, FullDiskIsAFailedOutput) {
  const std::string dir = tempDir("tmpfs");
  const std::string mnt = dir + "/small";
  ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
  if (system(("mount -t tmpfs -o size=64k tmpfs '" + mnt + "' 2>/dev/null").c_str()) != 0)
    GTEST_SKIP() << "no tmpfs can be mounted here";
  const Result r = runTool(std::string(kSmall) + " --frames 4 --out " + mnt + "/out", "PATH=/nonexistent");
  EXPECT_EQ(system(("umount '" + mnt + "'").c_str()), 0);
  EXPECT_EQ(r.exitCode, 5) << r.output;
  EXPECT_NE(r.output.find("No space left on device"), std::string::npos) << r.output;
  EXPECT_EQ(r.output.find("video:"), std::string::npos) << r.output;  // the Y4M cannot fit in 64 KiB
}

TEST(HostTool, TallPreviewMakesABoundedSheetAndTrackedFocusStaysInside) {
  const std::string out = tempDir("tall");
  const Result r = runTool(
      "--main 64x2048 --sub 64x2048 --depth 32x24 --frames 4 --focus track --no-video --no-png "
      "--out " +
      out);
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_EQ(r.output.find("ERROR"), std::string::npos) << r.output;  // no region with left > right
  Image8 sheet;
  std::string error;
  ASSERT_TRUE(image_read8(out + "/contact_sheet.png", &sheet, &error)) << error;
  EXPECT_LE(sheet.width, 4 * 480 + 5 * 8);
  EXPECT_LE(sheet.height, 4 * (640 + 8) + 8);
}

// Everything but timing figures, with digits taken out (cost lines carry milliseconds), sorted:
// the library's threads may interleave their lines differently.
std::vector<std::string> logLinesWithoutNumbers(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::string kept;
    for (char ch : line)
      if (!isdigit(static_cast<unsigned char>(ch))) kept += ch;
    lines.push_back(kept);
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

// The runner's threads change when work is done, never what is written. The library's own
// workers hand depth over whenever they finish, so two runs of it may differ once depth is asked
// for (frame 8 of a scene on): six frames keep the comparison to what the runner decides.
TEST(HostTool, JobsChangeNoOutput) {
  const std::string one = tempDir("jobs1"), three = tempDir("jobs3");
  const std::string args = std::string(kSmall) +
                           " --frames 6 --motion pan --focus track --setprop persist.vm.ktrrt.sc.debug=1"
                           " --setprop persist.vm.ktrrt.sc.dump=3 --out ";
  Result r = runTool(args + one + " --jobs 1", "PATH=/nonexistent");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  r = runTool(args + three + " --jobs 3", "PATH=/nonexistent");
  ASSERT_EQ(r.exitCode, 0) << r.output;
  const auto frames = list(one + "/frames");
  ASSERT_EQ(frames.size(), 6u);
  ASSERT_EQ(list(three + "/frames"), frames);
  std::string error;
  for (const std::string& f : frames) {
    Image8 a, b;
    ASSERT_TRUE(image_read8(one + "/frames/" + f, &a, &error)) << error;
    ASSERT_TRUE(image_read8(three + "/frames/" + f, &b, &error)) << error;
    EXPECT_EQ(a.width, b.width);
    EXPECT_TRUE(a.data == b.data) << f << " differs";
  }
  // A panning scene: the frames differ from each other, so an order mix-up would show.
  Image8 first, last;
  ASSERT_TRUE(image_read8(one + "/frames/" + frames.front(), &first, &error)) << error;
  ASSERT_TRUE(image_read8(one + "/frames/" + frames.back(), &last, &error)) << error;
  EXPECT_FALSE(first.data == last.data);
  Image8 sheetA, sheetB;
  ASSERT_TRUE(image_read8(one + "/contact_sheet.png", &sheetA, &error)) << error;
  ASSERT_TRUE(image_read8(three + "/contact_sheet.png", &sheetB, &error)) << error;
  EXPECT_TRUE(sheetA.data == sheetB.data);
  const std::string y4m = readAll(one + "/output.y4m");
  EXPECT_EQ(occurrences(y4m, "FRAME\n"), 6u);
  EXPECT_TRUE(y4m == readAll(three + "/output.y4m"));
  const auto dumps = dumpsOf(one + "/dumps", "preview-main");
  EXPECT_EQ(dumps.size(), 6u);
  EXPECT_TRUE(dumps == dumpsOf(three + "/dumps", "preview-main"));
  EXPECT_EQ(list(one + "/dumps"), list(three + "/dumps"));
  EXPECT_EQ(logLinesWithoutNumbers(readAll(one + "/log.txt")), logLinesWithoutNumbers(readAll(three + "/log.txt")));
}

// Frames written on worker threads: each failure is named and counted, none is lost.
TEST(HostTool, FailedWritesOnWorkerThreadsAreEachNamed) {
  const std::string dir = tempDir("workerwrites");
  ASSERT_EQ(mkdir((dir + "/o").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir + "/o/frames").c_str(), 0755), 0);
  for (const char* f : {"frame_0001.png", "frame_0004.png", "frame_0006.png"})
    ASSERT_EQ(symlink("/dev/full", (dir + "/o/frames/" + f).c_str()), 0);
  const Result r = runTool(std::string(kSmall) + " --frames 8 --no-video --jobs 4 --out " + dir + "/o");
  EXPECT_EQ(r.exitCode, 5) << r.output;
  for (const char* f : {"frame_0001.png", "frame_0004.png", "frame_0006.png"})
    EXPECT_NE(r.output.find("could not write " + dir + "/o/frames/" + f), std::string::npos) << f << "\n" << r.output;
  EXPECT_NE(r.output.find("3 outputs could not be written"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("frames written: 5 of 8"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("contact sheet: " + dir + "/o/contact_sheet.png"), std::string::npos) << r.output;
}

TEST(HostTool, HelpListsExitCodesAndTheEncoderOverride) {
  const Result r = runTool("--help");
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.output.find("exit codes"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("VM_HOST_FFMPEG"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("--jobs N"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("zlib level 1"), std::string::npos) << r.output;
  const Result jobs = runTool("--jobs 65");
  EXPECT_EQ(jobs.exitCode, 2);
  EXPECT_NE(jobs.output.find("--jobs: '65'"), std::string::npos) << jobs.output;
  const Result bad = runTool("--frames 1 --setprop persist.vm.ktrrt.sc.dump=0xff");
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.output.find("persist.vm.ktrrt.sc.dump"), std::string::npos) << bad.output;
  // A property given through the environment is held to the same rule.
  const Result env = runTool("--frames 1 --no-video --out " + tempDir("envprop"),
                             "VM_HOST_PROPERTIES='persist.vm.ktrrt.sc.display=0x1c1'");
  EXPECT_EQ(env.exitCode, 2) << env.output;
  EXPECT_NE(env.output.find("persist.vm.ktrrt.sc.display"), std::string::npos) << env.output;
}

}  // namespace
