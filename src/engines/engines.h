// engines.h - the closed engine libraries' C functions as the system calls them.
//
// libvmDpx2_LV (stereo depth), libvmZu_Utility (temporal depth filter) and libvmKtrRT_GL
// (refocus-map generator and renderer) are separate shared libraries. The system library only
// declares their functions; they stay undefined in it and are bound at load time, so a maker's
// engine, a reference engine or a test's own definitions can take their place.
#ifndef VMKTRRT_ENGINES_H
#define VMKTRRT_ENGINES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- libvmDpx2_LV: stereo depth engine ---- */

/* Input descriptor of one camera: three separate full-resolution 8-bit planes. */
#define DPX_IMAGE_FORMAT_YUV444_PLANAR 0x0F02
typedef struct DpxImage {
  int32_t format;    /* always DPX_IMAGE_FORMAT_YUV444_PLANAR */
  int32_t unused[3]; /* sizes come from vmDpx2_Express_Init; left unset by the system */
  uint8_t* plane[3]; /* Y, U, V */
} DpxImage;

int32_t vmDpx2_VersionInfo_Get_LV(char* text, int32_t size);
int32_t vmDpx2_CameraLayout_Set_LV(int32_t cameraLayout);
int32_t vmDpx2RT_FieldofDepth_Set(int32_t mode);
int32_t vmDpx2_Express_Init(const uint8_t* calibA, int32_t sizeA, int32_t depthWidth, int32_t depthHeight,
                            const uint8_t* calibB, int32_t sizeB);
int32_t vmDpx2_Run_Express(uint16_t* depthOut, DpxImage* mainImage, DpxImage* subImage, int32_t vcmMain,
                           int32_t vcmSub);
int32_t vmDpx2_Express_Close(void);

/* ---- libvmZu_Utility: temporal depth filter ---- */

int32_t vmZu_VersionInfo_Get(char* text, int32_t size);
int32_t vmZu_TemporalFilterU16_Init(int32_t mainWidth, int32_t mainHeight, int32_t depthWidth, int32_t depthHeight);
int32_t vmZu_TemporalFilterU16_Run(uint16_t* depthOut, const uint16_t* depthIn, int32_t depthWidth, int32_t depthHeight,
                                   const uint8_t* guideLuma, int32_t mainWidth, int32_t mainHeight);
int32_t vmZu_TemporalFilterU16_Close(void);

/* ---- libvmKtrRT_GL: refocus-map generator and renderer ---- */

/* Six-word parameter record passed by value to vmKtrRT_SetParameter. */
typedef struct KtrRTParameter {
  int32_t word[6];
} KtrRTParameter;

/* One picture laid over the rendered frame: 32-bit pixels Y, Cb, Cr, alpha. */
typedef struct DebugPictureEntry {
  uint8_t* data; /* null = empty entry */
  int32_t width;
  int32_t height;
  int32_t x;
  int32_t y;
  int32_t displayWidth;
  int32_t displayHeight;
} DebugPictureEntry;

#define DEBUG_PICTURE_TABLE_SIZE 10

int32_t vmKtr_GLVersionInfo_Get(char* text, int32_t size);
int32_t vmKtrRT_CameraLayout_Set(int32_t cameraLayout);
int32_t vmKtrRT_GLInitV1(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB,
                         int32_t previewWidth, int32_t previewHeight, int32_t depthWidth, int32_t depthHeight,
                         int32_t refocusWidth, int32_t refocusHeight, int32_t screenWidth, int32_t screenHeight,
                         int32_t isPortrait, int32_t isOffRender, int32_t imageFormat, int32_t isGB);
int32_t vmKtrRT_GLInitV1_1(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB,
                           int32_t previewWidth, int32_t previewHeight, int32_t depthWidth, int32_t depthHeight,
                           int32_t refocusWidth, int32_t refocusHeight, int32_t screenWidth, int32_t screenHeight,
                           int32_t isPortrait, int32_t isOffRender, int32_t imageFormat, int32_t isGB,
                           uint32_t extraParam);
int32_t vmKtrRT_SetParameter(int32_t id, KtrRTParameter parameter);
int32_t vmKtrRT_GLShowDebugPicture(int32_t enable, int32_t overlayMode);
int32_t vmKtrRT_GLSetDebugPicture(DebugPictureEntry* table);
int32_t vmKtrRT_GenRefocusMap_init(void);
int32_t vmKtrRT_GenRefocusMap(uint8_t* mapOut, const uint16_t* depth, int32_t focusX, int32_t focusY,
                              uint16_t* depthMin, uint16_t* depthMax, uint16_t* depthTarget);
int32_t vmKtrRT_GenRefocusMap_VX4810_DispartyBase(uint8_t* mapOut, const uint16_t* depth, int32_t focusX,
                                                  int32_t focusY, uint16_t* depthMin, uint16_t* depthMax,
                                                  uint16_t* depthTarget);
int32_t vmKtrRT_GenRefocusMap_Deinit(void);
int32_t vmKtrRT_GLStartV1(uint8_t* mainLuma, uint8_t* mainChroma, const uint8_t* refocusMap, int32_t focusX,
                          int32_t focusY, float fNumber, int32_t noMapFlag, int32_t regionLeft, int32_t regionTop,
                          int32_t regionRight, int32_t regionBottom);
int32_t vmKtrRT_GLClose(void);

#ifdef __cplusplus
}
#endif

#endif /* VMKTRRT_ENGINES_H */
