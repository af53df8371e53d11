// synth_scene.cpp - ray-cast synthetic stereo scenes, their ground truth and the depth-of-field
// oracle. Lambertian shading with a fixed light, so both cameras see the same surface colours.
#include "synth_scene.h"

#include <math.h>
#include <string.h>

#include <vector>

#include "calib_block.h"

namespace {

struct V3 {
  float x, y, z;
};
V3 v3(float x, float y, float z) {
  return V3{x, y, z};
}
V3 operator+(V3 a, V3 b) {
  return v3(a.x + b.x, a.y + b.y, a.z + b.z);
}
V3 operator-(V3 a, V3 b) {
  return v3(a.x - b.x, a.y - b.y, a.z - b.z);
}
V3 operator*(V3 a, float s) {
  return v3(a.x * s, a.y * s, a.z * s);
}
float dot(V3 a, V3 b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}
V3 normalize(V3 a) {
  float n = sqrtf(dot(a, a));
  return n > 0 ? a * (1.0f / n) : a;
}
V3 from(const float* p) {
  return v3(p[0], p[1], p[2]);
}

// Small helpers are always inlined, so that the AVX2 copy of the texture noise compiles them
// with AVX2 too.
#define VM_INLINE inline __attribute__((always_inline))

// One 32-bit hash for a value or, in the texture's four-point path, a vector of four.
template <typename T>
VM_INLINE T hash32(T x) {
  x ^= x >> 16;
  x *= 0x7feb352dU;
  x ^= x >> 15;
  x *= 0x846ca68bU;
  x ^= x >> 16;
  return x;
}
float unit(uint32_t h) {
  return float(h >> 8) * (1.0f / 16777216.0f);
}

// splitmix-style generator for scene placement.
struct Rng {
  uint64_t s;
  float next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    z ^= z >> 31;
    return float(z >> 40) * (1.0f / 16777216.0f);
  }
  float range(float lo, float hi) { return lo + (hi - lo) * next(); }
};

template <typename T>
VM_INLINE T smooth(T t) {
  return t * t * (3.0f - 2.0f * t);
}

float value_noise(V3 p, uint32_t seed) {
  float fx = floorf(p.x), fy = floorf(p.y), fz = floorf(p.z);
  int32_t ix = int32_t(fx), iy = int32_t(fy), iz = int32_t(fz);
  float tx = smooth(p.x - fx), ty = smooth(p.y - fy), tz = smooth(p.z - fz);
  // Each corner's value is hash32(x * 0x8da6b343 ^ hash32(y * 0xd8163841 ^ hash32(z * 0xcb1ab31f ^
  // seed))); the inner hashes the corners share are computed once.
  float c[8];
  for (int k = 0; k < 2; ++k) {
    const uint32_t hz = hash32(uint32_t(iz + k) * 0xcb1ab31fU ^ seed);
    for (int j = 0; j < 2; ++j) {
      const uint32_t hyz = hash32(uint32_t(iy + j) * 0xd8163841U ^ hz);
      for (int i = 0; i < 2; ++i) c[k * 4 + j * 2 + i] = unit(hash32(uint32_t(ix + i) * 0x8da6b343U ^ hyz));
    }
  }
  float x00 = c[0] + (c[1] - c[0]) * tx, x10 = c[2] + (c[3] - c[2]) * tx;
  float x01 = c[4] + (c[5] - c[4]) * tx, x11 = c[6] + (c[7] - c[6]) * tx;
  float y0 = x00 + (x10 - x00) * ty, y1 = x01 + (x11 - x01) * ty;
  return y0 + (y1 - y0) * tz;
}

// The same noise at four points at once, in the compiler's generic vectors (SSE2 or NEON where
// there are, plain code where not): the texture is most of a frame's drawing time. Every lane
// does value_noise's float operations in its order, so the bytes are the same; floor and the
// integer conversion are written so that lanes of any magnitude match the scalar calls.
typedef float F4 __attribute__((vector_size(16)));
typedef int32_t I4 __attribute__((vector_size(16)));
typedef uint32_t U4 __attribute__((vector_size(16)));

