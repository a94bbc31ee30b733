// The CPU engine's format conversions on their own (cpu/CpuFormats.cpp, compiled into this test): YUV 4:2:0
// to and from BGRA against a plain float evaluation of the same definition, over random frames, odd sizes
// and the four colorimetries; band splits; the packed orders. Then the engine around them: a YUV frame
// comes out as the conversions around its BGRA graph would make it, for every kind of first and last stage.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "BeautifyEngine.h"
#include "CpuFormats.h"
#include "MakeEngine.h"
#include "YuvCoefficients.h"
#include "support/ConversionTesting.h"

namespace lumo::cpu {
namespace {

// Narrower than any vector, around a vector's width (odd and even), and wide.
constexpr std::array<std::array<int, 2>, 9> kSizes{
    {{1, 1}, {2, 2}, {7, 2}, {3, 5}, {33, 17}, {64, 9}, {67, 6}, {130, 3}, {45, 31}}};

// A YUV frame in planes with padded rows (stride = row bytes + 5), so that nothing leans on tight rows.
struct YuvFrame {
  int width;
  int height;
  Bytes y, u, v;  // u holds NV12's interleaved pairs as well
  size_t strides[3];

  int chromaWidth() const { return (width + 1) / 2; }
  int chromaHeight() const { return (height + 1) / 2; }
  Planes planes(uint32_t format, YuvColorimetry colorimetry) {
    Planes p;
    p.format = format;
    p.width = width;
    p.height = height;
    p.data[0] = y.data();
    p.data[1] = u.data();
    p.data[2] = format == kPixelFormatI420 ? v.data() : nullptr;
    std::copy(std::begin(strides), std::end(strides), p.stride);
    p.colorimetry = colorimetry;
    return p;
  }
};

YuvFrame makeFrame(int width, int height, uint32_t format) {
  YuvFrame f{width, height, {}, {}, {}, {}};
  const bool nv12 = format == kPixelFormatNV12;
  f.strides[0] = static_cast<size_t>(width) + 5;
  f.strides[1] = static_cast<size_t>(nv12 ? 2 * f.chromaWidth() : f.chromaWidth()) + 5;
  f.strides[2] = nv12 ? 0 : static_cast<size_t>(f.chromaWidth()) + 5;
  f.y.assign(f.strides[0] * static_cast<size_t>(height), 0);
  f.u.assign(f.strides[1] * static_cast<size_t>(f.chromaHeight()), 0);
  f.v.assign(f.strides[2] * static_cast<size_t>(f.chromaHeight()), 0);
  return f;
}

// Samples Cb (c = 0) or Cr (c = 1) at chroma (i, j), whatever the layout.
int chromaAt(const YuvFrame& f, uint32_t format, int c, int i, int j) {
  if (format == kPixelFormatNV12) return f.u[f.strides[1] * static_cast<size_t>(j) + 2 * static_cast<size_t>(i) + c];
  const Bytes& plane = c == 0 ? f.u : f.v;
  return plane[f.strides[1 + c] * static_cast<size_t>(j) + static_cast<size_t>(i)];
}

// The definition, one pixel at a time in single precision: chroma sited at the centre of its 2 x 2 block,
// upsampled bilinearly (3/4 towards the nearer sample, the edge sample repeated), vertical then horizontal.
Bytes referenceImport(const YuvFrame& f, uint32_t format, YuvColorimetry colorimetry) {
  const YuvCoefficients c = yuvCoefficients(colorimetry);
  Bytes out(4 * static_cast<size_t>(f.width) * static_cast<size_t>(f.height));
  for (int y = 0; y < f.height; ++y) {
    const int near = y / 2;
    const int far = y % 2 == 0 ? std::max(near - 1, 0) : std::min(near + 1, f.chromaHeight() - 1);
    for (int x = 0; x < f.width; ++x) {
      const int i = x / 2;
      const int side = x % 2 == 0 ? std::max(i - 1, 0) : std::min(i + 1, f.chromaWidth() - 1);
      float pbpr[2];
      for (int k = 0; k < 2; ++k) {
        auto vertical = [&](int column) {
          return 0.75f * static_cast<float>(chromaAt(f, format, k, column, near)) +
                 0.25f * static_cast<float>(chromaAt(f, format, k, column, far));
        };
        pbpr[k] = (0.75f * vertical(i) + 0.25f * vertical(side) - 128.0f) / c.cScale;
      }
      const float l =
          (static_cast<float>(f.y[f.strides[0] * static_cast<size_t>(y) + static_cast<size_t>(x)]) - c.yOffset) /
          c.yScale;
      const float r = l + 2.0f * (1.0f - c.kr) * pbpr[1];
      const float b = l + 2.0f * (1.0f - c.kb) * pbpr[0];
      const float g = (l - c.kr * r - c.kb * b) / c.kg;
      uint8_t* p = &out[4 * (static_cast<size_t>(y) * static_cast<size_t>(f.width) + static_cast<size_t>(x))];
      p[0] = level(b);
      p[1] = level(g);
      p[2] = level(r);
      p[3] = 255;
    }
  }
  return out;
}

// The definition of export: luma per pixel; chroma from the mean RGB of each 2 x 2 block (an odd edge
// repeats its last column or row). Returned as Y rows, then Cb rows, then Cr rows, all tight.
Bytes referenceExport(const Bytes& bgra, int width, int height, YuvColorimetry colorimetry) {
  const YuvCoefficients c = yuvCoefficients(colorimetry);
  const int cw = (width + 1) / 2;
  const int ch = (height + 1) / 2;
  const size_t lumaBytes = static_cast<size_t>(width) * static_cast<size_t>(height);
  const size_t chromaBytes = static_cast<size_t>(cw) * static_cast<size_t>(ch);
  Bytes out(lumaBytes + 2 * chromaBytes);
  auto px = [&](int x, int y) { return &bgra[4 * (static_cast<size_t>(y) * static_cast<size_t>(width) + x)]; };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const uint8_t* p = px(x, y);
      out[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)] =
          level(c.yOffset + c.yScale * (c.kr * p[2] + c.kg * p[1] + c.kb * p[0]));
    }
  }
  for (int j = 0; j < ch; ++j) {
    for (int i = 0; i < cw; ++i) {
      float sum[3] = {0, 0, 0};
      for (int y : {2 * j, std::min(2 * j + 1, height - 1)}) {
        for (int x : {2 * i, std::min(2 * i + 1, width - 1)}) {
          for (int k = 0; k < 3; ++k) sum[k] += px(x, y)[k];
        }
      }
      const float b = 0.25f * sum[0];
      const float g = 0.25f * sum[1];
      const float r = 0.25f * sum[2];
      const float l = c.kr * r + c.kg * g + c.kb * b;
      const size_t at = static_cast<size_t>(j) * static_cast<size_t>(cw) + static_cast<size_t>(i);
      out[lumaBytes + at] = level(128.0f + c.cScale / (2.0f * (1.0f - c.kb)) * (b - l));
      out[lumaBytes + chromaBytes + at] = level(128.0f + c.cScale / (2.0f * (1.0f - c.kr)) * (r - l));
    }
  }
  return out;
}

