#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumo::python {

// A host frame's memory: `height` rows of `width` pixels, `stride` bytes apart.
struct FrameView {
  uint8_t* data = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  size_t stride = 0;
};

// A frame layout Python hands in: its name, the host layer's pixel format, and how the array holds it.
struct FrameFormat {
  const char* name;
  uint32_t pixelFormat;
  int32_t channels;  // packed: the array is H x W x channels (YUY2 and UYVY: 2, as OpenCV holds them); planar: 1
  // Planar YUV as OpenCV holds it: one 2-D array of the planes one after another, W wide, with `rows` halves
  // of H: 3 for 4:2:0 (NV12, I420: H * 3 / 2 rows), 4 for 4:2:2 (I422: 2 * H rows). 0: packed.
  int32_t rows = 0;
  bool planar() const { return rows != 0; }
};

// The format called `name`, or null.
const FrameFormat* findFrameFormat(const std::string& name);
// The packed format an H x W x `channels` array is taken as when no format is named, or null.
const FrameFormat* defaultFrameFormat(int32_t channels);
// "bgr, rgb, bgra, ...": for error messages.
std::string frameFormatNames();

}  // namespace lumo::python
