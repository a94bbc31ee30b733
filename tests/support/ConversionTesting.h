#pragma once

// What the CPU conversion suites share: every instruction set in turn, the four colorimetries, random
// samples, and the one-level bound against a float evaluation.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <random>
#include <vector>

#include "PixelBuffer.h"

namespace lumo::cpu {

using Bytes = std::vector<uint8_t>;

// Every instruction set the build compiled and this CPU runs, in turn; the engine would pick the widest.
template <typename Body>
inline void onEveryTarget(const Body& body) {
  for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
    SCOPED_TRACE(hwy::TargetName(target));
    hwy::SetSupportedTargetsForTest(target);
    body();
  }
  hwy::SetSupportedTargetsForTest(0);
}

inline constexpr YuvColorimetry kColorimetries[] = {{YuvMatrix::Bt601, YuvRange::Limited},
                                                    {YuvMatrix::Bt601, YuvRange::Full},
                                                    {YuvMatrix::Bt709, YuvRange::Limited},
                                                    {YuvMatrix::Bt709, YuvRange::Full}};

// Random samples; every third frame only the extremes and the centres, which drive the clamps and the
// grey axis.
inline Bytes randomBytes(std::mt19937& random, size_t count, bool extremes) {
  static constexpr uint8_t kSpecial[] = {0, 1, 16, 127, 128, 129, 235, 240, 254, 255};
  Bytes bytes(count);
  std::uniform_int_distribution<int> any(0, 255);
  std::uniform_int_distribution<int> pick(0, static_cast<int>(std::size(kSpecial)) - 1);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(extremes ? kSpecial[pick(random)] : any(random));
  return bytes;
}

inline uint8_t level(float v) {
  v = std::min(255.0f, std::max(0.0f, v));
  return static_cast<uint8_t>(v + 0.5f);
}

// Most samples exactly as the float evaluation rounds them, none more than a level away.
inline void expectWithinOneLevel(const Bytes& actual, const Bytes& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  size_t off = 0;
  int worst = 0;
  for (size_t i = 0; i < actual.size(); ++i) {
    const int d = std::abs(static_cast<int>(actual[i]) - static_cast<int>(expected[i]));
    worst = std::max(worst, d);
    off += d != 0 ? 1 : 0;
  }
  EXPECT_LE(worst, 1);
  EXPECT_LE(off, actual.size() / 100 + 1) << "samples off by one";
}

}  // namespace lumo::cpu
