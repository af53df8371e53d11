// depth_eval.cpp - vm_depth_eval: runs the depth engine (through its C functions) on stereo pairs
// at their own resolution, writes the disparity in pixels as PFM (+inf where the engine has no
// depth) and scores it against ground truth: bad 1.0 (pixels without an estimate count as bad),
// bad 2.0, mean absolute error and fill. Over a folder of scenes it prints a table and the means,
// and names every scene it could not score.
#include <dirent.h>
#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "image_io.h"
#include "stereo_run.h"
#include "tool_cli.h"

#ifdef VM_EVAL_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

const char kTool[] = "vm_depth_eval";
// The engine's own limits: sides of 8..8192 and a disparity code of at most 1022.
const int32_t kMinSide = 8, kMaxSide = 8192;
const double kMaxDisparity = 1000.0;

struct Scene {
  std::string name, left, right, truth, mask;
  std::string relative;     // the scene's folder below the folder given; names a scene whose name repeats
  float truthScale = 1.0f;  // 8-bit ground truth: disparity = value / scale; 0 = unknown
  bool pfmTruth = false;
};

struct Score {
  double bad1 = 0, bad2 = 0, mae = 0, fill = 0, ms = 0;
};

// Why a scene or pair could not be scored; picks the exit code.
enum Outcome { kScored, kBadInput, kEngineRefused, kNotWritten };

// The reader's message with the file named once.
std::string named(const std::string& path, const std::string& message) {
  return message.find(path) != std::string::npos ? message : path + ": " + message;
}

// A FIFO or a device would block the readers or feed them without end: regular files only.
bool input_file(const std::string& path, std::string* error) {
  if (tool_is_regular_file(path)) return true;
  *error = path + (file_exists(path) ? ": not a regular file" : ": no such file");
  return false;
}

bool read_image(const std::string& path, Image8* im, std::string* error) {
  std::string e;
  if (!input_file(path, error)) return false;
  if (image_read8(path, im, &e)) return true;
  *error = named(path, e);
  return false;
}

std::string size_text(int32_t w, int32_t h) {
  return std::to_string(w) + "x" + std::to_string(h);
}

// Every image paired with the left one must have its size: the scores index them alike.
bool same_size(const std::string& a, int32_t aw, int32_t ah, const std::string& b, int32_t bw, int32_t bh,
               std::string* error) {
  if (aw == bw && ah == bh) return true;
  *error = b + " is " + size_text(bw, bh) + " but " + a + " is " + size_text(aw, ah);
  return false;
}

// PFM by its first bytes (Pf or PF), whatever the file's name.
bool is_pfm(const std::string& path) {
  if (!tool_is_regular_file(path)) return false;
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  char magic[2] = {0, 0};
  const bool pfm = fread(magic, 1, 2, f) == 2 && magic[0] == 'P' && (magic[1] == 'f' || magic[1] == 'F');
  fclose(f);
  return pfm;
}

bool load_truth(const Scene& s, ImageF* gt, std::string* error) {
  if (!input_file(s.truth, error)) return false;
  std::string e;
  if (s.pfmTruth) {
    if (image_read_pfm(s.truth, gt, &e)) return true;
    *error = named(s.truth, e);
    return false;
  }
  Image8 g;
  if (!read_image(s.truth, &g, error)) return false;
  gt->width = g.width;
  gt->height = g.height;
  gt->data.resize(size_t(g.width) * size_t(g.height));
  for (size_t i = 0; i < gt->data.size(); ++i) {
    uint8_t v = g.data[i * size_t(g.channels)];
    gt->data[i] = v == 0 ? INFINITY : float(v) / s.truthScale;
  }
  return true;
}

// The finite range of the ground truth, refused when empty or beyond the engine's reach.
bool truth_range(const ImageF& gt, const std::string& path, float* lo, float* hi, std::string* error) {
  *lo = INFINITY, *hi = 0;
  for (float v : gt.data)
    if (isfinite(v)) *lo = std::min(*lo, v), *hi = std::max(*hi, v);
  if (!(*hi > 0)) {
    *error = path + ": no valid ground truth";
    return false;
  }
  if (*hi > float(kMaxDisparity)) {
    *error = path + ": ground truth disparity " + std::to_string(*hi) + " beyond the engine's " +
             std::to_string(int(kMaxDisparity));
    return false;
  }
  *lo = std::max(0.0f, *lo);
  return true;
}

