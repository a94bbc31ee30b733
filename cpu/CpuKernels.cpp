// The CPU engine's pass kernels, compiled once per instruction set; the best one is picked at run time.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "CpuKernels.cpp"
#include <hwy/foreach_target.h>  // NOLINT(build/include)
#include <hwy/highway.h>

#include <algorithm>
#include <cassert>
#include <cstring>

#include "CpuKernels.h"

HWY_BEFORE_NAMESPACE();
namespace lumo::cpu {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Kernels are written once for any vector tag D: full vectors for rows at least a vector wide, single
// lanes for narrower frames.
template <class D>
using V = hn::Vec<D>;
template <class D>
using DU = hn::RebindToUnsigned<D>;
template <class D>
using DI = hn::RebindToSigned<D>;

// One vector of pixels, a channel per vector, in 0..1 as a texture fetch returns them.
template <class D>
struct Px {
  V<D> r, g, b, a;
};

// x / 255 for x in 0..256, exactly as the division rounds it (for a level k, the value a fetch of an 8-bit
// texel gives). With a fused multiply-add the reciprocal product and one residual correction give the
// correctly rounded quotient for every float in that range (checked exhaustively), at a fraction of a
// division's cost.
template <class D>
HWY_INLINE V<D> over255(D d, V<D> x) {
#if HWY_ARCH_X86 && HWY_TARGET <= HWY_AVX2
  const V<D> reciprocal = hn::Set(d, 1.0f / 255.0f);
  const V<D> q = hn::Mul(x, reciprocal);
  const V<D> residual = hn::NegMulAdd(q, hn::Set(d, 255.0f), x);  // x - q * 255, exact when fused
  return hn::MulAdd(residual, reciprocal, q);
#else
  return hn::Div(x, hn::Set(d, 255.0f));
#endif
}

template <class D>
HWY_INLINE V<D> levelToUnit(D d, V<D> k) {
  return over255(d, k);
}

template <class D>
HWY_INLINE V<D> unit(D d, hn::Vec<DU<D>> bits) {
  const DI<D> di;
  const DU<D> du;
  return levelToUnit(d, hn::ConvertTo(d, hn::BitCast(di, hn::And(bits, hn::Set(du, 0xFFu)))));
}

template <class D>
HWY_INLINE Px<D> load(D d, const uint8_t* row, int x) {
  const DU<D> du;
  const auto v = hn::LoadU(du, reinterpret_cast<const uint32_t*>(row) + x);
  return {unit(d, hn::ShiftRight<16>(v)), unit(d, hn::ShiftRight<8>(v)), unit(d, v), unit(d, hn::ShiftRight<24>(v))};
}

// Round to the nearest of the 256 levels of an 8-bit target, as a float: 0 for anything not above 0 (NaN
// too), 255 from 1. kInRange: the value is a weighted mean of values in 0..1 (within rounding), which
// needs no clamping.
template <bool kInRange = false, class D>
HWY_INLINE V<D> levelOf(D d, V<D> v) {
  const V<D> q = hn::Floor(hn::Add(hn::Mul(v, hn::Set(d, 255.0f)), hn::Set(d, 0.5f)));
  if constexpr (kInRange) return q;
  return hn::Min(hn::Max(q, hn::Zero(d)), hn::Set(d, 255.0f));
}

// The level as an integer, in the low byte: adding 2^23 to a whole number below 2^23 puts it in the low
// mantissa bits, exactly, without a conversion and its overflow checks.
template <bool kInRange = false, class D>
HWY_INLINE hn::Vec<DU<D>> levelBits(D d, V<D> v) {
  const DU<D> du;
  return hn::BitCast(du, hn::Add(levelOf<kInRange>(d, v), hn::Set(d, 8388608.0f)));
}

// What the next pass reads back after this one stored 8 bits.
template <bool kInRange = false, class D>
HWY_INLINE V<D> stored(D d, V<D> v) {
  return levelToUnit(d, levelOf<kInRange>(d, v));
}

template <bool kInRange = false, class D>
HWY_INLINE Px<D> stored(D d, const Px<D>& p) {
  return {stored<kInRange>(d, p.r), stored<kInRange>(d, p.g), stored<kInRange>(d, p.b), stored<kInRange>(d, p.a)};
}

// The same where alpha is already a level read from 8 bits (storing it again gives it back).
template <bool kInRange = false, class D>
HWY_INLINE Px<D> storedColour(D d, const Px<D>& p) {
  return {stored<kInRange>(d, p.r), stored<kInRange>(d, p.g), stored<kInRange>(d, p.b), p.a};
}

template <bool kInRange = false, class D>
HWY_INLINE void store(D d, uint8_t* row, int x, const Px<D>& p) {
  const DU<D> du;
  // The shifts push the exponent bits above the low byte out of the word.
  const auto b = hn::And(levelBits<kInRange>(d, p.b), hn::Set(du, 0xFFu));
  const auto g = hn::ShiftLeft<8>(levelBits<kInRange>(d, p.g));
  const auto r = hn::ShiftLeft<16>(levelBits<kInRange>(d, p.r));
  const auto a = hn::ShiftLeft<24>(levelBits<kInRange>(d, p.a));
  hn::StoreU(hn::Or(hn::Or(b, g), hn::Or(r, a)), du, reinterpret_cast<uint32_t*>(row) + x);
}

// GLSL mix(a, b, t) = a * (1 - t) + b * t.
template <class Vec>
HWY_INLINE Vec mix(Vec a, Vec b, Vec t, Vec oneMinusT) {
  return hn::Add(hn::Mul(a, oneMinusT), hn::Mul(b, t));
}

template <class D>
HWY_INLINE Px<D> lerp(D d, const Px<D>& a, const Px<D>& b, float t) {
  const V<D> vt = hn::Set(d, t);
  auto one = [&](V<D> x, V<D> y) { return hn::Add(x, hn::Mul(hn::Sub(y, x), vt)); };
  return {one(a.r, b.r), one(a.g, b.g), one(a.b, b.b), one(a.a, b.a)};
}

// Whole vectors across the row; the last one overlaps the one before when the width is not a multiple.
// One call site, so that the body is inlined into the loop and what it reads stays in registers.
template <class D, typename Body>
HWY_INLINE void forEachVector(D d, int width, const Body& body) {
  const int lanes = static_cast<int>(hn::Lanes(d));
  for (int x = 0; x < width; x += lanes) body(std::min(x, width - lanes));
}

// Host rows need not be 4-byte aligned, so pixels are copied as bytes.
HWY_INLINE uint32_t pixelAt(const uint8_t* row, int x) {
  uint32_t pixel;
  std::memcpy(&pixel, row + 4 * static_cast<size_t>(x), sizeof pixel);
  return pixel;
}

// Alpha cleared where the colour is not skin.
template <class D>
HWY_INLINE Px<D> skinOnly(D d, Px<D> c) {
  const auto skin = hn::And(hn::And(hn::Gt(c.r, hn::Set(d, 0.19608f)), hn::Gt(c.g, hn::Set(d, 0.15686f))),
                            hn::Gt(c.b, hn::Set(d, 0.07843f)));
  c.a = hn::IfThenElseZero(skin, c.a);
  return c;
}

template <class D>
void SkinDetectRowsT(D d, const SkinJob& job, int y0, int y1) {
  for (int y = y0; y < y1; ++y) {
    const uint8_t* in = job.in.row(y);
    uint8_t* out = job.out.row(y);
    forEachVector(d, job.in.width, [&](int x) {
      store(d, out, x, skinOnly(d, load(d, in, x)));
    });
  }
}

// Rows of a pass's input as floats in 0..1, a plane per channel, converted once and shared by every tap
// that reads them: the bilateral's nine taps would otherwise convert each texel nine times. The four planes
// lie kStride floats apart; where that is a compile-time constant one pointer reaches all four, which keeps
// the many rows of a bilateral tap loop in registers.
template <size_t kStride = 0>
struct Planes {
  float* base;
  static Planes at(float* base, size_t stride) {
    assert(stride == kStride);
    (void)stride;
    return {base};
  }
  float* plane(int k) const { return base + static_cast<size_t>(k) * kStride; }
  Planes shifted(int by) const { return {base + by}; }
};

// Planes at a distance known only at run time: a pointer each.
template <>
struct Planes<0> {
  float* planes[4];
  static Planes at(float* base, size_t stride) { return {{base, base + stride, base + 2 * stride, base + 3 * stride}}; }
  float* plane(int k) const { return planes[k]; }
  Planes shifted(int by) const { return {{planes[0] + by, planes[1] + by, planes[2] + by, planes[3] + by}}; }
};

using FloatRow = Planes<0>;

FloatRow floatRow(float* base, size_t length) { return FloatRow::at(base, length); }

template <class D, class Row>
HWY_INLINE Px<D> loadRow(D d, const Row& row, int x) {
  return {hn::LoadU(d, row.plane(0) + x), hn::LoadU(d, row.plane(1) + x), hn::LoadU(d, row.plane(2) + x),
          hn::LoadU(d, row.plane(3) + x)};
}

template <class D, class Row>
HWY_INLINE void storeRow(D d, const Row& row, int x, const Px<D>& p) {
  hn::StoreU(p.r, d, row.plane(0) + x);
  hn::StoreU(p.g, d, row.plane(1) + x);
  hn::StoreU(p.b, d, row.plane(2) + x);
  hn::StoreU(p.a, d, row.plane(3) + x);
}

// Columns [x0, x0 + count) of row y into `row` at [0, count); with `skin`, as skin detect leaves them.
template <class D, class Row>
HWY_INLINE void convertColumns(D d, const ConstImage& in, int y, int x0, int count, const Row& row,
                               bool skin = false) {
  const uint8_t* source = in.row(y) + 4 * static_cast<size_t>(x0);
  forEachVector(d, count, [&](int x) {
    Px<D> p = load(d, source, x);
    if (skin) p = skinOnly(d, p);
    storeRow(d, row, x, p);
  });
}

// Columns [x0 - pad, x0 + count + pad) of row y into `row` at [0, count + 2 * pad), the row's edge texels
// repeated beyond its ends (clamp to edge).
template <class D, class Row>
HWY_INLINE void convertPadded(D d, const ConstImage& in, int y, int x0, int count, int pad, const Row& row,
                              bool skin = false) {
  const int first = std::max(0, x0 - pad);
  const int end = std::min(in.width, x0 + count + pad);
  const int lead = first - (x0 - pad);
  const int tail = end - (x0 - pad);
  convertColumns(d, in, y, first, end - first, row.shifted(lead), skin);
  for (int k = 0; k < 4; ++k) {
    float* plane = row.plane(k);
    std::fill(plane, plane + lead, plane[lead]);
    std::fill(plane + tail, plane + count + 2 * pad, plane[tail - 1]);
  }
}

// The rows a vertical pass reads, made by fill(y, row) on first use and kept in a ring large enough for
// every row one output row needs.
template <typename Fill, class Row = FloatRow>
class RowRing {
 public:
  RowRing(int height, float* base, size_t planeLength, int* rows, int size, const Fill& fill)
      : height_(height), planeLength_(planeLength), base_(base), rows_(rows), size_(size), fill_(fill) {
    std::fill(rows_, rows_ + size_, -1);
  }