std::string name(int w, int h, uint32_t format, YuvColorimetry colorimetry) {
  return std::to_string(w) + "x" + std::to_string(h) + (format == kPixelFormatNV12 ? " NV12 " : " I420 ") +
         (colorimetry.matrix == YuvMatrix::Bt709 ? "709 " : "601 ") +
         (colorimetry.range == YuvRange::Full ? "full" : "limited");
}

Bytes importWhole(YuvFrame& f, uint32_t format, YuvColorimetry colorimetry, const std::vector<int>& cuts) {
  Bytes out(4 * static_cast<size_t>(f.width) * static_cast<size_t>(f.height), 0);
  const Image image{out.data(), 4 * static_cast<size_t>(f.width), f.width, f.height};
  std::vector<uint16_t> scratch(importScratchSamples(f.width));
  const Planes planes = f.planes(format, colorimetry);
  for (size_t k = 0; k + 1 < cuts.size(); ++k) importRows(planes, image, scratch.data(), cuts[k], cuts[k + 1]);
  return out;
}

TEST(YuvConversion, ImportMatchesTheFloatDefinition) {
  onEveryTarget([&] {
    std::mt19937 random(1234);
    int frame = 0;
    for (const auto& [w, h] : kSizes) {
      for (uint32_t format : {kPixelFormatNV12, kPixelFormatI420}) {
        for (YuvColorimetry colorimetry : kColorimetries) {
          SCOPED_TRACE(name(w, h, format, colorimetry));
          YuvFrame f = makeFrame(w, h, format);
          const bool extremes = frame++ % 3 == 2;
          f.y = randomBytes(random, f.y.size(), extremes);
          f.u = randomBytes(random, f.u.size(), extremes);
          f.v = randomBytes(random, f.v.size(), extremes);
          expectWithinOneLevel(importWhole(f, format, colorimetry, {0, h}), referenceImport(f, format, colorimetry));
        }
      }
    }
  });
}

