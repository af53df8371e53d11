// synth_scene.h - synthetic stereo scenes: textured planes, boxes, spheres and a person-like figure
// seen by a main and a sub pinhole camera with a horizontal baseline, rendered antialiased to NV21
// or RGB, with ground-truth depth and disparity at any size, the calibration block, exposure and
// noise differences between the cameras, short sequences, and the depth-of-field oracle of the
// main view. Everything is deterministic from the scene's seed.
#ifndef VM_SYNTH_SCENE_H
#define VM_SYNTH_SCENE_H

#include <stdint.h>

enum SceneObjectKind {
  SCENE_PLANE = 1,      // through `center`, normal `size` (need not be unit length); unbounded
  SCENE_BOX = 2,        // axis-aligned, half extents `size`
  SCENE_ELLIPSOID = 3,  // radii `size` (a sphere when all equal)
  SCENE_FIGURE = 4,     // person-like figure standing at `center`, height size[1]
};

enum SceneMotion {
  SCENE_STILL = 0,
  SCENE_PAN = 1,     // the camera pair turns by `motionAmount` degrees per frame
  SCENE_DOLLY = 2,   // the camera pair moves forward by `motionAmount` mm per frame
  SCENE_OBJECT = 3,  // objects move by their velocity per frame
  SCENE_FOCUS = 4,   // nothing moves; scene_focus_distance sweeps near to far
};

#define SCENE_MAX_OBJECTS 16

// Positions in mm, in the frame-0 coordinates of the main camera: x right, y down, z forward.
struct SceneObject {
  int32_t kind;
  float center[3];
  float size[3];
  float velocity[3];  // direction of motion (SCENE_OBJECT): moves velocity x motionAmount mm per frame
  uint32_t texture;   // texture seed
  float color[3];     // base colour, 0..1
};

struct SceneSpec {
  uint32_t seed;
  float hfovDeg;     // horizontal field of view of both cameras
  float aspect;      // sensor width / height of both cameras (16/9 for 1920x1080 and 1280x720)
  float baselineMm;  // the sub camera sits this far right of the main camera
  float subGain;     // sub exposure relative to main (1 = equal)
  float noiseSigma;  // sensor noise, standard deviation in 8-bit levels (0 = none)
  int32_t motion;    // SceneMotion
  float motionAmount;
  float nearMm, farMm;  // depth range the calibration's search range covers
  float lensFocalMm;    // virtual lens of the depth-of-field oracle: aperture = lensFocalMm / f-number
  int32_t objectCount;
  SceneObject objects[SCENE_MAX_OBJECTS];
};

// A standard scene from a seed: a back wall, a floor, a box, a sphere and a figure at depths
// between about 0.8 m and 4 m, placements and textures varied by the seed.
void scene_default(SceneSpec* desc, uint32_t seed);

// Renders camera 0 (main) or 1 (sub) of frame `frame` at width x height (both even, the sensor's
// full field of view mapped to that grid) into NV21 (width*height*3/2 bytes). `aa` samples per
// axis per pixel (1..8). Returns 0, or 1 for bad arguments.
int32_t scene_render_nv21(const SceneSpec* desc, int32_t frame, int32_t camera, int32_t width, int32_t height,
                          int32_t aa, uint8_t* nv21);
// Same view as interleaved 8-bit RGB (width*height*3 bytes); sizes need not be even.
int32_t scene_render_rgb(const SceneSpec* desc, int32_t frame, int32_t camera, int32_t width, int32_t height,
                         int32_t aa, uint8_t* rgb);
// Rows y0..y1-1 (0 <= y0 < y1 <= height) of that picture into the same places of rgb (the whole
// picture's buffer), byte for byte as scene_render_rgb draws them: bands may be drawn on
// several threads at once. Returns 0, or 1 for bad arguments.
int32_t scene_render_rgb_rows(const SceneSpec* desc, int32_t frame, int32_t camera, int32_t width, int32_t height,
                              int32_t aa, int32_t y0, int32_t y1, uint8_t* rgb);

// Ground truth of the main view at pixel centres of a width x height grid: depth along the
// optical axis in mm (INFINITY where nothing is hit), and disparity in pixels of that grid.
int32_t scene_truth_depth(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float* depthMm);
int32_t scene_truth_disparity(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float* disparity);

// Focal length in pixels of a grid `width` wide.
float scene_focal_px(const SceneSpec* desc, int32_t width);

// The calibration block for main and sub streams of the given sizes (rectified: identity
// homographies; search range from nearMm..farMm; focal x baseline set). Writes 128 bytes.
int32_t scene_calibration(const SceneSpec* desc, int32_t mainWidth, int32_t mainHeight, int32_t subWidth,
                          int32_t subHeight, uint8_t* block, int32_t blockSize);

// Focus distance of a frame for SCENE_FOCUS sequences (otherwise the figure's distance).
float scene_focus_distance(const SceneSpec* desc, int32_t frame);

// Depth-of-field oracle: the main view through a thin lens focused at focusMm with aperture
// lensFocalMm / fNumber, as the average of lensSamples x lensSamples pinhole views spread over the
// aperture disc (the same lens positions for every pixel). RGB or NV21 output.
int32_t scene_render_dof_rgb(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float focusMm,
                             float fNumber, int32_t lensSamples, uint8_t* rgb);
int32_t scene_render_dof_nv21(const SceneSpec* desc, int32_t frame, int32_t width, int32_t height, float focusMm,
                              float fNumber, int32_t lensSamples, uint8_t* nv21);

// Converts interleaved RGB to NV21 (BT.601 full range, chroma averaged over 2x2); sizes even.
void scene_rgb_to_nv21(const uint8_t* rgb, int32_t width, int32_t height, uint8_t* nv21);

// The texture noise at (x, y, z) with a seed: the plain one-point reference, and the four-point
// path the renderer uses (x, y, z, seed and out hold four each). Equal bit for bit.
float scene_value_noise(float x, float y, float z, uint32_t seed);
void scene_value_noise4(const float* x, const float* y, const float* z, const uint32_t* seed, float* out);

#endif  // VM_SYNTH_SCENE_H
