#include "FaceSource.h"

#include <cstdio>

#include "FaceRegions.h"

namespace lumo::faces {

struct FaceSource::State {
  FaceRegionsSettings settings;
  std::unique_ptr<FaceRegions> regions;
  FaceMode mode = FaceMode::Video;
  size_t lastCount = 0;
  int32_t width = 0;
  int32_t height = 0;
};

std::shared_ptr<FaceSource> FaceSource::create(FaceMode mode, const std::string& cascade, std::string* why) {
  auto state = std::make_unique<State>();
  switch (mode) {
    case FaceMode::Video: state->settings = FaceRegionsSettings::video(); break;
    case FaceMode::Live: state->settings = FaceRegionsSettings::live(); break;
    case FaceMode::Photos: state->settings = FaceRegionsSettings::photos(); break;
  }
  state->settings.detector.cascade = cascade;
  state->mode = mode;
  state->regions = FaceRegions::create(state->settings, why);
  if (!state->regions) return nullptr;
  return std::make_shared<FaceSource>(std::move(state));
}

FaceSource::FaceSource(std::unique_ptr<State> state) : state_(std::move(state)) {}
FaceSource::~FaceSource() = default;

RegionMask FaceSource::regionsFor(PixelBuffer& frame) {
  State& s = *state_;
  if ((s.width != 0 && s.width != frame.width()) || (s.height != 0 && s.height != frame.height())) {
    // Faces of another frame size say nothing of this one: start afresh (the cascade stays loaded).
    s.regions->restart();
  }
  s.width = frame.width();
  s.height = frame.height();
  RegionMask mask = s.regions->regionsFor(frame);
  s.lastCount = mask.ellipses.size();
  return mask;
}

std::string FaceSource::summary() const {
  const FaceRegions::Statistics s = state_->regions->statistics();
  char line[160];
  if (state_->mode != FaceMode::Photos) {
    std::snprintf(line, sizeof line, "faces: %lld detections, %.1f ms each on average (worker thread)",
                  static_cast<long long>(s.detections), s.meanMilliseconds);
  } else {
    std::snprintf(line, sizeof line, "faces: %zu found (%.1f ms)", state_->lastCount, s.meanMilliseconds);
  }
  return line;
}

std::string FaceSource::cascadePath() const { return state_->regions->cascadePath(); }

}  // namespace lumo::faces
