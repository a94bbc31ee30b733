#pragma once

#include <cstddef>
#include <cstdint>

#include "BeautifySettings.h"

namespace lumo {

// Which passes a frame runs for a mask and preset, and the constants they run with. Both engines walk it,
// so the pass graph is decided in one place: skin detect, then (polish) the two bilateral passes, then
// (without sharpen) the detail layer: high pass, two Gaussian passes, add back; then pink whiten, the skin
// blend into the input, whiten, sharpen and the preset, each when its bit says so.
struct LUMO_EXPORT FramePlan {
  // Detail layer: input minus smoothed around mid grey (128/255 = 0x3F008081), blurred, added back doubled
  // (-256/255 = 0xBF808081).
  static constexpr float kHighPassOffset = 128.0f / 255.0f;
  static constexpr float kAddBackOffset = -256.0f / 255.0f;
  static constexpr size_t kDetailBlurRadius = 1;
  static constexpr double kDetailBlurSigma = 2.0;
  static constexpr float kDetailBlurStepOffset = 1.0f;
  // The skin blend's weight of the processed layer, and with sharpen on.
  static constexpr float kSkinBlendWeight = 0.35f;  // 0x3EB33333
  static constexpr float kSkinBlendWeightSharpen = 0.5f;
  // The bilateral text's spatial weights and texel offsets, far side first, without the centre's 0.18.
  static constexpr float kBilateralWeights[8] = {0.05f, 0.09f, 0.12f, 0.15f, 0.15f, 0.12f, 0.09f, 0.05f};
  static constexpr int kBilateralOffsets[8] = {-4, -3, -2, -1, 1, 2, 3, 4};

  bool skinDetect = false;   // the skin-gated branch: skin detect ... skin blend
  bool polish = false;       // the two bilateral passes
  bool detailLayer = false;  // high pass, two Gaussian passes, add back
  bool pinkWhiten = false;
  bool whiten = false;
  bool sharpen = false;
  bool preset = false;
  float skinBlendWeight = kSkinBlendWeight;

  // `mask` counts only when greater than 0; `preset` is whether a preset is in force.
  static FramePlan make(int32_t mask, bool preset);
  // The same frame without the skin-gated branch: what a frame gets outside every region.
  void dropSkinBranch() {
    skinDetect = polish = detailLayer = pinkWhiten = false;
    skinBlendWeight = kSkinBlendWeight;
  }
  // False when the frame comes back untouched.
  bool any() const { return skinDetect || whiten || sharpen || preset; }
};

}  // namespace lumo
