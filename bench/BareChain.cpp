#include "BareChain.h"

#include <GLES2/gl2ext.h>

namespace lumo::bench {
namespace {

// The pass graph's constants.
constexpr float kHighPassOffset = 128.0f / 255.0f;
constexpr float kAddBackOffset = -256.0f / 255.0f;
constexpr float kSkinBlendWeight = 0.35f;
constexpr float kSkinBlendWeightSharpen = 0.5f;
constexpr float kPolishStep = 3.0f;
constexpr float kPolishFactor = 4.0f;
constexpr float kWhiten = 0.5f;
constexpr float kSkinWhiten = 0.5f;
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
  filter->setStepOffset(1.0f);
  filter->setBlurRadisAndSigma(1.0f, 2.0f);
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
  glGenTextures(3, textures_);
  glGenFramebuffers(3, framebuffers_);
  for (int i = 0; i < 3; ++i) {
    glBindTexture(GL_TEXTURE_2D, textures_[i]);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_BGRA_EXT, width, height, 0, GL_BGRA_EXT, GL_UNSIGNED_BYTE, nullptr);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffers_[i]);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, textures_[i], 0);
  }
  glDisable(GL_DEPTH_TEST);
  glViewport(0, 0, width, height);

  int current = 0;
  if ((mask & (BeautifyPolish | BeautifySkinWhiten)) != 0) {
    add("skin_detect", built<VideoProcessSkinDetectFilter>(), 1, 0, -1, 1);
    int skin = 1;
    if ((mask & BeautifyPolish) != 0) {
      add("bilateral_h", bilateral(), 1, 1, 1, 2);
      add("bilateral_v", bilateral(), 2, 2, 2, 1);
    }
    if ((mask & BeautifySharpen) == 0) {
      const int layer = other(skin);
      add("high_pass", overlay(-1.0f, 1.0f, kHighPassOffset), 1, 0, skin, layer);
      add("gaussian_h", gaussian(), 1, layer, -1, skin);
      add("gaussian_v", gaussian(), 2, skin, -1, layer);
      add("add_back", overlay(1.0f, 2.0f, kAddBackOffset), 1, 0, layer, skin);
    }
    if ((mask & BeautifySkinWhiten) != 0) {
      auto pink = built<VideoProcessPinkWhitenFilter>();
      pink->setWhitenFactor(kSkinWhiten);
      add("pink_whiten", std::move(pink), 1, skin, -1, other(skin));
      skin = other(skin);
    }
    auto blend = built<VideoProcessAlphaBlendFilter>();
    blend->setAlpha((mask & BeautifySharpen) != 0 ? kSkinBlendWeightSharpen : kSkinBlendWeight);
    add("skin_blend", std::move(blend), 1, 0, skin, other(skin));
    current = other(skin);
  }
  if ((mask & BeautifyWhiten) != 0) {
    auto whiten = built<VideoProcessWhitenFilter>();
    whiten->setWhitenFactor(kWhiten);
    add("whiten", std::move(whiten), 1, current, -1, other(current));
    current = other(current);
  }
  if ((mask & BeautifySharpen) != 0) {
    auto sharpen = built<VideoProcessSharpenFilter>();
    sharpen->setSampleFactor(kSharpen);
    add("sharpen", std::move(sharpen), 1, current, -1, other(current));
    current = other(current);
  }
  if (preset > 0) {
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
  glDeleteFramebuffers(3, framebuffers_);
  glDeleteTextures(3, textures_);
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
  glBindTexture(GL_TEXTURE_2D, textures_[0]);
  glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width_, height_, GL_BGRA_EXT, GL_UNSIGNED_BYTE, bgra);
}

void BareChain::bindAndDraw(const Pass& pass) {
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffers_[pass.target]);
  glUseProgram(pass.filter->program());
  if (pass.second >= 0) {
    glActiveTexture(GL_TEXTURE2);
    glBindTexture(GL_TEXTURE_2D, textures_[pass.second]);
  }
  glActiveTexture(GL_TEXTURE0);
  glBindTexture(GL_TEXTURE_2D, textures_[pass.first]);
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
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffers_[last_]);
  glPixelStorei(GL_PACK_ALIGNMENT, 4);
  glReadPixels(0, 0, width_, height_, GL_BGRA_EXT, GL_UNSIGNED_BYTE, bgra);
}

}  // namespace lumo::bench
