// Reading one section as 4-byte floats whatever the stack stores. The image
// stream library converts every pixel type to floats on reading except the
// 8-byte float, which it delivers as stored; the drivers' section buffers hold
// floats, so that type is read into a buffer of its own size and narrowed here.
#include <cstddef>
#include <vector>

#include "imsubs/imsubs.h"
#include "spots/spots.h"

namespace {

constexpr int kPixelTypeDouble = 8;

}  // namespace

int readSectionAsFloats(int stream, float* section) {
  int mode = 0;
  const int modeResult = IMRtMode(stream, &mode);
  if (modeResult != 0) return modeResult;
  if (mode != kPixelTypeDouble) return IMRdSec(stream, section);

  int numCols = 0, numRows = 0;
  const int sizeResult = IMRtXY(stream, &numCols, &numRows);
  if (sizeResult != 0) return sizeResult;
  std::vector<double> stored(static_cast<std::size_t>(numCols) * static_cast<std::size_t>(numRows));
  const int readResult = IMRdSec(stream, stored.data());
  if (readResult != 0) return readResult;
  // The one rounding of these pixels: they pass through the tool as floats.
  for (std::size_t i = 0; i < stored.size(); ++i) section[i] = static_cast<float>(stored[i]);
  return 0;
}
