#include "BeautifyHost.h"

#include <cstring>
#include <exception>

#include "FrameLimits.h"
#include "FramePlan.h"
#include "GLContext.h"
#include "MakeEngine.h"
#include "PixelRows.h"

namespace lumo {
namespace {

// Runs `work` and gives the calling thread back whatever GL context it had: a host may drive its own EGL
// or GL context on the same thread, and a streaming thread never keeps the library's.
template <typename Work>
auto withCallerContext(Work&& work) {
  const GLContext::Snapshot saved = GLContext::current();
  auto result = work();
  GLContext::setCurrent(saved);
  return result;
}

const char* formatName(uint32_t pixelFormat) {
  const char* name = pixelFormatName(pixelFormat);
  return name != nullptr ? name : "unknown-format";
}

std::string frameText(const HostFrame& frame) {
  return std::to_string(frame.width) + " x " + std::to_string(frame.height) + " " + formatName(frame.pixelFormat) +
         " frame";
}

// Empty when `frame` can be read or written as it says; else what is wrong with it.
std::string checkFrame(const HostFrame& frame) {
  if (!isHostFormat(frame.pixelFormat)) return "a pixel format the library does not take";
  if (std::string problem = frameSizeProblem(frame.width, frame.height); !problem.empty()) return problem;
  for (int32_t plane = 0; plane < pixelFormatPlaneCount(frame.pixelFormat); ++plane) {
    const PixelPlaneGeometry geometry = pixelFormatPlane(frame.pixelFormat, frame.width, frame.height, plane);
    if (frame.planes[plane].bytes == nullptr) return "plane " + std::to_string(plane) + " has no memory";
    if (frame.planes[plane].bytesPerRow < geometry.rowBytes()) {
      return "plane " + std::to_string(plane) + "'s stride of " + std::to_string(frame.planes[plane].bytesPerRow) +
             " bytes is below its row of " + std::to_string(geometry.rowBytes());
    }
  }
  return {};
}

// Copies every plane of `in` into `out` (nothing where they are the same memory).
void copyFrame(const HostFrame& in, const HostFrame& out) {
  for (int32_t plane = 0; plane < pixelFormatPlaneCount(in.pixelFormat); ++plane) {
    const PixelPlaneGeometry geometry = pixelFormatPlane(in.pixelFormat, in.width, in.height, plane);
    const auto* from = static_cast<const uint8_t*>(in.planes[plane].bytes);
    auto* to = static_cast<uint8_t*>(out.planes[plane].bytes);
    if (from == to && in.planes[plane].bytesPerRow == out.planes[plane].bytesPerRow) continue;
    for (int32_t y = 0; y < geometry.height; ++y) {
      std::memmove(to + out.planes[plane].bytesPerRow * static_cast<size_t>(y),
                   from + in.planes[plane].bytesPerRow * static_cast<size_t>(y), geometry.rowBytes());
    }
  }
}

FrameResult failed(std::string why) { return {FrameStatus::Failed, std::move(why)}; }

}  // namespace

RegionSource::~RegionSource() = default;

HostFrame HostFrame::packed(uint32_t pixelFormat, int32_t width, int32_t height, void* bytes, size_t bytesPerRow) {
  HostFrame frame;
  frame.pixelFormat = pixelFormat;
  frame.width = width;
  frame.height = height;
  frame.planes[0] = {bytes, bytesPerRow};
  return frame;
}

HostFrame HostFrame::tight(uint32_t pixelFormat, int32_t width, int32_t height, void* bytes,
                           YuvColorimetry colorimetry) {
  HostFrame frame;
  frame.pixelFormat = pixelFormat;
  frame.width = width;
  frame.height = height;
  frame.colorimetry = colorimetry;
  pixelFormatTightPlanes(pixelFormat, width, height, bytes, frame.planes);
  return frame;
}

bool isHostFormat(uint32_t pixelFormat) { return pixelFormatPlaneCount(pixelFormat) > 0; }

std::unique_ptr<BeautifyHost> BeautifyHost::create(EngineKind kind, std::string* why) {
  std::string reason;
  std::unique_ptr<BeautifyEngine> engine = withCallerContext([&] { return makeEngine(kind, &reason); });
  if (why != nullptr) *why = reason;
  if (!engine) return nullptr;
  return std::make_unique<BeautifyHost>(Token{}, std::move(engine), std::move(reason));
}

BeautifyHost::BeautifyHost(Token, std::unique_ptr<BeautifyEngine> engine, std::string reason)
    : engine_(std::move(engine)), reason_(std::move(reason)) {}

BeautifyHost::~BeautifyHost() {
  withCallerContext([&] {
    engine_.reset();
    fallback_.reset();
    return 0;
  });
}

EngineKind BeautifyHost::kind() const { return engine_->kind(); }

void BeautifyHost::applySettings(const BeautifySettings& settings) {
  const std::lock_guard<std::mutex> lock(settingsMutex_);
  settings_ = settings;
}

void BeautifyHost::updateSettings(const std::function<void(BeautifySettings&)>& change) {
  const std::lock_guard<std::mutex> lock(settingsMutex_);
  change(settings_);
}

BeautifySettings BeautifyHost::settings() const {
  const std::lock_guard<std::mutex> lock(settingsMutex_);
  return settings_;
}

void BeautifyHost::setRegionSource(std::shared_ptr<RegionSource> source) {
  const std::lock_guard<std::mutex> lock(settingsMutex_);
  source_ = std::move(source);
}

std::shared_ptr<RegionSource> BeautifyHost::regionSource() const {
  const std::lock_guard<std::mutex> lock(settingsMutex_);
  return source_;
}

void BeautifyHost::setNoticeHandler(std::function<void(const std::string&)> handler) {
  const std::lock_guard<std::mutex> lock(settingsMutex_);
  notice_ = std::move(handler);
}

RegionMask BeautifyHost::lastRegions() const {
  const std::lock_guard<std::mutex> lock(frameMutex_);
  return lastRegions_;
}

PixelBufferRef BeautifyHost::render(BeautifyEngine& engine, const PixelBufferRef& input) {
  return withCallerContext([&] { return engine.render(input); });
}

FrameResult BeautifyHost::process(const HostFrame& in, const HostFrame& out) {
  const std::lock_guard<std::mutex> lock(frameMutex_);
  return processLocked(in, out);
}

FrameResult BeautifyHost::processLocked(const HostFrame& in, const HostFrame& out) {
  if (const std::string wrong = checkFrame(in); !wrong.empty()) {
    return failed("cannot process a " + frameText(in) + ": " + wrong);
  }
  if (out.pixelFormat != in.pixelFormat || out.width != in.width || out.height != in.height) {
    return failed("the output (" + frameText(out) + ") must match the input (" + frameText(in) + ")");
  }
  if (const std::string wrong = checkFrame(out); !wrong.empty()) return failed("cannot write the output: " + wrong);

  // One snapshot of everything a setter may change, so that the frame is drawn, and judged, by one state.
  BeautifySettings wanted;
  std::shared_ptr<RegionSource> source;
  {
    const std::lock_guard<std::mutex> lock(settingsMutex_);
    wanted = settings_;
    source = source_;
  }

  // The host's memory, wrapped without a copy.
  PixelBufferRef input;
  PixelBufferAttributes attributes;
  attributes.colorimetry = in.colorimetry;
  const int32_t status = PixelBuffer::createWithPlanes(in.width, in.height, in.pixelFormat, in.planes,
                                                       pixelFormatPlaneCount(in.pixelFormat), nullptr, attributes,
                                                       &input);
  if (status != kPixelBufferSuccess) {
    return failed("cannot process a " + frameText(in) + " (pixel buffer status " + std::to_string(status) + ")");
  }

  RegionMask regions = RegionMask::whole();
  if (source) {
    try {
      regions = source->regionsFor(*input);
    } catch (const std::exception& error) {
      return failed(error.what());
    }
  }
  const bool noRegion = !regions.wholeFrame && regions.ellipses.empty();

  FramePlan plan = FramePlan::make(wanted.mask, wanted.preset >= 1 && wanted.preset <= BeautifySettings::kPresetCount);
  const bool anyPass = plan.any();
  if (noRegion) plan.dropSkinBranch();
  if (!plan.any()) {
    copyFrame(in, out);
    lastRegions_ = std::move(regions);
    return {FrameStatus::PassedThrough, anyPass ? "no region in the frame for its passes" : "no pass is enabled"};
  }

  if (source || regionLimited_) engine_->setRegionMask(regions);
  regionLimited_ = source != nullptr;
  engine_->applySettings(wanted);
  PixelBufferRef result = render(*engine_, input);
  if (result == input && engine_->kind() == EngineKind::Gl) {
    // A pass was due and the GL engine drew nothing: the CPU engine draws the same picture.
    if (!fallback_) {
      fallback_ = withCallerContext([] { return makeEngine(EngineKind::Cpu); });
      std::function<void(const std::string&)> notice;
      {
        const std::lock_guard<std::mutex> lock(settingsMutex_);
        notice = notice_;
      }
      if (notice) notice("the GL engine could not draw a " + frameText(in) + "; the CPU engine draws such frames");
    }
    fallback_->setRegionMask(regions);
    fallback_->applySettings(wanted);
    result = render(*fallback_, input);
  }
  lastRegions_ = std::move(regions);
  if (!result) return failed("the engine is not created");
  if (result == input) return failed("the engine could not draw a " + frameText(in));

  // Reading a GL result back makes the engine's context current: the caller's comes back afterwards.
  withCallerContext([&] {
    copyPlanesOut(result, out.planes);
    return 0;
  });
  return {FrameStatus::Drawn, {}};
}

}  // namespace lumo
