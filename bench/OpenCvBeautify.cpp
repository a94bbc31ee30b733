#include "OpenCvBeautify.h"

#include <opencv2/imgproc.hpp>

namespace lumo::bench {

OpenCvBeautify::OpenCvBeautify(int threads) { cv::setNumThreads(threads); }

void OpenCvBeautify::process(const cv::Mat& bgraIn, cv::Mat& bgraOut) {
  cv::cvtColor(bgraIn, bgr_, cv::COLOR_BGRA2BGR);  // the bilateral filter takes one or three channels
  cv::bilateralFilter(bgr_, smoothed_, 9, 30.0, 7.0);
  cv::GaussianBlur(smoothed_, blurred_, cv::Size(3, 3), 0.0);
  cv::addWeighted(blurred_, 0.65, bgr_, 0.35, 0.0, mixed_);
  cv::cvtColor(mixed_, bgraOut, cv::COLOR_BGR2BGRA);
}

}  // namespace lumo::bench
