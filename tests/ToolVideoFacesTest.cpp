// lumo-beautify --faces on a video file: the element finds the face and the skin-gated passes leave the
// orange suit (skin by the colour rule) as it was, where without --faces they smooth it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "ToolHarness.h"

namespace {

using lumo::testing::Outcome;

class ToolVideoFaces : public lumo::testing::ToolRun {
 protected:
  // The decoded frames of a 512 x 512 clip, RGB.
  std::vector<uint8_t> decode(const std::string& name) {
    EXPECT_EQ(shell("ffmpeg -v error -y -i " + name + " -f rawvideo -pix_fmt rgb24 " + name + ".rgb"), 0);
    const std::string bytes = lumo::testing::readFile(dir_ / (name + ".rgb"));
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
  }
};

// Mean absolute difference over rows [y0, y1) and columns [x0, x1) of every 512 x 512 frame.
double meanDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int y0, int y1, int x0, int x1) {
  const size_t frame = 512 * 512 * 3;
  double sum = 0;
  size_t count = 0;
  for (size_t f = 0; f + frame <= std::min(a.size(), b.size()); f += frame) {
    for (int y = y0; y < y1; ++y) {
      for (int i = x0 * 3; i < x1 * 3; ++i) {
        const size_t at = f + static_cast<size_t>(y) * 512 * 3 + static_cast<size_t>(i);
        sum += std::abs(static_cast<int>(a[at]) - static_cast<int>(b[at]));
        ++count;
      }
    }
  }
  return count == 0 ? 0.0 : sum / static_cast<double>(count);
}

TEST_F(ToolVideoFaces, SmoothsTheFaceAndLeavesTheSuit) {
  ASSERT_EQ(shell("ffmpeg -v error -y -loop 1 -i '" LUMO_SAMPLE_IMAGE
                  "' -t 1 -r 10 -c:v libx264 -pix_fmt yuv420p in.mp4"),
            0);
  for (const char* args : {"-o faces.mp4 --faces --mask polish,skin-whiten", "-o whole.mp4 --mask polish,skin-whiten",
                           "-o plain.mp4 --mask 0"}) {
    const Outcome r = run(std::string("in.mp4 ") + args + " --engine cpu --crf 0");
    ASSERT_EQ(r.status, 0) << args << ": " << r.err;
  }
  const std::vector<uint8_t> faces = decode("faces.mp4");
  const std::vector<uint8_t> whole = decode("whole.mp4");
  const std::vector<uint8_t> plain = decode("plain.mp4");
  ASSERT_EQ(faces.size(), size_t{10} * 512 * 512 * 3);
  ASSERT_EQ(plain.size(), faces.size());
  // The suit: what is left is the encoder's own noise, a fraction of what smoothing does to it.
  const double suitFaces = meanDifference(faces, plain, 300, 512, 0, 512);
  const double suitWhole = meanDifference(whole, plain, 300, 512, 0, 512);
  EXPECT_LT(suitFaces, 0.3 * suitWhole) << suitFaces << " vs " << suitWhole;
  // The face: smoothed as much as without --faces.
  const double faceFaces = meanDifference(faces, plain, 105, 145, 195, 255);
  const double faceWhole = meanDifference(whole, plain, 105, 145, 195, 255);
  EXPECT_GT(faceFaces, 0.8 * faceWhole) << faceFaces << " vs " << faceWhole;
  EXPECT_GT(faceFaces, 2.0);
}

}  // namespace