// floorf per lane: below 2^23 in magnitude through the truncated integer, above it every float is
// already whole (and the conversion could overflow). NaN stays NaN.
VM_INLINE F4 floor4(F4 v) {
  const F4 big = {8388608.0f, 8388608.0f, 8388608.0f, 8388608.0f};
  const F4 magnitude = (F4)((I4)v & 0x7fffffff);
  const I4 small = magnitude < big;
  const F4 truncated = __builtin_convertvector(__builtin_convertvector(small ? v : F4{}, I4), F4);
  const F4 floored = truncated - (F4)((I4)(truncated > v) & (I4)F4{1.0f, 1.0f, 1.0f, 1.0f});
  return small ? floored : v;
}

// int32_t(f) of a whole float per lane, as the scalar conversion gives it on this target (for the
// out-of-range lanes too): lanes in range convert in the vector, the rest one by one.
VM_INLINE I4 to_int4(F4 f) {
  const F4 limit = {2147483648.0f, 2147483648.0f, 2147483648.0f, 2147483648.0f};
  const I4 inRange = (f < limit) & (f >= -limit);
  I4 out = __builtin_convertvector(inRange ? f : F4{}, I4);
  for (int i = 0; i < 4; ++i)
    if (!inRange[i]) out[i] = int32_t(f[i]);
  return out;
}

VM_INLINE F4 unit4(U4 h) {
  return __builtin_convertvector((I4)(h >> 8), F4) * (1.0f / 16777216.0f);
}

VM_INLINE F4 value_noise4_body(F4 px, F4 py, F4 pz, U4 seed) {
  const F4 fx = floor4(px), fy = floor4(py), fz = floor4(pz);
  const U4 ix = (U4)to_int4(fx), iy = (U4)to_int4(fy), iz = (U4)to_int4(fz);
  const F4 tx = smooth(px - fx), ty = smooth(py - fy), tz = smooth(pz - fz);
  F4 c[8];
  for (uint32_t k = 0; k < 2; ++k) {
    const U4 hz = hash32((iz + k) * 0xcb1ab31fU ^ seed);
    for (uint32_t j = 0; j < 2; ++j) {
      const U4 hyz = hash32((iy + j) * 0xd8163841U ^ hz);
      for (uint32_t i = 0; i < 2; ++i) c[k * 4 + j * 2 + i] = unit4(hash32((ix + i) * 0x8da6b343U ^ hyz));
    }
  }
  const F4 x00 = c[0] + (c[1] - c[0]) * tx, x10 = c[2] + (c[3] - c[2]) * tx;
  const F4 x01 = c[4] + (c[5] - c[4]) * tx, x11 = c[6] + (c[7] - c[6]) * tx;
  const F4 y0 = x00 + (x10 - x00) * ty, y1 = x01 + (x11 - x01) * ty;
  return y0 + (y1 - y0) * tz;
}

// On x86-64 a second copy for processors with AVX2, chosen at run time: SSE2 has no 32-bit lane
// multiply, which the hashes are made of. (Not a load-time resolver: those run before the
// thread sanitizer's runtime is up.)
#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"))) F4 value_noise4_avx2(F4 px, F4 py, F4 pz, U4 seed) {
  return value_noise4_body(px, py, pz, seed);
}
#endif

F4 value_noise4(F4 px, F4 py, F4 pz, U4 seed) {
#if defined(__x86_64__) && defined(__GNUC__)
  static const bool avx2 = __builtin_cpu_supports("avx2");
  if (avx2) return value_noise4_avx2(px, py, pz, seed);
#endif
  return value_noise4_body(px, py, pz, seed);
}

