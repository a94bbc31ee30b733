#pragma once

#include <memory>
#include <string>

#include "BeautifyEngine.h"
#include "Export.h"

namespace lumo {

// An engine on which create() has succeeded, or null with the reason in `why`. Gl fails where no GL
// context can be made; Cpu always works; Auto takes the CPU engine without GL or on a software rasterizer
// (llvmpipe, softpipe, swrast) and the GPU otherwise. On success `why` says what decided, e.g. "GL
// renderer is llvmpipe (LLVM 15.0.6, 256 bits)". The calling thread's current context is left as it was.
LUMO_EXPORT std::unique_ptr<BeautifyEngine> makeEngine(EngineKind kind, std::string* why = nullptr);

}  // namespace lumo
