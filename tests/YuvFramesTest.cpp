// Frames of other formats than BGRA through both engines: YUV 4:2:0 (NV12, I420) against a reference
// converter (FFmpeg), odd sizes and padded host planes; 4:2:2 (I422, YUY2, UYVY) and 24-bit (BGR, RGB) GL
// against CPU; the packed orders against BGRA (CPU engine).
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/FrameTesting.h"
#include "support/GlHarness.h"

namespace lumo::test {
namespace {

namespace fs = std::filesystem;
using reference::Frame;

// The YUV behaviour both engines share.
class YuvFrames : public ::testing::TestWithParam<EngineKind> {
 protected:
  std::unique_ptr<BeautifyEngine> engine(int mask = BeautifySettings::kDefaultMask) const {
    return engineOf(GetParam(), mask);
  }
};

// The portrait converted by FFmpeg into each YUV and 24-bit format and beautified in it matches the portrait
// beautified as BGRA and then converted the same way, luma and chroma alike, for two matrices and both
// ranges; 24-bit, which has no colorimetry, is the BGRA picture byte for byte.
TEST_P(YuvFrames, AgreeWithTheBgraPathThroughAReferenceConverter) {
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
  const struct {
    uint32_t format;
    const char* ffmpegName;
  } formats[] = {{kPixelFormatNV12, "nv12"},    {kPixelFormatI422, "yuv422p"}, {kPixelFormatYUY2, "yuyv422"},
                 {kPixelFormatUYVY, "uyvy422"}, {kPixelFormat24BGR, "bgr24"},  {kPixelFormat24RGB, "rgb24"}};
  Ffmpeg ffmpeg;
  const std::unique_ptr<BeautifyEngine> engine = this->engine();
  const Raw bgraOut = render(*engine, sample.bgra, kPixelFormat32BGRA, w, h);
  const size_t lumaBytes = static_cast<size_t>(w) * static_cast<size_t>(h);
  for (const auto& format : formats) {
    for (const Colour& colour : colours) {
      SCOPED_TRACE(std::string(format.ffmpegName) + " " + colour.matrix);
      const Raw expected = ffmpeg.convert(bgraOut, "bgra", format.ffmpegName, w, h, colour.matrix, colour.range);
      const Raw in = ffmpeg.convert(sample.bgra, "bgra", format.ffmpegName, w, h, colour.matrix, colour.range);
      ASSERT_EQ(in.size(), pixelFormatFrameBytes(format.format, w, h));
      const Raw out = render(*engine, in, format.format, w, h, colour.colorimetry);
      EXPECT_LT(agree(out, in, 0, in.size()).within2, 0.9) << "beautified, not handed back";
      if (!pixelFormatIsYuv(format.format)) {
        EXPECT_EQ(out, expected) << "24-bit is BGRA without alpha: the very same picture";
        break;
      }
      // Planar formats are judged plane by plane; the packed ones, whose samples interleave, as a whole.
      const size_t split = pixelFormatIsPackedYuv(format.format) ? expected.size() : lumaBytes;
      for (const auto& [begin, end] : {std::pair<size_t, size_t>{0, split}, {split, expected.size()}}) {
        if (begin == end) continue;
        const Agreement samples = agree(out, expected, begin, end);
        EXPECT_GE(samples.within2, 0.97) << "mean " << samples.meanDifference << " max " << samples.maxDifference;
        EXPECT_LE(samples.meanDifference, 1.0);
      }
    }
  }
}

// The two engines convert the same way (chroma sited at block centres, bilinear up, block mean down), so a
// YUV frame leaves them as close as a BGRA frame does at 32-bit evaluation: a few samples a step apart where
// a value lands next to an 8-bit rounding boundary (the GL sampler's filtering of chroma included).
TEST(YuvFramesAcrossEngines, GlAndCpuEnginesDrawTheSamePlanes) {
  const Frame sample = loadSample();
  const int w = sample.width - 1;  // odd: the edge block and the packed tail of the last luma texel
  const int h = sample.height - 3;
  Raw nv12(pixelFormatFrameBytes(kPixelFormatNV12, w, h));
  // Luma from the portrait's green, chroma from its blue and red: a real picture's structure in every plane.
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      nv12[static_cast<size_t>(y * w + x)] = sample.bgra[static_cast<size_t>(4 * (y * sample.width + x) + 1)];
    }
  }
  const size_t luma = static_cast<size_t>(w) * static_cast<size_t>(h);
  for (size_t i = luma; i < nv12.size(); ++i) nv12[i] = sample.bgra[(4 * (i - luma)) % sample.bgra.size()];
  for (const YuvColorimetry colorimetry :
       {YuvColorimetry{YuvMatrix::Bt709, YuvRange::Limited}, YuvColorimetry{YuvMatrix::Bt601, YuvRange::Full}}) {
    for (const int mask : {2, 7, 15}) {
      SCOPED_TRACE("mask " + std::to_string(mask) + (colorimetry.range == YuvRange::Full ? " full" : " limited"));
      const Raw gl = render(*engineOf(EngineKind::Gl, mask), nv12, kPixelFormatNV12, w, h, colorimetry);
      const Raw cpu = render(*engineOf(EngineKind::Cpu, mask), nv12, kPixelFormatNV12, w, h, colorimetry);
      const Agreement lumaAgreement = agree(gl, cpu, 0, luma);
      const Agreement chromaAgreement = agree(gl, cpu, luma, gl.size());
      // Measured: at least 99.8 % within 2 levels and means of 0.15 to 0.23 levels; sharpen (mask 15) carries a
      // rare step to 20 levels, as it does for BGRA frames.
      EXPECT_GE(lumaAgreement.within2, 0.995) << "mean " << lumaAgreement.meanDifference;
      EXPECT_GE(chromaAgreement.within2, 0.995) << "mean " << chromaAgreement.meanDifference;
      EXPECT_LE(lumaAgreement.meanDifference, 0.35);
      EXPECT_LE(chromaAgreement.meanDifference, 0.35);
      EXPECT_LT(agree(gl, nv12, 0, luma).within2, 0.9) << "drawn, not handed back";
    }
  }
  // Sharpen alone: the CPU engine converts the whole frame before the pass and back after it.
  std::unique_ptr<BeautifyEngine> glSharpen = engineOf(EngineKind::Gl, BeautifySharpen);
  std::unique_ptr<BeautifyEngine> cpuSharpen = engineOf(EngineKind::Cpu, BeautifySharpen);
  glSharpen->setSharppenFactor(0.5f);
  cpuSharpen->setSharppenFactor(0.5f);
  const Raw gl = render(*glSharpen, nv12, kPixelFormatNV12, w, h);
  const Raw cpu = render(*cpuSharpen, nv12, kPixelFormatNV12, w, h);
  EXPECT_GE(agree(gl, cpu, 0, luma).within2, 0.995);
  EXPECT_GE(agree(gl, cpu, luma, gl.size()).within2, 0.995);
  EXPECT_LT(agree(cpu, nv12, 0, luma).within2, 0.9) << "drawn, not handed back";
}

