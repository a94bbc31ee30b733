#pragma once

#include <opencv2/core.hpp>

namespace lumo::bench {

// What a Linux developer would write instead, on the CPU: edge-preserving smoothing with OpenCV's bilateral
// filter, a light Gaussian, and a weighted mix with the original. Buffers are kept between frames.
class OpenCvBeautify {
 public:
  explicit OpenCvBeautify(int threads);
  // BGRA in, BGRA out, both width * 4 bytes a row.
  void process(const cv::Mat& bgraIn, cv::Mat& bgraOut);

 private:
  cv::Mat bgr_;
  cv::Mat smoothed_;
  cv::Mat blurred_;
  cv::Mat mixed_;
};

}  // namespace lumo::bench
