// FaceSource in a build without OpenCV's objdetect: every front end gets the same answer from here.
#include "FaceSource.h"

namespace lumo::faces {

struct FaceSource::State {};

std::shared_ptr<FaceSource> FaceSource::create(FaceMode, const std::string&, std::string* why) {
  if (why != nullptr) {
    *why = "built without face detection (it needs OpenCV's objdetect: libopencv-objdetect-dev)";
  }
  return nullptr;
}

FaceSource::FaceSource(std::unique_ptr<State> state) : state_(std::move(state)) {}
FaceSource::~FaceSource() = default;
RegionMask FaceSource::regionsFor(PixelBuffer&) { return RegionMask::whole(); }
std::string FaceSource::summary() const { return {}; }
std::string FaceSource::cascadePath() const { return {}; }

}  // namespace lumo::faces
