// The host layer: host frames of every format and stride, the GL engine's undrawn frames, what a frame's
// result says, the caller's context, and setters racing frames. Real engines on real GL.
#include <gtest/gtest.h>

#include <EGL/egl.h>

#include <atomic>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/GlHarness.h"

namespace lumo {
namespace {

// A frame of any host format in memory of its own, each plane's rows `pad` bytes longer than they need be.
struct Memory {
  uint32_t format;
  int32_t width;
  int32_t height;
  size_t pad;
  std::vector<std::vector<uint8_t>> planes;
  HostFrame frame;

  Memory(uint32_t f, int32_t w, int32_t h, size_t padding) : format(f), width(w), height(h), pad(padding) {
    frame.pixelFormat = f;
    frame.width = w;
    frame.height = h;
    const int32_t count = f == kHostFormat24BGR ? 1 : pixelFormatPlaneCount(f);
    for (int32_t p = 0; p < count; ++p) {
      const PixelPlaneGeometry g =
          f == kHostFormat24BGR ? PixelPlaneGeometry{w, h, 3} : pixelFormatPlane(f, w, h, p);
      planes.emplace_back((g.rowBytes() + pad) * static_cast<size_t>(g.height), 0);
      frame.planes[p] = {planes.back().data(), g.rowBytes() + pad};
    }
  }
  // The pixels without the padding, plane after plane (what a tight frame of the format holds).
  std::vector<uint8_t> tight() const {
    std::vector<uint8_t> bytes;
    for (size_t p = 0; p < planes.size(); ++p) {
      const PixelPlaneGeometry g = format == kHostFormat24BGR
                                       ? PixelPlaneGeometry{width, height, 3}
                                       : pixelFormatPlane(format, width, height, static_cast<int32_t>(p));
      for (int32_t y = 0; y < g.height; ++y) {
        const uint8_t* row = planes[p].data() + frame.planes[p].bytesPerRow * static_cast<size_t>(y);
        bytes.insert(bytes.end(), row, row + g.rowBytes());
      }
    }
    return bytes;
  }
  void fill(uint32_t seed) {
    // Skin-like noise, so that every pass has something to do.
    std::mt19937 random(seed);
    for (auto& plane : planes) {
      for (uint8_t& byte : plane) byte = static_cast<uint8_t>(110 + random() % 100);
    }
  }
};

std::unique_ptr<BeautifyHost> makeHost(EngineKind kind) {
  std::string why;
  std::unique_ptr<BeautifyHost> host = BeautifyHost::create(kind, &why);
  EXPECT_NE(host, nullptr) << why;
  if (host) host->applySettings(BeautifySettings{});
  return host;
}

// What the engine itself draws of a tightly packed copy of `in`: the picture a host frame must get.
std::vector<uint8_t> engineDraws(EngineKind kind, const Memory& in, const BeautifySettings& settings) {
  std::vector<uint8_t> pixels = in.tight();
  uint32_t format = in.format;
  if (format == kHostFormat24BGR) {  // the engines draw BGRA; alpha 255
    std::vector<uint8_t> bgra;
    for (size_t i = 0; i < pixels.size(); i += 3) bgra.insert(bgra.end(), {pixels[i], pixels[i + 1], pixels[i + 2], 255});
    pixels = bgra;
    format = kPixelFormat32BGRA;
  }
  std::unique_ptr<BeautifyEngine> engine = makeEngine(kind);
  engine->applySettings(settings);
  PixelBufferPlane planes[kPixelBufferMaxPlanes];
  const int32_t count = pixelFormatTightPlanes(format, in.width, in.height, pixels.data(), planes);
  PixelBufferRef buffer;
  EXPECT_EQ(PixelBuffer::createWithPlanes(in.width, in.height, format, planes, count, nullptr, {}, &buffer), 0);
  const PixelBufferRef out = engine->render(buffer);
  std::vector<uint8_t> drawn(pixelFormatFrameBytes(format, in.width, in.height));
  pixelFormatTightPlanes(format, in.width, in.height, drawn.data(), planes);
  copyPlanesOut(out, planes);
  if (in.format != kHostFormat24BGR) return drawn;
  std::vector<uint8_t> bgr;
  for (size_t i = 0; i < drawn.size(); i += 4) bgr.insert(bgr.end(), {drawn[i], drawn[i + 1], drawn[i + 2]});
  return bgr;
}

const uint32_t kFormats[] = {kPixelFormat32BGRA, kPixelFormat32RGBA, kPixelFormat32BGRX, kPixelFormat32RGBX,
                             kPixelFormatNV12,   kPixelFormatI420,   kHostFormat24BGR};

// Every format, padded rows, odd sizes, into other memory and in place: the engine's own picture, and the
// padding untouched.
TEST(Host, EveryFormatAndStrideGetsTheEnginesPicture) {
  std::unique_ptr<BeautifyHost> host = makeHost(EngineKind::Cpu);
  for (const uint32_t format : kFormats) {
    for (const auto& [width, height] : {std::pair{37, 23}, std::pair{64, 48}}) {
      SCOPED_TRACE(std::to_string(format) + " " + std::to_string(width) + "x" + std::to_string(height));
      Memory in(format, width, height, 13);
      in.fill(static_cast<uint32_t>(width) + format);
      const std::vector<uint8_t> expected = engineDraws(EngineKind::Cpu, in, BeautifySettings{});
      Memory out(format, width, height, 7);
      std::fill(out.planes[0].begin(), out.planes[0].end(), uint8_t{0xEE});
      const FrameResult drawn = host->process(in.frame, out.frame);
      ASSERT_EQ(drawn.status, FrameStatus::Drawn) << drawn.why;
      EXPECT_EQ(out.tight(), expected);
      EXPECT_EQ(out.planes[0][out.frame.planes[0].bytesPerRow - 1], 0xEE) << "the padding is the host's";
      const FrameResult inPlace = host->process(in.frame);
      ASSERT_EQ(inPlace.status, FrameStatus::Drawn) << inPlace.why;
      EXPECT_EQ(in.tight(), expected);
    }
  }
}

// Frames the GL engine hands back undrawn (a first frame of 1 x 1, packed orders it does not map) are drawn
// by the CPU engine, said once; whiten alone is due on them too.
TEST(Host, TheGlEnginesUndrawnFramesAreDrawnByTheCpuEngineAndSaidOnce) {
  std::unique_ptr<BeautifyHost> host = makeHost(EngineKind::Gl);
  ASSERT_EQ(host->kind(), EngineKind::Gl);
  std::vector<std::string> notices;
  host->setNoticeHandler([&](const std::string& notice) { notices.push_back(notice); });
  BeautifySettings whiten;
  whiten.mask = BeautifyWhiten;
  host->applySettings(whiten);
  for (const auto& [format, width] : {std::pair{kPixelFormat32BGRA, 1}, std::pair{kPixelFormat32RGBA, 16},
                                      std::pair{kPixelFormat32BGRX, 16}, std::pair{kPixelFormat32RGBX, 16}}) {
    Memory in(format, width, width, 0);
    in.fill(3);
    const std::vector<uint8_t> expected = engineDraws(EngineKind::Cpu, in, whiten);
    ASSERT_NE(expected, in.tight());
    const FrameResult result = host->process(in.frame);
    ASSERT_EQ(result.status, FrameStatus::Drawn) << result.why;
    EXPECT_EQ(in.tight(), expected) << pixelFormatName(format);
  }
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_NE(notices[0].find("the GL engine could not draw a 1 x 1 bgra frame"), std::string::npos) << notices[0];
}

// 4:2:2 and 24-bit frames the GL engine draws itself, padded rows and all: its own picture, no notice.
TEST(Host, TheGlEngineDraws422And24BitFramesItself) {
  std::unique_ptr<BeautifyHost> host = makeHost(EngineKind::Gl);
  ASSERT_EQ(host->kind(), EngineKind::Gl);
  std::vector<std::string> notices;
  host->setNoticeHandler([&](const std::string& notice) { notices.push_back(notice); });
  for (const uint32_t format : {kPixelFormatI422, kPixelFormatYUY2, kPixelFormatUYVY, kHostFormat24BGR}) {
    Memory in(format, 37, 23, 5);
    in.fill(format);
    const std::vector<uint8_t> expected = engineDraws(EngineKind::Gl, in, BeautifySettings{});
    ASSERT_NE(expected, in.tight()) << pixelFormatName(format);
    const FrameResult result = host->process(in.frame);
    ASSERT_EQ(result.status, FrameStatus::Drawn) << result.why;
    EXPECT_EQ(in.tight(), expected) << pixelFormatName(format);
  }
  EXPECT_TRUE(notices.empty()) << notices.front();
}

// A source of regions that says what it is told.
class FixedRegions : public RegionSource {
 public:
  explicit FixedRegions(RegionMask mask, bool fail = false) : mask_(std::move(mask)), fail_(fail) {}
  RegionMask regionsFor(PixelBuffer& frame) override {
    if (fail_) throw std::runtime_error("cannot find faces: test");
    seen = frame.width();
    return mask_;
  }
  int32_t seen = 0;

