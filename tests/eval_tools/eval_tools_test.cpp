// The evaluation tools end to end on tiny files written here: their options and exit codes, the
// sizes of paired images, every layout of the stereo data README, checked writes, and hostile
// inputs (FIFOs, truncated files, paths with a quote and a space). Tools run without a shell.
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"
#include "tool_cli.h"
#include "tool_run.h"

namespace {

const std::string& work_dir() {
  return tool_work_dir("vm eval'tools");
}

ToolRun run(const char* tool, const std::vector<std::string>& args) {
  return tool_run(work_dir(), tool, args, 120);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary);
  f << bytes;
}

const int32_t kW = 48, kH = 32, kShift = 4;

// A textured pair whose true disparity is kShift everywhere: left (x, y) is right (x - kShift, y).
uint8_t texture(int32_t x, int32_t y) {
  uint32_t v = uint32_t(x) * 2654435761u ^ uint32_t(y) * 40503u;
  v ^= v >> 13;
  v *= 2246822519u;
  return uint8_t(v >> 24);
}

std::string ppm(int32_t w, int32_t h, int32_t offset) {
  std::string s = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) s.append(3, char(texture(x + offset, y)));
  return s;
}

std::string pgm(int32_t w, int32_t h, uint8_t value) {
  return "P5\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n" +
         std::string(size_t(w) * size_t(h), char(value));
}

std::string pfm(int32_t w, int32_t h, float value) {
  std::string s = "Pf\n" + std::to_string(w) + " " + std::to_string(h) + "\n-1.0\n";
  for (int32_t i = 0; i < w * h; ++i) s.append(reinterpret_cast<const char*>(&value), 4);  // little-endian host
  return s;
}

// A scene folder: left and right under the given names, truth as given.
void make_scene(const std::string& dir, const char* left, const char* right, const char* truthName,
                const std::string& truth) {
  mkdir(dir.c_str(), 0755);
  write_bytes(dir + "/" + left, ppm(kW, kH, 0));
  write_bytes(dir + "/" + right, ppm(kW, kH, kShift));
  if (truthName != nullptr) write_bytes(dir + "/" + truthName, truth);
}

std::string fresh_dir(const std::string& name) {
  const std::string dir = work_dir() + "/" + name;
  mkdir(dir.c_str(), 0755);
  return dir;
}

// The bad 1.0 score of a scene's row in the folder table, or -1 when the row is missing.
double bad1_of(const std::string& table, const std::string& scene) {
  std::istringstream lines(table);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream row(line);
    std::string name;
    double bad1 = -1;
    if (row >> name >> bad1 && name == scene) return bad1;
  }
  return -1;
}

class DepthEval : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fresh_dir("pair");
    left_ = dir_ + "/left image.ppm", right_ = dir_ + "/right'.ppm", truth_ = dir_ + "/truth.pgm";
    write_bytes(left_, ppm(kW, kH, 0));
    write_bytes(right_, ppm(kW, kH, kShift));
    write_bytes(truth_, pgm(kW, kH, uint8_t(kShift * 4)));  // with --truth-scale 4
  }
  ToolRun pair(const std::vector<std::string>& extra, const std::string& right = "") {
    std::vector<std::string> a = {"--left", left_, "--right", right.empty() ? right_ : right};
    a.insert(a.end(), extra.begin(), extra.end());
    return run(VM_DEPTH_EVAL, a);
  }
  std::string dir_, left_, right_, truth_;
};

