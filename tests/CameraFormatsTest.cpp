// The camera's formats through the CPU engine's conversions on their own: 4:2:2 (I422, YUY2, UYVY) to and
// from BGRA against a plain float evaluation of its definition, every layout of the same samples giving the
// same pixels, odd widths and padded rows; 24-bit BGR and RGB. Every instruction set the build compiled.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "CpuFormats.h"
#include "YuvCoefficients.h"
#include "support/ConversionTesting.h"

namespace lumo::cpu {
namespace {

// Narrower than any vector, around a vector's width (odd and even), and wide.
constexpr std::array<std::array<int, 2>, 8> kSizes{
    {{1, 1}, {2, 3}, {7, 2}, {3, 5}, {33, 17}, {64, 9}, {67, 6}, {131, 3}}};

// 4:2:2 samples held once and laid out as any of the three formats, rows padded by 3 bytes (not 4-aligned).
struct Samples422 {
  int width, height;
  Bytes y, cb, cr;  // tight: width, and (width + 1) / 2, a row
  int padding = -1;  // an odd width's last luma sample in the packed layouts; -1: the row's last pixel's

  int chromaWidth() const { return (width + 1) / 2; }
  int lumaAt(int x, int row) const { return y[static_cast<size_t>(row * width + x)]; }
  int chromaAt(int c, int i, int row) const {
    return (c == 0 ? cb : cr)[static_cast<size_t>(row * chromaWidth() + i)];
  }

