#include "BareChain.h"

#include <GLES2/gl2ext.h>

namespace lumo::bench {
namespace {

// The engines' defaults; sharpen at 0.5 so that its pass does visible work.
constexpr float kPolishStep = BeautifySettings::kPolishStep.fallback;
constexpr float kPolishFactor = BeautifySettings::kPolishFactor.fallback;
constexpr float kWhiten = BeautifySettings::kWhiten.fallback;
constexpr float kSkinWhiten = BeautifySettings::kSkinWhiten.fallback;
constexpr float kSharpen = 0.5f;

int other(int texture) { return texture == 1 ? 2 : 1; }

template <typename Filter>
std::unique_ptr<Filter> built() {
  auto filter = std::make_unique<Filter>();
  filter->initProgram();
  return filter;
}

std::unique_ptr<VideoProcessOverlayFilter> overlay(float direction, float multiply, float offset) {
  auto filter = built<VideoProcessOverlayFilter>();
  filter->setSrcDirection(direction);
  filter->setMultifyVal(multiply);
  filter->setOverlayVal(offset);
  return filter;
}

std::unique_ptr<VideoProcessGaussianBlurFilter> gaussian() {
  auto filter = built<VideoProcessGaussianBlurFilter>();
  filter->setStepOffset(FramePlan::kDetailBlurStepOffset);
  filter->setBlurRadisAndSigma(static_cast<float>(FramePlan::kDetailBlurRadius),
                               static_cast<float>(FramePlan::kDetailBlurSigma));
  return filter;
}

std::unique_ptr<VideoProcessBilateralFilter> bilateral() {
  auto filter = built<VideoProcessBilateralFilter>();
  filter->setSampleStep(kPolishStep);
  filter->setColorDistanceFactor(kPolishFactor);
  return filter;
}

}  // namespace

BareChain::BareChain(int width, int height, int mask, int preset)
    : width_(width), height_(height), context_(GLContext::create()) {
  if (!context_ || !context_->makeCurrent()) {
    context_.reset();
    return;
  }
  for (int i = 0; i < 3; ++i) {
    textures_[i].reset(gl::genTexture());
    framebuffers_[i].reset(gl::genFramebuffer());
    glBindTexture(GL_TEXTURE_2D, textures_[i].get());
    glTexImage2D(GL_TEXTURE_2D, 0, GL_BGRA_EXT, width, height, 0, GL_BGRA_EXT, GL_UNSIGNED_BYTE, nullptr);
    gl::setLinearClampSampling();
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffers_[i].get());
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, textures_[i].get(), 0);
  }
  glDisable(GL_DEPTH_TEST);
  glViewport(0, 0, width, height);

  const FramePlan plan = FramePlan::make(mask, preset >= 1 && preset <= BeautifySettings::kPresetCount);
  int current = 0;
  if (plan.skinDetect) {
    add("skin_detect", built<VideoProcessSkinDetectFilter>(), 1, 0, -1, 1);
    int skin = 1;
    if (plan.polish) {
      add("bilateral_h", bilateral(), 1, 1, 1, 2);
      add("bilateral_v", bilateral(), 2, 2, 2, 1);
    }
    if (plan.detailLayer) {
      const int layer = other(skin);
      add("high_pass", overlay(-1.0f, 1.0f, FramePlan::kHighPassOffset), 1, 0, skin, layer);
      add("gaussian_h", gaussian(), 1, layer, -1, skin);
      add("gaussian_v", gaussian(), 2, skin, -1, layer);
      add("add_back", overlay(1.0f, 2.0f, FramePlan::kAddBackOffset), 1, 0, layer, skin);
    }
    if (plan.pinkWhiten) {
      auto pink = built<VideoProcessPinkWhitenFilter>();
      pink->setWhitenFactor(kSkinWhiten);
      add("pink_whiten", std::move(pink), 1, skin, -1, other(skin));
      skin = other(skin);
    }
    auto blend = built<VideoProcessAlphaBlendFilter>();
    blend->setAlpha(plan.skinBlendWeight);
    add("skin_blend", std::move(blend), 1, 0, skin, other(skin));
    current = other(skin);
  }
  if (plan.whiten) {
    auto whiten = built<VideoProcessWhitenFilter>();
    whiten->setWhitenFactor(kWhiten);
    add("whiten", std::move(whiten), 1, current, -1, other(current));
    current = other(current);
  }
  if (plan.sharpen) {
    auto sharpen = built<VideoProcessSharpenFilter>();
    sharpen->setSampleFactor(kSharpen);
    add("sharpen", std::move(sharpen), 1, current, -1, other(current));
    current = other(current);
  }
  if (plan.preset) {
    auto customized = built<VideoProcessCustomizedFilter>();
    customized->setColorMatrix(preset);
    add("preset", std::move(customized), 1, current, -1, other(current));
    current = other(current);
  }
  last_ = current;
  // Every filter draws the same full-frame quad: the client arrays of the first serve them all.
  if (!passes_.empty()) passes_.front().filter->setAttributes(1);
}

BareChain::~BareChain() {
  if (!context_) return;
  context_->makeCurrent();
  passes_.clear();
  for (GlFramebuffer& framebuffer : framebuffers_) framebuffer.reset();
  for (GlTexture& texture : textures_) texture.reset();
  GLContext::setCurrent({});
}

void BareChain::add(std::string name, std::unique_ptr<VideoProcessFilter> filter, int which, int first, int second,
                    int target) {
  filter->doChangeFormat(0, width_, height_, nullptr);
  glUseProgram(filter->program());
  filter->setUniforms(which);  // once: each pass has its own program
  passes_.push_back({std::move(name), std::move(filter), first, second, target});
}

void BareChain::upload(const uint8_t* bgra) {
  glBindTexture(GL_TEXTURE_2D, textures_[0].get());
  glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width_, height_, GL_BGRA_EXT, GL_UNSIGNED_BYTE, bgra);
}

void BareChain::bindAndDraw(const Pass& pass) {
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffers_[pass.target].get());
  glUseProgram(pass.filter->program());
  if (pass.second >= 0) {
    glActiveTexture(GL_TEXTURE2);
    glBindTexture(GL_TEXTURE_2D, textures_[pass.second].get());
  }
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, textures_[pass.first].get());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void BareChain::draw() {
  for (const Pass& pass : passes_) bindAndDraw(pass);
  glFinish();
}

void BareChain::drawPass(size_t index) {
  bindAndDraw(passes_[index]);
  glFinish();
}

void BareChain::read(uint8_t* bgra) {
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffers_[last_].get());
  glPixelStorei(GL_PACK_ALIGNMENT, 4);
  glReadPixels(0, 0, width_, height_, GL_BGRA_EXT, GL_UNSIGNED_BYTE, bgra);
}

}  // namespace lumo::bench