TEST_F(DepthEval, EveryPairedImageMustHaveTheLeftSize) {
  const std::string small = dir_ + "/small.pgm", smallPpm = dir_ + "/small.ppm";
  write_bytes(small, pgm(16, 16, 255));
  write_bytes(smallPpm, ppm(kW - 2, kH, kShift));
  struct Case {
    const char* what;
    ToolRun r;
    std::string other;
  } cases[] = {
      {"mask", pair({"--truth", truth_, "--truth-scale", "4", "--mask", small}), small},
      {"truth", pair({"--truth", small, "--truth-scale", "4"}), small},
      {"right", pair({"--max", "8"}, smallPpm), smallPpm},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.r.code, 2) << c.what << ": " << c.r.err;
    EXPECT_TRUE(contains(c.r.err, c.other) && contains(c.r.err, left_)) << c.what << ": " << c.r.err;
    EXPECT_TRUE(c.r.out.empty()) << c.what << " printed a score: " << c.r.out;
  }
  // The same mask at the right size is used: all 255 scores, all 0 leaves nothing to score.
  const std::string full = dir_ + "/full.pgm", none = dir_ + "/none.pgm";
  write_bytes(full, pgm(kW, kH, 255));
  write_bytes(none, pgm(kW, kH, 0));
  ToolRun r = pair({"--truth", truth_, "--truth-scale", "4", "--mask", full});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "bad1.0 ")) << r.out;
  r = pair({"--truth", truth_, "--truth-scale", "4", "--mask", none});
  EXPECT_EQ(r.code, 2) << r.err;
  EXPECT_TRUE(contains(r.err, none)) << r.err;
  // PFM truth is known by its content, whatever its name.
  const std::string floatTruth = dir_ + "/truth.gt";
  write_bytes(floatTruth, pfm(kW, kH, float(kShift)));
  r = pair({"--truth", floatTruth});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "bad1.0 0.00%")) << r.out;
}

TEST_F(DepthEval, UnreadableInputsAreNamedNeverWaitedOn) {
  const std::string fifo = dir_ + "/fifo.ppm", empty = dir_ + "/empty.ppm", cut = dir_ + "/cut.ppm";
  unlink(fifo.c_str());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  write_bytes(empty, "");
  write_bytes(cut, ppm(kW, kH, 0).substr(0, 200));
  for (const std::string& bad : {dir_ + "/missing.ppm", fifo, empty, cut}) {
    ToolRun r = pair({"--max", "8"}, bad);
    EXPECT_EQ(r.code, 2) << bad << ": " << r.err;
    EXPECT_TRUE(contains(r.err, bad)) << r.err;
  }
}