#ifdef VM_EVAL_OPENCV
// StereoSGBM with its recommended settings on the same pair and range, its map made dense by the
// usual row background fill (the smaller of the nearest valid disparities left and right).
bool run_sgbm(const Image8& left, const Image8& right, float dmin, float dmax, ImageF* disp) {
  const int32_t w = left.width, h = left.height;
  int type = left.channels == 3 ? CV_8UC3 : CV_8UC1;
  cv::Mat l(h, w, type, const_cast<uint8_t*>(left.data.data())), r(h, w, type, const_cast<uint8_t*>(right.data.data()));
  int32_t mind = int32_t(floorf(dmin)), num = (int32_t(ceilf(dmax)) - mind + 1 + 15) / 16 * 16;
  int cn = left.channels;
  auto sgbm = cv::StereoSGBM::create(mind, num, 5, 8 * cn * 25, 32 * cn * 25, 1, 0, 10, 100, 32);
  cv::Mat out;
  sgbm->compute(l, r, out);
  disp->width = w, disp->height = h;
  disp->data.assign(size_t(w) * size_t(h), INFINITY);
  for (int32_t y = 0; y < h; ++y) {
    const int16_t* row = out.ptr<int16_t>(y);
    std::vector<float> v(static_cast<size_t>(w));
    for (int32_t x = 0; x < w; ++x) v[size_t(x)] = row[x] < mind * 16 ? INFINITY : row[x] / 16.0f;
    for (int32_t x = 0; x < w; ++x) {
      if (isfinite(v[size_t(x)])) {
        disp->data[size_t(y) * w + x] = v[size_t(x)];
        continue;
      }
      float a = INFINITY, b = INFINITY;
      for (int32_t k = x - 1; k >= 0; --k)
        if (isfinite(v[size_t(k)])) {
          a = v[size_t(k)];
          break;
        }
      for (int32_t k = x + 1; k < w; ++k)
        if (isfinite(v[size_t(k)])) {
          b = v[size_t(k)];
          break;
        }
      disp->data[size_t(y) * w + x] = std::min(a, b);
    }
  }
  return true;
}
#endif

// The scores of disp against the truth, over the mask's 255 pixels when there is a mask. False
// when no pixel has a truth to score.
bool score_against_truth(const Scene& s, const ImageF& disp, const ImageF& gt, const Image8& mask, Score* score,
                         std::string* error) {
  size_t counted = 0, bad1 = 0, bad2 = 0, estimated = 0, filled = 0;
  double absErr = 0;
  for (size_t i = 0; i < gt.data.size(); ++i) {
    bool has = isfinite(disp.data[i]);
    filled += has;
    if (!isfinite(gt.data[i])) continue;
    if (!mask.data.empty() && mask.data[i * size_t(mask.channels)] != 255) continue;
    ++counted;
    if (!has) {
      ++bad1, ++bad2;
      continue;
    }
    double e = fabs(double(disp.data[i]) - double(gt.data[i]));
    bad1 += e > 1.0;
    bad2 += e > 2.0;
    absErr += e;
    ++estimated;
  }
  if (counted == 0) {
    *error = (s.mask.empty() ? s.truth : s.mask) + ": no pixel with ground truth to score";
    return false;
  }
  score->bad1 = 100.0 * double(bad1) / double(counted);
  score->bad2 = 100.0 * double(bad2) / double(counted);
  score->mae = estimated ? absErr / double(estimated) : 0;
  score->fill = 100.0 * double(filled) / double(gt.data.size());
  return true;
}

