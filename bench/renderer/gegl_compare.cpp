// Side-by-side with GEGL's gegl:variable-blur (Debian's libgegl, optional): speed on a 1080p
// frame with a 320 x 240 map, single-threaded, in one run beside memcpy of one frame; quality
// against the synthetic scene's depth-of-field oracle, both fed the same refocus map.
//
//   gegl_compare [--quality-only] [--full-hd] [--dump DIR]
//
// --full-hd adds the scene at 1920 x 1080 (the preview size; its oracle takes minutes).
// --dump writes each scene's luma planes (oracle, input, both renderers, and their errors
// against the oracle x4 around 128) and the edge band as PGM files into DIR.
#include <gegl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "renderer_internal.h"
#include "synth_scene.h"
#include "tool_cli.h"

namespace {

double now_ms() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Map (mw x mh) to a full-size mask by bilinear interpolation, the way the renderer reads it.
std::vector<uint8_t> upsample(const std::vector<uint8_t>& map, int32_t mw, int32_t mh, int32_t w, int32_t h) {
  std::vector<uint8_t> out(static_cast<size_t>(w) * h);
  for (int32_t y = 0; y < h; ++y) {
    const float my = std::fmin(std::fmax((y + 0.5f) * mh / h - 0.5f, 0.0f), mh - 1.0f);
    const int32_t y0 = static_cast<int32_t>(my), y1 = y0 + 1 < mh ? y0 + 1 : y0;
    for (int32_t x = 0; x < w; ++x) {
      const float mx = std::fmin(std::fmax((x + 0.5f) * mw / w - 0.5f, 0.0f), mw - 1.0f);
      const int32_t x0 = static_cast<int32_t>(mx), x1 = x0 + 1 < mw ? x0 + 1 : x0;
      const float fx = mx - x0, fy = my - y0;
      const float top = map[y0 * mw + x0] + fx * (map[y0 * mw + x1] - map[y0 * mw + x0]);
      const float bot = map[y1 * mw + x0] + fx * (map[y1 * mw + x1] - map[y1 * mw + x0]);
      out[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(top + fy * (bot - top) + 0.5f);
    }
  }
  return out;
}

struct Gegl {
  GeglNode* graph;
  GeglNode* blur;
  GeglBuffer* in;
  GeglBuffer* mask;
  int32_t w, h;
};

Gegl gegl_setup(const uint8_t* rgb, const uint8_t* mask, int32_t w, int32_t h, double radius) {
  Gegl g;
  g.w = w, g.h = h;
  const GeglRectangle rect = {0, 0, w, h};
  g.in = gegl_buffer_new(&rect, babl_format("R'G'B' u8"));
  gegl_buffer_set(g.in, &rect, 0, babl_format("R'G'B' u8"), rgb, GEGL_AUTO_ROWSTRIDE);
  g.mask = gegl_buffer_new(&rect, babl_format("Y' u8"));
  gegl_buffer_set(g.mask, &rect, 0, babl_format("Y' u8"), mask, GEGL_AUTO_ROWSTRIDE);
  g.graph = gegl_node_new();
  GeglNode* src = gegl_node_new_child(g.graph, "operation", "gegl:buffer-source", "buffer", g.in, nullptr);
  GeglNode* aux = gegl_node_new_child(g.graph, "operation", "gegl:buffer-source", "buffer", g.mask, nullptr);
  g.blur =
      gegl_node_new_child(g.graph, "operation", "gegl:variable-blur", "radius", radius, "linear-mask", TRUE, nullptr);
  gegl_node_connect_to(src, "output", g.blur, "input");
  gegl_node_connect_to(aux, "output", g.blur, "aux");
  return g;
}

void gegl_run(Gegl& g, uint8_t* rgbOut) {
  const GeglRectangle rect = {0, 0, g.w, g.h};
  gegl_node_blit(g.blur, 1.0, &rect, babl_format("R'G'B' u8"), rgbOut, GEGL_AUTO_ROWSTRIDE, GEGL_BLIT_DEFAULT);
}

void gegl_free(Gegl& g) {
  g_object_unref(g.graph);
  g_object_unref(g.in);
  g_object_unref(g.mask);
}

double psnr(const uint8_t* a, const uint8_t* b, const std::vector<uint8_t>& mask) {
  double se = 0;
  size_t n = 0;
  for (size_t i = 0; i < mask.size(); ++i)
    if (mask[i]) {
      const double d = double(a[i]) - b[i];
      se += d * d;
      ++n;
    }
  return n == 0 ? 0 : (se == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / (se / n)));
}

void speed() {
  constexpr int32_t w = 1920, h = 1080, mw = 320, mh = 240;
  std::vector<uint8_t> frame(w * h * 3 / 2), original, map(mw * mh), copy(frame.size());
  uint32_t s = 1;
  for (auto& b : frame) {
    s = s * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(60 + ((s >> 24) % 120));
  }
  original = frame;
  for (int32_t y = 0; y < mh; ++y)
    for (int32_t x = 0; x < mw; ++x) {
      const float d = std::hypot(float(x - mw / 2), float(y - mh / 2) * 1.2f);
      map[y * mw + x] = static_cast<uint8_t>(std::fmin(255.0f, std::fmax(0.0f, (d - 70.0f) * 8.0f)));
    }
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3), out(rgb.size());
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = frame[i % frame.size()];
  const std::vector<uint8_t> mask = upsample(map, mw, mh, w, h);

  vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, 0, 0);
  double ours = 1e9, mem = 1e9, gegl = 1e9;
  for (int32_t i = 0; i < 15; ++i) {
    memcpy(frame.data(), original.data(), frame.size());
    double t0 = now_ms();
    vmKtrRT_GLStartV1(frame.data(), frame.data() + w * h, map.data(), w / 2, h / 2, 1.4f, 0, 0, 0, w, h);
    ours = std::fmin(ours, now_ms() - t0);
    t0 = now_ms();
    memcpy(copy.data(), original.data(), frame.size());
    mem = std::fmin(mem, now_ms() - t0);
  }
  vmKtrRT_GLClose();
  const double radius = render_max_radius(w, 1.4f);
  for (int32_t i = 0; i < 3; ++i) {
    Gegl g = gegl_setup(rgb.data(), mask.data(), w, h, radius);  // a fresh graph: no cached result
    const double t0 = now_ms();
    gegl_run(g, out.data());
    gegl = std::fmin(gegl, now_ms() - t0);
    gegl_free(g);
  }
  printf("speed, 1920x1080 frame, 320x240 map, f/1.4, one thread (best of runs):\n");
  printf("  memcpy of one NV21 frame   %8.3f ms\n", mem);
  printf("  vmKtrRT_GLStartV1          %8.3f ms  (%.1f x memcpy)\n", ours, ours / mem);
  printf("  gegl:variable-blur         %8.3f ms  (%.1f x memcpy, %.1f x the renderer)\n", gegl, gegl / mem,
         gegl / ours);
}

// Where --dump writes its PGM files; null: no dumps.
const char* g_dumpDir = nullptr;

void dump_luma(int32_t w, int32_t h, const char* name, const uint8_t* img, const uint8_t* against) {
  if (g_dumpDir == nullptr) return;
  char path[1024];
  snprintf(path, sizeof(path), "%s/%dx%d_%s.pgm", g_dumpDir, w, h, name);
  FILE* f = fopen(path, "wb");
  if (f == nullptr) {
    fprintf(stderr, "cannot write %s\n", path);
    return;
  }
  fprintf(f, "P5 %d %d 255\n", w, h);
  for (int32_t i = 0; i < w * h; ++i) {
    const int32_t v = against ? 128 + 4 * (int32_t(img[i]) - against[i]) : img[i];
    fputc(v < 0 ? 0 : (v > 255 ? 255 : v), f);
  }
  fclose(f);
}

