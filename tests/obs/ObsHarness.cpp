#include "ObsHarness.h"

#include <EGL/egl.h>
#include <X11/Xlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <obs/obs-nix-platform.h>
#include <obs/util/base.h>
#include <obs/util/platform.h>

#include "ImageIO.h"

#include <lumo/PixelBuffer.h>

namespace lumo::obstest {

bool planeGeometry(video_format format, uint32_t width, uint32_t height, int plane, uint32_t* rowBytes,
                   uint32_t* rows) {
  const uint32_t halfWidth = (width + 1) / 2;
  const uint32_t halfHeight = (height + 1) / 2;
  *rows = height;
  switch (format) {
    case VIDEO_FORMAT_NV12:
      if (plane > 1) return false;
      *rowBytes = plane == 0 ? width : halfWidth * 2;
      *rows = plane == 0 ? height : halfHeight;
      return true;
    case VIDEO_FORMAT_I420:
    case VIDEO_FORMAT_I422:
    case VIDEO_FORMAT_I444:
      if (plane > 2) return false;
      *rowBytes = plane == 0 || format == VIDEO_FORMAT_I444 ? width : halfWidth;
      *rows = plane == 0 || format != VIDEO_FORMAT_I420 ? height : halfHeight;
      return true;
    case VIDEO_FORMAT_YUY2:
    case VIDEO_FORMAT_UYVY:
      *rowBytes = halfWidth * 4;
      return plane == 0;
    case VIDEO_FORMAT_BGR3:
      *rowBytes = width * 3;
      return plane == 0;
    default:
      *rowBytes = width * 4;
      return plane == 0;
  }
}

namespace {

struct Yuv {
  uint8_t y, u, v;
};

uint8_t clampByte(float v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L)); }

Yuv yuvOf(const uint8_t* bgra) {
  const float b = bgra[0], g = bgra[1], r = bgra[2];
  const float y = 0.2126f * r + 0.7152f * g + 0.0722f * b;
  return {clampByte(16.0f + y * 219.0f / 255.0f), clampByte(128.0f + (b - y) / 1.8556f * 224.0f / 255.0f),
          clampByte(128.0f + (r - y) / 1.5748f * 224.0f / 255.0f)};
}

}  // namespace

TestFrame frameFrom(const std::vector<uint8_t>& bgra, uint32_t width, uint32_t height, video_format format) {
  TestFrame frame;
  frame.format = format;
  frame.width = width;
  frame.height = height;
  for (int plane = 0;; ++plane) {
    uint32_t rowBytes = 0;
    uint32_t rows = 0;
    if (!planeGeometry(format, width, height, plane, &rowBytes, &rows)) break;
    frame.planes.emplace_back(static_cast<size_t>(rowBytes) * rows, 0);
    frame.rowBytes.push_back(rowBytes);
  }
  const auto pixel = [&](uint32_t x, uint32_t y) {
    return &bgra[(static_cast<size_t>(std::min(y, height - 1)) * width + std::min(x, width - 1)) * 4];
  };
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      const uint8_t* p = pixel(x, y);
      const Yuv c = yuvOf(p);
      const size_t row0 = static_cast<size_t>(y) * frame.rowBytes[0];
      switch (format) {
        case VIDEO_FORMAT_NV12:
          frame.planes[0][row0 + x] = c.y;
          if (x % 2 == 0 && y % 2 == 0) {
            uint8_t* uv = &frame.planes[1][(y / 2) * frame.rowBytes[1] + x];
            uv[0] = c.u;
            uv[1] = c.v;
          }
          break;
        case VIDEO_FORMAT_I420:
        case VIDEO_FORMAT_I422:
        case VIDEO_FORMAT_I444: {
          frame.planes[0][row0 + x] = c.y;
          const bool sub = format != VIDEO_FORMAT_I444;
          if (sub && x % 2 != 0) break;
          if (format == VIDEO_FORMAT_I420 && y % 2 != 0) break;
          const uint32_t cy = format == VIDEO_FORMAT_I420 ? y / 2 : y;
          const uint32_t cx = sub ? x / 2 : x;
          frame.planes[1][cy * frame.rowBytes[1] + cx] = c.u;
          frame.planes[2][cy * frame.rowBytes[2] + cx] = c.v;
          break;
        }
        case VIDEO_FORMAT_YUY2:
        case VIDEO_FORMAT_UYVY: {
          uint8_t* pair = &frame.planes[0][row0 + (x / 2) * 4];
          const bool yuy2 = format == VIDEO_FORMAT_YUY2;
          pair[(yuy2 ? 0 : 1) + (x % 2) * 2] = c.y;
          if (x % 2 == 0) {
            // An odd width's last pair repeats its pixel's luma, as OBS and GStreamer lay it out.
            pair[(yuy2 ? 0 : 1) + 2] = x + 1 < width ? yuvOf(pixel(x + 1, y)).y : c.y;
            pair[yuy2 ? 1 : 0] = c.u;
            pair[yuy2 ? 3 : 2] = c.v;
          }
          break;
        }
        case VIDEO_FORMAT_BGR3:
          std::memcpy(&frame.planes[0][row0 + x * 3], p, 3);
          break;
        case VIDEO_FORMAT_RGBA:
          frame.planes[0][row0 + x * 4 + 0] = p[2];
          frame.planes[0][row0 + x * 4 + 1] = p[1];
          frame.planes[0][row0 + x * 4 + 2] = p[0];
          frame.planes[0][row0 + x * 4 + 3] = p[3];
          break;
        default:
          std::memcpy(&frame.planes[0][row0 + x * 4], p, 4);
          break;
      }
    }
  }
  return frame;
}