// Neutral chroma gives grey, with limited range's 16..235 stretched onto 0..255.
TEST(YuvConversion, ImportKeepsGreyAndTheRangeEnds) {
  onEveryTarget([&] {
    for (YuvColorimetry colorimetry : kColorimetries) {
      const bool limited = colorimetry.range == YuvRange::Limited;
      YuvFrame f = makeFrame(40, 4, kPixelFormatNV12);
      std::fill(f.u.begin(), f.u.end(), uint8_t{128});
      for (int x = 0; x < 40; ++x) {
        for (int y = 0; y < 4; ++y)
          f.y[f.strides[0] * static_cast<size_t>(y) + static_cast<size_t>(x)] = static_cast<uint8_t>(x * 6);
      }
      const Bytes out = importWhole(f, kPixelFormatNV12, colorimetry, {0, 4});
      for (int x = 0; x < 40; ++x) {
        const uint8_t* p = &out[4 * static_cast<size_t>(x)];
        EXPECT_EQ(p[0], p[1]);
        EXPECT_EQ(p[1], p[2]);
        // No level of limited range's stretch falls on a half, so this is exact.
        const float luma = static_cast<float>(x * 6);
        EXPECT_EQ(p[1], limited ? level((luma - 16.0f) * 255.0f / 219.0f) : luma);
      }
    }
  });
}

Bytes exportWhole(const Bytes& bgra, int w, int h, uint32_t format, YuvColorimetry colorimetry,
                  const std::vector<int>& cuts) {
  YuvFrame f = makeFrame(w, h, format);
  const Planes planes = f.planes(format, colorimetry);
  const ConstImage image{bgra.data(), 4 * static_cast<size_t>(w), w, h};
  for (size_t k = 0; k + 1 < cuts.size(); ++k) exportRows(image, planes, cuts[k], cuts[k + 1]);
  // Tight Y, Cb, Cr planes, as the reference lays them out.
  Bytes out;
  for (int y = 0; y < h; ++y) {
    out.insert(out.end(), f.y.begin() + static_cast<std::ptrdiff_t>(f.strides[0] * y),
               f.y.begin() + static_cast<std::ptrdiff_t>(f.strides[0] * y + w));
  }
  for (int c = 0; c < 2; ++c) {
    for (int j = 0; j < f.chromaHeight(); ++j) {
      for (int i = 0; i < f.chromaWidth(); ++i) out.push_back(static_cast<uint8_t>(chromaAt(f, format, c, i, j)));
    }
  }
  // Row padding is the host's.
  for (int y = 0; y < h; ++y) EXPECT_EQ(f.y[f.strides[0] * static_cast<size_t>(y) + static_cast<size_t>(w)], 0);
  return out;
}

