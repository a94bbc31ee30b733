#pragma once

#include <lumo/LumoImageFilter.h>

#include <cstdint>

// The settings lumo-beautify and the lumobeautify element expose, with their defaults and ranges, kept in
// one place so that the two front ends agree.
namespace lumo::settings {

struct Range {
  float low;
  float high;
  float fallback;  // the default
};

// Smoothing, whiten and skin whiten: what a user who asks for "beautify" expects to see.
inline constexpr int32_t kDefaultMask = BeautifyPolish | BeautifyWhiten | BeautifySkinWhiten;
inline constexpr int32_t kAllPasses = BeautifyPolish | BeautifyWhiten | BeautifySkinWhiten | BeautifySharpen;
inline constexpr int32_t kMaxPreset = 13;
inline constexpr Range kPolishStep{0.0f, 16.0f, 3.0f};
inline constexpr Range kPolishFactor{0.0f, 64.0f, 4.0f};
inline constexpr Range kWhiten{0.0f, 1.0f, 0.5f};
inline constexpr Range kSharpen{-1.0f, 4.0f, 0.0f};
inline constexpr Range kSkinWhiten{0.0f, 1.0f, 0.5f};

}  // namespace lumo::settings
