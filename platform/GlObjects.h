#pragma once

#include <cstdint>

#include "Export.h"

namespace lumo {

// GL objects (textures, framebuffers, shaders, programs) the library has made and deleted in this
// process, across all facades and caches. For leak checks and for proving that steady-state frames make
// none; counting costs one relaxed atomic add per object.
struct GLObjectStatistics {
  uint64_t created = 0;
  uint64_t deleted = 0;
  uint64_t live() const { return created - deleted; }
};

LUMO_EXPORT GLObjectStatistics glObjectStatistics();

}  // namespace lumo