uint32_t lumoFormat(video_format format) {
  switch (format) {
    case VIDEO_FORMAT_NV12: return kPixelFormatNV12;
    case VIDEO_FORMAT_I420: return kPixelFormatI420;
    case VIDEO_FORMAT_I422: return kPixelFormatI422;
    case VIDEO_FORMAT_YUY2: return kPixelFormatYUY2;
    case VIDEO_FORMAT_UYVY: return kPixelFormatUYVY;
    case VIDEO_FORMAT_BGRX: return kPixelFormat32BGRX;
    case VIDEO_FORMAT_RGBA: return kPixelFormat32RGBA;
    case VIDEO_FORMAT_BGR3: return kPixelFormat24BGR;
    default: return kPixelFormat32BGRA;
  }
}

std::vector<uint8_t> portrait(uint32_t width, uint32_t height) {
  tools::Image image;
  std::string why;
  if (!tools::readImage(LUMO_SAMPLE_IMAGE, &image, &why)) return {};
  // The whole portrait, fitted in the middle of a grey frame (a camera's framing of a face).
  std::vector<uint8_t> out(static_cast<size_t>(width) * height * 4, 96);
  const double scale = std::min(static_cast<double>(width) / image.width, static_cast<double>(height) / image.height);
  const auto fitWidth = static_cast<uint32_t>(image.width * scale);
  const auto fitHeight = static_cast<uint32_t>(image.height * scale);
  const uint32_t left = (width - fitWidth) / 2;
  const uint32_t top = (height - fitHeight) / 2;
  for (uint32_t y = 0; y < fitHeight; ++y) {
    const auto sy = std::min(static_cast<int32_t>((y + 0.5) / scale), image.height - 1);
    for (uint32_t x = 0; x < fitWidth; ++x) {
      const auto sx = std::min(static_cast<int32_t>((x + 0.5) / scale), image.width - 1);
      std::memcpy(&out[(static_cast<size_t>(y + top) * width + x + left) * 4],
                  &image.bgra[(static_cast<size_t>(sy) * image.width + sx) * 4], 4);
    }
  }
  return out;
}

