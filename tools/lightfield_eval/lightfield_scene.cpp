// vm_lightfield_scene - writes a 9 x 9 light field in the layout vm_lightfield_eval reads: thin
// textured triangles before a textured plane, the case where bokeh loses the tips of in-focus
// structures first. Views are rendered exactly (4 x 4 samples per pixel), so the shift-and-add
// refocus of them is a true photograph of this scene.
#include <math.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "host_outputs.h"
#include "image_io.h"
#include "tool_cli.h"

namespace {

const char kTool[] = "vm_lightfield_scene";

struct Options {
  std::string out;
  int32_t side = 512;
  double nearD = 0.5, farD = -1.0;  // view steps
  uint32_t seed = 1;
};

// Triangles in units of the side: centre x, base width, tip y, base y (pointing up).
struct Triangle {
  float cx, base, tipY, baseY;
};
const Triangle kTriangles[] = {{0.156f, 0.0273f, 0.117f, 0.918f},
                               {0.332f, 0.0195f, 0.176f, 0.918f},
                               {0.488f, 0.0156f, 0.078f, 0.918f},
                               {0.645f, 0.0117f, 0.234f, 0.918f},
                               {0.820f, 0.0234f, 0.137f, 0.918f}};

float hash01(int32_t x, int32_t y, uint32_t s) {
  uint32_t h = uint32_t(x) * 374761393u + uint32_t(y) * 668265263u + s * 2246822519u;
  h = (h ^ (h >> 13)) * 1274126177u;
  return float((h ^ (h >> 16)) & 0xffffu) / 65535.0f;
}

float value_noise(float x, float y, uint32_t s) {
  const float fx0 = floorf(x), fy0 = floorf(y);
  const int32_t xi = int32_t(fx0), yi = int32_t(fy0);
  float fx = x - fx0, fy = y - fy0;
  fx = fx * fx * (3 - 2 * fx);
  fy = fy * fy * (3 - 2 * fy);
  const float a = hash01(xi, yi, s), b = hash01(xi + 1, yi, s), c = hash01(xi, yi + 1, s),
              d = hash01(xi + 1, yi + 1, s);
  return (a + (b - a) * fx) * (1 - fy) + (c + (d - c) * fx) * fy;
}

// Texture of three octaves (3, 9 and 27 px), 0..1.
float texture(float x, float y, uint32_t s) {
  return 0.5f * value_noise(x / 3.0f, y / 3.0f, s) + 0.3f * value_noise(x / 9.0f, y / 9.0f, s + 1) +
         0.2f * value_noise(x / 27.0f, y / 27.0f, s + 2);
}

bool in_triangle(float x, float y, float side) {
  for (const Triangle& t : kTriangles) {
    const float tipY = t.tipY * side, baseY = t.baseY * side;
    if (y < tipY || y > baseY) continue;
    const float half = 0.5f * t.base * side * (y - tipY) / (baseY - tipY);
    if (fabsf(x - t.cx * side) <= half) return true;
  }
  return false;
}

// View (k, r): the centre-view point (x + k d, y + r d) of each layer is seen at (x, y).
void render_view(const Options& o, int32_t k, int32_t r, std::vector<uint8_t>* rgb) {
  const int32_t n = o.side;
  const float side = float(n), dn = float(o.nearD), df = float(o.farD);
  for (int32_t y = 0; y < n; ++y)
    for (int32_t x = 0; x < n; ++x) {
      float acc[3] = {0, 0, 0};
      for (int32_t sy = 0; sy < 4; ++sy)
        for (int32_t sx = 0; sx < 4; ++sx) {
          const float px = x + (sx + 0.5f) / 4, py = y + (sy + 0.5f) / 4;
          const float tx = px + k * dn, ty = py + r * dn;
          if (in_triangle(tx, ty, side)) {
            const float v = texture(tx, ty, o.seed * 8 + 7);
            acc[0] += 200 * v + 40, acc[1] += 170 * v + 30, acc[2] += 90 * v + 20;
          } else {
            const float v = texture(px + k * df, py + r * df, o.seed * 8 + 3);
            acc[0] += 60 * v + 20, acc[1] += 120 * v + 40, acc[2] += 160 * v + 50;
          }
        }
      for (int32_t c = 0; c < 3; ++c) (*rgb)[(size_t(y) * n + x) * 3 + c] = uint8_t(lroundf(acc[c] / 16));
    }
}

void usage(FILE* f) {
  fprintf(f,
          "usage: vm_lightfield_scene --out DIR [--side N] [--near D] [--far D] [--seed N]\n"
          "Writes a 9 x 9 light field in the layout vm_lightfield_eval reads (input_Cam000.png ..\n"
          "input_Cam080.png, gt_disp_lowres.pfm: the centre view's disparity in view steps): five thin\n"
          "textured triangles pointing up (bases 1.2%% .. 2.7%% of the side) at disparity NEAR before a\n"
          "textured plane at FAR.\n"
          "  --out DIR    made when missing\n"
          "  --side N     views N x N, 64..1024 (default 512)\n"
          "  --near D     the triangles' disparity, -4..4 view steps (default 0.5)\n"
          "  --far D      the plane's, -4..4 (default -1); the two must differ\n"
          "  --seed N     texture seed, 0..65535 (default 1)\n"
          "%s",
          kToolExitCodesHelp);
}

bool parse(int argc, char** argv, Options* o, bool* help) {
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      *help = true;
    } else if (args.is("--out")) {
      if (!args.string_value(&o->out)) break;
    } else if (args.is("--side")) {
      if (!args.int_value(64, 1024, &o->side)) break;
    } else if (args.is("--near")) {
      if (!args.double_value(-4, 4, &o->nearD)) break;
    } else if (args.is("--far")) {
      if (!args.double_value(-4, 4, &o->farD)) break;
    } else if (args.is("--seed")) {
      int64_t s = 0;
      if (!args.int_value(0, 65535, &s)) break;
      o->seed = uint32_t(s);
    } else {
      args.unknown();
      break;
    }
  }
  if (!args.failed() && !*help && o->out.empty()) args.fail("--out DIR is required");
  if (!args.failed() && o->nearD == o->farD) args.fail("--near and --far must differ");
  if (args.failed()) {
    fprintf(stderr, "%s: %s\n", kTool, args.error().c_str());
    return false;
  }
  return true;
}