// Deinterleaves NV12's chroma plane into I420's two planes.
Raw nv12ToI420(const Raw& nv12, int width, int height) {
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const size_t chroma = static_cast<size_t>((width + 1) / 2) * static_cast<size_t>((height + 1) / 2);
  Raw i420(nv12.begin(), nv12.begin() + static_cast<std::ptrdiff_t>(luma));
  i420.resize(luma + 2 * chroma);
  for (size_t i = 0; i < chroma; ++i) {
    i420[luma + i] = nv12[luma + 2 * i];
    i420[luma + chroma + i] = nv12[luma + 2 * i + 1];
  }
  return i420;
}

// Odd sizes round the chroma planes up; NV12 and I420 carry the same samples and give the same planes.
TEST_P(YuvFrames, Nv12AndI420GiveTheSamePlanesAtOddSizes) {
  for (const auto& size : {std::pair<int, int>{512, 512}, {33, 17}, {1, 1}, {7, 2}}) {
    const int w = size.first;
    const int h = size.second;
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    Raw nv12(pixelFormatFrameBytes(kPixelFormatNV12, w, h));
    const Frame sample = loadSample();
    for (size_t i = 0; i < nv12.size(); ++i) nv12[i] = sample.bgra[(i * 7) % sample.bgra.size()];
    const std::unique_ptr<BeautifyEngine> engine = this->engine(15);
    const Raw fromNv12 = render(*engine, nv12, kPixelFormatNV12, w, h);
    const Raw fromI420 = render(*engine, nv12ToI420(nv12, w, h), kPixelFormatI420, w, h);
    EXPECT_EQ(nv12ToI420(fromNv12, w, h), fromI420);
  }
}

