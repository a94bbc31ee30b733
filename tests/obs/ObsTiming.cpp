// The filter's time per frame inside OBS (from the capture before it to the capture after it, on OBS's
// graphics thread) against the host layer's own time for the same frames, and with faces only on and off.
//   xvfb-run -a lumo_obs_timing [frames]
#include <lumo/lumo.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ObsHarness.h"

namespace {

using namespace lumo;
using namespace lumo::obstest;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0.0 : values[values.size() / 2];
}

// Milliseconds the filter took inside OBS, median of `frames`.
double insideObs(const char* json, const TestFrame& frame, int frames) {
  TestSource source;
  obs_data_t* settings = obs_data_create_from_json(json);
  source.addFilter("lumo_beautify_filter", settings);
  obs_data_release(settings);
  std::vector<double> times;
  for (int i = 0; i < frames + 10; ++i) {
    TestSource::Seen seen;
    if (!source.push(frame, &seen)) {
      std::fprintf(stderr, "a frame did not arrive\n");
      std::exit(1);
    }
    if (i >= 10) times.push_back(static_cast<double>(seen.after.enteredNs - seen.before.leftNs) / 1e6);
  }
  return median(times);
}

// Milliseconds the host layer takes for the same frame, drawn in place in the test's own memory.
double hostAlone(const TestFrame& frame, int frames) {
  std::unique_ptr<BeautifyHost> host = BeautifyHost::create(EngineKind::Cpu);
  host->applySettings(BeautifySettings{});
  std::vector<double> times;
  for (int i = 0; i < frames + 10; ++i) {
    TestFrame copy = frame;
    HostFrame in;
    in.pixelFormat = lumoFormat(frame.format);
    in.width = static_cast<int32_t>(frame.width);
    in.height = static_cast<int32_t>(frame.height);
    in.colorimetry = {YuvMatrix::Bt709, YuvRange::Limited};
    for (size_t plane = 0; plane < copy.planes.size(); ++plane) in.planes[plane] = {copy.planes[plane].data(), copy.rowBytes[plane]};
    const auto begin = std::chrono::steady_clock::now();
    host->process(in);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
    if (i >= 10) times.push_back(ms);
  }
  return median(times);
}

}  // namespace

int main(int argc, char** argv) {
  const int frames = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
  std::string why;
  if (!ObsRuntime::start(LUMO_OBS_MODULE, LUMO_OBS_MODULE_DATA, &why)) {
    std::fprintf(stderr, "libobs cannot run: %s\n", why.c_str());
    return 1;
  }
  std::printf("CPU engine, default settings, median of %d frames (ms)\n", frames);
  std::printf("%-10s %-6s %12s %12s %8s\n", "size", "format", "inside OBS", "host alone", "ratio");
  for (const auto& [width, height] : {std::pair<uint32_t, uint32_t>{1280, 720}, {1920, 1080}}) {
    const std::vector<uint8_t> picture = portrait(width, height);
    for (const video_format format : {VIDEO_FORMAT_NV12, VIDEO_FORMAT_I420, VIDEO_FORMAT_YUY2, VIDEO_FORMAT_BGRA}) {
      const TestFrame frame = frameFrom(picture, width, height, format);
      const double obs = insideObs(R"({"engine": "cpu"})", frame, frames);
      const double host = hostAlone(frame, frames);
      std::printf("%4ux%-5u %-6s %12.2f %12.2f %8.3f\n", width, height, get_video_format_name(format), obs, host,
                  obs / host);
    }
  }
  const TestFrame frame = frameFrom(portrait(1280, 720), 1280, 720, VIDEO_FORMAT_NV12);
  const double whole = insideObs(R"({"engine": "cpu"})", frame, frames);
  const double faces = insideObs(R"({"engine": "cpu", "faces_only": true})", frame, frames);
  std::printf("1280x720 NV12 inside OBS: whole frame %.2f ms, faces only %.2f ms\n", whole, faces);
  ObsRuntime::stop();
  return 0;
}
