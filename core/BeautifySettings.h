#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Export.h"

namespace lumo {

// Bits of the enable mask. A mask counts as on only when it is greater than 0.
enum : int32_t {
  BeautifyPolish = 1,      // skin smoothing
  BeautifyWhiten = 2,      // whiten the whole frame
  BeautifySkinWhiten = 4,  // pink whiten of skin
  BeautifySharpen = 8,     // sharpen; also drops the detail layer and raises the skin blend to 0.5
};

// The range a front end accepts for a setting, and its default.
struct SettingRange {
  float low;
  float high;
  float fallback;
};

// Everything a host sets on an engine, with the defaults and ranges the front ends share. The float
// defaults are the engines' own; the mask defaults to smoothing, whiten and skin whiten, what a user who
// asks for "beautify" expects (an engine itself starts with nothing enabled until told).
struct LUMO_EXPORT BeautifySettings {
  static constexpr int32_t kDefaultMask = BeautifyPolish | BeautifyWhiten | BeautifySkinWhiten;
  static constexpr int32_t kAllPasses = BeautifyPolish | BeautifyWhiten | BeautifySkinWhiten | BeautifySharpen;
  static constexpr int32_t kPresetCount = 13;
  static constexpr SettingRange kPolishStep{0.0f, 16.0f, 3.0f};
  static constexpr SettingRange kPolishFactor{0.0f, 64.0f, 4.0f};
  static constexpr SettingRange kWhiten{0.0f, 1.0f, 0.5f};
  static constexpr SettingRange kSharpen{-1.0f, 4.0f, 0.0f};
  static constexpr SettingRange kSkinWhiten{0.0f, 1.0f, 0.5f};

  int32_t mask = kDefaultMask;
  int32_t preset = 0;  // 0: none; 1..13 a colour preset
  float polishStep = kPolishStep.fallback;
  float polishFactor = kPolishFactor.fallback;
  float whiten = kWhiten.fallback;
  float sharpen = kSharpen.fallback;
  float skinWhiten = kSkinWhiten.fallback;

  bool operator==(const BeautifySettings& other) const;
  bool operator!=(const BeautifySettings& other) const { return !(*this == other); }
};

// One colour preset: out = colour * 255 times `matrix` (row k forms output channel k) plus `offset`.
struct PresetValues {
  float matrix[4][4];
  float offset[4];
};

// Preset `index` (1..13). Any other index writes the preset error line through lumo::log (the value shown
// is index - 1, as it has always been reported) and returns false.
LUMO_EXPORT bool lookupPreset(int32_t index, PresetValues* values);

// The pink-whiten curve: 256 levels mapped through a brightening curve, as 0..1 values.
LUMO_EXPORT const std::array<float, 256>& pinkWhitenCurve();

// Normalised weights w[0..radius] of a symmetric Gaussian kernel, plus a spare w[radius + 1] = 0 that the
// last pair of an odd radius reads (the GL blur's taps are pairs of texels).
LUMO_EXPORT std::vector<float> gaussianWeights(size_t radius, double sigma);

}  // namespace lumo
