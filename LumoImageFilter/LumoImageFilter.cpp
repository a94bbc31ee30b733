#include "LumoImageFilter.h"

#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "GlDebug.h"
#include "GlHandle.h"
#include "RegionWeights.h"
#include "VideoProcessAlphaBlendFilter.h"
#include "VideoProcessBilateralFilter.h"
#include "VideoProcessCustomizedFilter.h"
#include "VideoProcessGaussianBlurFilter.h"
#include "VideoProcessOverlayFilter.h"
#include "VideoProcessPackedFilters.h"
#include "VideoProcessPassThroughFilter.h"
#include "VideoProcessPinkWhitenFilter.h"
#include "VideoProcessRegionFilter.h"
#include "VideoProcessSharpenFilter.h"
#include "VideoProcessSkinDetectFilter.h"
#include "VideoProcessWhitenFilter.h"
#include "VideoProcessYuvFilters.h"
#include "PassSequence.h"

namespace lumo {
namespace {

// The filter in `slot`, its program made on first use.
template <typename Filter, typename... Args>
Filter* madeOnce(std::unique_ptr<Filter>& slot, Args... args) {
  if (!slot) {
    slot = std::make_unique<Filter>(args...);
    slot->initProgram();
  }
  return slot.get();
}

// A row of a plane in RGBA texels, four bytes each, the last one's tail unused.
int32_t rgbaTexels(const PixelPlaneGeometry& geometry) { return static_cast<int32_t>((geometry.rowBytes() + 3) / 4); }

bool isRgb24(uint32_t pixelFormat) { return pixelFormat == kPixelFormat24BGR || pixelFormat == kPixelFormat24RGB; }

}  // namespace

LumoImageFilter::LumoImageFilter() : region_(std::make_unique<RegionWeights>()) {}

LumoImageFilter::~LumoImageFilter() { destroy(); }

int32_t LumoImageFilter::create() {
  if (_isCreated) return 0;
  if (!m_pGLContext) m_pGLContext = GLContext::create();
  {
    ContextGuard guard(m_pGLContext.get());
    if (guard.ok()) {
      glDisable(GL_DEPTH_TEST);
      if (!m_pTexCache) TextureCache::create(m_pGLContext, &m_pTexCache);
      for (GlFramebuffer& framebuffer : m_hFrameBufferPool) framebuffer.reset(gl::genFramebuffer());
    }
    m_nCurrentFrameIndex = 0;
  }
  m_nImgWidth = 1;
  m_nImgHeight = 1;
  m_nEnableBeautifying = 0;
  m_nCustomizedFilterIndex = 0;
  _isCreated = true;
  return 0;
}

int32_t LumoImageFilter::destroy() {
  if (!_isCreated) return 0;
  {
    ContextGuard guard(m_pGLContext.get());
    // The cache reads back what the host may still read from its buffers before its textures go.
    m_pTexCache.reset();
    if (guard.ok()) {
      for (GlFramebuffer& framebuffer : m_hFrameBufferPool) framebuffer.reset();
      conversionFramebuffer_.reset();
      yuvToRgb_.reset();
      rgbToLuma_.reset();
      rgbToChroma_.reset();
      packedYuvToRgb_.reset();
      rgbToPackedYuv_.reset();
      rgb24ToRgb_.reset();
      rgbToRgb24_.reset();
    } else {
      // No context to delete them in: the programs went with it.
      for (GlFramebuffer& framebuffer : m_hFrameBufferPool) framebuffer.release();  // NOLINT(bugprone-unused-return-value)
      conversionFramebuffer_.release();  // NOLINT(bugprone-unused-return-value)
      yuvToRgb_.release();        // NOLINT(bugprone-unused-return-value)
      rgbToLuma_.release();       // NOLINT(bugprone-unused-return-value)
      rgbToChroma_.release();     // NOLINT(bugprone-unused-return-value)
      packedYuvToRgb_.release();  // NOLINT(bugprone-unused-return-value)
      rgbToPackedYuv_.release();  // NOLINT(bugprone-unused-return-value)
      rgb24ToRgb_.release();      // NOLINT(bugprone-unused-return-value)
      rgbToRgb24_.release();      // NOLINT(bugprone-unused-return-value)
    }
    yuvInputRgb_.reset();
    yuvOutput_.reset();
    regionBuffer_.reset();
    // Only our references go: a buffer the host still holds stays alive with it.
    m_pRenderPixelBuffer.reset();
    m_pRenderPixelBuffer2.reset();
    m_pRefrencePixelBuffer.reset();
  }
  uninitBeautifying();
  uninitCustomizedFilter();
  m_pGLContext.reset();
  _isCreated = false;
  return 0;
}

int32_t LumoImageFilter::doEnableBeautifying(int32_t mask) {
  m_nEnableBeautifyingLastUpdate.store(mask, std::memory_order_relaxed);
  if (mask == m_nEnableBeautifying) return 1;
  m_nEnableBeautifying = mask;
  if (mask > 0) {
    initBeautifying();
  } else {
    uninitBeautifying();
  }
  return 1;
}

int32_t LumoImageFilter::doSetCustomizedFilter(int32_t index) {
  if (index > 0) {
    if (!m_pCustomizedFilter) initCustomizedFilter();
    if (m_pCustomizedFilter && m_pCustomizedFilter->setColorMatrix(index) >= 0) {
      m_nCustomizedFilterIndexLastUpdate.store(index, std::memory_order_relaxed);
      m_nCustomizedFilterIndex = index;
      return index;
    }
  }
  // No preset, or one the table rejected: recorded as in force so that it is not retried every frame.
  uninitCustomizedFilter();
  m_nCustomizedFilterIndexLastUpdate.store(index, std::memory_order_relaxed);
  m_nCustomizedFilterIndex = index;
  return index;
}

int32_t LumoImageFilter::createEmptyPixelBuffer(PixelBufferRef* pixelBuffer, int32_t width, int32_t height) {
  PixelBufferAttributes attributes;
  attributes.gpuShareable = true;
  return PixelBuffer::create(width, height, kPixelFormat32BGRA, attributes, pixelBuffer);
}

int32_t LumoImageFilter::changeFormat(int32_t /*format*/, int32_t width, int32_t height, int32_t* /*strides*/) {
  m_nImgWidth = width;
  m_nViewWidth = width;
  m_nImgHeight = height;
  m_nViewHeight = height;
  // The previous buffers are dropped, not freed: a host still holding a result keeps it. The pool lets go
  // of their textures first, so that no attachment keeps a texture of the old size alive.
  for (const GlFramebuffer& framebuffer : m_hFrameBufferPool) {
    if (!framebuffer) continue;
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer.get());
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
  }
  createEmptyPixelBuffer(&m_pRenderPixelBuffer, width, height);
  createEmptyPixelBuffer(&m_pRenderPixelBuffer2, width, height);
  return 0;
}

