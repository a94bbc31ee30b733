// The host's region mask on both engines: the skin-gated passes act inside the regions only, with a soft
// edge; outside, a frame is what it is with those passes off; without a region, the usual picture.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "RegionWeights.h"
#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using reference::Frame;

constexpr int kSkinBits = BeautifyPolish | BeautifySkinWhiten;
// The portrait's face, roughly.
constexpr RegionEllipse kFace{225.0f, 125.0f, 60.0f, 78.0f, 0.3f};

float distanceTo(const RegionEllipse& e, int x, int y) {
  return std::hypot((static_cast<float>(x) + 0.5f - e.centerX) / e.radiusX,
                    (static_cast<float>(y) + 0.5f - e.centerY) / e.radiusY);
}

class RegionMaskTest : public ::testing::TestWithParam<EngineKind> {
 protected:
  std::unique_ptr<BeautifyEngine> engine(int mask, float sharpen = 0.0f) const {
    std::string why;
    std::unique_ptr<BeautifyEngine> made = makeEngine(GetParam(), &why);
    EXPECT_NE(made, nullptr) << why;
    if (made) {
      made->enableBeautifying(static_cast<uintptr_t>(mask));
      made->setSharppenFactor(sharpen);
    }
    return made;
  }
  static Frame run(BeautifyEngine& engine, const Frame& in) { return fromBuffer(engine.render(toBuffer(in))); }
  Frame once(const Frame& in, int mask, float sharpen, const RegionMask& region, float polishStep = 3.0f) const {
    std::unique_ptr<BeautifyEngine> e = engine(mask, sharpen);
    e->setPolishStep(polishStep);
    e->setRegionMask(region);
    return run(*e, in);
  }
};

struct Split {
  int outsideDiffer = 0;  // pixels well outside that differ from the frame without the skin passes
  int insideDiffer = 0;   // pixels well inside that differ from the usual picture
  int insideChanged = 0;  // pixels well inside that the skin passes changed
  int outside = 0;
  int inside = 0;
};

bool samePixel(const Frame& a, const Frame& b, int x, int y) {
  for (int c = 0; c < 4; ++c) {
    if (a.at(x, y)[c] != b.at(x, y)[c]) return false;
  }
  return true;
}

// `margin` keeps a sharpen pass's neighbours on the same side of the edge. Outside means outside every
// ellipse; inside, inside the solid part of one.
Split split(const Frame& limited, const Frame& usual, const Frame& withoutSkin, const std::vector<RegionEllipse>& es,
            float margin) {
  Split s;
  for (int y = 0; y < limited.height; ++y) {
    for (int x = 0; x < limited.width; ++x) {
      bool outside = true;
      bool inside = false;
      for (const RegionEllipse& e : es) {
        const float d = distanceTo(e, x, y);
        outside = outside && d >= 1.0f + margin;
        inside = inside || d <= (1.0f - e.feather) - margin;
      }
      if (outside) {
        ++s.outside;
        s.outsideDiffer += samePixel(limited, withoutSkin, x, y) ? 0 : 1;
      } else if (inside) {
        ++s.inside;
        s.insideDiffer += samePixel(limited, usual, x, y) ? 0 : 1;
        s.insideChanged += samePixel(limited, withoutSkin, x, y) ? 0 : 1;
      }
    }
  }
  return s;
}

TEST_P(RegionMaskTest, OutsideIsTheFrameWithoutSkinPassesInsideTheUsualPicture) {
  const Frame portrait = loadSample();
  struct Case {
    int mask;
    float sharpen;
    float margin;
  };
  // The face; one across the top-left corner (the frame's clamping inside the region's window); two apart.
  const std::vector<std::vector<RegionEllipse>> regions = {
      {kFace}, {RegionEllipse{30.0f, 40.0f, 70.0f, 90.0f, 0.3f}},
      {kFace, RegionEllipse{400.0f, 420.0f, 50.0f, 40.0f, 0.5f}}};
  for (const Case c : {Case{BeautifySettings::kDefaultMask, 0.0f, 0.0f}, Case{15, 0.5f, 0.03f},
                       Case{kSkinBits, 0.0f, 0.0f}, Case{BeautifyPolish, 0.0f, 0.0f}}) {
    SCOPED_TRACE("mask " + std::to_string(c.mask));
    const Frame usual = once(portrait, c.mask, c.sharpen, RegionMask::whole());
    const Frame withoutSkin = once(portrait, c.mask & ~kSkinBits, c.sharpen, RegionMask::whole());
    for (size_t r = 0; r < regions.size(); ++r) {
      SCOPED_TRACE("region " + std::to_string(r));
      const Frame limited = once(portrait, c.mask, c.sharpen, RegionMask::inside(regions[r]));
      const Split s = split(limited, usual, withoutSkin, regions[r], c.margin);
      EXPECT_GT(s.outside, 150000);
      EXPECT_GT(s.inside, 2000);
      EXPECT_EQ(s.outsideDiffer, 0);
      EXPECT_EQ(s.insideDiffer, 0);
      EXPECT_GT(s.insideChanged, s.inside / 3);
    }
  }
}

