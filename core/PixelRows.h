#pragma once

#include <cstddef>
#include <cstdint>

#include "Export.h"
#include "PixelBuffer.h"

namespace lumo {

// Copies `rows` rows of `width` 4-byte pixels between two strides; with `swapRedBlue` the first and third
// byte of each pixel trade places (BGRA <-> RGBA, the same swap both ways). Regions must not overlap.
LUMO_EXPORT void copyPixelRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width,
                               int32_t rows, bool swapRedBlue = false);

// Copies a buffer's pixels (locked read-only for the copy) into memory of the given stride.
LUMO_EXPORT void copyPixelsOut(const PixelBufferRef& buffer, uint8_t* to, size_t toStride);
// Copies every plane of a buffer (locked read-only for the copy) into `to`, one entry a plane, each with its
// own stride.
LUMO_EXPORT void copyPlanesOut(const PixelBufferRef& buffer, const PixelBufferPlane* to);

}  // namespace lumo
