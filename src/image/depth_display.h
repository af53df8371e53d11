// depth_display.h - depth statistics and the drawing helpers of the on-screen debug display.
//
// The debug display is an image of 32-bit pixels whose bytes are, in memory order, luma, Cb, Cr
// and alpha. None of these helpers allocates memory or keeps state; each checks its arguments
// and draws nothing (or returns 0) when they cannot be used.
#ifndef VMKTRRT_IMAGE_DEPTH_DISPLAY_H
#define VMKTRRT_IMAGE_DEPTH_DISPLAY_H

#include <cstdint>

constexpr uint8_t kDisplayAlphaShown = 210;
constexpr int32_t kGlyphWidth = 8;
constexpr int32_t kGlyphHeight = 12;
constexpr int32_t kGlyphBytes = kGlyphWidth * kGlyphHeight * 4;  // 384
constexpr int32_t kMarkerKindDisplay = 1;                        // 32-bit display pixels; other kinds are 8-bit

// Tone of a 10-bit depth sample: the segment table's value modulo 256 (1022 gives 0, 1021 255).
uint8_t image_utility_depth_tone(uint32_t value);
// Palette entry of a tone: red, green, blue.
void image_utility_depth_palette(uint8_t tone, uint8_t rgb[3]);

// Colours width x height 16-bit depth samples into as many display pixels.
void image_utility_depth_to_display(uint8_t* display, const uint16_t* depth, int32_t width, int32_t height,
                                    int32_t opaque);
// 8-bit grey image into display pixels (luma g - 1 for g >= 1, neutral chroma).
void image_utility_gray_to_display(uint8_t* display, const uint8_t* gray, int32_t width, int32_t height,
                                   int32_t opaque);
// Marker colour word of an index (little-endian Y, Cb, Cr, alpha 128).
uint32_t image_utility_marker_colour(int32_t colour);
// Filled square of rows [cy - half, cy + half) and columns [cx - half, cx + half), clipped.
void image_utility_draw_marker(uint8_t* image, int32_t width, int32_t height, int32_t pixelKind, int32_t centreX,
                               int32_t centreY, int32_t halfSize, int32_t colour);
// Horizontal bar chart of binCount bins ending at column barLength, three marked bins.
void image_utility_draw_histogram(uint8_t* display, int32_t width, int32_t height, const uint32_t* bins,
                                  int32_t binCount, int32_t barLength, int32_t markA, int32_t markB, int32_t markC);
// Measures text: 8 x longest line wide, 12 x lines high; returns the bytes of its picture.
int32_t image_utility_text_size(const char* text, int32_t* pixelWidth, int32_t* pixelHeight);
// Renders text into a picture of the measured size; draws nothing when capacity (bytes) is short.
void image_utility_draw_text(uint8_t* display, int32_t capacity, const char* text);
// Spread of a depth map as the system has always measured it (see the definition); 0 for a map
// without valid samples.
uint32_t image_utility_depth_map_standard_deviation(const uint16_t* depth, int32_t width, int32_t height);

#endif  // VMKTRRT_IMAGE_DEPTH_DISPLAY_H