TEST(YuvConversion, ExportMatchesTheFloatDefinition) {
  onEveryTarget([&] {
    std::mt19937 random(99);
    int frame = 0;
    for (const auto& [w, h] : kSizes) {
      for (uint32_t format : {kPixelFormatNV12, kPixelFormatI420}) {
        for (YuvColorimetry colorimetry : kColorimetries) {
          SCOPED_TRACE(name(w, h, format, colorimetry));
          const Bytes bgra = randomBytes(random, 4 * static_cast<size_t>(w) * static_cast<size_t>(h), frame++ % 3 == 2);
          expectWithinOneLevel(exportWhole(bgra, w, h, format, colorimetry, {0, h}),
                               referenceExport(bgra, w, h, colorimetry));
        }
      }
    }
  });
}

// The engine converts band by band on several threads: any split (import at any row, export at even rows)
// gives the whole frame's result, and NV12 and I420 carry the same numbers.
// Flat colours against values worked out from the standards' equations alone (Kr, Kb; 219 and 224 levels of
// limited range, 255 of full), not from the library's coefficients, so that an error the import and the
// export share cannot cancel: {R, G, B}, its 8-bit {Y, Cb, Cr}, and the RGB those integers decode to.
struct BroadcastColour {
  int rgb[3];
  int ycbcr[3];
  int decoded[3];
};
const struct {
  YuvColorimetry colorimetry;
  BroadcastColour colours[5];
} kBroadcastColours[] = {
    {{YuvMatrix::Bt601, YuvRange::Limited},
     {{{230, 20, 20}, {87, 97, 220}, {230, 20, 20}},   {{20, 230, 20}, {139, 67, 51}, {20, 230, 20}},
      {{20, 20, 230}, {54, 220, 113}, {20, 20, 230}},  {{200, 80, 40}, {112, 93, 184}, {201, 80, 41}},
      {{40, 160, 220}, {128, 172, 71}, {39, 160, 219}}}},
    {{YuvMatrix::Bt601, YuvRange::Full},
     {{{230, 20, 20}, {83, 93, 233}, {230, 20, 21}},   {{20, 230, 20}, {143, 58, 40}, {20, 230, 19}},
      {{20, 20, 230}, {44, 233, 111}, {20, 20, 230}},  {{200, 80, 40}, {111, 88, 191}, {199, 80, 40}},
      {{40, 160, 220}, {131, 178, 63}, {40, 160, 220}}}},
    {{YuvMatrix::Bt709, YuvRange::Limited},
     {{{230, 20, 20}, {72, 107, 220}, {230, 21, 21}},  {{20, 230, 20}, {162, 57, 44}, {19, 230, 20}},
      {{20, 20, 230}, {46, 220, 120}, {21, 20, 229}},  {{200, 80, 40}, {104, 98, 182}, {199, 80, 39}},
      {{40, 160, 220}, {135, 166, 73}, {40, 160, 219}}}},
    {{YuvMatrix::Bt709, YuvRange::Full},
     {{{230, 20, 20}, {65, 104, 233}, {230, 20, 20}},  {{20, 230, 20}, {170, 47, 33}, {20, 230, 20}},
      {{20, 20, 230}, {35, 233, 118}, {19, 20, 230}},  {{200, 80, 40}, {103, 94, 190}, {201, 80, 40}},
      {{40, 160, 220}, {139, 172, 65}, {40, 160, 221}}}},
};

