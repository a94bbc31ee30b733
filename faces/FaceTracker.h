#pragma once

#include <cstdint>
#include <vector>

#include <lumo/RegionMask.h>

#include "FaceDetector.h"

namespace lumo::faces {

struct TrackerSettings {
  // A detection moves its face's box by this share of the way when it barely moved (jitter), and all the
  // way once it moved by `followShare` of the face's size or more: still faces hold still, moving ones are
  // followed at the next detection.
  float jitterWeight = 0.3f;
  float followShare = 0.15f;
  // Detections in a row a face may be missed (turned away, a hand before it) before its region goes.
  int keepMisses = 2;
  // Detections that must find a new face before it counts, so that a false hit seen once never shows. The
  // faces of the very first detection count at once: a photo, or a stream's first frame, has no second.
  int confirmHits = 2;
  // A face's motion, measured between its detections, carries its region on between them, for at most
  // this many frames (so that a face that stops is overshot briefly and by little).
  int predictFrames = 6;
};

// Faces carried from detection to detection: each detection (of frame `frame`) is matched to the faces
// already known, where their motion puts them by then, and they move towards it; unmatched detections are
// new faces, faces unmatched for too long are dropped. Between detections a face moves on at its measured
// speed, so that a region keeps up with a moving face while the detections lag behind the frames.
class FaceTracker {
 public:
  explicit FaceTracker(TrackerSettings settings = {}) : settings_(settings) {}

  void update(const std::vector<FaceBox>& detections, int64_t frame = 0);
  void clear() {
    tracks_.clear();
    seeded_ = false;
  }
  // The faces that count, where they are at `frame`.
  std::vector<FaceBox> faces(int64_t frame) const;
  std::vector<FaceBox> faces() const { return faces(lastFrame_); }
  // Every face followed, those still waiting for confirmation too, at `frame`: where a search should look.
  std::vector<FaceBox> candidates(int64_t frame) const;
  // Whether the last detection missed a face it followed (the next search had better look everywhere).
  bool missedAny() const;

 private:
  struct Track {
    FaceBox box;  // at frame `seen`
    int misses = 0;
    int hits = 1;
    int64_t seen = 0;
    float vx = 0.0f;  // pixels a frame
    float vy = 0.0f;
  };
  FaceBox at(const Track& track, int64_t frame) const;

  TrackerSettings settings_;
  bool seeded_ = false;
  int64_t lastFrame_ = 0;
  std::vector<Track> tracks_;
};

// The soft ellipses the beautify passes act in for these faces: a detector's box spans brows to mouth, so
// the ellipse is taller than the box and sits a little lower, taking in forehead, cheeks and chin.
RegionMask regionsOf(const std::vector<FaceBox>& faces);

}  // namespace lumo::faces
