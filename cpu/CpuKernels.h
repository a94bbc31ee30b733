#pragma once

#include <cstddef>
#include <cstdint>

// The pass kernels of the CPU engine: each computes rows [y0, y1) of one pass, or of a run of passes fused
// with the 8-bit rounding between them kept (the rows a neighbourhood pass reads are made as it first needs
// them, into small rings of float rows), on packed BGRA, in single precision and in the order the shaders
// compute. SIMD through Highway, the widest instruction set of the running CPU chosen at run time; rows
// narrower than a vector go one lane at a time.
namespace lumo::cpu {

struct ConstImage {
  const uint8_t* data = nullptr;
  size_t stride = 0;
  int width = 0;
  int height = 0;
  const uint8_t* row(int y) const { return data + stride * static_cast<size_t>(y); }
};

struct Image {
  uint8_t* data = nullptr;
  size_t stride = 0;
  int width = 0;
  int height = 0;
  uint8_t* row(int y) const { return data + stride * static_cast<size_t>(y); }
  operator ConstImage() const { return {data, stride, width, height}; }
};

// A sample `offset` texels from the pixel along the pass's axis: the texel at floor(offset) and its
// neighbour, mixed by the fraction (0 for texel centres).
struct Tap {
  int index;
  float fraction;
  float weight;
};

// Skin detect: alpha cleared where the colour is not skin.
struct SkinJob {
  ConstImage in;
  Image out;
};

// One direction of the edge-preserving smoothing: centre weight 0.18, eight taps around it.
struct BilateralJob {
  ConstImage in;
  Image out;
  Tap taps[8];
  float factor;
  bool vertical;
  int pad;  // texels repeated beyond each edge: at least the widest tap, plus one
  // bilateralScratchFloats(in.width, pad) floats per worker, and 2 * pad + 2 ints per worker.
  float* floatScratch;
  size_t floatScratchPerWorker;
  int* ringRows;
};

// Vertical passes run over strips of this many columns, so that the rows they keep stay in cache.
constexpr int kBilateralStrip = 256;
// The widest padding the one-sweep smoothing takes (a polish step of 16), and its padded strip.
constexpr int kMaxPad = 66;
constexpr size_t kPaddedStrip = kBilateralStrip + 2 * kMaxPad;
// The planes of the one-sweep smoothing's rows lie this far apart: a little more than a strip, so that rows
// and planes a power of two apart do not share cache sets.
constexpr size_t kStripStride = kBilateralStrip + 16;

size_t bilateralScratchFloats(int width, int pad);

// The per-pixel passes from the detail layer to the preset, fused: each stage rounds to 8 bits as a pass into
// a texture would. The detail layer's high pass and blur along rows are computed a row at a time, as the
// blur along columns needs them.
struct TailJob {
  ConstImage input;  // the frame
  ConstImage skin;   // the smoothed skin layer
  Image out;
  bool beautify;     // the skin stages run (mask bits 1 or 4)
  bool addBack;      // the detail layer: high pass from skin, blurred, added back to the input first
  float blurCentre;  // the detail blur's taps: the pixel, then its neighbours either side
  float blurSide;
  float* detailScratch;  // detailScratchFloats(input.width) per worker
  bool pinkWhiten;
  float pinkFactor;
  float blendAlpha;
  bool whiten;
  float whitenFactor;
  const float* pinkCurve;  // 256 levels, 0..1
  // The region weights (a level in each byte of a word, `input.width` words a row), or null for the whole
  // frame: the skin layer's alpha is multiplied by them before the blend. Rows outside [regionFirstRow,
  // regionEndRow) weigh nothing: they skip the skin stages, whose layer holds nothing there.
  const uint32_t* region;
  int regionFirstRow;
  int regionEndRow;
  bool preset;
  float presetMatrix[4][4];  // row k forms output channel k (r, g, b, a) from colour * 255
  float presetOffset[4];
};

// Sharpen, then the preset if any (fused, with 8-bit rounding between).
struct SharpenJob {
  ConstImage in;
  Image out;
  float sharpness;
  bool preset;
  float presetMatrix[4][4];
  float presetOffset[4];
};

void skinDetectRows(const SkinJob& job, int y0, int y1);
// One pass of the bilateral (the job's direction), for any taps.
void bilateralRows(const BilateralJob& job, int worker, int y0, int y1);
// Skin detect and both bilateral passes in one sweep, from the input (`in`) to the smoothed layer (`out`),
// for rows [y0, y1) of the vertical pass: for taps on texel centres mirrored about the pixel, which
// skinSmoothFuses says (any whole step).
bool skinSmoothFuses(const BilateralJob& job);
void skinSmoothRows(const BilateralJob& job, int worker, int y0, int y1);
size_t detailScratchFloats(int width);
void tailRows(const TailJob& job, int worker, int y0, int y1);
// `above` and `below`, where given, stand for rows y0 - 1 and y1 of the input (rows another thread may be
// writing while this one runs).
void sharpenRows(const SharpenJob& job, int y0, int y1, const uint8_t* above = nullptr, const uint8_t* below = nullptr);

// The instruction set the kernels run with on this CPU, e.g. "AVX2".
const char* simdTarget();

}  // namespace lumo::cpu
