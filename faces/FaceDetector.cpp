#include "FaceDetector.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <algorithm>
#include <cmath>
#include <fstream>

namespace lumo::faces {

struct FaceDetector::Cascade {
  cv::CascadeClassifier classifier;
};

std::string defaultCascadePath() {
  for (const char* candidate : {"/usr/share/opencv4/haarcascades/haarcascade_frontalface_alt2.xml",
                                "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml",
                                "/usr/share/opencv/haarcascades/haarcascade_frontalface_alt2.xml"}) {
    if (std::ifstream(candidate).good()) return candidate;
  }
  return {};
}

SmallGrey shrink(const FrameView& frame, int detectionWidth) {
  SmallGrey small;
  if (frame.data == nullptr || frame.width <= 0 || frame.height <= 0) return small;
  // OpenCV type of the pixels, and how they become grey: a conversion, or the channel that is luma (-1: the
  // frame is grey already).
  static const struct {
    int type;
    int toGrey;
    int lumaChannel;
  } kLayouts[] = {{CV_8UC4, cv::COLOR_BGRA2GRAY, 0}, {CV_8UC1, -1, -1}, {CV_8UC3, cv::COLOR_BGR2GRAY, 0},
                  {CV_8UC3, cv::COLOR_RGB2GRAY, 0},  {CV_8UC2, -1, 0},  {CV_8UC2, -1, 1}};
  const auto& layout = kLayouts[static_cast<size_t>(frame.layout)];
  const cv::Mat whole(frame.height, frame.width, layout.type, const_cast<uint8_t*>(frame.data), frame.stride);
  // A whole factor that leaves at least the wanted width: area averaging by a whole factor takes OpenCV's
  // fast path (a fractional one costs several times as much on a rendering thread).
  // No larger than the height, so that a very wide, short frame keeps a row (the rows used never pass it).
  const int factor = std::max(1, std::min(frame.width / std::max(1, detectionWidth), frame.height));
  small.scale = static_cast<float>(factor);
  small.width = std::max(1, frame.width / factor);
  small.height = std::max(1, frame.height / factor);
  small.pixels.resize(static_cast<size_t>(small.width) * static_cast<size_t>(small.height));
  cv::Mat grey(small.height, small.width, CV_8UC1, small.pixels.data());
  const cv::Rect used(0, 0, small.width * factor, small.height * factor);
  cv::Mat fullGrey;
  if (layout.toGrey >= 0) {
    cv::cvtColor(whole(used), fullGrey, layout.toGrey);
  } else if (layout.lumaChannel >= 0) {
    cv::extractChannel(whole(used), fullGrey, layout.lumaChannel);  // packed 4:2:2: luma in every other byte
  } else {
    fullGrey = whole(used);
  }
  if (factor == 1) {
    fullGrey.copyTo(grey);
  } else {
    cv::resize(fullGrey, grey, grey.size(), 0, 0, cv::INTER_AREA);
  }
  return small;
}

std::unique_ptr<FaceDetector> FaceDetector::load(const DetectorSettings& settings, std::string* why) {
  const std::string path = settings.cascade.empty() ? defaultCascadePath() : settings.cascade;
  if (path.empty()) {
    if (why) *why = "no face cascade found (install opencv-data, or give a cascade file)";
    return nullptr;
  }
  if (!std::ifstream(path).good()) {
    if (why) *why = "cannot read the face cascade '" + path + "'";
    return nullptr;
  }
  auto cascade = std::make_unique<Cascade>();
  bool loaded = false;
  try {
    loaded = cascade->classifier.load(path);
  } catch (const cv::Exception&) {
    loaded = false;
  }
  if (!loaded || cascade->classifier.empty()) {
    if (why) *why = "cannot load the face cascade '" + path + "'";
    return nullptr;
  }
  return std::make_unique<FaceDetector>(settings, path, std::move(cascade));
}

FaceDetector::FaceDetector(DetectorSettings settings, std::string path, std::unique_ptr<Cascade> cascade)
    : settings_(std::move(settings)), path_(std::move(path)), cascade_(std::move(cascade)) {}

FaceDetector::~FaceDetector() = default;

std::vector<FaceBox> FaceDetector::detect(const FrameView& frame) {
  return detect(shrink(frame, settings_.detectionWidth));
}

std::vector<FaceBox> FaceDetector::detect(const SmallGrey& grey, const std::vector<FaceBox>& around) {
  std::vector<FaceBox> faces;
  if (grey.pixels.empty()) return faces;
  // No histogram equalisation: the cascade normalises every window by its own contrast, and a global
  // stretch driven by the background only moved small faces across the threshold.
  const cv::Mat image(grey.height, grey.width, CV_8UC1, const_cast<uint8_t*>(grey.pixels.data()));
  const int minFace = std::max(1, settings_.minFace);
  auto search = [&](const cv::Rect& area, cv::Size smallest, cv::Size largest) {
    std::vector<cv::Rect> found;
    cascade_->classifier.detectMultiScale(image(area), found, settings_.scaleFactor, settings_.minNeighbors, 0,
                                          smallest, largest);
    for (const cv::Rect& r : found) {
      faces.push_back({static_cast<float>(r.x + area.x) * grey.scale, static_cast<float>(r.y + area.y) * grey.scale,
                       static_cast<float>(r.width) * grey.scale, static_cast<float>(r.height) * grey.scale});
    }
  };
  const cv::Rect all(0, 0, grey.width, grey.height);
  if (around.empty()) {
    search(all, cv::Size(minFace, minFace), cv::Size());
  } else {
    // Each known face: a window of four times its size (it may have moved one and a half times its width
    // since), faces of 0.7 to 1.4 times it. A fraction of the frame and a few of the scales.
    for (const FaceBox& face : around) {
      const float size = std::max(face.width, face.height) / grey.scale;
      const int x = static_cast<int>(std::lround(face.x / grey.scale - 1.5f * size));
      const int y = static_cast<int>(std::lround(face.y / grey.scale - 1.5f * size));
      const int side = static_cast<int>(std::lround(4.0f * size));
      const cv::Rect area = cv::Rect(x, y, side, side) & all;
      const int smallest = std::max(minFace, static_cast<int>(0.7f * size));
      const int largest = static_cast<int>(std::ceil(1.4f * size));
      if (area.width < smallest || area.height < smallest) continue;
      search(area, cv::Size(smallest, smallest), cv::Size(largest, largest));
    }
  }
  std::sort(faces.begin(), faces.end(),
            [](const FaceBox& a, const FaceBox& b) { return a.width * a.height > b.width * b.height; });
  return faces;
}

}  // namespace lumo::faces
