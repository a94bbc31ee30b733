// Conversions to and from the engine's packed BGRA, compiled once per instruction set like the pass kernels.
// YUV goes through 32-bit fixed point: 16 fraction bits keep every result within rounding of the exact
// value, and the bilinear chroma weights (quarters, twice) stay exact integers in sixteenths.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "CpuFormats.cpp"
#include <hwy/foreach_target.h>  // NOLINT(build/include)
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "CpuFormats.h"
#include "YuvCoefficients.h"

// What every instruction set shares: the fixed-point coefficients and the one-pixel forms that finish rows
// too short or too odd for a whole vector. Compiled once.
#ifndef LUMO_CPU_FORMATS_SHARED
#define LUMO_CPU_FORMATS_SHARED
namespace lumo::cpu::formats {

constexpr int kShift = 16;
constexpr int32_t kOne = 1 << kShift;
constexpr int32_t kHalf = 1 << (kShift - 1);

inline int32_t fixed(double v) { return static_cast<int32_t>(std::lround(v * kOne)); }

// Y and 16 times Cb and Cr (the chroma after both blends, still in sixteenths) to B, G and R:
// channel = (y * luma + cb * fromCb + cr * fromCr + offset) >> kShift, rounding folded into the offsets.
struct ToBgra {
  int32_t luma;
  int32_t rFromCr, gFromCb, gFromCr, bFromCb;
  int32_t rOffset, gOffset, bOffset;
};

inline ToBgra toBgra(const YuvColorimetry& colorimetry) {
  const YuvCoefficients c = yuvCoefficients(colorimetry);
  const double fromC = 1.0 / (16.0 * static_cast<double>(c.cScale));
  const double rFromPr = 2.0 * (1.0 - static_cast<double>(c.kr));
  const double bFromPb = 2.0 * (1.0 - static_cast<double>(c.kb));
  ToBgra k{};
  k.luma = fixed(1.0 / static_cast<double>(c.yScale));
  k.rFromCr = fixed(rFromPr * fromC);
  k.bFromCb = fixed(bFromPb * fromC);
  k.gFromCr = fixed(-static_cast<double>(c.kr) * rFromPr * fromC / static_cast<double>(c.kg));
  k.gFromCb = fixed(-static_cast<double>(c.kb) * bFromPb * fromC / static_cast<double>(c.kg));
  // The offsets take black (yOffset) and the chroma centre (128 * 16) exactly, as the scaled coefficients
  // see them: grey stays grey.
  const int32_t black = kHalf - static_cast<int32_t>(c.yOffset) * k.luma;
  k.rOffset = black - 2048 * k.rFromCr;
  k.gOffset = black - 2048 * (k.gFromCb + k.gFromCr);
  k.bOffset = black - 2048 * k.bFromCb;
  return k;
}

// B, G, R to Y (per pixel) and to Cb and Cr (from the sums of a 2 x 2 block).
struct ToYuv {
  int32_t yFromR, yFromG, yFromB, yOffset;
  int32_t cbFromR, cbFromG, cbFromB, crFromR, crFromG, crFromB, cOffset;
};

inline ToYuv toYuv(const YuvColorimetry& colorimetry) {
  const YuvCoefficients c = yuvCoefficients(colorimetry);
  const double kr = c.kr;
  const double kg = c.kg;
  const double kb = c.kb;
  ToYuv k{};
  k.yFromR = fixed(c.yScale * kr);
  k.yFromG = fixed(c.yScale * kg);
  k.yFromB = fixed(c.yScale * kb);
  k.yOffset = static_cast<int32_t>(c.yOffset) * kOne + kHalf;
  // A quarter of the block sum is its mean. Each row sums to zero, so that grey has no chroma.
  const double toU = c.cScale / (2.0 * (1.0 - kb)) / 4.0;
  const double toV = c.cScale / (2.0 * (1.0 - kr)) / 4.0;
  k.cbFromR = fixed(-toU * kr);
  k.cbFromG = fixed(-toU * kg);
  k.cbFromB = -(k.cbFromR + k.cbFromG);
  k.crFromG = fixed(-toV * kg);
  k.crFromB = fixed(-toV * kb);
  k.crFromR = -(k.crFromG + k.crFromB);
  k.cOffset = 128 * kOne + kHalf;
  return k;
}

// Arithmetic shift, then 0..255.
inline uint32_t level(int32_t v) { return static_cast<uint32_t>(std::clamp(v >> kShift, 0, 255)); }

inline uint32_t bgraOf(const ToBgra& k, int32_t y, int32_t cb, int32_t cr) {
  const int32_t l = y * k.luma;
  const uint32_t r = level(l + cr * k.rFromCr + k.rOffset);
  const uint32_t g = level(l + cb * k.gFromCb + cr * k.gFromCr + k.gOffset);
  const uint32_t b = level(l + cb * k.bFromCb + k.bOffset);
  return b | g << 8 | r << 16 | 0xFF000000u;
}

// Pixel x of a luma row from its blended chroma row: Cb, Cr pairs with one pair of padding each side.
inline void importPixel(const ToBgra& k, const uint8_t* luma, const uint16_t* chroma, uint8_t* out, int x) {
  const int i = x / 2;
  const int neighbour = x % 2 == 0 ? i - 1 : i + 1;
  const int32_t cb = 3 * chroma[2 * i] + chroma[2 * neighbour];
  const int32_t cr = 3 * chroma[2 * i + 1] + chroma[2 * neighbour + 1];
  const uint32_t pixel = bgraOf(k, luma[x], cb, cr);
  std::memcpy(out + 4 * static_cast<size_t>(x), &pixel, sizeof pixel);
}

inline uint8_t lumaOf(const ToYuv& k, const uint8_t* p) {
  return static_cast<uint8_t>(level(p[2] * k.yFromR + p[1] * k.yFromG + p[0] * k.yFromB + k.yOffset));
}

// The chroma of the block at columns x0 and x1 (equal at an odd edge) of two rows (equal at an odd edge).
inline void chromaOf(const ToYuv& k, const uint8_t* row0, const uint8_t* row1, int x0, int x1, uint8_t* cb,
                     uint8_t* cr) {
  int32_t sum[3] = {0, 0, 0};
  for (const uint8_t* row : {row0, row1}) {
    for (int x : {x0, x1}) {
      const uint8_t* p = row + 4 * static_cast<size_t>(x);
      for (int c = 0; c < 3; ++c) sum[c] += p[c];
    }
  }
  *cb = static_cast<uint8_t>(level(sum[2] * k.cbFromR + sum[1] * k.cbFromG + sum[0] * k.cbFromB + k.cOffset));
  *cr = static_cast<uint8_t>(level(sum[2] * k.crFromR + sum[1] * k.crFromG + sum[0] * k.crFromB + k.cOffset));
}

inline uint32_t reordered(uint32_t p, bool swap, bool opaque) {
  if (swap) p = (p & 0xFF00FF00u) | ((p >> 16) & 0xFFu) | ((p & 0xFFu) << 16);
  return opaque ? p | 0xFF000000u : p;
}

}  // namespace lumo::cpu::formats
#endif  // LUMO_CPU_FORMATS_SHARED