void LumoImageFilter::initBeautifying() {
  ContextGuard guard(m_pGLContext.get());
  m_pGaussianBlurFilter = std::make_unique<VideoProcessGaussianBlurFilter>();
  m_pAlphaBlendFilter = std::make_unique<VideoProcessAlphaBlendFilter>();
  m_pSkinDetectFilter = std::make_unique<VideoProcessSkinDetectFilter>();
  m_pBilateralFilter = std::make_unique<VideoProcessBilateralFilter>();
  m_pWhitenFilter = std::make_unique<VideoProcessWhitenFilter>();
  m_pSharpenFilter = std::make_unique<VideoProcessSharpenFilter>();
  m_pPassThroughFilter = std::make_unique<VideoProcessPassThroughFilter>();
  m_pOverlayFilter = std::make_unique<VideoProcessOverlayFilter>();
  m_pPinkWhitenFilter = std::make_unique<VideoProcessPinkWhitenFilter>();
  m_pGaussianBlurFilter->initProgram();
  m_pAlphaBlendFilter->initProgram();
  m_pSkinDetectFilter->initProgram();
  m_pBilateralFilter->initProgram();
  m_pWhitenFilter->initProgram();
  m_pSharpenFilter->initProgram();
  m_pPassThroughFilter->initProgram();
  m_pOverlayFilter->initProgram();
  m_pPinkWhitenFilter->initProgram();
}

