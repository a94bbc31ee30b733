// Each filter drawn on llvmpipe (32-bit evaluation) against the reference model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "support/GlHarness.h"

namespace lumo {
namespace {

using reference::Frame;
using reference::Rgba;
using test::compare;
using test::pattern;

Rgba rgb8(int r, int g, int b, int a = 255) { return {r / 255.0f, g / 255.0f, b / 255.0f, a / 255.0f}; }

// A busy synthetic pattern: gradients, a hard edge and transparency, 67 x 45 so nothing is a power of two.
Frame busyPattern() {
  return pattern(67, 45, [](int x, int y) {
    const bool edge = x > 33;
    return rgb8((x * 7 + y * 3) % 256, edge ? 230 : (y * 11) % 256, (x * y) % 256, 128 + (x + y) % 128);
  });
}

class FiltersGL : public ::testing::Test {
 protected:
  template <typename Filter>
  std::unique_ptr<Filter> build() {
    std::unique_ptr<Filter> filter;
    harness_.with([&] {
      filter = std::make_unique<Filter>();
      filter->initProgram();
    });
    return filter;
  }
  template <typename Filter>
  void drop(std::unique_ptr<Filter>& filter) {
    harness_.with([&] { filter.reset(); });
  }
  test::GlHarness harness_;
};

// Texel-centre sampling and an 8-bit target reproduce 8-bit input exactly.
TEST_F(FiltersGL, PassThroughReproducesThePortraitBitForBit) {
  auto filter = build<VideoProcessPassThroughFilter>();
  const Frame sample = test::loadSample();
  const Frame out = harness_.draw(*filter, sample);
  EXPECT_EQ(out.bgra, sample.bgra);
  drop(filter);
}

// Tolerance 1 step: the blend is one multiply-add in float, rounded once by the target.
TEST_F(FiltersGL, AlphaBlendMatchesTheModelOnTheListedCases) {
  auto filter = build<VideoProcessAlphaBlendFilter>();
  EXPECT_EQ(filter->alpha(), 0.5f);
  const Frame first = busyPattern();
  const Frame second = pattern(67, 45, [](int x, int y) { return rgb8(255 - x, y * 5, 90, (x % 3) * 127); });
  for (float alpha : {0.0f, 0.5f, 1.0f, 1.5f}) {
    filter->setAlpha(alpha);
    const Frame out = harness_.draw(*filter, first, &second);
    const auto d = compare(out, reference::alphaBlend(first, second, alpha));
    EXPECT_LE(d.maxColour, 1) << "alpha " << alpha;
    EXPECT_EQ(d.maxAlpha, 0) << "the first input's alpha is kept";
  }
  // alpha 0: the first input exactly; second alpha 0: the first input whatever alpha is.
  filter->setAlpha(0.0f);
  Frame out = harness_.draw(*filter, first, &second);
  EXPECT_EQ(out.bgra, first.bgra);
  const Frame clear = pattern(67, 45, [](int, int) { return rgb8(255, 0, 255, 0); });
  filter->setAlpha(1.0f);
  out = harness_.draw(*filter, first, &clear);
  EXPECT_EQ(out.bgra, first.bgra);
  drop(filter);
}

TEST_F(FiltersGL, SkinDetectThresholdsAtTheirBoundaries) {
  auto filter = build<VideoProcessSkinDetectFilter>();
  const Rgba cases[] = {rgb8(50, 40, 20), rgb8(51, 40, 20),  rgb8(51, 39, 20),       rgb8(51, 40, 19),
                        rgb8(0, 0, 0),    rgb8(20, 30, 200), rgb8(200, 150, 120, 77)};
  const bool skin[] = {false, true, false, false, false, false, true};
  const Frame in = pattern(7, 1, [&](int x, int) { return cases[x]; });
  const Frame out = harness_.draw(*filter, in);
  for (int x = 0; x < 7; ++x) {
    EXPECT_EQ(out.at(x, 0)[3], skin[x] ? in.at(x, 0)[3] : 0) << "case " << x;
    EXPECT_EQ(std::memcmp(out.at(x, 0), in.at(x, 0), 3), 0) << "colour kept, case " << x;
  }
  const Frame sample = test::loadSample();
  EXPECT_EQ(harness_.draw(*filter, sample).bgra, reference::skinDetect(sample).bgra);
  drop(filter);
}

TEST_F(FiltersGL, OverlayHighPassAndAddBack) {
  auto filter = build<VideoProcessOverlayFilter>();
  const Frame sample = test::loadSample();
  // Unset settings: black, with the second input's alpha.
  const Frame translucent = pattern(8, 8, [](int x, int) { return rgb8(90, 90, 90, x * 30); });
  const Frame small = pattern(8, 8, [](int x, int y) { return rgb8(x * 20, y * 20, 200); });
  Frame out = harness_.draw(*filter, small, &translucent);
  for (int x = 0; x < 8; ++x) EXPECT_EQ(out.at(x, 0)[3], x * 30);
  EXPECT_EQ(out.at(3, 3)[2], 0);

  filter->setSrcDirection(-1.0f);
  filter->setMultifyVal(1.0f);
  filter->setOverlayVal(128.0f / 255.0f);
  out = harness_.draw(*filter, sample, &sample);
  for (size_t i = 0; i < out.bgra.size(); i += 4) {
    ASSERT_EQ(out.bgra[i], 128);
    ASSERT_EQ(out.bgra[i + 1], 128);
    ASSERT_EQ(out.bgra[i + 2], 128);
  }
  const Frame grey = pattern(512, 512, [](int, int) { return rgb8(128, 128, 128); });
  filter->setSrcDirection(1.0f);
  filter->setMultifyVal(2.0f);
  filter->setOverlayVal(-256.0f / 255.0f);
  out = harness_.draw(*filter, sample, &grey);
  EXPECT_EQ(out.bgra, sample.bgra);
  drop(filter);
}

// Tolerance 1 step: nine float taps and one division, each colour rounded once by the target.
TEST_F(FiltersGL, BilateralMatchesTheModel) {
  auto filter = build<VideoProcessBilateralFilter>();
  const Frame sample = test::loadSample();
  for (int pass : {1, 2, 3}) {
    filter->setSampleStep(3.0f);
    filter->setColorDistanceFactor(4.0f);
    const auto d =
        compare(harness_.draw(*filter, sample, &sample, pass), reference::bilateral(sample, sample, 3.0f, 4.0f, pass));
    EXPECT_LE(d.maxColour, 1) << "pass " << pass;
    EXPECT_LE(d.maxAlpha, 1);
  }
  // Factor 0 is the plain nine-tap blur; factor 4 keeps a black/white edge intact.
  const Frame edge = pattern(40, 4, [](int x, int) { return x < 20 ? rgb8(0, 0, 0) : rgb8(255, 255, 255); });
  filter->setColorDistanceFactor(0.0f);
  filter->setSampleStep(1.0f);
  Frame out = harness_.draw(*filter, edge, &edge, 1);
  EXPECT_LE(compare(out, reference::bilateral(edge, edge, 1.0f, 0.0f, 1)).maxColour, 1);
  EXPECT_EQ(out.at(19, 0)[0], std::lround(255 * (0.15 + 0.12 + 0.09 + 0.05)));
  filter->setColorDistanceFactor(4.0f);
  out = harness_.draw(*filter, edge, &edge, 1);
  EXPECT_EQ(out.bgra, edge.bgra);
  drop(filter);
}

TEST_F(FiltersGL, BilateralBuildResetsItsSettings) {
  std::unique_ptr<VideoProcessBilateralFilter> filter;
  harness_.with([&] {
    filter = std::make_unique<VideoProcessBilateralFilter>();
    filter->setColorDistanceFactor(0.0f);  // lost: the build sets 4.0 and 3.0
    filter->initProgram();
  });
  const Frame edge = pattern(40, 4, [](int x, int) { return x < 20 ? rgb8(0, 0, 0) : rgb8(255, 255, 255); });
  EXPECT_EQ(harness_.draw(*filter, edge, &edge, 1).bgra, edge.bgra);
  drop(filter);
}

// Tolerance 1 step: the layer samples at texel centres (offset 1.0) and sums three weights.
TEST_F(FiltersGL, GaussianBlurMatchesTheModelAndRadiusZeroIsIdentity) {
  auto filter = build<VideoProcessGaussianBlurFilter>();
  const Frame sample = test::loadSample();
  filter->setStepOffset(1.0f);
  filter->setBlurRadisAndSigma(1.0f, 2.0f);
  for (int pass : {1, 2}) {
    const auto d =
        compare(harness_.draw(*filter, sample, nullptr, pass), reference::gaussian(sample, 1, 2.0, 1.0f, pass));
    EXPECT_LE(d.maxColour, 1);
  }
  // Radius 4 samples between texels; linear filtering on llvmpipe weighs with 8-bit fractions, so 2 steps.
  filter->setBlurRadisAndSigma(4.0f, 2.0f);
  const auto d4 = compare(harness_.draw(*filter, sample, nullptr, 1), reference::gaussian(sample, 4, 2.0, 1.0f, 1));
  EXPECT_LE(d4.maxColour, 2);
  filter->setBlurRadisAndSigma(0.0f, 2.0f);
  EXPECT_EQ(harness_.draw(*filter, sample, nullptr, 1).bgra, sample.bgra);
  drop(filter);
}

TEST_F(FiltersGL, GaussianRebuildsOnlyWhenTheKernelChanges) {
  auto filter = build<VideoProcessGaussianBlurFilter>();
  harness_.with([&] {
    const uint32_t first = filter->program();
    filter->setBlurRadisAndSigma(4.0f, 2.0f);  // the defaults: nothing to do
    EXPECT_EQ(filter->program(), first);
    filter->setBlurRadisAndSigma(1.0f, 2.0f);
    const uint32_t second = filter->program();
    EXPECT_NE(second, first);
    filter->setBlurRadisAndSigma(1.0f, 2.0f);
    EXPECT_EQ(filter->program(), second) << "same pair twice builds once";
    filter->setBlurRadisAndSigma(1.9f, 2.0f);
    const uint32_t third = filter->program();
    EXPECT_NE(third, second) << "1.9 builds the radius-1 texts but is a new value";
    EXPECT_EQ(filter->blurRadius(), 1.9f);
    filter->setBlurRadisAndSigma(1.0f, 2.0f);
    EXPECT_NE(filter->program(), third);
    test::expectNoGlError();
  });
  drop(filter);
}

TEST_F(FiltersGL, SharpenSingleBrightPixelAndModel) {
  auto filter = build<VideoProcessSharpenFilter>();
  const Frame dot = pattern(9, 9, [](int x, int y) { return x == 4 && y == 4 ? rgb8(40, 40, 40) : rgb8(0, 0, 0); });
  filter->setSampleFactor(1.0f);
  Frame out = harness_.draw(*filter, dot);
  EXPECT_EQ(out.at(4, 4)[0], 200) << "5 x its value";
  EXPECT_EQ(out.at(3, 4)[0], 0);
  EXPECT_EQ(out.at(4, 5)[0], 0);
  const Frame sample = test::loadSample();
  for (float sharpness : {0.0f, 0.5f, -0.25f}) {
    filter->setSampleFactor(sharpness);
    const auto d = compare(harness_.draw(*filter, sample), reference::sharpen(sample, sharpness));
    EXPECT_LE(d.maxColour, 1) << sharpness;
  }
  // The alpha is the bottom neighbour's.
  const Frame rows = pattern(4, 4, [](int, int y) { return rgb8(9, 9, 9, 60 * y); });
  filter->setSampleFactor(0.0f);
  out = harness_.draw(*filter, rows);
  EXPECT_EQ(out.at(1, 2)[3], 60);
  EXPECT_EQ(out.at(1, 0)[3], 0) << "clamped at the edge";
  drop(filter);
}

TEST_F(FiltersGL, WhitenLiftsLumaAndKeepsBlack) {
  auto filter = build<VideoProcessWhitenFilter>();
  const Frame bw = pattern(2, 1, [](int x, int) { return x == 0 ? rgb8(0, 0, 0) : rgb8(255, 255, 255); });
  filter->setWhitenFactor(0.5f);
  Frame out = harness_.draw(*filter, bw);
  EXPECT_EQ(out.at(0, 0)[0], 0);
  EXPECT_EQ(out.at(1, 0)[0], 253) << "253.45 rounds to 253";
  EXPECT_EQ(out.at(1, 0)[2], 253);
  const Frame sample = test::loadSample();
  // Tolerance 1 step: the curve runs in float; the colour is rounded once by the target.
  for (float factor : {0.5f, 0.0f, 0.8f}) {
    filter->setWhitenFactor(factor);
    const auto d = compare(harness_.draw(*filter, sample), reference::whiten(sample, factor));
    EXPECT_LE(d.maxColour, 1) << factor;
    EXPECT_EQ(d.maxAlpha, 0);
  }
  drop(filter);
}

TEST_F(FiltersGL, PinkWhitenFollowsTheGreenLevelForBlue) {
  auto filter = build<VideoProcessPinkWhitenFilter>();
  const Frame pixel = pattern(1, 1, [](int, int) { return rgb8(200, 100, 50); });
  filter->setWhitenFactor(1.0f);
  Frame out = harness_.draw(*filter, pixel);
  EXPECT_EQ(out.at(0, 0)[2], 237);
  EXPECT_EQ(out.at(0, 0)[1], 119);
  EXPECT_EQ(out.at(0, 0)[0], 119);
  const Frame sample = test::loadSample();
  filter->setWhitenFactor(0.0f);
  EXPECT_EQ(harness_.draw(*filter, sample).bgra, sample.bgra);
  filter->setWhitenFactor(0.5f);
  const auto d = compare(harness_.draw(*filter, sample), reference::pinkWhiten(sample, 0.5f));
  EXPECT_LE(d.maxColour, 1);
  drop(filter);
}

TEST_F(FiltersGL, PresetsMatchTheModel) {
  auto filter = build<VideoProcessCustomizedFilter>();
  const Frame grey = pattern(1, 1, [](int, int) { return rgb8(128, 128, 128); });
  filter->setColorMatrix(2);
  const Frame out = harness_.draw(*filter, grey);
  EXPECT_EQ(out.at(0, 0)[0], 169) << "168.9";
  EXPECT_EQ(out.at(0, 0)[3], 255);
  const Frame sample = test::loadSample();
  // Tolerance 1 step: one 4 x 4 product in float, clamped, rounded once.
  for (int preset = 1; preset <= 13; ++preset) {
    filter->setColorMatrix(preset);
    const auto d = compare(harness_.draw(*filter, sample), reference::colorMatrix(sample, preset));
    EXPECT_LE(d.maxColour, 1) << "preset " << preset;
    EXPECT_EQ(d.maxAlpha, 0);
  }
  drop(filter);
}

}  // namespace
}  // namespace lumo