// Reads the pair (and truth and mask when named), checks their sizes, runs the engine, scores
// against the truth when there is one and writes the disparity to outPath when it is not empty.
// The search range is [dmin, dmax] when dmax > 0, else the truth's range.
Outcome evaluate(const Scene& s, int32_t quality, float dmin, float dmax, const std::string& outPath, Score* score,
                 bool* scored, std::string* error) {
  Image8 left, right, mask;
  ImageF gt, disp;
  *scored = false;
  if (!read_image(s.left, &left, error) || !read_image(s.right, &right, error)) return kBadInput;
  if (!same_size(s.left, left.width, left.height, s.right, right.width, right.height, error)) return kBadInput;
  if (left.width < kMinSide || left.height < kMinSide || left.width > kMaxSide || left.height > kMaxSide) {
    *error = s.left + " is " + size_text(left.width, left.height) + "; the engine takes " + std::to_string(kMinSide) +
             ".." + std::to_string(kMaxSide) + " a side";
    return kBadInput;
  }
  if (!s.truth.empty()) {
    if (!load_truth(s, &gt, error)) return kBadInput;
    if (!same_size(s.left, left.width, left.height, s.truth, gt.width, gt.height, error)) return kBadInput;
    float lo = 0, hi = 0;
    if (!truth_range(gt, s.truth, &lo, &hi, error)) return kBadInput;
    if (!(dmax > 0)) dmin = lo, dmax = hi;
  }
  if (!s.mask.empty()) {
    if (!read_image(s.mask, &mask, error)) return kBadInput;
    if (!same_size(s.left, left.width, left.height, s.mask, mask.width, mask.height, error)) return kBadInput;
  }
  bool ok = false;
  if (quality > 0) ok = run_engine(left, right, dmin, dmax, quality, &disp, &score->ms, error);
#ifdef VM_EVAL_OPENCV
  if (quality == 0) {
    ok = run_sgbm(left, right, dmin, dmax, &disp);
    if (!ok) *error = "StereoSGBM failed";
  }
#endif
  if (!ok) return kEngineRefused;
  if (!outPath.empty()) {
    if (!image_write_pfm(outPath, disp, error)) return kNotWritten;
  }
  if (s.truth.empty()) {
    size_t filled = 0;
    for (float v : disp.data) filled += isfinite(v);
    score->fill = 100.0 * double(filled) / double(disp.data.size());
    return kScored;
  }
  if (!score_against_truth(s, disp, gt, mask, score, error)) return kBadInput;
  *scored = true;
  return kScored;
}

bool is_dir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool list_dir(const std::string& dir, std::vector<std::string>* names) {
  DIR* d = opendir(dir.c_str());
  if (!d) return false;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') names->push_back(e->d_name);
  closedir(d);
  std::sort(names->begin(), names->end());
  return true;
}

// The layouts of the stereo data README. Images may be PNG, PPM or PGM under the same stem (the
// sets were first published as PPM/PGM); truth with a scale of 0 is the named PFM.
struct Layout {
  const char *left, *right, *truth;
  float scale;
  const char* mask;
};
const Layout kLayouts[] = {
    {"im0", "im1", "disp0GT.pfm", 0, "mask0nocc"},  // MiddEval3
    {"imL", "imR", "truedisp", 16, "nonocc"},       // 2001 tsukuba (0 on the 18 px border: unknown)
    {"imL", "imR", "disp2", 8, nullptr},            // 2001 venus
    {"im2", "im6", "disp2", 4, nullptr},            // 2003 teddy, cones (2001 sets: / 8, see below)
    {"view1", "view5", "disp1", 3, nullptr},        // 2005 and 2006
};

std::string with_ext(const std::string& dir, const char* stem) {
  static const char* const kExts[] = {".png", ".ppm", ".pgm"};
  for (const char* ext : kExts) {
    const std::string path = dir + "/" + stem + ext;
    if (file_exists(path)) return path;
  }
  return std::string();
}

// A scene of one of the layouts in `dir`, or false.
bool match_layout(const std::string& dir, const std::string& name, bool set2001, Scene* s) {
  for (const Layout& l : kLayouts) {
    const std::string left = with_ext(dir, l.left), right = with_ext(dir, l.right);
    const std::string truth =
        l.scale == 0 ? (file_exists(dir + "/" + l.truth) ? dir + "/" + l.truth : "") : with_ext(dir, l.truth);
    if (left.empty() || right.empty() || truth.empty()) continue;
    s->name = name, s->left = left, s->right = right, s->truth = truth;
    s->pfmTruth = l.scale == 0;
    s->truthScale = l.scale;
    // The 2001 sets other than tsukuba came as im2/im6 with disp2 in eighths of a pixel.
    if (set2001 && strcmp(l.left, "im2") == 0) s->truthScale = 8;
    s->mask = l.mask != nullptr ? with_ext(dir, l.mask) : std::string();
    return true;
  }
  return false;
}