// Host planes with padded rows, each plane in its own allocation, give what tight planes give; the padding
// is left alone.
TEST_P(YuvFrames, PaddedHostPlanesGiveWhatTightPlanesGive) {
  const int w = 45;
  const int h = 31;
  const Frame sample = loadSample();
  Raw tight(pixelFormatFrameBytes(kPixelFormatI420, w, h));
  for (size_t i = 0; i < tight.size(); ++i) tight[i] = sample.bgra[(i * 13) % sample.bgra.size()];
  const std::unique_ptr<BeautifyEngine> engine = this->engine(7);
  const Raw expected = render(*engine, tight, kPixelFormatI420, w, h);

  const size_t strides[3] = {64, 40, 48};
  std::vector<Raw> planes;
  PixelBufferPlane described[3];
  size_t offset = 0;
  for (int p = 0; p < 3; ++p) {
    const PixelPlaneGeometry g = pixelFormatPlane(kPixelFormatI420, w, h, p);
    planes.emplace_back(strides[p] * static_cast<size_t>(g.height), uint8_t{0xEE});
    for (int y = 0; y < g.height; ++y) {
      std::copy_n(tight.begin() + static_cast<std::ptrdiff_t>(offset + g.rowBytes() * static_cast<size_t>(y)),
                  g.rowBytes(), planes[p].begin() + static_cast<std::ptrdiff_t>(strides[p] * static_cast<size_t>(y)));
    }
    offset += g.rowBytes() * static_cast<size_t>(g.height);
    described[p] = {planes[p].data(), strides[p]};
  }
  PixelBufferRef padded;
  ASSERT_EQ(PixelBuffer::createWithPlanes(w, h, kPixelFormatI420, described, 3, nullptr, {}, &padded),
            kPixelBufferSuccess);
  EXPECT_EQ(unwrap(engine->render(padded)), expected);
  EXPECT_EQ(planes[1][static_cast<size_t>((w + 1) / 2)], 0xEE) << "the padding is the host's";
}

// RGBA, BGRx and RGBx are BGRA in another order: the same picture, the fourth byte opaque where unused.
TEST(PackedFrames, OtherOrdersGiveTheBgraPicture) {
  const Frame sample = loadSample();
  const int w = sample.width;
  const int h = sample.height;
  const std::unique_ptr<BeautifyEngine> engine = cpuEngine(15);
  const Raw bgra = render(*engine, sample.bgra, kPixelFormat32BGRA, w, h);
  auto reorder = [](const Raw& in, bool swap, bool opaque) {
    Raw out(in);
    for (size_t i = 0; i < out.size(); i += 4) {
      if (swap) std::swap(out[i], out[i + 2]);
      if (opaque) out[i + 3] = 255;
    }
    return out;
  };
  EXPECT_EQ(render(*engine, reorder(sample.bgra, true, false), kPixelFormat32RGBA, w, h), reorder(bgra, true, false));
  EXPECT_EQ(render(*engine, sample.bgra, kPixelFormat32BGRX, w, h), reorder(bgra, false, true));
  EXPECT_EQ(render(*engine, reorder(sample.bgra, true, false), kPixelFormat32RGBX, w, h), reorder(bgra, true, true));
}

