#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "BeautifyEngine.h"
#include "FramePlan.h"
#include "Export.h"
#include "GLContext.h"
#include "GlHandle.h"
#include "PixelBuffer.h"
#include "RegionMask.h"
#include "TextureCache.h"

extern "C" {
// What-string: "@(#)PROGRAM:LumoImageFilter  PROJECT:LumoImageFilter-1\n", 56 bytes with its terminator.
LUMO_EXPORT extern const unsigned char LumoImageFilterVersionString[];
LUMO_EXPORT extern const double LumoImageFilterVersionNumber;
}

namespace lumo {

class VideoProcessFilter;
class VideoProcessGaussianBlurFilter;
class VideoProcessAlphaBlendFilter;
class VideoProcessSkinDetectFilter;
class VideoProcessBilateralFilter;
class VideoProcessPassThroughFilter;
class VideoProcessWhitenFilter;
class VideoProcessSharpenFilter;
class VideoProcessCustomizedFilter;
class VideoProcessOverlayFilter;
class VideoProcessPinkWhitenFilter;
class VideoProcessYuvToRgbFilter;
class VideoProcessRgbToYuvFilter;
class VideoProcessPackedYuvToRgbFilter;
class VideoProcessRgbToPackedYuvFilter;
class VideoProcessRgb24ToRgbFilter;
class VideoProcessRgbToRgb24Filter;
class VideoProcessRegionFilter;
class RegionWeights;
enum class PassRole;

// The beautify pipeline on the GPU: one BGRA frame in, the processed frame out. A YUV frame (NV12, I420,
// I422, YUY2, UYVY) or a 24-bit one (BGR, RGB) is converted into an RGB texture by one pass before the
// beautify passes, and the result drawn into the planes of a facade-owned buffer of the same format by one
// pass a plane after them; RGBA, BGRx and RGBx come back undrawn.
//
// create(), destroy() and render() each make the facade's own EGL context current for their duration and
// restore the caller's afterwards (a thread that had no context keeps the facade's current).
class LUMO_EXPORT LumoImageFilter : public BeautifyEngine {
 public:
  LumoImageFilter();
  // Runs destroy() if the host did not, so that every GL object is released in the facade's context.
  ~LumoImageFilter() override;
  LumoImageFilter(const LumoImageFilter&) = delete;
  LumoImageFilter& operator=(const LumoImageFilter&) = delete;

  int32_t create() override;
  int32_t destroy() override;
  // Returns null before create() and after destroy(); the input itself when no pass runs, a texture cannot
  // be made or the format is RGBA, BGRx or RGBx; otherwise one of the two output buffers, whose pixels are
  // readable between lockBaseAddress and unlockBaseAddress. The facade draws into that buffer again at a later frame, so a
  // host keeps or copies the result before its next call; a buffer it still holds is never freed.
  PixelBufferRef render(const PixelBufferRef& pixelBuffer) override;
  EngineKind kind() const override { return EngineKind::Gl; }

 protected:
  // One full-screen pass: `second` may be null.
  virtual void doRenderWithFilter(const Texture* first, const Texture* second, const Texture* target,
                                  VideoProcessFilter* filter, int32_t whichPass);

  int32_t doEnableBeautifying(int32_t mask) override;
  int32_t doSetCustomizedFilter(int32_t index) override;
  int32_t createEmptyPixelBuffer(PixelBufferRef* pixelBuffer, int32_t width, int32_t height);
  int32_t changeFormat(int32_t format, int32_t width, int32_t height, int32_t* strides);
  void initBeautifying();
  void uninitBeautifying();
  void initCustomizedFilter();
  void uninitCustomizedFilter();
  int32_t getCurrentFrameBuffer();

