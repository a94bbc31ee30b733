#include "CpuImageFilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

#include "CpuKernels.h"
#include "ThreadPool.h"
#include "VideoProcessCustomizedFilter.h"
#include "VideoProcessPinkWhitenFilter.h"

namespace lumo {
namespace {

// The pass graph's constants, as the facade draws them.
constexpr int32_t kPolish = 1;
constexpr int32_t kWhiten = 2;
constexpr int32_t kSkinWhiten = 4;
constexpr int32_t kSharpen = 8;
constexpr float kHighPassOffset = 128.0f / 255.0f;
constexpr float kSkinBlendWeight = 0.35f;
constexpr float kSkinBlendWeightSharpen = 0.5f;
// The bilateral text's spatial weights, far side first, without the centre's 0.18.
constexpr float kBilateralWeights[8] = {0.05f, 0.09f, 0.12f, 0.15f, 0.15f, 0.12f, 0.09f, 0.05f};
constexpr int kBilateralOffsets[8] = {-4, -3, -2, -1, 1, 2, 3, 4};

// Where texture coordinate s + offset * (step / size) lands, in texels from the pixel: the integer part and
// the linear-sampling fraction. Texel centres (whole offsets) give a fraction of 0.
cpu::Tap tapAt(float texels, float weight) {
  const float whole = std::floor(texels);
  float fraction = texels - whole;
  if (fraction < 1.0f / 512.0f) fraction = 0.0f;  // below what an 8-bit weight resolves
  return {static_cast<int>(whole), fraction, weight};
}

// The small blur's weights (radius 1, sigma 2), as its shader generator computes them: the centre, then the
// pair at offset 1 (the second weight of the pair is zero, so the pair sits on a texel centre).
void gaussianTaps(cpu::Tap taps[3]) {
  const double sigma = 2.0;
  const double norm = 1.0 / std::sqrt(2.0 * M_PI * sigma * sigma);
  float weights[2];
  float sum = 0.0f;
  for (int i = 0; i <= 1; ++i) {
    weights[i] = static_cast<float>(std::exp(-static_cast<double>(i * i) / (2.0 * sigma * sigma)) * norm);
    sum = static_cast<float>(sum + (i == 0 ? static_cast<double>(weights[i]) : 2.0 * static_cast<double>(weights[i])));
  }
  for (float& weight : weights) weight /= sum;
  taps[0] = {0, 0.0f, weights[0]};
  taps[1] = {1, 0.0f, weights[1]};
  taps[2] = {-1, 0.0f, weights[1]};
}

bool loadPreset(int32_t index, float matrix[4][4], float offset[4]) {
  if (index < 1 || index > VideoProcessCustomizedFilter::kPresetCount) return false;
  GPUMatrix4x4 m{};
  GPUVector4 o{};
  VideoProcessCustomizedFilter::presetValues(index, &m, &o);
  const GPUVector4* rows[4] = {&m.one, &m.two, &m.three, &m.four};
  for (int k = 0; k < 4; ++k) {
    matrix[k][0] = rows[k]->one;
    matrix[k][1] = rows[k]->two;
    matrix[k][2] = rows[k]->three;
    matrix[k][3] = rows[k]->four;
  }
  offset[0] = o.one;
  offset[1] = o.two;
  offset[2] = o.three;
  offset[3] = o.four;
  return true;
}

}  // namespace

// Two 8-bit working images and the per-worker padded rows of the horizontal passes.
struct CpuImageFilter::Scratch {
  std::vector<uint32_t> a;
  std::vector<uint32_t> b;
  std::vector<uint32_t> rows;
  std::vector<float> floatRows;
  std::vector<int> ringRows;
  float pinkCurve[256];
};

CpuImageFilter::CpuImageFilter() = default;

CpuImageFilter::~CpuImageFilter() { destroy(); }

int32_t CpuImageFilter::create() {
  if (created_) return 0;
  pool_ = std::make_unique<cpu::ThreadPool>(static_cast<int>(std::max(1u, std::thread::hardware_concurrency())));
  scratch_ = std::make_unique<Scratch>();
  // The curve the pink-whiten filter uploads, from the filter itself (no GL is involved in making it).
  const VideoProcessPinkWhitenFilter pink;
  std::copy(pink.curveMap().begin(), pink.curveMap().end(), scratch_->pinkCurve);
  width_ = 0;
  height_ = 0;
  mask_ = 0;
  preset_ = 0;
  created_ = true;
  return 0;
}

int32_t CpuImageFilter::destroy() {
  if (!created_) return 0;
  pool_.reset();
  scratch_.reset();
  outputs_[0].reset();
  outputs_[1].reset();
  created_ = false;
  return 0;
}

int32_t CpuImageFilter::enableBeautifying(uintptr_t mask) {
  wantedMask_.store(static_cast<int32_t>(mask), std::memory_order_relaxed);
  return 1;
}

int32_t CpuImageFilter::setCustomizedFilter(uintptr_t index) {
  wantedPreset_.store(static_cast<int32_t>(index), std::memory_order_relaxed);
  return static_cast<int32_t>(index);
}

int32_t CpuImageFilter::setPolishStep(float step) {
  polishStep_.store(step, std::memory_order_relaxed);
  return 0;
}

int32_t CpuImageFilter::setPolishFactor(float factor) {
  polishFactor_.store(factor, std::memory_order_relaxed);
  return 0;
}

int32_t CpuImageFilter::setWhitenFactor(float factor) {
  whiten_.store(factor, std::memory_order_relaxed);
  return 0;
}

int32_t CpuImageFilter::setSharppenFactor(float factor) {
  sharpen_.store(factor, std::memory_order_relaxed);
  return 0;
}

int32_t CpuImageFilter::setSkinWhitenFactor(float factor) {
  skinWhiten_.store(factor, std::memory_order_relaxed);
  return 0;
}

const char* CpuImageFilter::simdTarget() { return cpu::simdTarget(); }

bool CpuImageFilter::prepare(int32_t width, int32_t height) {
  if (width == width_ && height == height_ && outputs_[0] && outputs_[1]) return true;
  for (PixelBufferRef& output : outputs_) {
    output.reset();  // a result the host still holds stays with the host
    if (PixelBuffer::create(width, height, kPixelFormat32BGRA, {}, &output) != kPixelBufferSuccess) return false;
  }
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  scratch_->a.assign(pixels, 0);
  scratch_->b.assign(pixels, 0);
  width_ = width;
  height_ = height;
  return true;
}

PixelBufferRef CpuImageFilter::render(const PixelBufferRef& pixelBuffer) {
  if (!created_) return nullptr;
  mask_ = wantedMask_.load(std::memory_order_relaxed);
  preset_ = wantedPreset_.load(std::memory_order_relaxed);
  const int32_t mask = mask_ > 0 ? mask_ : 0;
  const bool preset = preset_ >= 1 && preset_ <= VideoProcessCustomizedFilter::kPresetCount;
  if (!pixelBuffer || ((mask & (kPolish | kWhiten | kSkinWhiten | kSharpen)) == 0 && !preset)) return pixelBuffer;
  if (!prepare(pixelBuffer->width(), pixelBuffer->height())) return pixelBuffer;

  PixelBufferRef output = outputs_[nextOutput_];
  nextOutput_ = 1 - nextOutput_;
  if (pixelBuffer->lockBaseAddress(kPixelBufferLockReadOnly) != kPixelBufferSuccess) return pixelBuffer;
  if (output->lockBaseAddress(0) != kPixelBufferSuccess) {
    pixelBuffer->unlockBaseAddress(kPixelBufferLockReadOnly);
    return pixelBuffer;
  }
  runGraph(static_cast<const uint8_t*>(pixelBuffer->baseAddress()), pixelBuffer->bytesPerRow(),
           static_cast<uint8_t*>(output->baseAddress()), output->bytesPerRow());
  output->unlockBaseAddress(0);
  pixelBuffer->unlockBaseAddress(kPixelBufferLockReadOnly);
  return output;
}

void CpuImageFilter::runGraph(const uint8_t* inputBytes, size_t stride, uint8_t* outputBytes, size_t outputStride) {
  using cpu::ConstImage;
  using cpu::Image;
  const int width = width_;
  const int height = height_;
  const int32_t mask = mask_ > 0 ? mask_ : 0;
  float presetMatrix[4][4];
  float presetOffset[4];
  const bool preset = loadPreset(preset_, presetMatrix, presetOffset);
  const size_t tight = static_cast<size_t>(width) * 4;
  const ConstImage input{inputBytes, stride, width, height};
  const Image output{outputBytes, outputStride, width, height};
  const Image a{reinterpret_cast<uint8_t*>(scratch_->a.data()), tight, width, height};
  const Image b{reinterpret_cast<uint8_t*>(scratch_->b.data()), tight, width, height};
  const bool beautify = (mask & (kPolish | kSkinWhiten)) != 0;
  const bool sharpen = (mask & kSharpen) != 0;

  // Padded rows for the horizontal passes: enough for the widest tap, one row per worker.
  const float step = polishStep_.load(std::memory_order_relaxed);
  const int pad = static_cast<int>(std::ceil(std::fabs(4.0f * step))) + 2;
  const size_t rowLength = static_cast<size_t>(width) + 2 * static_cast<size_t>(pad);
  if (scratch_->rows.size() < rowLength * static_cast<size_t>(pool_->size())) {
    scratch_->rows.assign(rowLength * static_cast<size_t>(pool_->size()), 0);
  }

  ConstImage skin{};
  bool addBack = false;
  if (beautify) {
    const cpu::SkinJob skinJob{input, a};
    pool_->parallelFor(height, [&](int, int y0, int y1) { cpu::skinDetectRows(skinJob, y0, y1); });
    if ((mask & kPolish) != 0) {
      cpu::BilateralJob job{};
      job.factor = polishFactor_.load(std::memory_order_relaxed);
      job.pad = pad;
      job.ringSize = 2 * pad + 2;
      job.floatRowLength = rowLength;
      job.floatScratchPerWorker = static_cast<size_t>(job.ringSize + 1) * 4 * rowLength;
      const size_t workers = static_cast<size_t>(pool_->size());
      if (scratch_->floatRows.size() < job.floatScratchPerWorker * workers) {
        scratch_->floatRows.assign(job.floatScratchPerWorker * workers, 0.0f);
      }
      if (scratch_->ringRows.size() < static_cast<size_t>(job.ringSize) * workers) {
        scratch_->ringRows.assign(static_cast<size_t>(job.ringSize) * workers, -1);
      }
      job.floatScratch = scratch_->floatRows.data();
      job.ringRows = scratch_->ringRows.data();
      for (int i = 0; i < 8; ++i) {
        job.taps[i] = tapAt(static_cast<float>(kBilateralOffsets[i]) * step, kBilateralWeights[i]);
      }
      job.in = a;
      job.out = b;
      job.vertical = false;
      pool_->parallelFor(height, [&](int worker, int y0, int y1) { cpu::bilateralRows(job, worker, y0, y1); });
      job.in = b;
      job.out = a;
      job.vertical = true;
      pool_->parallelFor(height, [&](int worker, int y0, int y1) { cpu::bilateralRows(job, worker, y0, y1); });
    }
    skin = a;
    if (!sharpen) {
      // The detail layer: input minus smoothed around mid grey, blurred; the tail adds it back doubled.
      const cpu::OverlayJob highPass{input, a, b, -1.0f, 1.0f, kHighPassOffset};
      pool_->parallelFor(height, [&](int, int y0, int y1) { cpu::overlayRows(highPass, y0, y1); });
      cpu::GaussianJob blur{};
      gaussianTaps(blur.taps);
      blur.tapCount = 3;
      blur.rowScratch = scratch_->rows.data();
      blur.pad = pad;
      blur.in = b;
      blur.out = a;
      blur.vertical = false;
      pool_->parallelFor(height, [&](int worker, int y0, int y1) { cpu::gaussianRows(blur, worker, y0, y1); });
      blur.in = a;
      blur.out = b;
      blur.vertical = true;
      pool_->parallelFor(height, [&](int worker, int y0, int y1) { cpu::gaussianRows(blur, worker, y0, y1); });
      skin = b;
      addBack = true;
    }
  }

  const bool whiten = (mask & kWhiten) != 0;
  ConstImage current = input;
  if (beautify || whiten || (!sharpen && preset)) {
    cpu::TailJob tail{};
    tail.input = input;
    tail.skin = skin;
    // Before a sharpen pass the tail writes into whichever working image the skin layer is not in.
    tail.out = !sharpen ? output : (skin.data == a.data ? b : a);
    tail.beautify = beautify;
    tail.addBack = addBack;
    tail.pinkWhiten = (mask & kSkinWhiten) != 0;
    tail.pinkFactor = skinWhiten_.load(std::memory_order_relaxed);
    tail.blendAlpha = sharpen ? kSkinBlendWeightSharpen : kSkinBlendWeight;
    tail.whiten = whiten;
    tail.whitenFactor = whiten_.load(std::memory_order_relaxed);
    tail.pinkCurve = scratch_->pinkCurve;
    tail.preset = !sharpen && preset;
    std::memcpy(tail.presetMatrix, presetMatrix, sizeof presetMatrix);
    std::memcpy(tail.presetOffset, presetOffset, sizeof presetOffset);
    pool_->parallelFor(height, [&](int, int y0, int y1) { cpu::tailRows(tail, y0, y1); });
    current = tail.out;
  }
  if (sharpen) {
    cpu::SharpenJob job{};
    job.in = current;
    job.out = output;
    job.sharpness = sharpen_.load(std::memory_order_relaxed);
    job.preset = preset;
    std::memcpy(job.presetMatrix, presetMatrix, sizeof presetMatrix);
    std::memcpy(job.presetOffset, presetOffset, sizeof presetOffset);
    pool_->parallelFor(height, [&](int, int y0, int y1) { cpu::sharpenRows(job, y0, y1); });
  }
}

}  // namespace lumo