// The same ellipse alone, and with two specks in opposite corners that stretch the region's bounding
// rectangle over the whole frame: every pixel the ellipse weighs, its soft edge included, comes out the
// same, so the work skipped outside the rectangle changed nothing. A hard edge at a fractional step (whose
// samples reach one row and column further) leaves no margin of the window unseen.
TEST_P(RegionMaskTest, SkippedWorkChangesNothingInside) {
  const Frame portrait = loadSample();
  const RegionEllipse speckA{1.0f, 1.0f, 2.0f, 2.0f, 0.5f};
  const RegionEllipse speckB{511.0f, 511.0f, 2.0f, 2.0f, 0.5f};
  const RegionEllipse hardFace{225.0f, 125.0f, 60.0f, 78.0f, 0.01f};
  const struct {
    int mask;
    RegionEllipse face;
    float polishStep;
  } cases[] = {{BeautifySettings::kDefaultMask, kFace, 3.0f},
               {15, kFace, 3.0f},
               {static_cast<int>(BeautifySkinWhiten), kFace, 3.0f},
               {BeautifySettings::kDefaultMask, hardFace, 2.5f},
               {static_cast<int>(BeautifyPolish), hardFace, 4.75f}};
  for (const auto& c : cases) {
    SCOPED_TRACE("mask " + std::to_string(c.mask) + ", feather " + std::to_string(c.face.feather) + ", step " +
                 std::to_string(c.polishStep));
    const Frame alone = once(portrait, c.mask, 0.5f, RegionMask::inside({c.face}), c.polishStep);
    const Frame stretched = once(portrait, c.mask, 0.5f, RegionMask::inside({c.face, speckA, speckB}), c.polishStep);
    int weighed = 0;
    int differ = 0;
    for (int y = 0; y < portrait.height; ++y) {
      for (int x = 0; x < portrait.width; ++x) {
        if (distanceTo(c.face, x, y) >= 1.0f) continue;
        ++weighed;
        differ += samePixel(alone, stretched, x, y) ? 0 : 1;
      }
    }
    EXPECT_GT(weighed, 10000);
    EXPECT_EQ(differ, 0);
  }
}

// Hard-edged ellipses (centred off the pixel grid, across the frame's corner and edge, one row thin) weigh
// every pixel whose centre lies inside in full and none outside, and the bounds hold exactly the weighed
// pixels: the first and last rows and columns included.
TEST(RegionWeights, HardEdgesWeighEveryPixelInsideAndTheBoundsHoldThemAll) {
  constexpr int kWidth = 80, kHeight = 60;
  const RegionEllipse ellipses[] = {{40.3f, 30.7f, 20.0f, 12.5f, 0.01f},
                                    {0.0f, 0.0f, 10.0f, 7.0f, 0.01f},
                                    {79.5f, 59.5f, 6.2f, 30.0f, 0.01f},
                                    {40.0f, 20.5f, 30.0f, 0.9f, 0.01f}};
  for (const RegionEllipse& e : ellipses) {
    SCOPED_TRACE(::testing::Message() << "ellipse at " << e.centerX << ", " << e.centerY);
    RegionWeights weights;
    ASSERT_TRUE(weights.update(RegionMask::inside({e}), kWidth, kHeight));
    int firstRow = kHeight, endRow = 0, firstColumn = kWidth, endColumn = 0;
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        const uint32_t level = weights.data()[y * kWidth + x] & 0xFFu;
        const float d = distanceTo(e, x, y);
        if (d >= 1.0f) {
          EXPECT_EQ(level, 0u) << x << ", " << y;
        } else if (d <= 0.985f) {
          EXPECT_EQ(level, 255u) << x << ", " << y;
        }
        if (level != 0) {
          firstRow = std::min(firstRow, y), endRow = std::max(endRow, y + 1);
          firstColumn = std::min(firstColumn, x), endColumn = std::max(endColumn, x + 1);
        }
      }
    }
    ASSERT_LT(firstRow, endRow);
    EXPECT_EQ(weights.firstRow(), firstRow);
    EXPECT_EQ(weights.endRow(), endRow);
    EXPECT_EQ(weights.firstColumn(), firstColumn);
    EXPECT_EQ(weights.endColumn(), endColumn);
  }
}