// Albedo of a surface point in object-local coordinates (mm): layered noise from 150 mm down to
// 5 mm so that the texture carries detail at every working resolution, with a pattern per seed.
// The eight noise values it may need are drawn four at a time: octaves 0-3, then octave 4, the
// blotches and the two tints (the blotches are drawn whether or not the pattern uses them).
V3 albedo(const SceneObject& o, V3 local) {
  uint32_t seed = o.texture;
  float freq[5];
  freq[0] = 1.0f / 150.0f;
  for (int k = 1; k < 5; ++k) freq[k] = freq[k - 1] * 2.3f;
  const V3 p4 = local * freq[4], pBlotch = local * (1.0f / 40.0f), pTint = local * (1.0f / 90.0f);
  const F4 octaves = value_noise4(F4{local.x * freq[0], local.x * freq[1], local.x * freq[2], local.x * freq[3]},
                                  F4{local.y * freq[0], local.y * freq[1], local.y * freq[2], local.y * freq[3]},
                                  F4{local.z * freq[0], local.z * freq[1], local.z * freq[2], local.z * freq[3]},
                                  U4{seed, seed + 101u, seed + 202u, seed + 303u});
  const F4 rest = value_noise4(F4{p4.x, pBlotch.x, pTint.x, pTint.x}, F4{p4.y, pBlotch.y, pTint.y, pTint.y},
                               F4{p4.z, pBlotch.z, pTint.z, pTint.z},
                               U4{seed + 404u, seed ^ 0x55u, seed ^ 0x1234u, seed ^ 0x4321u});
  const float noise[5] = {octaves[0], octaves[1], octaves[2], octaves[3], rest[0]};
  float sum = 0, amp = 1, norm = 0;
  for (int k = 0; k < 5; ++k) {
    sum += amp * noise[k];
    norm += amp;
    amp *= 0.7f;
  }
  float n = sum / norm;  // about 0.2..0.8
  float pattern = 0.0f;
  switch (seed % 3) {
    case 1:  // stripes
      pattern = 0.25f * sinf((local.x + local.y * 0.5f) * 0.02f);
      break;
    case 2:  // blotches
      pattern = rest[1] > 0.6f ? -0.25f : 0.0f;
      break;
    default:
      break;
  }
  float m = 0.35f + 0.9f * (n - 0.5f) + pattern + 0.4f;
  if (m < 0.05f) m = 0.05f;
  if (m > 1.2f) m = 1.2f;
  V3 tint = v3(0.5f + rest[2], 1.0f, 0.5f + rest[3]);
  return v3(o.color[0] * m * tint.x, o.color[1] * m, o.color[2] * m * tint.z);
}

struct Hit {
  float t;
  V3 normal;
  int32_t object;
  V3 local;  // hit point relative to the object's centre at this frame
};

bool ellipsoid_hit(V3 o, V3 d, V3 c, V3 r, float* t, V3* n) {
  V3 oc = o - c;
  V3 os = v3(oc.x / r.x, oc.y / r.y, oc.z / r.z), ds = v3(d.x / r.x, d.y / r.y, d.z / r.z);
  float a = dot(ds, ds), b = dot(os, ds), cc = dot(os, os) - 1.0f;
  float disc = b * b - a * cc;
  if (disc < 0 || a <= 0) return false;
  float s = sqrtf(disc);
  float t0 = (-b - s) / a;
  if (t0 <= 1e-3f) t0 = (-b + s) / a;
  if (t0 <= 1e-3f) return false;
  *t = t0;
  V3 p = oc + d * t0;
  *n = normalize(v3(p.x / (r.x * r.x), p.y / (r.y * r.y), p.z / (r.z * r.z)));
  return true;
}

bool box_hit(V3 o, V3 d, V3 c, V3 h, float* t, V3* n) {
  float lo[3] = {c.x - h.x, c.y - h.y, c.z - h.z}, hi[3] = {c.x + h.x, c.y + h.y, c.z + h.z};
  float oo[3] = {o.x, o.y, o.z}, dd[3] = {d.x, d.y, d.z};
  float tmin = -1e30f, tmax = 1e30f;
  int axis = -1;
  float sign = 0;
  for (int i = 0; i < 3; ++i) {
    if (fabsf(dd[i]) < 1e-12f) {
      if (oo[i] < lo[i] || oo[i] > hi[i]) return false;
      continue;
    }
    float a = (lo[i] - oo[i]) / dd[i], b = (hi[i] - oo[i]) / dd[i];
    float s = -1;
    if (a > b) {
      float tmp = a;
      a = b;
      b = tmp;
      s = 1;
    }
    if (a > tmin) {
      tmin = a;
      axis = i;
      sign = s;
    }
    if (b < tmax) tmax = b;
    if (tmin > tmax) return false;
  }
  if (tmin <= 1e-3f || axis < 0) return false;
  *t = tmin;
  float nn[3] = {0, 0, 0};
  nn[axis] = sign;
  *n = v3(nn[0], nn[1], nn[2]);
  return true;
}

