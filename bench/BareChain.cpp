#include "BareChain.h"

#include <GLES2/gl2ext.h>

#include "PassSequence.h"

namespace lumo::bench {
namespace {

// The engines' defaults; sharpen at 0.5 so that its pass does visible work.
constexpr float kPolishStep = BeautifySettings::kPolishStep.fallback;
constexpr float kPolishFactor = BeautifySettings::kPolishFactor.fallback;
constexpr float kWhiten = BeautifySettings::kWhiten.fallback;
constexpr float kSkinWhiten = BeautifySettings::kSkinWhiten.fallback;
constexpr float kSharpen = 0.5f;

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

// A program of its own for each step, its values set once.
std::unique_ptr<VideoProcessFilter> filterFor(PassRole role, const FramePlan& plan, int preset) {
  switch (role) {
    case PassRole::SkinDetect: return built<VideoProcessSkinDetectFilter>();
    case PassRole::BilateralRows:
    case PassRole::BilateralColumns: return bilateral();
    case PassRole::HighPass: return overlay(-1.0f, 1.0f, FramePlan::kHighPassOffset);
    case PassRole::GaussianRows:
    case PassRole::GaussianColumns: return gaussian();
    case PassRole::AddBack: return overlay(1.0f, 2.0f, FramePlan::kAddBackOffset);
    case PassRole::PinkWhiten: {
      auto pink = built<VideoProcessPinkWhitenFilter>();
      pink->setWhitenFactor(kSkinWhiten);
      return pink;
    }
    case PassRole::SkinBlend: {
      auto blend = built<VideoProcessAlphaBlendFilter>();
      blend->setAlpha(plan.skinBlendWeight);
      return blend;
    }
    case PassRole::Whiten: {
      auto whiten = built<VideoProcessWhitenFilter>();
      whiten->setWhitenFactor(kWhiten);
      return whiten;
    }
    case PassRole::Sharpen: {
      auto sharpen = built<VideoProcessSharpenFilter>();
      sharpen->setSampleFactor(kSharpen);
      return sharpen;
    }
    case PassRole::Preset: {
      auto customized = built<VideoProcessCustomizedFilter>();
      customized->setColorMatrix(preset);
      return customized;
    }
    case PassRole::Region: break;  // the bare chain draws whole frames
  }
  return nullptr;
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

  // The facade's own sequence of passes, each step with its own program.
  const FramePlan plan = FramePlan::make(mask, preset >= 1 && preset <= BeautifySettings::kPresetCount);
  const PassSequence sequence = makePassSequence(plan, false);
  for (const PassStep& step : sequence) {
    add(passRoleName(step.role), filterFor(step.role, plan, preset), step.whichPass, step.first, step.second,
        step.target);
  }
  last_ = sequence.last;
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
  passes_.push_back({std::move(name), std::move(filter), which, first, second, target});
}

void BareChain::upload(const uint8_t* bgra) {
  glBindTexture(GL_TEXTURE_2D, textures_[0].get());
  glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width_, height_, GL_BGRA_EXT, GL_UNSIGNED_BYTE, bgra);
}

void BareChain::bindAndDraw(const Pass& pass) {
  // Uniforms, attributes and sampling were set at set-up, and each target has its framebuffer attached.
  PassDraw draw;
  draw.framebuffer = framebuffers_[pass.target].get();
  draw.first = textures_[pass.first].get();
  draw.second = pass.second >= 0 ? textures_[pass.second].get() : 0;
  draw.setState = false;
  lumo::drawPass(*pass.filter, pass.which, draw);
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
