#pragma once

#include <cstdint>

#include <obs/obs.h>

#include <lumo/BeautifyHost.h>

namespace lumo::obs {

// The library's pixel format for an OBS video format; 0 for a format it does not draw (the frame passes
// through untouched).
uint32_t pixelFormatOf(video_format format);

// How the frame's YUV samples map to RGB. OBS hands over the conversion matrix itself, not its name: the
// matrix is matched against BT.601's for the frame's range; everything else (BT.709, sRGB, and the BT.2100
// matrices the library does not know) is drawn as BT.709.
YuvColorimetry colorimetryOf(const obs_source_frame& frame);

// The frame's own planes and strides, wrapped without a copy.
HostFrame hostFrameOf(const obs_source_frame& frame);

}  // namespace lumo::obs