TEST(YuvConversion, FlatColoursMatchTheStandardsBothWays) {
  onEveryTarget([&] {
    for (const auto& table : kBroadcastColours) {
      for (const BroadcastColour& colour : table.colours) {
        SCOPED_TRACE(::testing::Message() << "RGB " << colour.rgb[0] << "," << colour.rgb[1] << "," << colour.rgb[2]
                                          << " matrix " << static_cast<int>(table.colorimetry.matrix) << " range "
                                          << static_cast<int>(table.colorimetry.range));
        YuvFrame f = makeFrame(6, 4, kPixelFormatI420);
        std::fill(f.y.begin(), f.y.end(), static_cast<uint8_t>(colour.ycbcr[0]));
        std::fill(f.u.begin(), f.u.end(), static_cast<uint8_t>(colour.ycbcr[1]));
        std::fill(f.v.begin(), f.v.end(), static_cast<uint8_t>(colour.ycbcr[2]));
        const Bytes imported = importWhole(f, kPixelFormatI420, table.colorimetry, {0, 4});
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(imported[2 - c], colour.decoded[c], 1) << "channel " << c;

        Bytes bgra(6 * 4 * 4);
        for (size_t p = 0; p < bgra.size(); p += 4) {
          bgra[p] = static_cast<uint8_t>(colour.rgb[2]);
          bgra[p + 1] = static_cast<uint8_t>(colour.rgb[1]);
          bgra[p + 2] = static_cast<uint8_t>(colour.rgb[0]);
          bgra[p + 3] = 255;
        }
        const Bytes exported = exportWhole(bgra, 6, 4, kPixelFormatI420, table.colorimetry, {0, 4});
        // Tight planes: 24 luma samples, then 6 Cb, then 6 Cr.
        EXPECT_NEAR(exported[0], colour.ycbcr[0], 1);
        EXPECT_NEAR(exported[24], colour.ycbcr[1], 1);
        EXPECT_NEAR(exported[30], colour.ycbcr[2], 1);
      }
    }
  });
}

TEST(YuvConversion, BandsAndLayoutsGiveTheSameFrame) {
  onEveryTarget([&] {
    std::mt19937 random(7);
    const YuvColorimetry colorimetry{YuvMatrix::Bt709, YuvRange::Limited};
    for (const auto& [w, h] : kSizes) {
      SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
      YuvFrame nv12 = makeFrame(w, h, kPixelFormatNV12);
      nv12.y = randomBytes(random, nv12.y.size(), false);
      nv12.u = randomBytes(random, nv12.u.size(), false);
      YuvFrame i420 = makeFrame(w, h, kPixelFormatI420);
      i420.y = nv12.y;  // same stride
      for (int j = 0; j < nv12.chromaHeight(); ++j) {
        for (int i = 0; i < nv12.chromaWidth(); ++i) {
          i420.u[i420.strides[1] * static_cast<size_t>(j) + static_cast<size_t>(i)] =
              static_cast<uint8_t>(chromaAt(nv12, kPixelFormatNV12, 0, i, j));
          i420.v[i420.strides[2] * static_cast<size_t>(j) + static_cast<size_t>(i)] =
              static_cast<uint8_t>(chromaAt(nv12, kPixelFormatNV12, 1, i, j));
        }
      }
      const Bytes whole = importWhole(nv12, kPixelFormatNV12, colorimetry, {0, h});
      std::vector<int> rows{0};
      std::uniform_int_distribution<int> step(1, 3);
      while (rows.back() < h) rows.push_back(std::min(h, rows.back() + step(random)));
      EXPECT_EQ(importWhole(nv12, kPixelFormatNV12, colorimetry, rows), whole);
      EXPECT_EQ(importWhole(i420, kPixelFormatI420, colorimetry, rows), whole);

      std::vector<int> pairs{0};
      while (pairs.back() < h) pairs.push_back(std::min(h, pairs.back() + 2 * step(random)));
      const Bytes fromNv12 = exportWhole(whole, w, h, kPixelFormatNV12, colorimetry, {0, h});
      EXPECT_EQ(exportWhole(whole, w, h, kPixelFormatNV12, colorimetry, pairs), fromNv12);
      EXPECT_EQ(exportWhole(whole, w, h, kPixelFormatI420, colorimetry, pairs), fromNv12);
    }
  });
}