// With nothing enabled the very buffer comes back; the format's frame sizes and names are what hosts expect.
TEST_P(YuvFrames, NothingEnabledHandsTheBufferBackAndFormatsDescribeThemselves) {
  Raw raw(pixelFormatFrameBytes(kPixelFormatNV12, 9, 5), 77);
  const PixelBufferRef in = wrap(raw, kPixelFormatNV12, 9, 5);
  const std::unique_ptr<BeautifyEngine> engine = this->engine(0);
  EXPECT_EQ(engine->render(in), in);
  EXPECT_EQ(raw.size(), 9u * 5u + 10u * 3u);
  EXPECT_EQ(pixelFormatFrameBytes(kPixelFormatI420, 9, 5), 9u * 5u + 2u * 5u * 3u);
  uint32_t format = 0;
  EXPECT_TRUE(parsePixelFormat("NV12", &format));
  EXPECT_EQ(format, kPixelFormatNV12);
  EXPECT_TRUE(parsePixelFormat("Yuy2", &format));
  EXPECT_EQ(format, kPixelFormatYUY2);
  EXPECT_FALSE(parsePixelFormat("ayuv", &format));
  // 4:2:2: chroma of half the width on every row; packed, a pair of pixels is four bytes, an odd width's last
  // pair completed by padding.
  EXPECT_EQ(pixelFormatFrameBytes(kPixelFormatI422, 9, 5), 9u * 5u + 2u * 5u * 5u);
  EXPECT_EQ(pixelFormatFrameBytes(kPixelFormatYUY2, 9, 5), 5u * 4u * 5u);
  EXPECT_EQ(pixelFormatFrameBytes(kPixelFormat24RGB, 9, 5), 9u * 3u * 5u);
  // Unset colorimetry resolves as GStreamer's caps do.
  EXPECT_EQ(in->colorimetry(), (YuvColorimetry{YuvMatrix::Bt601, YuvRange::Limited}));
  EXPECT_EQ(resolveColorimetry({}, 720), (YuvColorimetry{YuvMatrix::Bt709, YuvRange::Limited}));
  PixelBufferRef refused;
  EXPECT_EQ(PixelBuffer::createWithBytes(9, 5, kPixelFormatNV12, raw.data(), 9, nullptr, {}, &refused),
            kPixelBufferErrorInvalidArgument);
  PixelBufferPlane shortRows[2] = {{raw.data(), 9}, {raw.data(), 9}};
  EXPECT_EQ(PixelBuffer::createWithPlanes(9, 5, kPixelFormatNV12, shortRows, 2, nullptr, {}, &refused),
            kPixelBufferErrorInvalidStride);
}

// The 4:2:2 and 24-bit formats the GL engine converts in its own passes.
constexpr uint32_t kConvertedFormats[] = {kPixelFormatI422, kPixelFormatYUY2, kPixelFormatUYVY, kPixelFormat24BGR,
                                          kPixelFormat24RGB};

// The portrait's top-left width x height in `format`. 24-bit takes its bytes; YUV takes luma from green and
// chroma from blue and red at each pair's first pixel (a real picture's structure in every sample), and an odd
// width's padding luma is its last pixel's, as a converter writes it.
Raw portraitIn(uint32_t format, int width, int height) {
  const Frame sample = loadSample();
  auto at = [&](int x, int y, int channel) {
    return sample.bgra[static_cast<size_t>(4 * (y * sample.width + x) + channel)];
  };
  Raw raw(pixelFormatFrameBytes(format, width, height));
  const int pairs = (width + 1) / 2;
  auto* out = raw.data();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (format == kPixelFormat24BGR || format == kPixelFormat24RGB) {
        for (int c = 0; c < 3; ++c) *out++ = at(x, y, format == kPixelFormat24RGB ? 2 - c : c);
      } else if (format == kPixelFormatI422) {
        raw[static_cast<size_t>(y * width + x)] = at(x, y, 1);
      }
    }
    for (int i = 0; i < pairs && pixelFormatIsYuv(format); ++i) {
      const uint8_t y0 = at(2 * i, y, 1);
      const uint8_t y1 = at(std::min(2 * i + 1, width - 1), y, 1);
      const uint8_t cb = at(2 * i, y, 0);
      const uint8_t cr = at(2 * i, y, 2);
      const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
      const size_t chroma = static_cast<size_t>(y * pairs + i);
      if (format == kPixelFormatI422) {
        raw[luma + chroma] = cb;
        raw[luma + static_cast<size_t>(pairs * height) + chroma] = cr;
      } else {
        const uint8_t yuy2[4] = {y0, cb, y1, cr};
        const uint8_t uyvy[4] = {cb, y0, cr, y1};
        std::copy_n(format == kPixelFormatYUY2 ? yuy2 : uyvy, 4, raw.begin() + static_cast<std::ptrdiff_t>(4 * chroma));
      }
    }
  }
  return raw;
}

