// A camera's own formats through the engines: YUY2, UYVY and I422 (4:2:2) and 24-bit BGR and RGB against
// FFmpeg's converter, one picture in each 4:2:2 layout giving one picture, odd widths, padded host rows,
// and the very buffer back when nothing is due.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <string>
#include <vector>

#include "support/FrameTesting.h"
#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using reference::Frame;

struct CameraFormat {
  uint32_t format;
  const char* ffmpegName;
};
constexpr CameraFormat kCameraFormats[] = {{kPixelFormatYUY2, "yuyv422"},
                                           {kPixelFormatUYVY, "uyvy422"},
                                           {kPixelFormatI422, "yuv422p"},
                                           {kPixelFormat24BGR, "bgr24"},
                                           {kPixelFormat24RGB, "rgb24"}};

class CameraFrames : public ::testing::TestWithParam<EngineKind> {
 protected:
  std::unique_ptr<BeautifyEngine> engine(int mask = BeautifySettings::kDefaultMask) const {
    return engineOf(GetParam(), mask);
  }
};

// The portrait converted by FFmpeg into each format and beautified in it matches the portrait beautified as
// BGRA and then converted the same way, within the bounds the 4:2:0 formats keep.
TEST_P(CameraFrames, AgreeWithTheBgraPathThroughAReferenceConverter) {
  if (!Ffmpeg::available()) GTEST_SKIP() << "ffmpeg is not installed";
  const Frame sample = loadSample();
  const int w = sample.width;
  const int h = sample.height;
  struct Colour {
    YuvColorimetry colorimetry;
    const char* matrix;
    const char* range;
  };
  const Colour colours[] = {{{YuvMatrix::Bt709, YuvRange::Limited}, "bt709", "tv"},
                            {{YuvMatrix::Bt601, YuvRange::Full}, "bt601", "pc"}};
  Ffmpeg ffmpeg;
  const std::unique_ptr<BeautifyEngine> engine = this->engine();
  const Raw bgraOut = render(*engine, sample.bgra, kPixelFormat32BGRA, w, h);
  for (const CameraFormat& format : kCameraFormats) {
    const bool yuv = pixelFormatIsYuv(format.format);
    for (const Colour& colour : colours) {
      SCOPED_TRACE(std::string(format.ffmpegName) + " " + colour.matrix);
      const Raw expected = ffmpeg.convert(bgraOut, "bgra", format.ffmpegName, w, h, colour.matrix, colour.range);
      const Raw in = ffmpeg.convert(sample.bgra, "bgra", format.ffmpegName, w, h, colour.matrix, colour.range);
      ASSERT_EQ(in.size(), pixelFormatFrameBytes(format.format, w, h));
      const Raw out = render(*engine, in, format.format, w, h, colour.colorimetry);
      const Agreement all = agree(out, expected, 0, expected.size());
      EXPECT_GE(all.within2, 0.97) << "mean " << all.meanDifference << " max " << all.maxDifference;
      EXPECT_LE(all.meanDifference, 1.0);
      EXPECT_LT(agree(out, in, 0, in.size()).within2, 0.9) << "beautified, not handed back";
      if (!yuv) {
        EXPECT_EQ(out, expected) << "24-bit is BGRA without alpha: the very same picture";
        break;  // RGB has no colorimetry
      }
    }
  }
}