namespace {

struct CaptureState {
  // 1: enter OBS's graphics context before the filters, -1: leave it after them.
  std::atomic<int> graphics{0};
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<Captured> frames;
};

obs_source_frame* capture(void* data, obs_source_frame* frame) {
  auto* state = static_cast<CaptureState*>(data);
  if (state->graphics > 0) obs_enter_graphics();
  Captured seen;
  seen.enteredNs = os_gettime_ns();
  seen.glContext = eglGetCurrentContext();
  seen.format = frame->format;
  seen.width = frame->width;
  seen.height = frame->height;
  seen.fullRange = frame->full_range;
  seen.timestamp = frame->timestamp;
  for (int plane = 0;; ++plane) {
    uint32_t rowBytes = 0;
    uint32_t rows = 0;
    if (!planeGeometry(frame->format, frame->width, frame->height, plane, &rowBytes, &rows)) break;
    std::vector<uint8_t> bytes(static_cast<size_t>(rowBytes) * rows);
    for (uint32_t row = 0; row < rows; ++row) {
      std::memcpy(&bytes[static_cast<size_t>(row) * rowBytes],
                  frame->data[plane] + static_cast<size_t>(row) * frame->linesize[plane], rowBytes);
    }
    seen.planes.push_back(std::move(bytes));
    seen.rowBytes.push_back(rowBytes);
  }
  seen.leftNs = os_gettime_ns();
  {
    const std::lock_guard<std::mutex> lock(state->mutex);
    state->frames.push_back(std::move(seen));
    while (state->frames.size() > 16) state->frames.pop_front();
  }
  if (state->graphics < 0) obs_leave_graphics();
  state->arrived.notify_all();
  return frame;
}

void* createCapture(obs_data_t*, obs_source_t*) { return std::make_unique<CaptureState>().release(); }
void destroyCapture(void* data) { std::unique_ptr<CaptureState>(static_cast<CaptureState*>(data)).reset(); }
void* createSource(obs_data_t*, obs_source_t* source) { return source; }
void destroySource(void*) {}
const char* captureName(void*) { return "Test capture"; }
const char* sourceName(void*) { return "Test source"; }

std::mutex logMutex;
std::vector<std::string> moduleLines;
Display* display = nullptr;

// libobs's graphics start-up (obs_reset_video: the EGL context, Mesa's driver) keeps allocations for the
// process that the leak checker cannot name: it is the harness's set-up, not the module under test, so
// what it allocates on this thread is not counted. The module's own allocations come later and are.
struct LeaksOfSetUpIgnored {
  LeaksOfSetUpIgnored() {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable();
#endif
  }
  ~LeaksOfSetUpIgnored() {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_enable();
#endif
  }
  LeaksOfSetUpIgnored(const LeaksOfSetUpIgnored&) = delete;
  LeaksOfSetUpIgnored& operator=(const LeaksOfSetUpIgnored&) = delete;
};

void logHandler(int level, const char* format, va_list args, void*) {
  char line[4096];
  std::vsnprintf(line, sizeof line, format, args);
  if (std::strstr(line, "[lumo-beautify]") != nullptr) {
    const std::lock_guard<std::mutex> lock(logMutex);
    moduleLines.emplace_back(line);
  }
  if (level <= LOG_WARNING) std::fprintf(stderr, "obs: %s\n", line);
}

}  // namespace

bool ObsRuntime::start(const std::string& module, const std::string& data, std::string* why) {
  base_set_log_handler(logHandler, nullptr);
  display = XOpenDisplay(nullptr);
  if (display == nullptr) {
    *why = "no X display (run under xvfb-run)";
    return false;
  }
  obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
  obs_set_nix_platform_display(display);
  if (!obs_startup("en-US", nullptr, nullptr)) {
    *why = "obs_startup failed";
    return false;
  }
  obs_video_info video{};
  video.graphics_module = "libobs-opengl.so.1";
  video.fps_num = 60;
  video.fps_den = 1;
  video.base_width = video.output_width = 640;
  video.base_height = video.output_height = 360;
  video.output_format = VIDEO_FORMAT_NV12;
  video.gpu_conversion = true;
  video.colorspace = VIDEO_CS_709;
  video.range = VIDEO_RANGE_PARTIAL;
  video.scale_type = OBS_SCALE_BICUBIC;
  int reset = 0;
  {
    const LeaksOfSetUpIgnored ignored;
    reset = obs_reset_video(&video);
  }
  if (reset != OBS_VIDEO_SUCCESS) {
    *why = "obs_reset_video failed (" + std::to_string(reset) + ")";
    return false;
  }
  obs_module_t* loaded = nullptr;
  const int opened = obs_open_module(&loaded, module.c_str(), data.c_str());
  if (opened != MODULE_SUCCESS) {
    *why = "obs_open_module(" + module + ") failed (" + std::to_string(opened) + ")";
    return false;
  }
  if (!obs_init_module(loaded)) {
    *why = "obs_init_module failed";
    return false;
  }

  obs_source_info source{};
  source.id = "lumo_test_source";
  source.type = OBS_SOURCE_TYPE_INPUT;
  source.output_flags = OBS_SOURCE_ASYNC_VIDEO;
  source.get_name = sourceName;
  source.create = createSource;
  source.destroy = destroySource;
  obs_register_source(&source);
  obs_source_info filter{};
  filter.id = "lumo_test_capture";
  filter.type = OBS_SOURCE_TYPE_FILTER;
  filter.output_flags = OBS_SOURCE_ASYNC_VIDEO;
  filter.get_name = captureName;
  filter.create = createCapture;
  filter.destroy = destroyCapture;
  filter.filter_video = capture;
  obs_register_source(&filter);
  return true;
}

