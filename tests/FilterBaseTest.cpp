// The filter base without GL: construction and crop geometry make no GL call.
#include <lumo/lumo.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>

namespace lumo {
namespace {

TEST(FilterBase, CropCutsTheOverflowingAxis) {
  VideoProcessFilter filter;
  const std::array<float, 8> topFirst{-1, 1, 1, 1, -1, -1, 1, -1};

  // Wider image than view: s is cut, t stays 0..1.
  EXPECT_EQ(filter.setCropModeVerticesAndTexCoord(1280, 720, 720, 1280), 0);
  EXPECT_EQ(filter.vertices(), topFirst);
  EXPECT_EQ(filter.texCoords(),
            (std::array<float, 8>{0.341796875f, 1, 0.658203125f, 1, 0.341796875f, 0, 0.658203125f, 0}));

  filter.setCropModeVerticesAndTexCoord(480, 640, 720, 1280);
  EXPECT_EQ(filter.texCoords(), (std::array<float, 8>{0.125f, 1, 0.875f, 1, 0.125f, 0, 0.875f, 0}));

  // Taller image than view: t is cut, s stays 0..1.
  filter.setCropModeVerticesAndTexCoord(720, 1280, 1280, 720);
  const auto& tall = filter.texCoords();
  EXPECT_EQ(tall[0], 0.0f);
  EXPECT_EQ(tall[2], 1.0f);
  EXPECT_GT(tall[5], 0.0f);
  EXPECT_LT(tall[1], 1.0f);

  filter.setCropModeVerticesAndTexCoord(640, 480, 640, 480);
  EXPECT_EQ(filter.texCoords(), (std::array<float, 8>{0, 1, 1, 1, 0, 0, 1, 0}));
  EXPECT_EQ(filter.imgWidth(), 1) << "crop does not change the image size";
}

}  // namespace
}  // namespace lumo
