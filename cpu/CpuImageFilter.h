#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Export.h"
#include "PixelBuffer.h"

namespace lumo {

namespace cpu {
class ThreadPool;
}

// The beautify pass graph on the CPU: the same host interface, settings and deferred application as
// LumoImageFilter, and the same arithmetic as the shaders (single precision, linear sampling with clamp to
// edge, 8-bit storage between passes), with no GL and no EGL. SIMD through Highway, all cores through a
// pool of worker threads over bands of rows; scratch memory is sized on a frame-size change and reused.
class LUMO_EXPORT CpuImageFilter {
 public:
  CpuImageFilter();
  ~CpuImageFilter();
  CpuImageFilter(const CpuImageFilter&) = delete;
  CpuImageFilter& operator=(const CpuImageFilter&) = delete;

  // Starts the worker threads (one per core, the caller included). Always succeeds; returns 0.
  int32_t create();
  int32_t destroy();
  int32_t enableBeautifying(uintptr_t mask);
  int32_t setCustomizedFilter(uintptr_t index);
  int32_t setPolishStep(float step);
  int32_t setPolishFactor(float factor);
  int32_t setWhitenFactor(float factor);
  int32_t setSharppenFactor(float factor);
  int32_t setSkinWhitenFactor(float factor);

  // Null before create() and after destroy(); the input itself when nothing is enabled (or the buffer
  // cannot be read); otherwise one of two output buffers, which the next frame but one reuses.
  PixelBufferRef render(const PixelBufferRef& pixelBuffer);

  // The instruction set the kernels use on this machine, e.g. "AVX2".
  static const char* simdTarget();

 private:
  struct Scratch;
  bool prepare(int32_t width, int32_t height);
  void runGraph(const uint8_t* input, size_t stride, uint8_t* output, size_t outputStride);

  std::unique_ptr<cpu::ThreadPool> pool_;
  std::unique_ptr<Scratch> scratch_;
  PixelBufferRef outputs_[2];
  int32_t nextOutput_ = 0;
  int32_t width_ = 0;
  int32_t height_ = 0;
  int32_t mask_ = 0;
  int32_t preset_ = 0;
  std::atomic<int32_t> wantedMask_{0};
  std::atomic<int32_t> wantedPreset_{0};
  std::atomic<float> polishStep_{3.0f};
  std::atomic<float> polishFactor_{4.0f};
  std::atomic<float> whiten_{0.5f};
  std::atomic<float> sharpen_{0.0f};
  std::atomic<float> skinWhiten_{0.5f};
  bool created_ = false;
};

}  // namespace lumo
