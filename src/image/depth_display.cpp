// depth_display.cpp - tone curve, palette, depth and grey pictures, markers, histogram, text
// and the depth spread measure of the debug display.
#include "image/depth_display.h"

#include <cmath>
#include <cstring>

#include "debug/debug_log.h"

namespace {

struct ToneSegment {
  uint32_t xStart, run, yStart, rise;
};

// The table's values as they are: the run of 18 over a 28-long segment and the run of 1 of the
// last one make the curve overshoot, and the tone wraps modulo 256 (1022 comes out as 0).
constexpr ToneSegment kTone[] = {
    {4, 8, 1, 2},       {12, 12, 3, 3},     {24, 32, 6, 8},      {56, 72, 14, 18},
    {128, 153, 32, 38}, {281, 237, 70, 59}, {518, 237, 129, 59}, {755, 153, 188, 38},
    {908, 72, 226, 18}, {980, 18, 244, 7},  {1008, 12, 251, 3},  {1020, 1, 254, 1},
};

// Palette points every sixteenth tone (0, 16, ..., 240) and tone 255; entries between are a
// straight ramp.
constexpr uint8_t kRed[17] = {0, 0, 0, 66, 162, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255};
constexpr uint8_t kGreen[17] = {0, 50, 210, 255, 255, 255, 239, 223, 207, 191, 175, 159, 143, 127, 111, 95, 80};
constexpr uint8_t kBlue[17] = {128, 255, 255, 189, 93, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

uint8_t ramp(const uint8_t* points, uint32_t tone) {
  const uint32_t k = tone / 16;
  if (k >= 16) return points[16];
  const int32_t from = points[k];
  const int32_t to = points[k + 1];
  const int32_t span = k == 15 ? 15 : 16;  // the last step runs from 240 to 255
  const int32_t at = static_cast<int32_t>(tone - k * 16);
  return static_cast<uint8_t>(from + (to - from) * at / span);
}

// 5 x 7 glyphs for the codes 0x20..0x7D and a fallback box; each row's bit 4 is the leftmost
// column. They sit in the 8 x 12 cell at column 1, row 2.
constexpr int kGlyphCount = 94;
constexpr uint8_t kFont[kGlyphCount + 1][7] = {
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, {0x04, 0x04, 0x04, 0x04, 0x04, 0x00, 0x04},  // space !
    {0x0A, 0x0A, 0x0A, 0x00, 0x00, 0x00, 0x00}, {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A},  // " #
    {0x04, 0x0F, 0x14, 0x0E, 0x05, 0x1E, 0x04}, {0x18, 0x19, 0x02, 0x04, 0x08, 0x13, 0x03},  // $ %
    {0x0C, 0x12, 0x14, 0x08, 0x15, 0x12, 0x0D}, {0x0C, 0x04, 0x08, 0x00, 0x00, 0x00, 0x00},  // & '
    {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}, {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08},  // ( )
    {0x00, 0x04, 0x15, 0x0E, 0x15, 0x04, 0x00}, {0x00, 0x04, 0x04, 0x1F, 0x04, 0x04, 0x00},  // * +
    {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}, {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00},  // , -
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}, {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00},  // . /
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},  // 0 1
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},  // 2 3
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},  // 4 5
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},  // 6 7
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},  // 8 9
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}, {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x04, 0x08},  // : ;
    {0x02, 0x04, 0x08, 0x10, 0x08, 0x04, 0x02}, {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00},  // < =
    {0x08, 0x04, 0x02, 0x01, 0x02, 0x04, 0x08}, {0x0E, 0x11, 0x01, 0x02, 0x04, 0x00, 0x04},  // > ?
    {0x0E, 0x11, 0x01, 0x0D, 0x15, 0x15, 0x0E}, {0x0E, 0x11, 0x11, 0x11, 0x1F, 0x11, 0x11},  // @ A
    {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}, {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E},  // B C
    {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}, {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F},  // D E
    {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}, {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F},  // F G
    {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}, {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E},  // H I
    {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}, {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11},  // J K
    {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}, {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11},  // L M
    {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}, {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E},  // N O
    {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}, {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D},  // P Q
    {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}, {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E},  // R S
    {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}, {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E},  // T U
    {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}, {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A},  // V W
    {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}, {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04},  // X Y
    {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}, {0x0E, 0x08, 0x08, 0x08, 0x08, 0x08, 0x0E},  // Z [
    {0x00, 0x10, 0x08, 0x04, 0x02, 0x01, 0x00}, {0x0E, 0x02, 0x02, 0x02, 0x02, 0x02, 0x0E},  // \ ]
    {0x04, 0x0A, 0x11, 0x00, 0x00, 0x00, 0x00}, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1F},  // ^ _
    {0x08, 0x04, 0x02, 0x00, 0x00, 0x00, 0x00}, {0x00, 0x00, 0x0E, 0x01, 0x0F, 0x11, 0x0F},  // ` a
    {0x10, 0x10, 0x16, 0x19, 0x11, 0x11, 0x1E}, {0x00, 0x00, 0x0E, 0x10, 0x10, 0x11, 0x0E},  // b c
    {0x01, 0x01, 0x0D, 0x13, 0x11, 0x11, 0x0F}, {0x00, 0x00, 0x0E, 0x11, 0x1F, 0x10, 0x0E},  // d e
    {0x06, 0x09, 0x08, 0x1C, 0x08, 0x08, 0x08}, {0x00, 0x0F, 0x11, 0x11, 0x0F, 0x01, 0x0E},  // f g
    {0x10, 0x10, 0x16, 0x19, 0x11, 0x11, 0x11}, {0x04, 0x00, 0x0C, 0x04, 0x04, 0x04, 0x0E},  // h i
    {0x02, 0x00, 0x06, 0x02, 0x02, 0x12, 0x0C}, {0x10, 0x10, 0x12, 0x14, 0x18, 0x14, 0x12},  // j k
    {0x0C, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}, {0x00, 0x00, 0x1A, 0x15, 0x15, 0x11, 0x11},  // l m
    {0x00, 0x00, 0x16, 0x19, 0x11, 0x11, 0x11}, {0x00, 0x00, 0x0E, 0x11, 0x11, 0x11, 0x0E},  // n o
    {0x00, 0x00, 0x1E, 0x11, 0x1E, 0x10, 0x10}, {0x00, 0x00, 0x0D, 0x13, 0x0F, 0x01, 0x01},  // p q
    {0x00, 0x00, 0x16, 0x19, 0x10, 0x10, 0x10}, {0x00, 0x00, 0x0E, 0x10, 0x0E, 0x01, 0x1E},  // r s
    {0x08, 0x08, 0x1C, 0x08, 0x08, 0x09, 0x06}, {0x00, 0x00, 0x11, 0x11, 0x11, 0x13, 0x0D},  // t u
    {0x00, 0x00, 0x11, 0x11, 0x11, 0x0A, 0x04}, {0x00, 0x00, 0x11, 0x11, 0x15, 0x15, 0x0A},  // v w
    {0x00, 0x00, 0x11, 0x0A, 0x04, 0x0A, 0x11}, {0x00, 0x00, 0x11, 0x11, 0x0F, 0x01, 0x0E},  // x y
    {0x00, 0x00, 0x1F, 0x02, 0x04, 0x08, 0x1F}, {0x02, 0x04, 0x04, 0x08, 0x04, 0x04, 0x02},  // z {
    {0x04, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}, {0x08, 0x04, 0x04, 0x02, 0x04, 0x04, 0x08},  // | }
    {0x1F, 0x11, 0x11, 0x11, 0x11, 0x11, 0x1F},                                              // fallback
};