  Row get(int y) {
    y = std::clamp(y, 0, height_ - 1);
    const int slot = y % size_;
    const Row row = Row::at(base_ + static_cast<size_t>(slot) * 4 * planeLength_, planeLength_);
    if (rows_[slot] != y) {
      fill_(y, row);
      rows_[slot] = y;
    }
    return row;
  }

 private:
  int height_;
  size_t planeLength_;
  float* base_;
  int* rows_;
  int size_;
  const Fill& fill_;
};

// body(x0, count) over strips of at most kBilateralStrip columns, of even widths: none narrower than a
// vector where the frame is not.
template <typename Body>
HWY_INLINE void forEachStrip(int width, const Body& body) {
  const int strips = (width + kBilateralStrip - 1) / kBilateralStrip;
  for (int i = 0; i < strips; ++i) {
    const int x0 = width * i / strips;
    body(x0, width * (i + 1) / strips - x0);
  }
}

int ringSize(const BilateralJob& job) { return 2 * job.pad + 2; }

int* ringRowsOf(const BilateralJob& job, int worker) {
  return job.ringRows + static_cast<size_t>(worker) * static_cast<size_t>(ringSize(job));
}

float* scratchOf(const BilateralJob& job, int worker) {
  return job.floatScratch + static_cast<size_t>(worker) * job.floatScratchPerWorker;
}

// One tap's weight: its spatial weight scaled down by the colour distance between centre and sample.
template <class D>
HWY_INLINE V<D> tapWeight(D d, const Px<D>& c, const Px<D>& s, V<D> spatial, V<D> factor) {
  const V<D> one = hn::Set(d, 1.0f);
  const V<D> dr = hn::Sub(c.r, s.r);
  const V<D> dg = hn::Sub(c.g, s.g);
  const V<D> db = hn::Sub(c.b, s.b);
  const V<D> da = hn::Sub(c.a, s.a);
  const V<D> squared = hn::Add(hn::Add(hn::Add(hn::Mul(dr, dr), hn::Mul(dg, dg)), hn::Mul(db, db)), hn::Mul(da, da));
  const V<D> distance = hn::Min(hn::Mul(hn::Sqrt(squared), factor), one);
  return hn::Mul(spatial, hn::Sub(one, distance));
}

// The weighted mean of the centre and its eight taps, in tap order; tap(i, s, w) gives tap i's sample and
// weight, one tap at a time so that only the sums stay in registers.
template <class D, typename Tap>
HWY_INLINE Px<D> meanOf(D d, const Px<D>& c, const Tap& tap) {
  const V<D> centreWeight = hn::Set(d, 0.18f);
  V<D> total = centreWeight;
  Px<D> sum{hn::Mul(c.r, centreWeight), hn::Mul(c.g, centreWeight), hn::Mul(c.b, centreWeight),
            hn::Mul(c.a, centreWeight)};
  for (int i = 0; i < 8; ++i) {
    Px<D> s;
    V<D> weight;
    tap(i, s, weight);
    total = hn::Add(total, weight);
    sum = {hn::Add(sum.r, hn::Mul(s.r, weight)), hn::Add(sum.g, hn::Mul(s.g, weight)),
           hn::Add(sum.b, hn::Mul(s.b, weight)), hn::Add(sum.a, hn::Mul(s.a, weight))};
  }
  return {hn::Div(sum.r, total), hn::Div(sum.g, total), hn::Div(sum.b, total), hn::Div(sum.a, total)};
}

// Any taps, one pass at a time: each output pixel computes its eight weights.
template <class D>
void BilateralAnyTapsT(D d, const BilateralJob& job, int worker, int y0, int y1) {
  const V<D> factor = hn::Set(d, job.factor);
  float* scratch = scratchOf(job, worker);
  auto mean = [&](uint8_t* out, int width, const FloatRow& centre, const FloatRow* first, const FloatRow* second) {
    forEachVector(d, width, [&](int x) {
      const Px<D> c = loadRow(d, centre, x);
      store(d, out, x, meanOf(d, c, [&](int i, Px<D>& s, V<D>& weight) {
              s = loadRow(d, first[i], x);
              if (job.taps[i].fraction != 0.0f) s = lerp(d, s, loadRow(d, second[i], x), job.taps[i].fraction);
              weight = tapWeight(d, c, s, hn::Set(d, job.taps[i].weight), factor);
            }));
    });
  };
  if (!job.vertical) {
    const FloatRow padded = floatRow(scratch, static_cast<size_t>(job.in.width) + 2 * static_cast<size_t>(job.pad));
    for (int y = y0; y < y1; ++y) {
      convertPadded(d, job.in, y, 0, job.in.width, job.pad, padded);
      const FloatRow centre = padded.shifted(job.pad);
      FloatRow first[8];
      FloatRow second[8];
      for (int i = 0; i < 8; ++i) {
        first[i] = centre.shifted(job.taps[i].index);
        second[i] = centre.shifted(job.taps[i].index + 1);
      }
      mean(job.out.row(y), job.in.width, centre, first, second);
    }
    return;
  }
  forEachStrip(job.in.width, [&](int x0, int count) {
    auto convert = [&](int y, const FloatRow& row) { convertColumns(d, job.in, y, x0, count, row); };
    RowRing<decltype(convert)> ring(job.in.height, scratch, kBilateralStrip, ringRowsOf(job, worker), ringSize(job),
                                    convert);
    for (int y = y0; y < y1; ++y) {
      const FloatRow centre = ring.get(y);
      FloatRow first[8];
      FloatRow second[8];
      for (int i = 0; i < 8; ++i) {
        first[i] = ring.get(y + job.taps[i].index);
        second[i] = job.taps[i].fraction != 0.0f ? ring.get(y + job.taps[i].index + 1) : first[i];
      }
      mean(job.out.row(y) + 4 * static_cast<size_t>(x0), count, centre, first, second);
    }
  });
}

// Taps on texel centres, mirrored about the pixel with mirrored weights (any whole step): the weight of
// pixel p's tap at +o is the weight of pixel p + o's tap at -o, since the colour difference only changes
// sign and its square not at all. Each pair's weight is computed once and read by both pixels: half the
// square roots and distances, the same bytes.
struct MirroredTaps {
  int offset[4];  // the taps at +offset[j] and -offset[j]
  float weight[4];
};

bool mirroredTaps(const BilateralJob& job, MirroredTaps* taps) {
  for (int j = 0; j < 4; ++j) {
    const Tap& minus = job.taps[3 - j];
    const Tap& plus = job.taps[4 + j];
    if (minus.fraction != 0.0f || plus.fraction != 0.0f || minus.index != -plus.index || plus.index < 0 ||
        minus.weight != plus.weight || plus.index + 2 > job.pad || job.pad > kMaxPad) {
      return false;
    }
    taps->offset[j] = plus.index;
    taps->weight[j] = plus.weight;
  }
  return true;
}

// weights[x] for x in [0, count): the tap weight between centre[x] and other[x].
template <class D, class Row>
HWY_INLINE void pairWeights(D d, int count, const Row& centre, const Row& other, float spatial,
                            V<D> factor, float* weights) {
  const V<D> w = hn::Set(d, spatial);
  forEachVector(d, count, [&](int x) {
    hn::StoreU(tapWeight(d, loadRow(d, centre, x), loadRow(d, other, x), w, factor), d, weights + x);
  });
}

// The mean of each pixel [0, count) from the centre, the eight samples and their weights, in tap order.
template <class D, class Row, typename Out>
HWY_INLINE void meanOfRows(D d, int count, const Row& centre, const Row* samples,
                           const float* const* weights, const Out& out) {
  forEachVector(d, count, [&](int x) {
    out(x, meanOf(d, loadRow(d, centre, x), [&](int i, Px<D>& s, V<D>& weight) {
          s = loadRow(d, samples[i], x);
          weight = hn::LoadU(d, weights[i] + x);
        }));
  });
}

// Skin detect and both bilateral passes in one sweep, strip by strip: the horizontal pass makes each row the
// vertical pass reads as it first needs it, at 8 bits as a texture would hold it, from the input itself.
// The planes of the sweep's rows, a fixed distance apart: the padded input row of a strip, and the rows of
// the ring.
using PaddedRow = Planes<kPaddedStrip>;
using StripRow = Planes<kStripStride>;

template <class D>
void SkinSmoothT(D d, const BilateralJob& job, const MirroredTaps& taps, int worker, int y0, int y1) {
  const V<D> factor = hn::Set(d, job.factor);
  const size_t strip = kStripStride;
  const size_t paddedLength = kPaddedStrip;
  const int pairRing = job.pad;  // more rows than the widest offset
  float* scratch = scratchOf(job, worker);
  const PaddedRow padded{scratch};
  float* rowPairs = scratch + 4 * paddedLength;  // the horizontal pass's weights, a row per offset
  float* ringBase = rowPairs + 4 * paddedLength;
  float* columnPairs = ringBase + static_cast<size_t>(ringSize(job)) * 4 * strip;
  float* fresh = columnPairs + 4 * static_cast<size_t>(pairRing) * strip;
  forEachStrip(job.in.width, [&](int x0, int count) {
    auto horizontal = [&](int y, const StripRow& out) {
      convertPadded(d, job.in, y, x0, count, job.pad, padded, true);
      const PaddedRow centre = padded.shifted(job.pad);
      PaddedRow samples[8];
      const float* weights[8];
      for (int j = 0; j < 4; ++j) {
        const int o = taps.offset[j];
        float* row = rowPairs + static_cast<size_t>(j) * paddedLength + job.pad;
        pairWeights(d, count + o, centre.shifted(-o), centre, taps.weight[j], factor, row - o);
        samples[3 - j] = centre.shifted(-o);
        weights[3 - j] = row - o;
        samples[4 + j] = centre.shifted(o);
        weights[4 + j] = row;
      }
      meanOfRows(d, count, centre, samples, weights,
                 [&](int x, const Px<D>& mean) { storeRow(d, out, x, stored<true>(d, mean)); });
    };
    RowRing<decltype(horizontal), StripRow> ring(job.in.height, ringBase, strip, ringRowsOf(job, worker), ringSize(job),
                                       horizontal);
    // For each offset, a ring of the pair weights of rows (y, y + o) so far, which row y + o reads back;
    // rows whose partner above lies outside this band compute theirs afresh.
    for (int y = y0; y < y1; ++y) {
      const StripRow centre = ring.get(y);
      StripRow samples[8];
      const float* weights[8];
      for (int j = 0; j < 4; ++j) {
        const int o = taps.offset[j];
        float* ringOfJ = columnPairs + static_cast<size_t>(j) * pairRing * strip;
        float* below = ringOfJ + static_cast<size_t>(y % pairRing) * strip;
        samples[4 + j] = ring.get(y + o);
        pairWeights(d, count, centre, samples[4 + j], taps.weight[j], factor, below);
        weights[4 + j] = below;
        samples[3 - j] = ring.get(y - o);
        if (y - o >= y0) {
          weights[3 - j] = ringOfJ + static_cast<size_t>((y - o) % pairRing) * strip;
        } else {
          float* above = fresh + static_cast<size_t>(j) * strip;
          pairWeights(d, count, centre, samples[3 - j], taps.weight[j], factor, above);
          weights[3 - j] = above;
        }
      }
      uint8_t* out = job.out.row(y) + 4 * static_cast<size_t>(x0);
      meanOfRows(d, count, centre, samples, weights, [&](int x, const Px<D>& mean) { store<true>(d, out, x, mean); });
    }
  });
}

template <class D>
HWY_INLINE Px<D> overlayPx(D d, const Px<D>& base, const Px<D>& over, V<D> direction, V<D> multiply, V<D> offset) {
  (void)d;
  auto channel = [&](V<D> b, V<D> o) { return hn::Add(hn::Add(hn::Mul(b, direction), hn::Mul(o, multiply)), offset); };
  return {channel(base.r, over.r), channel(base.g, over.g), channel(base.b, over.b), over.a};
}

// The detail layer's rows as the blur along columns reads them: the high pass (input minus smoothed around
// mid grey, with the smoothed alpha) blurred along the row, at 8 bits. The tail keeps the three rows one
// output row reads in a ring, each computed once.
template <class D>
class DetailLayer {
 public:
  DetailLayer(D d, const TailJob& job, float* scratch)
      : d_(d), job_(job), width_(static_cast<size_t>(job.input.width)), padded_(floatRow(scratch, width_ + 2)) {}

