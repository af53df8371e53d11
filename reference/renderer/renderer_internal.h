// renderer_internal.h - the reference renderer's state record, result codes, constants and the
// internal functions behind its C interface (reachable by the unit tests through the static core).
#ifndef VMKTR_REFERENCE_RENDERER_INTERNAL_H
#define VMKTR_REFERENCE_RENDERER_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "engines.h"

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#define RGL_LOG(fmt, ...) \
  __android_log_print(6, "System.out", "<VEMTA_LOG>[vmKtrRT_GL] %s:%d: " fmt, __func__, __LINE__, ##__VA_ARGS__)

// Result codes (docs/renderer.md). 0 is success.
enum : int32_t {
  RGL_OK = 0,
  RGL_ERR_ARGUMENT = 0x4701,     // null pointer, unknown parameter number or value, bad f-number
  RGL_ERR_SIZE = 0x4702,         // a size outside its range or of the wrong parity
  RGL_ERR_FORMAT = 0x4703,       // image-format code other than 0, 2, 3, 7
  RGL_ERR_LAYOUT = 0x4704,       // camera layout outside 1..4
  RGL_ERR_CALIBRATION = 0x4705,  // calibration block refused
  RGL_ERR_STATE = 0x4706,        // call out of order (not initialised)
  RGL_ERR_MEMORY = 0x4707,       // allocation failed
  RGL_ERR_NO_DEPTH = 0x4708,     // no valid depth sample in the whole map
};

// Size limits accepted at initialisation.
constexpr int32_t kMaxPreviewSide = 8192;
constexpr int32_t kMinPreviewSide = 16;
constexpr int32_t kMaxMapSide = 4096;
constexpr int32_t kMinMapSide = 4;

// Depth samples: disparity in 1/S pixel; kDepthInvalid and above mean no depth.
constexpr uint16_t kDepthInvalid = 1023;
constexpr int32_t kDefaultDisparityScale = 16;

// Blur model: the largest radius at f/1.4 is kMaxRadiusFraction of the frame width, and it scales
// as 1.4 / f-number. The f-number is clamped into [kMinFNumber, kMaxFNumber].
constexpr float kMaxRadiusFraction = 0.06f;
constexpr float kReferenceFNumber = 1.4f;
constexpr float kMinFNumber = 0.95f;
constexpr float kMaxFNumber = 32.0f;

// Refocus map: 0 while |d - d_focus| <= half a pixel of disparity, then linear, reaching 255 at a
// disparity difference of depth width / kFullBlurDivisor pixels (plus the band). With
// kMaxRadiusFraction the lens is 1.68 / f frame pixels of blur per pixel of disparity; saturating
// at a fortieth (with half the radius) left deep scenes blurred less than that lens.
constexpr int32_t kFullBlurDivisor = 20;

// Chroma plane layouts by image-format code.
enum ChromaLayout : int32_t {
  CHROMA_VU_INTERLEAVED = 0,  // code 0 and 7: NV21
  CHROMA_UV_INTERLEAVED = 1,  // code 3: NV12
  CHROMA_PLANAR = 2,          // code 2: U plane then V plane
};

// Working storage of the CPU renderer, allocated at initialisation.
struct RenderWork {
  int32_t scale;      // frame pixels per grid sample along each axis: 4 or 2
  int32_t plainOnly;  // 1: the plain scalar code instead of the vector kernels (tests compare both)
  int32_t gridWidth;  // frame / scale, rounded up
  int32_t gridHeight;
  float* coc;            // blur radius per grid sample, in grid pixels
  float* colour;         // grid Y, U, V, three planes
  float* blurred;        // background layer Y, U, V
  float* front;          // foreground layer Y, U, V, alpha
  uint32_t* sat;         // summed-area table, 4 words per entry, (gridWidth + 1) x (gridHeight + 1)
  float* nearDilated;    // largest foreground radius nearby, grid pixels
  float* nearRadius;     // a near sample's own blur radius, 0 elsewhere, grid pixels
  uint8_t* lowestLevel;  // least map value of the four map samples around each grid sample
  uint8_t* peak;         // brightest luma of each grid cell
  float* radiusMax3;     // largest blur radius of each grid sample and its two row neighbours
  float* dilateScratch;  // row pass of the near-radius dilation
  float* mapColumn;      // refocus-map column of each grid column's centre
  uint8_t* nearMap;      // 1 = sample nearer than the focus plane, at the refocus-map size
  float* rowT;           // blend weight of one full-resolution row
  float* rowA;           // foreground alpha of one full-resolution row
  float* rowB;           // background layer of one full-resolution row
  float* rowC;           // blend weight of one chroma row (both channels when interleaved)
  float* rowF;           // premultiplied foreground of one full-resolution row
  float* gridRows;       // seven padded grid rows for the row being composited
  uint16_t* lineSum;     // luma column sums over one grid row's frame rows
  uint16_t* chromaSum;   // chroma column sums over the same rows: U samples, then V samples
  uint8_t* linePeak;     // luma column maxima over the same rows
  uint32_t* weight;      // per grid sample weight of the layer being gathered
  float* upRows;         // 4 x 4 grid: two grid rows upsampled along the row (radius, background, chroma)
  int32_t* spans;        // 4 x 4 grid: runs of one grid row pair's blocks, 3 words each
};

// Frames at least this wide use a grid of 4 x 4 pixel cells, narrower ones 2 x 2.
constexpr int32_t kScaleFourWidth = 1280;

// Foreground side channel: the generator remembers, for each map buffer it wrote, which samples
// lie nearer than the focus plane; the renderer finds them again by address and content hash.
constexpr int32_t kNearRecords = 4;
struct NearRecord {
  const uint8_t* map;
  uint32_t hash;
  uint32_t used;
  uint8_t* nearMask;
};

struct RendererState {
  int32_t cameraLayout;  // 0 until set
  int32_t initialised;
  int32_t previewWidth, previewHeight;
  int32_t depthWidth, depthHeight;
  int32_t refocusWidth, refocusHeight;
  int32_t screenWidth, screenHeight;
  int32_t isPortrait, isOffRender, imageFormat, isGB;
  uint32_t extraParam;
  int32_t disparityScale;
  int32_t hasCalibration;
  int32_t effectOn;
  // Debug pictures.
  int32_t debugShown;
  int32_t debugOverlayMode;
  DebugPictureEntry debugTable[DEBUG_PICTURE_TABLE_SIZE];
  int32_t debugEntries;
  // Generator (worker thread) storage.
  int32_t generatorReady;
  uint16_t* fillScratch;  // depth resampled to the map size, holes filled
  NearRecord nearRecords[kNearRecords];
  uint32_t nearClock;
  RenderWork work;
};

extern RendererState g_renderer;
// Guards nearRecords: written by the generator (worker thread), read by the frame call.
extern pthread_mutex_t g_nearLock;

// ---- set-up helpers ----
int32_t renderer_chroma_layout(int32_t imageFormat);
// Checks a calibration block and reads the disparity scale from it; null/0 means none.
int32_t renderer_read_calibration(const uint8_t* block, int32_t size, int32_t* disparityScale);

// ---- refocus-map generator ----
// Robust depth around (x, y): median of the valid samples in a window that widens until it holds
// one. Returns false when the map has no valid sample at all.
bool refocus_focus_target(const uint16_t* depth, int32_t width, int32_t height, int32_t x, int32_t y, uint16_t* target);
// Resamples depth (width x height) to mapWidth x mapHeight and fills invalid samples from the
// farther of their valid neighbours along the row, then along the column.
void refocus_resample_fill(uint16_t* out, int32_t mapWidth, int32_t mapHeight, const uint16_t* depth, int32_t width,
                           int32_t height);
// Map value of a disparity difference (in depth units).
uint8_t refocus_map_value(int32_t difference, int32_t band, int32_t span);
int32_t refocus_generate(uint8_t* mapOut, const uint16_t* depth, int32_t focusX, int32_t focusY, uint16_t* depthMin,
                         uint16_t* depthMax, uint16_t* depthTarget, bool chip);
uint32_t refocus_map_hash(const uint8_t* map, size_t size);
// The foreground record for map buffer mapOut: the same address again, else the least recently
// written. It reads as no record (map null) until published.
NearRecord* refocus_near_record_claim(RendererState* s, const uint8_t* mapOut);
// The map and the near mask from the filled depth: linear in the disparity difference to the
// focus value past the band; near where the sample is nearer than the band.
void refocus_map_from_depth(const uint16_t* filled, size_t mapSize, int32_t focusValue, int32_t band, int32_t span,
                            uint8_t* mapOut, uint8_t* nearMask);
// Publishes a rewritten record: from here on the renderer finds the near mask by the map's
// address and content hash.
void refocus_near_record_publish(RendererState* s, NearRecord* rec, const uint8_t* mapOut, size_t mapSize);

// ---- renderer ----
float render_max_radius(int32_t frameWidth, float fNumber);
int32_t render_work_alloc(RenderWork* work, int32_t width, int32_t height, int32_t mapWidth, int32_t mapHeight);
void render_work_free(RenderWork* work);
// Renders in place. nearMask (map size, may be null) marks samples nearer than the focus plane.
void render_bokeh(RenderWork* work, uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height, int32_t chromaLayout,
                  const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth, int32_t mapHeight, float fNumber);

// Largest foreground radius within reach of each grid sample (gw x gh planes; tmp is scratch of
// the same size). plain: the reference gather instead of the fast spread (identical results).
void render_near_dilate(const float* nearRadius, int32_t gw, int32_t gh, float* tmp, float* out, int32_t plain);

// ---- debug pictures ----
void debug_picture_draw(uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height, int32_t chromaLayout,
                        const DebugPictureEntry* entry);

#endif  // VMKTR_REFERENCE_RENDERER_INTERNAL_H