void LumoImageFilter::uninitBeautifying() {
  ContextGuard guard(m_pGLContext.get());
  m_pGaussianBlurFilter.reset();
  m_pAlphaBlendFilter.reset();
  m_pSkinDetectFilter.reset();
  m_pBilateralFilter.reset();
  m_pWhitenFilter.reset();
  m_pSharpenFilter.reset();
  m_pPassThroughFilter.reset();
  m_pOverlayFilter.reset();
  m_pPinkWhitenFilter.reset();
  regionFilter_.reset();
}

void LumoImageFilter::initCustomizedFilter() {
  ContextGuard guard(m_pGLContext.get());
  m_pCustomizedFilter = std::make_unique<VideoProcessCustomizedFilter>();
  m_pCustomizedFilter->initProgram();
}

void LumoImageFilter::uninitCustomizedFilter() {
  ContextGuard guard(m_pGLContext.get());
  m_pCustomizedFilter.reset();
}

int32_t LumoImageFilter::getCurrentFrameBuffer() {
  const int32_t index = m_nCurrentFrameIndex;
  m_nCurrentFrameIndex = (index + 1) % 2;
  return static_cast<int32_t>(m_hFrameBufferPool[index].get());
}

PixelBufferRef LumoImageFilter::render(const PixelBufferRef& pixelBuffer) {
  if (!_isCreated) return nullptr;

  applyWantedSettings();

  if ((m_nEnableBeautifying < 1 && !m_pCustomizedFilter) || !pixelBuffer) return pixelBuffer;
  // YUV and 24-bit frames are converted around the passes; the 32-bit orders other than BGRA come back
  // undrawn (hosts hand such frames to the CPU engine).
  const uint32_t format = pixelBuffer->pixelFormat();
  const bool converted = pixelFormatIsYuv(format) || isRgb24(format);
  if (!converted && format != kPixelFormat32BGRA) return pixelBuffer;
  const FramePlan plan = planFrame(*pixelBuffer);
  if (!plan.any()) return pixelBuffer;
  if (converted) return renderConverted(pixelBuffer, plan);

  m_nCurrentFrameIndex = 0;
  ContextGuard guard(m_pGLContext.get());

  const int32_t width = pixelBuffer->width();
  const int32_t height = pixelBuffer->height();
  TextureRef t0;
  TextureRef t1;
  TextureRef t2;
  if (width != m_nImgWidth || height != m_nImgHeight) changeFormat(0, width, height, nullptr);

  if (guard.ok() && m_pTexCache) mapFrameTextures(pixelBuffer, &t0, &t1, &t2);

  TextureRef region = mapRegion(plan);
  PixelBufferRef result = pixelBuffer;
  if (t0 && t1 && t2) {
    const Texture* last = runPasses(plan, t0.get(), t1.get(), t2.get(), region.get());
    if (last == t1.get()) {
      result = m_pRenderPixelBuffer;
    } else if (last == t2.get()) {
      result = m_pRenderPixelBuffer2;
    }
    glFinish();
    glBindTexture(GL_TEXTURE_2D, 0);
  }
  for (TextureRef* texture : {&t0, &t1, &t2, &region}) {
    if (*texture) {
      glBindTexture((*texture)->target(), 0);
      texture->reset();
    }
  }
  return result;
}