// The figure's parts relative to its centre, in units of its height: head, torso, arms, legs.
const float kFigure[6][6] = {
    {0.0f, -0.40f, 0.0f, 0.075f, 0.085f, 0.075f}, {0.0f, -0.13f, 0.0f, 0.15f, 0.21f, 0.09f},
    {-0.20f, -0.12f, 0.0f, 0.045f, 0.2f, 0.045f}, {0.20f, -0.12f, 0.0f, 0.045f, 0.2f, 0.045f},
    {-0.07f, 0.27f, 0.0f, 0.06f, 0.23f, 0.06f},   {0.07f, 0.27f, 0.0f, 0.06f, 0.23f, 0.06f},
};

V3 object_center(const SceneSpec& s, const SceneObject& o, int32_t frame) {
  V3 c = from(o.center);
  if (s.motion == SCENE_OBJECT) c = c + from(o.velocity) * float(frame);
  return c;
}

bool trace(const SceneSpec& s, int32_t frame, V3 o, V3 d, Hit* hit) {
  hit->t = 1e30f;
  hit->object = -1;
  for (int32_t i = 0; i < s.objectCount && i < SCENE_MAX_OBJECTS; ++i) {
    const SceneObject& ob = s.objects[i];
    V3 c = object_center(s, ob, frame);
    float t = 0;
    V3 n = v3(0, 0, 0);
    bool ok = false;
    switch (ob.kind) {
      case SCENE_PLANE: {
        V3 pn = from(ob.size);
        float den = dot(d, pn);
        if (fabsf(den) > 1e-9f) {
          t = dot(c - o, pn) / den;
          ok = t > 1e-3f;
          n = normalize(pn);
        }
        break;
      }
      case SCENE_BOX:
        ok = box_hit(o, d, c, from(ob.size), &t, &n);
        break;
      case SCENE_ELLIPSOID:
        ok = ellipsoid_hit(o, d, c, from(ob.size), &t, &n);
        break;
      case SCENE_FIGURE: {
        float h = ob.size[1];
        for (const float* part : kFigure) {
          float tp;
          V3 np;
          if (ellipsoid_hit(o, d, c + v3(part[0], part[1], part[2]) * h, v3(part[3], part[4], part[5]) * h, &tp, &np) &&
              (!ok || tp < t)) {
            ok = true;
            t = tp;
            n = np;
          }
        }
        break;
      }
      default:
        break;
    }
    if (ok && t < hit->t) {
      hit->t = t;
      hit->normal = n;
      hit->object = i;
      hit->local = o + d * t - c;
    }
  }
  return hit->object >= 0;
}

struct Camera {
  V3 position;
  float cosYaw, sinYaw;
  float fx, fy, cx, cy;
};

Camera camera_for(const SceneSpec& s, int32_t frame, int32_t cam, int32_t width, int32_t height) {
  Camera c;
  float yaw = 0, forward = 0;
  if (s.motion == SCENE_PAN) yaw = s.motionAmount * float(frame) * float(M_PI / 180.0);
  if (s.motion == SCENE_DOLLY) forward = s.motionAmount * float(frame);
  c.cosYaw = cosf(yaw);
  c.sinYaw = sinf(yaw);
  float bx = cam == 1 ? s.baselineMm : 0.0f;
  c.position = v3(bx * c.cosYaw, 0, forward - bx * c.sinYaw);
  float th = tanf(s.hfovDeg * float(M_PI / 360.0));
  c.fx = 0.5f * float(width) / th;
  c.fy = 0.5f * float(height) * s.aspect / th;
  c.cx = 0.5f * float(width - 1);
  c.cy = 0.5f * float(height - 1);
  return c;
}

// Ray direction in world coordinates with unit depth along the camera's axis.
V3 ray_dir(const Camera& c, float u, float v) {
  float x = (u - c.cx) / c.fx, y = (v - c.cy) / c.fy;
  return v3(c.cosYaw * x + c.sinYaw, y, -c.sinYaw * x + c.cosYaw);
}

