// stereo_kernels_impl.h - the stereo row kernels, written once. Each stereo_kernels_*.cpp
// includes this file with VM_STEREO_VB set to the vector size in bytes (0: the plain scalar
// reference), VM_STEREO_TABLE naming its table getter and VM_STEREO_NAME its name. Everything here has internal
// linkage, so sets compiled for different instruction sets never mix.
#ifndef VM_STEREO_VB
#error "define VM_STEREO_VB and VM_STEREO_TABLE before including stereo_kernels_impl.h"
#endif

#include <string.h>

#include "stereo_core.h"
#include "stereo_kernels.h"

#if VM_STEREO_VB > 0 && (defined(__SSE2__) || defined(__AVX2__))
#include <immintrin.h>
#define VM_STEREO_X86 1
#elif VM_STEREO_VB > 0 && defined(__ARM_NEON)
#include <arm_neon.h>
#define VM_STEREO_NEON 1
#endif

namespace {

inline int32_t clampi(int32_t v, int32_t lo, int32_t hi) {
  return v < lo ? lo : v > hi ? hi : v;
}

inline uint32_t pop32(uint32_t v) {
  v = v - ((v >> 1) & 0x55555555u);
  v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
  return (((v + (v >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24;
}

inline uint32_t pop64(uint64_t v) {
  return pop32(uint32_t(v)) + pop32(uint32_t(v >> 32));
}

inline uint16_t sat_add16(uint16_t a, uint16_t b) {
  uint16_t s = uint16_t(a + b);
  return s < a ? uint16_t(0xFFFF) : s;
}

inline uint8_t sat_add8(uint8_t a, uint8_t b) {
  uint32_t t = uint32_t(a) + uint32_t(b);
  return uint8_t(t > 255 ? 255 : t);
}

// Right view word for left pixel x at disparity index k: right[x - dmin - k] = reversed[t0 + k].
inline int32_t reversed_origin(int32_t x, int32_t w, int32_t dmin) {
  return w - 1 - x + dmin;
}

// Scalar pieces shared by every set (edge pixels and the parts that do not vectorise).

template <typename Word>
void census_row_scalar(const uint8_t* const* rows, int32_t x0, int32_t x1, const StereoCensusShape* s, Word* out) {
  const uint8_t* centre = rows[s->ry];
  for (int32_t x = x0; x < x1; ++x) {
    const int32_t c = centre[x];
    Word bits = 0;
    for (int32_t i = 0; i < s->count; ++i)
      bits = Word(bits << 1) | Word(rows[s->ry + s->dy[i]][x + s->dx[i]] < c ? 1u : 0u);
    out[x] = bits;
  }
}

template <typename Word>
void cost_pixel_scalar(Word l, const Word* rr, int32_t k0, int32_t k1, int32_t nd, int32_t bits, uint8_t* c) {
  uint32_t total = 0;
  for (int32_t k = k0; k < k1; ++k) {
    uint8_t v = uint8_t(sizeof(Word) == 8 ? pop64(l ^ rr[k]) : pop32(uint32_t(l ^ rr[k])));
    c[k] = v;
    total += v;
  }
  uint8_t fill = k1 > k0 ? uint8_t(total / uint32_t(k1 - k0)) : uint8_t(bits / 2);
  for (int32_t k = 0; k < k0; ++k) c[k] = fill;
  for (int32_t k = k1; k < nd; ++k) c[k] = fill;
}

// Sub-pixel fit and the stored sample of a unique winner.
inline int16_t refine(const uint16_t* s, int32_t best, int32_t nd, int32_t dmin) {
  int32_t sub = 0;
  if (best > 0 && best < nd - 1) {
    int32_t a = s[best - 1], c = s[best + 1], den = a + c - 2 * int32_t(s[best]);
    if (den > 0) {
      int32_t num = (a - c) * STEREO_SUBPIXEL;
      sub = (num >= 0 ? num + den : num - den) / (2 * den);
    }
    sub = clampi(sub, -STEREO_SUBPIXEL / 2, STEREO_SUBPIXEL / 2);
  }
  return int16_t((dmin + best) * STEREO_SUBPIXEL + sub);
}

#if VM_STEREO_VB == 0

// ---- plain reference ----

const int32_t kLanes = 1, kByteLanes = 1;

void census_row(const uint8_t* const* rows, int32_t width, const StereoCensusShape* s, void* out) {
  if (s->count <= 32)
    census_row_scalar<uint32_t>(rows, 0, width, s, static_cast<uint32_t*>(out));
  else
    census_row_scalar<uint64_t>(rows, 0, width, s, static_cast<uint64_t*>(out));
}

void cost_row(const void* left, const void* rightReversed, int32_t w, int32_t nd, int32_t dmin, int32_t bits, bool wide,
              uint8_t* cost) {
  for (int32_t x = 0; x < w; ++x) {
    // Valid k: 0 <= x - dmin - k < w  <=>  x - dmin - w < k <= x - dmin.
    int32_t k0 = clampi(x - dmin - w + 1, 0, nd), k1 = clampi(x - dmin + 1, 0, nd);
    int32_t t0 = reversed_origin(x, w, dmin);
    if (wide)
      cost_pixel_scalar<uint64_t>(static_cast<const uint64_t*>(left)[x],
                                  static_cast<const uint64_t*>(rightReversed) + t0, k0, k1, nd, bits,
                                  cost + size_t(x) * size_t(nd));
    else
      cost_pixel_scalar<uint32_t>(static_cast<const uint32_t*>(left)[x],
                                  static_cast<const uint32_t*>(rightReversed) + t0, k0, k1, nd, bits,
                                  cost + size_t(x) * size_t(nd));
  }
}

// L(p, k) = C(p, k) + min(L(q, k), L(q, k +- 1) + P1, min L(q) + P2) - min L(q), `prev` and
// `out` with sentinels at both ends. Adds L into the sums; returns min L(p).
template <bool kSet>
uint16_t path_step(const uint16_t* prev, uint16_t minPrev, const uint16_t* c, uint16_t* out, const uint16_t* accIn,
                   uint16_t* accOut, int32_t nd, uint16_t p1, uint16_t p2) {
  const uint16_t* lp = prev + 1;
  uint16_t* lo = out + 1;
  uint16_t bound = uint16_t(minPrev + p2);
  uint16_t newMin = 0xFFFF;
  for (int32_t k = 0; k < nd; ++k) {
    uint16_t a = lp[k] < bound ? lp[k] : bound;
    uint16_t nb = lp[k - 1] < lp[k + 1] ? lp[k - 1] : lp[k + 1];
    nb = uint16_t(nb + p1);
    uint16_t v = a < nb ? a : nb;
    uint16_t l = uint16_t(c[k] + v - minPrev);
    lo[k] = l;
    newMin = l < newMin ? l : newMin;
    accOut[k] = kSet ? l : sat_add16(accIn[k], l);
  }
  return newMin;
}

// The same step in bytes. kMode 0: acc8 = L; 1: acc8 += L; 2: acc16 = acc8In + L; 3: acc16 += L.
template <int kMode>
uint8_t path_step8(const uint8_t* prev, uint8_t minPrev, const uint8_t* c, uint8_t* out, const uint8_t* acc8In,
                   uint8_t* acc8, uint16_t* acc16, int32_t nd, uint8_t p1, uint8_t p2) {
  const uint8_t* lp = prev + 1;
  uint8_t* lo = out + 1;
  uint8_t bound = uint8_t(minPrev + p2);
  uint8_t newMin = 0xFF;
  for (int32_t k = 0; k < nd; ++k) {
    uint8_t a = lp[k] < bound ? lp[k] : bound;
    uint8_t nb = sat_add8(lp[k - 1] < lp[k + 1] ? lp[k - 1] : lp[k + 1], p1);
    uint8_t v = a < nb ? a : nb;
    uint8_t l = uint8_t(c[k] + v - minPrev);
    lo[k] = l;
    newMin = l < newMin ? l : newMin;
    if (kMode == 0) acc8[k] = l;
    if (kMode == 1) acc8[k] = sat_add8(acc8[k], l);
    if (kMode == 2) acc16[k] = sat_add16(acc8In[k], l);
    if (kMode == 3) acc16[k] = sat_add16(acc16[k], l);
  }
  return newMin;
}

void select_row(const uint16_t* sum, int32_t w, int32_t nd, int32_t dmin, int32_t uniqueness, int16_t* dl,
                uint8_t* kind, uint16_t* rowMin, int16_t* rowDisp) {
  for (int32_t x = 0; x < w; ++x) {
    const uint16_t* s = sum + size_t(x) * size_t(nd);
    uint16_t bestCost = 0xFFFF;
    for (int32_t k = 0; k < nd; ++k) bestCost = s[k] < bestCost ? s[k] : bestCost;
    int32_t best = 0;
    while (s[best] != bestCost) ++best;
    // Right view: pixel x - dmin - k sees this cost at disparity k; the first best wins.
    int32_t k0 = clampi(x - dmin - w + 1, 0, nd), k1 = clampi(x - dmin + 1, 0, nd);
    uint16_t* rm = rowMin + (x - dmin);
    int16_t* rd = rowDisp + (x - dmin);
    for (int32_t k = k0; k < k1; ++k) {
      if (s[k] < rm[-k]) {
        rm[-k] = s[k];
        rd[-k] = int16_t(k);
      }
    }
    // Uniqueness: the best cost away from the winner's neighbours.
    uint16_t other = 0xFFFF;
    for (int32_t k = 0; k < best - 1; ++k) other = s[k] < other ? s[k] : other;
    for (int32_t k = best + 2; k < nd; ++k) other = s[k] < other ? s[k] : other;
    if (uint32_t(other) * uint32_t(100 - uniqueness) < uint32_t(bestCost) * 100u) {
      dl[x] = STEREO_INVALID;
      kind[x] = 2;
      continue;
    }
    dl[x] = refine(s, best, nd, dmin);
    kind[x] = 0;
  }
}

// A path step without sums (the one-pass form sums its three paths afterwards), in bytes
// (jumps saturate) or 16 bits (as path_step).
template <typename T>
T path_only(const T* prev, T minPrev, const T* c, T* out, int32_t nd, T p1, T p2) {
  const T* lp = prev + 1;
  T* lo = out + 1;
  const T bound = T(minPrev + p2);
  T newMin = T(~T(0));
  for (int32_t k = 0; k < nd; ++k) {
    T a = lp[k] < bound ? lp[k] : bound;
    T m = lp[k - 1] < lp[k + 1] ? lp[k - 1] : lp[k + 1];
    T nb = sizeof(T) == 1 ? T(sat_add8(uint8_t(m), uint8_t(p1))) : T(m + p1);
    T v = a < nb ? a : nb;
    T l = T(c[k] + v - minPrev);
    lo[k] = l;
    newMin = l < newMin ? l : newMin;
  }
  return newMin;
}

// out = (a + b) + c, saturating.
template <typename T>
void sum3(const T* a, const T* b, const T* c, uint16_t* out, int32_t nd) {
  for (int32_t k = 0; k < nd; ++k) out[k] = sat_add16(sat_add16(a[k], b[k]), c[k]);
}

// The reference has no faster way for small sums: the same selection.
void select_row_small(const uint16_t* sum, int32_t w, int32_t nd, int32_t dmin, int32_t uniqueness, int16_t* dl,
                      uint8_t* kind, uint16_t* rowMin, int16_t* rowDisp) {
  select_row(sum, w, nd, dmin, uniqueness, dl, kind, rowMin, rowDisp);
}

#else

// ---- vectors of VM_STEREO_VB bytes ----

const int32_t kLanes = VM_STEREO_VB / 2, kByteLanes = VM_STEREO_VB;
typedef uint8_t VU8 __attribute__((vector_size(VM_STEREO_VB)));
typedef uint8_t VU8H __attribute__((vector_size(VM_STEREO_VB / 2)));
typedef uint16_t VU16 __attribute__((vector_size(VM_STEREO_VB)));
typedef int16_t VI16 __attribute__((vector_size(VM_STEREO_VB)));
typedef uint32_t VU32 __attribute__((vector_size(VM_STEREO_VB)));
typedef uint64_t VU64 __attribute__((vector_size(VM_STEREO_VB)));

template <typename V, typename T>
inline V loadv(const T* p) {
  V v;
  memcpy(&v, p, sizeof(v));
  return v;
}

template <typename V, typename T>
inline void storev(T* p, V v) {
  memcpy(p, &v, sizeof(v));
}

inline VU16 min16(VU16 a, VU16 b) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  return VU16(_mm256_min_epu16(__m256i(a), __m256i(b)));
#elif defined(VM_STEREO_X86) && defined(__SSE4_1__)
  return VU16(_mm_min_epu16(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_X86)
  return a - VU16(_mm_subs_epu16(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_NEON)
  return VU16(vminq_u16(uint16x8_t(a), uint16x8_t(b)));
#else
  return a < b ? a : b;
#endif
}

inline VU16 max16(VU16 a, VU16 b) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  return VU16(_mm256_max_epu16(__m256i(a), __m256i(b)));
#elif defined(VM_STEREO_X86) && defined(__SSE4_1__)
  return VU16(_mm_max_epu16(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_X86)
  return b + VU16(_mm_subs_epu16(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_NEON)
  return VU16(vmaxq_u16(uint16x8_t(a), uint16x8_t(b)));
#else
  return a > b ? a : b;
#endif
}

// Lanes of a where the mask (all ones or all zeros per lane) is set, of b elsewhere: one
// instruction where the target has a blend, and / and-not / or otherwise.
inline VU16 blend16(VU16 mask, VU16 a, VU16 b) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  return VU16(_mm256_blendv_epi8(__m256i(b), __m256i(a), __m256i(mask)));
#elif defined(VM_STEREO_X86) && defined(__SSE4_1__)
  return VU16(_mm_blendv_epi8(__m128i(b), __m128i(a), __m128i(mask)));
#elif defined(VM_STEREO_NEON)
  return VU16(vbslq_u16(uint16x8_t(mask), uint16x8_t(a), uint16x8_t(b)));
#else
  return (a & mask) | (b & ~mask);
#endif
}

inline VU16 adds16(VU16 a, VU16 b) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  return VU16(_mm256_adds_epu16(__m256i(a), __m256i(b)));
#elif defined(VM_STEREO_X86)
  return VU16(_mm_adds_epu16(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_NEON)
  return VU16(vqaddq_u16(uint16x8_t(a), uint16x8_t(b)));
#else
  VU16 s = a + b;
  return s | VU16(s < a);
#endif
}

inline uint16_t hmin16(VU16 v) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  // Halves, then the minimum of eight in one instruction.
  const __m128i m = _mm_min_epu16(_mm256_castsi256_si128(__m256i(v)), _mm256_extracti128_si256(__m256i(v), 1));
  return uint16_t(_mm_cvtsi128_si32(_mm_minpos_epu16(m)));
#elif VM_STEREO_VB == 32
  v = min16(v, __builtin_shufflevector(v, v, 8, 9, 10, 11, 12, 13, 14, 15, 0, 1, 2, 3, 4, 5, 6, 7));
  v = min16(v, __builtin_shufflevector(v, v, 4, 5, 6, 7, 0, 1, 2, 3, 12, 13, 14, 15, 8, 9, 10, 11));
  v = min16(v, __builtin_shufflevector(v, v, 2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13));
  v = min16(v, __builtin_shufflevector(v, v, 1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14));
  return v[0];
#elif defined(VM_STEREO_X86) && defined(__SSE4_1__)
  return uint16_t(_mm_cvtsi128_si32(_mm_minpos_epu16(__m128i(v))));
#elif defined(VM_STEREO_NEON) && defined(__aarch64__)
  return vminvq_u16(uint16x8_t(v));
#else
  v = min16(v, __builtin_shufflevector(v, v, 4, 5, 6, 7, 0, 1, 2, 3));
  v = min16(v, __builtin_shufflevector(v, v, 2, 3, 0, 1, 6, 7, 4, 5));
  v = min16(v, __builtin_shufflevector(v, v, 1, 0, 3, 2, 5, 4, 7, 6));
  return v[0];
#endif
}

inline VU8 min8(VU8 a, VU8 b) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  return VU8(_mm256_min_epu8(__m256i(a), __m256i(b)));
#elif defined(VM_STEREO_X86)
  return VU8(_mm_min_epu8(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_NEON)
  return VU8(vminq_u8(uint8x16_t(a), uint8x16_t(b)));
#else
  return a < b ? a : b;
#endif
}

inline VU8 adds8(VU8 a, VU8 b) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  return VU8(_mm256_adds_epu8(__m256i(a), __m256i(b)));
#elif defined(VM_STEREO_X86)
  return VU8(_mm_adds_epu8(__m128i(a), __m128i(b)));
#elif defined(VM_STEREO_NEON)
  return VU8(vqaddq_u8(uint8x16_t(a), uint8x16_t(b)));
#else
  VU8 s = a + b;
  return s | VU8(s < a);
#endif
}

inline uint8_t hmin8(VU8 v) {
#if defined(VM_STEREO_X86) && (VM_STEREO_VB == 32 || defined(__SSE4_1__))
#if VM_STEREO_VB == 32
  __m128i m = _mm_min_epu8(_mm256_castsi256_si128(__m256i(v)), _mm256_extracti128_si256(__m256i(v), 1));
#else
  __m128i m = __m128i(v);
#endif
  // Pairs of bytes into 16-bit lanes, then the minimum of eight in one instruction.
  m = _mm_min_epu8(m, _mm_srli_epi16(m, 8));
  m = _mm_and_si128(m, _mm_set1_epi16(0xFF));
  return uint8_t(_mm_cvtsi128_si32(_mm_minpos_epu16(m)));
#elif defined(VM_STEREO_NEON) && defined(__aarch64__)
  return vminvq_u8(uint8x16_t(v));
#else
  uint8_t m = v[0];
  for (int32_t i = 1; i < kByteLanes; ++i) m = v[i] < m ? v[i] : m;
  return m;
#endif
}

// Bytes kByteLanes / 2 .. of a vector (half 0 or 1) widened to 16 bits.
inline VU16 widen8(VU8 v, int half) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  const __m128i h = half == 0 ? _mm256_castsi256_si128(__m256i(v)) : _mm256_extracti128_si256(__m256i(v), 1);
  return VU16(_mm256_cvtepu8_epi16(h));
#elif defined(VM_STEREO_X86)
  return half == 0 ? VU16(_mm_unpacklo_epi8(__m128i(v), _mm_setzero_si128()))
                   : VU16(_mm_unpackhi_epi8(__m128i(v), _mm_setzero_si128()));
#else
#if VM_STEREO_VB == 32
  const VU8H lo = __builtin_shufflevector(v, v, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  const VU8H hi = __builtin_shufflevector(v, v, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31);
#else
  const VU8H lo = __builtin_shufflevector(v, v, 0, 1, 2, 3, 4, 5, 6, 7);
  const VU8H hi = __builtin_shufflevector(v, v, 8, 9, 10, 11, 12, 13, 14, 15);
#endif
  return __builtin_convertvector(half == 0 ? lo : hi, VU16);
#endif
}

inline uint32_t hsum16(VU16 v) {
  uint32_t t = 0;
  for (int32_t i = 0; i < kLanes; ++i) t += v[i];
  return t;
}

inline VU16 reverse16(VU16 v) {
#if VM_STEREO_VB == 32
  return __builtin_shufflevector(v, v, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
#else
  return __builtin_shufflevector(v, v, 7, 6, 5, 4, 3, 2, 1, 0);
#endif
}

// The low 16 bits of each 32-bit lane of a and then b.
inline VU16 narrow32(VU32 a, VU32 b) {
  VU16 x = VU16(a), y = VU16(b);
#if VM_STEREO_VB == 32
  return __builtin_shufflevector(x, y, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
#else
  return __builtin_shufflevector(x, y, 0, 2, 4, 6, 8, 10, 12, 14);
#endif
}

inline VU32 narrow64(VU64 a, VU64 b) {
  VU32 x = VU32(a), y = VU32(b);
#if VM_STEREO_VB == 32
  return __builtin_shufflevector(x, y, 0, 2, 4, 6, 8, 10, 12, 14);
#else
  return __builtin_shufflevector(x, y, 0, 2, 4, 6);
#endif
}

inline VU16 iota16() {
  VU16 v;
  for (int32_t i = 0; i < kLanes; ++i) v[i] = uint16_t(i);
  return v;
}

#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
// Bit counts per byte from a 16-entry table (both 128-bit halves hold it).
inline __m256i popcount_bytes(__m256i x) {
  const __m256i table =
      _mm256_setr_epi8(0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4, 0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4);
  const __m256i low = _mm256_set1_epi8(0x0F);
  return _mm256_add_epi8(_mm256_shuffle_epi8(table, _mm256_and_si256(x, low)),
                         _mm256_shuffle_epi8(table, _mm256_and_si256(_mm256_srli_epi16(x, 4), low)));
}

inline VU32 popcount32v(VU32 v) {
  const __m256i pairs = _mm256_maddubs_epi16(popcount_bytes(__m256i(v)), _mm256_set1_epi8(1));
  return VU32(_mm256_madd_epi16(pairs, _mm256_set1_epi16(1)));
}

inline VU64 popcount64v(VU64 v) {
  return VU64(_mm256_sad_epu8(popcount_bytes(__m256i(v)), _mm256_setzero_si256()));
}
#elif defined(VM_STEREO_NEON)
inline VU32 popcount32v(VU32 v) {
  return VU32(vpaddlq_u16(vpaddlq_u8(vcntq_u8(uint8x16_t(v)))));
}

inline VU64 popcount64v(VU64 v) {
  return VU64(vpaddlq_u32(vpaddlq_u16(vpaddlq_u8(vcntq_u8(uint8x16_t(v))))));
}
#else
inline VU32 popcount32v(VU32 v) {
  v = v - ((v >> 1) & 0x55555555u);
  v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
  v = (v + (v >> 4)) & 0x0F0F0F0Fu;
  v = v + (v >> 8);
  return (v + (v >> 16)) & 0x7Fu;
}

inline VU64 popcount64v(VU64 v) {
  v = v - ((v >> 1) & 0x5555555555555555ull);
  v = (v & 0x3333333333333333ull) + ((v >> 2) & 0x3333333333333333ull);
  v = (v + (v >> 4)) & 0x0F0F0F0F0F0F0F0Full;
  v = v + (v >> 8);
  v = v + (v >> 16);
  return (v + (v >> 32)) & 0x7Full;
}
#endif

// Census: per window offset one byte-wide comparison of VB pixels, appended to the byte that
// holds that bit; bytes are joined into words at the end.
// Four byte planes (bit 0..7, 8..15, ...) of VB pixels joined into VB 32-bit words.
inline void join_words(const VU8* acc, uint32_t* out) {
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  const __m256i a0 = __m256i(acc[0]), a1 = __m256i(acc[1]), a2 = __m256i(acc[2]), a3 = __m256i(acc[3]);
  const __m256i lo01 = _mm256_unpacklo_epi8(a0, a1), hi01 = _mm256_unpackhi_epi8(a0, a1);
  const __m256i lo23 = _mm256_unpacklo_epi8(a2, a3), hi23 = _mm256_unpackhi_epi8(a2, a3);
  const __m256i w0 = _mm256_unpacklo_epi16(lo01, lo23), w1 = _mm256_unpackhi_epi16(lo01, lo23);
  const __m256i w2 = _mm256_unpacklo_epi16(hi01, hi23), w3 = _mm256_unpackhi_epi16(hi01, hi23);
  // Each 128-bit half holds its own pixels: pixels 0..15 in the low halves, 16..31 in the high.
  storev(out, _mm256_permute2x128_si256(w0, w1, 0x20));
  storev(out + 8, _mm256_permute2x128_si256(w2, w3, 0x20));
  storev(out + 16, _mm256_permute2x128_si256(w0, w1, 0x31));
  storev(out + 24, _mm256_permute2x128_si256(w2, w3, 0x31));
#elif VM_STEREO_VB == 16
  const VU8 lo01 = __builtin_shufflevector(acc[0], acc[1], 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
  const VU8 hi01 =
      __builtin_shufflevector(acc[0], acc[1], 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
  const VU8 lo23 = __builtin_shufflevector(acc[2], acc[3], 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
  const VU8 hi23 =
      __builtin_shufflevector(acc[2], acc[3], 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
  storev(out, __builtin_shufflevector(VU16(lo01), VU16(lo23), 0, 8, 1, 9, 2, 10, 3, 11));
  storev(out + 4, __builtin_shufflevector(VU16(lo01), VU16(lo23), 4, 12, 5, 13, 6, 14, 7, 15));
  storev(out + 8, __builtin_shufflevector(VU16(hi01), VU16(hi23), 0, 8, 1, 9, 2, 10, 3, 11));
  storev(out + 12, __builtin_shufflevector(VU16(hi01), VU16(hi23), 4, 12, 5, 13, 6, 14, 7, 15));
#else
  for (int32_t l = 0; l < VM_STEREO_VB; ++l)
    out[l] = uint32_t(acc[0][l]) | uint32_t(acc[1][l]) << 8 | uint32_t(acc[2][l]) << 16 | uint32_t(acc[3][l]) << 24;
#endif
}

// Census: per window offset one byte-wide comparison of VB pixels, appended to the byte that
// holds that bit; bytes are joined into words at the end.
void census_row(const uint8_t* const* rows, int32_t width, const StereoCensusShape* s, void* out) {
  const int32_t bytes = (s->count + 7) / 8;
  const bool narrow = s->count <= 32;
  uint32_t* out32 = static_cast<uint32_t*>(out);
  uint64_t* out64 = static_cast<uint64_t*>(out);
  const uint8_t* centre = rows[s->ry];
  int32_t x = 0;
  for (; x + VM_STEREO_VB <= width; x += VM_STEREO_VB) {
    const VU8 c = loadv<VU8>(centre + x);
    VU8 acc[8] = {};
    for (int32_t i = 0; i < s->count; ++i) {
      const int32_t j = (s->count - 1 - i) >> 3;
      const VU8 v = loadv<VU8>(rows[s->ry + s->dy[i]] + x + s->dx[i]);
      acc[j] = acc[j] + acc[j] - VU8(v < c);  // a true comparison is all ones: minus one adds the bit
    }
    if (narrow) {
      join_words(acc, out32 + x);
      continue;
    }
    for (int32_t l = 0; l < VM_STEREO_VB; ++l) {
      uint64_t word = 0;
      for (int32_t j = 0; j < bytes; ++j) word |= uint64_t(acc[j][l]) << (8 * j);
      out64[x + l] = word;
    }
  }
  if (narrow)
    census_row_scalar<uint32_t>(rows, x, width, s, out32);
  else
    census_row_scalar<uint64_t>(rows, x, width, s, out64);
}

// kLanes costs starting at disparity index k of one pixel.
inline VU16 cost_lanes(uint32_t l, const uint32_t* rr) {
  const VU32 a = popcount32v(loadv<VU32>(rr) ^ l);
  const VU32 b = popcount32v(loadv<VU32>(rr + kLanes / 2) ^ l);
  return narrow32(a, b);
}

inline VU16 cost_lanes(uint64_t l, const uint64_t* rr) {
  const int32_t q = kLanes / 4;
  const VU32 a = narrow64(popcount64v(loadv<VU64>(rr) ^ l), popcount64v(loadv<VU64>(rr + q) ^ l));
  const VU32 b = narrow64(popcount64v(loadv<VU64>(rr + 2 * q) ^ l), popcount64v(loadv<VU64>(rr + 3 * q) ^ l));
  return narrow32(a, b);
}

inline void store_bytes(uint8_t* c, VU16 v) {
  storev(c, __builtin_convertvector(v, VU8H));
}

// 32 costs of a pixel with 32-bit words straight to bytes: table bit counts, byte pairs and word
// halves added, packed, and the 128-bit halves' interleave undone.
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
inline void cost_bytes32(uint32_t l, const uint32_t* rr, uint8_t* c) {
  const __m256i lv = _mm256_set1_epi32(int32_t(l)), one = _mm256_set1_epi8(1);
  __m256i h[4];
  for (int32_t i = 0; i < 4; ++i)
    h[i] = _mm256_maddubs_epi16(popcount_bytes(_mm256_xor_si256(loadv<__m256i>(rr + 8 * i), lv)), one);
  const __m256i packed = _mm256_packus_epi16(_mm256_hadd_epi16(h[0], h[1]), _mm256_hadd_epi16(h[2], h[3]));
  storev(c, _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
}
#endif

template <typename Word>
inline void cost_bytes_inside(Word l, const Word* rr, int32_t nd, uint8_t* c) {
  int32_t k = 0;
#if defined(VM_STEREO_X86) && VM_STEREO_VB == 32
  if (sizeof(Word) == 4)
    for (; k + 32 <= nd; k += 32) cost_bytes32(uint32_t(l), reinterpret_cast<const uint32_t*>(rr) + k, c + k);
#endif
  for (; k < nd; k += kLanes) store_bytes(c + k, cost_lanes(l, rr + k));
}

template <typename Word>
void cost_row_words(const Word* left, const Word* rightReversed, int32_t w, int32_t nd, int32_t dmin, int32_t bits,
                    uint8_t* cost) {
  for (int32_t x = 0; x < w; ++x) {
    const int32_t k0 = clampi(x - dmin - w + 1, 0, nd), k1 = clampi(x - dmin + 1, 0, nd);
    const Word* rr = rightReversed + reversed_origin(x, w, dmin);
    uint8_t* c = cost + size_t(x) * size_t(nd);
    const Word l = left[x];
    if (k0 == 0 && k1 == nd) {
      cost_bytes_inside(l, rr, nd, c);
      continue;
    }
    // Near the sides: every lane computed (the margins are readable), then the lanes whose right
    // pixel is missing get the mean of the others.
    cost_bytes_inside(l, rr, nd, c);
    uint32_t total = 0;
    for (int32_t k = k0; k < k1; ++k) total += c[k];
    const uint8_t fill = k1 > k0 ? uint8_t(total / uint32_t(k1 - k0)) : uint8_t(bits / 2);
    memset(c, fill, size_t(k0));
    memset(c + k1, fill, size_t(nd - k1));
  }
}

void cost_row(const void* left, const void* rightReversed, int32_t w, int32_t nd, int32_t dmin, int32_t bits, bool wide,
              uint8_t* cost) {
  if (wide)
    cost_row_words<uint64_t>(static_cast<const uint64_t*>(left), static_cast<const uint64_t*>(rightReversed), w, nd,
                             dmin, bits, cost);
  else
    cost_row_words<uint32_t>(static_cast<const uint32_t*>(left), static_cast<const uint32_t*>(rightReversed), w, nd,
                             dmin, bits, cost);
}

template <bool kSet>
uint16_t path_step(const uint16_t* prev, uint16_t minPrev, const uint16_t* c, uint16_t* out, const uint16_t* accIn,
                   uint16_t* accOut, int32_t nd, uint16_t p1, uint16_t p2) {
  const VU16 bound = VU16{} + uint16_t(minPrev + p2), vp1 = VU16{} + p1, vmin = VU16{} + minPrev;
  VU16 newMin = VU16{} + uint16_t(0xFFFF);
  for (int32_t k = 0; k < nd; k += kLanes) {
    const VU16 a = min16(loadv<VU16>(prev + 1 + k), bound);
    const VU16 nb = min16(loadv<VU16>(prev + k), loadv<VU16>(prev + 2 + k)) + vp1;
    const VU16 l = loadv<VU16>(c + k) + min16(a, nb) - vmin;
    storev(out + 1 + k, l);
    newMin = min16(newMin, l);
    storev(accOut + k, kSet ? l : adds16(loadv<VU16>(accIn + k), l));
  }
  return hmin16(newMin);
}

template <int kMode>
uint8_t path_step8(const uint8_t* prev, uint8_t minPrev, const uint8_t* c, uint8_t* out, const uint8_t* acc8In,
                   uint8_t* acc8, uint16_t* acc16, int32_t nd, uint8_t p1, uint8_t p2) {
  const VU8 bound = VU8{} + uint8_t(minPrev + p2), vp1 = VU8{} + p1, vmin = VU8{} + minPrev;
  VU8 newMin = VU8{} + uint8_t(0xFF);
  for (int32_t k = 0; k < nd; k += kByteLanes) {
    const VU8 a = min8(loadv<VU8>(prev + 1 + k), bound);
    const VU8 nb = adds8(min8(loadv<VU8>(prev + k), loadv<VU8>(prev + 2 + k)), vp1);
    const VU8 l = loadv<VU8>(c + k) + min8(a, nb) - vmin;
    storev(out + 1 + k, l);
    newMin = min8(newMin, l);
    if (kMode == 0) storev(acc8 + k, l);
    if (kMode == 1) storev(acc8 + k, adds8(loadv<VU8>(acc8 + k), l));
    if (kMode >= 2) {
      const uint16_t* from = kMode == 2 ? nullptr : acc16 + k;
      VU16 s0 = kMode == 2 ? widen8(loadv<VU8>(acc8In + k), 0) : loadv<VU16>(from);
      VU16 s1 = kMode == 2 ? widen8(loadv<VU8>(acc8In + k), 1) : loadv<VU16>(from + kLanes);
      storev(acc16 + k, adds16(s0, widen8(l, 0)));
      storev(acc16 + k + kLanes, adds16(s1, widen8(l, 1)));
    }
  }
  return hmin8(newMin);
}

void select_row(const uint16_t* sum, int32_t w, int32_t nd, int32_t dmin, int32_t uniqueness, int16_t* dl,
                uint8_t* kind, uint16_t* rowMin, int16_t* rowDisp) {
  const VU16 iota = iota16(), reversedIota = reverse16(iota), ones = VU16{} + uint16_t(0xFFFF);
  for (int32_t x = 0; x < w; ++x) {
    const uint16_t* s = sum + size_t(x) * size_t(nd);
    // Per lane: the minimum and the first index reaching it. The right view's best costs: lanes
    // reversed because j falls as k rises; lanes outside the image land in the scratch ends.
    // Per lane: the minimum, the first index reaching it, and the minimum of the lane's other
    // entries (lanes start from the first block, so a lane of saturated sums still has an index).
    VU16 m = ones, at = iota, second = ones;
    for (int32_t k = 0; k < nd; k += kLanes) {
      const VU16 v = loadv<VU16>(s + k);
      if (k == 0) {
        m = v;
      } else {
        // Unsigned "less than" as "the minimum moved": min and equality are single instructions.
        const VU16 lower = min16(m, v), kept = VU16(lower == m);
        second = blend16(kept, min16(second, v), m);
        m = lower;
        at = blend16(kept, at, iota + uint16_t(k));
      }
      // The right view's best costs: lanes reversed because j falls as k rises; lanes outside the
      // image land in the scratch ends.
      const int32_t base = x - dmin - k - (kLanes - 1);
      const VU16 vr = reverse16(v), rm = loadv<VU16>(rowMin + base), rd = loadv<VU16>(rowDisp + base);
      const VU16 best = min16(rm, vr), same = VU16(best == rm);
      storev(rowMin + base, best);
      storev(rowDisp + base, blend16(same, rd, reversedIota + uint16_t(k)));
    }
    const uint16_t bestCost = hmin16(m);
    const int32_t best = hmin16(at | ~VU16(m == (VU16{} + bestCost)));
    // Uniqueness: the best cost away from best - 1 .. best + 1. Those three indices sit in three
    // different lanes, one per lane at most: a lane whose first minimum is one of them offers
    // its other entries instead.
    const VU16 near = at - uint16_t(best - 1);  // 0..2 for best - 1 .. best + 1
    const VU16 excluded = VU16(min16(near, VU16{} + uint16_t(2)) == near);
    const VU16 o = blend16(excluded, second, m);
    const uint16_t other = hmin16(o);
    if (uint32_t(other) * uint32_t(100 - uniqueness) < uint32_t(bestCost) * 100u) {
      dl[x] = STEREO_INVALID;
      kind[x] = 2;
      continue;
    }
    dl[x] = refine(s, best, nd, dmin);
    kind[x] = 0;
  }
}

// The same selection for sums below 1023 and nd <= 64 (the byte path forms): each sum and its
// index packed in one 16-bit key, cost << 6 | k, so one minimum finds both the best cost and
// its first index, for the main view and, along the reversed keys, for the right one. rowMin
// holds keys during the row; its real entries are unpacked at the end.
void select_row_small(const uint16_t* sum, int32_t w, int32_t nd, int32_t dmin, int32_t uniqueness, int16_t* dl,
                      uint8_t* kind, uint16_t* rowMin, int16_t* rowDisp) {
  const VU16 iota = iota16(), ones = VU16{} + uint16_t(0xFFFF), index = VU16{} + uint16_t(63);
  for (int32_t x = 0; x < w; ++x) {
    const uint16_t* s = sum + size_t(x) * size_t(nd);
    // Per lane: the smallest key and the smallest of the lane's other keys.
    VU16 m = ones, second = ones;
    for (int32_t k = 0; k < nd; k += kLanes) {
      const VU16 key = (loadv<VU16>(s + k) << 6) | (iota + uint16_t(k));
      second = min16(second, max16(m, key));
      m = min16(m, key);
      const int32_t base = x - dmin - k - (kLanes - 1);
      storev(rowMin + base, min16(loadv<VU16>(rowMin + base), reverse16(key)));
    }
    const uint16_t bestKey = hmin16(m);
    const int32_t best = bestKey & 63;
    // Uniqueness as in select_row: a lane whose first key is best - 1 .. best + 1 offers its
    // other keys instead.
    const VU16 near = (m & index) - uint16_t(best - 1);
    const VU16 excluded = VU16(min16(near, VU16{} + uint16_t(2)) == near);
    const uint16_t otherKey = hmin16(blend16(excluded, second, m));
    const uint32_t other = otherKey == 0xFFFF ? 0xFFFFu : uint32_t(otherKey >> 6);
    if (other * uint32_t(100 - uniqueness) < uint32_t(bestKey >> 6) * 100u) {
      dl[x] = STEREO_INVALID;
      kind[x] = 2;
      continue;
    }
    dl[x] = refine(s, best, nd, dmin);
    kind[x] = 0;
  }
  for (int32_t j = 0; j < w; ++j) {
    const uint16_t key = rowMin[j];
    rowDisp[j] = key == 0xFFFF ? int16_t(STEREO_INVALID) : int16_t(key & 63);
    rowMin[j] = key == 0xFFFF ? uint16_t(0xFFFF) : uint16_t(key >> 6);
  }
}

template <typename T>
struct Lanes;
template <>
struct Lanes<uint8_t> {
  typedef VU8 V;
  static const int32_t n = kByteLanes;
  static V vmin(V a, V b) { return min8(a, b); }
  static V jump(V a, V b) { return adds8(a, b); }
  static uint8_t hmin(V v) { return hmin8(v); }
};
template <>
struct Lanes<uint16_t> {
  typedef VU16 V;
  static const int32_t n = kLanes;
  static V vmin(V a, V b) { return min16(a, b); }
  static V jump(V a, V b) { return a + b; }
  static uint16_t hmin(V v) { return hmin16(v); }
};

template <typename T>
T path_only(const T* prev, T minPrev, const T* c, T* out, int32_t nd, T p1, T p2) {
  typedef Lanes<T> L;
  typedef typename L::V V;
  const V bound = V{} + T(minPrev + p2), vp1 = V{} + p1, vmin = V{} + minPrev;
  V newMin = V{} + T(~T(0));
  for (int32_t k = 0; k < nd; k += L::n) {
    const V a = L::vmin(loadv<V>(prev + 1 + k), bound);
    const V nb = L::jump(L::vmin(loadv<V>(prev + k), loadv<V>(prev + 2 + k)), vp1);
    const V l = loadv<V>(c + k) + L::vmin(a, nb) - vmin;
    storev(out + 1 + k, l);
    newMin = L::vmin(newMin, l);
  }
  return L::hmin(newMin);
}

// The byte form is only used where two path costs fit a byte, so a + b is exact in bytes.
inline void sum3(const uint8_t* a, const uint8_t* b, const uint8_t* c, uint16_t* out, int32_t nd) {
  for (int32_t k = 0; k < nd; k += kByteLanes) {
    const VU8 ab = adds8(loadv<VU8>(a + k), loadv<VU8>(b + k)), vc = loadv<VU8>(c + k);
    storev(out + k, adds16(widen8(ab, 0), widen8(vc, 0)));
    storev(out + k + kLanes, adds16(widen8(ab, 1), widen8(vc, 1)));
  }
}

inline void sum3(const uint16_t* a, const uint16_t* b, const uint16_t* c, uint16_t* out, int32_t nd) {
  for (int32_t k = 0; k < nd; k += kLanes)
    storev(out + k, adds16(adds16(loadv<VU16>(a + k), loadv<VU16>(b + k)), loadv<VU16>(c + k)));
}

#endif  // VM_STEREO_VB

// One row of every path of a pass, pixel by pixel in the pass's order.
void aggregate_row(const StereoAggregateRow* a) {
  const int32_t w = a->width, h = a->height, nd = a->nd, y = a->y;
  const size_t rowStride = size_t(nd) + 2, pathRows = size_t(w + 2) * rowStride, minStride = size_t(w + 2);
  const uint8_t* imgRow = a->img + size_t(y) * size_t(a->stride);
  const uint16_t p1 = uint16_t(a->p1);
  for (int32_t xi = 0; xi < w; ++xi) {
    const int32_t x = a->forward ? xi : w - 1 - xi;
    const uint16_t* c = a->cost + size_t(x) * size_t(nd);
    uint16_t* acc = a->accOut + size_t(x) * size_t(nd);
    const uint16_t* accIn = a->accIn != nullptr ? a->accIn + size_t(x) * size_t(nd) : nullptr;
    const int32_t pix = imgRow[x];
    for (int32_t r = 0; r < a->paths; ++r) {
      const int32_t dx = a->dirs[r][0], dy = a->dirs[r][1];
      const int32_t qx = x + dx, qy = y + dy;
      const bool inside = qx >= 0 && qx < w && qy >= 0 && qy < h;
      const uint16_t* src;
      uint16_t minQ, p2;
      if (inside) {
        // The penalty for a jump shrinks across intensity edges, where depth edges are likely.
        int32_t g = pix - a->img[size_t(qy) * size_t(a->stride) + size_t(qx)];
        p2 = a->p2ForStep[g < 0 ? -g : g];
        src = (dy == 0 ? a->pathCur : a->pathPrev) + size_t(r) * pathRows + size_t(x + 1 + dx) * rowStride;
        minQ = (dy == 0 ? a->minCur : a->minPrev)[size_t(r) * minStride + size_t(x + 1 + dx)];
      } else {
        // Path start: column 0 of the previous rows holds zeros, so L = C.
        p2 = uint16_t(a->p2);
        src = a->pathPrev + size_t(r) * pathRows;
        minQ = 0;
      }
      uint16_t* dst = a->pathCur + size_t(r) * pathRows + size_t(x + 1) * rowStride;
      uint16_t m;
      if (r == 0 && accIn == nullptr)
        m = path_step<true>(src, minQ, c, dst, nullptr, acc, nd, p1, p2);
      else
        m = path_step<false>(src, minQ, c, dst, r == 0 ? accIn : acc, acc, nd, p1, p2);
      a->minCur[size_t(r) * minStride + size_t(x + 1)] = m;
    }
  }
}

// The byte form of aggregate_row (see StereoAggregateRow).
void aggregate_row8(const StereoAggregateRow* a) {
  const int32_t w = a->width, h = a->height, nd = a->nd, y = a->y;
  const size_t rowStride = size_t(nd) + 2, pathRows = size_t(w + 2) * rowStride, minStride = size_t(w + 2);
  const uint8_t* imgRow = a->img + size_t(y) * size_t(a->stride);
  uint8_t* pathPrev = reinterpret_cast<uint8_t*>(a->pathPrev);
  uint8_t* pathCur = reinterpret_cast<uint8_t*>(a->pathCur);
  const uint8_t p1 = uint8_t(a->p1);
  for (int32_t xi = 0; xi < w; ++xi) {
    const int32_t x = a->forward ? xi : w - 1 - xi;
    const size_t at = size_t(x) * size_t(nd);
    const uint8_t* c = a->cost8 + at;
    const int32_t pix = imgRow[x];
    for (int32_t r = 0; r < a->paths; ++r) {
      const int32_t dx = a->dirs[r][0], dy = a->dirs[r][1];
      const int32_t qx = x + dx, qy = y + dy;
      const uint8_t* src;
      uint8_t minQ, p2;
      if (qx >= 0 && qx < w && qy >= 0 && qy < h) {
        int32_t g = pix - a->img[size_t(qy) * size_t(a->stride) + size_t(qx)];
        p2 = uint8_t(a->p2ForStep[g < 0 ? -g : g]);
        src = (dy == 0 ? pathCur : pathPrev) + size_t(r) * pathRows + size_t(x + 1 + dx) * rowStride;
        minQ = uint8_t((dy == 0 ? a->minCur : a->minPrev)[size_t(r) * minStride + size_t(x + 1 + dx)]);
      } else {
        p2 = uint8_t(a->p2);
        src = pathPrev + size_t(r) * pathRows;
        minQ = 0;
      }
      uint8_t* dst = pathCur + size_t(r) * pathRows + size_t(x + 1) * rowStride;
      uint8_t m;
      if (a->acc8In == nullptr)
        m = r == 0 ? path_step8<0>(src, minQ, c, dst, nullptr, a->acc8Out + at, nullptr, nd, p1, p2)
                   : path_step8<1>(src, minQ, c, dst, nullptr, a->acc8Out + at, nullptr, nd, p1, p2);
      else
        m = r == 0 ? path_step8<2>(src, minQ, c, dst, a->acc8In + at, nullptr, a->accOut + at, nd, p1, p2)
                   : path_step8<3>(src, minQ, c, dst, nullptr, nullptr, a->accOut + at, nd, p1, p2);
      a->minCur[size_t(r) * minStride + size_t(x + 1)] = m;
    }
  }
}

// The one-pass form: the left-to-right, top-down and right-to-left paths of row y (regions 0, 1
// and 2 of the path rows), then accOut = (L0 + L1) + L2. The two row directions are walked
// together so that their serial chains overlap; with a->rows == 2 row y + 1 joins in the same
// loop (regions 3 and 4 for its row paths; its top-down path reads row y's from pathCur and
// leaves its own in pathPrev, which then holds the rows above the next pair).
template <typename T, int kRows>
void aggregate_one_pass(const StereoAggregateRow* a, const T* cost) {
  const int32_t w = a->width, nd = a->nd, y = a->y;
  const size_t rowStride = size_t(nd) + 2, region = size_t(w + 2) * rowStride, minStride = size_t(w + 2);
  const size_t cells = size_t(w) * size_t(nd);
  const uint8_t* imgRow = a->img + size_t(y) * size_t(a->stride);
  const uint8_t* upRow = y > 0 ? imgRow - a->stride : imgRow;
  const uint8_t* imgRow2 = imgRow + (kRows == 2 ? a->stride : 0);
  T* prev = reinterpret_cast<T*>(a->pathPrev);
  T* cur = reinterpret_cast<T*>(a->pathCur);
  const T* zeros = prev;  // column 0 of region 0 is never written: a path start
  const T* cost2 = cost + (kRows == 2 ? cells : 0);
  const T p1 = T(a->p1), p2Start = T(a->p2);
  T minLR = 0, minRL = 0, minLR2 = 0, minRL2 = 0;
  uint16_t* minVPrev = a->minPrev + minStride;
  uint16_t* minVCur = a->minCur + minStride;
  for (int32_t xi = 0; xi < w; ++xi) {
    // Left to right at x.
    const int32_t x = xi;
    const size_t cx = size_t(x) * size_t(nd);
    int32_t g;
    if (x > 0) {
      g = int32_t(imgRow[x]) - imgRow[x - 1];
      minLR = path_only<T>(cur + size_t(x) * rowStride, minLR, cost + cx, cur + size_t(x + 1) * rowStride, nd, p1,
                           T(a->p2ForStep[g < 0 ? -g : g]));
      if (kRows == 2) {
        g = int32_t(imgRow2[x]) - imgRow2[x - 1];
        minLR2 = path_only<T>(cur + 3 * region + size_t(x) * rowStride, minLR2, cost2 + cx,
                              cur + 3 * region + size_t(x + 1) * rowStride, nd, p1, T(a->p2ForStep[g < 0 ? -g : g]));
      }
    } else {
      minLR = path_only<T>(zeros, T(0), cost, cur + rowStride, nd, p1, p2Start);
      if (kRows == 2) minLR2 = path_only<T>(zeros, T(0), cost2, cur + 3 * region + rowStride, nd, p1, p2Start);
    }
    // Top-down at x.
    T* vCur = cur + region + size_t(x + 1) * rowStride;
    T* vPrev = prev + region + size_t(x + 1) * rowStride;
    if (y > 0) {
      g = int32_t(imgRow[x]) - upRow[x];
      minVCur[x + 1] =
          path_only<T>(vPrev, T(minVPrev[x + 1]), cost + cx, vCur, nd, p1, T(a->p2ForStep[g < 0 ? -g : g]));
    } else {
      minVCur[x + 1] = path_only<T>(zeros, T(0), cost + cx, vCur, nd, p1, p2Start);
    }
    if (kRows == 2) {
      // Row y's value at x has been read: row y + 1 takes its place.
      g = int32_t(imgRow2[x]) - imgRow[x];
      minVPrev[x + 1] =
          path_only<T>(vCur, T(minVCur[x + 1]), cost2 + cx, vPrev, nd, p1, T(a->p2ForStep[g < 0 ? -g : g]));
    }
    // Right to left at w - 1 - xi.
    const int32_t xr = w - 1 - xi;
    const size_t cr = size_t(xr) * size_t(nd);
    T* rCur = cur + 2 * region;
    T* rCur2 = cur + 4 * region;
    if (xr < w - 1) {
      g = int32_t(imgRow[xr]) - imgRow[xr + 1];
      minRL = path_only<T>(rCur + size_t(xr + 2) * rowStride, minRL, cost + cr, rCur + size_t(xr + 1) * rowStride, nd,
                           p1, T(a->p2ForStep[g < 0 ? -g : g]));
      if (kRows == 2) {
        g = int32_t(imgRow2[xr]) - imgRow2[xr + 1];
        minRL2 = path_only<T>(rCur2 + size_t(xr + 2) * rowStride, minRL2, cost2 + cr,
                              rCur2 + size_t(xr + 1) * rowStride, nd, p1, T(a->p2ForStep[g < 0 ? -g : g]));
      }
    } else {
      minRL = path_only<T>(zeros, T(0), cost + cr, rCur + size_t(xr + 1) * rowStride, nd, p1, p2Start);
      if (kRows == 2)
        minRL2 = path_only<T>(zeros, T(0), cost2 + cr, rCur2 + size_t(xr + 1) * rowStride, nd, p1, p2Start);
    }
  }
  for (int32_t x = 0; x < w; ++x) {
    const size_t at = size_t(x + 1) * rowStride + 1;
    sum3(cur + at, cur + region + at, cur + 2 * region + at, a->accOut + size_t(x) * size_t(nd), nd);
    if (kRows == 2)
      sum3(cur + 3 * region + at, prev + region + at, cur + 4 * region + at, a->accOut + cells + size_t(x) * size_t(nd),
           nd);
  }
}

void aggregate_one_pass16(const StereoAggregateRow* a) {
  if (a->rows == 2)
    aggregate_one_pass<uint16_t, 2>(a, a->cost);
  else
    aggregate_one_pass<uint16_t, 1>(a, a->cost);
}

void aggregate_one_pass8(const StereoAggregateRow* a) {
  if (a->rows == 2)
    aggregate_one_pass<uint8_t, 2>(a, a->cost8);
  else
    aggregate_one_pass<uint8_t, 1>(a, a->cost8);
}

const StereoKernels kTable = {VM_STEREO_NAME,  kLanes,         kByteLanes,           census_row,          cost_row,
                              aggregate_row,   aggregate_row8, aggregate_one_pass16, aggregate_one_pass8, select_row,
                              select_row_small};

}  // namespace

const StereoKernels* VM_STEREO_TABLE(void) {
  return &kTable;
}
