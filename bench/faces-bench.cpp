// lumo-faces-bench: what the faces-only option costs and saves at 1280 x 720 on the CPU engine. The frame is
// the sample portrait at 1.25 times its size over a wall of its own colours (nearly every pixel skin by the
// colour rule), the face about 120 pixels across.
#include <benchmark/benchmark.h>

#include <lumo/lumo.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "FaceRegions.h"
#include "ImageIO.h"

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

// The portrait scaled (nearest texel) to `scale` and placed at `left` over the portrait stretched across the
// whole frame.
std::vector<uint8_t> frameAt(const lumo::tools::Image& sample, int left) {
  std::vector<uint8_t> frame(static_cast<size_t>(kWidth) * kHeight * 4);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      int sx = x * sample.width / kWidth;
      int sy = y * sample.height / kHeight;
      const int px = (x - left) * 4 / 5;
      const int py = (y - 40) * 4 / 5;
      if (px >= 0 && px < sample.width && py >= 0 && py < sample.height) {
        sx = px;
        sy = py;
      }
      for (int c = 0; c < 4; ++c) {
        frame[(static_cast<size_t>(y) * kWidth + x) * 4 + c] =
            sample.bgra[(static_cast<size_t>(sy) * sample.width + sx) * 4 + c];
      }
    }
  }
  return frame;
}

const lumo::tools::Image& sample() {
  static const lumo::tools::Image image = [] {
    lumo::tools::Image loaded;
    std::string error;
    if (!lumo::tools::readImage(LUMO_SAMPLE_IMAGE, &loaded, &error)) std::fprintf(stderr, "%s\n", error.c_str());
    return loaded;
  }();
  return image;
}

lumo::faces::FrameView viewOf(const std::vector<uint8_t>& frame) {
  return {frame.data(), static_cast<size_t>(kWidth) * 4, kWidth, kHeight, lumo::faces::FrameLayout::Bgra};
}

lumo::PixelBufferRef wrap(std::vector<uint8_t>& frame) {
  lumo::PixelBufferRef buffer;
  lumo::PixelBuffer::createWithBytes(kWidth, kHeight, lumo::kPixelFormat32BGRA, frame.data(),
                                     static_cast<size_t>(kWidth) * 4, nullptr, {}, &buffer);
  return buffer;
}

void shrink(benchmark::State& state) {
  const std::vector<uint8_t> frame = frameAt(sample(), 400);
  for (auto _ : state) benchmark::DoNotOptimize(lumo::faces::shrink(viewOf(frame), 400));
}

// A full search of the scaled-down frame, or one near the face found before (as between full searches).
void detect(benchmark::State& state, bool nearFace) {
  std::string why;
  const auto detector = lumo::faces::FaceDetector::load({}, &why);
  const std::vector<uint8_t> frame = frameAt(sample(), 400);
  const lumo::faces::SmallGrey grey = lumo::faces::shrink(viewOf(frame), detector->settings().detectionWidth);
  const std::vector<lumo::faces::FaceBox> around = nearFace ? detector->detect(grey) : std::vector<lumo::faces::FaceBox>{};
  size_t found = 0;
  for (auto _ : state) found = detector->detect(grey, around).size();
  state.counters["faces"] = static_cast<double>(found);
}

// The engine alone, the whole frame or the face's region (found once, before the timing).
void render(benchmark::State& state, bool faceRegion) {
  std::vector<uint8_t> frame = frameAt(sample(), 400);
  const lumo::PixelBufferRef input = wrap(frame);
  auto engine = lumo::makeEngine(lumo::EngineKind::Cpu);
  engine->enableBeautifying(lumo::BeautifySettings::kDefaultMask);
  if (faceRegion) {
    std::string why;
    auto regions = lumo::faces::FaceRegions::create(lumo::faces::FaceRegionsSettings::photos(), &why);
    engine->setRegionMask(regions->regionsFor(viewOf(frame)));
  }
  for (auto _ : state) benchmark::DoNotOptimize(engine->render(input));
}

// A moving face, as lumo-beautify --faces runs a stream: regions from the video-mode finder (detections on
// its worker thread), then the frame.
void video(benchmark::State& state, bool faces) {
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < 30; ++i) frames.push_back(frameAt(sample(), 200 + 8 * i));
  std::vector<lumo::PixelBufferRef> inputs;
  for (auto& frame : frames) inputs.push_back(wrap(frame));
  auto engine = lumo::makeEngine(lumo::EngineKind::Cpu);
  engine->enableBeautifying(lumo::BeautifySettings::kDefaultMask);
  std::string why;
  auto regions = faces ? lumo::faces::FaceRegions::create(lumo::faces::FaceRegionsSettings::video(), &why) : nullptr;
  size_t i = 0;
  for (auto _ : state) {
    lumo::PixelBuffer& input = *inputs[i % inputs.size()];
    if (regions) engine->setRegionMask(regions->regionsFor(input));
    benchmark::DoNotOptimize(engine->render(inputs[i % inputs.size()]));
    ++i;
  }
  if (regions) {
    state.counters["detections"] = static_cast<double>(regions->statistics().detections);
    state.counters["detect_ms"] = regions->statistics().meanMilliseconds;
  }
}

}  // namespace

int main(int argc, char** argv) {
  auto add = [](const char* name, auto function) {
    benchmark::RegisterBenchmark(name, function)->Unit(benchmark::kMillisecond)->UseRealTime();
  };
  add("faces/shrink/1280x720", shrink);
  add("faces/detect/426x240/full", [](benchmark::State& s) { detect(s, false); });
  add("faces/detect/426x240/near-face", [](benchmark::State& s) { detect(s, true); });
  add("cpu/1280x720/mask:7/whole", [](benchmark::State& s) { render(s, false); });
  add("cpu/1280x720/mask:7/face-region", [](benchmark::State& s) { render(s, true); });
  add("cpu/1280x720/mask:7/video", [](benchmark::State& s) { video(s, false); });
  add("cpu/1280x720/mask:7/video-faces", [](benchmark::State& s) { video(s, true); });
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