// Scenes in the layouts above, found at any depth below `dir` up to four folders down. A folder
// holding files but no subfolder and no layout is a scene that cannot be read: reported.
void find_scenes(const std::string& dir, const std::string& relative, const std::string& name, bool set2001, int depth,
                 std::vector<Scene>* scenes, ToolReport* report) {
  Scene s;
  if (match_layout(dir, name, set2001, &s)) {
    s.relative = relative.empty() ? name : relative;
    scenes->push_back(s);
    return;
  }
  std::vector<std::string> entries;
  if (!list_dir(dir, &entries)) {
    report->skip(dir, std::string("cannot be listed: ") + strerror(errno));
    return;
  }
  bool hasFiles = false, hasDirs = false;
  for (const std::string& e : entries) {
    const std::string path = dir + "/" + e;
    if (!is_dir(path)) {
      hasFiles = true;
      continue;
    }
    hasDirs = true;
    if (depth >= 4) {
      report->skip(path, "deeper than four folders below the folder given");
      continue;
    }
    find_scenes(path, relative.empty() ? e : relative + "/" + e, e, set2001 || e.find("2001") != std::string::npos,
                depth + 1, scenes, report);
  }
  if (hasFiles && !hasDirs && depth > 0)
    report->skip(dir,
                 "no stereo layout (im0/im1 + disp0GT.pfm, imL/imR + truedisp or disp2, im2/im6 + disp2, "
                 "view1/view5 + disp1)");
}

void usage(FILE* f) {
  fprintf(f,
          "usage: vm_depth_eval --folder DIR [--quality Q] [--out DIR] [--only NAME]\n"
          "       vm_depth_eval --left L --right R (--truth GT | --max D [--min D]) [--truth-scale K] [--mask M]\n"
          "                     [--quality Q] [--out FILE.pfm]\n"
          "Runs the stereo engine on a pair at its own size and scores it against ground truth (bad 1.0 and\n"
          "2.0 in %%, pixels without an estimate counting as bad, mean absolute error, fill in %%).\n"
          "  --folder DIR       every scene below DIR in a layout of the stereo data README (PNG, PPM or\n"
          "                     PGM images); scenes that cannot be scored are named and counted\n"
          "  --only NAME        only the scene (folder) NAME; a name found in two sets is shown as SET/NAME\n"
          "  --out DIR|FILE     the disparity as PFM: DIR/NAME.pfm per scene, or FILE for a pair\n"
          "  --quality Q        1 fast, 2 high (default)%s\n"
          "  --left/--right     the pair; the right image matches (x - d, y) of the left one\n"
          "  --truth GT         ground truth of the left view: PFM (.pfm), else 8-bit PNG/PGM, 0 unknown\n"
          "  --truth-scale K    8-bit truth holds disparity x K (default 1)\n"
          "  --mask M           only pixels where M is 255 are scored (needs --truth)\n"
          "  --min/--max D      the search range in pixels (0..%d); default with --truth: the truth's range\n"
          "Every image must have the size of the left one. In a folder, im2/im6 with disp2 is read in\n"
          "quarter pixels (the 2003 sets), in eighths below a folder whose name holds 2001.\n"
          "%s",
#ifdef VM_EVAL_OPENCV
          ", 0 StereoSGBM",
#else
          "",
#endif
          int(kMaxDisparity), kToolExitCodesHelp);
}

struct EvalOptions {
  std::string folder, out, only, left, right, truth, mask;
  int32_t quality = 2;
  double dmin = 0, dmax = 0, truthScale = 1;
  bool haveMax = false;
};

