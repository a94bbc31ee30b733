#include "PassSequence.h"

#include <GLES2/gl2.h>

#include "GlDebug.h"
#include "GlHandle.h"
#include "VideoProcessFilter.h"

namespace lumo {
namespace {

PassSlot other(PassSlot slot) { return slot == kSlotT1 ? kSlotT2 : kSlotT1; }

class Builder {
 public:
  explicit Builder(PassSequence& sequence) : sequence_(sequence) {}
  void add(PassRole role, PassSlot first, PassSlot second, PassSlot target, int32_t whichPass = 1) {
    sequence_.steps[sequence_.count++] = {role, first, second, target, whichPass};
  }

 private:
  PassSequence& sequence_;
};

}  // namespace

const char* passRoleName(PassRole role) {
  switch (role) {
    case PassRole::SkinDetect: return "skin_detect";
    case PassRole::BilateralRows: return "bilateral_h";
    case PassRole::BilateralColumns: return "bilateral_v";
    case PassRole::HighPass: return "high_pass";
    case PassRole::GaussianRows: return "gaussian_h";
    case PassRole::GaussianColumns: return "gaussian_v";
    case PassRole::AddBack: return "add_back";
    case PassRole::PinkWhiten: return "pink_whiten";
    case PassRole::Region: return "region";
    case PassRole::SkinBlend: return "skin_blend";
    case PassRole::Whiten: return "whiten";
    case PassRole::Sharpen: return "sharpen";
    case PassRole::Preset: return "preset";
  }
  return "pass";
}

PassSequence makePassSequence(const FramePlan& plan, bool region) {
  PassSequence sequence;
  Builder steps(sequence);
  PassSlot current = kSlotInput;
  if (plan.skinDetect) {
    steps.add(PassRole::SkinDetect, kSlotInput, kSlotNone, kSlotT1);
    PassSlot skin = kSlotT1;
    if (plan.polish) {
      steps.add(PassRole::BilateralRows, kSlotT1, kSlotT1, kSlotT2);
      steps.add(PassRole::BilateralColumns, kSlotT2, kSlotT2, kSlotT1, 2);
    }
    if (plan.detailLayer) {
      const PassSlot layer = other(skin);
      steps.add(PassRole::HighPass, kSlotInput, skin, layer);
      steps.add(PassRole::GaussianRows, layer, kSlotNone, skin);
      steps.add(PassRole::GaussianColumns, skin, kSlotNone, layer, 2);
      steps.add(PassRole::AddBack, kSlotInput, layer, skin);
    }
    if (plan.pinkWhiten) {
      steps.add(PassRole::PinkWhiten, skin, kSlotNone, other(skin));
      skin = other(skin);
    }
    if (region) {
      steps.add(PassRole::Region, skin, kSlotRegion, other(skin));
      skin = other(skin);
    }
    steps.add(PassRole::SkinBlend, kSlotInput, skin, other(skin));
    current = other(skin);
  }
  for (const auto& [wanted, role] : {std::pair{plan.whiten, PassRole::Whiten}, std::pair{plan.sharpen, PassRole::Sharpen},
                                     std::pair{plan.preset, PassRole::Preset}}) {
    if (!wanted) continue;
    steps.add(role, current, kSlotNone, other(current));
    current = other(current);
  }
  sequence.last = current;
  return sequence;
}

void drawPass(VideoProcessFilter& filter, int32_t whichPass, const PassDraw& draw) {
  glBindFramebuffer(GL_FRAMEBUFFER, draw.framebuffer);
  if (draw.width > 0) glViewport(0, 0, draw.width, draw.height);
  glUseProgram(filter.program());
  // No clear: every pass's quad covers its whole target without blending.
  auto bind = [&](GLenum unit, uint32_t texture) {
    glActiveTexture(unit);
    glBindTexture(GL_TEXTURE_2D, texture);
    if (draw.setState) gl::setLinearClampSampling();
  };
  if (draw.first != 0) bind(GL_TEXTURE0, draw.first);
  if (draw.second != 0) bind(GL_TEXTURE2, draw.second);
  if (draw.setState) filter.setUniforms(whichPass);
  if (draw.target != 0) {
    bind(GL_TEXTURE1, draw.target);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, draw.target, 0);
  }
  if (draw.setState) filter.setAttributes(whichPass);
  gldebug::checkFramebuffer("drawPass()");
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  gldebug::checkError("drawPass()");
}

}  // namespace lumo
