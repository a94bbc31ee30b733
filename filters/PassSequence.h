#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "FramePlan.h"

namespace lumo {

class VideoProcessFilter;

// The GL engine's passes for a frame plan, in order, each with its inputs and target among the frame's
// textures. The facade walks it once per frame (calling doRenderWithFilter for each step), the benchmark's
// bare chain once at set-up; both draw each step through drawPass.
enum class PassRole {
  SkinDetect,
  BilateralRows,
  BilateralColumns,
  HighPass,
  GaussianRows,
  GaussianColumns,
  AddBack,
  PinkWhiten,
  Region,  // the region weights applied to the skin layer
  SkinBlend,
  Whiten,
  Sharpen,
  Preset,
};
// "skin_detect", "bilateral_h", ...: for profiles and traces.
const char* passRoleName(PassRole role);

// Textures a step reads and writes: the input frame T0, the two ping-pong targets T1 and T2, and the
// region weights.
enum PassSlot : int8_t { kSlotNone = -1, kSlotInput = 0, kSlotT1 = 1, kSlotT2 = 2, kSlotRegion = 3 };

struct PassStep {
  PassRole role;
  PassSlot first;
  PassSlot second;  // kSlotNone: no second input
  PassSlot target;
  int32_t whichPass;  // 2 for the column pass of a two-pass filter, else 1
};

// At most 13 steps; held by value so that a frame allocates nothing.
struct PassSequence {
  std::array<PassStep, 16> steps{};
  size_t count = 0;
  PassSlot last = kSlotInput;  // where the last step drew; the input itself when there is none

  const PassStep* begin() const { return steps.data(); }
  const PassStep* end() const { return steps.data() + count; }
};

// Skin detect T0 -> T1; the two bilateral passes T1 -> T2 -> T1; the detail layer (high pass into the other
// target, its two Gaussian passes, the add-back into the skin layer's); pink whiten; with `region`, the
// region pass; the blend of T0 and the skin layer; then whiten, sharpen and the preset, each into the other
// target of its source.
PassSequence makePassSequence(const FramePlan& plan, bool region);

// What one full-screen pass draws with and into. Texture names of 0 are left as bound; a target of 0 draws
// into whatever `framebuffer` has attached.
struct PassDraw {
  uint32_t framebuffer = 0;
  int32_t width = 0;  // the viewport; 0 leaves it as set
  int32_t height = 0;
  uint32_t first = 0;   // unit 0
  uint32_t second = 0;  // unit 2
  uint32_t target = 0;  // bound to unit 1 and attached
  // Sampling state, uniforms and attributes set for this pass; false where they were set once at set-up.
  bool setState = true;
};

// Binds the framebuffer, the program and the textures, sets the pass's state and draws the quad.
void drawPass(VideoProcessFilter& filter, int32_t whichPass, const PassDraw& draw);

}  // namespace lumo
