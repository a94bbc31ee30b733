#include "BeautifySettings.h"

#include <cmath>

#include "Log.h"

namespace lumo {
namespace {

// Rows: output red, green, blue, alpha. Presets 9 and 10 differ only in their offset (63.0 against 64.9);
// both are intended.
constexpr PresetValues kPresets[BeautifySettings::kPresetCount] = {
    {{{1.7f, 0.1f, 0.1f, 0.0f}, {0.0f, 1.7f, 0.1f, 0.0f}, {0.0f, 0.1f, 1.6f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {-73.1f, -73.1f, -73.1f, 0.0f}},
    {{{0.8f, 1.6f, 0.2f, 0.0f}, {0.8f, 1.6f, 0.2f, 0.0f}, {0.8f, 1.6f, 0.2f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {-163.9f, -163.9f, -163.9f, 0.0f}},
    {{{0.2f, 0.5f, 0.1f, 0.0f}, {0.2f, 0.5f, 0.1f, 0.0f}, {0.2f, 0.5f, 0.1f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {40.8f, 40.8f, 40.8f, 0.0f}},
    {{{1.9f, -0.3f, -0.2f, 0.0f}, {-0.2f, 1.7f, -0.1f, 0.0f}, {-0.1f, -0.6f, 2.0f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {-87.0f, -87.0f, -87.0f, 0.0f}},
    {{{4.8f, -1.0f, -0.1f, 0.0f}, {-0.5f, 4.4f, -0.1f, 0.0f}, {-0.5f, -1.0f, 5.2f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {-388.4f, -388.4f, -388.4f, 0.0f}},
    {{{0.6f, 0.3f, 0.1f, 0.0f}, {0.2f, 0.7f, 0.1f, 0.0f}, {0.2f, 0.3f, 0.4f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {73.3f, 73.3f, 73.3f, 0.0f}},
    {{{1.2f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.9f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.8f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {0.0f, 0.0f, 0.0f, 0.0f}},
    {{{0.9f, 0.0f, 0.0f, 0.0f}, {0.0f, 1.1f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.9f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {0.0f, 0.0f, 0.0f, 0.0f}},
    {{{0.9f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.9f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.9f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {63.0f, 63.0f, 63.0f, 0.0f}},
    {{{0.9f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.9f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.9f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {64.9f, 64.9f, 64.9f, 0.0f}},
    {{{2.1f, -1.4f, 0.6f, 0.0f}, {-0.3f, 2.0f, -0.3f, 0.0f}, {-1.1f, -0.2f, 2.6f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {-31.0f, -31.0f, -31.0f, 0.0f}},
    {{{0.8f, 0.3f, 0.1f, 0.0f}, {0.1f, 0.9f, 0.0f, 0.0f}, {0.1f, 0.3f, 0.7f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {46.5f, 46.5f, 46.5f, 0.0f}},
    {{{1.0f, 0.0f, 0.0f, 0.0f}, {0.0f, 1.1f, 0.0f, 0.0f}, {0.0f, 0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
     {-66.6f, -66.6f, -66.6f, 0.0f}},
};

int32_t clampLevel(int32_t value) { return value > 255 ? 255 : (value < 0 ? 0 : value); }

std::array<float, 256> makePinkWhitenCurve() {
  std::array<float, 256> curve{};
  for (int32_t i = 0; i < 256; ++i) {
    // A first stage around pivot 200 with weight 0.0: it always adds trunc(0.5) = 0, kept as designed.
    const int32_t a = clampLevel(i + static_cast<int32_t>((static_cast<float>(i) - 200.0f) * 0.0f + 0.5f));
    // Gain 0.18604648 (about 8/43): level 215 lands exactly on 255.
    const int32_t b = clampLevel(a + static_cast<int32_t>(static_cast<float>(a) * 0.18604648f + 0.5f));
    curve[static_cast<size_t>(i)] = static_cast<float>(b) / 255.0f;
  }
  return curve;
}

}  // namespace

bool BeautifySettings::operator==(const BeautifySettings& other) const {
  return mask == other.mask && preset == other.preset && polishStep == other.polishStep &&
         polishFactor == other.polishFactor && whiten == other.whiten && sharpen == other.sharpen &&
         skinWhiten == other.skinWhiten;
}

bool lookupPreset(int32_t index, PresetValues* values) {
  if (index < 1 || index > BeautifySettings::kPresetCount) {
    // Wraps like 32-bit arithmetic for the lowest index instead of overflowing.
    const auto shown = static_cast<int32_t>(static_cast<uint32_t>(index) - 1u);
    log("LUMO Video Filter - Custumized Filter set color matrix index error: %d", shown);
    return false;
  }
  *values = kPresets[index - 1];
  return true;
}

const std::array<float, 256>& pinkWhitenCurve() {
  static const std::array<float, 256> curve = makePinkWhitenCurve();
  return curve;
}

std::vector<float> gaussianWeights(size_t radius, double sigma) {
  std::vector<float> weights(radius + 2, 0.0f);
  const double norm = 1.0 / std::sqrt(6.283185307179586 * sigma * sigma);
  const double denom = sigma * sigma + sigma * sigma;
  float sum = 0.0f;
  for (size_t i = 0; i <= radius; ++i) {
    const double square = static_cast<double>(i) * static_cast<double>(i);
    weights[i] = static_cast<float>(std::exp(-square / denom) * norm);
    sum = i == 0 ? sum + weights[0]
                 : static_cast<float>(static_cast<double>(sum) +
                                      (static_cast<double>(weights[i]) + static_cast<double>(weights[i])));
  }
  for (size_t i = 0; i <= radius; ++i) weights[i] = weights[i] / sum;
  return weights;
}

}  // namespace lumo