HWY_BEFORE_NAMESPACE();
namespace lumo::cpu {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
using namespace formats;  // NOLINT(google-build-using-namespace)

using DI = hn::ScalableTag<int32_t>;
using DU = hn::RebindToUnsigned<DI>;
using VI = hn::Vec<DI>;
using VU = hn::Vec<DU>;

// Whole vectors over [0, count) in steps of `lanes`, the last one overlapping the one before; returns where
// the vectors stopped (0 when none fits, and the caller finishes one item at a time).
template <typename Body>
HWY_INLINE int vectors(int count, int lanes, const Body& body) {
#if HWY_TARGET == HWY_SCALAR
  // One lane at a time is what the one-pixel forms already do.
  (void)count;
  (void)lanes;
  (void)body;
  return 0;
#else
  if (count < lanes) return 0;
  int i = 0;
  for (; i + lanes <= count; i += lanes) body(i);
  if (i < count) body(count - lanes);
  return count;
#endif
}

template <typename T>
HWY_INLINE const T* rowOf(const uint8_t* plane, size_t stride, int y) {
  return reinterpret_cast<const T*>(plane + stride * static_cast<size_t>(y));
}

// Chroma rows `top` and `bottom` blended 3:1 towards top (for the luma row just below top's centre) and
// 1:3 (for the one just above bottom's), as Cb, Cr pairs in quarters; either output may be skipped.
// Each output gets a pair of padding each side: its edge pair repeated, for the horizontal blend.
void blendChroma(const Planes& in, int top, int bottom, uint16_t* towardsTop, uint16_t* towardsBottom) {
  const int chromaWidth = (in.width + 1) / 2;
  const int samples = 2 * chromaWidth;
  const hn::ScalableTag<uint16_t> d16;
  const hn::Rebind<uint8_t, decltype(d16)> d8;
  const int lanes = static_cast<int>(hn::Lanes(d16));
  uint16_t* outTop = towardsTop != nullptr ? towardsTop + 2 : nullptr;
  uint16_t* outBottom = towardsBottom != nullptr ? towardsBottom + 2 : nullptr;
  auto write = [&](int k, auto a, auto b, auto store) {
    const auto sum = hn::Add(a, b);
    if (outTop != nullptr) store(hn::Add(sum, hn::Add(a, a)), outTop + k);
    if (outBottom != nullptr) store(hn::Add(sum, hn::Add(b, b)), outBottom + k);
  };
  auto blendOne = [&](int k, int a, int b) {
    if (outTop != nullptr) outTop[k] = static_cast<uint16_t>(3 * a + b);
    if (outBottom != nullptr) outBottom[k] = static_cast<uint16_t>(a + 3 * b);
  };
  int done = 0;
  if (in.format == kPixelFormatNV12) {
    const uint8_t* a = rowOf<uint8_t>(in.data[1], in.stride[1], top);
    const uint8_t* b = rowOf<uint8_t>(in.data[1], in.stride[1], bottom);
    done = vectors(samples, lanes, [&](auto k) {
      write(k, hn::PromoteTo(d16, hn::LoadU(d8, a + k)), hn::PromoteTo(d16, hn::LoadU(d8, b + k)),
            [&](auto v, uint16_t* to) { hn::StoreU(v, d16, to); });
    });
    for (int k = done; k < samples; ++k) blendOne(k, a[k], b[k]);
  } else {
    const uint8_t* ua = rowOf<uint8_t>(in.data[1], in.stride[1], top);
    const uint8_t* ub = rowOf<uint8_t>(in.data[1], in.stride[1], bottom);
    const uint8_t* va = rowOf<uint8_t>(in.data[2], in.stride[2], top);
    const uint8_t* vb = rowOf<uint8_t>(in.data[2], in.stride[2], bottom);
    // Blended one plane at a time and interleaved on the way out.
    done = vectors(chromaWidth, lanes, [&](auto i) {
      const auto uA = hn::PromoteTo(d16, hn::LoadU(d8, ua + i));
      const auto uB = hn::PromoteTo(d16, hn::LoadU(d8, ub + i));
      const auto vA = hn::PromoteTo(d16, hn::LoadU(d8, va + i));
      const auto vB = hn::PromoteTo(d16, hn::LoadU(d8, vb + i));
      const auto uSum = hn::Add(uA, uB);
      const auto vSum = hn::Add(vA, vB);
      if (outTop != nullptr) {
        hn::StoreInterleaved2(hn::Add(uSum, hn::Add(uA, uA)), hn::Add(vSum, hn::Add(vA, vA)), d16, outTop + 2 * i);
      }
      if (outBottom != nullptr) {
        hn::StoreInterleaved2(hn::Add(uSum, hn::Add(uB, uB)), hn::Add(vSum, hn::Add(vB, vB)), d16, outBottom + 2 * i);
      }
    });
    for (int i = done; i < chromaWidth; ++i) {
      blendOne(2 * i, ua[i], ub[i]);
      blendOne(2 * i + 1, va[i], vb[i]);
    }
  }
  for (uint16_t* row : {outTop, outBottom}) {
    if (row == nullptr) continue;
    std::copy_n(row, 2, row - 2);
    std::copy_n(row + samples - 2, 2, row + samples);
  }
}

// Y and blended chroma to BGRA pixels, a lane each: the constants set once a row.
class BgraPixels {
 public:
  explicit BgraPixels(const ToBgra& k)
      : fromY_(hn::Set(d_, k.luma)),
        rFromCr_(hn::Set(d_, k.rFromCr)),
        gFromCb_(hn::Set(d_, k.gFromCb)),
        gFromCr_(hn::Set(d_, k.gFromCr)),
        bFromCb_(hn::Set(d_, k.bFromCb)),
        rOffset_(hn::Set(d_, k.rOffset)),
        gOffset_(hn::Set(d_, k.gOffset)),
        bOffset_(hn::Set(d_, k.bOffset)),
        low8_(hn::Set(d_, 0xFF)),
        low16_(hn::Set(d_, 0xFFFF)),
        zero_(hn::Zero(d_)),
        opaque_(hn::BitCast(d_, hn::Set(DU(), 0xFF000000u))) {}