void quality(int32_t w, int32_t h, uint32_t seed) {
  const int32_t mw = w / 2, mh = h / 2;
  const float fNumber = 2.0f;
  SceneSpec desc;
  scene_default(&desc, seed);
  // One lens at every frame size: the map (disparity over the largest radius, both in pixels)
  // is then the same at every size and stays below 255, inside the renderer's range.
  desc.lensFocalMm = 110.0f;
  const float focusMm = scene_focus_distance(&desc, 0);
  std::vector<uint8_t> nv21(w * h * 3 / 2), oracle(nv21.size()), rgb(w * h * 3), grgb(rgb.size()), gnv(nv21.size());
  scene_render_nv21(&desc, 0, 0, w, h, 2, nv21.data());
  scene_render_rgb(&desc, 0, 0, w, h, 2, rgb.data());
  scene_render_dof_nv21(&desc, 0, w, h, focusMm, fNumber, 10, oracle.data());
  std::vector<float> disparity(w * h), mapDisparity(mw * mh);
  scene_truth_disparity(&desc, 0, w, h, disparity.data());
  scene_truth_disparity(&desc, 0, mw, mh, mapDisparity.data());
  const float aperture = 0.5f * desc.lensFocalMm / fNumber;
  const float focusDisparity = desc.baselineMm * scene_focal_px(&desc, w) / focusMm;
  const float rmax = render_max_radius(w, fNumber);
  std::vector<uint8_t> map(mw * mh);
  for (size_t i = 0; i < map.size(); ++i) {
    const float d = std::isfinite(mapDisparity[i]) ? mapDisparity[i] * w / mw : 0.0f;
    map[i] = static_cast<uint8_t>(
        std::fmin(255.0f, 255.0f * aperture / desc.baselineMm * std::fabs(d - focusDisparity) / rmax + 0.5f));
  }
  const size_t clipped = static_cast<size_t>(std::count(map.begin(), map.end(), uint8_t{255}));
  std::vector<uint8_t> ours = nv21;
  vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, 0, 0);
  vmKtrRT_GLStartV1(ours.data(), ours.data() + w * h, map.data(), w / 2, h / 2, fNumber, 0, 0, 0, w, h);
  vmKtrRT_GLClose();
  const std::vector<uint8_t> mask = upsample(map, mw, mh, w, h);

  std::vector<uint8_t> all(w * h, 1), band(w * h, 0);
  const int32_t reach = (16 * w + 1919) / 1920;
  for (int32_t y = 0; y + 1 < h; ++y)
    for (int32_t x = 0; x + 1 < w; ++x) {
      auto d = [&](int32_t xx, int32_t yy) {
        const float v = disparity[yy * w + xx];
        return std::isfinite(v) ? v : 0.0f;
      };
      if (std::fabs(d(x, y) - d(x + 1, y)) < 1.0f && std::fabs(d(x, y) - d(x, y + 1)) < 1.0f) continue;
      for (int32_t dy = -reach; dy <= reach; ++dy)
        for (int32_t dx = -reach; dx <= reach; ++dx)
          if (x + dx >= 0 && x + dx < w && y + dy >= 0 && y + dy < h) band[(y + dy) * w + x + dx] = 1;
    }
  // The band split by side: the in-focus side (map at most 16) shows sharpening or bleeding of
  // the subject, the blurred side halos and what a single view cannot see behind the subject.
  std::vector<uint8_t> bandSharp(band.size()), bandBlurred(band.size());
  for (size_t i = 0; i < band.size(); ++i) {
    bandSharp[i] = band[i] && mask[i] <= 16;
    bandBlurred[i] = band[i] && mask[i] > 16;
  }
  printf("quality, scene %u at %dx%d, f/%.1f, map %dx%d (%.2f%% at 255), luma PSNR against the oracle\n", seed, w, h,
         fNumber, mw, mh, 100.0 * clipped / map.size());
  printf("  (all / %d-px edge band / its in-focus side / its blurred side):\n", reach);
  auto line = [&](const char* name, const uint8_t* img) {
    printf("  %-27s%6.2f / %6.2f / %6.2f / %6.2f dB\n", name, psnr(img, oracle.data(), all),
           psnr(img, oracle.data(), band), psnr(img, oracle.data(), bandSharp), psnr(img, oracle.data(), bandBlurred));
  };
  line("sharp input", nv21.data());
  line("vmKtrRT_GLStartV1", ours.data());
  dump_luma(w, h, "oracle", oracle.data(), nullptr);
  dump_luma(w, h, "input", nv21.data(), nullptr);
  dump_luma(w, h, "renderer", ours.data(), nullptr);
  dump_luma(w, h, "renderer_error", ours.data(), oracle.data());
  for (uint8_t& b : band) b = b ? 255 : 0;
  dump_luma(w, h, "band", band.data(), nullptr);
  // GEGL's radius property: try the largest disc radius and half of it (a Gaussian's deviation
  // for the same spread); report both.
  for (double radius : {double(rmax), rmax / 2.0}) {
    Gegl g = gegl_setup(rgb.data(), mask.data(), w, h, radius);
    gegl_run(g, grgb.data());
    gegl_free(g);
    scene_rgb_to_nv21(grgb.data(), w, h, gnv.data());
    char name[64];
    snprintf(name, sizeof(name), "gegl:variable-blur r=%.2f", radius);
    line(name, gnv.data());
    snprintf(name, sizeof(name), "gegl_r%.0f", radius);
    dump_luma(w, h, name, gnv.data(), nullptr);
    snprintf(name, sizeof(name), "gegl_r%.0f_error", radius);
    dump_luma(w, h, name, gnv.data(), oracle.data());
  }
}

int body(int argc, char** argv) {
  gegl_init(&argc, &argv);  // takes GEGL's own options out of argv first
  g_object_set(gegl_config(), "threads", 1, "use-opencl", FALSE, nullptr);
  bool withSpeed = true, fullHd = false;
  std::string dumpDir;
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      printf(
          "usage: gegl_compare [--quality-only] [--full-hd] [--dump DIR]\n"
          "  --quality-only  no speed comparison\n"
          "  --full-hd       also the scene at 1920 x 1080 (its oracle takes minutes)\n"
          "  --dump DIR      luma planes and error images of each scene as PGM files into DIR\n"
          "%s",
          kToolExitCodesHelp);
      return kToolExitDone;
    } else if (args.is("--quality-only")) {
      withSpeed = false;
    } else if (args.is("--full-hd")) {
      fullHd = true;
    } else if (args.is("--dump")) {
      std::string why;
      if (args.string_value(&dumpDir) && !tool_make_dirs(dumpDir, &why)) args.fail("--dump " + why);
    } else {
      args.unknown();
    }
  }
  if (args.failed()) {
    fprintf(stderr, "gegl_compare: %s\n", args.error().c_str());
    return kToolExitUsage;
  }
  if (!dumpDir.empty()) g_dumpDir = dumpDir.c_str();
  if (withSpeed) speed();
  quality(320, 180, 5);
  quality(640, 360, 7);
  quality(960, 540, 5);
  if (fullHd) quality(1920, 1080, 5);
  gegl_exit();
  return kToolExitDone;
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main("gegl_compare", argc, argv, body);
}
