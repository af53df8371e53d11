/* vmKtrRT_SC.h - public C interface of the real-time dual-camera preview bokeh library.
 *
 * A camera HAL drives the library through five functions: Get_Version at any time, Init once per
 * camera session, Run once per preview frame, Set_Function between frames, Deinit at the end.
 * Init, Run, Set_Function and Deinit must be called from one thread at a time (the caller
 * serialises them); the library takes no lock around them. Both records are passed by value. */
#ifndef VMKTRRT_SC_H
#define VMKTRRT_SC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VMKTRRT_SC_EXPORT __attribute__((visibility("default")))
#else
#define VMKTRRT_SC_EXPORT
#endif

/* Session set-up: 35 words. Reserved words keep the record at its size and are never read.
 * Flags count as on only when exactly 1. */
typedef struct InitData {
  int32_t screenWidth;           /* 0 */
  int32_t screenHeight;          /* 1 */
  uint32_t reserved2;            /* 2 */
  uint32_t reserved3;            /* 3 */
  int32_t previewMainWidth;      /* 4 */
  int32_t previewMainHeight;     /* 5 */
  int32_t previewMainStride;     /* 6: must equal previewMainWidth */
  int32_t previewMainScanline;   /* 7: must equal previewMainHeight */
  int32_t previewSubWidth;       /* 8 */
  int32_t previewSubHeight;      /* 9 */
  int32_t previewSubStride;      /* 10 */
  int32_t previewSubScanline;    /* 11 */
  int32_t depthWidth;            /* 12: as the caller sees the depth map */
  int32_t depthHeight;           /* 13 */
  uint32_t reserved14;           /* 14 */
  uint32_t reserved15;           /* 15 */
  uint32_t cameraLayout;         /* 16: low 4 bits layout 1..4; 0x10 chip depth; 0x20 10-bit; 0x40 8-bit */
  const uint8_t* otpData;        /* 17: calibration block, first choice */
  const uint8_t* otpDataAlt;     /* 18: used only when otpData is null */
  int32_t otpSize;               /* 19 */
  uint32_t reserved20;           /* 20 */
  uint32_t reserved21;           /* 21 */
  uint32_t rendererExtraParam;   /* 22: non-zero selects the renderer's extended initialisation */
  uint32_t reserved23;           /* 23 */
  uint32_t reserved24;           /* 24 */
  uint32_t reserved25;           /* 25 */
  uint32_t reserved26;           /* 26 */
  int32_t OffRender;             /* 27 */
  int32_t isPortrait;            /* 28 */
  int32_t isGB;                  /* 29 */
  int32_t isFrontCam;            /* 30 */
  int32_t ImageFormat;           /* 31: 0..6 */
  int32_t ishighDepthQuality;    /* 32 */
  int32_t isUsingTemporalFilter; /* 33 */
  int32_t isUsingDistanceMap;    /* 34 */
} InitData;

/* One image handed over with a frame: 5 words. */
typedef struct ImageDesc {
  uint8_t* data;   /* first plane or whole image */
  uint8_t* plane2; /* second plane; read only for image format 6 */
  int32_t size;    /* bytes of the whole image */
  uint32_t extra3;
  uint32_t extra4;
} ImageDesc;

/* Per-frame input: 18 words. The rendered frame is written back into mainImage.data. */
typedef struct TriggerData {
  int32_t vcmMain;      /* 0 */
  int32_t vcmSub;       /* 1 */
  float fnumber;        /* 2 */
  int32_t regionLeft;   /* 3: focus region in main-preview pixels */
  int32_t regionRight;  /* 4 */
  int32_t regionTop;    /* 5 */
  int32_t regionBottom; /* 6 */
  ImageDesc mainImage;  /* 7..11 */
  ImageDesc subImage;   /* 12..16: with chip depth, data points at the chip's samples */
  uint32_t reserved17;  /* 17 */
} TriggerData;

/* Set_Function flags. */
#define VMKTRRT_SC_FLAG_RENDER_EFFECT 0x02u
#define VMKTRRT_SC_FLAG_TEMPORAL_FILTER 0x04u

VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Get_Version(char* buffer, uint32_t size);
VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Init(InitData data);
VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Run(TriggerData data);
VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Set_Function(uint32_t flag, int32_t enable);
VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Deinit(void);

