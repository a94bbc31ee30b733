#include "Engine.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <cctype>

namespace lumo::tools {

bool parseEngine(const std::string& text, EngineKind* kind) {
  if (text == "auto") *kind = EngineKind::Auto;
  else if (text == "gl") *kind = EngineKind::Gl;
  else if (text == "cpu") *kind = EngineKind::Cpu;
  else return false;
  return true;
}

const char* engineName(EngineKind kind) {
  switch (kind) {
    case EngineKind::Gl: return "gl";
    case EngineKind::Cpu: return "cpu";
    case EngineKind::Auto: break;
  }
  return "auto";
}

EngineKind resolveEngine(EngineKind wanted, std::string* why) {
  if (wanted != EngineKind::Auto) {
    if (why != nullptr) *why = "asked for";
    return wanted;
  }
  const std::shared_ptr<GLContext> context = GLContext::create();
  if (!context) {
    if (why != nullptr) *why = "no GL context could be made";
    return EngineKind::Cpu;
  }
  std::string renderer;
  {
    const GLContext::Snapshot saved = GLContext::current();
    if (context->makeCurrent()) {
      const auto* text = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
      if (text != nullptr) renderer = text;
    }
    GLContext::setCurrent(saved);
  }
  std::string lower = renderer;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  const bool software = lower.empty() || lower.find("llvmpipe") != std::string::npos ||
                        lower.find("softpipe") != std::string::npos || lower.find("swrast") != std::string::npos;
  if (why != nullptr) *why = renderer.empty() ? "GL renderer unknown" : "GL renderer is " + renderer;
  return software ? EngineKind::Cpu : EngineKind::Gl;
}

Engine::Engine(EngineKind kind) : kind_(kind == EngineKind::Gl ? EngineKind::Gl : EngineKind::Cpu) {
  if (kind_ == EngineKind::Gl) {
    gl_ = std::make_unique<LumoImageFilter>();
  } else {
    cpu_ = std::make_unique<CpuImageFilter>();
  }
}

int32_t Engine::create() {
  return forward([](auto& filter) { return filter.create(); });
}
int32_t Engine::destroy() {
  return forward([](auto& filter) { return filter.destroy(); });
}
void Engine::enableBeautifying(uintptr_t mask) {
  forward([&](auto& filter) { return filter.enableBeautifying(mask); });
}
void Engine::setCustomizedFilter(uintptr_t index) {
  forward([&](auto& filter) { return filter.setCustomizedFilter(index); });
}
void Engine::setPolishStep(float step) {
  forward([&](auto& filter) { return filter.setPolishStep(step); });
}
void Engine::setPolishFactor(float factor) {
  forward([&](auto& filter) { return filter.setPolishFactor(factor); });
}
void Engine::setWhitenFactor(float factor) {
  forward([&](auto& filter) { return filter.setWhitenFactor(factor); });
}
void Engine::setSharppenFactor(float factor) {
  forward([&](auto& filter) { return filter.setSharppenFactor(factor); });
}
void Engine::setSkinWhitenFactor(float factor) {
  forward([&](auto& filter) { return filter.setSkinWhitenFactor(factor); });
}
PixelBufferRef Engine::render(const PixelBufferRef& buffer) {
  return forward([&](auto& filter) { return filter.render(buffer); });
}

}  // namespace lumo::tools