// A flat skin tone under skin whitening alone: the processed layer is one colour, so the change at a pixel
// follows its weight, full in the middle, easing to none at the ellipse.
TEST_P(RegionMaskTest, SoftEdgeFallsMonotonically) {
  const Frame flat = pattern(160, 120, [](int, int) { return reference::Rgba{0.80f, 0.58f, 0.47f, 1.0f}; });
  const RegionEllipse e{80.0f, 60.0f, 60.0f, 40.0f, 0.5f};
  const Frame limited = once(flat, BeautifySkinWhiten, 0.0f, RegionMask::inside({e}));
  auto change = [&](int x, int y) {
    int sum = 0;
    for (int c = 0; c < 3; ++c) sum += std::abs(limited.at(x, y)[c] - flat.at(x, y)[c]);
    return sum;
  };
  const int full = change(80, 60);
  EXPECT_GT(full, 10);
  const int row = 60;
  int previous = full;
  bool eased = false;
  for (int x = 80; x < 160; ++x) {
    const int now = change(x, row);
    EXPECT_LE(now, previous) << "x " << x;
    eased = eased || (now > 0 && now < full);
    if (distanceTo(e, x, row) <= 0.5f) {
      EXPECT_EQ(now, full) << "x " << x;
    }
    if (distanceTo(e, x, row) >= 1.0f) {
      EXPECT_EQ(now, 0) << "x " << x;
    }
    previous = now;
  }
  EXPECT_TRUE(eased);
  for (int y = 60; y < 120; ++y) {
    const int now = change(80, y);
    EXPECT_LE(now, change(80, y - 1)) << "y " << y;
  }
}

TEST_P(RegionMaskTest, EmptyRegionLeavesTheSkinPassesOut) {
  const Frame portrait = loadSample();
  const Frame limited = once(portrait, BeautifySettings::kDefaultMask, 0.0f, RegionMask::inside({}));
  const Frame withoutSkin =
      once(portrait, BeautifySettings::kDefaultMask & ~kSkinBits, 0.0f, RegionMask::whole());
  EXPECT_EQ(limited.bgra, withoutSkin.bgra);
  EXPECT_NE(limited.bgra, portrait.bgra);  // whiten still ran

  // With only skin-gated passes asked for, the input itself comes back.
  std::unique_ptr<BeautifyEngine> e = engine(kSkinBits);
  e->setRegionMask(RegionMask::inside({RegionEllipse{-500.0f, -500.0f, 20.0f, 20.0f, 0.3f}}));
  const PixelBufferRef in = toBuffer(portrait);
  EXPECT_EQ(e->render(in), in);
}