  // Members, in declaration order; destruction runs backwards, so the filters go before the context. The
  // settings (the masks and indexes wanted and in force, the five floats) live in BeautifyEngine.
  std::shared_ptr<GLContext> m_pGLContext;
  std::shared_ptr<TextureCache> m_pTexCache;
  GlFramebuffer m_hFrameBufferPool[2];
  int32_t m_nCurrentFrameIndex = 0;
  PixelBufferRef m_pRenderPixelBuffer;
  PixelBufferRef m_pRenderPixelBuffer2;
  PixelBufferRef m_pRefrencePixelBuffer;  // reserved; never set
  int32_t m_nImgWidth = 0;
  int32_t m_nImgHeight = 0;
  int32_t m_nViewWidth = 0;
  int32_t m_nViewHeight = 0;
  std::unique_ptr<VideoProcessGaussianBlurFilter> m_pGaussianBlurFilter;
  std::unique_ptr<VideoProcessAlphaBlendFilter> m_pAlphaBlendFilter;
  std::unique_ptr<VideoProcessSkinDetectFilter> m_pSkinDetectFilter;
  std::unique_ptr<VideoProcessBilateralFilter> m_pBilateralFilter;
  std::unique_ptr<VideoProcessPassThroughFilter> m_pPassThroughFilter;
  std::unique_ptr<VideoProcessWhitenFilter> m_pWhitenFilter;
  std::unique_ptr<VideoProcessSharpenFilter> m_pSharpenFilter;
  std::unique_ptr<VideoProcessCustomizedFilter> m_pCustomizedFilter;
  std::unique_ptr<VideoProcessOverlayFilter> m_pOverlayFilter;
  std::unique_ptr<VideoProcessPinkWhitenFilter> m_pPinkWhitenFilter;
  bool _isCreated = false;

 private:
  // The frame's plan under the host's region mask, whose weights it redraws when the mask or the frame size
  // changed: no skin-gated branch when the region covers nothing.
  FramePlan planFrame(const PixelBuffer& frame);
  // The region weights as a texture, or null without a region.
  TextureRef mapRegion(const FramePlan& plan);
  // The frame plan's passes, starting from T0; returns the texture holding the last pass. `region`, when
  // given, weighs the skin layer before the blend.
  const Texture* runPasses(const FramePlan& plan, const Texture* t0, const Texture* t1, const Texture* t2,
                           const Texture* region);
  VideoProcessFilter* prepareFilter(PassRole role, const FramePlan& plan);
  // T0 from `first`, T1 and T2 from the two output buffers; the statuses are not looked at, only whether
  // each texture came back.
  void mapFrameTextures(const PixelBufferRef& first, TextureRef* t0, TextureRef* t1, TextureRef* t2);
  // A YUV or 24-bit frame: its planes into an RGB texture, the passes, and the result into yuvOutput_'s
  // planes.
  PixelBufferRef renderConverted(const PixelBufferRef& pixelBuffer, const FramePlan& plan);
  // `frame`'s planes, mapped as `sources`, into `target` (T0); the texture holding the last pass into the
  // output planes mapped as `targets`.
  void convertIn(const PixelBuffer& frame, const TextureRef* sources, const Texture* target);
  void convertOut(const PixelBuffer& frame, const Texture* last, const TextureRef* targets);
  // One conversion pass into `target`, a texture of width x height, through its own framebuffer.
  void drawConversion(VideoProcessFilter* filter, const Texture* target, int32_t width, int32_t height);

  // YUV and 24-bit frames only, made on the first one: the RGB frame the passes start from, the output
  // planes, the framebuffer the conversions draw through; each conversion program on the first frame of its
  // formats.
  PixelBufferRef yuvInputRgb_;
  PixelBufferRef yuvOutput_;
  std::unique_ptr<VideoProcessYuvToRgbFilter> yuvToRgb_;
  std::unique_ptr<VideoProcessRgbToYuvFilter> rgbToLuma_;
  std::unique_ptr<VideoProcessRgbToYuvFilter> rgbToChroma_;
  std::unique_ptr<VideoProcessPackedYuvToRgbFilter> packedYuvToRgb_;
  std::unique_ptr<VideoProcessRgbToPackedYuvFilter> rgbToPackedYuv_;
  std::unique_ptr<VideoProcessRgb24ToRgbFilter> rgb24ToRgb_;
  std::unique_ptr<VideoProcessRgbToRgb24Filter> rgbToRgb24_;
  GlFramebuffer conversionFramebuffer_;

  // The host's region mask as last taken, its weights at the frame size, the buffer they are uploaded from
  // and the pass that applies them (made on the first limited frame).
  uint64_t regionSeen_ = 0;
  RegionMask regionWanted_;
  std::unique_ptr<RegionWeights> region_;
  PixelBufferRef regionBuffer_;
  std::unique_ptr<VideoProcessRegionFilter> regionFilter_;
};

}  // namespace lumo
