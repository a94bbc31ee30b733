// lumo-bench: the facade against the bare pass chain and against an OpenCV CPU beautify, side by side.
#include <benchmark/benchmark.h>

#include <lumo/lumo.h>

#include <GLES2/gl2.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BareChain.h"
#include "ImageIO.h"
#ifdef LUMO_BENCH_OPENCV
#include "OpenCvBeautify.h"
#endif

namespace {

using lumo::bench::BareChain;

struct Size {
  int width;
  int height;
  std::string name() const { return std::to_string(width) + "x" + std::to_string(height); }
};

struct Config {
  const char* name;
  int mask;
  int preset;
};

constexpr Size kSizes[] = {{640, 480}, {1280, 720}, {1920, 1080}};
constexpr Config kConfigs[] = {{"mask:0", 0, 0}, {"mask:1", 1, 0}, {"mask:2", 2, 0},   {"mask:4", 4, 0},
                               {"mask:7", 7, 0}, {"mask:8", 8, 0}, {"mask:15", 15, 0}, {"preset:5", 0, 5}};
constexpr float kSharpen = 0.5f;  // the bare chain's value, so that both draw the same picture

// The bundled portrait scaled (nearest) to the frame size: real skin and edges at every size.
std::vector<uint8_t> portrait(const Size& size) {
  static const lumo::tools::Image sample = [] {
    lumo::tools::Image image;
    std::string error;
    if (!lumo::tools::readImage(LUMO_SAMPLE_IMAGE, &image, &error)) {
      std::fprintf(stderr, "lumo-bench: %s\n", error.c_str());
      std::exit(1);
    }
    return image;
  }();
  std::vector<uint8_t> frame(static_cast<size_t>(size.width) * size.height * 4);
  for (int y = 0; y < size.height; ++y) {
    const int sy = y * sample.height / size.height;
    for (int x = 0; x < size.width; ++x) {
      const int sx = x * sample.width / size.width;
      std::memcpy(&frame[(static_cast<size_t>(y) * size.width + x) * 4],
                  &sample.bgra[(static_cast<size_t>(sy) * sample.width + sx) * 4], 4);
    }
  }
  return frame;
}

// The worst case for the skin-gated work: every pixel a skin tone (red above 50, green above 40, blue
// above 20 levels), with noise so that no smoothing is trivial.
std::vector<uint8_t> allSkin(const Size& size) {
  std::vector<uint8_t> frame(static_cast<size_t>(size.width) * size.height * 4);
  uint32_t state = 0x9E3779B9u;
  for (size_t i = 0; i < frame.size(); i += 4) {
    const uint8_t base[3] = {120, 150, 205};  // B, G, R
    for (int c = 0; c < 3; ++c) {
      state = state * 1664525u + 1013904223u;  // a fixed sequence: every run draws the same frame
      frame[i + static_cast<size_t>(c)] = static_cast<uint8_t>(base[c] - 24 + static_cast<int>((state >> 24) % 49));
    }
    frame[i + 3] = 255;
  }
  return frame;
}

enum class Picture { Portrait, AllSkin };

// ms per frame and frames per second from the loop's own wall time.
class FrameClock {
 public:
  FrameClock() : start_(std::chrono::steady_clock::now()) {}
  void report(benchmark::State& state) const {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const auto frames = static_cast<double>(state.iterations());
    state.counters["ms_per_frame"] = 1000.0 * seconds / frames;
    state.counters["fps"] = frames / seconds;
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

struct Facade {
  lumo::LumoImageFilter filter;
  lumo::PixelBufferRef input;
  std::vector<uint8_t> frame;

  Facade(const Size& size, const Config& config) : frame(portrait(size)) {
    filter.create();
    filter.enableBeautifying(static_cast<uintptr_t>(config.mask));
    filter.setCustomizedFilter(static_cast<uintptr_t>(config.preset));
    filter.setSharppenFactor(kSharpen);
    lumo::PixelBuffer::create(size.width, size.height, lumo::kPixelFormat32BGRA, {}, &input);
    write();
  }
  ~Facade() {
    filter.destroy();
    lumo::GLContext::setCurrent({});
  }
  void write() {
    input->lockBaseAddress(0);
    std::memcpy(input->baseAddress(), frame.data(), frame.size());
    input->unlockBaseAddress(0);
  }
  // The host reads the result; returns a byte so that the read is not optimised away.
  static uint8_t read(const lumo::PixelBufferRef& output) {
    output->lockBaseAddress(lumo::kPixelBufferLockReadOnly);
    const uint8_t byte = static_cast<const uint8_t*>(output->baseAddress())[0];
    output->unlockBaseAddress(lumo::kPixelBufferLockReadOnly);
    return byte;
  }
};

void facadeRender(benchmark::State& state, Size size, Config config) {
  Facade facade(size, config);
  for (int i = 0; i < 2; ++i) facade.filter.render(facade.input);  // settings applied, textures made
  FrameClock clock;
  for (auto _ : state) benchmark::DoNotOptimize(facade.filter.render(facade.input).get());
  clock.report(state);
}

void facadeEndToEnd(benchmark::State& state, Size size, Config config) {
  Facade facade(size, config);
  for (int i = 0; i < 2; ++i) Facade::read(facade.filter.render(facade.input));
  FrameClock clock;
  for (auto _ : state) {
    facade.write();
    benchmark::DoNotOptimize(Facade::read(facade.filter.render(facade.input)));
  }
  clock.report(state);
}

// A picture as a tight frame of `format` (YUV: BT.709 limited, chroma from each block's top-left pixel).
std::vector<uint8_t> toFormat(const Size& size, const std::vector<uint8_t>& bgra, uint32_t format) {
  const int w = size.width;
  const int h = size.height;
  std::vector<uint8_t> out(lumo::pixelFormatFrameBytes(format, w, h));
  auto pixel = [&](int x, int y) { return &bgra[(static_cast<size_t>(y) * w + x) * 4]; };
  auto luma = [](const uint8_t* p) { return 0.2126f * p[2] + 0.7152f * p[1] + 0.0722f * p[0]; };
  auto y8 = [&](int x, int y) { return static_cast<uint8_t>(16.5f + 219.0f / 255.0f * luma(pixel(x, y))); };
  auto chroma = [&](int x, int y, int c) {
    const uint8_t* p = pixel(x, y);
    const float l = luma(p);
    const float v = c == 0 ? (p[0] - l) / 1.8556f : (p[2] - l) / 1.5748f;
    return static_cast<uint8_t>(std::clamp(128.5f + 224.0f / 255.0f * v, 0.0f, 255.0f));
  };
  if (!lumo::pixelFormatIsYuv(format)) {
    const size_t bytes = lumo::pixelFormatPlane(format, w, h, 0).bytesPerSample;
    const bool swap = format == lumo::kPixelFormat24RGB || format == lumo::kPixelFormat32RGBA;
    for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) {
      for (size_t k = 0; k < bytes; ++k) out[i * bytes + k] = bgra[i * 4 + (swap && k != 1 && k != 3 ? 2 - k : k)];
    }
    return out;
  }
  const int cw = (w + 1) / 2;
  if (lumo::pixelFormatIsPackedYuv(format)) {
    const bool uyvy = format == lumo::kPixelFormatUYVY;
    for (int y = 0; y < h; ++y) {
      for (int i = 0; i < cw; ++i) {
        uint8_t* q = &out[(static_cast<size_t>(y) * cw + i) * 4];
        const uint8_t s[4] = {y8(2 * i, y), chroma(2 * i, y, 0), y8(std::min(2 * i + 1, w - 1), y), chroma(2 * i, y, 1)};
        q[0] = uyvy ? s[1] : s[0], q[1] = uyvy ? s[0] : s[1], q[2] = uyvy ? s[3] : s[2], q[3] = uyvy ? s[2] : s[3];
      }
    }
    return out;
  }
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) out[static_cast<size_t>(y) * w + x] = y8(x, y);
  }
  const int rows = lumo::pixelFormatChromaRows(format);
  const int ch = (h + rows - 1) / rows;
  uint8_t* planes = out.data() + static_cast<size_t>(w) * h;
  const size_t plane = static_cast<size_t>(cw) * ch;
  for (int j = 0; j < ch; ++j) {
    for (int i = 0; i < cw; ++i) {
      const size_t at = static_cast<size_t>(j) * cw + i;
      for (int c = 0; c < 2; ++c) {
        const uint8_t v = chroma(2 * i, rows * j, c);
        if (format == lumo::kPixelFormatNV12) {
          planes[2 * at + c] = v;
        } else {
          planes[c * plane + at] = v;
        }
      }
    }
  }
  return out;
}

