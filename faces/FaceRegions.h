#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <lumo/PixelBuffer.h>
#include <lumo/RegionMask.h>

#include "FaceDetector.h"
#include "FaceTracker.h"

namespace lumo::faces {

struct FaceRegionsSettings {
  DetectorSettings detector;
  TrackerSettings tracker;
  // A detection every this many frames (1: every frame).
  int every = 3;
  // Between full searches of the frame, detections look only near the faces already known (at a fraction of
  // the cost): one search in this many is full, and so is every one while no face is known or after one
  // was missed. New faces appear at the next full search.
  int fullSearchEvery = 4;
  // Streams: detections run on a worker thread and their faces apply to the frame in hand when they are
  // ready; the frame that hands one over keeps the faces it had. Off: each due frame waits for its own.
  bool background = true;
  // A due frame whose detection in flight was handed over this many frames ago or more waits for it, so
  // that detections are never more than this and `every` frames behind (within the tracker's prediction)
  // when frames come faster than detections (a file rather than a camera). A camera's frames at 30 a
  // second leave a detection 100 ms before any wait.
  int maxLag = 3;
  // The first frame waits for its own detection (nothing is beautified outside faces that were never
  // looked for). Off: it is handed to the worker like any other and drawn with no faces yet.
  bool firstWaits = true;

  // Frames of a video: detections every third frame on a worker thread, faces carried between them.
  static FaceRegionsSettings video() { return {}; }
  // A live source whose frames must never wait (OBS's graphics thread): detections on the worker only,
  // their faces applied when ready, however far the frames run ahead.
  static FaceRegionsSettings live() {
    FaceRegionsSettings settings;
    settings.firstWaits = false;
    settings.maxLag = 1 << 30;
    return settings;
  }
  // Unrelated pictures: every frame waits for its own detection, and nothing is carried from the last.
  static FaceRegionsSettings photos() {
    FaceRegionsSettings settings;
    settings.every = 1;
    settings.background = false;
    settings.tracker.jitterWeight = 1.0f;
    settings.tracker.keepMisses = 0;
    settings.tracker.confirmHits = 1;
    settings.fullSearchEvery = 1;
    return settings;
  }
};

// What a host asks once a frame: the regions to hand the engine (BeautifyEngine::setRegionMask) for this
// frame. The first frame, with nothing known yet, always waits for its own detection, so a photo or a
// stream's first frame is never beautified outside its faces.
class FaceRegions {
 public:
  // Null, with the reason in `why`, when the detector cannot be loaded.
  static std::unique_ptr<FaceRegions> create(const FaceRegionsSettings& settings, std::string* why);
  explicit FaceRegions(const FaceRegionsSettings& settings, std::unique_ptr<FaceDetector> detector);
  // Waits for a detection under way.
  ~FaceRegions();
  FaceRegions(const FaceRegions&) = delete;
  FaceRegions& operator=(const FaceRegions&) = delete;

  RegionMask regionsFor(const FrameView& frame);
  // Locks the buffer for reading: BGRA and the packed orders by their colour, NV12 and I420 by their luma.
  RegionMask regionsFor(PixelBuffer& frame);

  // Waits until no detection is under way and its faces are applied.
  void settle();
  // Forgets every face and drops a detection in flight, without waiting for it (frames of another size).
  void restart();
  // The faces as they stand.
  std::vector<FaceBox> faces() const { return tracker_.faces(); }
  // Detections finished so far, and the mean time of their search in milliseconds.
  struct Statistics {
    int64_t detections = 0;
    double meanMilliseconds = 0.0;
  };
  Statistics statistics() const;
  const std::string& cascadePath() const { return detector_->cascadePath(); }

 private:
  std::vector<FaceBox> timedDetect(const SmallGrey& grey, const std::vector<FaceBox>& around);
  // The known faces to search near, or none for a full search.
  std::vector<FaceBox> nextSearch();
  void workerLoop();
  // Applies a result the worker finished, if any.
  void collect();

  FaceRegionsSettings settings_;
  std::unique_ptr<FaceDetector> detector_;
  FaceTracker tracker_;
  int64_t frames_ = 0;
  int64_t searches_ = 0;
  bool seeded_ = false;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  bool busy_ = false;      // a job handed over and not yet collected
  bool hasJob_ = false;    // the worker has a job to run
  bool hasResult_ = false;
  bool stop_ = false;
  bool dropResult_ = false;  // the job in flight belongs to frames before restart()
  SmallGrey job_;
  std::vector<FaceBox> jobAround_;
  int64_t jobFrame_ = 0;  // the frame the job was shrunk from
  std::vector<FaceBox> result_;
  int64_t detections_ = 0;
  double totalMilliseconds_ = 0.0;
  std::thread worker_;  // last: started once everything above exists
};

}  // namespace lumo::faces