// Text pixels: light glyph strokes over a half-transparent dark cell.
constexpr uint8_t kInk[4] = {235, 128, 128, kDisplayAlphaShown};
constexpr uint8_t kPaper[4] = {16, 128, 128, 110};

const uint8_t* glyphRows(unsigned char c) {
  return (c >= 0x20 && c <= 0x7D) ? kFont[c - 0x20] : kFont[kGlyphCount];
}

// Writes one glyph row (8 pixels) at out.
void glyphRow(uint8_t* out, const uint8_t* rows, int32_t r) {
  const int32_t fontRow = r - 2;
  const uint8_t bits = (fontRow >= 0 && fontRow < 7) ? rows[fontRow] : 0;
  for (int32_t x = 0; x < kGlyphWidth; ++x) {
    const int32_t bit = x - 1;  // glyph columns 1..5
    const bool on = bit >= 0 && bit < 5 && (bits & (0x10 >> bit)) != 0;
    memcpy(out + 4 * x, on ? kInk : kPaper, 4);
  }
}

// Lines (count) and longest line (characters) of a text.
void measure(const char* text, int32_t* longest, int32_t* lines) {
  int32_t L = 0, n = 1, cur = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '\n') {
      ++n;
      cur = 0;
    } else if (++cur > L) {
      L = cur;
    }
  }
  *longest = L;
  *lines = n;
}

uint8_t lowByte(double v) {
  // The colour sums are never negative for byte inputs; guard anyway before the conversion.
  return v <= 0.0 ? 0 : static_cast<uint8_t>(static_cast<uint32_t>(v) & 0xFF);
}

bool usable(const void* p, int32_t width, int32_t height) {
  return p != nullptr && width > 0 && height > 0;
}

}  // namespace

