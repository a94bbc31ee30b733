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
  const cv::Mat whole(frame.height, frame.width, frame.grey ? CV_8UC1 : CV_8UC4, const_cast<uint8_t*>(frame.data),
                      frame.stride);
  const int width = std::max(1, std::min(frame.width, detectionWidth));
  small.scale = static_cast<float>(frame.width) / static_cast<float>(width);
  const int height = std::max(1, static_cast<int>(std::lround(static_cast<float>(frame.height) / small.scale)));
  // Area averaging first, on the few pixels it leaves: the grey conversion then costs next to nothing.
  cv::Mat reduced;
  if (width == frame.width) {
    reduced = whole;
  } else {
    cv::resize(whole, reduced, cv::Size(width, height), 0, 0, cv::INTER_AREA);
  }
  small.width = reduced.cols;
  small.height = reduced.rows;
  small.pixels.resize(static_cast<size_t>(small.width) * static_cast<size_t>(small.height));
  cv::Mat grey(small.height, small.width, CV_8UC1, small.pixels.data());
  if (frame.grey) {
    reduced.copyTo(grey);
  } else {
    cv::cvtColor(reduced, grey, cv::COLOR_BGRA2GRAY);
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

std::vector<FaceBox> FaceDetector::detect(const SmallGrey& grey) {
  std::vector<FaceBox> faces;
  if (grey.pixels.empty()) return faces;
  // No histogram equalisation: the cascade normalises every window by its own contrast, and a global
  // stretch driven by the background only moved small faces across the threshold.
  const cv::Mat image(grey.height, grey.width, CV_8UC1, const_cast<uint8_t*>(grey.pixels.data()));
  std::vector<cv::Rect> found;
  const int minFace = std::max(1, settings_.minFace);
  cascade_->classifier.detectMultiScale(image, found, settings_.scaleFactor, settings_.minNeighbors, 0,
                                        cv::Size(minFace, minFace));
  for (const cv::Rect& r : found) {
    faces.push_back({static_cast<float>(r.x) * grey.scale, static_cast<float>(r.y) * grey.scale,
                     static_cast<float>(r.width) * grey.scale, static_cast<float>(r.height) * grey.scale});
  }
  std::sort(faces.begin(), faces.end(),
            [](const FaceBox& a, const FaceBox& b) { return a.width * a.height > b.width * b.height; });
  return faces;
}

}  // namespace lumo::faces