V3 shade(const SceneSpec& s, const Hit& h, V3 d) {
  if (h.object < 0) return v3(0.55f, 0.65f, 0.8f);  // open sky beyond everything
  V3 n = h.normal;
  if (dot(n, d) > 0) n = n * -1.0f;
  const V3 light = normalize(v3(-0.35f, -0.75f, -0.55f));
  float lambert = dot(n, light);
  float lit = 0.4f + 0.6f * (lambert > 0 ? lambert : 0.0f);
  return albedo(s.objects[h.object], h.local) * lit;
}

uint8_t to_byte(float v) {
  v = v * 255.0f + 0.5f;
  return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}

float gaussian(uint32_t key) {
  float u1 = (float(hash32(key) >> 8) + 0.5f) * (1.0f / 16777216.0f);
  float u2 = float(hash32(key ^ 0x68bc21ebU) >> 8) * (1.0f / 16777216.0f);
  return sqrtf(-2.0f * logf(u1)) * cosf(6.2831853f * u2);
}

bool sizes_ok(int32_t w, int32_t h) {
  return w > 0 && h > 0 && w <= 16384 && h <= 16384;
}

// Renders RGB in floating point (0..1 per channel before gain and noise).
// Rows y0..y1-1 only, the band's first row at out (callers may split a picture into bands).
void render_float(const SceneSpec& s, int32_t frame, int32_t cam, int32_t w, int32_t h, int32_t aa, int32_t y0,
                  int32_t y1, float* out) {
  Camera c = camera_for(s, frame, cam, w, h);
  float inv = 1.0f / float(aa * aa);
  for (int32_t y = y0; y < y1; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      V3 acc = v3(0, 0, 0);
      for (int32_t sy = 0; sy < aa; ++sy) {
        for (int32_t sx = 0; sx < aa; ++sx) {
          float u = float(x) + (float(sx) + 0.5f) / float(aa) - 0.5f;
          float v = float(y) + (float(sy) + 0.5f) / float(aa) - 0.5f;
          V3 d = ray_dir(c, u, v);
          Hit hit;
          trace(s, frame, c.position, d, &hit);
          acc = acc + shade(s, hit, d);
        }
      }
      float* p = out + 3 * (size_t(y - y0) * size_t(w) + size_t(x));
      p[0] = acc.x * inv;
      p[1] = acc.y * inv;
      p[2] = acc.z * inv;
    }
  }
}

// Rows y0..y1-1: in holds the band, rgb the whole picture; the noise stays keyed by the
// sample's place in the whole picture, so bands give the same bytes.
void finish_rgb(const SceneSpec& s, int32_t frame, int32_t cam, int32_t w, int32_t y0, int32_t y1, const float* in,
                uint8_t* rgb) {
  float gain = cam == 1 ? s.subGain : 1.0f;
  uint32_t key = hash32(s.seed * 0x9E3779B9U ^ hash32(uint32_t(frame) * 2u + uint32_t(cam)));
  const size_t first = size_t(y0) * size_t(w) * 3, n = size_t(y1) * size_t(w) * 3;
  for (size_t i = first; i < n; ++i) {
    float v = in[i - first] * gain;
    if (s.noiseSigma > 0) v += s.noiseSigma / 255.0f * gaussian(key + uint32_t(i) * 0x27d4eb2fU);
    rgb[i] = to_byte(v);
  }
}

}  // namespace

