// The whole pipeline at llvmpipe's default precision. With F16C, lowp and mediump run in 16-bit float
// (about 3 decimal digits), so each pass can be a few steps off the 32-bit model, and the skin threshold
// 40/255 rounds onto 0.15686, moving the boundary by a level. The bounds here only catch gross faults
// (a wrong pass, a swapped channel, a lost alpha), not precision.
#include <gtest/gtest.h>

#include "support/GlHarness.h"

namespace lumo {
namespace {

TEST(DefaultPrecision, FullMaskStaysCloseToTheModel) {
  const reference::Frame sample = test::loadSample();
  LumoImageFilter facade;
  facade.enableBeautifying(BeautifyPolish | BeautifyWhiten | BeautifySkinWhiten);
  facade.create();
  const reference::Frame out = test::fromBuffer(facade.render(test::toBuffer(sample)));
  facade.destroy();
  GLContext::setCurrent({});
  reference::Settings settings;
  settings.mask = 7;
  const auto d = test::compare(out, reference::passGraph(sample, settings), 4);
  EXPECT_EQ(d.maxAlpha, 0);
  EXPECT_LE(d.maxColour, 40);
  EXPECT_LE(d.shareAbove, 0.05) << "95 % of channel values within 4 steps";
}

}  // namespace
}  // namespace lumo