// RGBA, BGRx and RGBx to BGRA and back: R and B swapped where the order is RGB, alpha 255 where the fourth
// byte is unused.
TEST(YuvConversion, PackedOrdersSwapAndFillAlpha) {
  onEveryTarget([&] {
    std::mt19937 random(5);
    for (const auto& [w, h] : kSizes) {
      for (uint32_t format : {kPixelFormat32RGBA, kPixelFormat32BGRX, kPixelFormat32RGBX}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h) + " " + std::to_string(format));
        const bool swap = format != kPixelFormat32BGRX;
        const bool opaque = format != kPixelFormat32RGBA;
        const size_t stride = 4 * static_cast<size_t>(w) + 3;  // odd: rows are not 4-byte aligned
        Bytes host = randomBytes(random, stride * static_cast<size_t>(h), false);
        Planes planes;
        planes.format = format;
        planes.width = w;
        planes.height = h;
        planes.data[0] = host.data();
        planes.stride[0] = stride;
        Bytes bgra(4 * static_cast<size_t>(w) * static_cast<size_t>(h));
        const Image image{bgra.data(), 4 * static_cast<size_t>(w), w, h};
        importRows(planes, image, nullptr, 0, h);
        Bytes back(host.size(), 0);
        planes.data[0] = back.data();
        exportRows(image, planes, 0, h);
        for (int y = 0; y < h; ++y) {
          for (int x = 0; x < w; ++x) {
            const uint8_t* from = &host[stride * static_cast<size_t>(y) + 4 * static_cast<size_t>(x)];
            const uint8_t* mid = &bgra[4 * (static_cast<size_t>(y) * static_cast<size_t>(w) + x)];
            const uint8_t* to = &back[stride * static_cast<size_t>(y) + 4 * static_cast<size_t>(x)];
            const uint8_t expected[4] = {swap ? from[2] : from[0], from[1], swap ? from[0] : from[2],
                                         opaque ? uint8_t{255} : from[3]};
            ASSERT_TRUE(std::equal(mid, mid + 4, expected)) << x << "," << y;
            ASSERT_TRUE(std::equal(to, to + 3, from)) << x << "," << y;
            ASSERT_EQ(to[3], opaque ? 255 : from[3]);
          }
          EXPECT_EQ(back[stride * static_cast<size_t>(y) + 4 * static_cast<size_t>(w)], 0) << "row padding";
        }
      }
    }
  });
}

// The planes of a YUV buffer, tight, as exportWhole lays them out.
Bytes planesOf(const PixelBufferRef& buffer) {
  EXPECT_EQ(buffer->lockBaseAddress(kPixelBufferLockReadOnly), kPixelBufferSuccess);
  Bytes out;
  for (int32_t plane = 0; plane < buffer->planeCount(); ++plane) {
    const PixelPlaneGeometry g = buffer->planeGeometry(plane);
    const auto* base = static_cast<const uint8_t*>(buffer->baseAddressOfPlane(plane));
    for (int y = 0; y < g.height; ++y) {
      const uint8_t* row = base + buffer->bytesPerRowOfPlane(plane) * static_cast<size_t>(y);
      if (buffer->pixelFormat() == kPixelFormatNV12 && plane == 1) continue;  // below, split
      out.insert(out.end(), row, row + g.rowBytes());
    }
    if (buffer->pixelFormat() == kPixelFormatNV12 && plane == 1) {
      for (int c = 0; c < 2; ++c) {
        for (int y = 0; y < g.height; ++y) {
          const uint8_t* row = base + buffer->bytesPerRowOfPlane(plane) * static_cast<size_t>(y);
          for (int i = 0; i < g.width; ++i) out.push_back(row[2 * i + c]);
        }
      }
    }
  }
  buffer->unlockBaseAddress(kPixelBufferLockReadOnly);
  return out;
}

