#include "CpuImageFilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "CpuFormats.h"
#include "CpuKernels.h"
#include "FramePlan.h"
#include "RegionWeights.h"
#include "ThreadPool.h"

namespace lumo {
namespace {

// Where texture coordinate s + offset * (step / size) lands, in texels from the pixel: the integer part and
// the linear-sampling fraction. Texel centres (whole offsets) give a fraction of 0.
cpu::Tap tapAt(float texels, float weight) {
  const float whole = std::floor(texels);
  float fraction = texels - whole;
  if (fraction < 1.0f / 512.0f) fraction = 0.0f;  // below what an 8-bit weight resolves
  return {static_cast<int>(whole), fraction, weight};
}

// The polish step as this engine draws it. Beyond the frame's larger side every tap already lands on the
// edge texel, so a step held there draws the same picture with padding the frame bounds; a step that is
// no number draws as 0 (every tap on the pixel itself).
float drawnStep(float step, int32_t width, int32_t height) {
  if (!std::isfinite(step)) return 0.0f;
  const auto side = static_cast<float>(std::max(width, height));
  return std::clamp(step, -side, side);
}

// The detail blur's weights as its shader generator lays them out: the centre, then the pair at offset 1
// (the pair's second weight is the spare zero, so the pair sits on a texel centre).
struct DetailBlur {
  float centre;
  float side;
};

DetailBlur detailBlur() {
  const std::vector<float> weights = gaussianWeights(FramePlan::kDetailBlurRadius, FramePlan::kDetailBlurSigma);
  return {weights[0], weights[1]};
}

// Rows of a band in chunks small enough to stay in cache from one conversion or pass to the next; even, for
// 4:2:0 chroma's row pairs.
constexpr int kChunkRows = 16;

template <typename Body>
void inChunks(int y0, int y1, const Body& body) {
  for (int y = y0; y < y1; y += kChunkRows) body(y, std::min(y + kChunkRows, y1));
}

// A band of the first stage: the pass alone, or the input's conversion and the pass chunk by chunk.
template <typename Import, typename Pass>
void firstStageBand(bool converts, int y0, int y1, const Import& import, const Pass& pass) {
  if (!converts) {
    pass(y0, y1);
    return;
  }
  inChunks(y0, y1, [&](int c0, int c1) {
    import(c0, c1);
    pass(c0, c1);
  });
}

// body(worker, y0, y1) over bands of the window's rows.
template <typename Body>
void parallelRows(cpu::ThreadPool& pool, CpuWindow window, const Body& body) {
  if (window.y1 <= window.y0 || window.x1 <= window.x0) return;
  pool.parallelFor(window.y1 - window.y0,
                   [&](int worker, int y0, int y1) { body(worker, window.y0 + y0, window.y0 + y1); });
}

// The window's columns of an image, every row kept: a kernel on it clamps its horizontal taps at the
// window's sides, so its outputs are the frame's ones only a tap's reach inside them.
cpu::ConstImage columnsOf(const cpu::ConstImage& image, CpuWindow window) {
  return {image.data + 4 * static_cast<size_t>(window.x0), image.stride, window.x1 - window.x0, image.height};
}
cpu::Image columnsOf(const cpu::Image& image, CpuWindow window) {
  return {image.data + 4 * static_cast<size_t>(window.x0), image.stride, window.x1 - window.x0, image.height};
}

void copyPreset(bool inForce, const PresetValues& preset, bool* flag, float matrix[4][4], float offset[4]) {
  *flag = inForce;
  std::memcpy(matrix, preset.matrix, sizeof preset.matrix);
  std::memcpy(offset, preset.offset, sizeof preset.offset);
}

}  // namespace

// Two 8-bit working images, the per-worker padded rows of the horizontal passes and the bilateral passes'
// float rows.
struct CpuImageFilter::Scratch {
  std::vector<uint32_t> a;
  std::vector<uint32_t> b;
  // Frames of other formats: the input converted to BGRA, and the output before its conversion back.
  std::vector<uint32_t> input;
  std::vector<uint32_t> output;
  std::vector<uint16_t> importRows;  // per worker
  std::vector<uint32_t> edgeRows;    // per worker: the rows either side of a band, converted privately
  std::vector<float> floatRows;
  std::vector<int> ringRows;
  float step = 0.0f;  // the polish step of this frame, read once: the padding is sized for it
  int pad = 0;
  DetailBlur blur{};
  // Float rows of the per-worker size given, for every worker.
  float* floatRowsOf(size_t perWorker, size_t workers) {
    if (floatRows.size() < perWorker * workers) floatRows.assign(perWorker * workers, 0.0f);
    return floatRows.data();
  }
};

struct CpuImageFilter::Conversion {
  cpu::Planes source;
  cpu::Planes target;
  cpu::Image input;
};

CpuImageFilter::CpuImageFilter() = default;

CpuImageFilter::~CpuImageFilter() { destroy(); }

int32_t CpuImageFilter::create() {
  if (created_) return 0;
  pool_ = std::make_unique<cpu::ThreadPool>(static_cast<int>(std::max(1u, std::thread::hardware_concurrency())));
  scratch_ = std::make_unique<Scratch>();
  region_ = std::make_unique<RegionWeights>();
  regionSeen_ = 0;
  scratch_->blur = detailBlur();
  width_ = 0;
  height_ = 0;
  m_nEnableBeautifying = 0;
  m_nCustomizedFilterIndex = 0;
  presetInForce_ = false;
  created_ = true;
  return 0;
}

int32_t CpuImageFilter::destroy() {
  if (!created_) return 0;
  pool_.reset();
  scratch_.reset();
  region_.reset();
  outputs_[0].reset();
  outputs_[1].reset();
  created_ = false;
  return 0;
}

int32_t CpuImageFilter::doEnableBeautifying(int32_t mask) {
  m_nEnableBeautifyingLastUpdate.store(mask, std::memory_order_relaxed);
  m_nEnableBeautifying = mask;
  return 1;
}

int32_t CpuImageFilter::doSetCustomizedFilter(int32_t index) {
  // An index outside the table is logged once and recorded as in force, with no preset, as on the GPU.
  presetInForce_ = index > 0 && lookupPreset(index, &preset_);
  m_nCustomizedFilterIndexLastUpdate.store(index, std::memory_order_relaxed);
  m_nCustomizedFilterIndex = index;
  return index;
}

const char* CpuImageFilter::simdTarget() { return cpu::simdTarget(); }

bool CpuImageFilter::prepare(int32_t width, int32_t height, uint32_t format) {
  if (width == width_ && height == height_ && format == format_ && outputs_[0] && outputs_[1]) return true;
  width_ = 0;  // until everything below is in place
  for (PixelBufferRef& output : outputs_) {
    output.reset();  // a result the host still holds stays with the host
    if (PixelBuffer::create(width, height, format, {}, &output) != kPixelBufferSuccess) return false;
  }
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  scratch_->a.assign(pixels, 0);
  scratch_->b.assign(pixels, 0);
  const bool converts = format != kPixelFormat32BGRA;
  scratch_->input.assign(converts ? pixels : 0, 0);
  scratch_->output.assign(converts ? pixels : 0, 0);
  const size_t workers = static_cast<size_t>(pool_->size());
  scratch_->importRows.assign(converts ? cpu::importScratchSamples(width) * workers : 0, 0);
  scratch_->edgeRows.assign(converts ? 2 * static_cast<size_t>(width) * workers : 0, 0);
  width_ = width;
  height_ = height;
  format_ = format;
  return true;
}

namespace {

cpu::Planes planesOf(const PixelBuffer& buffer) {
  cpu::Planes planes;
  planes.format = buffer.pixelFormat();
  planes.width = buffer.width();
  planes.height = buffer.height();
  for (int32_t plane = 0; plane < buffer.planeCount(); ++plane) {
    planes.data[plane] = static_cast<uint8_t*>(buffer.baseAddressOfPlane(plane));
    planes.stride[plane] = buffer.bytesPerRowOfPlane(plane);
  }
  planes.colorimetry = buffer.colorimetry();
  return planes;
}

}  // namespace

PixelBufferRef CpuImageFilter::render(const PixelBufferRef& pixelBuffer) {
  if (!created_) return nullptr;
  applyWantedSettings();
  takeRegionMask(&regionSeen_, &regionWanted_);
  FramePlan plan = FramePlan::make(m_nEnableBeautifying, presetInForce_);
  if (!pixelBuffer) return pixelBuffer;
  if (plan.skinDetect) {
    region_->update(regionWanted_, pixelBuffer->width(), pixelBuffer->height());
    if (region_->empty()) plan.dropSkinBranch();
  }
  if (!plan.any()) return pixelBuffer;
  if (!prepare(pixelBuffer->width(), pixelBuffer->height(), pixelBuffer->pixelFormat())) return pixelBuffer;

  PixelBufferRef output = outputs_[nextOutput_];
  nextOutput_ = 1 - nextOutput_;
  if (pixelBuffer->lockBaseAddress(kPixelBufferLockReadOnly) != kPixelBufferSuccess) return pixelBuffer;
  if (output->lockBaseAddress(0) != kPixelBufferSuccess) {
    pixelBuffer->unlockBaseAddress(kPixelBufferLockReadOnly);
    return pixelBuffer;
  }
  output->setColorimetry(pixelBuffer->colorimetry());
  if (format_ == kPixelFormat32BGRA) {
    const cpu::ConstImage input{static_cast<const uint8_t*>(pixelBuffer->baseAddress()), pixelBuffer->bytesPerRow(),
                                width_, height_};
    const cpu::Image out{static_cast<uint8_t*>(output->baseAddress()), output->bytesPerRow(), width_, height_};
    runGraph(plan, input, out, nullptr);
  } else {
    // The graph reads and writes BGRA scratch; the conversions run inside its first and last stages.
    const size_t tight = static_cast<size_t>(width_) * 4;
    const cpu::Image input{reinterpret_cast<uint8_t*>(scratch_->input.data()), tight, width_, height_};
    const cpu::Image out{reinterpret_cast<uint8_t*>(scratch_->output.data()), tight, width_, height_};
    const Conversion conversion{planesOf(*pixelBuffer), planesOf(*output), input};
    runGraph(plan, input, out, &conversion);
  }
  output->unlockBaseAddress(0);
  pixelBuffer->unlockBaseAddress(kPixelBufferLockReadOnly);
  return output;
}

void CpuImageFilter::importBand(const Conversion* conversion, int worker, int y0, int y1) {
  if (conversion == nullptr) return;
  importBand(conversion, worker, y0, y1, conversion->input);
}

void CpuImageFilter::importBand(const Conversion* conversion, int worker, int y0, int y1, const cpu::Image& into) {
  uint16_t* rows = scratch_->importRows.data() + cpu::importScratchSamples(width_) * static_cast<size_t>(worker);
  cpu::importRows(conversion->source, into, rows, y0, y1);
}

void CpuImageFilter::runGraph(const FramePlan& plan, const cpu::ConstImage& input, const cpu::Image& output,
                              const Conversion* conversion) {
  const size_t tight = static_cast<size_t>(width_) * 4;
  const cpu::Image a{reinterpret_cast<uint8_t*>(scratch_->a.data()), tight, width_, height_};
  const cpu::Image b{reinterpret_cast<uint8_t*>(scratch_->b.data()), tight, width_, height_};

  // Padding for the bilateral's horizontal pass: enough for the widest tap.
  scratch_->step = drawnStep(polish_step_.load(std::memory_order_relaxed), width_, height_);
  scratch_->pad = static_cast<int>(std::ceil(std::fabs(4.0f * scratch_->step))) + 2;

  // The first stage converts the input in its bands, the last converts its bands back, a few rows at a time
  // so that converted rows are still in cache when the stage reads them or the conversion back does. Skin
  // stages limited to a region skip rows, so those get the converted frame first.
  const Conversion* importing = conversion;
  if (importing != nullptr && plan.skinDetect && region_->limited()) {
    pool_->parallelFor(height_, [&](int worker, int y0, int y1) { importBand(importing, worker, y0, y1); });
    importing = nullptr;
  }
  const cpu::ConstImage skin = plan.skinDetect ? runSkinStages(plan, input, importing) : cpu::ConstImage{};
  if (plan.skinDetect) importing = nullptr;
  auto lastStage = [&](auto&& stage) {
    if (conversion == nullptr) {
      pool_->parallelFor(height_, [&](int worker, int y0, int y1) { stage(worker, y0, y1); });
      return;
    }
    // Pairs of rows, for 4:2:0 chroma.
    pool_->parallelFor((height_ + 1) / 2, [&](int worker, int p0, int p1) {
      inChunks(2 * p0, std::min(2 * p1, height_), [&](int y0, int y1) {
        stage(worker, y0, y1);
        cpu::exportRows(output, conversion->target, y0, y1);
      });
    });
  };
  cpu::ConstImage current = input;
  if (plan.skinDetect || plan.whiten || (!plan.sharpen && plan.preset)) {
    // The per-pixel passes fused; before a sharpen pass into whichever working image the skin layer is not in.
    cpu::TailJob tail{};
    tail.input = input;
    tail.skin = skin;
    tail.out = !plan.sharpen ? output : (skin.data == a.data ? b : a);
    tail.beautify = plan.skinDetect;
    tail.addBack = plan.detailLayer;
    tail.blurCentre = scratch_->blur.centre;
    tail.blurSide = scratch_->blur.side;
    tail.detailScratch = scratch_->floatRowsOf(cpu::detailScratchFloats(width_), static_cast<size_t>(pool_->size()));
    tail.pinkWhiten = plan.pinkWhiten;
    tail.pinkFactor = pinkwhiten_factor_.load(std::memory_order_relaxed);
    tail.blendAlpha = plan.skinBlendWeight;
    tail.whiten = plan.whiten;
    tail.whitenFactor = whiten_factor_.load(std::memory_order_relaxed);
    tail.pinkCurve = pinkWhitenCurve().data();
    if (plan.skinDetect && region_->limited()) {
      tail.region = region_->data();
      tail.regionFirstRow = region_->firstRow();
      tail.regionEndRow = region_->endRow();
    }
    copyPreset(!plan.sharpen && plan.preset, preset_, &tail.preset, tail.presetMatrix, tail.presetOffset);
    auto rows = [&](int worker, int y0, int y1) {
      firstStageBand(
          importing != nullptr, y0, y1, [&](int c0, int c1) { importBand(importing, worker, c0, c1); },
          [&](int c0, int c1) { cpu::tailRows(tail, worker, c0, c1); });
    };
    if (plan.sharpen) {
      pool_->parallelFor(height_, rows);
    } else {
      lastStage(rows);
    }
    current = tail.out;
    importing = nullptr;
  }
  if (plan.sharpen) {
    cpu::SharpenJob job{};
    job.in = current;
    job.out = output;
    job.sharpness = sharppen_factor_.load(std::memory_order_relaxed);
    copyPreset(plan.preset, preset_, &job.preset, job.presetMatrix, job.presetOffset);
    if (importing == nullptr) {
      lastStage([&](int, int y0, int y1) { cpu::sharpenRows(job, y0, y1); });
    } else {
      sharpenFirst(job, *importing);
    }
  }
}

// Sharpen as the first and last stage: it reads a row either side of each band, which the neighbouring
// bands convert at the same time, so each band converts those two rows privately. Inside the band the
// conversion runs a chunk ahead of the pass.
void CpuImageFilter::sharpenFirst(const cpu::SharpenJob& job, const Conversion& conversion) {
  pool_->parallelFor((height_ + 1) / 2, [&](int worker, int p0, int p1) {
    const int y0 = 2 * p0;
    const int y1 = std::min(2 * p1, height_);
    if (y0 >= y1) return;
    uint32_t* edges = scratch_->edgeRows.data() + 2 * static_cast<size_t>(width_) * static_cast<size_t>(worker);
    // One row each, written through an image of stride 0: every row of it is that row.
    auto edgeRow = [&](int slot, int y) -> const uint8_t* {
      uint8_t* row = reinterpret_cast<uint8_t*>(edges + static_cast<size_t>(slot) * static_cast<size_t>(width_));
      importBand(&conversion, worker, y, y + 1, cpu::Image{row, 0, width_, height_});
      return row;
    };
    const uint8_t* above = y0 > 0 ? edgeRow(0, y0 - 1) : nullptr;
    const uint8_t* below = y1 < height_ ? edgeRow(1, y1) : nullptr;
    importBand(&conversion, worker, y0, std::min(y0 + kChunkRows, y1));
    inChunks(y0, y1, [&](int c0, int c1) {
      if (c1 < y1)
        importBand(&conversion, worker, c1, std::min(c1 + kChunkRows, y1));  // this chunk's last row reads it
      cpu::sharpenRows(job, c0, c1, c0 == y0 ? above : nullptr, c1 == y1 ? below : nullptr);
      cpu::exportRows(job.out, conversion.target, c0, c1);
    });
  });
}

CpuWindow CpuImageFilter::regionWindow(int margin) const {
  if (!region_->limited()) return {0, width_, 0, height_};
  return {std::max(0, region_->firstColumn() - margin), std::min(width_, region_->endColumn() + margin),
          std::max(0, region_->firstRow() - margin), std::min(height_, region_->endRow() + margin)};
}

// Each stage computes the rectangle the next one reads correctly: the region's for the tail, widened by the
// reach of every tap on the way back (both passes of a pair reach as far). Pixels outside are never read,
// so they are not computed.
cpu::ConstImage CpuImageFilter::runSkinStages(const FramePlan& plan, const cpu::ConstImage& input,
                                              const Conversion* conversion) {
  const size_t tight = static_cast<size_t>(width_) * 4;
  const cpu::Image a{reinterpret_cast<uint8_t*>(scratch_->a.data()), tight, width_, height_};
  const cpu::Image b{reinterpret_cast<uint8_t*>(scratch_->b.data()), tight, width_, height_};
  const int detailReach = plan.detailLayer ? static_cast<int>(FramePlan::kDetailBlurRadius) : 0;
  const int bilateralReach = plan.polish ? scratch_->pad : 0;
  const CpuWindow skin = regionWindow(detailReach + bilateralReach);
  const CpuWindow smoothed = regionWindow(detailReach);
  cpu::BilateralJob smooth = plan.polish ? bilateralJob() : cpu::BilateralJob{};
  if (plan.polish && cpu::skinSmoothFuses(smooth)) {
    // One sweep from the input, whose bands read rows either side of their own: a conversion runs first.
    if (conversion != nullptr) {
      pool_->parallelFor(height_, [&](int worker, int y0, int y1) { importBand(conversion, worker, y0, y1); });
    }
    smooth.in = columnsOf(input, skin);
    smooth.out = columnsOf(a, skin);
    parallelRows(*pool_, {skin.x0, skin.x1, smoothed.y0, smoothed.y1},
                 [&](int worker, int y0, int y1) { cpu::skinSmoothRows(smooth, worker, y0, y1); });
    return a;
  }
  const cpu::SkinJob skinJob{columnsOf(input, skin), columnsOf(a, skin)};
  // A conversion here means the whole frame (no region): its rows are the window's.
  parallelRows(*pool_, skin, [&](int worker, int y0, int y1) {
    firstStageBand(
        conversion != nullptr, y0, y1, [&](int c0, int c1) { importBand(conversion, worker, c0, c1); },
        [&](int c0, int c1) { cpu::skinDetectRows(skinJob, c0, c1); });
  });
  if (!plan.polish) return a;
  // Skin in `a`, smoothed back into `a` through `b`, a pass at a time.
  smooth.in = columnsOf(a, skin);
  smooth.out = columnsOf(b, skin);
  smooth.vertical = false;
  parallelRows(*pool_, skin, [&](int worker, int y0, int y1) { cpu::bilateralRows(smooth, worker, y0, y1); });
  smooth.in = columnsOf(b, smoothed);
  smooth.out = columnsOf(a, smoothed);
  smooth.vertical = true;
  parallelRows(*pool_, smoothed, [&](int worker, int y0, int y1) { cpu::bilateralRows(smooth, worker, y0, y1); });
  return a;
}

// The bilateral's taps and settings for this frame, and its scratch rows.
cpu::BilateralJob CpuImageFilter::bilateralJob() {
  const float step = scratch_->step;
  cpu::BilateralJob job{};
  job.factor = polish_color_distance_factor_.load(std::memory_order_relaxed);
  job.pad = scratch_->pad;
  job.floatScratchPerWorker = cpu::bilateralScratchFloats(width_, scratch_->pad);
  const size_t workers = static_cast<size_t>(pool_->size());
  job.floatScratch = scratch_->floatRowsOf(job.floatScratchPerWorker, workers);
  const size_t ringRows = (2 * static_cast<size_t>(scratch_->pad) + 2) * workers;
  if (scratch_->ringRows.size() < ringRows) scratch_->ringRows.assign(ringRows, -1);
  job.ringRows = scratch_->ringRows.data();
  for (int i = 0; i < 8; ++i) {
    job.taps[i] = tapAt(static_cast<float>(FramePlan::kBilateralOffsets[i]) * step, FramePlan::kBilateralWeights[i]);
  }
  return job;
}

}  // namespace lumo
