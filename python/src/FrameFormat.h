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
  int32_t channels;  // packed: bytes per pixel, the array is H x W x channels; planar: 1
  // Planar YUV 4:2:0 (NV12, I420) as OpenCV holds it: one (H * 3 / 2) x W array of the planes one after
  // another.
  bool planar = false;
};

// The format called `name`, or null.
const FrameFormat* findFrameFormat(const std::string& name);
// The packed format an H x W x `channels` array is taken as when no format is named, or null.
const FrameFormat* defaultFrameFormat(int32_t channels);
// "bgr, bgra, nv12, i420": for error messages.
std::string frameFormatNames();

}  // namespace lumo::python