// The options that go together: a folder alone, or a pair with its search range.
void eval_check_options(const EvalOptions& o, ToolArgs* args) {
  if (o.folder.empty() == o.left.empty())
    args->fail("give either --folder or --left and --right");
  else if (!o.folder.empty() && !(o.right.empty() && o.truth.empty() && o.mask.empty() && !o.haveMax))
    args->fail("--folder takes no --right, --truth, --mask, --min or --max");
  else if (!o.left.empty() && o.right.empty())
    args->fail("--left needs --right");
  else if (!o.left.empty() && !o.only.empty())
    args->fail("--only goes with --folder");
  else if (!o.left.empty() && o.truth.empty() && !o.haveMax)
    args->fail("give --truth or --max for the search range");
  else if (o.haveMax && !(o.dmax > o.dmin))
    args->fail("--max must be above --min");
  else if (!o.mask.empty() && o.truth.empty())
    args->fail("--mask needs --truth");
}

// The command line into *o; *help when it asks for the usage. False on bad usage (the message
// printed).
bool eval_parse_args(int argc, char** argv, EvalOptions* o, bool* help) {
#ifdef VM_EVAL_OPENCV
  const int32_t minQuality = 0;
#else
  const int32_t minQuality = 1;
#endif
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      *help = true;
      return true;
    } else if (args.is("--folder")) {
      args.string_value(&o->folder);
    } else if (args.is("--out")) {
      args.string_value(&o->out);
    } else if (args.is("--only")) {
      args.string_value(&o->only);
    } else if (args.is("--quality")) {
      args.int_value(minQuality, 2, &o->quality);
    } else if (args.is("--left")) {
      args.string_value(&o->left);
    } else if (args.is("--right")) {
      args.string_value(&o->right);
    } else if (args.is("--truth")) {
      args.string_value(&o->truth);
    } else if (args.is("--truth-scale")) {
      args.double_value(0.001, 1000.0, &o->truthScale);
    } else if (args.is("--mask")) {
      args.string_value(&o->mask);
    } else if (args.is("--min")) {
      args.double_value(0.0, kMaxDisparity, &o->dmin);
    } else if (args.is("--max")) {
      o->haveMax = args.double_value(0.0, kMaxDisparity, &o->dmax);
    } else {
      args.unknown();
    }
  }
  if (!args.failed()) eval_check_options(*o, &args);
  if (args.failed()) {
    fprintf(stderr, "%s: %s\n", kTool, args.error().c_str());
    return false;
  }
  return true;
}

// One pair given on the command line: its score on stdout. Returns the exit code.
int eval_pair(const EvalOptions& o) {
  Scene s;
  s.name = "pair", s.left = o.left, s.right = o.right, s.truth = o.truth, s.mask = o.mask,
  s.truthScale = float(o.truthScale);
  s.pfmTruth = is_pfm(o.truth);
  Score sc;
  bool scored = false;
  std::string error;
  const Outcome oc =
      evaluate(s, o.quality, float(o.dmin), o.haveMax ? float(o.dmax) : 0.0f, o.out, &sc, &scored, &error);
  if (oc != kScored) {
    fprintf(stderr, "%s: %s\n", kTool, error.c_str());
    return oc == kEngineRefused ? kToolExitRefused : oc == kNotWritten ? kToolExitWrite : kToolExitUsage;
  }
  if (scored)
    printf("bad1.0 %.2f%%  bad2.0 %.2f%%  MAE %.3f  fill %.2f%%  run %.1f ms\n", sc.bad1, sc.bad2, sc.mae, sc.fill,
           sc.ms);
  else
    printf("fill %.2f%%  run %.1f ms\n", sc.fill, sc.ms);
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "%s: could not write the score to standard output\n", kTool);
    return kToolExitWrite;
  }
  return kToolExitDone;
}

