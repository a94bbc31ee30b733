// The facade: pass graph traced through doRenderWithFilter, deferred settings, lifecycle, whole frames.
#include <EGL/egl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <typeinfo>
#include <vector>

#include "support/GlHarness.h"

namespace lumo {
namespace {

using reference::Frame;

struct Pass {
  std::string filter;
  char first, second, target;  // '0', '1', '2' for T0, T1, T2; '-' for none
  int pass;
  float setting;  // alpha of a blend pass, srcDirection of an overlay pass
  bool operator==(const Pass& o) const {
    return filter == o.filter && first == o.first && second == o.second && target == o.target && pass == o.pass;
  }
};

std::ostream& operator<<(std::ostream& out, const Pass& p) {
  return out << p.filter << "(" << p.first << "," << p.second << "->" << p.target << " #" << p.pass << ")";
}

// Records every pass, then draws it as the facade would.
class TracingFilter : public LumoImageFilter {
 public:
  std::vector<Pass> passes;
  int builds = 0;  // initBeautifying calls seen through new filter objects
  const VideoProcessFilter* lastSkin = nullptr;

  const PixelBufferRef& output1() const { return m_pRenderPixelBuffer; }
  const PixelBufferRef& output2() const { return m_pRenderPixelBuffer2; }
  const VideoProcessCustomizedFilter* preset() const { return m_pCustomizedFilter.get(); }
  const VideoProcessSkinDetectFilter* skin() const { return m_pSkinDetectFilter.get(); }

