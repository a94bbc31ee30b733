#include "ObsFrames.h"

#include <cmath>

namespace lumo::obs {

uint32_t pixelFormatOf(video_format format) {
  switch (format) {
    case VIDEO_FORMAT_NV12: return kPixelFormatNV12;
    case VIDEO_FORMAT_I420: return kPixelFormatI420;
    case VIDEO_FORMAT_I422: return kPixelFormatI422;
    case VIDEO_FORMAT_YUY2: return kPixelFormatYUY2;
    case VIDEO_FORMAT_UYVY: return kPixelFormatUYVY;
    case VIDEO_FORMAT_BGRA: return kPixelFormat32BGRA;
    case VIDEO_FORMAT_BGRX: return kPixelFormat32BGRX;
    case VIDEO_FORMAT_RGBA: return kPixelFormat32RGBA;
    case VIDEO_FORMAT_BGR3: return kPixelFormat24BGR;
    default: return 0;
  }
}

namespace {

bool sameMatrix(const float (&a)[16], const float (&b)[16]) {
  for (int i = 0; i < 16; ++i) {
    if (std::fabs(a[i] - b[i]) > 1e-3f) return false;
  }
  return true;
}

}  // namespace

YuvColorimetry colorimetryOf(const obs_source_frame& frame) {
  YuvColorimetry colorimetry;
  colorimetry.range = frame.full_range ? YuvRange::Full : YuvRange::Limited;
  float bt601[16];
  float low[3];
  float high[3];
  const bool known = video_format_get_parameters_for_format(
      VIDEO_CS_601, frame.full_range ? VIDEO_RANGE_FULL : VIDEO_RANGE_PARTIAL, frame.format, bt601, low, high);
  colorimetry.matrix = known && sameMatrix(frame.color_matrix, bt601) ? YuvMatrix::Bt601 : YuvMatrix::Bt709;
  return colorimetry;
}

HostFrame hostFrameOf(const obs_source_frame& frame) {
  HostFrame host;
  host.pixelFormat = pixelFormatOf(frame.format);
  host.width = static_cast<int32_t>(frame.width);
  host.height = static_cast<int32_t>(frame.height);
  const int32_t planes = pixelFormatPlaneCount(host.pixelFormat);
  for (int32_t plane = 0; plane < planes; ++plane) {
    host.planes[plane] = {frame.data[plane], frame.linesize[plane]};
  }
  if (pixelFormatIsYuv(host.pixelFormat)) host.colorimetry = colorimetryOf(frame);
  return host;
}

}  // namespace lumo::obs