// Changes apply at the next frame, follow a frame-size change, and lifting the limit gives the usual picture
// back.
TEST_P(RegionMaskTest, ChangesApplyAtTheNextFrame) {
  const Frame portrait = loadSample();
  const int mask = BeautifySettings::kDefaultMask;
  const Frame usual = once(portrait, mask, 0.0f, RegionMask::whole());
  const Frame withoutSkin = once(portrait, mask & ~kSkinBits, 0.0f, RegionMask::whole());
  std::unique_ptr<BeautifyEngine> e = engine(mask);
  EXPECT_EQ(run(*e, portrait).bgra, usual.bgra);
  e->setRegionMask(RegionMask::inside({kFace}));
  EXPECT_TRUE(e->regionMask().ellipses.size() == 1 && !e->regionMask().wholeFrame);
  const Split s = split(run(*e, portrait), usual, withoutSkin, {kFace}, 0.0f);
  EXPECT_EQ(s.outsideDiffer, 0);
  EXPECT_EQ(s.insideDiffer, 0);

  // Another frame size: the same region, drawn anew.
  const Frame small = pattern(300, 260, [&](int x, int y) {
    const uint8_t* p = portrait.at(x, y);
    return reference::Rgba{p[2] / 255.0f, p[1] / 255.0f, p[0] / 255.0f, 1.0f};
  });
  const Frame smallLimited = run(*e, small);
  const Split t = split(smallLimited, once(small, mask, 0.0f, RegionMask::whole()),
                        once(small, mask & ~kSkinBits, 0.0f, RegionMask::whole()), {kFace}, 0.0f);
  EXPECT_EQ(t.outsideDiffer, 0);
  EXPECT_EQ(t.insideDiffer, 0);
  EXPECT_GT(t.insideChanged, t.inside / 2);

  e->setRegionMask(RegionMask::whole());
  EXPECT_EQ(run(*e, portrait).bgra, usual.bgra);
}

// NV12: the luma of rows the region does not reach is the frame's without the skin passes.
TEST_P(RegionMaskTest, Nv12FramesToo) {
  const Frame portrait = loadSample();
  const int w = portrait.width;
  const int h = portrait.height;
  std::vector<uint8_t> nv12(pixelFormatFrameBytes(kPixelFormatNV12, w, h));
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const uint8_t* p = portrait.at(x, y);
      nv12[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>((p[2] * 77 + p[1] * 150 + p[0] * 29) >> 8);
    }
  }
  for (size_t i = static_cast<size_t>(w) * h; i < nv12.size(); i += 2) {
    nv12[i] = 110;
    nv12[i + 1] = 150;  // a warm tone: skin by the colour rule
  }
  auto render = [&](int mask, const RegionMask& region) {
    std::vector<uint8_t> raw = nv12;
    PixelBufferPlane planes[kPixelBufferMaxPlanes];
    const int32_t count = pixelFormatTightPlanes(kPixelFormatNV12, w, h, raw.data(), planes);
    PixelBufferRef in;
    EXPECT_EQ(PixelBuffer::createWithPlanes(w, h, kPixelFormatNV12, planes, count, nullptr, {}, &in),
              kPixelBufferSuccess);
    std::unique_ptr<BeautifyEngine> e = engine(mask);
    e->setRegionMask(region);
    const PixelBufferRef out = e->render(in);
    std::vector<uint8_t> result(raw.size());
    pixelFormatTightPlanes(kPixelFormatNV12, w, h, result.data(), planes);
    copyPlanesOut(out, planes);
    return result;
  };
  const int mask = BeautifySettings::kDefaultMask;
  const std::vector<uint8_t> limited = render(mask, RegionMask::inside({kFace}));
  const std::vector<uint8_t> withoutSkin = render(mask & ~kSkinBits, RegionMask::whole());
  const std::vector<uint8_t> usual = render(mask, RegionMask::whole());
  const auto rowsEqual = [&](const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int y0, int y1) {
    return std::equal(a.begin() + static_cast<long>(y0) * w, a.begin() + static_cast<long>(y1) * w,
                      b.begin() + static_cast<long>(y0) * w);
  };
  const int top = static_cast<int>(kFace.centerY - kFace.radiusY) - 2;
  const int bottom = static_cast<int>(kFace.centerY + kFace.radiusY) + 2;
  EXPECT_TRUE(rowsEqual(limited, withoutSkin, 0, top));
  EXPECT_TRUE(rowsEqual(limited, withoutSkin, bottom, h));
  EXPECT_FALSE(rowsEqual(usual, withoutSkin, 0, top));  // the skin passes do reach those rows without a region
  EXPECT_FALSE(rowsEqual(limited, withoutSkin, top, bottom));
}

INSTANTIATE_TEST_SUITE_P(Engines, RegionMaskTest, ::testing::Values(EngineKind::Cpu, EngineKind::Gl),
                         [](const ::testing::TestParamInfo<EngineKind>& info) {
                           return std::string(engineKindName(info.param));
                         });

}  // namespace
}  // namespace lumo::test
