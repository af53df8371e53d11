// depth_eval.cpp - vm_depth_eval: runs the depth engine (through its C functions) on stereo pairs
// at their own resolution, writes the disparity in pixels as PFM (+inf where the engine has no
// depth) and scores it against ground truth: bad 1.0 (pixels without an estimate count as bad),
// bad 2.0, mean absolute error and fill. Over a folder of scenes it prints a table and the means.
#include <dirent.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "image_io.h"

namespace {

struct Scene {
  std::string name, left, right, truth, mask;
  float truthScale = 1.0f;  // 8-bit ground truth: disparity = value / scale; 0 = unknown
  bool pfmTruth = false;
};

struct Score {
  double bad1 = 0, bad2 = 0, mae = 0, fill = 0, ms = 0;
  bool ok = false;
};

double now_ms() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) * 1000.0 + double(t.tv_nsec) / 1e6;
}

bool load_truth(const Scene& s, ImageF* gt, std::string* error) {
  if (s.pfmTruth) return image_read_pfm(s.truth, gt, error);
  Image8 g;
  if (!image_read8(s.truth, &g, error)) return false;
  gt->width = g.width;
  gt->height = g.height;
  gt->data.resize(size_t(g.width) * size_t(g.height));
  for (size_t i = 0; i < gt->data.size(); ++i) {
    uint8_t v = g.data[i * size_t(g.channels)];
    gt->data[i] = v == 0 ? INFINITY : float(v) / s.truthScale;
  }
  return true;
}

void to_planes(const Image8& im, std::vector<uint8_t>* planes) {
  size_t n = size_t(im.width) * size_t(im.height);
  planes->resize(3 * n);
  for (size_t i = 0; i < n; ++i) {
    float r, g, b;
    if (im.channels == 3) {
      r = im.data[3 * i], g = im.data[3 * i + 1], b = im.data[3 * i + 2];
    } else {
      r = g = b = im.data[i];
    }
    auto byte = [](float v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v + 0.5f); };
    (*planes)[i] = byte(0.299f * r + 0.587f * g + 0.114f * b);
    (*planes)[n + i] = byte(128.0f - 0.168736f * r - 0.331264f * g + 0.5f * b);
    (*planes)[2 * n + i] = byte(128.0f + 0.5f * r - 0.418688f * g - 0.081312f * b);
  }
}

// Runs the engine on one pair with the search range [dmin, dmax]; disparity in pixels, +inf
// where there is none.
bool run_engine(const Image8& left, const Image8& right, float dmin, float dmax, int32_t quality, ImageF* disp,
                double* ms, std::string* error) {
  if (left.width != right.width || left.height != right.height) {
    *error = "left and right sizes differ";
    return false;
  }
  const int32_t w = left.width, h = left.height;
  CalibBlock cb;
  calib_block_defaults(&cb, w, h, w, h, floorf(dmin), ceilf(dmax));
  int32_t scale = int32_t(1022.0f / (ceilf(dmax) + 2.0f));
  cb.disparityScale = uint16_t(std::max(1, std::min(16, scale)));
  uint8_t block[CALIB_BLOCK_SIZE];
  if (calib_block_write(&cb, block, sizeof(block)) != CALIB_OK) {
    *error = "bad calibration values";
    return false;
  }
  std::vector<uint8_t> lp, rp;
  to_planes(left, &lp);
  to_planes(right, &rp);
  size_t n = size_t(w) * size_t(h);
  DpxImage mainImage = {DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {lp.data(), lp.data() + n, lp.data() + 2 * n}};
  DpxImage subImage = {DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {rp.data(), rp.data() + n, rp.data() + 2 * n}};
  vmDpx2_CameraLayout_Set_LV(2);
  vmDpx2RT_FieldofDepth_Set(quality);
  int32_t r = vmDpx2_Express_Init(block, sizeof(block), w, h, nullptr, 0);
  if (r != 0) {
    char text[64];
    snprintf(text, sizeof(text), "vmDpx2_Express_Init failed: %x", unsigned(r));
    *error = text;
    return false;
  }
  std::vector<uint16_t> out(n);
  double t0 = now_ms();
  r = vmDpx2_Run_Express(out.data(), &mainImage, &subImage, 0, 0);
  *ms = now_ms() - t0;
  vmDpx2_Express_Close();
  if (r != 0) {
    *error = "vmDpx2_Run_Express failed";
    return false;
  }
  disp->width = w;
  disp->height = h;
  disp->data.resize(n);
  for (size_t i = 0; i < n; ++i) disp->data[i] = out[i] >= 1023 ? INFINITY : float(out[i]) / float(cb.disparityScale);
  return true;
}