// An engine through the front door, end to end like the facade: the host writes its frame, renders, reads
// the result (every plane, for NV12).
void engineEndToEnd(benchmark::State& state, Size size, Config config, uint32_t format, lumo::EngineKind kind,
                    Picture picture) {
  std::string why;
  const std::unique_ptr<lumo::BeautifyEngine> engine = lumo::makeEngine(kind, &why);
  if (!engine) {
    state.SkipWithError(why.c_str());
    return;
  }
  lumo::BeautifyEngine& filter = *engine;
  filter.enableBeautifying(static_cast<uintptr_t>(config.mask));
  filter.setCustomizedFilter(static_cast<uintptr_t>(config.preset));
  filter.setSharppenFactor(kSharpen);
  const std::vector<uint8_t> bgra = picture == Picture::AllSkin ? allSkin(size) : portrait(size);
  const std::vector<uint8_t> frame = format == lumo::kPixelFormat32BGRA ? bgra : toFormat(size, bgra, format);
  lumo::PixelBufferRef input;
  lumo::PixelBuffer::create(size.width, size.height, format, {}, &input);
  auto write = [&] {
    input->lockBaseAddress(0);
    const uint8_t* from = frame.data();
    for (int32_t plane = 0; plane < input->planeCount(); ++plane) {
      const lumo::PixelPlaneGeometry geometry = input->planeGeometry(plane);
      auto* to = static_cast<uint8_t*>(input->baseAddressOfPlane(plane));
      for (int32_t y = 0; y < geometry.height; ++y, from += geometry.rowBytes()) {
        std::memcpy(to + input->bytesPerRowOfPlane(plane) * static_cast<size_t>(y), from, geometry.rowBytes());
      }
    }
    input->unlockBaseAddress(0);
  };
  write();
  Facade::read(filter.render(input));
  FrameClock clock;
  for (auto _ : state) {
    write();
    benchmark::DoNotOptimize(Facade::read(filter.render(input)));
  }
  clock.report(state);
}