  // Floats of scratch the padded row takes; the ring follows.
  static size_t paddedFloats(size_t width) { return 4 * (width + 2); }

  void operator()(int y, const FloatRow& out) const {
    const D d = d_;
    const int width = static_cast<int>(width_);
    const uint8_t* input = job_.input.row(y);
    const uint8_t* smoothed = job_.skin.row(y);
    const FloatRow highPass = padded_.shifted(1);
    float* const r = highPass.plane(0);
    float* const g = highPass.plane(1);
    float* const b = highPass.plane(2);
    float* const a = highPass.plane(3);
    // In single precision, -input + smoothed + 128/255 rounds to the level smoothed - input + 128, clamped to
    // 0..255, for every pair of levels (checked for all 65536): whole numbers give the same bytes. Alpha is
    // the smoothed layer's.
    const DU<D> du;
    const DI<D> di;
    const auto mask = hn::Set(du, 0xFFu);
    auto level = [&](hn::Vec<DU<D>> in, hn::Vec<DU<D>> smooth) {
      const auto difference = hn::Sub(hn::BitCast(di, hn::And(smooth, mask)), hn::BitCast(di, hn::And(in, mask)));
      const auto clamped = hn::Min(hn::Max(hn::Add(difference, hn::Set(di, 128)), hn::Zero(di)), hn::Set(di, 255));
      return levelToUnit(d, hn::ConvertTo(d, clamped));
    };
    forEachVector(d, width, [&](int x) {
      const auto in = hn::LoadU(du, reinterpret_cast<const uint32_t*>(input) + x);
      const auto smooth = hn::LoadU(du, reinterpret_cast<const uint32_t*>(smoothed) + x);
      hn::StoreU(level(hn::ShiftRight<16>(in), hn::ShiftRight<16>(smooth)), d, r + x);
      hn::StoreU(level(hn::ShiftRight<8>(in), hn::ShiftRight<8>(smooth)), d, g + x);
      hn::StoreU(level(in, smooth), d, b + x);
      hn::StoreU(unit(d, hn::ShiftRight<24>(smooth)), d, a + x);
    });
    for (int k = 0; k < 4; ++k) {
      float* plane = padded_.plane(k);
      plane[0] = plane[1];
      plane[width + 1] = plane[width];
    }
    const V<D> centre = hn::Set(d, job_.blurCentre);
    const V<D> side = hn::Set(d, job_.blurSide);
    const FloatRow right = highPass.shifted(1);
    const FloatRow left = highPass.shifted(-1);
    forEachVector(d, width, [&](int x) {
      const Px<D> c = loadRow(d, highPass, x);
      const Px<D> rr = loadRow(d, right, x);
      const Px<D> l = loadRow(d, left, x);
      auto blur = [&](V<D> cc, V<D> rr, V<D> ll) {
        return stored<true>(d, hn::Add(hn::Add(hn::Mul(cc, centre), hn::Mul(rr, side)), hn::Mul(ll, side)));
      };
      storeRow(d, out, x, Px<D>{blur(c.r, rr.r, l.r), blur(c.g, rr.g, l.g), blur(c.b, rr.b, l.b), blur(c.a, rr.a, l.a)});
    });
  }

