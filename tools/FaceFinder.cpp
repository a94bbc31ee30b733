#include "FaceFinder.h"

#include <cstdio>

#if LUMO_HAVE_FACES
#include "FaceRegions.h"
#endif

namespace lumo::tools {

#if LUMO_HAVE_FACES

struct FaceFinder::State {
  std::unique_ptr<faces::FaceRegions> regions;
  bool stream = false;
  size_t lastCount = 0;
};

std::unique_ptr<FaceFinder> FaceFinder::create(const std::string& cascade, bool stream, std::string* why) {
  faces::FaceRegionsSettings settings =
      stream ? faces::FaceRegionsSettings::video() : faces::FaceRegionsSettings::photos();
  settings.detector.cascade = cascade;
  auto state = std::make_unique<State>();
  state->regions = faces::FaceRegions::create(settings, why);
  if (!state->regions) return nullptr;
  state->stream = stream;
  return std::make_unique<FaceFinder>(std::move(state));
}

void FaceFinder::apply(PixelBuffer& frame, BeautifyEngine& engine) {
  RegionMask mask = state_->regions->regionsFor(frame);
  state_->lastCount = mask.ellipses.size();
  engine.setRegionMask(std::move(mask));
}

std::string FaceFinder::summary() const {
  const faces::FaceRegions::Statistics s = state_->regions->statistics();
  char line[160];
  if (state_->stream) {
    std::snprintf(line, sizeof line, "faces: %lld detections, %.1f ms each on average (worker thread)",
                  static_cast<long long>(s.detections), s.meanMilliseconds);
  } else {
    std::snprintf(line, sizeof line, "faces: %zu found (%.1f ms)", state_->lastCount, s.meanMilliseconds);
  }
  return line;
}

std::string FaceFinder::cascadePath() const { return state_->regions->cascadePath(); }

#else

struct FaceFinder::State {};

std::unique_ptr<FaceFinder> FaceFinder::create(const std::string&, bool, std::string* why) {
  *why = "this build has no face detection (it needs OpenCV's objdetect: libopencv-objdetect-dev)";
  return nullptr;
}

void FaceFinder::apply(PixelBuffer&, BeautifyEngine&) {}
std::string FaceFinder::summary() const { return {}; }
std::string FaceFinder::cascadePath() const { return {}; }

#endif

FaceFinder::FaceFinder(std::unique_ptr<State> state) : state_(std::move(state)) {}
FaceFinder::~FaceFinder() = default;

}  // namespace lumo::tools