// The scenes below the folder, named apart when a name repeats and cut to --only.
std::vector<Scene> eval_folder_scenes(const EvalOptions& o, ToolReport* report) {
  const std::string& folder = o.folder;
  std::vector<Scene> scenes;
  const size_t slash = folder.find_last_not_of('/');
  const std::string base = folder.substr(0, slash + 1), root = base.substr(base.find_last_of('/') + 1);
  find_scenes(folder, "", root.empty() ? folder : root, folder.find("2001") != std::string::npos, 0, &scenes, report);
  // Scenes of one name in two sets keep apart in the table and in --out: named by their folder.
  std::vector<std::string> names;
  for (const Scene& s : scenes) names.push_back(s.name);
  for (Scene& s : scenes)
    if (std::count(names.begin(), names.end(), s.name) > 1) s.name = s.relative;
  if (!o.only.empty()) {
    const std::string& only = o.only;
    std::vector<Scene> kept;
    for (const Scene& s : scenes)
      if (s.name == only || s.relative == only ||
          (s.relative.size() > only.size() &&
           s.relative.compare(s.relative.size() - only.size() - 1, std::string::npos, "/" + only) == 0))
        kept.push_back(s);
    if (kept.empty()) fprintf(stderr, "%s: no scene named %s under %s\n", kTool, only.c_str(), folder.c_str());
    scenes.swap(kept);
    report->skipped.clear();  // folders of other names were not asked for
  } else if (scenes.empty()) {
    fprintf(stderr, "%s: no scene under %s\n", kTool, folder.c_str());
  }
  return scenes;
}

// The folder's running totals: the scores' sums and how many scenes the engine refused.
struct EvalTotals {
  Score sum;
  size_t refused = 0;
};

// One scene of the folder: its row of the table, or a skip or failed write in the report.
void eval_folder_scene(const EvalOptions& o, const Scene& s, EvalTotals* totals, ToolReport* report) {
  Score sc;
  bool scored = false;
  std::string error;
  std::string file = s.name;
  std::replace(file.begin(), file.end(), '/', '_');
  const std::string outPath = o.out.empty() ? std::string() : o.out + "/" + file + ".pfm";
  const Outcome oc = evaluate(s, o.quality, 0, 0, outPath, &sc, &scored, &error);
  if (oc == kNotWritten) {
    report->write_failed(outPath, error);
    return;
  }
  if (oc != kScored) {
    totals->refused += oc == kEngineRefused;
    report->skip(s.name, error);
    return;
  }
  printf("%-12s %8.2f %8.2f %8.3f %8.2f %9.1f\n", s.name.c_str(), sc.bad1, sc.bad2, sc.mae, sc.fill, sc.ms);
  fflush(stdout);
  Score& mean = totals->sum;
  mean.bad1 += sc.bad1, mean.bad2 += sc.bad2, mean.mae += sc.mae, mean.fill += sc.fill, mean.ms += sc.ms;
  ++report->processed;
}

// Every scene below the folder: a row each, then the means. Returns the exit code.
int eval_folder(const EvalOptions& o) {
  if (!is_dir(o.folder)) {
    fprintf(stderr, "%s: %s: not a folder\n", kTool, o.folder.c_str());
    return kToolExitUsage;
  }
  std::string why;
  if (!o.out.empty() && !tool_make_dirs(o.out, &why)) {
    fprintf(stderr, "%s: --out %s\n", kTool, why.c_str());
    return kToolExitWrite;
  }
  ToolReport report;
  report.tool = kTool;
  const std::vector<Scene> scenes = eval_folder_scenes(o, &report);
  if (!scenes.empty()) printf("%-12s %8s %8s %8s %8s %9s\n", "scene", "bad1.0%", "bad2.0%", "MAE", "fill%", "run ms");
  EvalTotals totals;
  for (const Scene& s : scenes) eval_folder_scene(o, s, &totals, &report);
  if (report.processed > 0) {
    const double n = double(report.processed);
    const Score& mean = totals.sum;
    printf("%-12s %8.2f %8.2f %8.3f %8.2f %9.1f\n", "mean", mean.bad1 / n, mean.bad2 / n, mean.mae / n, mean.fill / n,
           mean.ms / n);
  }
  if (fflush(stdout) != 0 || ferror(stdout)) report.write_failed("standard output", "the table was not written");
  const int rc = report.finish();
  // Every skip an engine refusal: say so with its own code.
  return rc == kToolExitUsage && totals.refused == report.skipped.size() ? kToolExitRefused : rc;
}

int run(int argc, char** argv) {
  EvalOptions o;
  bool help = false;
  if (!eval_parse_args(argc, argv, &o, &help)) return kToolExitUsage;
  if (help) {
    usage(stdout);
    return kToolExitDone;
  }
  return o.folder.empty() ? eval_pair(o) : eval_folder(o);
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main(kTool, argc, argv, run);
}