int body(int argc, char** argv) {
  Options o;
  bool help = false;
  if (!parse(argc, argv, &o, &help)) return kToolExitUsage;
  if (help) {
    usage(stdout);
    return kToolExitDone;
  }
  ToolReport report;
  report.tool = kTool;
  std::string error;
  if (!tool_make_dirs(o.out, &error)) {
    report.write_failed(o.out, error);
    return report.finish();
  }
  std::vector<uint8_t> rgb(size_t(o.side) * o.side * 3);
  for (int32_t i = 0; i < 81; ++i) {
    render_view(o, i % 9 - 4, i / 9 - 4, &rgb);
    char name[32];
    snprintf(name, sizeof name, "/input_Cam%03d.png", i);
    const std::string path = o.out + name;
    std::string written;
    if (!host_write_rgb(path, rgb.data(), o.side, o.side, 1, &written, &error)) {
      report.write_failed(path, error);
    } else if (written != path) {  // no PNG support in this build: the reader would not find it
      report.write_failed(path, "written as " + written + " (built without libpng)");
    } else {
      ++report.processed;
    }
  }
  ImageF truth;
  truth.width = truth.height = o.side;
  truth.data.resize(size_t(o.side) * o.side);
  for (int32_t y = 0; y < o.side; ++y)
    for (int32_t x = 0; x < o.side; ++x)
      truth.data[size_t(y) * o.side + x] = float(in_triangle(x + 0.5f, y + 0.5f, float(o.side)) ? o.nearD : o.farD);
  const std::string pfm = o.out + "/gt_disp_lowres.pfm";
  if (!image_write_pfm(pfm, truth, &error)) {
    report.write_failed(pfm, error);
  } else {
    ++report.processed;
  }
  if (report.writeFailures.empty())
    printf("%s: 81 views %dx%d and gt_disp_lowres.pfm, triangles at %.3g, plane at %.3g view steps\n", o.out.c_str(),
           o.side, o.side, o.nearD, o.farD);
  return report.finish();
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main(kTool, argc, argv, body);
}
