#pragma once

// Frames of any format through an engine, FFmpeg's converter as a reference, and how close two frames are:
// what the YUV and camera-format suites share.
#include <lumo/lumo.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "PixelRows.h"

namespace lumo::test {

namespace fs = std::filesystem;

// A frame's planes, tightly packed one after another (a raw stream's layout).
using Raw = std::vector<uint8_t>;

inline PixelBufferRef wrap(Raw& raw, uint32_t format, int width, int height, YuvColorimetry colorimetry = {}) {
  PixelBufferPlane planes[kPixelBufferMaxPlanes];
  const int32_t count = pixelFormatTightPlanes(format, width, height, raw.data(), planes);
  PixelBufferAttributes attributes;
  attributes.colorimetry = colorimetry;
  PixelBufferRef buffer;
  EXPECT_EQ(PixelBuffer::createWithPlanes(width, height, format, planes, count, nullptr, attributes, &buffer),
            kPixelBufferSuccess);
  return buffer;
}

inline Raw unwrap(const PixelBufferRef& buffer) {
  Raw raw(pixelFormatFrameBytes(buffer->pixelFormat(), buffer->width(), buffer->height()));
  PixelBufferPlane planes[kPixelBufferMaxPlanes];
  pixelFormatTightPlanes(buffer->pixelFormat(), buffer->width(), buffer->height(), raw.data(), planes);
  copyPlanesOut(buffer, planes);
  return raw;
}

inline Raw render(BeautifyEngine& engine, Raw raw, uint32_t format, int width, int height, YuvColorimetry colorimetry = {}) {
  const PixelBufferRef in = wrap(raw, format, width, height, colorimetry);
  const PixelBufferRef out = engine.render(in);
  EXPECT_NE(out, nullptr);
  EXPECT_EQ(out->pixelFormat(), format);
  EXPECT_EQ(out->colorimetry(), in->colorimetry());
  return unwrap(out);
}

inline std::unique_ptr<BeautifyEngine> engineOf(EngineKind kind, int mask = BeautifySettings::kDefaultMask) {
  std::string why;
  std::unique_ptr<BeautifyEngine> engine = makeEngine(kind, &why);
  EXPECT_NE(engine, nullptr) << why;
  if (engine) engine->enableBeautifying(static_cast<uintptr_t>(mask));
  return engine;
}

inline std::unique_ptr<BeautifyEngine> cpuEngine(int mask = BeautifySettings::kDefaultMask) {
  return engineOf(EngineKind::Cpu, mask);
}

// FFmpeg's converter between packed BGRA and a YUV layout, in a scratch folder.
class Ffmpeg {
 public:
  Ffmpeg() : dir_(fs::temp_directory_path() / ("lumo-yuv-" + std::to_string(::getpid()))) {
    fs::create_directories(dir_);
  }
  ~Ffmpeg() { fs::remove_all(dir_); }
  static bool available() { return std::system("ffmpeg -hide_banner -version >/dev/null 2>&1") == 0; }

  Raw convert(const Raw& from, const char* fromFormat, const char* toFormat, int width, int height, const char* matrix,
              const char* range) {
    {
      std::ofstream(dir_ / "in.raw", std::ios::binary)
          .write(reinterpret_cast<const char*>(from.data()), static_cast<std::streamsize>(from.size()));
    }
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    // Accurate rounding and no dithering, so that the reference is the plain matrix.
    const std::string command = "cd '" + dir_.string() + "' && ffmpeg -v error -y -f rawvideo -pix_fmt " + fromFormat +
                                " -s " + size + " -i in.raw -vf scale=out_color_matrix=" + matrix +
                                ":out_range=" + range + ":flags=accurate_rnd+full_chroma_int -pix_fmt " + toFormat +
                                " -f rawvideo out.raw";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::ifstream file(dir_ / "out.raw", std::ios::binary);
    return Raw(std::istreambuf_iterator<char>(file), {});
  }

 private:
  fs::path dir_;
};

struct Agreement {
  double within2 = 0;  // share of samples at most 2 levels apart
  double meanDifference = 0;
  int maxDifference = 0;
};

inline Agreement agree(const Raw& a, const Raw& b, size_t begin, size_t end) {
  Agreement result;
  size_t close = 0;
  double sum = 0;
  for (size_t i = begin; i < end; ++i) {
    const int d = std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i]));
    close += d <= 2 ? 1 : 0;
    sum += d;
    result.maxDifference = std::max(result.maxDifference, d);
  }
  result.within2 = static_cast<double>(close) / static_cast<double>(end - begin);
  result.meanDifference = sum / static_cast<double>(end - begin);
  return result;
}

}  // namespace lumo::test
