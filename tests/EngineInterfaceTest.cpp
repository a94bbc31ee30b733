// The host interface, once for both engines: lifecycle, deferred settings, the null and input-returned
// cases, and makeEngine. Each engine is driven through BeautifyEngine&, as a host holds it.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <cstdlib>
#include <string>
#include <type_traits>
#include <vector>

#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using reference::Frame;

// Reads what is in force, which only an engine itself sees.
template <typename Engine>
class Probe : public Engine {
 public:
  int32_t maskInForce() const { return this->m_nEnableBeautifying; }
  int32_t presetInForce() const { return this->m_nCustomizedFilterIndex; }
};

template <typename Engine>
class EngineInterface : public ::testing::Test {
 protected:
  void TearDown() override { GLContext::setCurrent({}); }
  Probe<Engine> engine_;
  BeautifyEngine& host() { return engine_; }
  const PixelBufferRef input_ = toBuffer(pattern(40, 24, [](int x, int y) {
    return reference::Rgba{0.85f, 0.55f + 0.01f * x, 0.4f + 0.01f * y, 1.0f};
  }));
};

using Engines = ::testing::Types<LumoImageFilter, CpuImageFilter>;
TYPED_TEST_SUITE(EngineInterface, Engines);

TYPED_TEST(EngineInterface, LifecycleAndTheFramesThatComeBackUntouched) {
  BeautifyEngine& engine = this->host();
  const PixelBufferRef& input = this->input_;
  const EngineKind expectedKind = std::is_same_v<TypeParam, LumoImageFilter> ? EngineKind::Gl : EngineKind::Cpu;
  EXPECT_EQ(engine.kind(), expectedKind);
  EXPECT_EQ(engine.render(input), nullptr) << "before create";
  EXPECT_EQ(engine.destroy(), 0) << "destroy without create";
  ASSERT_EQ(engine.create(), 0);
  EXPECT_EQ(engine.create(), 0) << "a second create changes nothing";
  EXPECT_EQ(engine.render(input), input) << "nothing enabled";
  EXPECT_EQ(engine.render(nullptr), nullptr);
  engine.enableBeautifying(16);
  EXPECT_EQ(engine.render(input), input) << "no known pass";
  engine.enableBeautifying(static_cast<uintptr_t>(0x80000002u));
  engine.setCustomizedFilter(14);
  EXPECT_EQ(engine.render(input), input) << "bit 31 makes the mask negative, so off; preset 14 does not exist";

  engine.enableBeautifying(2);
  const PixelBufferRef first = engine.render(input);
  ASSERT_TRUE(first);
  ASSERT_NE(first, input);
  const Frame held = fromBuffer(first);
  const PixelBufferRef second = engine.render(input);
  EXPECT_EQ(held.bgra, fromBuffer(second).bgra);
  EXPECT_NE(held.bgra, fromBuffer(input).bgra);

  EXPECT_EQ(engine.destroy(), 0);
  EXPECT_EQ(engine.render(input), nullptr) << "after destroy";
  EXPECT_EQ(fromBuffer(first).bgra, held.bgra) << "a held result stays readable after destroy";
  ASSERT_EQ(engine.create(), 0);
  EXPECT_EQ(fromBuffer(engine.render(input)).bgra, held.bgra) << "settings survive destroy and create";
  engine.destroy();
}

TYPED_TEST(EngineInterface, SettersRecordAndTheNextFrameApplies) {
  BeautifyEngine& engine = this->host();
  EXPECT_EQ(engine.enableBeautifying(2), 1);
  EXPECT_EQ(engine.setCustomizedFilter(3), 1);
  EXPECT_EQ(engine.setPolishStep(2.5f), 0);
  EXPECT_EQ(engine.setPolishFactor(5.0f), 0);
  EXPECT_EQ(engine.setWhitenFactor(0.25f), 0);
  EXPECT_EQ(engine.setSharppenFactor(1.5f), 0);
  EXPECT_EQ(engine.setSkinWhitenFactor(0.75f), 0);
  BeautifySettings wanted;
  wanted.mask = 2;
  wanted.preset = 3;
  wanted.polishStep = 2.5f;
  wanted.polishFactor = 5.0f;
  wanted.whiten = 0.25f;
  wanted.sharpen = 1.5f;
  wanted.skinWhiten = 0.75f;
  EXPECT_EQ(engine.wantedSettings(), wanted) << "set before create: kept";

  engine.create();
  EXPECT_EQ(this->engine_.maskInForce(), 0);
  const Frame withPreset = fromBuffer(engine.render(this->input_));
  EXPECT_EQ(this->engine_.maskInForce(), 2);
  EXPECT_EQ(this->engine_.presetInForce(), 3);

  BeautifySettings changed = wanted;
  changed.mask = 4;
  changed.preset = 0;
  engine.applySettings(changed);
  EXPECT_EQ(engine.wantedSettings(), changed);
  EXPECT_EQ(this->engine_.maskInForce(), 2) << "a setter leaves the frame set-up alone until the next frame";
  EXPECT_EQ(this->engine_.presetInForce(), 3);
  const Frame changedFrame = fromBuffer(engine.render(this->input_));
  EXPECT_EQ(this->engine_.maskInForce(), 4);
  EXPECT_EQ(this->engine_.presetInForce(), 0);
  EXPECT_NE(changedFrame.bgra, withPreset.bgra);
  engine.destroy();
}

