#include "FrameFormat.h"

#include <array>

#include <lumo/BeautifyHost.h>
#include <lumo/PixelBuffer.h>

namespace lumo::python {
namespace {

// The first packed format of each channel count is the one an array of that many channels is taken as.
const std::array<FrameFormat, 8> kFormats{{
    {"bgr", kPixelFormat24BGR, 3},
    {"bgra", kPixelFormat32BGRA, 4},
    {"rgb", kPixelFormat24RGB, 3},
    {"yuy2", kPixelFormatYUY2, 2},
    {"uyvy", kPixelFormatUYVY, 2},
    {"nv12", kPixelFormatNV12, 1, 3},
    {"i420", kPixelFormatI420, 1, 3},
    {"i422", kPixelFormatI422, 1, 4},
}};

}  // namespace

const FrameFormat* findFrameFormat(const std::string& name) {
  for (const FrameFormat& format : kFormats) {
    if (name == format.name) return &format;
  }
  return nullptr;
}

const FrameFormat* defaultFrameFormat(int32_t channels) {
  for (const FrameFormat& format : kFormats) {
    if (format.channels == channels && !format.planar() && channels != 2) return &format;
  }
  return nullptr;
}

std::string frameFormatNames() {
  std::string names;
  for (const FrameFormat& format : kFormats) {
    if (!names.empty()) names += ", ";
    names += format.name;
  }
  return names;
}

}  // namespace lumo::python