PixelBufferRef LumoImageFilter::renderConverted(const PixelBufferRef& pixelBuffer, const FramePlan& plan) {
  m_nCurrentFrameIndex = 0;
  ContextGuard guard(m_pGLContext.get());
  if (!guard.ok() || !m_pTexCache) return pixelBuffer;
  const uint32_t format = pixelBuffer->pixelFormat();
  const int32_t width = pixelBuffer->width();
  const int32_t height = pixelBuffer->height();
  if (width != m_nImgWidth || height != m_nImgHeight) changeFormat(0, width, height, nullptr);
  if (!yuvInputRgb_ || yuvInputRgb_->width() != width || yuvInputRgb_->height() != height) {
    // A plain buffer: the GPU writes it and nobody reads it back.
    PixelBuffer::create(width, height, kPixelFormat32BGRA, PixelBufferAttributes{}, &yuvInputRgb_);
  }
  // A host that hands the last result back in gets a new one: the pass must not draw into its own source.
  if (!yuvOutput_ || yuvOutput_ == pixelBuffer || yuvOutput_->pixelFormat() != format || yuvOutput_->width() != width ||
      yuvOutput_->height() != height) {
    PixelBufferAttributes attributes;
    attributes.gpuShareable = true;
    PixelBuffer::create(width, height, format, attributes, &yuvOutput_);
  }
  if (!conversionFramebuffer_) conversionFramebuffer_.reset(gl::genFramebuffer());
  if (!yuvInputRgb_ || !yuvOutput_) return pixelBuffer;

  // The source planes as textures of their samples (a byte; NV12's chroma pair; a 24-bit pixel; a packed
  // 4:2:2 pair), the output planes as RGBA textures, four bytes a texel.
  static constexpr uint32_t kSourceFormats[] = {0, GL_LUMINANCE, GL_LUMINANCE_ALPHA, GL_RGB, GL_RGBA};
  const int32_t planes = pixelBuffer->planeCount();
  TextureRef sources[kPixelBufferMaxPlanes];
  TextureRef targets[kPixelBufferMaxPlanes];
  bool mapped = true;
  for (int32_t plane = 0; plane < planes; ++plane) {
    const PixelPlaneGeometry geometry = pixelBuffer->planeGeometry(plane);
    const uint32_t sourceFormat = kSourceFormats[geometry.bytesPerSample];
    mapped = m_pTexCache->createTextureFromImage(pixelBuffer, GL_TEXTURE_2D, static_cast<int32_t>(sourceFormat),
                                                 geometry.width, geometry.height, sourceFormat, GL_UNSIGNED_BYTE,
                                                 static_cast<size_t>(plane), &sources[plane]) == kTextureCacheSuccess &&
             mapped;
    mapped = m_pTexCache->createTextureFromImage(yuvOutput_, GL_TEXTURE_2D, GL_RGBA, rgbaTexels(geometry),
                                                 geometry.height, GL_RGBA, GL_UNSIGNED_BYTE, static_cast<size_t>(plane),
                                                 &targets[plane]) == kTextureCacheSuccess &&
             mapped;
  }
  TextureRef t0;
  TextureRef t1;
  TextureRef t2;
  mapFrameTextures(yuvInputRgb_, &t0, &t1, &t2);

  TextureRef region = mapRegion(plan);
  PixelBufferRef result = pixelBuffer;
  if (mapped && t0 && t1 && t2) {
    convertIn(*pixelBuffer, sources, t0.get());
    const Texture* last = runPasses(plan, t0.get(), t1.get(), t2.get(), region.get());
    if (last != t0.get()) {
      convertOut(*pixelBuffer, last, targets);
      yuvOutput_->setColorimetry(pixelBuffer->colorimetry());
      result = yuvOutput_;
    }
    glFinish();
  }
  for (TextureRef* texture :
       {&sources[0], &sources[1], &sources[2], &targets[0], &targets[1], &targets[2], &t0, &t1, &t2, &region}) {
    if (*texture) {
      glBindTexture((*texture)->target(), 0);
      texture->reset();
    }
  }
  return result;
}

