#include "FramePlan.h"

namespace lumo {

FramePlan FramePlan::make(int32_t mask, bool preset) {
  FramePlan plan;
  plan.preset = preset;
  if (mask <= 0) return plan;
  plan.sharpen = (mask & BeautifySharpen) != 0;
  plan.whiten = (mask & BeautifyWhiten) != 0;
  plan.skinDetect = (mask & (BeautifyPolish | BeautifySkinWhiten)) != 0;
  if (plan.skinDetect) {
    plan.polish = (mask & BeautifyPolish) != 0;
    plan.detailLayer = !plan.sharpen;
    plan.pinkWhiten = (mask & BeautifySkinWhiten) != 0;
    plan.skinBlendWeight = plan.sharpen ? kSkinBlendWeightSharpen : kSkinBlendWeight;
  }
  return plan;
}

}  // namespace lumo
