// vm_lightfield_eval end to end on 9 x 9 light fields and stereo sequences written here (a textured
// square at one disparity before a textured background at another): the geometry of the oracle and
// of the pair, the lens the aperture is matched to, the pictures, and hostile inputs (missing and
// mis-sized views, truncated ground truth, a FIFO in a view's place, options, unwritable output).
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"
#include "tool_run.h"

namespace {

const std::string& work_dir() {
  return tool_work_dir("vm lf'eval");
}

ToolRun run(const std::vector<std::string>& args) {
  return tool_run(work_dir(), VM_LIGHTFIELD_EVAL, args, 120);
}

const int32_t kSide = 64;
const float kNear = 1.0f, kFar = -0.5f;  // view steps: the square and the background

float texture(float x, float y, int layer) {
  return layer == 0 ? 128 + 60 * sinf(0.9f * x + 0.4f * y) + 40 * cosf(0.7f * y - 0.3f * x)
                    : 120 + 70 * sinf(0.5f * x) * cosf(0.8f * y) + 30 * sinf(1.3f * y + 0.2f * x);
}

// View (k, r) of the scene: the square [20, 44) of the centre view at kNear before the background.
Image8 view(int32_t k, int32_t r) {
  Image8 im;
  im.width = im.height = kSide, im.channels = 3;
  im.data.resize(size_t(kSide) * kSide * 3);
  for (int32_t y = 0; y < kSide; ++y)
    for (int32_t x = 0; x < kSide; ++x) {
      const float cx = x + k * kNear, cy = y + r * kNear;  // the centre-view point seen here
      const bool near = cx >= 20 && cx < 44 && cy >= 20 && cy < 44;
      const float v = near ? texture(cx, cy, 0) : texture(x + k * kFar, y + r * kFar, 1);
      for (int32_t c = 0; c < 3; ++c)
        im.data[(size_t(y) * kSide + x) * 3 + c] = uint8_t(std::min(255.f, std::max(0.f, v)));
    }
  return im;
}

ImageF truth() {
  ImageF t;
  t.width = t.height = kSide;
  t.data.resize(size_t(kSide) * kSide);
  for (int32_t y = 0; y < kSide; ++y)
    for (int32_t x = 0; x < kSide; ++x)
      t.data[size_t(y) * kSide + x] = x >= 20 && x < 44 && y >= 20 && y < 44 ? kNear : kFar;
  return t;
}

std::string view_name(const std::string& dir, int32_t i) {
  char name[32];
  snprintf(name, sizeof name, "/input_Cam%03d.png", i);
  return dir + name;
}

// A light-field folder; the views are PPM files under the README's names (read by content).
std::string write_lightfield(const std::string& name) {
  const std::string dir = work_dir() + "/" + name;
  mkdir(dir.c_str(), 0755);
  for (int32_t i = 0; i < 81; ++i) EXPECT_TRUE(image_write_pnm(view_name(dir, i), view(i % 9 - 4, i / 9 - 4)));
  EXPECT_TRUE(image_write_pfm(dir + "/gt_disp_lowres.pfm", truth()));
  return dir;
}

double number_after(const std::string& text, const std::string& key) {
  const size_t p = text.find(key);
  return p == std::string::npos ? NAN : atof(text.c_str() + p + key.size());
}

std::vector<std::string> args_for(const std::string& dir, std::vector<std::string> more) {
  std::vector<std::string> a = {"--lightfield", dir, "--depth-size", "32x32", "--pace-ms", "5", "--settle", "3"};
  a.insert(a.end(), more.begin(), more.end());
  return a;
}

TEST(LightfieldEval, MeasuresASyntheticLightFieldWithItsOwnGeometry) {
  const std::string dir = write_lightfield("scene");
  const std::string out = work_dir() + "/pictures";
  const ToolRun r = run(args_for(dir, {"--focus", "32,32", "--focus", "4,4", "--out", out}));
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  // The pair's shift makes the farthest disparity 0: 4 x -0.5 + 2.
  EXPECT_NE(r.out.find("right view moved left by 2 px: pair disparity 0..6.0 px"), std::string::npos) << r.out;
  // f/2: 1.68 / 2 px of blur per px of disparity, four views apart.
  EXPECT_NE(r.out.find("aperture 3.36 views"), std::string::npos) << r.out;
  // Shifted by the right disparity, the views refocused on the square give the centre view back
  // (a wrong sign or axis would blur it like the background).
  EXPECT_GT(number_after(r.out, "(pair 6.00 px), in focus 14.1% of the frame; oracle in focus vs input "), 40.0)
      << r.out;
  EXPECT_GT(number_after(r.out, "oracle in focus vs input "), 40.0) << r.out;
  // Two focus cases, each with a picture of four panels.
  for (const char* name : {"/scene_focus_32_32.png", "/scene_focus_4_4.png"}) {
    Image8 im;
    std::string e;
    ASSERT_TRUE(image_read8(out + name, &im, &e)) << e;
    EXPECT_EQ(im.width, 4 * kSide);
    EXPECT_EQ(im.height, kSide);
  }
  // Both engine modes scored, and drawn beside the truth: input | mode 1 | mode 2 | truth |
  // errors, the near square brighter than the background in the truth and in both modes.
  EXPECT_NE(r.out.find("  mode 1 "), std::string::npos);
  EXPECT_NE(r.out.find("  mode 2 "), std::string::npos);
  Image8 depth;
  std::string e;
  ASSERT_TRUE(image_read8(out + "/scene_depth.png", &depth, &e)) << e;
  ASSERT_EQ(depth.width, 5 * kSide);
  ASSERT_EQ(depth.height, kSide);
  const auto grey = [&](int32_t panel, int32_t x, int32_t y) {
    return int(depth.data[(size_t(y) * size_t(depth.width) + size_t(panel * kSide + x)) * size_t(depth.channels)]);
  };
  for (int32_t panel = 1; panel <= 3; ++panel) EXPECT_GT(grey(panel, 32, 32), grey(panel, 6, 6) + 20) << panel;
  EXPECT_EQ(grey(4, 32, 32), 0);  // mode 1 within a pixel in the square's middle
}

TEST(LightfieldEval, ALensAtF4MatchesHalfTheAperture) {
  const std::string dir = write_lightfield("f4");
  const ToolRun r = run(args_for(dir, {"--fnumber", "4", "--no-depth", "--max-aperture", "2"}));
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("aperture 1.68 views"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("  mode 1 "), std::string::npos);  // --no-depth
}

TEST(LightfieldEval, NamesEveryBadInputAndNeverHangs) {
  const std::string dir = write_lightfield("bad");
  // A missing view is named (one the largest aperture needs).
  ASSERT_EQ(rename(view_name(dir, 31).c_str(), (dir + "/aside").c_str()), 0);
  ToolRun r = run(args_for(dir, {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("input_Cam031.png"), std::string::npos) << r.err;
  // A FIFO in its place is refused without blocking.
  ASSERT_EQ(mkfifo(view_name(dir, 31).c_str(), 0644), 0);
  r = run(args_for(dir, {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("input_Cam031.png"), std::string::npos) << r.err;
  unlink(view_name(dir, 31).c_str());
  // A view of another size.
  Image8 small = view(0, 0);
  small.width = 32, small.data.resize(size_t(32) * kSide * 3);
  ASSERT_TRUE(image_write_pnm(view_name(dir, 31), small));
  r = run(args_for(dir, {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("input_Cam031.png is 32x64"), std::string::npos) << r.err;
  ASSERT_EQ(rename((dir + "/aside").c_str(), view_name(dir, 31).c_str()), 0);
  // Truncated ground truth, then ground truth of another size.
  const std::string gt = dir + "/gt_disp_lowres.pfm", whole = read_all(gt);
  {
    std::ofstream f(gt, std::ios::binary);
    f << whole.substr(0, whole.size() / 2);
  }
  r = run(args_for(dir, {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("gt_disp_lowres.pfm"), std::string::npos) << r.err;
  ImageF t = truth();
  t.height = 32, t.data.resize(size_t(32) * kSide);
  ASSERT_TRUE(image_write_pfm(gt, t));
  r = run(args_for(dir, {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("gt_disp_lowres.pfm is 64x32"), std::string::npos) << r.err;
  // No finite disparity at all.
  t = truth();
  for (float& v : t.data) v = NAN;
  ASSERT_TRUE(image_write_pfm(gt, t));
  r = run(args_for(dir, {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("no finite disparity"), std::string::npos) << r.err;
  // Not a folder.
  r = run(args_for(dir + "/nothing", {}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("nothing: not a folder"), std::string::npos) << r.err;
}

TEST(LightfieldEval, OptionsAreCheckedAndAFailedPictureIsExitFive) {
  const std::string dir = write_lightfield("options");
  struct Case {
    std::vector<std::string> args;
    const char* named;
  } cases[] = {
      {{"--frobnicate"}, "--frobnicate"},
      {{"--focus", "1e3,2"}, "--focus"},
      {{"--focus", "0x10,2"}, "--focus"},
      {{"--fnumber", "nan"}, "--fnumber"},
      {{"--apart", "5"}, "--apart"},
      {{"--depth-size", "8x8"}, "--depth-size"},
      {{"--focus", "64,3"}, "--focus 64,3 lies outside"},
      {{"--depth-size", "128x32"}, "--depth-size 128x32 is larger"},
  };
  for (const Case& c : cases) {
    const ToolRun r = run(args_for(dir, c.args));
    EXPECT_EQ(r.code, 2) << c.named;
    EXPECT_NE(r.err.find(c.named), std::string::npos) << r.err;
  }
  EXPECT_EQ(run({"--sequence", dir, "--lightfield", dir}).code, 2);
  EXPECT_EQ(run({}).code, 2);
  const ToolRun help = run({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.out.find("5 "), std::string::npos);
  // The picture's folder is a file: exit 5 and the path named, after the scores were printed.
  const std::string blocker = work_dir() + "/a file";
  std::ofstream(blocker) << "x";
  const ToolRun r = run(args_for(dir, {"--no-depth", "--max-aperture", "1", "--out", blocker + "/pics"}));
  EXPECT_EQ(r.code, 5) << r.out << r.err;
  EXPECT_NE(r.err.find("a file"), std::string::npos) << r.err;
}

// A sequence of the synthetic scene: each frame the pair (view k, view k + 1) of row 4.
std::string write_sequence(const std::string& name, int32_t frames) {
  const std::string dir = work_dir() + "/" + name;
  for (const char* sub : {"", "/left", "/right", "/disp_left"}) mkdir((dir + sub).c_str(), 0755);
  const ImageF t = truth();
  for (int32_t i = 0; i < frames; ++i) {
    char stem[16];
    snprintf(stem, sizeof stem, "/%04d", i);
    // The centre-view truth holds for every view of this scene's square up to its small shift.
    EXPECT_TRUE(image_write_pnm(dir + "/left" + stem + ".png", view(0, 0)));
    EXPECT_TRUE(image_write_pnm(dir + "/right" + stem + ".png", view(1, 0)));
    EXPECT_TRUE(image_write_pfm(dir + "/disp_left" + stem + ".pfm", t));
  }
  return dir;
}

TEST(LightfieldEvalSequence, ScoresFourRunsAndNamesMissingFrames) {
  const std::string dir = write_sequence("seq", 3);
  const std::vector<std::string> base = {"--sequence", dir, "--depth-size", "32x32", "--pace-ms", "5", "--settle", "3"};
  ToolRun r = run(base);
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  for (const char* run_name : {"stereo, filter on", "stereo, filter off", "chip, filter on", "chip, filter off"})
    EXPECT_NE(r.out.find(run_name), std::string::npos) << run_name;
  EXPECT_NE(r.out.find(" 0002 |"), std::string::npos) << r.out;
  // The chip is fed the truth itself: what the system publishes from it is within a pixel.
  const size_t mean = r.out.find(" mean |");
  ASSERT_NE(mean, std::string::npos);
  double cols[8];
  ASSERT_EQ(sscanf(r.out.c_str() + mean, " mean | %lf %lf %*d nomap | %lf %lf %*d nomap | %lf %lf %*d nomap | %lf %lf",
                   &cols[0], &cols[1], &cols[2], &cols[3], &cols[4], &cols[5], &cols[6], &cols[7]),
            8)
      << r.out;
  EXPECT_LT(cols[4], 1.0) << r.out;
  EXPECT_LT(cols[6], 1.0) << r.out;
  // A missing right frame and a missing truth are both named.
  unlink((dir + "/right/0001.png").c_str());
  unlink((dir + "/disp_left/0002.pfm").c_str());
  r = run(base);
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("right/0001.png"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("disp_left/0002.pfm"), std::string::npos) << r.err;
  // One frame is not a sequence.
  r = run({"--sequence", write_sequence("one", 1)});
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("fewer than two frames"), std::string::npos) << r.err;
}

}  // namespace

// vm_lightfield_scene: the views are the scene seen from each camera (the plane's texture moves by
// exactly FAR per view step, the triangles' truth lies where their colour is), the evaluator reads
// them, and bad options and an unwritable folder are refused.
TEST(LightfieldScene, WritesALightFieldTheEvaluatorReadsWithItsOwnGeometry) {
  const std::string dir = work_dir() + "/thin";
  ToolRun r = tool_run(work_dir(), VM_LIGHTFIELD_SCENE, {"--out", dir, "--side", "128", "--far", "-2"}, 120);
  ASSERT_EQ(0, r.code) << r.err;
  ImageF truth;
  std::string error;
  ASSERT_TRUE(image_read_pfm(dir + "/gt_disp_lowres.pfm", &truth, &error)) << error;
  ASSERT_EQ(128, truth.width);
  int32_t near = 0;
  for (float d : truth.data) {
    ASSERT_TRUE(d == 0.5f || d == -2.0f) << d;
    near += d == 0.5f;
  }
  EXPECT_GT(near, 100);  // five thin triangles: a few percent of the frame
  EXPECT_LT(near, 128 * 128 / 20);
  Image8 centre, right;
  ASSERT_TRUE(image_read8(view_name(dir, 40), &centre, &error)) << error;
  ASSERT_TRUE(image_read8(view_name(dir, 41), &right, &error)) << error;
  // Away from the triangles' columns (a tip thinner than a pixel covers no pixel centre, so the
  // columns, not the pixels, are kept clear), view (1, 0) at x is the centre view at x - 2.
  std::vector<bool> column(128, false);
  for (int32_t y = 0; y < 128; ++y)
    for (int32_t x = 0; x < 128; ++x) column[x] = column[x] || truth.data[size_t(y) * 128 + x] > 0;
  int32_t compared = 0;
  for (int32_t y = 0; y < 128; ++y)
    for (int32_t x = 4; x < 120; ++x) {
      bool plane = true;
      for (int32_t dx = -4; dx <= 4; ++dx) plane = plane && !column[x + dx];
      if (!plane) continue;
      ++compared;
      for (int32_t c = 0; c < 3; ++c)
        ASSERT_EQ(centre.data[(size_t(y) * 128 + x - 2) * 3 + c], right.data[(size_t(y) * 128 + x) * 3 + c])
            << x << "," << y;
    }
  EXPECT_GT(compared, 128 * 60);
  r = run(args_for(dir, {"--no-depth", "--settle", "2", "--max-aperture", "1"}));
  EXPECT_EQ(0, r.code) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("pair disparity")) << r.out;

  EXPECT_EQ(2, tool_run(work_dir(), VM_LIGHTFIELD_SCENE, {"--out", dir, "--near", "1", "--far", "1"}, 30).code);
  EXPECT_EQ(2, tool_run(work_dir(), VM_LIGHTFIELD_SCENE, {"--out", dir, "--side", "1025"}, 30).code);
  EXPECT_EQ(2, tool_run(work_dir(), VM_LIGHTFIELD_SCENE, {"--side", "64"}, 30).code);
  EXPECT_EQ(2, tool_run(work_dir(), VM_LIGHTFIELD_SCENE, {"--out", dir, "--what"}, 30).code);
  // A file where the folder should be.
  const std::string blocked = work_dir() + "/blocked";
  { std::ofstream(blocked) << "x"; }
  r = tool_run(work_dir(), VM_LIGHTFIELD_SCENE, {"--out", blocked + "/lf", "--side", "64"}, 30);
  EXPECT_EQ(5, r.code);
  EXPECT_NE(std::string::npos, r.err.find("blocked")) << r.err;
}
