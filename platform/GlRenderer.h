#pragma once

#include <string>

namespace lumo {

// What a GL context made here runs on: whether one could be made at all, the GL_RENDERER text, and whether
// that is a software rasterizer (llvmpipe, softpipe, swrast).
struct GlRendererInfo {
  bool available = false;
  std::string renderer;
  bool software = false;
};

// Makes a context, reads GL_RENDERER and lets the context go; the calling thread's current context is
// restored.
GlRendererInfo probeGlRenderer();

}  // namespace lumo
