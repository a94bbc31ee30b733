#include "FaceTracker.h"

#include <algorithm>
#include <cmath>

namespace lumo::faces {
namespace {

float overlap(const FaceBox& a, const FaceBox& b) {
  const float w = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
  const float h = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
  if (w <= 0.0f || h <= 0.0f) return 0.0f;
  const float shared = w * h;
  return shared / (a.width * a.height + b.width * b.height - shared);
}

float centreDistance(const FaceBox& a, const FaceBox& b) {
  return std::hypot(a.x + a.width / 2 - b.x - b.width / 2, a.y + a.height / 2 - b.y - b.height / 2);
}

}  // namespace

FaceBox FaceTracker::at(const Track& track, int64_t frame) const {
  const auto ahead = static_cast<float>(std::clamp<int64_t>(frame - track.seen, 0, settings_.predictFrames));
  FaceBox box = track.box;
  box.x += track.vx * ahead;
  box.y += track.vy * ahead;
  return box;
}

void FaceTracker::update(const std::vector<FaceBox>& detections, int64_t frame) {
  std::vector<bool> matched(tracks_.size(), false);
  std::vector<Track> born;
  for (const FaceBox& detection : detections) {
    // The nearest known face that is plausibly the same one: overlapping, or moved less than its size.
    int best = -1;
    float bestDistance = 0.0f;
    for (size_t i = 0; i < tracks_.size(); ++i) {
      if (matched[i]) continue;
      const FaceBox expected = at(tracks_[i], frame);
      const float distance = centreDistance(expected, detection);
      const bool same = overlap(expected, detection) > 0.1f || distance < expected.width;
      if (same && (best < 0 || distance < bestDistance)) {
        best = static_cast<int>(i);
        bestDistance = distance;
      }
    }
    if (best < 0) {
      Track track;
      track.box = detection;
      track.hits = seeded_ ? 1 : settings_.confirmHits;
      track.seen = frame;
      born.push_back(track);
      continue;
    }
    Track& track = tracks_[static_cast<size_t>(best)];
    matched[static_cast<size_t>(best)] = true;
    const FaceBox expected = at(track, frame);
    const float size = std::max(1.0f, expected.width);
    const float moved = std::max(bestDistance, std::fabs(detection.width - expected.width)) / size;
    const float weight = std::clamp(moved / settings_.followShare, settings_.jitterWeight, 1.0f);
    FaceBox box = expected;
    box.x += weight * (detection.x - expected.x);
    box.y += weight * (detection.y - expected.y);
    box.width += weight * (detection.width - expected.width);
    box.height += weight * (detection.height - expected.height);
    if (frame > track.seen) {
      // The speed since the last detection; below 2 % of the face's size a frame it is the jitter the box
      // smoothing leaves, and a still face must hold still.
      const auto frames = static_cast<float>(frame - track.seen);
      const float measuredX = (box.x + box.width / 2 - track.box.x - track.box.width / 2) / frames;
      const float measuredY = (box.y + box.height / 2 - track.box.y - track.box.height / 2) / frames;
      const bool moving = std::hypot(measuredX, measuredY) >= 0.02f * size;
      track.vx = moving ? measuredX : 0.0f;
      track.vy = moving ? measuredY : 0.0f;
    }
    track.box = box;
    track.seen = frame;
    track.misses = 0;
    ++track.hits;
  }
  std::vector<Track> kept;
  for (size_t i = 0; i < tracks_.size(); ++i) {
    if (!matched[i] && ++tracks_[i].misses > settings_.keepMisses) continue;
    kept.push_back(tracks_[i]);
  }
  kept.insert(kept.end(), born.begin(), born.end());
  tracks_ = std::move(kept);
  seeded_ = true;
  lastFrame_ = std::max(lastFrame_, frame);
}

std::vector<FaceBox> FaceTracker::faces(int64_t frame) const {
  std::vector<FaceBox> boxes;
  for (const Track& track : tracks_) {
    if (track.hits >= settings_.confirmHits) boxes.push_back(at(track, frame));
  }
  return boxes;
}

std::vector<FaceBox> FaceTracker::candidates(int64_t frame) const {
  std::vector<FaceBox> boxes;
  for (const Track& track : tracks_) boxes.push_back(at(track, frame));
  return boxes;
}

bool FaceTracker::missedAny() const {
  return std::any_of(tracks_.begin(), tracks_.end(), [](const Track& track) { return track.misses > 0; });
}

RegionMask regionsOf(const std::vector<FaceBox>& faces) {
  std::vector<RegionEllipse> ellipses;
  for (const FaceBox& face : faces) {
    RegionEllipse e;
    e.centerX = face.x + 0.5f * face.width;
    e.centerY = face.y + 0.55f * face.height;
    e.radiusX = 0.62f * face.width;
    e.radiusY = 0.82f * face.height;
    e.feather = 0.35f;
    ellipses.push_back(e);
  }
  return RegionMask::inside(std::move(ellipses));
}

}  // namespace lumo::faces