  struct Layout {
    std::vector<Bytes> planes;
    Planes described;
  };
  Layout lay(uint32_t format, YuvColorimetry colorimetry) const {
    Layout layout;
    Planes& p = layout.described;
    p.format = format;
    p.width = width;
    p.height = height;
    p.colorimetry = colorimetry;
    const size_t cw = static_cast<size_t>(chromaWidth());
    if (format == kPixelFormatI422) {
      const size_t widths[3] = {static_cast<size_t>(width), cw, cw};
      const Bytes* from[3] = {&y, &cb, &cr};
      for (int k = 0; k < 3; ++k) {
        const size_t stride = widths[k] + 3;
        Bytes plane(stride * static_cast<size_t>(height), 0xEE);
        for (int row = 0; row < height; ++row) {
          std::copy_n(from[k]->begin() + static_cast<std::ptrdiff_t>(widths[k] * static_cast<size_t>(row)), widths[k],
                      plane.begin() + static_cast<std::ptrdiff_t>(stride * static_cast<size_t>(row)));
        }
        layout.planes.push_back(std::move(plane));
        p.stride[k] = stride;
      }
    } else {
      const bool uyvy = format == kPixelFormatUYVY;
      const size_t stride = 4 * cw + 3;
      Bytes plane(stride * static_cast<size_t>(height), 0xEE);
      for (int row = 0; row < height; ++row) {
        for (int i = 0; i < chromaWidth(); ++i) {
          uint8_t* q = &plane[stride * static_cast<size_t>(row) + 4 * static_cast<size_t>(i)];
          const auto y0 = static_cast<uint8_t>(lumaAt(2 * i, row));
          const int last = padding >= 0 ? padding : lumaAt(width - 1, row);
          const auto y1 = static_cast<uint8_t>(2 * i + 1 < width ? lumaAt(2 * i + 1, row) : last);
          const auto u = static_cast<uint8_t>(chromaAt(0, i, row));
          const auto v = static_cast<uint8_t>(chromaAt(1, i, row));
          const uint8_t bytes[4] = {uyvy ? u : y0, uyvy ? y0 : u, uyvy ? v : y1, uyvy ? y1 : v};
          std::copy(bytes, bytes + 4, q);
        }
      }
      layout.planes.push_back(std::move(plane));
      p.stride[0] = stride;
    }
    for (size_t k = 0; k < layout.planes.size(); ++k) p.data[k] = layout.planes[k].data();
    return layout;
  }
};

Samples422 randomSamples(std::mt19937& random, int w, int h) {
  Samples422 s{w, h, {}, {}, {}};
  s.y = randomBytes(random, static_cast<size_t>(w) * static_cast<size_t>(h), false);
  s.cb = randomBytes(random, static_cast<size_t>(s.chromaWidth()) * static_cast<size_t>(h), false);
  s.cr = randomBytes(random, s.cb.size(), false);
  s.padding = randomBytes(random, 1, false)[0];
  return s;
}

// The definition: chroma sited at the centre of its pair of pixels on the same row, upsampled across with 3/4
// towards the nearer sample (the edge sample repeated); nothing between rows.
Bytes referenceImport(const Samples422& s, YuvColorimetry colorimetry) {
  const YuvCoefficients c = yuvCoefficients(colorimetry);
  Bytes out(4 * s.y.size());
  for (int row = 0; row < s.height; ++row) {
    for (int x = 0; x < s.width; ++x) {
      const int i = x / 2;
      const int side = x % 2 == 0 ? std::max(i - 1, 0) : std::min(i + 1, s.chromaWidth() - 1);
      float pbpr[2];
      for (int k = 0; k < 2; ++k) {
        pbpr[k] = (0.75f * static_cast<float>(s.chromaAt(k, i, row)) + 0.25f * static_cast<float>(s.chromaAt(k, side, row)) -
                   128.0f) /
                  c.cScale;
      }
      const float l = (static_cast<float>(s.lumaAt(x, row)) - c.yOffset) / c.yScale;
      const float r = l + 2.0f * (1.0f - c.kr) * pbpr[1];
      const float b = l + 2.0f * (1.0f - c.kb) * pbpr[0];
      const float g = (l - c.kr * r - c.kb * b) / c.kg;
      uint8_t* p = &out[4 * static_cast<size_t>(row * s.width + x)];
      p[0] = level(b), p[1] = level(g), p[2] = level(r), p[3] = 255;
    }
  }
  return out;
}

// The definition of export: luma per pixel, chroma from the mean RGB of each pair (an odd width's last pair
// is its pixel alone).
Samples422 referenceExport(const Bytes& bgra, int w, int h, YuvColorimetry colorimetry) {
  const YuvCoefficients c = yuvCoefficients(colorimetry);
  Samples422 s{w, h, Bytes(static_cast<size_t>(w) * static_cast<size_t>(h)), {}, {}};
  s.cb.resize(static_cast<size_t>(s.chromaWidth()) * static_cast<size_t>(h));
  s.cr.resize(s.cb.size());
  auto px = [&](int x, int row) { return &bgra[4 * static_cast<size_t>(row * w + x)]; };
  for (int row = 0; row < h; ++row) {
    for (int x = 0; x < w; ++x) {
      const uint8_t* p = px(x, row);
      s.y[static_cast<size_t>(row * w + x)] = level(c.yOffset + c.yScale * (c.kr * p[2] + c.kg * p[1] + c.kb * p[0]));
    }
    for (int i = 0; i < s.chromaWidth(); ++i) {
      const uint8_t* a = px(2 * i, row);
      const uint8_t* b = px(std::min(2 * i + 1, w - 1), row);
      const float blue = 0.5f * (a[0] + b[0]), green = 0.5f * (a[1] + b[1]), red = 0.5f * (a[2] + b[2]);
      const float l = c.kr * red + c.kg * green + c.kb * blue;
      const size_t at = static_cast<size_t>(row * s.chromaWidth() + i);
      s.cb[at] = level(128.0f + c.cScale / (2.0f * (1.0f - c.kb)) * (blue - l));
      s.cr[at] = level(128.0f + c.cScale / (2.0f * (1.0f - c.kr)) * (red - l));
    }
  }
  return s;
}

Bytes importWhole(const Planes& planes, int cut) {
  Bytes out(4 * static_cast<size_t>(planes.width) * static_cast<size_t>(planes.height), 0);
  const Image image{out.data(), 4 * static_cast<size_t>(planes.width), planes.width, planes.height};
  std::vector<uint16_t> scratch(importScratchSamples(planes.width));
  importRows(planes, image, scratch.data(), 0, cut);
  importRows(planes, image, scratch.data(), cut, planes.height);
  return out;
}

constexpr uint32_t k422Formats[] = {kPixelFormatI422, kPixelFormatYUY2, kPixelFormatUYVY};

TEST(CameraFormats, FourTwoTwoImportMatchesItsDefinitionInEveryLayout) {
  onEveryTarget([&] {
    std::mt19937 random(422);
    for (const auto& [w, h] : kSizes) {
      for (const YuvColorimetry colorimetry : kColorimetries) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const Samples422 s = randomSamples(random, w, h);
        const Bytes expected = referenceImport(s, colorimetry);
        const Bytes planar = importWhole(s.lay(kPixelFormatI422, colorimetry).described, h / 3);
        expectWithinOneLevel(planar, expected);
        // The packed layouts carry the same samples: the very same pixels, the padding sample unread.
        EXPECT_EQ(importWhole(s.lay(kPixelFormatYUY2, colorimetry).described, h / 2), planar);
        EXPECT_EQ(importWhole(s.lay(kPixelFormatUYVY, colorimetry).described, h - 1), planar);
      }
    }
  });
}

TEST(CameraFormats, FourTwoTwoExportMatchesItsDefinitionInEveryLayout) {
  onEveryTarget([&] {
    std::mt19937 random(224);
    for (const auto& [w, h] : kSizes) {
      for (const YuvColorimetry colorimetry : kColorimetries) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const Bytes bgra = randomBytes(random, 4 * static_cast<size_t>(w) * static_cast<size_t>(h), false);
        const ConstImage image{bgra.data(), 4 * static_cast<size_t>(w), w, h};
        const Samples422 expected = referenceExport(bgra, w, h, colorimetry);
        // Each format written in two bands, then read back as samples through the layout's own helper.
        for (const uint32_t format : k422Formats) {
          SCOPED_TRACE(format);
          Samples422 blank{w, h, Bytes(expected.y.size(), 0), Bytes(expected.cb.size(), 0),
                           Bytes(expected.cr.size(), 0)};
          Samples422::Layout out = blank.lay(format, colorimetry);
          exportRows(image, out.described, 0, h / 2);
          exportRows(image, out.described, h / 2, h);
          // What the export wrote, laid out again from the reference's samples, byte for byte within a level.
          const Samples422::Layout want = expected.lay(format, colorimetry);
          ASSERT_EQ(out.planes.size(), want.planes.size());
          for (size_t k = 0; k < want.planes.size(); ++k) {
            // The row padding (0xEE in both) must be left alone: a level's tolerance would hide a write there.
            for (size_t i = 0; i < want.planes[k].size(); ++i) {
              if (want.planes[k][i] == 0xEE) continue;
              ASSERT_LE(std::abs(out.planes[k][i] - want.planes[k][i]), 1) << "plane " << k << " byte " << i;
            }
            const size_t stride = out.described.stride[k];
            for (int row = 0; row < h; ++row) EXPECT_EQ(out.planes[k][stride * static_cast<size_t>(row) + stride - 1], 0xEE);
          }
          if (format != kPixelFormatI422 && w % 2 != 0) {
            // The padding sample repeats the last pixel's luma, exactly as written for that pixel.
            const size_t last = 4 * static_cast<size_t>(w / 2);
            const bool uyvy = format == kPixelFormatUYVY;
            EXPECT_EQ(out.planes[0][last + (uyvy ? 3 : 2)], out.planes[0][last + (uyvy ? 1 : 0)]);
          }
        }
      }
    }
  });
}

