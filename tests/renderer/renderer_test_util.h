// renderer_test_util.h - small frames, maps and a fixture that sets the reference renderer up.
#ifndef VMKTR_TESTS_RENDERER_TEST_UTIL_H
#define VMKTR_TESTS_RENDERER_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "renderer_internal.h"

struct Frame {
  int32_t width, height;
  std::vector<uint8_t> data;  // luma then chroma, exactly sized
  uint8_t* luma() { return data.data(); }
  uint8_t* chroma() { return data.data() + static_cast<size_t>(width) * height; }
  uint8_t& y(int32_t x, int32_t yy) { return data[static_cast<size_t>(yy) * width + x]; }
};

inline Frame make_frame(int32_t w, int32_t h, uint8_t luma, uint8_t chroma) {
  Frame f{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 3 / 2, chroma)};
  std::fill(f.data.begin(), f.data.begin() + static_cast<size_t>(w) * h, luma);
  return f;
}

// Textured frame: deterministic noise in luma and chroma.
inline Frame make_textured(int32_t w, int32_t h, uint32_t seed) {
  Frame f{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h * 3 / 2)};
  uint32_t s = seed;
  for (auto& b : f.data) {
    s = s * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(40 + ((s >> 24) % 176));
  }
  return f;
}

class RendererFixture : public ::testing::Test {
 protected:
  void TearDown() override { vmKtrRT_GLClose(); }
  int32_t init(int32_t pw, int32_t ph, int32_t dw, int32_t dh, int32_t mw, int32_t mh, int32_t portrait = 0,
               int32_t format = 0) {
    return vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, pw, ph, dw, dh, mw, mh, pw, ph, portrait, 0, format, 0);
  }
};

#endif  // VMKTR_TESTS_RENDERER_TEST_UTIL_H
