#include "GlRenderer.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <cctype>

#include "GLContext.h"

namespace lumo {

GlRendererInfo probeGlRenderer() {
  GlRendererInfo info;
  const std::shared_ptr<GLContext> context = GLContext::create();
  if (!context) return info;
  const GLContext::Snapshot saved = GLContext::current();
  if (context->makeCurrent()) {
    info.available = true;
    const auto* text = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
    if (text != nullptr) info.renderer = text;
  }
  GLContext::setCurrent(saved);
  std::string lower = info.renderer;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  info.software = lower.empty() || lower.find("llvmpipe") != std::string::npos ||
                  lower.find("softpipe") != std::string::npos || lower.find("swrast") != std::string::npos;
  return info;
}

}  // namespace lumo
