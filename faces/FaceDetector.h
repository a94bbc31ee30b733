#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lumo::faces {

// A face found in a frame, in the frame's pixels (x right, y down).
struct FaceBox {
  float x = 0.0f;
  float y = 0.0f;
  float width = 0.0f;
  float height = 0.0f;
};

// How a frame's pixels are laid out, as far as finding its brightness goes.
enum class FrameLayout : uint8_t {
  Bgra,  // 4 bytes a pixel (also RGBA's, BGRx's and RGBx's: the weights' difference does not matter here)
  Grey,  // one byte a pixel: a planar YUV frame's luma plane
  Bgr,   // 3 bytes a pixel
  Rgb,
  Yuy2,  // packed 4:2:2: luma in every other byte
  Uyvy,
};

// A frame to look at.
struct FrameView {
  const uint8_t* data = nullptr;
  size_t stride = 0;
  int width = 0;
  int height = 0;
  FrameLayout layout = FrameLayout::Bgra;
};

struct DetectorSettings {
  // A cascade file of OpenCV's objdetect; empty: the frontal-face cascade Debian installs with opencv-data.
  std::string cascade;
  // The grey frame is scaled down by the largest whole factor that leaves at least this many pixels across
  // (1280 to 426, 1920 to 480). With the smallest face below, a 1280-wide frame's faces are found from
  // about 70 pixels across.
  int detectionWidth = 400;
  // The step between the search's scales and the overlapping hits a face needs. On the sample portrait,
  // mirrored, scaled and moved over busy backgrounds, 1.1 and 4 found every face with no false hit, where 3
  // hits gave false faces and finer steps cost more and found less.
  double scaleFactor = 1.1;
  int minNeighbors = 4;
  int minFace = 22;  // the smallest face searched for, in pixels of the scaled-down frame
};

// The first of Debian's cascade files that exists: haarcascade_frontalface_alt2, then _default, under
// /usr/share/opencv4 (opencv-data); empty when none does.
std::string defaultCascadePath();

// A scaled-down grey copy of a frame, the only thing the search reads: cheap to make on a rendering thread
// and to hand to another.
struct SmallGrey {
  std::vector<uint8_t> pixels;
  int width = 0;
  int height = 0;
  float scale = 1.0f;  // frame pixels per small pixel
};
SmallGrey shrink(const FrameView& frame, int detectionWidth);

// OpenCV's cascade search on a scaled-down grey frame. One object is used by one thread at a time.
class FaceDetector {
 public:
  // Null, with the reason in `why`, when the cascade cannot be found or loaded.
  static std::unique_ptr<FaceDetector> load(const DetectorSettings& settings, std::string* why);
  struct Cascade;
  // Use load().
  FaceDetector(DetectorSettings settings, std::string path, std::unique_ptr<Cascade> cascade);
  ~FaceDetector();
  FaceDetector(const FaceDetector&) = delete;
  FaceDetector& operator=(const FaceDetector&) = delete;

  // Faces in frame pixels, largest first. Given faces `around`, only near them and at about their sizes:
  // how a tracker confirms and follows the faces it has at a fraction of a full search's cost.
  std::vector<FaceBox> detect(const FrameView& frame);
  std::vector<FaceBox> detect(const SmallGrey& grey, const std::vector<FaceBox>& around = {});
  const DetectorSettings& settings() const { return settings_; }
  const std::string& cascadePath() const { return path_; }

 private:
  DetectorSettings settings_;
  std::string path_;
  std::unique_ptr<Cascade> cascade_;
};

}  // namespace lumo::faces
