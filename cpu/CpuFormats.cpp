#include "CpuFormats.h"

#include <algorithm>
#include <cstring>

#include "YuvCoefficients.h"

namespace lumo::cpu {
namespace {

using Yuv = YuvCoefficients;

Yuv coefficients(const YuvColorimetry& colorimetry) { return yuvCoefficients(colorimetry); }

inline uint8_t level(float v) {
  v = std::min(255.0f, std::max(0.0f, v));
  return static_cast<uint8_t>(v + 0.5f);
}

// Chroma of luma row y: the two chroma rows around it and the nearer one's weight.
struct ChromaRows {
  int near, far;
};
inline ChromaRows chromaRows(int y, int chromaHeight) {
  const int j = y / 2;
  const int other = (y % 2 == 0) ? std::max(j - 1, 0) : std::min(j + 1, chromaHeight - 1);
  return {j, other};
}

void importYuvRow(const Planes& in, const Yuv& c, uint8_t* out, float* scratch, int y) {
  const int width = in.width;
  const int chromaWidth = (width + 1) / 2;
  const int chromaHeight = (in.height + 1) / 2;
  const ChromaRows rows = chromaRows(y, chromaHeight);
  float* u = scratch;
  float* v = scratch + chromaWidth;
  // Vertical blend first, into centred chroma differences scaled back to 0..255 spans.
  const float toPb = 1.0f / c.cScale;
  if (in.format == kPixelFormatNV12) {
    const uint8_t* a = in.data[1] + in.stride[1] * static_cast<size_t>(rows.near);
    const uint8_t* b = in.data[1] + in.stride[1] * static_cast<size_t>(rows.far);
    for (int i = 0; i < chromaWidth; ++i) {
      u[i] = (0.75f * a[2 * i] + 0.25f * b[2 * i] - 128.0f) * toPb;
      v[i] = (0.75f * a[2 * i + 1] + 0.25f * b[2 * i + 1] - 128.0f) * toPb;
    }
  } else {
    const uint8_t* ua = in.data[1] + in.stride[1] * static_cast<size_t>(rows.near);
    const uint8_t* ub = in.data[1] + in.stride[1] * static_cast<size_t>(rows.far);
    const uint8_t* va = in.data[2] + in.stride[2] * static_cast<size_t>(rows.near);
    const uint8_t* vb = in.data[2] + in.stride[2] * static_cast<size_t>(rows.far);
    for (int i = 0; i < chromaWidth; ++i) {
      u[i] = (0.75f * ua[i] + 0.25f * ub[i] - 128.0f) * toPb;
      v[i] = (0.75f * va[i] + 0.25f * vb[i] - 128.0f) * toPb;
    }
  }
  const uint8_t* luma = in.data[0] + in.stride[0] * static_cast<size_t>(y);
  const float fromY = 1.0f / c.yScale;
  const float rFromPr = 2.0f * (1.0f - c.kr);
  const float bFromPb = 2.0f * (1.0f - c.kb);
  const float invKg = 1.0f / c.kg;
  auto pixel = [&](int x, float pb, float pr) {
    const float l = (static_cast<float>(luma[x]) - c.yOffset) * fromY;
    const float r = l + rFromPr * pr;
    const float b = l + bFromPb * pb;
    const float g = (l - c.kr * r - c.kb * b) * invKg;
    uint8_t* p = out + 4 * static_cast<size_t>(x);
    p[0] = level(b);
    p[1] = level(g);
    p[2] = level(r);
    p[3] = 255;
  };
  for (int i = 0; i < chromaWidth; ++i) {
    const int left = std::max(i - 1, 0);
    const int right = std::min(i + 1, chromaWidth - 1);
    pixel(2 * i, 0.75f * u[i] + 0.25f * u[left], 0.75f * v[i] + 0.25f * v[left]);
    if (2 * i + 1 < width) pixel(2 * i + 1, 0.75f * u[i] + 0.25f * u[right], 0.75f * v[i] + 0.25f * v[right]);
  }
}

void exportYuvRows(const ConstImage& in, const Planes& out, const Yuv& c, int y) {
  const int width = in.width;
  const bool pair = y + 1 < in.height;
  const uint8_t* rows[2] = {in.row(y), in.row(pair ? y + 1 : y)};
  for (int k = 0; k < (pair ? 2 : 1); ++k) {
    uint8_t* luma = out.data[0] + out.stride[0] * static_cast<size_t>(y + k);
    const uint8_t* p = rows[k];
    for (int x = 0; x < width; ++x, p += 4) {
      luma[x] = level(c.yOffset + c.yScale * (c.kr * p[2] + c.kg * p[1] + c.kb * p[0]));
    }
  }
  const size_t chromaRow = static_cast<size_t>(y / 2);
  uint8_t* uv = out.data[1] + out.stride[1] * chromaRow;
  uint8_t* vPlane = out.format == kPixelFormatI420 ? out.data[2] + out.stride[2] * chromaRow : nullptr;
  const float toU = c.cScale / (2.0f * (1.0f - c.kb));
  const float toV = c.cScale / (2.0f * (1.0f - c.kr));
  for (int i = 0; i < (width + 1) / 2; ++i) {
    const int x0 = 2 * i;
    const int x1 = std::min(x0 + 1, width - 1);
    float sum[3] = {0, 0, 0};
    for (const uint8_t* row : rows) {
      for (int x : {x0, x1}) {
        const uint8_t* p = row + 4 * static_cast<size_t>(x);
        sum[0] += p[0];
        sum[1] += p[1];
        sum[2] += p[2];
      }
    }
    const float b = 0.25f * sum[0];
    const float g = 0.25f * sum[1];
    const float r = 0.25f * sum[2];
    const float l = c.kr * r + c.kg * g + c.kb * b;
    const uint8_t cb = level(128.0f + toU * (b - l));
    const uint8_t cr = level(128.0f + toV * (r - l));
    if (vPlane == nullptr) {
      uv[2 * i] = cb;
      uv[2 * i + 1] = cr;
    } else {
      uv[i] = cb;
      vPlane[i] = cr;
    }
  }
}

}  // namespace

size_t importScratchFloats(int width) { return 2 * static_cast<size_t>((width + 1) / 2); }

void importRows(const Planes& in, const Image& out, float* scratch, int y0, int y1) {
  if (pixelFormatIsYuv(in.format)) {
    const Yuv c = coefficients(in.colorimetry);
    for (int y = y0; y < y1; ++y) importYuvRow(in, c, out.row(y), scratch, y);
    return;
  }
  const bool swap = in.format == kPixelFormat32RGBA || in.format == kPixelFormat32RGBX;
  const bool opaque = in.format == kPixelFormat32BGRX || in.format == kPixelFormat32RGBX;
  for (int y = y0; y < y1; ++y) {
    const uint8_t* from = in.data[0] + in.stride[0] * static_cast<size_t>(y);
    uint8_t* to = out.row(y);
    for (int x = 0; x < in.width; ++x, from += 4, to += 4) {
      to[0] = swap ? from[2] : from[0];
      to[1] = from[1];
      to[2] = swap ? from[0] : from[2];
      to[3] = opaque ? 255 : from[3];
    }
  }
}

void exportRows(const ConstImage& in, const Planes& out, int y0, int y1) {
  if (pixelFormatIsYuv(out.format)) {
    const Yuv c = coefficients(out.colorimetry);
    for (int y = y0; y < y1; y += 2) exportYuvRows(in, out, c, y);
    return;
  }
  const bool swap = out.format == kPixelFormat32RGBA || out.format == kPixelFormat32RGBX;
  const bool opaque = out.format == kPixelFormat32BGRX || out.format == kPixelFormat32RGBX;
  for (int y = y0; y < y1; ++y) {
    const uint8_t* from = in.row(y);
    uint8_t* to = out.data[0] + out.stride[0] * static_cast<size_t>(y);
    for (int x = 0; x < in.width; ++x, from += 4, to += 4) {
      to[0] = swap ? from[2] : from[0];
      to[1] = from[1];
      to[2] = swap ? from[0] : from[2];
      to[3] = opaque ? 255 : from[3];
    }
  }
}

}  // namespace lumo::cpu