void LumoImageFilter::convertIn(const PixelBuffer& frame, const TextureRef* sources, const Texture* target) {
  const uint32_t format = frame.pixelFormat();
  const int32_t width = frame.width();
  const int32_t height = frame.height();
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, sources[0]->name());
  if (pixelFormatIsPackedYuv(format)) {
    VideoProcessPackedYuvToRgbFilter* filter = madeOnce(packedYuvToRgb_);
    filter->setFrame(format, width, height, frame.colorimetry());
    drawConversion(filter, target, width, height);
    return;
  }
  if (isRgb24(format)) {
    VideoProcessRgb24ToRgbFilter* filter = madeOnce(rgb24ToRgb_);
    filter->setFrame(format, width, height);
    drawConversion(filter, target, width, height);
    return;
  }
  const bool interleaved = format == kPixelFormatNV12;
  glActiveTexture(GL_TEXTURE2);
  glBindTexture(GL_TEXTURE_2D, sources[1]->name());
  // NV12 has no third plane; the unit still needs a texture for the sampler the program does not read.
  glActiveTexture(GL_TEXTURE3);
  glBindTexture(GL_TEXTURE_2D, sources[interleaved ? 1 : 2]->name());
  VideoProcessYuvToRgbFilter* filter = madeOnce(yuvToRgb_);
  filter->setFrame(format, width, height, frame.colorimetry());
  drawConversion(filter, target, width, height);
  glActiveTexture(GL_TEXTURE3);
  glBindTexture(GL_TEXTURE_2D, 0);
}

void LumoImageFilter::convertOut(const PixelBuffer& frame, const Texture* last, const TextureRef* targets) {
  const uint32_t format = frame.pixelFormat();
  const int32_t width = frame.width();
  const int32_t height = frame.height();
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, last->name());
  const PixelPlaneGeometry first = frame.planeGeometry(0);
  if (pixelFormatIsPackedYuv(format)) {
    VideoProcessRgbToPackedYuvFilter* filter = madeOnce(rgbToPackedYuv_);
    filter->setFrame(format, width, height, frame.colorimetry());
    drawConversion(filter, targets[0].get(), rgbaTexels(first), first.height);
    return;
  }
  if (isRgb24(format)) {
    VideoProcessRgbToRgb24Filter* filter = madeOnce(rgbToRgb24_);
    filter->setFrame(format, width, height);
    drawConversion(filter, targets[0].get(), rgbaTexels(first), first.height);
    return;
  }
  using Plane = VideoProcessRgbToYuvFilter::Plane;
  const Plane kinds[3] = {Plane::Luma, format == kPixelFormatNV12 ? Plane::ChromaInterleaved : Plane::Cb, Plane::Cr};
  for (int32_t plane = 0; plane < frame.planeCount(); ++plane) {
    const PixelPlaneGeometry geometry = frame.planeGeometry(plane);
    VideoProcessRgbToYuvFilter* filter = plane == 0 ? madeOnce(rgbToLuma_, true) : madeOnce(rgbToChroma_, false);
    filter->setPlane(kinds[plane], width, height, pixelFormatChromaRows(format), frame.colorimetry());
    drawConversion(filter, targets[plane].get(), rgbaTexels(geometry), geometry.height);
  }
}

void LumoImageFilter::mapFrameTextures(const PixelBufferRef& first, TextureRef* t0, TextureRef* t1, TextureRef* t2) {
  m_pTexCache->createTextureFromImage(first, GL_TEXTURE_2D, GL_RGBA, first->width(), first->height(), GL_BGRA_EXT,
                                      GL_UNSIGNED_BYTE, 0, t0);
  m_pTexCache->createTextureFromImage(m_pRenderPixelBuffer, GL_TEXTURE_2D, GL_RGBA, m_nViewWidth, m_nViewHeight,
                                      GL_BGRA_EXT, GL_UNSIGNED_BYTE, 0, t1);
  m_pTexCache->createTextureFromImage(m_pRenderPixelBuffer2, GL_TEXTURE_2D, GL_RGBA, m_nViewWidth, m_nViewHeight,
                                      GL_BGRA_EXT, GL_UNSIGNED_BYTE, 0, t2);
}