/* The records are a run of 32-bit words on 32-bit targets: hold them to that layout there. */
#if UINTPTR_MAX == 0xffffffffu
#if defined(__cplusplus)
#define VMKTRRT_SC_ASSERT(c, m) static_assert(c, m)
#else
#define VMKTRRT_SC_ASSERT(c, m) _Static_assert(c, m)
#endif
#define VMKTRRT_SC_AT(T, f, w) VMKTRRT_SC_ASSERT(offsetof(T, f) == 4 * (w), #T "." #f " at word " #w)
VMKTRRT_SC_ASSERT(sizeof(InitData) == 140, "InitData is 140 bytes");
VMKTRRT_SC_ASSERT(sizeof(TriggerData) == 72, "TriggerData is 72 bytes");
VMKTRRT_SC_ASSERT(sizeof(ImageDesc) == 20, "ImageDesc is 20 bytes");
VMKTRRT_SC_AT(InitData, screenWidth, 0);
VMKTRRT_SC_AT(InitData, screenHeight, 1);
VMKTRRT_SC_AT(InitData, reserved2, 2);
VMKTRRT_SC_AT(InitData, reserved3, 3);
VMKTRRT_SC_AT(InitData, previewMainWidth, 4);
VMKTRRT_SC_AT(InitData, previewMainHeight, 5);
VMKTRRT_SC_AT(InitData, previewMainStride, 6);
VMKTRRT_SC_AT(InitData, previewMainScanline, 7);
VMKTRRT_SC_AT(InitData, previewSubWidth, 8);
VMKTRRT_SC_AT(InitData, previewSubHeight, 9);
VMKTRRT_SC_AT(InitData, previewSubStride, 10);
VMKTRRT_SC_AT(InitData, previewSubScanline, 11);
VMKTRRT_SC_AT(InitData, depthWidth, 12);
VMKTRRT_SC_AT(InitData, depthHeight, 13);
VMKTRRT_SC_AT(InitData, reserved14, 14);
VMKTRRT_SC_AT(InitData, reserved15, 15);
VMKTRRT_SC_AT(InitData, cameraLayout, 16);
VMKTRRT_SC_AT(InitData, otpData, 17);
VMKTRRT_SC_AT(InitData, otpDataAlt, 18);
VMKTRRT_SC_AT(InitData, otpSize, 19);
VMKTRRT_SC_AT(InitData, reserved20, 20);
VMKTRRT_SC_AT(InitData, reserved21, 21);
VMKTRRT_SC_AT(InitData, rendererExtraParam, 22);
VMKTRRT_SC_AT(InitData, reserved23, 23);
VMKTRRT_SC_AT(InitData, reserved24, 24);
VMKTRRT_SC_AT(InitData, reserved25, 25);
VMKTRRT_SC_AT(InitData, reserved26, 26);
VMKTRRT_SC_AT(InitData, OffRender, 27);
VMKTRRT_SC_AT(InitData, isPortrait, 28);
VMKTRRT_SC_AT(InitData, isGB, 29);
VMKTRRT_SC_AT(InitData, isFrontCam, 30);
VMKTRRT_SC_AT(InitData, ImageFormat, 31);
VMKTRRT_SC_AT(InitData, ishighDepthQuality, 32);
VMKTRRT_SC_AT(InitData, isUsingTemporalFilter, 33);
VMKTRRT_SC_AT(InitData, isUsingDistanceMap, 34);
VMKTRRT_SC_AT(ImageDesc, data, 0);
VMKTRRT_SC_AT(ImageDesc, plane2, 1);
VMKTRRT_SC_AT(ImageDesc, size, 2);
VMKTRRT_SC_AT(ImageDesc, extra3, 3);
VMKTRRT_SC_AT(ImageDesc, extra4, 4);
VMKTRRT_SC_AT(TriggerData, vcmMain, 0);
VMKTRRT_SC_AT(TriggerData, vcmSub, 1);
VMKTRRT_SC_AT(TriggerData, fnumber, 2);
VMKTRRT_SC_AT(TriggerData, regionLeft, 3);
VMKTRRT_SC_AT(TriggerData, regionRight, 4);
VMKTRRT_SC_AT(TriggerData, regionTop, 5);
VMKTRRT_SC_AT(TriggerData, regionBottom, 6);
VMKTRRT_SC_AT(TriggerData, mainImage, 7);
VMKTRRT_SC_AT(TriggerData, subImage, 12);
VMKTRRT_SC_AT(TriggerData, reserved17, 17);
#undef VMKTRRT_SC_AT
#undef VMKTRRT_SC_ASSERT
#endif

#ifdef __cplusplus
}
#endif

#endif /* VMKTRRT_SC_H */
