#pragma once

#include <memory>
#include <string>

#include <lumo/lumo.h>

namespace lumo::tools {

// lumo-beautify --faces: before each frame, hands the engines the regions of the faces found in it, so
// that the skin-gated passes act on faces only. A photo waits for its detection; a stream's first frame
// too, later frames take the faces carried from detections that run every few frames on a worker thread.
class FaceFinder {
 public:
  // Null, with the reason in `why`, where faces cannot be found (no cascade, or a build without OpenCV's
  // objdetect). `cascade` empty: Debian's.
  static std::unique_ptr<FaceFinder> create(const std::string& cascade, bool stream, std::string* why);
  struct State;
  explicit FaceFinder(std::unique_ptr<State> state);  // use create()
  ~FaceFinder();
  FaceFinder(const FaceFinder&) = delete;
  FaceFinder& operator=(const FaceFinder&) = delete;

  void apply(PixelBuffer& frame, BeautifyEngine& engine);
  // "N face(s) found" for a photo; detections and their mean time for a stream.
  std::string summary() const;
  std::string cascadePath() const;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace lumo::tools