void LumoImageFilter::drawConversion(VideoProcessFilter* filter, const Texture* target, int32_t width,
                                     int32_t height) {
  PassDraw draw;  // the sources are bound by the caller
  draw.framebuffer = conversionFramebuffer_.get();
  draw.width = width;
  draw.height = height;
  draw.target = target->name();
  drawPass(*filter, 1, draw);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
}

FramePlan LumoImageFilter::planFrame(const PixelBuffer& frame) {
  takeRegionMask(&regionSeen_, &regionWanted_);
  FramePlan plan = FramePlan::make(m_nEnableBeautifying, m_pCustomizedFilter != nullptr);
  if (!plan.skinDetect) return plan;
  if (region_->update(regionWanted_, frame.width(), frame.height()) && region_->limited()) {
    if (!regionBuffer_ || regionBuffer_->width() != frame.width() || regionBuffer_->height() != frame.height()) {
      regionBuffer_.reset();
      PixelBuffer::create(frame.width(), frame.height(), kPixelFormat32BGRA, PixelBufferAttributes{}, &regionBuffer_);
    }
    // Written through a lock, so that the texture cache uploads the new weights at their next mapping.
    if (regionBuffer_ && regionBuffer_->lockBaseAddress(0) == kPixelBufferSuccess) {
      auto* to = static_cast<uint8_t*>(regionBuffer_->baseAddress());
      const size_t rowBytes = static_cast<size_t>(frame.width()) * 4;
      for (int32_t y = 0; y < frame.height(); ++y) {
        std::memcpy(to + regionBuffer_->bytesPerRow() * static_cast<size_t>(y),
                    region_->data() + static_cast<size_t>(y) * static_cast<size_t>(frame.width()), rowBytes);
      }
      regionBuffer_->unlockBaseAddress(0);
    }
  }
  if (region_->empty()) plan.dropSkinBranch();
  return plan;
}

TextureRef LumoImageFilter::mapRegion(const FramePlan& plan) {
  TextureRef texture;
  if (!plan.skinDetect || !region_->limited() || !regionBuffer_ || !m_pTexCache) return texture;
  m_pTexCache->createTextureFromImage(regionBuffer_, GL_TEXTURE_2D, GL_RGBA, regionBuffer_->width(),
                                      regionBuffer_->height(), GL_BGRA_EXT, GL_UNSIGNED_BYTE, 0, &texture);
  return texture;
}

const Texture* LumoImageFilter::runPasses(const FramePlan& plan, const Texture* t0, const Texture* t1,
                                          const Texture* t2, const Texture* region) {
  const Texture* const slots[] = {t0, t1, t2, region};
  const PassSequence sequence = makePassSequence(plan, region != nullptr);
  // With a region, the passes up to pink whiten draw only around it: the region's rectangle widened by the
  // reach of every tap on the way (both bilateral passes, both Gaussian passes). What they leave outside is
  // weighed 0 by the region pass, which draws the whole frame again, as the blend does.
  if (region != nullptr) {
    const int reach = 2 * (static_cast<int>(std::ceil(std::fabs(4.0f * polish_step_.load(std::memory_order_relaxed)))) +
                           2) +
                      2 * static_cast<int>(FramePlan::kDetailBlurRadius) + 2;
    const int x0 = std::max(0, region_->firstColumn() - reach);
    const int y0 = std::max(0, region_->firstRow() - reach);
    glEnable(GL_SCISSOR_TEST);
    glScissor(x0, y0, std::min(m_nViewWidth, region_->endColumn() + reach) - x0,
              std::min(m_nViewHeight, region_->endRow() + reach) - y0);
  }
  for (const PassStep& step : sequence) {
    VideoProcessFilter* filter = prepareFilter(step.role, plan);
    doRenderWithFilter(slots[step.first], step.second == kSlotNone ? nullptr : slots[step.second], slots[step.target],
                       filter, step.whichPass);
  }
  return slots[sequence.last];
}

