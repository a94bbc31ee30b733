#include "PixelRows.h"

#include <cstring>

namespace lumo {

void copyPixelRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t rows,
                   bool swapRedBlue) {
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  if (!swapRedBlue && fromStride == rowBytes && toStride == rowBytes) {
    std::memcpy(to, from, rowBytes * static_cast<size_t>(rows));
    return;
  }
  for (int32_t y = 0; y < rows; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    if (!swapRedBlue) {
      std::memcpy(out, in, rowBytes);
      continue;
    }
    for (size_t i = 0; i < rowBytes; i += 4) {
      out[i + 0] = in[i + 2];
      out[i + 1] = in[i + 1];
      out[i + 2] = in[i + 0];
      out[i + 3] = in[i + 3];
    }
  }
}

void copyPixelsOut(const PixelBufferRef& buffer, uint8_t* to, size_t toStride) {
  buffer->lockBaseAddress(kPixelBufferLockReadOnly);
  copyPixelRows(static_cast<const uint8_t*>(buffer->baseAddress()), buffer->bytesPerRow(), to, toStride,
                buffer->width(), buffer->height());
  buffer->unlockBaseAddress(kPixelBufferLockReadOnly);
}

void copyPlanesOut(const PixelBufferRef& buffer, const PixelBufferPlane* to) {
  buffer->lockBaseAddress(kPixelBufferLockReadOnly);
  for (int32_t plane = 0; plane < buffer->planeCount(); ++plane) {
    const PixelPlaneGeometry geometry = buffer->planeGeometry(plane);
    const auto* from = static_cast<const uint8_t*>(buffer->baseAddressOfPlane(plane));
    auto* out = static_cast<uint8_t*>(to[plane].bytes);
    for (int32_t y = 0; y < geometry.height; ++y) {
      std::memcpy(out + to[plane].bytesPerRow * static_cast<size_t>(y),
                  from + buffer->bytesPerRowOfPlane(plane) * static_cast<size_t>(y), geometry.rowBytes());
    }
  }
  buffer->unlockBaseAddress(kPixelBufferLockReadOnly);
}

}  // namespace lumo
