#pragma once

#include <cstdint>

#include "GlObjects.h"

// Inside the library only: called next to each glGen*/glCreate* and glDelete* of a non-zero name.
namespace lumo::globjects {
void noteCreated(uint32_t count = 1);
void noteDeleted(uint32_t count = 1);
}  // namespace lumo::globjects