void bareRender(benchmark::State& state, Size size, Config config) {
  BareChain chain(size.width, size.height, config.mask, config.preset);
  const std::vector<uint8_t> frame = portrait(size);
  chain.upload(frame.data());
  chain.draw();
  FrameClock clock;
  for (auto _ : state) chain.draw();
  clock.report(state);
}

void bareEndToEnd(benchmark::State& state, Size size, Config config) {
  BareChain chain(size.width, size.height, config.mask, config.preset);
  const std::vector<uint8_t> frame = portrait(size);
  std::vector<uint8_t> out(frame.size());
  std::vector<uint8_t> hostFrame(frame.size());
  chain.upload(frame.data());
  chain.draw();
  FrameClock clock;
  for (auto _ : state) {
    std::memcpy(hostFrame.data(), frame.data(), frame.size());  // the host writes its frame, as with the facade
    chain.upload(hostFrame.data());
    chain.draw();
    chain.read(out.data());
    benchmark::DoNotOptimize(out.data());
  }
  clock.report(state);
}

void barePass(benchmark::State& state, Size size, Config config, size_t index) {
  BareChain chain(size.width, size.height, config.mask, config.preset);
  const std::vector<uint8_t> frame = portrait(size);
  chain.upload(frame.data());
  chain.draw();
  FrameClock clock;
  for (auto _ : state) chain.drawPass(index);
  clock.report(state);
}