TEST(CameraFormats, TwentyFourBitRowsAreBgraWithoutAlpha) {
  onEveryTarget([&] {
    std::mt19937 random(24);
    for (const auto& [w, h] : kSizes) {
      for (const uint32_t format : {kPixelFormat24BGR, kPixelFormat24RGB}) {
        const bool swap = format == kPixelFormat24RGB;
        const size_t stride = 3 * static_cast<size_t>(w) + 1;
        const Bytes host = randomBytes(random, stride * static_cast<size_t>(h), false);
        Planes planes;
        planes.format = format;
        planes.width = w;
        planes.height = h;
        planes.data[0] = const_cast<uint8_t*>(host.data());
        planes.stride[0] = stride;
        Bytes bgra(4 * static_cast<size_t>(w) * static_cast<size_t>(h));
        const Image image{bgra.data(), 4 * static_cast<size_t>(w), w, h};
        importRows(planes, image, nullptr, 0, h);
        Bytes back(host.size(), 0xEE);
        planes.data[0] = back.data();
        exportRows(image, planes, 0, h);
        for (int row = 0; row < h; ++row) {
          for (int x = 0; x < w; ++x) {
            const uint8_t* from = &host[stride * static_cast<size_t>(row) + 3 * static_cast<size_t>(x)];
            const uint8_t* mid = &bgra[4 * static_cast<size_t>(row * w + x)];
            const uint8_t expected[4] = {from[swap ? 2 : 0], from[1], from[swap ? 0 : 2], 255};
            ASSERT_TRUE(std::equal(mid, mid + 4, expected)) << x << "," << row;
          }
          const auto begin = static_cast<std::ptrdiff_t>(stride * static_cast<size_t>(row));
          ASSERT_TRUE(std::equal(back.begin() + begin, back.begin() + begin + 3 * w, host.begin() + begin));
          EXPECT_EQ(back[stride * static_cast<size_t>(row) + stride - 1], 0xEE) << "row padding";
        }
      }
    }
  });
}

}  // namespace
}  // namespace lumo::cpu