// Agreement over the luma samples (or every byte of a 24-bit frame) and over the chroma samples.
std::pair<Agreement, Agreement> agreeBySample(const Raw& a, const Raw& b, uint32_t format, int width, int height) {
  if (!pixelFormatIsYuv(format)) return {agree(a, b, 0, a.size()), agree(a, b, 0, a.size())};
  if (format == kPixelFormatI422) {
    const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
    return {agree(a, b, 0, luma), agree(a, b, luma, a.size())};
  }
  // Packed: luma at the even bytes of YUY2, the odd ones of UYVY.
  Raw parts[2][2];
  const size_t lumaParity = format == kPixelFormatYUY2 ? 0 : 1;
  for (size_t i = 0; i < a.size(); ++i) {
    const size_t part = i % 2 == lumaParity ? 0 : 1;
    parts[0][part].push_back(a[i]);
    parts[1][part].push_back(b[i]);
  }
  return {agree(parts[0][0], parts[1][0], 0, parts[0][0].size()),
          agree(parts[0][1], parts[1][1], 0, parts[0][1].size())};
}

class Yuv422And24BitFrames : public ::testing::TestWithParam<uint32_t> {};

// Both engines convert 4:2:2 and 24-bit frames the same way (chroma sited at pair centres, blended 3:1 across,
// the pair's mean on the way out; 24-bit bytes as they are), so their frames agree as NV12's do, on the
// portrait and at an odd size whose last pair is a pixel and its padding.
TEST_P(Yuv422And24BitFrames, GlAndCpuEnginesDrawTheSameFrame) {
  const uint32_t format = GetParam();
  const Frame sample = loadSample();
  for (const auto& [w, h] : {std::pair<int, int>{sample.width, sample.height}, {33, 17}}) {
    const Raw in = portraitIn(format, w, h);
    for (const YuvColorimetry colorimetry :
         {YuvColorimetry{YuvMatrix::Bt709, YuvRange::Limited}, YuvColorimetry{YuvMatrix::Bt601, YuvRange::Full}}) {
      for (const int mask : {2, 7, 15}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + " mask " + std::to_string(mask) +
                     (colorimetry.range == YuvRange::Full ? " full" : " limited"));
        const Raw gl = render(*engineOf(EngineKind::Gl, mask), in, format, w, h, colorimetry);
        const Raw cpu = render(*engineOf(EngineKind::Cpu, mask), in, format, w, h, colorimetry);
        ASSERT_EQ(gl.size(), cpu.size());
        const auto [luma, chroma] = agreeBySample(gl, cpu, format, w, h);
        EXPECT_GE(luma.within2, 0.995) << "mean " << luma.meanDifference << " max " << luma.maxDifference;
        EXPECT_GE(chroma.within2, 0.995) << "mean " << chroma.meanDifference << " max " << chroma.maxDifference;
        EXPECT_LE(luma.meanDifference, 0.35);
        EXPECT_LE(chroma.meanDifference, 0.35);
        EXPECT_LT(agree(gl, in, 0, in.size()).within2, 0.9) << "drawn, not handed back";
      }
    }
  }
}

// Host rows padded every way GL may take them (a row length in samples, an alignment, neither: through
// scratch) give what tight rows give, and the padding stays the host's; with no pass the very buffer comes
// back.
TEST_P(Yuv422And24BitFrames, PaddedRowsGiveWhatTightRowsGiveAndNoPassHandsTheBufferBack) {
  const uint32_t format = GetParam();
  const int w = 33;
  const int h = 17;
  const Raw tight = portraitIn(format, w, h);
  const std::unique_ptr<BeautifyEngine> engine = engineOf(EngineKind::Gl, 7);
  const Raw expected = render(*engine, tight, format, w, h);
  for (const size_t pad : {size_t{1}, size_t{3}, size_t{12}}) {
    SCOPED_TRACE("pad " + std::to_string(pad));
    std::vector<Raw> planes;
    PixelBufferPlane described[kPixelBufferMaxPlanes];
    size_t offset = 0;
    const int32_t count = pixelFormatPlaneCount(format);
    for (int p = 0; p < count; ++p) {
      const PixelPlaneGeometry g = pixelFormatPlane(format, w, h, p);
      const size_t stride = g.rowBytes() + pad;
      planes.emplace_back(stride * static_cast<size_t>(g.height), uint8_t{0xEE});
      for (int y = 0; y < g.height; ++y) {
        std::copy_n(tight.begin() + static_cast<std::ptrdiff_t>(offset + g.rowBytes() * static_cast<size_t>(y)),
                    g.rowBytes(), planes[p].begin() + static_cast<std::ptrdiff_t>(stride * static_cast<size_t>(y)));
      }
      offset += g.rowBytes() * static_cast<size_t>(g.height);
      described[p] = {planes[p].data(), stride};
    }
    PixelBufferRef padded;
    ASSERT_EQ(PixelBuffer::createWithPlanes(w, h, format, described, count, nullptr, {}, &padded), kPixelBufferSuccess);
    EXPECT_EQ(unwrap(engine->render(padded)), expected);
    EXPECT_EQ(planes[0][pixelFormatPlane(format, w, h, 0).rowBytes()], 0xEE) << "the padding is the host's";
  }
  Raw raw = tight;
  const PixelBufferRef in = wrap(raw, format, w, h);
  EXPECT_EQ(engineOf(EngineKind::Gl, 0)->render(in), in);
}

