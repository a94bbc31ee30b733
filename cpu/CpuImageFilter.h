#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "BeautifyEngine.h"
#include "BeautifySettings.h"
#include "Export.h"
#include "PixelBuffer.h"
#include "RegionMask.h"

namespace lumo {

class RegionWeights;

namespace cpu {
class ThreadPool;
struct ConstImage;
struct Image;
struct SharpenJob;
struct BilateralJob;
}  // namespace cpu
struct FramePlan;

// Columns [x0, x1) and rows [y0, y1) of a frame.
struct CpuWindow {
  int x0;
  int x1;
  int y0;
  int y1;
};

// The beautify pass graph on the CPU: the same host interface, settings and deferred application as the GL
// facade, and the same arithmetic as the shaders (single precision, linear sampling with clamp to edge,
// 8-bit storage between passes), with no GL and no EGL. SIMD through Highway, all cores through a pool of
// worker threads over bands of rows; scratch memory is sized on a frame-size change and reused.
//
// Every polish step draws a defined picture in memory and time the frame bounds: a step beyond the
// frame's larger side draws as that side (every tap already lands on the edge texel, so the picture is
// the same), and a step that is not finite (NaN, infinity) draws as 0, every tap on the pixel itself.
class LUMO_EXPORT CpuImageFilter : public BeautifyEngine {
 public:
  CpuImageFilter();
  ~CpuImageFilter() override;

  // Starts the worker threads (one per core, the caller included).
  int32_t create() override;
  int32_t destroy() override;
  // Null before create() and after destroy(); the input itself when nothing is enabled (or the buffer
  // cannot be read); otherwise one of two output buffers, which the next frame but one reuses.
  PixelBufferRef render(const PixelBufferRef& pixelBuffer) override;
  EngineKind kind() const override { return EngineKind::Cpu; }

  // The instruction set the kernels use on this machine, e.g. "AVX2".
  static const char* simdTarget();
  // Caps that instruction set for the whole process, from the next kernel call on, so that targets can be
  // compared on one machine: "best" (no cap), "avx3" (AVX-512), "avx2", "sse4" or "scalar". A CPU without
  // the named set runs the best one below it; simdTarget() says which. False for an unknown name.
  static bool limitSimd(const std::string& name);

 protected:
  int32_t doEnableBeautifying(int32_t mask) override;
  int32_t doSetCustomizedFilter(int32_t index) override;

 private:
  struct Scratch;
  // A frame of another format than BGRA: where it comes from, where it goes, and the BGRA scratch the
  // graph reads it from.
  struct Conversion;
  bool prepare(int32_t width, int32_t height, uint32_t format);
  void runGraph(const FramePlan& plan, const cpu::ConstImage& input, const cpu::Image& output,
                const Conversion* conversion);
  void importBand(const Conversion* conversion, int worker, int y0, int y1);
  void importBand(const Conversion* conversion, int worker, int y0, int y1, const cpu::Image& into);
  void sharpenFirst(const cpu::SharpenJob& job, const Conversion& conversion);
  // The skin-gated stages before the fused tail; returns the smoothed skin layer the tail reads. The first
  // of them converts the input when `conversion` is given.
  cpu::ConstImage runSkinStages(const FramePlan& plan, const cpu::ConstImage& input, const Conversion* conversion);
  cpu::BilateralJob bilateralJob();
  // The rectangle the region weighs, `margin` more on each side (the whole frame without a region).
  CpuWindow regionWindow(int margin) const;

  std::unique_ptr<cpu::ThreadPool> pool_;
  std::unique_ptr<Scratch> scratch_;
  PixelBufferRef outputs_[2];
  int32_t nextOutput_ = 0;
  int32_t width_ = 0;
  int32_t height_ = 0;
  uint32_t format_ = kPixelFormat32BGRA;
  bool presetInForce_ = false;
  PresetValues preset_{};
  // The host's region mask as last taken, and drawn at the frame size.
  uint64_t regionSeen_ = 0;
  RegionMask regionWanted_;
  std::unique_ptr<RegionWeights> region_;
  bool created_ = false;
};

}  // namespace lumo
