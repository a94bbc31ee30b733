#pragma once

#include <lumo/lumo.h>

#include <cstdint>
#include <memory>
#include <string>

// The engine behind lumo-beautify and the lumobeautify element: the GL path (LumoImageFilter) or the CPU
// engine (CpuImageFilter), with the same calls.
namespace lumo::tools {

enum class EngineKind { Auto, Gl, Cpu };

// "auto", "gl" or "cpu".
bool parseEngine(const std::string& text, EngineKind* kind);
const char* engineName(EngineKind kind);

// Auto takes the CPU engine when no GL context can be made or the GL renderer is a software rasterizer
// (llvmpipe, softpipe, swrast), the GL path otherwise. `why` says what decided, e.g. "GL renderer is
// llvmpipe (LLVM 15.0.6, 256 bits)".
EngineKind resolveEngine(EngineKind wanted, std::string* why);

class Engine {
 public:
  explicit Engine(EngineKind kind);  // Gl or Cpu; Auto is resolved first
  EngineKind kind() const { return kind_; }

  int32_t create();
  int32_t destroy();
  void enableBeautifying(uintptr_t mask);
  void setCustomizedFilter(uintptr_t index);
  void setPolishStep(float step);
  void setPolishFactor(float factor);
  void setWhitenFactor(float factor);
  void setSharppenFactor(float factor);
  void setSkinWhitenFactor(float factor);
  PixelBufferRef render(const PixelBufferRef& buffer);

 private:
  template <typename Call>
  auto forward(const Call& call) {
    return gl_ ? call(*gl_) : call(*cpu_);
  }

  EngineKind kind_;
  std::unique_ptr<LumoImageFilter> gl_;
  std::unique_ptr<CpuImageFilter> cpu_;
};

}  // namespace lumo::tools