INSTANTIATE_TEST_SUITE_P(Formats, Yuv422And24BitFrames, ::testing::ValuesIn(kConvertedFormats),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                           return std::string(pixelFormatName(info.param));
                         });

// The same samples in another layout give the same samples back in that layout: YUY2 and UYVY are I422
// reordered, RGB is BGR with the outer bytes swapped.
TEST(Yuv422And24BitLayouts, ReorderedSamplesGiveReorderedFrames) {
  const int w = 33;
  const int h = 17;
  const std::unique_ptr<BeautifyEngine> engine = engineOf(EngineKind::Gl, 15);
  const Raw fromI422 = render(*engine, portraitIn(kPixelFormatI422, w, h), kPixelFormatI422, w, h);
  const Raw fromYuy2 = render(*engine, portraitIn(kPixelFormatYUY2, w, h), kPixelFormatYUY2, w, h);
  const Raw fromUyvy = render(*engine, portraitIn(kPixelFormatUYVY, w, h), kPixelFormatUYVY, w, h);
  const int pairs = (w + 1) / 2;
  const size_t luma = static_cast<size_t>(w) * static_cast<size_t>(h);
  for (int y = 0; y < h; ++y) {
    for (int i = 0; i < pairs; ++i) {
      const size_t pair = static_cast<size_t>(y * pairs + i);
      const uint8_t* yuy2 = &fromYuy2[4 * pair];
      const uint8_t* uyvy = &fromUyvy[4 * pair];
      ASSERT_EQ(yuy2[0], fromI422[static_cast<size_t>(y * w + 2 * i)]) << i << "," << y;
      ASSERT_EQ(yuy2[1], fromI422[luma + pair]) << i << "," << y;
      ASSERT_EQ(yuy2[3], fromI422[luma + static_cast<size_t>(pairs * h) + pair]) << i << "," << y;
      // The padding luma of an odd width's last pair is its pixel's.
      const size_t second = static_cast<size_t>(y * w + std::min(2 * i + 1, w - 1));
      ASSERT_EQ(yuy2[2], fromI422[second]) << i << "," << y;
      ASSERT_EQ((std::array<uint8_t, 4>{uyvy[1], uyvy[0], uyvy[3], uyvy[2]}),
                (std::array<uint8_t, 4>{yuy2[0], yuy2[1], yuy2[2], yuy2[3]}));
    }
  }
  const Raw fromBgr = render(*engine, portraitIn(kPixelFormat24BGR, w, h), kPixelFormat24BGR, w, h);
  Raw fromRgb = render(*engine, portraitIn(kPixelFormat24RGB, w, h), kPixelFormat24RGB, w, h);
  for (size_t i = 0; i < fromRgb.size(); i += 3) std::swap(fromRgb[i], fromRgb[i + 2]);
  EXPECT_EQ(fromRgb, fromBgr);
}

INSTANTIATE_TEST_SUITE_P(Engines, YuvFrames, ::testing::Values(EngineKind::Cpu, EngineKind::Gl),
                         [](const ::testing::TestParamInfo<EngineKind>& info) {
                           return std::string(engineKindName(info.param));
                         });

}  // namespace
}  // namespace lumo::test
