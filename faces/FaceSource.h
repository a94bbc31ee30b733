#pragma once

#include <memory>
#include <string>

#include <lumo/BeautifyHost.h>

namespace lumo::faces {

// Frames of a video (detections every few frames on a worker thread, faces carried between them), frames
// of a live source that must never wait (the same, but no frame waits for a detection, the first neither),
// or unrelated pictures (each waits for its own detection).
enum class FaceMode { Video, Live, Photos };

// The front ends' "faces only": a source of regions for BeautifyHost that holds the faces found in each
// frame, so that the skin-gated passes act on faces only. The first frame waits for its own detection. The
// regions follow the frame: a frame of another size starts the search afresh.
class FaceSource : public RegionSource {
 public:
  // Null, with the reason in `why`, where faces cannot be found: no cascade at `cascade` (empty: Debian's),
  // or a build without face detection.
  static std::shared_ptr<FaceSource> create(FaceMode mode, const std::string& cascade, std::string* why);
  struct State;
  explicit FaceSource(std::unique_ptr<State> state);  // use create()
  ~FaceSource() override;
  FaceSource(const FaceSource&) = delete;
  FaceSource& operator=(const FaceSource&) = delete;

  RegionMask regionsFor(PixelBuffer& frame) override;
  // "faces: N found (T ms)" for pictures; the detections and their mean time for a video.
  std::string summary() const;
  std::string cascadePath() const;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace lumo::faces
