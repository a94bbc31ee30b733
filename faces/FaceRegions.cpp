#include "FaceRegions.h"

#include <chrono>

namespace lumo::faces {

std::unique_ptr<FaceRegions> FaceRegions::create(const FaceRegionsSettings& settings, std::string* why) {
  std::unique_ptr<FaceDetector> detector = FaceDetector::load(settings.detector, why);
  if (!detector) return nullptr;
  return std::make_unique<FaceRegions>(settings, std::move(detector));
}

FaceRegions::FaceRegions(const FaceRegionsSettings& settings, std::unique_ptr<FaceDetector> detector)
    : settings_(settings), detector_(std::move(detector)), tracker_(settings.tracker) {
  if (settings_.every < 1) settings_.every = 1;
  if (settings_.background) worker_ = std::thread([this] { workerLoop(); });
}

FaceRegions::~FaceRegions() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
}

std::vector<FaceBox> FaceRegions::nextSearch() {
  const bool full = searches_ % std::max(1, settings_.fullSearchEvery) == 0 || tracker_.missedAny();
  ++searches_;
  return full ? std::vector<FaceBox>{} : tracker_.candidates(frames_);
}

std::vector<FaceBox> FaceRegions::timedDetect(const SmallGrey& grey, const std::vector<FaceBox>& around) {
  const auto begin = std::chrono::steady_clock::now();
  std::vector<FaceBox> found = detector_->detect(grey, around);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
  const std::lock_guard<std::mutex> lock(mutex_);
  ++detections_;
  totalMilliseconds_ += ms;
  return found;
}

void FaceRegions::workerLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stop_ || hasJob_; });
    if (stop_) return;
    hasJob_ = false;
    const SmallGrey grey = std::move(job_);
    const std::vector<FaceBox> around = std::move(jobAround_);
    lock.unlock();
    std::vector<FaceBox> found = timedDetect(grey, around);
    lock.lock();
    result_ = std::move(found);
    hasResult_ = true;
    idle_.notify_all();
  }
}

void FaceRegions::collect() {
  std::vector<FaceBox> found;
  int64_t frame = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!hasResult_) return;
    found = std::move(result_);
    frame = jobFrame_;
    hasResult_ = false;
    busy_ = false;
    if (dropResult_) {
      dropResult_ = false;
      return;
    }
  }
  tracker_.update(found, frame);
}

void FaceRegions::settle() {
  if (!settings_.background) return;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return !busy_ || hasResult_; });
  }
  collect();
}

void FaceRegions::restart() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    dropResult_ = busy_;
  }
  tracker_.clear();
  frames_ = 0;
  searches_ = 0;
  seeded_ = false;
}

RegionMask FaceRegions::regionsFor(const FrameView& frame) {
  // frames_ is this frame's number until the end of the call.
  const bool due = frames_ % settings_.every == 0;
  const int64_t now = frames_;
  struct Advance {
    int64_t& frames;
    ~Advance() { ++frames; }
  } advance{frames_};
  if ((!seeded_ && settings_.firstWaits) || !settings_.background) {
    if (!seeded_ || due) {
      settle();
      tracker_.update(timedDetect(shrink(frame, settings_.detector.detectionWidth), nextSearch()), now);
      seeded_ = true;
    }
    return regionsOf(tracker_.faces(now));
  }
  collect();
  if (due) {
    bool late = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      late = busy_ && now - jobFrame_ >= settings_.maxLag;
    }
    // Frames faster than the detections (a file, not a camera): wait rather than fall further behind.
    if (late) settle();
    bool handOver = false;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      handOver = !busy_;
    }
    // Shrunk here, outside the lock: the worker keeps no pointer into the host's frame.
    if (handOver) {
      SmallGrey grey = shrink(frame, settings_.detector.detectionWidth);
      std::vector<FaceBox> around = nextSearch();
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        job_ = std::move(grey);
        jobAround_ = std::move(around);
        jobFrame_ = now;
        hasJob_ = true;
        busy_ = true;
      }
      wake_.notify_one();
    }
  }
  return regionsOf(tracker_.faces(now));
}

namespace {

FrameLayout layoutOf(uint32_t pixelFormat) {
  switch (pixelFormat) {
    case kPixelFormat24BGR: return FrameLayout::Bgr;
    case kPixelFormat24RGB: return FrameLayout::Rgb;
    case kPixelFormatYUY2: return FrameLayout::Yuy2;
    case kPixelFormatUYVY: return FrameLayout::Uyvy;
    default: return pixelFormatIsYuv(pixelFormat) ? FrameLayout::Grey : FrameLayout::Bgra;
  }
}

}  // namespace

RegionMask FaceRegions::regionsFor(PixelBuffer& buffer) {
  if (buffer.lockBaseAddress(kPixelBufferLockReadOnly) != kPixelBufferSuccess) return regionsOf(tracker_.faces());
  FrameView view;
  view.width = buffer.width();
  view.height = buffer.height();
  view.layout = layoutOf(buffer.pixelFormat());
  view.data = static_cast<const uint8_t*>(buffer.baseAddressOfPlane(0));
  view.stride = buffer.bytesPerRowOfPlane(0);
  RegionMask regions = regionsFor(view);
  buffer.unlockBaseAddress(kPixelBufferLockReadOnly);
  return regions;
}

FaceRegions::Statistics FaceRegions::statistics() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  Statistics s;
  s.detections = detections_;
  s.meanMilliseconds = detections_ > 0 ? totalMilliseconds_ / static_cast<double>(detections_) : 0.0;
  return s;
}

}  // namespace lumo::faces