// The facade and the bare chain end to end, frame about frame in one loop, so that both see the same
// machine state; medians of the per-frame times, and the facade's overhead over the bare chain.
void overhead(benchmark::State& state, Size size, Config config) {
  Facade facade(size, config);
  BareChain chain(size.width, size.height, config.mask, config.preset);
  std::vector<uint8_t> out(facade.frame.size());
  std::vector<double> facadeMs;
  std::vector<double> bareMs;
  auto time = [](auto&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  };
  auto facadeFrame = [&] {
    facade.write();
    benchmark::DoNotOptimize(Facade::read(facade.filter.render(facade.input)));
  };
  std::vector<uint8_t> hostFrame(facade.frame.size());
  // Each side switches its own context in once per frame and the bare chain lets go of its context after
  // its frame, so neither pays for the other's context beyond that one switch.
  auto bareFrame = [&] {
    chain.makeCurrent();
    std::memcpy(hostFrame.data(), facade.frame.data(), hostFrame.size());  // the host writes its frame
    chain.upload(hostFrame.data());
    chain.draw();
    chain.read(out.data());
    lumo::GLContext::setCurrent({});
  };
  facadeFrame();
  bareFrame();
  bool facadeFirst = true;
  for (auto _ : state) {
    // Alternating which goes first cancels any cost of following the other.
    if (facadeFirst) {
      facadeMs.push_back(time(facadeFrame));
      bareMs.push_back(time(bareFrame));
    } else {
      bareMs.push_back(time(bareFrame));
      facadeMs.push_back(time(facadeFrame));
    }
    facadeFirst = !facadeFirst;
  }
  auto median = [](std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  };
  const double facadeMedian = median(facadeMs);
  const double bareMedian = median(bareMs);
  state.counters["facade_ms"] = facadeMedian;
  state.counters["bare_ms"] = bareMedian;
  state.counters["overhead_pct"] = 100.0 * (facadeMedian - bareMedian) / bareMedian;
}

#ifdef LUMO_BENCH_OPENCV
void opencvEndToEnd(benchmark::State& state, Size size) {
  std::vector<uint8_t> frame = portrait(size);
  const cv::Mat in(size.height, size.width, CV_8UC4, frame.data());
  cv::Mat out;
  lumo::bench::OpenCvBeautify beautify(static_cast<int>(std::thread::hardware_concurrency()));
  beautify.process(in, out);
  FrameClock clock;
  for (auto _ : state) {
    beautify.process(in, out);
    benchmark::DoNotOptimize(out.data);
  }
  clock.report(state);
}
#endif

// The bare chain is only a fair baseline if it draws what the facade draws.
bool bareChainMatchesFacade(const Size& size, const Config& config) {
  Facade facade(size, config);
  const lumo::PixelBufferRef output = facade.filter.render(facade.input);
  output->lockBaseAddress(lumo::kPixelBufferLockReadOnly);
  std::vector<uint8_t> expected(facade.frame.size());
  for (int y = 0; y < size.height; ++y) {
    std::memcpy(&expected[static_cast<size_t>(y) * size.width * 4],
                static_cast<const uint8_t*>(output->baseAddress()) + output->bytesPerRow() * y,
                static_cast<size_t>(size.width) * 4);
  }
  output->unlockBaseAddress(lumo::kPixelBufferLockReadOnly);
  BareChain chain(size.width, size.height, config.mask, config.preset);
  std::vector<uint8_t> actual(facade.frame.size());
  chain.upload(facade.frame.data());
  chain.draw();
  chain.read(actual.data());
  return actual == expected;
}

std::string glRenderer() {
  auto context = lumo::GLContext::create();
  if (!context || !context->makeCurrent()) return "none";
  const std::string renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  lumo::GLContext::setCurrent({});
  return renderer;
}