void scene_default(SceneSpec* desc, uint32_t seed) {
  memset(desc, 0, sizeof(*desc));
  Rng rng{uint64_t(seed) * 0x2545F4914F6CDD1DULL + 1};
  desc->seed = seed;
  desc->hfovDeg = 65.0f;
  desc->aspect = 16.0f / 9.0f;
  desc->baselineMm = 40.0f;
  desc->subGain = 1.0f;
  desc->noiseSigma = 0.0f;
  desc->motion = SCENE_STILL;
  desc->motionAmount = 0.0f;
  desc->nearMm = 700.0f;
  desc->farMm = 8000.0f;
  desc->lensFocalMm = 50.0f;

  auto add = [&](int32_t kind, V3 c, V3 size, V3 color) -> SceneObject& {
    SceneObject& o = desc->objects[desc->objectCount++];
    o.kind = kind;
    o.center[0] = c.x, o.center[1] = c.y, o.center[2] = c.z;
    o.size[0] = size.x, o.size[1] = size.y, o.size[2] = size.z;
    o.texture = hash32(seed * 31u + uint32_t(desc->objectCount));
    o.color[0] = color.x, o.color[1] = color.y, o.color[2] = color.z;
    return o;
  };
  auto colour = [&]() { return v3(rng.range(0.4f, 1.0f), rng.range(0.4f, 1.0f), rng.range(0.4f, 1.0f)); };

  float wallZ = rng.range(3500.0f, 4500.0f);
  add(SCENE_PLANE, v3(0, 0, wallZ), v3(rng.range(-0.15f, 0.15f), 0.0f, -1.0f), colour());
  float floorY = 1300.0f;
  add(SCENE_PLANE, v3(0, floorY, 0), v3(0, -1, 0), colour());
  float bz = rng.range(1900.0f, 2600.0f), bh = rng.range(250.0f, 450.0f);
  add(SCENE_BOX, v3(rng.range(-1000.0f, -500.0f), rng.range(-100.0f, 250.0f), bz),
      v3(rng.range(250.0f, 400.0f), bh, rng.range(200.0f, 350.0f)), colour());
  float sr = rng.range(180.0f, 280.0f);
  add(SCENE_ELLIPSOID, v3(rng.range(450.0f, 850.0f), rng.range(-50.0f, 200.0f), rng.range(1400.0f, 2000.0f)),
      v3(sr, sr, sr), colour());
  float fh = 1300.0f;
  SceneObject& fig = add(SCENE_FIGURE, v3(rng.range(-150.0f, 150.0f), -250.0f + 0.4f * fh, rng.range(1250.0f, 1600.0f)),
                         v3(fh, fh, fh), colour());
  fig.velocity[0] = 1.0f;  // SCENE_OBJECT moves it sideways by motionAmount mm per frame (set below)
  float small = rng.range(70.0f, 110.0f);
  add(SCENE_BOX, v3(rng.range(-700.0f, -400.0f), rng.range(150.0f, 300.0f), rng.range(800.0f, 950.0f)),
      v3(small, small, small), colour());
}

float scene_focal_px(const SceneSpec* desc, int32_t width) {
  return 0.5f * float(width) / tanf(desc->hfovDeg * float(M_PI / 360.0));
}

int32_t scene_render_rgb(const SceneSpec* desc, int32_t frame, int32_t camera, int32_t width, int32_t height,
                         int32_t aa, uint8_t* rgb) {
  return scene_render_rgb_rows(desc, frame, camera, width, height, aa, 0, height, rgb);
}

float scene_value_noise(float x, float y, float z, uint32_t seed) {
  return value_noise(v3(x, y, z), seed);
}

void scene_value_noise4(const float* x, const float* y, const float* z, const uint32_t* seed, float* out) {
  const F4 n = value_noise4(F4{x[0], x[1], x[2], x[3]}, F4{y[0], y[1], y[2], y[3]}, F4{z[0], z[1], z[2], z[3]},
                            U4{seed[0], seed[1], seed[2], seed[3]});
  for (int i = 0; i < 4; ++i) out[i] = n[i];
}

int32_t scene_render_rgb_rows(const SceneSpec* desc, int32_t frame, int32_t camera, int32_t width, int32_t height,
                              int32_t aa, int32_t y0, int32_t y1, uint8_t* rgb) {
  if (desc == nullptr || rgb == nullptr || !sizes_ok(width, height) || aa < 1 || aa > 8 || camera < 0 || camera > 1 ||
      y0 < 0 || y1 > height || y0 >= y1)
    return 1;
  SceneSpec s = *desc;
  if (s.motion == SCENE_OBJECT) {  // the velocity record is a direction; the amount scales it
    for (int32_t i = 0; i < s.objectCount; ++i)
      for (float& v : s.objects[i].velocity) v *= s.motionAmount;
  }
  std::vector<float> f(size_t(width) * size_t(y1 - y0) * 3);
  render_float(s, frame, camera, width, height, aa, y0, y1, f.data());
  finish_rgb(s, frame, camera, width, y0, y1, f.data(), rgb);
  return 0;
}