Score evaluate(const Scene& s, int32_t quality, const std::string& outDir) {
  Score score;
  std::string error;
  Image8 left, right, mask;
  ImageF gt, disp;
  if (!image_read8(s.left, &left, &error) || !image_read8(s.right, &right, &error) || !load_truth(s, &gt, &error) ||
      (!s.mask.empty() && !image_read8(s.mask, &mask, &error))) {
    fprintf(stderr, "%s: %s\n", s.name.c_str(), error.c_str());
    return score;
  }
  if (gt.width != left.width || gt.height != left.height) {
    fprintf(stderr, "%s: ground truth size differs from the images\n", s.name.c_str());
    return score;
  }
  float lo = INFINITY, hi = 0;
  for (float v : gt.data)
    if (isfinite(v)) lo = std::min(lo, v), hi = std::max(hi, v);
  if (!(hi > 0)) {
    fprintf(stderr, "%s: no valid ground truth\n", s.name.c_str());
    return score;
  }
  if (!run_engine(left, right, std::max(0.0f, lo), hi, quality, &disp, &score.ms, &error)) {
    fprintf(stderr, "%s: %s\n", s.name.c_str(), error.c_str());
    return score;
  }
  if (!outDir.empty()) image_write_pfm(outDir + "/" + s.name + ".pfm", disp);
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
  if (counted == 0) return score;
  score.bad1 = 100.0 * double(bad1) / double(counted);
  score.bad2 = 100.0 * double(bad2) / double(counted);
  score.mae = estimated ? absErr / double(estimated) : 0;
  score.fill = 100.0 * double(filled) / double(gt.data.size());
  score.ok = true;
  return score;
}

std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (!d) return names;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

// Scenes in the layouts the stereo data README describes, found at any depth below `dir`.
void find_scenes(const std::string& dir, const std::string& name, std::vector<Scene>* scenes, int depth) {
  auto has = [&](const char* f) { return file_exists(dir + "/" + f); };
  Scene s;
  s.name = name;
  if (has("im0.png") && has("im1.png") && has("disp0GT.pfm")) {
    s.left = dir + "/im0.png", s.right = dir + "/im1.png", s.truth = dir + "/disp0GT.pfm", s.pfmTruth = true;
    if (has("mask0nocc.png")) s.mask = dir + "/mask0nocc.png";
  } else if (has("imL.png") && has("imR.png") && has("truedisp.pgm")) {
    s.left = dir + "/imL.png", s.right = dir + "/imR.png", s.truth = dir + "/truedisp.pgm", s.truthScale = 16;
    if (has("nonocc.png")) s.mask = dir + "/nonocc.png";
  } else if (has("imL.png") && has("imR.png") && has("disp2.pgm")) {
    s.left = dir + "/imL.png", s.right = dir + "/imR.png", s.truth = dir + "/disp2.pgm", s.truthScale = 8;
  } else if (has("im2.png") && has("im6.png") && has("disp2.pgm")) {
    s.left = dir + "/im2.png", s.right = dir + "/im6.png", s.truth = dir + "/disp2.pgm", s.truthScale = 4;
  } else if (has("view1.png") && has("view5.png") && has("disp1.png")) {
    s.left = dir + "/view1.png", s.right = dir + "/view5.png", s.truth = dir + "/disp1.png", s.truthScale = 3;
  }
  if (!s.left.empty()) {
    scenes->push_back(s);
    return;
  }
  if (depth > 3) return;
  for (const std::string& sub : list_dir(dir)) {
    std::string path = dir + "/" + sub;
    DIR* d = opendir(path.c_str());
    if (!d) continue;
    closedir(d);
    find_scenes(path, sub, scenes, depth + 1);
  }
}