TYPED_TEST(EngineInterface, APresetBeyondTheTableIsLoggedOnceAndNotRetried) {
  BeautifyEngine& engine = this->host();
  engine.create();
  engine.setCustomizedFilter(5);
  const PixelBufferRef withPreset = engine.render(this->input_);
  ASSERT_NE(withPreset, this->input_);
  std::vector<std::string> lines;
  setLogHandler([&](const char* line) { lines.emplace_back(line); });
  engine.setCustomizedFilter(14);
  EXPECT_EQ(engine.render(this->input_), this->input_) << "rejected: no preset pass";
  engine.render(this->input_);
  engine.render(this->input_);
  setLogHandler(nullptr);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"LUMO Video Filter - Custumized Filter set color matrix index error: 13"}));
  engine.destroy();
}

TEST(MakeEngine, GivesACreatedEngineOfTheKindAskedForAndLeavesTheThreadAsItWas) {
  GLContext::setCurrent({});
  const PixelBufferRef input = toBuffer(loadSample());
  for (const EngineKind kind : {EngineKind::Cpu, EngineKind::Gl, EngineKind::Auto}) {
    SCOPED_TRACE(engineKindName(kind));
    std::string why;
    const std::unique_ptr<BeautifyEngine> engine = makeEngine(kind, &why);
    ASSERT_TRUE(engine) << why;
    EXPECT_EQ(GLContext::current().context, nullptr) << "no context left current";
    if (kind != EngineKind::Auto) {
      EXPECT_EQ(engine->kind(), kind);
    }
    engine->enableBeautifying(BeautifySettings::kDefaultMask);
    const PixelBufferRef out = engine->render(input);
    ASSERT_TRUE(out);
    EXPECT_NE(out, input) << "created: it draws";
    if (kind == EngineKind::Gl) {
      EXPECT_EQ(why.rfind("GL renderer is ", 0), 0u) << why;
    }
    GLContext::setCurrent({});
  }
  // This machine's GL is llvmpipe (tests run without a GPU, or a GPU whose renderer is named).
  std::string why;
  const std::unique_ptr<BeautifyEngine> automatic = makeEngine(EngineKind::Auto, &why);
  const bool software = why.find("llvmpipe") != std::string::npos || why.find("softpipe") != std::string::npos;
  EXPECT_EQ(automatic->kind(), software ? EngineKind::Cpu : EngineKind::Gl) << why;
}

TEST(MakeEngine, NamesParseBothWays) {
  for (const EngineKind kind : {EngineKind::Auto, EngineKind::Gl, EngineKind::Cpu}) {
    EngineKind parsed = EngineKind::Auto;
    EXPECT_TRUE(parseEngineKind(engineKindName(kind), &parsed));
    EXPECT_EQ(parsed, kind);
  }
  EngineKind untouched = EngineKind::Cpu;
  EXPECT_FALSE(parseEngineKind("GPU", &untouched));
  EXPECT_EQ(untouched, EngineKind::Cpu);
}

// Run by ctest with EGL pointed at no driver at all (make_engine_without_gl); skipped elsewhere.
TEST(MakeEngineWithoutGl, GlIsAnErrorAndAutoFallsBackToTheCpu) {
  if (std::getenv("LUMO_EXPECT_NO_GL") == nullptr) GTEST_SKIP() << "needs a process without EGL drivers";
  std::string why;
  EXPECT_EQ(makeEngine(EngineKind::Gl, &why), nullptr);
  EXPECT_EQ(why, "no GL context could be made");
  const std::unique_ptr<BeautifyEngine> automatic = makeEngine(EngineKind::Auto, &why);
  ASSERT_TRUE(automatic);
  EXPECT_EQ(automatic->kind(), EngineKind::Cpu);
  EXPECT_EQ(why, "no GL context could be made");
}

}  // namespace
}  // namespace lumo::test