void ObsRuntime::stop() {
  obs_shutdown();
  if (display != nullptr) XCloseDisplay(display);
  display = nullptr;
}

std::vector<std::string> ObsRuntime::moduleLog() {
  const std::lock_guard<std::mutex> lock(logMutex);
  return moduleLines;
}

void ObsRuntime::clearModuleLog() {
  const std::lock_guard<std::mutex> lock(logMutex);
  moduleLines.clear();
}

TestSource::TestSource() {
  source_ = obs_source_create_private("lumo_test_source", "camera", nullptr);
  // Each frame is shown at the next tick, whatever its timestamp.
  obs_source_set_async_unbuffered(source_, true);
  before_ = obs_source_create_private("lumo_test_capture", "before", nullptr);
  after_ = obs_source_create_private("lumo_test_capture", "after", nullptr);
  obs_source_filter_add(source_, before_);
  obs_source_filter_add(source_, after_);
}

TestSource::~TestSource() {
  for (obs_source_t* filter : filters_) {
    obs_source_filter_remove(source_, filter);
    obs_source_release(filter);
  }
  obs_source_filter_remove(source_, after_);
  obs_source_filter_remove(source_, before_);
  obs_source_release(after_);
  obs_source_release(before_);
  obs_source_release(source_);
}

obs_source_t* TestSource::addFilter(const char* id, obs_data_t* settings) {
  obs_source_t* filter = obs_source_create_private(id, "under test", settings);
  if (filter == nullptr) return nullptr;
  // Between the captures: the capture after is taken off and added again, last.
  obs_source_filter_remove(source_, after_);
  obs_source_filter_add(source_, filter);
  obs_source_filter_add(source_, after_);
  filters_.push_back(filter);
  return filter;
}

void TestSource::holdGraphicsAroundFilters(bool hold) {
  static_cast<CaptureState*>(obs_obj_get_data(before_))->graphics = hold ? 1 : 0;
  static_cast<CaptureState*>(obs_obj_get_data(after_))->graphics = hold ? -1 : 0;
}

void TestSource::removeFilter(obs_source_t* filter) {
  const auto at = std::find(filters_.begin(), filters_.end(), filter);
  if (at == filters_.end()) return;
  filters_.erase(at);
  obs_source_filter_remove(source_, filter);
  obs_source_release(filter);
}

void TestSource::output(const TestFrame& frame, uint64_t timestamp) {
  obs_source_frame out{};
  for (size_t plane = 0; plane < frame.planes.size(); ++plane) {
    // OBS copies the frame into its own cache before any filter sees it.
    out.data[plane] = const_cast<uint8_t*>(frame.planes[plane].data());
    out.linesize[plane] = frame.rowBytes[plane];
  }
  out.width = frame.width;
  out.height = frame.height;
  out.format = frame.format;
  out.timestamp = timestamp;
  out.full_range = frame.fullRange;
  video_format_get_parameters_for_format(frame.colorspace, frame.fullRange ? VIDEO_RANGE_FULL : VIDEO_RANGE_PARTIAL,
                                         frame.format, out.color_matrix, out.color_range_min, out.color_range_max);
  obs_source_output_video(source_, &out);
}

bool TestSource::push(const TestFrame& frame, Seen* seen) {
  const uint64_t timestamp = nextTimestamp_++ * 1000000;
  output(frame, timestamp);
  const auto take = [timestamp](obs_source_t* filter, Captured* into) {
    auto* state = static_cast<CaptureState*>(obs_obj_get_data(filter));
    std::unique_lock<std::mutex> lock(state->mutex);
    const auto found = [&] {
      return std::find_if(state->frames.begin(), state->frames.end(),
                          [&](const Captured& c) { return c.timestamp == timestamp; });
    };
    if (!state->arrived.wait_for(lock, std::chrono::seconds(10), [&] { return found() != state->frames.end(); })) {
      return false;
    }
    *into = *found();
    return true;
  };
  return take(after_, &seen->after) && take(before_, &seen->before);
}

}  // namespace lumo::obstest