template <typename Function, typename... Args>
void add(const std::string& name, Function function, Args... args) {
  benchmark::RegisterBenchmark(name.c_str(), function, args...)->Unit(benchmark::kMillisecond)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
  // --simd=best|avx3|avx2|sse4|scalar caps the CPU engine's kernels; the rest is Google Benchmark's.
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--simd=", 0) == 0) {
      if (!lumo::CpuImageFilter::limitSimd(arg.substr(7))) {
        std::fprintf(stderr, "lumo-bench: --simd wants best, avx3, avx2, sse4 or scalar, got '%s'\n", arg.c_str() + 7);
        return 2;
      }
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  // Each preset filter logs the described index error once at construction; not benchmark output.
  lumo::setLogHandler([](const char*) {});

  for (const Config& config : kConfigs) {
    if (config.mask == 0 && config.preset == 0) continue;
    if (!bareChainMatchesFacade({160, 120}, config)) {
      std::fprintf(stderr, "lumo-bench: the bare chain does not draw what the facade draws for %s\n", config.name);
      return 1;
    }
  }

  const char* caps = std::getenv("GALLIUM_OVERRIDE_CPU_CAPS");
  benchmark::AddCustomContext("gl_renderer", glRenderer());
  benchmark::AddCustomContext("gallium_override_cpu_caps", caps != nullptr ? caps : "(unset)");
  benchmark::AddCustomContext("cpu_engine_simd", lumo::CpuImageFilter::simdTarget());

  for (const Size& size : kSizes) {
    for (const Config& config : kConfigs) {
      const std::string suffix = "/" + size.name() + "/" + config.name;
      add("render" + suffix, facadeRender, size, config);
      add("end_to_end" + suffix, facadeEndToEnd, size, config);
      using lumo::EngineKind;
      add("cpu_end_to_end" + suffix, engineEndToEnd, size, config, lumo::kPixelFormat32BGRA, EngineKind::Cpu,
          Picture::Portrait);
      if (config.mask == 7 || config.mask == 15) {
        add("cpu_end_to_end_allskin" + suffix, engineEndToEnd, size, config, lumo::kPixelFormat32BGRA,
            EngineKind::Cpu, Picture::AllSkin);
      }
      add("cpu_end_to_end_nv12" + suffix, engineEndToEnd, size, config, lumo::kPixelFormatNV12, EngineKind::Cpu,
          Picture::Portrait);
      add("gl_end_to_end_nv12" + suffix, engineEndToEnd, size, config, lumo::kPixelFormatNV12, EngineKind::Gl,
          Picture::Portrait);
      // A camera's own formats, beside BGRA and NV12.
      for (const auto& [name, format] : {std::pair<const char*, uint32_t>{"yuy2", lumo::kPixelFormatYUY2},
                                         {"uyvy", lumo::kPixelFormatUYVY},
                                         {"i422", lumo::kPixelFormatI422},
                                         {"bgr", lumo::kPixelFormat24BGR}}) {
        add(std::string("cpu_end_to_end_") + name + suffix, engineEndToEnd, size, config, format, EngineKind::Cpu,
            Picture::Portrait);
        add(std::string("gl_end_to_end_") + name + suffix, engineEndToEnd, size, config, format, EngineKind::Gl,
            Picture::Portrait);
      }
      if (config.mask == 0 && config.preset == 0) continue;
      add("bare_render" + suffix, bareRender, size, config);
      add("bare_end_to_end" + suffix, bareEndToEnd, size, config);
    }
#ifdef LUMO_BENCH_OPENCV
    add("opencv_end_to_end/" + size.name(), opencvEndToEnd, size);
#endif
  }
  for (const Size& size : kSizes) {
    benchmark::RegisterBenchmark(("overhead/" + size.name() + "/mask:7").c_str(), overhead, size,
                                 Config{"mask:7", 7, 0})
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(size.width >= 1920 ? 16 : 32);
  }
  // Where the time goes: each pass of the two chains that together hold every pass, alone, at 720p.
  const Size profileSize{1280, 720};
  for (const Config& config : {Config{"mask:7", 7, 0}, Config{"mask:8+preset:5", 8, 5}}) {
    BareChain chain(profileSize.width, profileSize.height, config.mask, config.preset);
    for (size_t i = 0; i < chain.passCount(); ++i) {
      add("pass/" + profileSize.name() + "/" + config.name + "/" + std::to_string(i) + "_" + chain.passName(i),
          barePass, profileSize, config, i);
    }
  }

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