void scene_rgb_to_nv21(const uint8_t* rgb, int32_t width, int32_t height, uint8_t* nv21) {
  size_t w = size_t(width), h = size_t(height);
  for (size_t i = 0; i < w * h; ++i) {
    const uint8_t* p = rgb + 3 * i;
    nv21[i] = to_byte((0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2]) / 255.0f);
  }
  uint8_t* vu = nv21 + w * h;
  for (size_t y = 0; y < h / 2; ++y) {
    for (size_t x = 0; x < w / 2; ++x) {
      float r = 0, g = 0, b = 0;
      for (size_t k = 0; k < 4; ++k) {
        const uint8_t* p = rgb + 3 * ((2 * y + k / 2) * w + 2 * x + k % 2);
        r += p[0], g += p[1], b += p[2];
      }
      r *= 0.25f, g *= 0.25f, b *= 0.25f;
      vu[2 * (y * (w / 2) + x)] = to_byte((128.0f + 0.5f * r - 0.418688f * g - 0.081312f * b) / 255.0f);
      vu[2 * (y * (w / 2) + x) + 1] = to_byte((128.0f - 0.168736f * r - 0.331264f * g + 0.5f * b) / 255.0f);
    }
  }
}

int32_t scene_render_nv21(const SceneSpec* desc, int32_t frame, int32_t camera, int32_t width, int32_t height,
                          int32_t aa, uint8_t* nv21) {
  if (nv21 == nullptr || (width & 1) || (height & 1)) return 1;
  std::vector<uint8_t> rgb(size_t(width > 0 ? width : 0) * size_t(height > 0 ? height : 0) * 3);
  int32_t r = scene_render_rgb(desc, frame, camera, width, height, aa, rgb.data());
  if (r != 0) return r;
  scene_rgb_to_nv21(rgb.data(), width, height, nv21);
  return 0;
}

int32_t scene_truth_depth(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float* depthMm) {
  if (desc == nullptr || depthMm == nullptr || !sizes_ok(width, height)) return 1;
  SceneSpec s = *desc;
  if (s.motion == SCENE_OBJECT)
    for (int32_t i = 0; i < s.objectCount; ++i)
      for (float& v : s.objects[i].velocity) v *= s.motionAmount;
  Camera c = camera_for(s, frame, 0, width, height);
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      Hit hit;
      bool ok = trace(s, frame, c.position, ray_dir(c, float(x), float(y)), &hit);
      depthMm[size_t(y) * size_t(width) + size_t(x)] = ok ? hit.t : INFINITY;
    }
  }
  return 0;
}

int32_t scene_truth_disparity(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float* disparity) {
  int32_t r = scene_truth_depth(desc, frame, width, height, disparity);
  if (r != 0) return r;
  float fb = scene_focal_px(desc, width) * desc->baselineMm;
  size_t n = size_t(width) * size_t(height);
  for (size_t i = 0; i < n; ++i) disparity[i] = isfinite(disparity[i]) ? fb / disparity[i] : 0.0f;
  return 0;
}

int32_t scene_calibration(const SceneSpec* desc, int32_t mainWidth, int32_t mainHeight, int32_t subWidth,
                          int32_t subHeight, uint8_t* block, int32_t blockSize) {
  if (desc == nullptr || block == nullptr || blockSize < CALIB_BLOCK_SIZE || !(desc->nearMm > 0) ||
      !(desc->farMm > desc->nearMm))
    return 1;
  float fb = scene_focal_px(desc, mainWidth) * desc->baselineMm;
  CalibBlock b;
  calib_block_defaults(&b, mainWidth, mainHeight, subWidth, subHeight, floorf(fb / desc->farMm),
                       ceilf(fb / desc->nearMm));
  b.focalBaseline = fb;
  return calib_block_write(&b, block, size_t(blockSize)) == CALIB_OK ? 0 : 1;
}