  // `cbcr` holds Cb in its low half and Cr in its high half, in sixteenths.
  VU operator()(VI y, VI cbcr) const {
    const VI cb = hn::And(cbcr, low16_);
    const VI cr = hn::ShiftRight<16>(cbcr);
    const VI l = hn::Mul(y, fromY_);
    const VI r = level(hn::Add(hn::Add(l, hn::Mul(cr, rFromCr_)), rOffset_));
    const VI g = level(hn::Add(hn::Add(l, hn::Add(hn::Mul(cb, gFromCb_), hn::Mul(cr, gFromCr_))), gOffset_));
    const VI b = level(hn::Add(hn::Add(l, hn::Mul(cb, bFromCb_)), bOffset_));
    return hn::BitCast(DU(), hn::Or(hn::Or(b, hn::ShiftLeft<8>(g)), hn::Or(hn::ShiftLeft<16>(r), opaque_)));
  }
  VI low8() const { return low8_; }

 private:
  VI level(VI v) const { return hn::Min(hn::Max(hn::ShiftRight<kShift>(v), zero_), low8_); }

  DI d_;
  VI fromY_, rFromCr_, gFromCb_, gFromCr_, bFromCb_, rOffset_, gOffset_, bOffset_, low8_, low16_, zero_, opaque_;
};

// One luma row and its blended chroma row to BGRA. A vector takes `lanes` pixel pairs: the even pixels'
// chroma leans left (3:1 with the pair before), the odd ones' right, and the two halves are interleaved on
// the way out.
void importYuvRow(const ToBgra& k, const uint8_t* luma, const uint16_t* chroma, uint8_t* out, int width) {
  const DI d;
  const DU du;
  const hn::Repartition<uint16_t, DI> d16;
  const hn::Rebind<uint16_t, DI> dLuma;
  const BgraPixels pixels(k);
  const uint16_t* centre = chroma + 2;
  const int pairs = width / 2;
  const int done = vectors(pairs, static_cast<int>(hn::Lanes(d)), [&](auto i) {
    const auto c = hn::LoadU(d16, centre + 2 * i);
    const auto c3 = hn::Add(c, hn::Add(c, c));
    const VI even = hn::BitCast(d, hn::Add(c3, hn::LoadU(d16, centre + 2 * i - 2)));
    const VI odd = hn::BitCast(d, hn::Add(c3, hn::LoadU(d16, centre + 2 * i + 2)));
    // Two luma samples a lane: the even pixel's in the low byte (x86 and Arm are little-endian).
    const VI y = hn::BitCast(d, hn::PromoteTo(du, hn::LoadU(dLuma, reinterpret_cast<const uint16_t*>(luma) + i)));
    hn::StoreInterleaved2(pixels(hn::And(y, pixels.low8()), even), pixels(hn::ShiftRight<8>(y), odd), du,
                          reinterpret_cast<uint32_t*>(out) + 2 * i);
  });
  for (int x = 2 * done; x < width; ++x) importPixel(k, luma, centre, out, x);
}

// Pixel x of a packed 4:2:2 row (`pairs` four-byte pairs), its chroma blended across as importPixel does.
void importPackedPixel(const ToBgra& k, const uint8_t* row, bool uyvy, int pairs, uint8_t* out, int x) {
  const int i = x / 2;
  const int neighbour = x % 2 == 0 ? std::max(i - 1, 0) : std::min(i + 1, pairs - 1);
  const uint8_t* near = row + 4 * static_cast<size_t>(i);
  const uint8_t* far = row + 4 * static_cast<size_t>(neighbour);
  const int c = uyvy ? 0 : 1;
  const int32_t cb = 4 * (3 * near[c] + far[c]);
  const int32_t cr = 4 * (3 * near[c + 2] + far[c + 2]);
  const uint32_t pixel = bgraOf(k, near[(uyvy ? 1 : 0) + 2 * (x % 2)], cb, cr);
  std::memcpy(out + 4 * static_cast<size_t>(x), &pixel, sizeof pixel);
}

// A packed 4:2:2 row (YUY2: Y0 U Y1 V; UYVY: U Y0 V Y1) straight to BGRA: each vector lane is a pair, read
// with the pairs either side for the chroma blend.
void importPackedRow(const ToBgra& k, const uint8_t* row, bool uyvy, uint8_t* out, int width) {
  const DI d;
  const DU du;
  const BgraPixels pixels(k);
  const int pairs = (width + 1) / 2;
  const uint32_t* in = reinterpret_cast<const uint32_t*>(row);
  const VU chromaBytes = hn::Set(du, 0x00FF00FFu);
  auto chromaOf = [&](VU p) { return hn::And(uyvy ? p : hn::ShiftRight<8>(p), chromaBytes); };
  // Pairs 1 .. last whole pair with a pair after it: both neighbours are in the row.
  const int inner = std::max(0, std::min(width / 2, pairs - 1) - 1);
  const int done = vectors(inner, static_cast<int>(hn::Lanes(d)), [&](auto j) {
    const auto i = j + 1;
    const VU p = hn::LoadU(du, in + i);
    const VU c = chromaOf(p);
    const VU c3 = hn::Add(c, hn::Add(c, c));
    const VI even = hn::BitCast(d, hn::ShiftLeft<2>(hn::Add(c3, chromaOf(hn::LoadU(du, in + i - 1)))));
    const VI odd = hn::BitCast(d, hn::ShiftLeft<2>(hn::Add(c3, chromaOf(hn::LoadU(du, in + i + 1)))));
    const VI y = hn::BitCast(d, uyvy ? hn::ShiftRight<8>(p) : p);
    hn::StoreInterleaved2(pixels(hn::And(y, pixels.low8()), even),
                          pixels(hn::And(hn::ShiftRight<16>(y), pixels.low8()), odd), du,
                          reinterpret_cast<uint32_t*>(out) + 2 * i);
  });
  for (int x = 0; x < std::min(2, width); ++x) importPackedPixel(k, row, uyvy, pairs, out, x);
  for (int x = 2 * (1 + done); x < width; ++x) importPackedPixel(k, row, uyvy, pairs, out, x);
}

void importYuv(const Planes& in, const Image& out, uint16_t* scratch, int y0, int y1) {
  const ToBgra k = toBgra(in.colorimetry);
  const int chromaHeight = (in.height + 1) / 2;
  uint16_t* rows[2] = {scratch, scratch + importScratchSamples(in.width) / 2};
  for (int y = y0; y < y1;) {
    // Luma rows 2p + 1 and 2p + 2 lie between chroma rows p and p + 1 (the edge row repeated): one blend
    // pass serves both.
    const int p = y == 0 ? -1 : (y - 1) / 2;
    const int first = 2 * p + 1;
    const int second = first + 1;
    const bool wantFirst = first >= y0;
    const bool wantSecond = second < y1;
    blendChroma(in, std::max(p, 0), std::min(p + 1, chromaHeight - 1), wantFirst ? rows[0] : nullptr,
                wantSecond ? rows[1] : nullptr);
    if (wantFirst) importYuvRow(k, rowOf<uint8_t>(in.data[0], in.stride[0], first), rows[0], out.row(first), in.width);
    if (wantSecond) {
      importYuvRow(k, rowOf<uint8_t>(in.data[0], in.stride[0], second), rows[1], out.row(second), in.width);
    }
    y = second + 1;
  }
}

// Rows y and y + 1 (y alone at an odd bottom edge, or where each row has its own chroma: `rows` 1) to luma,
// and their blocks to one chroma row. A block of one row counts that row twice.
void exportYuvRows(const ToYuv& k, const ConstImage& in, const Planes& out, int y, int rows) {
  const DI d;
  const DU du;
  const hn::Rebind<uint8_t, DI> d8;
  const hn::Rebind<uint16_t, DI> d16;
  const int lanes = static_cast<int>(hn::Lanes(d));
  const int width = in.width;
  const bool pair = rows == 2 && y + 1 < in.height;
  const uint8_t* rowPair[2] = {in.row(y), in.row(pair ? y + 1 : y)};
  const VU low8 = hn::Set(du, 0xFFu);
  for (int r = 0; r < (pair ? 2 : 1); ++r) {
    const VI yFromR = hn::Set(d, k.yFromR);
    const VI yFromG = hn::Set(d, k.yFromG);
    const VI yFromB = hn::Set(d, k.yFromB);
    const VI yOffset = hn::Set(d, k.yOffset);
    const uint32_t* from = reinterpret_cast<const uint32_t*>(rowPair[r]);
    uint8_t* luma = out.data[0] + out.stride[0] * static_cast<size_t>(y + r);
    const int done = vectors(width, lanes, [&](auto x) {
      const VU p = hn::LoadU(du, from + x);
      const VI b = hn::BitCast(d, hn::And(p, low8));
      const VI g = hn::BitCast(d, hn::And(hn::ShiftRight<8>(p), low8));
      const VI red = hn::BitCast(d, hn::And(hn::ShiftRight<16>(p), low8));
      const VI sum = hn::Add(hn::Add(hn::Mul(red, yFromR), hn::Mul(g, yFromG)), hn::Add(hn::Mul(b, yFromB), yOffset));
      hn::StoreU(hn::DemoteTo(d8, hn::ShiftRight<kShift>(sum)), d8, luma + x);
    });
    for (int x = done; x < width; ++x) luma[x] = lumaOf(k, rowPair[r] + 4 * static_cast<size_t>(x));
  }

  const size_t chromaRow = static_cast<size_t>(y / rows);
  const bool nv12 = out.format == kPixelFormatNV12;
  uint8_t* uv = out.data[1] + out.stride[1] * chromaRow;
  uint8_t* vPlane = nv12 ? nullptr : out.data[2] + out.stride[2] * chromaRow;
  const VU evenBytes = hn::Set(du, 0x00FF00FFu);
  const VU low16 = hn::Set(du, 0xFFFFu);
  const VI level255 = hn::Set(d, 255);
  const VI zero = hn::Zero(d);
  const VI cOffset = hn::Set(d, k.cOffset);
  const VI cbFromR = hn::Set(d, k.cbFromR);
  const VI cbFromG = hn::Set(d, k.cbFromG);
  const VI cbFromB = hn::Set(d, k.cbFromB);
  const VI crFromR = hn::Set(d, k.crFromR);
  const VI crFromG = hn::Set(d, k.crFromG);
  const VI crFromB = hn::Set(d, k.crFromB);
  auto levelOf = [&](VI v) { return hn::Min(hn::Max(hn::ShiftRight<kShift>(v), zero), level255); };
  const uint32_t* top = reinterpret_cast<const uint32_t*>(rowPair[0]);
  const uint32_t* bottom = reinterpret_cast<const uint32_t*>(rowPair[1]);
  // Blocks of two whole columns; B and R summed in the 16-bit halves of one lane, G in another (four
  // samples stay below 1024, so the halves never carry into each other).
  const int done = vectors(width / 2, lanes, [&](auto i) {
    VU e0, o0, e1, o1;
    hn::LoadInterleaved2(du, top + 2 * i, e0, o0);
    hn::LoadInterleaved2(du, bottom + 2 * i, e1, o1);
    const VU br = hn::Add(hn::Add(hn::And(e0, evenBytes), hn::And(o0, evenBytes)),
                          hn::Add(hn::And(e1, evenBytes), hn::And(o1, evenBytes)));
    auto green = [&](VU p) { return hn::And(hn::ShiftRight<8>(p), evenBytes); };
    const VU ga = hn::Add(hn::Add(green(e0), green(o0)), hn::Add(green(e1), green(o1)));
    const VI b = hn::BitCast(d, hn::And(br, low16));
    const VI red = hn::BitCast(d, hn::ShiftRight<16>(br));
    const VI g = hn::BitCast(d, hn::And(ga, low16));
    const VI cb =
        levelOf(hn::Add(hn::Add(hn::Mul(red, cbFromR), hn::Mul(g, cbFromG)), hn::Add(hn::Mul(b, cbFromB), cOffset)));
    const VI cr =
        levelOf(hn::Add(hn::Add(hn::Mul(red, crFromR), hn::Mul(g, crFromG)), hn::Add(hn::Mul(b, crFromB), cOffset)));
    if (nv12) {
      hn::StoreU(hn::DemoteTo(d16, hn::Or(cb, hn::ShiftLeft<8>(cr))), d16, reinterpret_cast<uint16_t*>(uv) + i);
    } else {
      hn::StoreU(hn::DemoteTo(d8, cb), d8, uv + i);
      hn::StoreU(hn::DemoteTo(d8, cr), d8, vPlane + i);
    }
  });
  for (int i = done; i < (width + 1) / 2; ++i) {
    const int x0 = 2 * i;
    uint8_t* cb = nv12 ? uv + 2 * i : uv + i;
    uint8_t* cr = nv12 ? uv + 2 * i + 1 : vPlane + i;
    chromaOf(k, rowPair[0], rowPair[1], x0, std::min(x0 + 1, width - 1), cb, cr);
  }
}

// One row to packed 4:2:2: each pair of pixels to its two luma samples and the chroma of their mean. An odd
// width's last pair repeats its pixel, so its padding sample is that pixel's luma.
void exportPackedRow(const ToYuv& k, const ConstImage& in, const Planes& out, int y) {
  const DI d;
  const DU du;
  const int width = in.width;
  const bool uyvy = out.format == kPixelFormatUYVY;
  const uint8_t* row = in.row(y);
  uint8_t* to = out.data[0] + out.stride[0] * static_cast<size_t>(y);
  const VU low8 = hn::Set(du, 0xFFu);
  const VI zero = hn::Zero(d);
  const VI level255 = hn::Set(d, 255);
  auto levelOf = [&](VI v) { return hn::Min(hn::Max(hn::ShiftRight<kShift>(v), zero), level255); };
  const VI yFromR = hn::Set(d, k.yFromR), yFromG = hn::Set(d, k.yFromG), yFromB = hn::Set(d, k.yFromB);
  const VI yOffset = hn::Set(d, k.yOffset), cOffset = hn::Set(d, k.cOffset);
  const VI cbFromR = hn::Set(d, k.cbFromR), cbFromG = hn::Set(d, k.cbFromG), cbFromB = hn::Set(d, k.cbFromB);
  const VI crFromR = hn::Set(d, k.crFromR), crFromG = hn::Set(d, k.crFromG), crFromB = hn::Set(d, k.crFromB);
  auto channel = [&](VU p, int shift) { return hn::BitCast(d, hn::And(hn::ShiftRightSame(p, shift), low8)); };
  const int done = vectors(width / 2, static_cast<int>(hn::Lanes(d)), [&](auto i) {
    VU e, o;
    hn::LoadInterleaved2(du, reinterpret_cast<const uint32_t*>(row) + 2 * i, e, o);
    const VI be = channel(e, 0), ge = channel(e, 8), re = channel(e, 16);
    const VI bo = channel(o, 0), go = channel(o, 8), ro = channel(o, 16);
    auto luma = [&](VI r, VI g, VI b) {
      return levelOf(hn::Add(hn::Add(hn::Mul(r, yFromR), hn::Mul(g, yFromG)), hn::Add(hn::Mul(b, yFromB), yOffset)));
    };
    // The coefficients take the sum of four samples: the pair's, twice.
    const VI r = hn::ShiftLeft<1>(hn::Add(re, ro)), g = hn::ShiftLeft<1>(hn::Add(ge, go)),
             b = hn::ShiftLeft<1>(hn::Add(be, bo));
    const VI cb = levelOf(hn::Add(hn::Add(hn::Mul(r, cbFromR), hn::Mul(g, cbFromG)), hn::Add(hn::Mul(b, cbFromB), cOffset)));
    const VI cr = levelOf(hn::Add(hn::Add(hn::Mul(r, crFromR), hn::Mul(g, crFromG)), hn::Add(hn::Mul(b, crFromB), cOffset)));
    const VI y0 = luma(re, ge, be), y1 = luma(ro, go, bo);
    const VI packed = uyvy ? hn::Or(hn::Or(cb, hn::ShiftLeft<8>(y0)), hn::Or(hn::ShiftLeft<16>(cr), hn::ShiftLeft<24>(y1)))
                           : hn::Or(hn::Or(y0, hn::ShiftLeft<8>(cb)), hn::Or(hn::ShiftLeft<16>(y1), hn::ShiftLeft<24>(cr)));
    hn::StoreU(hn::BitCast(du, packed), du, reinterpret_cast<uint32_t*>(to) + i);
  });
  for (int i = done; i < (width + 1) / 2; ++i) {
    const int x0 = 2 * i;
    const int x1 = std::min(x0 + 1, width - 1);
    uint8_t cb = 0, cr = 0;
    chromaOf(k, row, row, x0, x1, &cb, &cr);
    const uint8_t l0 = lumaOf(k, row + 4 * static_cast<size_t>(x0));
    const uint8_t l1 = lumaOf(k, row + 4 * static_cast<size_t>(x1));
    uint8_t* q = to + 4 * static_cast<size_t>(i);
    if (uyvy) {
      q[0] = cb, q[1] = l0, q[2] = cr, q[3] = l1;
    } else {
      q[0] = l0, q[1] = cb, q[2] = l1, q[3] = cr;
    }
  }
}

// Packed orders: swap R and B where the order is RGB, set alpha where the fourth byte is unused.
void reorderRow(const uint8_t* from, uint8_t* to, int width, bool swap, bool opaque) {
  const DU du;
  const VU middle = hn::Set(du, 0xFF00FF00u);
  const VU low8 = hn::Set(du, 0xFFu);
  const VU alpha = hn::Set(du, opaque ? 0xFF000000u : 0u);
  const uint32_t* in = reinterpret_cast<const uint32_t*>(from);
  uint32_t* out = reinterpret_cast<uint32_t*>(to);
  const int done = vectors(width, static_cast<int>(hn::Lanes(du)), [&](auto x) {
    VU p = hn::LoadU(du, in + x);
    if (swap) {
      p = hn::Or(hn::And(p, middle), hn::Or(hn::And(hn::ShiftRight<16>(p), low8), hn::ShiftLeft<16>(hn::And(p, low8))));
    }
    hn::StoreU(hn::Or(p, alpha), du, out + x);
  });
  for (int x = done; x < width; ++x) {
    uint32_t p;
    std::memcpy(&p, from + 4 * static_cast<size_t>(x), sizeof p);
    p = reordered(p, swap, opaque);
    std::memcpy(to + 4 * static_cast<size_t>(x), &p, sizeof p);
  }
}

// 24-bit rows to BGRA and back; `swap` where the order is RGB.
void expandRow(const uint8_t* from, uint8_t* to, int width, bool swap) {
  int x = 0;
#if HWY_TARGET != HWY_SCALAR
  const hn::ScalableTag<uint8_t> d;
  const auto opaque = hn::Set(d, uint8_t{255});
  const int lanes = static_cast<int>(hn::Lanes(d));
  for (; x + lanes <= width; x += lanes) {
    hn::Vec<decltype(d)> a, g, c;
    hn::LoadInterleaved3(d, from + 3 * static_cast<size_t>(x), a, g, c);
    if (swap) std::swap(a, c);
    hn::StoreInterleaved4(a, g, c, opaque, d, to + 4 * static_cast<size_t>(x));
  }
#endif
  for (; x < width; ++x) {
    const uint8_t* p = from + 3 * static_cast<size_t>(x);
    uint8_t* q = to + 4 * static_cast<size_t>(x);
    q[0] = p[swap ? 2 : 0];
    q[1] = p[1];
    q[2] = p[swap ? 0 : 2];
    q[3] = 255;
  }
}

void narrowRow(const uint8_t* from, uint8_t* to, int width, bool swap) {
  int x = 0;
#if HWY_TARGET != HWY_SCALAR
  const hn::ScalableTag<uint8_t> d;
  const int lanes = static_cast<int>(hn::Lanes(d));
  for (; x + lanes <= width; x += lanes) {
    hn::Vec<decltype(d)> b, g, r, a;
    hn::LoadInterleaved4(d, from + 4 * static_cast<size_t>(x), b, g, r, a);
    if (swap) std::swap(b, r);
    hn::StoreInterleaved3(b, g, r, d, to + 3 * static_cast<size_t>(x));
  }
#endif
  for (; x < width; ++x) {
    const uint8_t* p = from + 4 * static_cast<size_t>(x);
    uint8_t* q = to + 3 * static_cast<size_t>(x);
    q[0] = p[swap ? 2 : 0];
    q[1] = p[1];
    q[2] = p[swap ? 0 : 2];
  }
}

bool is24Bit(uint32_t format) { return format == kPixelFormat24BGR || format == kPixelFormat24RGB; }

void ImportRowsImpl(const Planes& in, const Image& out, uint16_t* scratch, int y0, int y1) {
  if (pixelFormatChromaRows(in.format) == 2) {
    importYuv(in, out, scratch, y0, y1);
    return;
  }
  if (pixelFormatIsYuv(in.format)) {
    // 4:2:2: each row has its own chroma row, blended across only.
    const ToBgra k = toBgra(in.colorimetry);
    uint16_t* chroma = scratch;
    for (int y = y0; y < y1; ++y) {
      if (pixelFormatIsPackedYuv(in.format)) {
        importPackedRow(k, rowOf<uint8_t>(in.data[0], in.stride[0], y), in.format == kPixelFormatUYVY, out.row(y),
                        in.width);
      } else {
        blendChroma(in, y, y, chroma, nullptr);
        importYuvRow(k, rowOf<uint8_t>(in.data[0], in.stride[0], y), chroma, out.row(y), in.width);
      }
    }
    return;
  }
  if (is24Bit(in.format)) {
    for (int y = y0; y < y1; ++y) {
      expandRow(rowOf<uint8_t>(in.data[0], in.stride[0], y), out.row(y), in.width, in.format == kPixelFormat24RGB);
    }
    return;
  }
  const bool swap = in.format == kPixelFormat32RGBA || in.format == kPixelFormat32RGBX;
  const bool opaque = in.format == kPixelFormat32BGRX || in.format == kPixelFormat32RGBX;
  for (int y = y0; y < y1; ++y)
    reorderRow(rowOf<uint8_t>(in.data[0], in.stride[0], y), out.row(y), in.width, swap, opaque);
}

void ExportRowsImpl(const ConstImage& in, const Planes& out, int y0, int y1) {
  if (pixelFormatIsYuv(out.format)) {
    const ToYuv k = toYuv(out.colorimetry);
    if (pixelFormatIsPackedYuv(out.format)) {
      for (int y = y0; y < y1; ++y) exportPackedRow(k, in, out, y);
      return;
    }
    const int rows = pixelFormatChromaRows(out.format);
    for (int y = y0; y < y1; y += rows) exportYuvRows(k, in, out, y, rows);
    return;
  }
  if (is24Bit(out.format)) {
    for (int y = y0; y < y1; ++y) {
      narrowRow(in.row(y), out.data[0] + out.stride[0] * static_cast<size_t>(y), in.width,
                out.format == kPixelFormat24RGB);
    }
    return;
  }
  const bool swap = out.format == kPixelFormat32RGBA || out.format == kPixelFormat32RGBX;
  const bool opaque = out.format == kPixelFormat32BGRX || out.format == kPixelFormat32RGBX;
  for (int y = y0; y < y1; ++y) {
    reorderRow(in.row(y), out.data[0] + out.stride[0] * static_cast<size_t>(y), in.width, swap, opaque);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace lumo::cpu
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumo::cpu {

HWY_EXPORT(ImportRowsImpl);
HWY_EXPORT(ExportRowsImpl);

size_t importScratchSamples(int width) { return 2 * (2 * static_cast<size_t>((width + 1) / 2) + 4); }

void importRows(const Planes& in, const Image& out, uint16_t* scratch, int y0, int y1) {
  HWY_DYNAMIC_DISPATCH(ImportRowsImpl)(in, out, scratch, y0, y1);
}

void exportRows(const ConstImage& in, const Planes& out, int y0, int y1) {
  HWY_DYNAMIC_DISPATCH(ExportRowsImpl)(in, out, y0, y1);
}

}  // namespace lumo::cpu
#endif