uint8_t image_utility_depth_tone(uint32_t v) {
  if (v < 4) return 0;
  if (v >= 1023) return 255;  // 1023 is "no depth"; 10-bit maps hold nothing higher
  const ToneSegment* s = &kTone[0];
  for (const ToneSegment& seg : kTone)
    if (v >= seg.xStart) s = &seg;
  return static_cast<uint8_t>((s->yStart + (s->rise * (v - s->xStart)) / s->run) & 0xFF);
}

void image_utility_depth_palette(uint8_t tone, uint8_t rgb[3]) {
  rgb[0] = ramp(kRed, tone);
  rgb[1] = ramp(kGreen, tone);
  rgb[2] = ramp(kBlue, tone);
}

void image_utility_depth_to_display(uint8_t* display, const uint16_t* depth, int32_t width, int32_t height,
                                    int32_t opaque) {
  if (!usable(display, width, height) || depth == nullptr) return;
  const uint8_t alpha = opaque == 1 ? kDisplayAlphaShown : 0;
  const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t v = depth[i];
    uint8_t rgb[3];
    image_utility_depth_palette(image_utility_depth_tone(v), rgb);
    // Far samples (above 254) are drawn in shades of red only, on purpose.
    if (v > 254) rgb[1] = rgb[2] = 0;
    const double R = static_cast<float>(rgb[0]);
    const double G = static_cast<float>(rgb[1]);
    const double B = static_cast<float>(rgb[2]);
    uint8_t* px = display + 4 * i;
    px[0] = lowByte(0.299 * R + 0.587 * G + 0.114 * B);
    px[1] = lowByte(-0.169 * R - 0.331 * G + 0.5 * B + 128.0);
    px[2] = lowByte(0.5 * R - 0.419 * G - 0.081 * B + 128.0);
    px[3] = alpha;
  }
}

void image_utility_gray_to_display(uint8_t* display, const uint8_t* gray, int32_t width, int32_t height,
                                   int32_t opaque) {
  if (!usable(display, width, height) || gray == nullptr) return;
  const uint8_t alpha = opaque == 1 ? kDisplayAlphaShown : 0;
  const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
  for (size_t i = 0; i < n; ++i) {
    const double g = static_cast<float>(gray[i]);
    uint8_t* px = display + 4 * i;
    // The factor just below 1 makes every grey of 1 or more come out one step darker; kept.
    px[0] = lowByte(g * 0.9999999999999999);
    px[1] = 128;
    px[2] = lowByte(128.0 + g * 1.3877787807814457e-17);
    px[3] = alpha;
  }
}

uint32_t image_utility_marker_colour(int32_t colour) {
  switch (colour) {
    case 1:
      return 0x800000FFu;
    case 2:
      return 0x8000FF00u;
    case 4:
      return 0x80000000u;
    default:
      return 0x807F7FFFu;
  }
}

