// The front door: which engine a host gets. Only the engines' headers are seen here, none of GL.
#include "MakeEngine.h"
#include "CpuImageFilter.h"
#include "GLContext.h"
#include "GlRenderer.h"
#include "LumoImageFilter.h"

namespace lumo {

std::unique_ptr<BeautifyEngine> makeEngine(EngineKind kind, std::string* why) {
  std::string reason;
  if (kind != EngineKind::Cpu) {
    const GlRendererInfo gl = probeGlRenderer();
    if (!gl.available) {
      reason = "no GL context could be made";
    } else {
      reason = gl.renderer.empty() ? "GL renderer unknown" : "GL renderer is " + gl.renderer;
    }
    if (kind == EngineKind::Gl && !gl.available) {
      if (why != nullptr) *why = reason;
      return nullptr;
    }
    if (kind == EngineKind::Auto) kind = gl.available && !gl.software ? EngineKind::Gl : EngineKind::Cpu;
  } else {
    reason = "asked for";
  }
  std::unique_ptr<BeautifyEngine> engine;
  if (kind == EngineKind::Gl) {
    engine = std::make_unique<LumoImageFilter>();
  } else {
    engine = std::make_unique<CpuImageFilter>();
  }
  // The GL facade leaves its context current on a thread that had none; a host asking for an engine
  // gets its thread back as it was.
  const GLContext::Snapshot saved = GLContext::current();
  engine->create();
  GLContext::setCurrent(saved);
  if (why != nullptr) *why = reason;
  return engine;
}

}  // namespace lumo