// The filter that draws `role`, with the settings it draws with pushed into it.
VideoProcessFilter* LumoImageFilter::prepareFilter(PassRole role, const FramePlan& plan) {
  switch (role) {
    case PassRole::SkinDetect: return m_pSkinDetectFilter.get();
    case PassRole::BilateralRows:
      m_pBilateralFilter->setSampleStep(polish_step_.load(std::memory_order_relaxed));
      m_pBilateralFilter->setColorDistanceFactor(polish_color_distance_factor_.load(std::memory_order_relaxed));
      return m_pBilateralFilter.get();
    case PassRole::BilateralColumns: return m_pBilateralFilter.get();
    case PassRole::HighPass:
      m_pOverlayFilter->setSrcDirection(-1.0f);
      m_pOverlayFilter->setMultifyVal(1.0f);
      m_pOverlayFilter->setOverlayVal(FramePlan::kHighPassOffset);
      return m_pOverlayFilter.get();
    case PassRole::GaussianRows:
      m_pGaussianBlurFilter->setStepOffset(FramePlan::kDetailBlurStepOffset);
      m_pGaussianBlurFilter->setBlurRadisAndSigma(static_cast<float>(FramePlan::kDetailBlurRadius),
                                                  static_cast<float>(FramePlan::kDetailBlurSigma));
      return m_pGaussianBlurFilter.get();
    case PassRole::GaussianColumns: return m_pGaussianBlurFilter.get();
    case PassRole::AddBack:
      m_pOverlayFilter->setSrcDirection(1.0f);
      m_pOverlayFilter->setMultifyVal(2.0f);
      m_pOverlayFilter->setOverlayVal(FramePlan::kAddBackOffset);
      return m_pOverlayFilter.get();
    case PassRole::PinkWhiten:
      m_pPinkWhitenFilter->setWhitenFactor(pinkwhiten_factor_.load(std::memory_order_relaxed));
      return m_pPinkWhitenFilter.get();
    case PassRole::Region:
      glDisable(GL_SCISSOR_TEST);
      if (!regionFilter_) {
        regionFilter_ = std::make_unique<VideoProcessRegionFilter>();
        regionFilter_->initProgram();
      }
      return regionFilter_.get();
    case PassRole::SkinBlend:
      m_pAlphaBlendFilter->setAlpha(plan.skinBlendWeight);
      return m_pAlphaBlendFilter.get();
    case PassRole::Whiten:
      m_pWhitenFilter->setWhitenFactor(whiten_factor_.load(std::memory_order_relaxed));
      return m_pWhitenFilter.get();
    case PassRole::Sharpen:
      m_pSharpenFilter->setSampleFactor(sharppen_factor_.load(std::memory_order_relaxed));
      return m_pSharpenFilter.get();
    case PassRole::Preset: return m_pCustomizedFilter.get();
  }
  return nullptr;
}

void LumoImageFilter::doRenderWithFilter(const Texture* first, const Texture* second, const Texture* target,
                                         VideoProcessFilter* filter, int32_t whichPass) {
  if (filter->imgWidth() != m_nImgWidth || filter->imgHeight() != m_nImgHeight) {
    filter->doChangeFormat(0, m_nImgWidth, m_nImgHeight, nullptr);
  }
  // Targets alternate T1, T2 in step with the pool's two framebuffers from the first pass of every frame.
  PassDraw draw;
  draw.framebuffer = static_cast<uint32_t>(getCurrentFrameBuffer());
  draw.width = m_nViewWidth;
  draw.height = m_nViewHeight;
  draw.first = first->name();
  draw.second = second != nullptr ? second->name() : 0;
  draw.target = target->name();
  drawPass(*filter, whichPass, draw);
}

}  // namespace lumo
