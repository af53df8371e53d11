// Any bytes through the image readers: each either refuses with a message naming the file or
// returns an image within the caps whose data matches its size.
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "image_io.h"

namespace {

void check(bool ok, int64_t w, int64_t h, size_t samples, size_t perPixel, const std::string& error) {
  static const std::string kPrefix = "input: ";
  if (!ok) {
    if (error.compare(0, kPrefix.size(), kPrefix) != 0 || error.size() == kPrefix.size()) abort();
    return;
  }
  if (w < 1 || h < 1 || w > kImageMaxSide || h > kImageMaxSide || w * h > kImageMaxPixels) abort();
  if (samples != size_t(w) * size_t(h) * perPixel) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    Image8 im;
    std::string error;
    const bool ok = image_decode8(data, size, "input", &im, &error);
    if (ok && im.channels != 1 && im.channels != 3) abort();
    check(ok, im.width, im.height, im.data.size(), size_t(im.channels), error);
  }
  {
    ImageF im;
    std::string error;
    const bool ok = image_decode_pfm(data, size, "input", &im, &error);
    check(ok, im.width, im.height, im.data.size(), 1, error);
  }
  return 0;
}