std::unique_ptr<BeautifyEngine> engineFor(int mask, int preset) {
  std::unique_ptr<BeautifyEngine> engine = makeEngine(EngineKind::Cpu);
  engine->enableBeautifying(static_cast<uintptr_t>(mask));
  engine->setCustomizedFilter(static_cast<uintptr_t>(preset));
  engine->setSharppenFactor(0.6f);
  return engine;
}

// The engine converts inside its first and last stages, in bands and chunks on several threads, and a
// sharpen pass that is both reads a row beyond each band: none of that may show. Frames tall enough for
// several chunks a band.
TEST(YuvConversion, EngineConvertsAroundItsBgraGraph) {
  struct Plan {
    int mask;
    int preset;
  };
  const Plan plans[] = {{1, 0}, {2, 0}, {4, 0}, {7, 0}, {8, 0}, {15, 0}, {8, 5}, {0, 5}, {2, 5}};
  constexpr std::array<std::array<int, 2>, 3> sizes{{{67, 151}, {96, 130}, {5, 3}}};
  std::mt19937 random(31);
  for (const auto& [w, h] : sizes) {
    for (uint32_t format : {kPixelFormatNV12, kPixelFormatI420}) {
      const YuvColorimetry colorimetry =
          format == kPixelFormatNV12 ? YuvColorimetry{YuvMatrix::Bt709, YuvRange::Full} : YuvColorimetry{};
      YuvFrame f = makeFrame(w, h, format);
      f.y = randomBytes(random, f.y.size(), false);
      f.u = randomBytes(random, f.u.size(), false);
      f.v = randomBytes(random, f.v.size(), false);
      const Planes planes = f.planes(format, colorimetry);
      PixelBufferPlane host[3];
      for (int p = 0; p < pixelFormatPlaneCount(format); ++p) host[p] = {planes.data[p], planes.stride[p]};
      PixelBufferAttributes attributes;
      attributes.colorimetry = colorimetry;
      PixelBufferRef yuv;
      ASSERT_EQ(
          PixelBuffer::createWithPlanes(w, h, format, host, pixelFormatPlaneCount(format), nullptr, attributes, &yuv),
          kPixelBufferSuccess);
      Bytes bgra = importWhole(f, format, yuv->colorimetry(), {0, h});
      PixelBufferRef packed;
      ASSERT_EQ(PixelBuffer::createWithBytes(w, h, kPixelFormat32BGRA, bgra.data(), 4 * static_cast<size_t>(w), nullptr,
                                             {}, &packed),
                kPixelBufferSuccess);
      for (const Plan& plan : plans) {
        SCOPED_TRACE(name(w, h, format, yuv->colorimetry()) + " mask " + std::to_string(plan.mask) + " preset " +
                     std::to_string(plan.preset));
        const PixelBufferRef fromBgra = engineFor(plan.mask, plan.preset)->render(packed);
        ASSERT_EQ(fromBgra->lockBaseAddress(kPixelBufferLockReadOnly), kPixelBufferSuccess);
        const auto* base = static_cast<const uint8_t*>(fromBgra->baseAddress());
        Bytes beautified;
        for (int y = 0; y < h; ++y) {
          const uint8_t* row = base + fromBgra->bytesPerRow() * static_cast<size_t>(y);
          beautified.insert(beautified.end(), row, row + 4 * static_cast<size_t>(w));
        }
        fromBgra->unlockBaseAddress(kPixelBufferLockReadOnly);
        const Bytes expected = exportWhole(beautified, w, h, format, yuv->colorimetry(), {0, h});
        EXPECT_EQ(planesOf(engineFor(plan.mask, plan.preset)->render(yuv)), expected);
      }
    }
  }
}

}  // namespace
}  // namespace lumo::cpu