void usage() {
  fprintf(stderr,
          "usage: vm_depth_eval --folder DIR [--quality 1|2] [--out DIR] [--only NAME]\n"
          "       vm_depth_eval --left L --right R --max D [--min D] [--quality 1|2] [--out FILE.pfm]\n"
          "                     [--truth GT (PFM, or 8-bit with --truth-scale K)] [--mask M]\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder, out, only, left, right, truth, mask;
  int32_t quality = 2;
  float dmin = 0, dmax = 0, truthScale = 1;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i], v = argv[i + 1];
    if (a == "--folder")
      folder = v;
    else if (a == "--out")
      out = v;
    else if (a == "--only")
      only = v;
    else if (a == "--quality")
      quality = atoi(v.c_str());
    else if (a == "--left")
      left = v;
    else if (a == "--right")
      right = v;
    else if (a == "--truth")
      truth = v;
    else if (a == "--truth-scale")
      truthScale = float(atof(v.c_str()));
    else if (a == "--mask")
      mask = v;
    else if (a == "--min")
      dmin = float(atof(v.c_str()));
    else if (a == "--max")
      dmax = float(atof(v.c_str()));
    else {
      usage();
      return 2;
    }
  }
  if (argc % 2 == 0 || (folder.empty() && left.empty())) {
    usage();
    return 2;
  }
  if (!folder.empty()) {
    std::vector<Scene> scenes;
    find_scenes(folder, "", &scenes, 0);
    if (scenes.empty()) {
      printf("vm_depth_eval: no scenes under %s: skipped\n", folder.c_str());
      return 0;
    }
    printf("%-12s %8s %8s %8s %8s %9s\n", "scene", "bad1.0%", "bad2.0%", "MAE", "fill%", "run ms");
    Score mean;
    int count = 0;
    for (const Scene& s : scenes) {
      if (!only.empty() && s.name != only) continue;
      Score sc = evaluate(s, quality, out);
      if (!sc.ok) continue;
      printf("%-12s %8.2f %8.2f %8.3f %8.2f %9.1f\n", s.name.c_str(), sc.bad1, sc.bad2, sc.mae, sc.fill, sc.ms);
      fflush(stdout);
      mean.bad1 += sc.bad1, mean.bad2 += sc.bad2, mean.mae += sc.mae, mean.fill += sc.fill, mean.ms += sc.ms;
      ++count;
    }
    if (count > 0)
      printf("%-12s %8.2f %8.2f %8.3f %8.2f %9.1f\n", "mean", mean.bad1 / count, mean.bad2 / count, mean.mae / count,
             mean.fill / count, mean.ms / count);
    return 0;
  }
  Image8 l, r;
  ImageF disp;
  std::string error;
  double ms = 0;
  if (!image_read8(left, &l, &error) || !image_read8(right, &r, &error)) {
    fprintf(stderr, "vm_depth_eval: %s\n", error.c_str());
    return 1;
  }
  if (truth.empty() && !(dmax > dmin)) {
    fprintf(stderr, "vm_depth_eval: give --max (and --min) or --truth for the search range\n");
    return 2;
  }
  if (!truth.empty()) {
    Scene s;
    s.name = "pair", s.left = left, s.right = right, s.truth = truth, s.mask = mask, s.truthScale = truthScale;
    s.pfmTruth = truth.size() > 4 && truth.compare(truth.size() - 4, 4, ".pfm") == 0;
    std::string dir = out.empty() ? std::string() : ".";
    Score sc = evaluate(s, quality, "");
    if (!sc.ok) return 1;
    printf("bad1.0 %.2f%%  bad2.0 %.2f%%  MAE %.3f  fill %.2f%%  run %.1f ms\n", sc.bad1, sc.bad2, sc.mae, sc.fill,
           sc.ms);
  }
  if (!out.empty()) {
    if (!(dmax > dmin)) {
      ImageF gt;
      Scene s;
      s.truth = truth, s.truthScale = truthScale;
      s.pfmTruth = truth.size() > 4 && truth.compare(truth.size() - 4, 4, ".pfm") == 0;
      if (!load_truth(s, &gt, &error)) return 1;
      dmin = INFINITY, dmax = 0;
      for (float v : gt.data)
        if (isfinite(v)) dmin = std::min(dmin, v), dmax = std::max(dmax, v);
      dmin = std::max(0.0f, dmin);
    }
    if (!run_engine(l, r, dmin, dmax, quality, &disp, &ms, &error) || !image_write_pfm(out, disp)) {
      fprintf(stderr, "vm_depth_eval: %s\n", error.empty() ? "cannot write the output" : error.c_str());
      return 1;
    }
  }
  return 0;
}