TEST_F(DepthEval, OptionsAreDecimalCheckedAndKnown) {
  const struct {
    std::vector<std::string> args;
    const char* named;
  } bad[] = {
      {{"--max", "8", "--bogus", "1"}, "--bogus"},
      {{"--max", "0x10"}, "--max"},
      {{"--max", "8", "--quality", "010"}, "--quality"},
      {{"--max", "8", "--quality", "3"}, "--quality"},
      {{"--max", "2000"}, "--max"},
      {{"--max"}, "--max"},
      {{"--min", "4", "--max", "2"}, "--max"},
      {{"--max", "8", "--mask", "m.pgm"}, "--mask"},
  };
  for (const auto& c : bad) {
    ToolRun r = pair(c.args);
    EXPECT_EQ(r.code, 2) << c.named << ": " << r.err;
    EXPECT_TRUE(contains(r.err, c.named)) << r.err;
  }
  ToolRun r = run(VM_DEPTH_EVAL, {});
  EXPECT_EQ(r.code, 2);
  r = run(VM_DEPTH_EVAL, {"--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(contains(r.out, "usage: vm_depth_eval") && contains(r.out, "exit codes")) << r.out;
}

TEST_F(DepthEval, WritesAreChecked) {
  const std::string out = dir_ + "/disp'.pfm";
  ToolRun r = pair({"--max", "8", "--out", out});
  ASSERT_EQ(r.code, 0) << r.err;
  ImageF disp;
  std::string error;
  ASSERT_TRUE(image_read_pfm(out, &disp, &error)) << error;
  EXPECT_EQ(disp.width, kW);
  EXPECT_EQ(disp.height, kH);
  if (access("/dev/full", W_OK) == 0) {
    r = pair({"--max", "8", "--out", "/dev/full"});
    EXPECT_EQ(r.code, 5) << r.err;
    EXPECT_TRUE(contains(r.err, "/dev/full")) << r.err;
  }
  r = pair({"--max", "8", "--out", dir_ + "/no folder/disp.pfm"});
  EXPECT_EQ(r.code, 5) << r.err;
  EXPECT_TRUE(contains(r.err, "no folder/disp.pfm")) << r.err;
}

// One scene of every layout the stereo data README lists (PPM/PGM in place of PNG), each with a
// true disparity of kShift in its own units: a layout read with the wrong scale scores badly.
TEST(DepthEvalFolder, ReadsEveryLayoutAndNamesWhatItCannotScore) {
  const std::string root = fresh_dir("sets");
  for (const char* set : {"middeval3", "middlebury2001", "middlebury2003", "middlebury2005_2006"})
    mkdir((root + "/" + set).c_str(), 0755);
  make_scene(root + "/middeval3/Piano", "im0.ppm", "im1.ppm", "disp0GT.pfm", pfm(kW, kH, float(kShift)));
  write_bytes(root + "/middeval3/Piano/mask0nocc.pgm", pgm(kW, kH, 255));
  write_bytes(root + "/middeval3/Piano/calib.txt", "ndisp=8\n");
  make_scene(root + "/middlebury2001/tsukuba", "imL.ppm", "imR.ppm", "truedisp.pgm", pgm(kW, kH, kShift * 16));
  write_bytes(root + "/middlebury2001/tsukuba/nonocc.pgm", pgm(kW, kH, 255));
  make_scene(root + "/middlebury2001/venus", "imL.ppm", "imR.ppm", "disp2.pgm", pgm(kW, kH, kShift * 8));
  make_scene(root + "/middlebury2001/sawtooth", "im2.ppm", "im6.ppm", "disp2.pgm", pgm(kW, kH, kShift * 8));
  make_scene(root + "/middlebury2003/teddy", "im2.ppm", "im6.ppm", "disp2.pgm", pgm(kW, kH, kShift * 4));
  make_scene(root + "/middlebury2005_2006/Aloe", "view1.ppm", "view5.ppm", "disp1.pgm", pgm(kW, kH, kShift * 3));
  const char* scenes[] = {"Piano", "tsukuba", "venus", "sawtooth", "teddy", "Aloe"};

  const std::string out = fresh_dir("folder out");
  ToolRun r = run(VM_DEPTH_EVAL, {"--folder", root, "--out", out, "--quality", "1"});
  EXPECT_EQ(r.code, 0) << r.err;
  for (const char* s : scenes) {
    const double bad1 = bad1_of(r.out, s);
    EXPECT_GE(bad1, 0.0) << s << " missing:\n" << r.out << r.err;
    EXPECT_LT(bad1, 10.0) << s << " scored with the wrong truth scale?\n" << r.out;
    EXPECT_TRUE(tool_is_regular_file(out + "/" + s + ".pfm")) << s;
  }
  EXPECT_GE(bad1_of(r.out, "mean"), 0.0) << r.out;

  r = run(VM_DEPTH_EVAL, {"--folder", root, "--only", "teddy"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_GE(bad1_of(r.out, "teddy"), 0.0);
  EXPECT_LT(bad1_of(r.out, "venus"), 0.0);
  r = run(VM_DEPTH_EVAL, {"--folder", root, "--only", "nosuch"});
  EXPECT_EQ(r.code, 4) << r.err;
  EXPECT_TRUE(contains(r.err, "nosuch")) << r.err;

  // One name in two sets: both scored, neither output overwrites the other.
  mkdir((root + "/copy").c_str(), 0755);
  make_scene(root + "/copy/teddy", "im2.ppm", "im6.ppm", "disp2.pgm", pgm(kW, kH, kShift * 4));
  r = run(VM_DEPTH_EVAL, {"--folder", root, "--only", "teddy", "--out", out});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_GE(bad1_of(r.out, "copy/teddy"), 0.0) << r.out;
  EXPECT_GE(bad1_of(r.out, "middlebury2003/teddy"), 0.0) << r.out;
  EXPECT_TRUE(tool_is_regular_file(out + "/copy_teddy.pfm"));
  EXPECT_TRUE(tool_is_regular_file(out + "/middlebury2003_teddy.pfm"));
  ASSERT_EQ(rename((root + "/copy").c_str(), (work_dir() + "/copy moved").c_str()), 0);

  // Scenes that cannot be scored: no layout, a truncated image, a right image of another size.
  mkdir((root + "/broken").c_str(), 0755);
  write_bytes(root + "/broken/im0.ppm", ppm(kW, kH, 0));
  make_scene(root + "/middlebury2003/cut", "im2.ppm", "im6.ppm", "disp2.pgm", pgm(kW, kH, kShift * 4));
  write_bytes(root + "/middlebury2003/cut/im2.ppm", ppm(kW, kH, 0).substr(0, 100));
  make_scene(root + "/middlebury2003/sized", "im2.ppm", "im6.ppm", "disp2.pgm", pgm(kW, kH, kShift * 4));
  write_bytes(root + "/middlebury2003/sized/im6.ppm", ppm(kW, kH - 2, kShift));
  r = run(VM_DEPTH_EVAL, {"--folder", root, "--quality", "1"});
  EXPECT_EQ(r.code, 2) << r.err;
  EXPECT_TRUE(contains(r.err, "broken") && contains(r.err, "cut/im2.ppm") && contains(r.err, "sized/im6.ppm")) << r.err;
  EXPECT_TRUE(contains(r.err, "skipped 3 items")) << r.err;
  for (const char* s : scenes) EXPECT_GE(bad1_of(r.out, s), 0.0) << s << " lost beside the skipped ones";

  // No scene at all, a file for a folder, an output folder that is a file.
  const std::string empty = fresh_dir("empty set");
  EXPECT_EQ(run(VM_DEPTH_EVAL, {"--folder", empty}).code, 4);
  r = run(VM_DEPTH_EVAL, {"--folder", root + "/broken/im0.ppm"});
  EXPECT_EQ(r.code, 2);
  EXPECT_TRUE(contains(r.err, "broken/im0.ppm")) << r.err;
  r = run(VM_DEPTH_EVAL, {"--folder", root, "--out", root + "/broken/im0.ppm"});
  EXPECT_EQ(r.code, 5);
  EXPECT_TRUE(contains(r.err, "broken/im0.ppm")) << r.err;
}

TEST(TemporalEval, OptionsAreDecimalCheckedAndKnown) {
  ToolRun r = run(VM_TEMPORAL_EVAL, {"--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(contains(r.out, "--frames") && contains(r.out, "exit codes")) << r.out;
  const struct {
    std::vector<std::string> args;
    const char* named;
  } bad[] = {
      {{"--bogus"}, "--bogus"},
      {{"--frames", "0x5"}, "--frames"},
      {{"--frames", "4"}, "--frames"},
      {{"--frames", "1001"}, "--frames"},
      {{"--seed", "-1"}, "--seed"},
      {{"--seed"}, "--seed"},
      {{"abc"}, "abc"},
      {{"7", "8"}, "8"},
  };
  for (const auto& c : bad) {
    r = run(VM_TEMPORAL_EVAL, c.args);
    EXPECT_EQ(r.code, 2) << c.named << ": " << r.err;
    EXPECT_TRUE(contains(r.err, c.named)) << r.err;
    EXPECT_TRUE(r.out.empty()) << c.named << " ran anyway";
  }
}

TEST(Scene, WritesASequenceAndChecksEveryWrite) {
  const std::string out = work_dir() + "/scene 'out'/nested";
  ToolRun r = run(
      VM_SCENE, {"--out", out, "--main", "16x16", "--sub", "16x12", "--depth", "8x6", "--frames", "010", "--aa", "1"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "10 frame(s)")) << r.out;
  Image8 main;
  ImageF truth;
  std::string error;
  ASSERT_TRUE(image_read8(out + "/main_009.ppm", &main, &error)) << error;
  EXPECT_EQ(main.width, 16);
  ASSERT_TRUE(image_read_pfm(out + "/truth_009.pfm", &truth, &error)) << error;
  EXPECT_EQ(truth.width * truth.height, 8 * 6);
  EXPECT_EQ(read_all(out + "/sub_000.nv21").size(), 16u * 12u * 3u / 2u);
  EXPECT_EQ(read_all(out + "/calib.bin").size(), 128u);
  EXPECT_FALSE(tool_is_regular_file(out + "/main_010.ppm"));

  // A file where the folder goes; a frame file that lands on a full device.
  const std::string file = out + "/calib.bin";
  r = run(VM_SCENE, {"--out", file, "--main", "16x16", "--sub", "16x16", "--depth", "8x8"});
  EXPECT_EQ(r.code, 5) << r.err;
  EXPECT_TRUE(contains(r.err, file)) << r.err;
  if (access("/dev/full", W_OK) == 0) {
    const std::string full = fresh_dir("scene full");
    const std::string target = full + "/truth_000.pfm";
    unlink(target.c_str());
    ASSERT_EQ(symlink("/dev/full", target.c_str()), 0);
    r = run(VM_SCENE, {"--out", full, "--main", "16x16", "--sub", "16x16", "--depth", "8x8", "--aa", "1"});
    EXPECT_EQ(r.code, 5) << r.err;
    EXPECT_TRUE(contains(r.err, target)) << r.err;
  }
}

TEST(Scene, OptionsAreDecimalCheckedAndKnown) {
  ToolRun r = run(VM_SCENE, {"--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(contains(r.out, "exit codes")) << r.out;
  const std::string out = work_dir() + "/scene never";
  const struct {
    std::vector<std::string> args;
    const char* named;
  } bad[] = {
      {{"--bogus", "1"}, "--bogus"},
      {{"--seed", "0x10"}, "--seed"},
      {{"--main", "64x48junk"}, "--main"},
      {{"--main", "65x48"}, "--main"},
      {{"--sub", "0x0"}, "--sub"},
      {{"--frames", "0"}, "--frames"},
      {{"--aa", "9"}, "--aa"},
      {{"--motion", "spin"}, "--motion"},
      {{"--noise", "nan"}, "--noise"},
      {{"--dof", "0.05"}, "--dof"},
      {{"--lens"}, "--lens"},
  };
  for (const auto& c : bad) {
    std::vector<std::string> args = {"--out", out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    r = run(VM_SCENE, args);
    EXPECT_EQ(r.code, 2) << c.named << ": " << r.err;
    EXPECT_TRUE(contains(r.err, c.named)) << r.err;
  }
  EXPECT_EQ(run(VM_SCENE, {"--frames", "2"}).code, 2);  // no --out
  EXPECT_NE(access(out.c_str(), F_OK), 0) << "a refused run made its folder";
}

#ifdef VM_SYSTEM_EVAL
TEST(SystemEval, OptionsAreDecimalCheckedAndKnown) {
  ToolRun r = run(VM_SYSTEM_EVAL, {"--help"});
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(contains(r.out, "exit codes") && contains(r.out, "--max-gap")) << r.out;
  const struct {
    std::vector<std::string> args;
    const char* named;
  } bad[] = {
      {{"--bogus"}, "--bogus"},
      {{"--tiny", "--frames", "0x3"}, "--frames"},
      {{"--width", "1e3"}, "--width"},
      {{"--width", "651"}, "--width"},
      {{"--width", "1922"}, "--width"},
      {{"--seed", "-1"}, "--seed"},
      {{"--fnumber", "inf"}, "--fnumber"},
      {{"--settle"}, "--settle"},
  };
  for (const auto& c : bad) {
    r = run(VM_SYSTEM_EVAL, c.args);
    EXPECT_EQ(r.code, 2) << c.named << ": " << r.err;
    EXPECT_TRUE(contains(r.err, c.named)) << r.err;
    EXPECT_TRUE(r.out.empty()) << c.named << " ran anyway";
  }
}
#endif

}  // namespace
