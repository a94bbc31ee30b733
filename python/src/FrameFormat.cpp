#include "FrameFormat.h"

#include <array>

#include <lumo/BeautifyHost.h>
#include <lumo/PixelBuffer.h>

namespace lumo::python {
namespace {

const std::array<FrameFormat, 4> kFormats{{
    {"bgr", kHostFormat24BGR, 3},
    {"bgra", kPixelFormat32BGRA, 4},
    {"nv12", kPixelFormatNV12, 1, true},
    {"i420", kPixelFormatI420, 1, true},
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
    if (format.channels == channels && !format.planar) return &format;
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
