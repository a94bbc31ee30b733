// 24-bit BGR to and from BGRA, compiled once per instruction set like the kernels: whole vectors of pixels
// de-interleaved and re-interleaved, the rest of a row one pixel at a time.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "PackedRgb.cpp"
#include <hwy/foreach_target.h>  // NOLINT(build/include)
#include <hwy/highway.h>

#include "PackedRgb.h"

HWY_BEFORE_NAMESPACE();
namespace lumo::cpu {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void BgrToBgraRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width,
                   int32_t height) {
  const hn::ScalableTag<uint8_t> d;
  const size_t lanes = hn::Lanes(d);
  const auto opaque = hn::Set(d, uint8_t{255});
  const size_t w = static_cast<size_t>(width);
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    size_t x = 0;
    for (; x + lanes <= w; x += lanes) {
      hn::Vec<decltype(d)> b, g, r;
      hn::LoadInterleaved3(d, in + 3 * x, b, g, r);
      hn::StoreInterleaved4(b, g, r, opaque, d, out + 4 * x);
    }
    for (; x < w; ++x) {
      out[4 * x] = in[3 * x];
      out[4 * x + 1] = in[3 * x + 1];
      out[4 * x + 2] = in[3 * x + 2];
      out[4 * x + 3] = 255;
    }
  }
}

void BgraToBgrRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width,
                   int32_t height) {
  const hn::ScalableTag<uint8_t> d;
  const size_t lanes = hn::Lanes(d);
  const size_t w = static_cast<size_t>(width);
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    size_t x = 0;
    for (; x + lanes <= w; x += lanes) {
      hn::Vec<decltype(d)> b, g, r, a;
      hn::LoadInterleaved4(d, in + 4 * x, b, g, r, a);
      hn::StoreInterleaved3(b, g, r, d, out + 3 * x);
    }
    for (; x < w; ++x) {
      out[3 * x] = in[4 * x];
      out[3 * x + 1] = in[4 * x + 1];
      out[3 * x + 2] = in[4 * x + 2];
    }
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumo::cpu
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumo::cpu {

HWY_EXPORT(BgrToBgraRows);
HWY_EXPORT(BgraToBgrRows);

void bgrToBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  HWY_DYNAMIC_DISPATCH(BgrToBgraRows)(from, fromStride, to, toStride, width, height);
}

void bgraToBgr(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  HWY_DYNAMIC_DISPATCH(BgraToBgrRows)(from, fromStride, to, toStride, width, height);
}

}  // namespace lumo::cpu
#endif  // HWY_ONCE