 private:
  RegionMask mask_;
  bool fail_;
};

TEST(Host, TheResultSaysWhatBecameOfTheFrame) {
  for (const EngineKind kind : {EngineKind::Cpu, EngineKind::Gl}) {
    SCOPED_TRACE(engineKindName(kind));
    std::unique_ptr<BeautifyHost> host = makeHost(kind);
    Memory in(kPixelFormatNV12, 32, 16, 0), out(kPixelFormatNV12, 32, 16, 0);
    in.fill(5);

    BeautifySettings nothing;
    nothing.mask = 0;
    host->applySettings(nothing);
    FrameResult r = host->process(in.frame, out.frame);
    EXPECT_EQ(r.status, FrameStatus::PassedThrough);
    EXPECT_EQ(r.why, "no pass is enabled");
    EXPECT_EQ(out.tight(), in.tight()) << "passed through means copied";

    // Only skin passes and no region: nothing is due; whiten as well: drawn outside every region.
    BeautifySettings skin;
    skin.mask = BeautifyPolish | BeautifySkinWhiten;
    host->applySettings(skin);
    auto none = std::make_shared<FixedRegions>(RegionMask::inside({}));
    host->setRegionSource(none);
    r = host->process(in.frame, out.frame);
    EXPECT_EQ(r.status, FrameStatus::PassedThrough);
    EXPECT_EQ(r.why, "no region in the frame for its passes");
    EXPECT_EQ(none->seen, 32);
    skin.mask |= BeautifyWhiten;
    host->applySettings(skin);
    r = host->process(in.frame, out.frame);
    EXPECT_EQ(r.status, FrameStatus::Drawn) << r.why;
    EXPECT_NE(out.tight(), in.tight());

    host->setRegionSource(std::make_shared<FixedRegions>(RegionMask::whole(), true));
    r = host->process(in.frame, out.frame);
    EXPECT_EQ(r.status, FrameStatus::Failed);
    EXPECT_EQ(r.why, "cannot find faces: test");
    host->setRegionSource(nullptr);

    Memory small(kPixelFormatNV12, 16, 16, 0);
    r = host->process(in.frame, small.frame);
    EXPECT_EQ(r.status, FrameStatus::Failed);
    EXPECT_NE(r.why.find("must match the input"), std::string::npos) << r.why;
    HostFrame narrow = in.frame;
    narrow.planes[1].bytesPerRow = 8;
    r = host->process(narrow, narrow);
    EXPECT_EQ(r.status, FrameStatus::Failed);
    EXPECT_NE(r.why.find("plane 1's stride of 8 bytes is below its row of 32"), std::string::npos) << r.why;
    HostFrame missing = in.frame;
    missing.planes[0].bytes = nullptr;
    EXPECT_EQ(host->process(missing, missing).status, FrameStatus::Failed);
    HostFrame odd = in.frame;
    odd.pixelFormat = 0x41595556;  // 'AYUV', not taken here
    EXPECT_NE(host->process(odd, odd).why.find("a pixel format the library does not take"), std::string::npos);
  }
}

TEST(Host, TheCallersContextIsCurrentAfterEveryCall) {
  const std::shared_ptr<GLContext> mine = GLContext::create();
  ASSERT_NE(mine, nullptr);
  ContextGuard guard(mine.get());
  const EGLContext before = eglGetCurrentContext();
  std::unique_ptr<BeautifyHost> host = makeHost(EngineKind::Gl);
  EXPECT_EQ(eglGetCurrentContext(), before);
  Memory frame(kPixelFormat32BGRA, 1, 1, 0);  // drawn by the CPU engine, made on the way
  EXPECT_TRUE(host->process(frame.frame).ok());
  EXPECT_EQ(eglGetCurrentContext(), before);
  Memory big(kPixelFormatI420, 64, 32, 0);
  EXPECT_TRUE(host->process(big.frame).ok());
  EXPECT_EQ(eglGetCurrentContext(), before);
  host.reset();
  EXPECT_EQ(eglGetCurrentContext(), before);
}

// One thread draws while another switches between "preset only" and "whiten only": every frame is one of
// the two pictures, and none fails.
TEST(Host, SettersRacingFramesNeverFailAFrame) {
  for (const EngineKind kind : {EngineKind::Cpu, EngineKind::Gl}) {
    SCOPED_TRACE(engineKindName(kind));
    std::unique_ptr<BeautifyHost> host = makeHost(kind);
    std::vector<std::string> notices;
    host->setNoticeHandler([&](const std::string& notice) { notices.push_back(notice); });
    std::atomic<bool> done{false};
    std::thread setter([&] {
      while (!done.load()) {
        host->updateSettings([](BeautifySettings& s) {
          s.preset = 3;
          s.mask = 0;
        });
        host->updateSettings([](BeautifySettings& s) {
          s.mask = BeautifyWhiten;
          s.preset = 0;
        });
      }
    });
    Memory in(kPixelFormat32BGRA, 24, 16, 0), out(kPixelFormat32BGRA, 24, 16, 0);
    in.fill(9);
    int failed = 0;
    for (int i = 0; i < 200; ++i) {
      const FrameResult r = host->process(in.frame, out.frame);
      failed += r.status == FrameStatus::Drawn ? 0 : 1;
    }
    done = true;
    setter.join();
    EXPECT_EQ(failed, 0);
    EXPECT_TRUE(notices.empty()) << "no frame went to a spare CPU engine: " << notices[0];
  }
}

}  // namespace
}  // namespace lumo
