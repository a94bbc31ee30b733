#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Export.h"
#include "GLContext.h"
#include "PixelBuffer.h"
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

// Bits of the enable mask. A mask counts as on only when it is greater than 0.
enum : int32_t {
  BeautifyPolish = 1,      // skin smoothing
  BeautifyWhiten = 2,      // whiten the whole frame
  BeautifySkinWhiten = 4,  // pink whiten of skin
  BeautifySharpen = 8,     // sharpen; also drops the detail layer and raises the skin blend to 0.5
};

// The beautify pipeline for a host: one BGRA frame in, the processed frame out.
//
// create(), destroy() and render() are called one at a time, from any thread: each makes the facade's
// own EGL context current for its duration and restores the caller's afterwards (a thread that had no
// context keeps the facade's current). The setters may be called from any thread at any time; they take
// effect at the next frame.
class LUMO_EXPORT LumoImageFilter {
 public:
  LumoImageFilter();
  // Runs destroy() if the host did not, so that every GL object is released in the facade's context.
  virtual ~LumoImageFilter();
  LumoImageFilter(const LumoImageFilter&) = delete;
  LumoImageFilter& operator=(const LumoImageFilter&) = delete;

  int32_t create();
  int32_t destroy();
  // Record the wanted mask or preset index (low 32 bits, signed); applied at the top of the next frame.
  int32_t enableBeautifying(uintptr_t mask);
  int32_t setCustomizedFilter(uintptr_t index);
  int32_t setPolishStep(float step);
  int32_t setPolishFactor(float factor);
  int32_t setWhitenFactor(float factor);
  int32_t setSharppenFactor(float factor);
  int32_t setSkinWhitenFactor(float factor);

  // Returns null before create() and after destroy(); the input itself when no pass runs or a texture
  // cannot be made; otherwise one of the two output buffers, whose pixels are readable between
  // lockBaseAddress and unlockBaseAddress. The facade draws into that buffer again at a later frame, so a
  // host keeps or copies the result before its next call; a buffer it still holds is never freed.
  PixelBufferRef render(const PixelBufferRef& pixelBuffer);

 protected:
  // One full-screen pass: `second` may be null.
  virtual void doRenderWithFilter(const Texture* first, const Texture* second, const Texture* target,
                                  VideoProcessFilter* filter, int32_t whichPass);

  int32_t doEnableBeautifying(int32_t mask);
  int32_t doSetCustomizedFilter(int32_t index);
  int32_t createEmptyPixelBuffer(PixelBufferRef* pixelBuffer, int32_t width, int32_t height);
  int32_t changeFormat(int32_t format, int32_t width, int32_t height, int32_t* strides);
  void initBeautifying();
  void uninitBeautifying();
  void initCustomizedFilter();
  void uninitCustomizedFilter();
  int32_t getCurrentFrameBuffer();

  // Members, in declaration order; destruction runs backwards, so the filters go before the context.
  std::shared_ptr<GLContext> m_pGLContext;
  std::shared_ptr<TextureCache> m_pTexCache;
  uint32_t m_hFrameBufferPool[2] = {0, 0};
  int32_t m_nCurrentFrameIndex = 0;
  PixelBufferRef m_pRenderPixelBuffer;
  PixelBufferRef m_pRenderPixelBuffer2;
  PixelBufferRef m_pRefrencePixelBuffer;  // reserved; never set
  int32_t m_nImgWidth = 0;
  int32_t m_nImgHeight = 0;
  int32_t m_nViewWidth = 0;
  int32_t m_nViewHeight = 0;
  int32_t m_nEnableBeautifying = 0;
  std::atomic<int32_t> m_nEnableBeautifyingLastUpdate{0};
  int32_t m_nCustomizedFilterIndex = 0;
  std::atomic<int32_t> m_nCustomizedFilterIndexLastUpdate{0};
  std::atomic<float> polish_step_{3.0f};
  std::atomic<float> polish_color_distance_factor_{4.0f};
  std::atomic<float> whiten_factor_{0.5f};
  std::atomic<float> sharppen_factor_{0.0f};
  std::atomic<float> pinkwhiten_factor_{0.5f};
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
  // The pass graph of one frame, starting from T0; returns the texture holding the last pass.
  const Texture* runPasses(const Texture* t0, const Texture* t1, const Texture* t2);
};

}  // namespace lumo