 protected:
  void doRenderWithFilter(const Texture* first, const Texture* second, const Texture* target,
                          VideoProcessFilter* filter, int32_t whichPass) override {
    auto name = [&](const Texture* t) -> char {
      if (t == nullptr) return '-';
      if (t->buffer() == m_pRenderPixelBuffer.get()) return '1';
      if (t->buffer() == m_pRenderPixelBuffer2.get()) return '2';
      return '0';
    };
    std::string kind = "?";
    float setting = 0;
    if (dynamic_cast<VideoProcessSkinDetectFilter*>(filter)) kind = "skin";
    if (dynamic_cast<VideoProcessBilateralFilter*>(filter)) kind = "bilateral";
    if (auto* o = dynamic_cast<VideoProcessOverlayFilter*>(filter)) {
      kind = "overlay";
      setting = o->srcDirection();
    }
    if (dynamic_cast<VideoProcessGaussianBlurFilter*>(filter)) kind = "gauss";
    if (dynamic_cast<VideoProcessPinkWhitenFilter*>(filter)) kind = "pink";
    if (auto* a = dynamic_cast<VideoProcessAlphaBlendFilter*>(filter)) {
      kind = "blend";
      setting = a->alpha();
    }
    if (dynamic_cast<VideoProcessWhitenFilter*>(filter)) kind = "whiten";
    if (dynamic_cast<VideoProcessSharpenFilter*>(filter)) kind = "sharpen";
    if (dynamic_cast<VideoProcessCustomizedFilter*>(filter)) kind = "preset";
    passes.push_back({kind, name(first), name(second), name(target), whichPass, setting});
    LumoImageFilter::doRenderWithFilter(first, second, target, filter, whichPass);
  }
};

class FacadeGL : public ::testing::Test {
 protected:
  void TearDown() override { GLContext::setCurrent({}); }
  PixelBufferRef input_ = test::toBuffer(test::pattern(32, 24, [](int x, int y) {
    return reference::Rgba{(100 + x) / 255.0f, (80 + y) / 255.0f, 60 / 255.0f, 1.0f};
  }));
};

// Runs one frame with `mask` and `preset` and returns the trace and which buffer came back.
struct Traced {
  std::vector<Pass> passes;
  char result;  // '0' the input, '1' or '2' an output, 'n' null
};

Traced trace(const PixelBufferRef& input, int64_t mask, int preset = 0) {
  TracingFilter facade;
  facade.enableBeautifying(static_cast<uintptr_t>(mask));
  facade.setCustomizedFilter(static_cast<uintptr_t>(preset));
  facade.create();
  PixelBufferRef result = facade.render(input);
  Traced traced{facade.passes, 'n'};
  if (result == input) traced.result = '0';
  if (result && result == facade.output1()) traced.result = '1';
  if (result && result == facade.output2()) traced.result = '2';
  facade.destroy();
  return traced;
}

const Pass kSkin{"skin", '0', '-', '1', 1, 0};
const Pass kBilateral1{"bilateral", '1', '1', '2', 1, 0};
const Pass kBilateral2{"bilateral", '2', '2', '1', 2, 0};

TEST_F(FacadeGL, PassGraphOfEachMask) {
  const std::vector<Pass> detailLayerOnT1 = {{"overlay", '0', '1', '2', 1, 0},
                                             {"gauss", '2', '-', '1', 1, 0},
                                             {"gauss", '1', '-', '2', 2, 0},
                                             {"overlay", '0', '2', '1', 1, 0}};
  auto with = [](std::vector<Pass> head, const std::vector<Pass>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
  };
  const std::vector<Pass> polish =
      with(with({kSkin, kBilateral1, kBilateral2}, detailLayerOnT1), {{"blend", '0', '1', '2', 1, 0}});

  Traced t = trace(input_, 0);
  EXPECT_TRUE(t.passes.empty());
  EXPECT_EQ(t.result, '0');

  t = trace(input_, 1);
  EXPECT_EQ(t.passes, polish);
  EXPECT_EQ(t.result, '2');
  EXPECT_FLOAT_EQ(t.passes.back().setting, 0.35f);
  EXPECT_EQ(t.passes[3].setting, -1.0f);
  EXPECT_EQ(t.passes[6].setting, 1.0f);

  t = trace(input_, 2);
  EXPECT_EQ(t.passes, (std::vector<Pass>{{"whiten", '0', '-', '1', 1, 0}}));
  EXPECT_EQ(t.result, '1');

  t = trace(input_, 4);
  EXPECT_EQ(t.passes,
            with(with({kSkin}, detailLayerOnT1), {{"pink", '1', '-', '2', 1, 0}, {"blend", '0', '2', '1', 1, 0}}));
  EXPECT_EQ(t.result, '1');

  t = trace(input_, 8);
  EXPECT_EQ(t.passes, (std::vector<Pass>{{"sharpen", '0', '-', '1', 1, 0}}));
  EXPECT_EQ(t.result, '1');

  t = trace(input_, 9);
  EXPECT_EQ(t.passes,
            (std::vector<Pass>{
                kSkin, kBilateral1, kBilateral2, {"blend", '0', '1', '2', 1, 0}, {"sharpen", '2', '-', '1', 1, 0}}));
  EXPECT_EQ(t.passes[3].setting, 0.5f);
  EXPECT_EQ(t.result, '1');

  t = trace(input_, 16);
  EXPECT_TRUE(t.passes.empty());
  EXPECT_EQ(t.result, '0');

  t = trace(input_, 0x80000001u);  // bit 31 set: negative, off
  EXPECT_TRUE(t.passes.empty());
  EXPECT_EQ(t.result, '0');

  // The full road: smoothing, whiten and skin whiten.
  t = trace(input_, 7);
  std::vector<Pass> seven =
      with(with({kSkin, kBilateral1, kBilateral2}, detailLayerOnT1),
           {{"pink", '1', '-', '2', 1, 0}, {"blend", '0', '2', '1', 1, 0}, {"whiten", '1', '-', '2', 1, 0}});
  EXPECT_EQ(t.passes, seven);
  EXPECT_EQ(t.result, '2');

  t = trace(input_, 15);
  EXPECT_EQ(t.passes, (std::vector<Pass>{kSkin,
                                         kBilateral1,
                                         kBilateral2,
                                         {"pink", '1', '-', '2', 1, 0},
                                         {"blend", '0', '2', '1', 1, 0},
                                         {"whiten", '1', '-', '2', 1, 0},
                                         {"sharpen", '2', '-', '1', 1, 0}}));
  EXPECT_EQ(t.result, '1');

  t = trace(input_, 0, 3);
  EXPECT_EQ(t.passes, (std::vector<Pass>{{"preset", '0', '-', '1', 1, 0}}));
  EXPECT_EQ(t.result, '1');

  t = trace(input_, -4, 3);
  EXPECT_EQ(t.passes, (std::vector<Pass>{{"preset", '0', '-', '1', 1, 0}}));
}

TEST_F(FacadeGL, DeferredSettings) {
  TracingFilter facade;
  facade.enableBeautifying(1);  // before create: kept
  facade.create();
  ASSERT_TRUE(facade.render(input_));
  EXPECT_EQ(facade.passes.size(), 8u);
  const VideoProcessFilter* firstSkin = facade.skin();
  facade.enableBeautifying(3);
  facade.render(input_);
  EXPECT_NE(facade.skin(), firstSkin) << "a change between two positive masks rebuilds the chain";
  facade.enableBeautifying(0);
  facade.render(input_);
  EXPECT_EQ(facade.skin(), nullptr);

  facade.setCustomizedFilter(2);
  facade.render(input_);
  const VideoProcessCustomizedFilter* preset = facade.preset();
  ASSERT_NE(preset, nullptr);
  facade.setCustomizedFilter(5);
  facade.render(input_);
  EXPECT_EQ(facade.preset(), preset) << "only the matrix changes";
  EXPECT_EQ(preset->colorMatrix().one.one, 4.8f);
  facade.setCustomizedFilter(14);
  facade.passes.clear();
  facade.render(input_);
  EXPECT_EQ(facade.preset(), nullptr) << "a rejected index releases the preset filter";
  EXPECT_TRUE(facade.passes.empty());
  facade.destroy();
}

TEST_F(FacadeGL, HostContextIsCurrentAgainAfterEveryCall) {
  auto host = GLContext::create();  // stands in for a host's own EGL context
  ASSERT_TRUE(host);
  ASSERT_TRUE(host->makeCurrent());
  const GLContext::Snapshot before = GLContext::current();
  LumoImageFilter facade;
  facade.enableBeautifying(7);
  facade.setCustomizedFilter(4);
  facade.create();
  EXPECT_EQ(GLContext::current(), before);
  PixelBufferRef out = facade.render(input_);
  EXPECT_EQ(GLContext::current(), before);
  test::fromBuffer(out);  // the readback runs in the facade's context too
  EXPECT_EQ(GLContext::current(), before);
  facade.enableBeautifying(0);
  facade.render(input_);
  EXPECT_EQ(GLContext::current(), before);
  facade.destroy();
  EXPECT_EQ(GLContext::current(), before);
}

TEST_F(FacadeGL, SizeChangeKeepsAHeldResultValid) {
  LumoImageFilter facade;
  facade.enableBeautifying(2);
  facade.create();
  const Frame small = test::fromBuffer(input_);
  PixelBufferRef held = facade.render(input_);
  ASSERT_TRUE(held);
  const PixelBufferRef large = test::toBuffer(test::loadSample());
  PixelBufferRef next = facade.render(large);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->width(), 512);
  EXPECT_EQ(held->width(), 32);
  EXPECT_LE(test::compare(test::fromBuffer(held), reference::whiten(small, 0.5f)).maxColour, 1);
  // A 1 x 1 first frame finds no output buffers and comes back as it went in.
  LumoImageFilter fresh;
  fresh.enableBeautifying(2);
  fresh.create();
  const PixelBufferRef tiny = test::toBuffer(Frame(1, 1));
  EXPECT_EQ(fresh.render(tiny), tiny);
  EXPECT_EQ(fresh.render(nullptr), nullptr);
  EXPECT_NE(fresh.render(input_), input_);
  fresh.destroy();
  facade.destroy();
  EXPECT_LE(test::compare(test::fromBuffer(next), reference::whiten(test::loadSample(), 0.5f)).maxColour, 1)
      << "a result held across destroy stays readable";
}

// Whole frames on the portrait against the model of the pass graph. With 32-bit evaluation each pass is
// within one step of the model; chained passes can add a step here and there, hence 99.8 % within 1 and
// no value more than 4 apart. Sharpen at s = 0.5 amplifies an input difference up to 1 + 8 s = 5 times:
// one step of rounding in front of it gives 5, two steps after the four passes of mask 15 give 10.
TEST_F(FacadeGL, WholeFramesMatchTheModel) {
  const Frame sample = test::loadSample();
  const PixelBufferRef input = test::toBuffer(sample);
  struct Case {
    int mask, preset;
    float sharpen;
    int maxDiff;
  };
  const Case cases[] = {{1, 0, 0, 4}, {2, 0, 0, 4}, {4, 0, 0, 4}, {7, 0, 0, 4}, {8, 0, 0.5f, 5}, {15, 0, 0.5f, 10}};
  for (const Case& c : cases) {
    LumoImageFilter facade;
    facade.enableBeautifying(static_cast<uintptr_t>(c.mask));
    facade.setSharppenFactor(c.sharpen);
    facade.create();
    const Frame out = test::fromBuffer(facade.render(input));
    facade.destroy();
    reference::Settings settings;
    settings.mask = c.mask;
    settings.sharpen = c.sharpen;
    const auto d = test::compare(out, reference::passGraph(sample, settings));
    EXPECT_LE(d.maxColour, c.maxDiff) << "mask " << c.mask;
    EXPECT_EQ(d.maxAlpha, 0) << "mask " << c.mask;
    if ((c.mask & 8) == 0) {
      EXPECT_LE(d.shareAbove, 0.002) << "mask " << c.mask;
    }
  }
  for (int preset = 1; preset <= 13; ++preset) {
    LumoImageFilter facade;
    facade.setCustomizedFilter(static_cast<uintptr_t>(preset));
    facade.create();
    setLogHandler([](const char*) {});
    const Frame out = test::fromBuffer(facade.render(input));
    setLogHandler(nullptr);
    facade.destroy();
    reference::Settings settings;
    settings.preset = preset;
    const auto d = test::compare(out, reference::passGraph(sample, settings));
    EXPECT_LE(d.maxColour, 1) << "preset " << preset;
    EXPECT_EQ(d.maxAlpha, 0);
  }
}

TEST_F(FacadeGL, SmoothingChangesSkinAndLeavesTheRest) {
  const Frame sample = test::loadSample();
  LumoImageFilter facade;
  facade.enableBeautifying(1);
  facade.create();
  const Frame out = test::fromBuffer(facade.render(test::toBuffer(sample)));
  facade.destroy();
  const Frame skin = reference::skinDetect(sample);
  size_t skinPixels = 0, skinChanged = 0, otherChanged = 0;
  for (int y = 0; y < sample.height; ++y) {
    for (int x = 0; x < sample.width; ++x) {
      const bool changed = std::memcmp(out.at(x, y), sample.at(x, y), 3) != 0;
      if (skin.at(x, y)[3] != 0) {
        ++skinPixels;
        skinChanged += changed;
      } else {
        otherChanged += changed;
      }
    }
  }
  EXPECT_GT(skinPixels, 10000u);
  EXPECT_GT(double(skinChanged) / double(skinPixels), 0.5) << "smoothing visibly changes skin";
  // Where the skin mask is 0 the blend weight is 0: only neighbours' bleeding alpha can touch these.
  EXPECT_LT(double(otherChanged) / double(sample.width * sample.height - skinPixels), 0.2);
}

}  // namespace
}  // namespace lumo