// One picture stored as YUY2, UYVY and I422 (the same samples), at an odd width, gives one picture: the
// formats differ in layout only.
TEST_P(CameraFrames, FourTwoTwoLayoutsOfOnePictureGiveOnePicture) {
  const Frame sample = loadSample();
  for (const auto& [w, h] : {std::pair<int, int>{33, 17}, {512, 512}, {1, 1}}) {
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    const int cw = (w + 1) / 2;
    Raw i422(pixelFormatFrameBytes(kPixelFormatI422, w, h));
    for (size_t i = 0; i < i422.size(); ++i) i422[i] = sample.bgra[(i * 7) % sample.bgra.size()];
    const size_t luma = static_cast<size_t>(w) * static_cast<size_t>(h);
    const size_t chroma = static_cast<size_t>(cw) * static_cast<size_t>(h);
    auto pack = [&](const Raw& planar, bool uyvy) {
      Raw packed(pixelFormatFrameBytes(kPixelFormatYUY2, w, h));
      for (int y = 0; y < h; ++y) {
        for (int i = 0; i < cw; ++i) {
          const size_t at = static_cast<size_t>(y * w + 2 * i);
          const uint8_t y0 = planar[at], y1 = 2 * i + 1 < w ? planar[at + 1] : planar[at];
          const uint8_t u = planar[luma + static_cast<size_t>(y * cw + i)];
          const uint8_t v = planar[luma + chroma + static_cast<size_t>(y * cw + i)];
          uint8_t* q = &packed[4 * static_cast<size_t>(y * cw + i)];
          q[0] = uyvy ? u : y0, q[1] = uyvy ? y0 : u, q[2] = uyvy ? v : y1, q[3] = uyvy ? y1 : v;
        }
      }
      return packed;
    };
    const std::unique_ptr<BeautifyEngine> engine = this->engine(15);
    const Raw fromI422 = render(*engine, i422, kPixelFormatI422, w, h);
    EXPECT_EQ(render(*engine, pack(i422, false), kPixelFormatYUY2, w, h), pack(fromI422, false));
    EXPECT_EQ(render(*engine, pack(i422, true), kPixelFormatUYVY, w, h), pack(fromI422, true));
  }
}

// Host rows padded past their pixels give what tight rows give; the padding stays the host's. With nothing
// enabled the very buffer comes back.
TEST_P(CameraFrames, PaddedRowsAndNothingEnabled) {
  const Frame sample = loadSample();
  const int w = 45;
  const int h = 31;
  for (const CameraFormat& format : kCameraFormats) {
    SCOPED_TRACE(format.ffmpegName);
    Raw tight(pixelFormatFrameBytes(format.format, w, h));
    for (size_t i = 0; i < tight.size(); ++i) tight[i] = sample.bgra[(i * 13) % sample.bgra.size()];
    const std::unique_ptr<BeautifyEngine> engine = this->engine(7);
    const Raw expected = render(*engine, tight, format.format, w, h);

    std::vector<Raw> planes;
    PixelBufferPlane described[kPixelBufferMaxPlanes];
    size_t offset = 0;
    const int32_t count = pixelFormatPlaneCount(format.format);
    for (int p = 0; p < count; ++p) {
      const PixelPlaneGeometry g = pixelFormatPlane(format.format, w, h, p);
      const size_t stride = g.rowBytes() + 7;  // not a multiple of 4 or of the sample size
      planes.emplace_back(stride * static_cast<size_t>(g.height), uint8_t{0xEE});
      for (int y = 0; y < g.height; ++y) {
        std::copy_n(tight.begin() + static_cast<std::ptrdiff_t>(offset + g.rowBytes() * static_cast<size_t>(y)),
                    g.rowBytes(), planes[p].begin() + static_cast<std::ptrdiff_t>(stride * static_cast<size_t>(y)));
      }
      offset += g.rowBytes() * static_cast<size_t>(g.height);
      described[p] = {planes[p].data(), stride};
    }
    PixelBufferRef padded;
    ASSERT_EQ(PixelBuffer::createWithPlanes(w, h, format.format, described, count, nullptr, {}, &padded),
              kPixelBufferSuccess);
    EXPECT_EQ(unwrap(engine->render(padded)), expected);
    EXPECT_EQ(planes[0][pixelFormatPlane(format.format, w, h, 0).rowBytes()], 0xEE) << "the padding is the host's";
    EXPECT_EQ(this->engine(0)->render(padded), padded);
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, CameraFrames, ::testing::Values(EngineKind::Cpu, EngineKind::Gl),
                         [](const ::testing::TestParamInfo<EngineKind>& info) {
                           return std::string(engineKindName(info.param));
                         });

}  // namespace
}  // namespace lumo::test
