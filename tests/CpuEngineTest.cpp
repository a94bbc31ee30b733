// The CPU engine against the GL path (32-bit evaluation) and the pass-graph model: the same picture.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using reference::Frame;

struct Case {
  int mask;
  int preset;
  int maxColour;      // largest difference allowed in any colour channel
  double shareAbove;  // share of colour channels allowed more than one step apart
};

template <typename Filter>
Frame renderWith(const Frame& in, const Case& c, float sharpen) {
  Filter filter;
  filter.create();
  filter.enableBeautifying(static_cast<uintptr_t>(c.mask));
  filter.setCustomizedFilter(static_cast<uintptr_t>(c.preset));
  filter.setSharppenFactor(sharpen);
  const PixelBufferRef out = filter.render(toBuffer(in));
  Frame frame = fromBuffer(out);
  filter.destroy();
  GLContext::setCurrent({});
  return frame;
}

std::vector<Frame> inputs() {
  return {loadSample(),
          // Hard edges, flat areas and gradients; an odd width exercises the vectors' overlapping tail.
          pattern(203, 97,
                  [](int x, int y) {
                    const bool square = ((x / 16) + (y / 16)) % 2 == 0;
                    return reference::Rgba{square ? 0.85f : 0.3f, (x % 64) / 63.0f, (y % 32) / 31.0f, 1.0f};
                  }),
          // Narrower than a vector: lane by lane.
          pattern(5, 40, [](int x, int y) {
            return reference::Rgba{0.9f - 0.1f * x, 0.6f, 0.02f * y, 1.0f};
          })};
}

// At 32-bit evaluation the GL path and the engine compute the same single-precision arithmetic; they part
// only where a value lands next to a rounding boundary of an 8-bit store, by one step, and such a step can
// travel through the passes that follow. Sharpen is the exception in both directions: on its own it already
// rounds about a tenth of the channels one step differently (never more than one), and it amplifies a
// difference in front of it by up to 1 + 4 s = 3 at s = 0.5, plus s from each neighbour. Behind the
// beautify passes (masks 9 and 15), where a few percent of channels arrive one step apart, that gives up to
// 7 steps and some 5 % of channels above one step here: the bounds below are 10 steps and 8 %.
TEST(CpuEngine, MatchesTheGlPathAtFullPrecision) {
  std::vector<Case> cases = {{1, 0, 4, 0.002}, {2, 0, 4, 0.002},  {4, 0, 4, 0.002}, {7, 0, 4, 0.002},
                             {8, 0, 1, 0.002}, {15, 0, 10, 0.08}, {9, 3, 10, 0.08}};
  for (int preset = 1; preset <= 13; ++preset) cases.push_back({0, preset, 4, 0.002});
  for (const Frame& in : inputs()) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::to_string(in.width) + "x" + std::to_string(in.height) + " mask " + std::to_string(c.mask) +
                   " preset " + std::to_string(c.preset));
      const Frame gl = renderWith<LumoImageFilter>(in, c, 0.5f);
      const Frame cpu = renderWith<CpuImageFilter>(in, c, 0.5f);
      const Difference difference = compare(cpu, gl, 1);
      EXPECT_EQ(difference.maxAlpha, 0);
      EXPECT_LE(difference.maxColour, c.maxColour);
      EXPECT_LE(difference.shareAbove, c.shareAbove);
    }
  }
}

TEST(CpuEngine, MatchesThePassGraphModel) {
  const Frame in = loadSample();
  for (const Case& c : {Case{7, 0, 2, 0.001}, Case{1, 5, 2, 0.001}, Case{6, 12, 2, 0.001}}) {
    reference::Settings settings;
    settings.mask = c.mask;
    settings.preset = c.preset;
    const Frame model = reference::passGraph(in, settings);
    const Difference difference = compare(renderWith<CpuImageFilter>(in, c, 0.0f), model, 1);
    EXPECT_EQ(difference.maxAlpha, 0) << "mask " << c.mask;
    EXPECT_LE(difference.maxColour, c.maxColour) << "mask " << c.mask;
    EXPECT_LE(difference.shareAbove, c.shareAbove) << "mask " << c.mask;
  }
}