void image_utility_draw_marker(uint8_t* image, int32_t width, int32_t height, int32_t pixelKind, int32_t centreX,
                               int32_t centreY, int32_t halfSize, int32_t colour) {
  if (!usable(image, width, height)) return;
  const int64_t y0 = centreY - static_cast<int64_t>(halfSize) < 0 ? 0 : centreY - static_cast<int64_t>(halfSize);
  const int64_t y1 =
      centreY + static_cast<int64_t>(halfSize) > height ? height : centreY + static_cast<int64_t>(halfSize);
  const int64_t x0 = centreX - static_cast<int64_t>(halfSize) < 0 ? 0 : centreX - static_cast<int64_t>(halfSize);
  const int64_t x1 =
      centreX + static_cast<int64_t>(halfSize) > width ? width : centreX + static_cast<int64_t>(halfSize);
  const uint32_t word = image_utility_marker_colour(colour);
  const uint8_t bytes[4] = {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
                            static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
  for (int64_t y = y0; y < y1; ++y)
    for (int64_t x = x0; x < x1; ++x) {
      const size_t at = static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
      if (pixelKind == kMarkerKindDisplay)
        memcpy(image + 4 * at, bytes, 4);
      else
        image[at] = 255;
    }
}

void image_utility_draw_histogram(uint8_t* display, int32_t width, int32_t height, const uint32_t* bins,
                                  int32_t binCount, int32_t barLength, int32_t markA, int32_t markB, int32_t markC) {
  if (!usable(display, width, height) || bins == nullptr || binCount < 0 || barLength < 0) return;
  const size_t w = static_cast<size_t>(width);
  memset(display, 127, w * static_cast<size_t>(height) * 4);
  auto put = [&](int64_t x, int64_t y, uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    if (x < 0 || x >= width || y < 0 || y >= height) return;  // the chart is clipped to the picture
    uint8_t* px = display + 4 * (static_cast<size_t>(y) * w + static_cast<size_t>(x));
    px[0] = a;
    px[1] = b;
    px[2] = c;
    px[3] = d;
  };
  const int64_t y0 = ((static_cast<int64_t>(height) - barLength - 2) / 2) & 255;
  for (int64_t x = 0; x < width; ++x) put(x, y0, 0, 128, 128, 0);
  for (int32_t i = 0; i < binCount; ++i) {
    const int64_t y = y0 + 1 + i;
    if (y >= height) break;
    put(0, y, 0, 128, 128, 0);
    uint8_t c[3] = {255, 128, 128};
    bool marked = true;
    if (i == markA) {
      c[0] = 76, c[1] = 84, c[2] = 255;
    } else if (i == markB) {
      c[0] = 149, c[1] = 43, c[2] = 21;
    } else if (i == markC) {
      c[0] = 29, c[1] = 255, c[2] = 107;
    } else {
      marked = false;
    }
    const int64_t bar = bins[i] > static_cast<uint32_t>(barLength) ? int64_t{barLength} : int64_t{bins[i]};
    for (int64_t x = barLength - bar + 1; x <= barLength; ++x) put(x, y, c[0], c[1], c[2], kDisplayAlphaShown);
    put(barLength + 1, y, 0, 128, 128, 0);
    if (marked) {
      put(barLength + 2, y, c[0], c[2], c[2], 0);
      put(barLength + 3, y, c[0], c[2], c[2], 0);
    }
  }
  // The bottom frame row's black is one chroma step (127) off the top row's (128); every byte of
  // the picture is pinned by its test, so the step stays.
  for (int64_t x = 0; x < width; ++x) put(x, y0 + 1 + barLength, 0, 127, 127, 0);
}

int32_t image_utility_text_size(const char* text, int32_t* pixelWidth, int32_t* pixelHeight) {
  int32_t L = 0, n = 1;
  if (text != nullptr) measure(text, &L, &n);
  const int64_t bytes = static_cast<int64_t>(kGlyphBytes) * L * n;
  if (pixelWidth != nullptr) *pixelWidth = kGlyphWidth * L;
  if (pixelHeight != nullptr) *pixelHeight = kGlyphHeight * n;
  return bytes > INT32_MAX ? INT32_MAX : static_cast<int32_t>(bytes);
}

void image_utility_draw_text(uint8_t* display, int32_t capacity, const char* text) {
  if (display == nullptr || text == nullptr) return;
  const int64_t length = static_cast<int64_t>(strlen(text));
  int32_t L = 0, n = 1;
  measure(text, &L, &n);
  // Short lines are padded to the longest, so the picture can need more than 384 bytes a
  // character (many empty lines); both measures must fit.
  const int64_t needed = static_cast<int64_t>(kGlyphBytes) * L * n;
  if (capacity < kGlyphBytes * length || capacity < needed || L == 0) return;
  const size_t rowPixels = static_cast<size_t>(kGlyphWidth) * static_cast<size_t>(L);
  const char* line = text;
  for (int32_t k = 0; k < n; ++k) {
    int32_t len = 0;
    while (line[len] != '\0' && line[len] != '\n') ++len;
    for (int32_t r = 0; r < kGlyphHeight; ++r) {
      uint8_t* row = display + 4 * rowPixels * (static_cast<size_t>(k) * kGlyphHeight + static_cast<size_t>(r));
      for (int32_t j = 0; j < L; ++j)
        glyphRow(row + 4 * kGlyphWidth * j, j < len ? glyphRows(static_cast<unsigned char>(line[j])) : kFont[0], r);
    }
    line += len;
    if (*line == '\n') ++line;
  }
}

uint32_t image_utility_depth_map_standard_deviation(const uint16_t* depth, int32_t width, int32_t height) {
  const long start = debug_time_ms();
  if (!usable(depth, width, height)) return 0;
  const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
  uint32_t count = 0;
  uint32_t last = 0;
  for (size_t i = 0; i < n; ++i)
    if (depth[i] < 1023) {
      ++count;
      last = depth[i];
    }
  uint32_t result = 0;
  if (count > 0) {  // an all-invalid map has no spread (rather than a division by zero)
    // The "mean" is the last valid sample divided by the count: the measure has always been
    // taken so and tuning values depend on it.
    const uint32_t mean = last / count;
    uint32_t acc = 0;
    for (size_t i = 0; i < n; ++i) {
      if (depth[i] >= 1023) continue;
      const uint32_t d = static_cast<uint32_t>(depth[i]) - mean;  // wraps below the mean
      const double sum = static_cast<double>(acc) + static_cast<double>(d) * static_cast<double>(d);
      acc = sum >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<uint32_t>(sum);
    }
    result = static_cast<uint32_t>(std::sqrt(static_cast<double>(acc / count)));
  }
  VM_PROFILE_IF(" Depth SD [%d]-- cost %ld ms\n", static_cast<int32_t>(result), debug_elapsed_ms(start));
  return result;
}