float scene_focus_distance(const SceneSpec* desc, int32_t frame) {
  if (desc->motion == SCENE_FOCUS) {
    // A sweep from the near end to the wall and back over 16 frames.
    float t = float(frame % 16) / 8.0f;
    if (t > 1.0f) t = 2.0f - t;
    return 800.0f + t * 3000.0f;
  }
  for (int32_t i = 0; i < desc->objectCount; ++i)
    if (desc->objects[i].kind == SCENE_FIGURE) return desc->objects[i].center[2];
  return 1500.0f;
}

int32_t scene_render_dof_rgb(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float focusMm,
                             float fNumber, int32_t lensSamples, uint8_t* rgb) {
  if (desc == nullptr || rgb == nullptr || !sizes_ok(width, height) || !(focusMm > 0) || !(fNumber > 0) ||
      lensSamples < 1 || lensSamples > 64)
    return 1;
  SceneSpec s = *desc;
  if (s.motion == SCENE_OBJECT)
    for (int32_t i = 0; i < s.objectCount; ++i)
      for (float& v : s.objects[i].velocity) v *= s.motionAmount;
  Camera c = camera_for(s, frame, 0, width, height);
  float lensRadius = 0.5f * s.lensFocalMm / fNumber;
  int32_t n = lensSamples;
  // Lens positions on the disc (concentric mapping of a stratified square), and a sub-pixel
  // offset per lens position so that the average is also antialiased.
  std::vector<float> lx(size_t(n * n)), ly(size_t(n * n)), ox(size_t(n * n)), oy(size_t(n * n));
  for (int32_t j = 0; j < n; ++j) {
    for (int32_t i = 0; i < n; ++i) {
      size_t k = size_t(j * n + i);
      float a = 2.0f * (float(i) + 0.5f) / float(n) - 1.0f, b = 2.0f * (float(j) + 0.5f) / float(n) - 1.0f;
      float r, phi;
      if (n == 1) {
        r = 0, phi = 0;
      } else if (fabsf(a) > fabsf(b)) {
        r = a, phi = float(M_PI / 4) * (b / a);
      } else {
        r = b, phi = float(M_PI / 2) - float(M_PI / 4) * (a / b);
      }
      lx[k] = lensRadius * r * cosf(phi);
      ly[k] = lensRadius * r * sinf(phi);
      ox[k] = n == 1 ? 0.0f : unit(hash32(uint32_t(k) * 2u + 11u)) - 0.5f;
      oy[k] = n == 1 ? 0.0f : unit(hash32(uint32_t(k) * 2u + 12u)) - 0.5f;
    }
  }
  std::vector<float> f(size_t(width) * size_t(height) * 3);
  float inv = 1.0f / float(n * n);
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      V3 acc = v3(0, 0, 0);
      for (size_t k = 0; k < lx.size(); ++k) {
        // Camera-frame pinhole direction, its point on the focal plane, and the ray from the lens.
        float px = (float(x) + ox[k] - c.cx) / c.fx * focusMm, py = (float(y) + oy[k] - c.cy) / c.fy * focusMm;
        float dx = (px - lx[k]) / focusMm, dy = (py - ly[k]) / focusMm;
        V3 d = v3(c.cosYaw * dx + c.sinYaw, dy, -c.sinYaw * dx + c.cosYaw);
        V3 o = c.position + v3(c.cosYaw * lx[k], ly[k], -c.sinYaw * lx[k]);
        Hit hit;
        trace(s, frame, o, d, &hit);
        acc = acc + shade(s, hit, d);
      }
      float* p = f.data() + 3 * (size_t(y) * size_t(width) + size_t(x));
      p[0] = acc.x * inv, p[1] = acc.y * inv, p[2] = acc.z * inv;
    }
  }
  finish_rgb(s, frame, 0, width, 0, height, f.data(), rgb);
  return 0;
}

int32_t scene_render_dof_nv21(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float focusMm,
                              float fNumber, int32_t lensSamples, uint8_t* nv21) {
  if (nv21 == nullptr || (width & 1) || (height & 1)) return 1;
  std::vector<uint8_t> rgb(size_t(width > 0 ? width : 0) * size_t(height > 0 ? height : 0) * 3);
  int32_t r = scene_render_dof_rgb(desc, frame, width, height, focusMm, fNumber, lensSamples, rgb.data());
  if (r != 0) return r;
  scene_rgb_to_nv21(rgb.data(), width, height, nv21);
  return 0;
}