 private:
  D d_;
  const TailJob& job_;
  size_t width_;
  FloatRow padded_;
};

// The pink-whiten curve, 0..255 -> 0..1, as the filter uploads it.
template <class D>
HWY_INLINE V<D> curve(D d, const float* table, V<D> v) {
  const DI<D> di;
  return hn::GatherIndex(d, table, hn::ConvertTo(di, hn::Mul(v, hn::Set(d, 255.0f))));
}

template <class D>
HWY_INLINE V<D> overlayBlend(D d, V<D> c, V<D> w) {
  const V<D> one = hn::Set(d, 1.0f);
  const V<D> two = hn::Set(d, 2.0f);
  const V<D> low = hn::Mul(hn::Mul(two, c), w);
  const V<D> high = hn::Sub(one, hn::Mul(hn::Mul(two, hn::Sub(one, c)), hn::Sub(one, w)));
  return hn::IfThenElse(hn::Lt(c, hn::Set(d, 0.5f)), low, high);
}

// Whiten in two halves, so that each half's constants fit the registers of a sweep of its own: the grey
// level's curve and the colour rebuilt around it, then the overlay mix.
template <class D>
HWY_INLINE Px<D> whitenTone(D d, const Px<D>& src) {
  const V<D> half = hn::Set(d, 0.5f);
  V<D> y = hn::Add(hn::Add(hn::Mul(src.r, hn::Set(d, 0.299f)), hn::Mul(src.g, hn::Set(d, 0.587f))),
                   hn::Mul(src.b, hn::Set(d, 0.114f)));
  const V<D> cr = hn::Add(hn::Mul(hn::Sub(src.r, y), hn::Set(d, 0.713f)), half);
  const V<D> cb = hn::Add(hn::Mul(hn::Sub(src.b, y), hn::Set(d, 0.564f)), half);
  const V<D> g = hn::Mul(y, hn::Set(d, 255.0f));
  const V<D> denominator = hn::Sub(hn::Add(hn::Set(d, 0.896865160897715f), hn::Mul(hn::Set(d, 0.0032021590610318f), g)),
                                   hn::Mul(hn::Set(d, 0.0442923728433528f), hn::Sqrt(g)));
  V<D> gray = hn::Div(g, denominator);
  gray = hn::IfThenElse(hn::Lt(gray, hn::Set(d, 256.0f)), gray, hn::Set(d, 255.0f));
  y = over255(d, gray);
  const V<D> crc = hn::Sub(cr, half);
  const V<D> cbc = hn::Sub(cb, half);
  return {hn::Add(y, hn::Mul(hn::Set(d, 1.403f), crc)),
          hn::Sub(hn::Sub(y, hn::Mul(hn::Set(d, 0.344f), cbc)), hn::Mul(hn::Set(d, 0.714f), crc)),
          hn::Add(y, hn::Mul(hn::Set(d, 1.773f), cbc)), src.a};
}

// mix(c, overlay(c, factor), -0.4756); the warm tint after it has weight 0 and leaves the value as it is.
template <class D>
HWY_INLINE Px<D> whitenMix(D d, const Px<D>& c, V<D> factor) {
  const float t = -0.4756f;
  const V<D> vt = hn::Set(d, t);
  const V<D> oneMinusT = hn::Set(d, 1.0f - t);
  auto channel = [&](V<D> v) { return mix(v, overlayBlend(d, v, factor), vt, oneMinusT); };
  return {channel(c.r), channel(c.g), channel(c.b), c.a};
}

template <class D>
HWY_INLINE Px<D> presetPx(D d, const Px<D>& c, const float (*matrix)[4], const float* offset) {
  const V<D> scale = hn::Set(d, 255.0f);
  const V<D> v[4] = {hn::Mul(c.r, scale), hn::Mul(c.g, scale), hn::Mul(c.b, scale), hn::Mul(c.a, scale)};
  V<D> out[4];
  for (int k = 0; k < 4; ++k) {
    V<D> sum =
        hn::Add(hn::Add(hn::Add(hn::Mul(v[0], hn::Set(d, matrix[k][0])), hn::Mul(v[1], hn::Set(d, matrix[k][1]))),
                        hn::Mul(v[2], hn::Set(d, matrix[k][2]))),
                hn::Mul(v[3], hn::Set(d, matrix[k][3])));
    sum = hn::Add(sum, hn::Set(d, offset[k]));
    out[k] = over255(d, hn::Min(hn::Max(sum, hn::Zero(d)), scale));
  }
  return {out[0], out[1], out[2], out[3]};
}

template <class D>
void TailRowsT(D d, const TailJob& job, int worker, int y0, int y1) {
  const V<D> one = hn::Set(d, 1.0f);
  const V<D> pink = hn::Set(d, job.pinkFactor);
  const V<D> oneMinusPink = hn::Set(d, 1.0f - job.pinkFactor);
  const V<D> alpha = hn::Set(d, job.blendAlpha);
  const V<D> whitenFactor = hn::Set(d, job.whitenFactor);
  const V<D> addBackMultiply = hn::Set(d, 2.0f);
  const V<D> addBackOffset = hn::Set(d, -256.0f / 255.0f);
  const V<D> blurCentre = hn::Set(d, job.blurCentre);
  const V<D> blurSide = hn::Set(d, job.blurSide);
  const size_t width = static_cast<size_t>(job.input.width);
  float* detailScratch = job.detailScratch + static_cast<size_t>(worker) * detailScratchFloats(job.input.width);
  const DetailLayer<D> detailLayer(d, job, detailScratch);
  // After the high pass's padded row: the detail layer's ring of three rows, then a row between each of the
  // tail's sweeps along a row.
  float* const rows = detailScratch + DetailLayer<D>::paddedFloats(width);
  int detailSlots[3];
  RowRing<DetailLayer<D>> detail(job.input.height, rows, width, detailSlots, 3, detailLayer);
  auto rowAfterRing = [&](size_t k) { return floatRow(rows + (12 + 4 * k) * width, width); };
  const FloatRow added = rowAfterRing(0);    // the detail layer added back
  const FloatRow pinked = rowAfterRing(1);   // skin whitened
  const FloatRow blended = rowAfterRing(2);  // blended into the input
  const FloatRow toned = rowAfterRing(3);    // whiten's grey curve and colour
  for (int y = y0; y < y1; ++y) {
    const uint8_t* input = job.input.row(y);
    const bool beautify =
        job.beautify && (job.region == nullptr || (y >= job.regionFirstRow && y < job.regionEndRow));
    const uint8_t* skinRow = beautify ? job.skin.row(y) : nullptr;
    FloatRow above{};
    FloatRow centre{};
    FloatRow below{};
    if (beautify && job.addBack) {
      above = detail.get(y - 1);
      centre = detail.get(y);
      below = detail.get(y + 1);
    }
    const uint8_t* regionRow =
        job.region == nullptr ? nullptr
                              : reinterpret_cast<const uint8_t*>(job.region + static_cast<size_t>(y) * job.input.width);
    uint8_t* out = job.out.row(y);
    // Short sweeps along the row, each handing a float row to the next, so that each loop's constants stay
    // in registers. None rewrites the row it reads: its overlapping last vector would read changed values.
    if (beautify && job.addBack) {
      // The detail layer blurred along columns (rows below, then above), added back doubled.
      forEachVector(d, job.input.width, [&](int x) {
        const Px<D> c = loadRow(d, centre, x);
        const Px<D> b = loadRow(d, below, x);
        const Px<D> a = loadRow(d, above, x);
        auto blur = [&](V<D> cc, V<D> bb, V<D> aa) {
          return hn::Add(hn::Add(hn::Mul(cc, blurCentre), hn::Mul(bb, blurSide)), hn::Mul(aa, blurSide));
        };
        const Px<D> s =
            stored<true>(d, Px<D>{blur(c.r, b.r, a.r), blur(c.g, b.g, a.g), blur(c.b, b.b, a.b), blur(c.a, b.a, a.a)});
        storeRow(d, added, x, storedColour(d, overlayPx(d, load(d, input, x), s, one, addBackMultiply, addBackOffset)));
      });
    }
    if (beautify && job.pinkWhiten) {
      forEachVector(d, job.input.width, [&](int x) {
        const Px<D> s = job.addBack ? loadRow(d, added, x) : load(d, skinRow, x);
        const V<D> green = curve(d, job.pinkCurve, s.g);
        storeRow(d, pinked, x,
                 storedColour(d, Px<D>{mix(s.r, curve(d, job.pinkCurve, s.r), pink, oneMinusPink),
                                       mix(s.g, green, pink, oneMinusPink), mix(s.b, green, pink, oneMinusPink), s.a}));
      });
    }
    if (beautify) {
      forEachVector(d, job.input.width, [&](int x) {
        const Px<D> in = load(d, input, x);
        Px<D> s = job.pinkWhiten ? loadRow(d, pinked, x) : job.addBack ? loadRow(d, added, x) : load(d, skinRow, x);
        // The region pass stores the weighted alpha before the blend reads it.
        if (regionRow != nullptr) s.a = stored(d, hn::Mul(s.a, load(d, regionRow, x).a));
        const V<D> k = hn::Mul(s.a, alpha);
        const V<D> oneMinusK = hn::Sub(one, k);
        Px<D> c{mix(in.r, s.r, k, oneMinusK), mix(in.g, s.g, k, oneMinusK), mix(in.b, s.b, k, oneMinusK), in.a};
        if (job.whiten || job.preset) c = storedColour<true>(d, c);
        storeRow(d, blended, x, c);
      });
    }
    if (job.whiten) {
      forEachVector(d, job.input.width, [&](int x) {
        storeRow(d, toned, x, whitenTone(d, beautify ? loadRow(d, blended, x) : load(d, input, x)));
      });
    }
    forEachVector(d, job.input.width, [&](int x) {
      Px<D> c;
      if (job.whiten) {
        c = whitenMix(d, loadRow(d, toned, x), whitenFactor);
        if (job.preset) c = storedColour(d, c);
      } else {
        c = beautify ? loadRow(d, blended, x) : load(d, input, x);
      }
      if (job.preset) c = presetPx(d, c, job.presetMatrix, job.presetOffset);
      store(d, out, x, c);
    });
  }
}

template <class D>
void SharpenRowsT(D d, const SharpenJob& job, int y0, int y1, const uint8_t* above, const uint8_t* below) {
  const V<D> s = hn::Set(d, job.sharpness);
  const V<D> centreK = hn::Set(d, 1.0f + 4.0f * job.sharpness);
  const int width = job.in.width;
  for (int y = y0; y < y1; ++y) {
    const uint8_t* row = job.in.row(y);
    const uint8_t* up = y + 1 == y1 && below != nullptr ? below : job.in.row(std::min(y + 1, job.in.height - 1));
    const uint8_t* down = y == y0 && above != nullptr ? above : job.in.row(std::max(y - 1, 0));
    uint8_t* out = job.out.row(y);
    // The edge columns clamp their left or right neighbour; the vectors between read x - 1 and x + 1.
    forEachVector(d, width, [&](int x) {
      const Px<D> c = load(d, row, x);
      const int lanes = static_cast<int>(hn::Lanes(d));
      Px<D> left;
      Px<D> right;
      if (x > 0 && x + lanes < width) {
        left = load(d, row, x - 1);
        right = load(d, row, x + 1);
      } else {
        uint32_t l[HWY_MAX_BYTES / sizeof(float)];
        uint32_t r[HWY_MAX_BYTES / sizeof(float)];
        for (int i = 0; i < lanes; ++i) {
          l[i] = pixelAt(row, std::max(x + i - 1, 0));
          r[i] = pixelAt(row, std::min(x + i + 1, width - 1));
        }
        left = load(d, reinterpret_cast<const uint8_t*>(l), 0);
        right = load(d, reinterpret_cast<const uint8_t*>(r), 0);
      }
      const Px<D> top = load(d, up, x);
      const Px<D> bottom = load(d, down, x);
      auto channel = [&](V<D> cc, V<D> l, V<D> r, V<D> t, V<D> b) {
        return hn::Sub(hn::Mul(cc, centreK),
                       hn::Add(hn::Add(hn::Add(hn::Mul(l, s), hn::Mul(r, s)), hn::Mul(t, s)), hn::Mul(b, s)));
      };
      Px<D> result{channel(c.r, left.r, right.r, top.r, bottom.r), channel(c.g, left.g, right.g, top.g, bottom.g),
                   channel(c.b, left.b, right.b, top.b, bottom.b), bottom.a};
      if (job.preset) result = presetPx(d, storedColour(d, result), job.presetMatrix, job.presetOffset);
      store(d, out, x, result);
    });
  }
}

// Full vectors where a row holds one; single lanes for narrower frames.
template <typename Kernel>
void withTag(int width, const Kernel& kernel) {
  const hn::ScalableTag<float> full;
  if (width >= static_cast<int>(hn::Lanes(full))) {
    kernel(full);
  } else {
    kernel(hn::CappedTag<float, 1>());
  }
}

void SkinDetectRowsImpl(const SkinJob& job, int y0, int y1) {
  withTag(job.in.width, [&](auto d) { SkinDetectRowsT(d, job, y0, y1); });
}
void BilateralRowsImpl(const BilateralJob& job, int worker, int y0, int y1) {
  withTag(job.in.width, [&](auto d) { BilateralAnyTapsT(d, job, worker, y0, y1); });
}
bool SkinSmoothFusesImpl(const BilateralJob& job) {
  MirroredTaps taps;
  return mirroredTaps(job, &taps);
}
void SkinSmoothRowsImpl(const BilateralJob& job, int worker, int y0, int y1) {
  MirroredTaps taps;
  if (!mirroredTaps(job, &taps)) return;
  withTag(job.in.width, [&](auto d) { SkinSmoothT(d, job, taps, worker, y0, y1); });
}
void TailRowsImpl(const TailJob& job, int worker, int y0, int y1) {
  withTag(job.input.width, [&](auto d) { TailRowsT(d, job, worker, y0, y1); });
}
void SharpenRowsImpl(const SharpenJob& job, int y0, int y1, const uint8_t* above, const uint8_t* below) {
  withTag(job.in.width, [&](auto d) { SharpenRowsT(d, job, y0, y1, above, below); });
}

const char* TargetNameImpl() { return hwy::TargetName(HWY_TARGET); }

}  // namespace HWY_NAMESPACE
}  // namespace lumo::cpu
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace lumo::cpu {

HWY_EXPORT(SkinDetectRowsImpl);
HWY_EXPORT(BilateralRowsImpl);
HWY_EXPORT(SkinSmoothFusesImpl);
HWY_EXPORT(SkinSmoothRowsImpl);
HWY_EXPORT(TailRowsImpl);
HWY_EXPORT(SharpenRowsImpl);
HWY_EXPORT(TargetNameImpl);

void skinDetectRows(const SkinJob& job, int y0, int y1) { HWY_DYNAMIC_DISPATCH(SkinDetectRowsImpl)(job, y0, y1); }
size_t bilateralScratchFloats(int width, int pad) {
  const size_t strip = kBilateralStrip;
  const size_t ringRows = 2 * static_cast<size_t>(pad) + 2;
  // One pass at a time: the padded row, or the ring of rows of a strip.
  const size_t apart = std::max(4 * (static_cast<size_t>(width) + 2 * static_cast<size_t>(pad)), 4 * ringRows * strip);
  // In one sweep: the padded row of a strip and its pair weights, the ring of rows, a ring of pair weights
  // per offset and a fresh row of them per offset.
  const size_t together = 8 * kPaddedStrip + 4 * ringRows * kStripStride +
                          4 * static_cast<size_t>(pad) * kStripStride + 4 * kStripStride;
  return std::max(apart, together);
}

bool skinSmoothFuses(const BilateralJob& job) { return HWY_DYNAMIC_DISPATCH(SkinSmoothFusesImpl)(job); }
void skinSmoothRows(const BilateralJob& job, int worker, int y0, int y1) {
  HWY_DYNAMIC_DISPATCH(SkinSmoothRowsImpl)(job, worker, y0, y1);
}

void bilateralRows(const BilateralJob& job, int worker, int y0, int y1) {
  HWY_DYNAMIC_DISPATCH(BilateralRowsImpl)(job, worker, y0, y1);
}

// A padded row for the high pass, the ring of three rows of the detail layer, and the four rows between the
// tail's sweeps.
size_t detailScratchFloats(int width) { return 4 * (static_cast<size_t>(width) + 2) + 28 * static_cast<size_t>(width); }
void tailRows(const TailJob& job, int worker, int y0, int y1) {
  HWY_DYNAMIC_DISPATCH(TailRowsImpl)(job, worker, y0, y1);
}
void sharpenRows(const SharpenJob& job, int y0, int y1, const uint8_t* above, const uint8_t* below) {
  HWY_DYNAMIC_DISPATCH(SharpenRowsImpl)(job, y0, y1, above, below);
}
const char* simdTarget() { return HWY_DYNAMIC_DISPATCH(TargetNameImpl)(); }

}  // namespace lumo::cpu
#endif