TEST(CpuEngine, AnyHostStrideGivesTheSameFrame) {
  // Rows padded by an odd number of bytes: no pixel is 4-byte aligned after the first row.
  const Frame in = inputs()[1];
  const size_t stride = static_cast<size_t>(in.width) * 4 + 3;
  std::vector<uint8_t> padded(stride * static_cast<size_t>(in.height) + 1, 0x5A);
  uint8_t* base = padded.data() + 1;  // and the first row is not aligned either
  for (int y = 0; y < in.height; ++y) std::memcpy(base + stride * y, in.at(0, y), static_cast<size_t>(in.width) * 4);
  PixelBufferRef wrapped;
  ASSERT_EQ(PixelBuffer::createWithBytes(in.width, in.height, kPixelFormat32BGRA, base, stride, nullptr, {}, &wrapped),
            kPixelBufferSuccess);
  CpuImageFilter filter;
  filter.create();
  filter.enableBeautifying(15);
  filter.setSharppenFactor(0.5f);
  const Frame fromPadded = fromBuffer(filter.render(wrapped));
  const Frame fromTight = fromBuffer(filter.render(toBuffer(in)));
  EXPECT_EQ(fromPadded.bgra, fromTight.bgra);
}

// The kernels compute the same single-precision expressions at every vector width, so a cap on the
// instruction set changes the speed, never a byte; the engine names the target it runs.
TEST(CpuEngine, EveryInstructionSetDrawsTheSamePicture) {
  struct Uncap {
    ~Uncap() { CpuImageFilter::limitSimd("best"); }
  } uncap;
  const std::vector<Case> cases = {{7, 0, 0, 0}, {15, 0, 0, 0}, {6, 3, 0, 0}};
  std::vector<Frame> best;
  for (const Frame& in : inputs()) {
    for (const Case& c : cases) best.push_back(renderWith<CpuImageFilter>(in, c, 0.5f));
  }
  for (const char* level : {"avx3", "avx2", "sse4", "scalar"}) {
    SCOPED_TRACE(level);
    ASSERT_TRUE(CpuImageFilter::limitSimd(level));
    const std::string target = CpuImageFilter::simdTarget();
    if (std::string(level) == "scalar") {
      EXPECT_EQ(target, "SCALAR");
    } else if (std::string(level) != "avx3") {
      EXPECT_EQ(target.find("AVX3"), std::string::npos);
    }
    size_t i = 0;
    for (const Frame& in : inputs()) {
      for (const Case& c : cases) {
        EXPECT_EQ(renderWith<CpuImageFilter>(in, c, 0.5f).bgra, best[i++].bgra)
            << in.width << "x" << in.height << " mask " << c.mask << " preset " << c.preset;
      }
    }
  }
  EXPECT_FALSE(CpuImageFilter::limitSimd("neon"));
}

}  // namespace
}  // namespace lumo::test

namespace lumo::test {
namespace {

Frame renderStep(const Frame& in, float step) {
  CpuImageFilter filter;
  filter.create();
  filter.enableBeautifying(BeautifyPolish);
  filter.setPolishStep(step);
  const Frame out = fromBuffer(filter.render(toBuffer(in)));
  filter.destroy();
  return out;
}

// Any float a host may store as the step draws a defined picture in memory the frame bounds: past the
// frame's larger side the picture of that side, a step that is no number the picture of 0.
TEST(CpuEngine, AnyPolishStepDrawsADefinedPicture) {
  const Frame in = pattern(64, 48, [](int x, int y) {
    return reference::Rgba{0.8f - 0.004f * x, 0.55f + 0.003f * y, 0.45f, 1.0f};
  });
  const Frame side = renderStep(in, 64.0f);
  EXPECT_NE(side.bgra, renderStep(in, 3.0f).bgra) << "the step matters below the frame's side";
  for (const float step : {1e5f, 1e30f, 3e38f}) {
    EXPECT_EQ(renderStep(in, step).bgra, side.bgra) << step;
  }
  EXPECT_EQ(renderStep(in, -1e30f).bgra, renderStep(in, -64.0f).bgra);
  const Frame zero = renderStep(in, 0.0f);
  for (const float step : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity()}) {
    EXPECT_EQ(renderStep(in, step).bgra, zero.bgra) << step;
  }
}

}  // namespace
}  // namespace lumo::test
