#include "Beautifier.h"

#include <cstring>
#include <stdexcept>

#include <lumo/FramePlan.h>
#include <lumo/GLContext.h>
#include <lumo/PixelBuffer.h>
#include <lumo/PixelRows.h>

#if LUMO_HAVE_FACES
#include "FaceRegions.h"
#else
namespace lumo::faces {
class FaceRegions {};  // never made in such a build
}  // namespace lumo::faces
#endif

namespace lumo::python {
namespace {

// Runs `work` and gives the calling thread back whatever GL context it had (a Python program may drive
// its own EGL or GL context on the same thread).
template <typename Work>
auto withCallerContext(Work&& work) {
  const GLContext::Snapshot saved = GLContext::current();
  auto result = work();
  GLContext::setCurrent(saved);
  return result;
}

bool passDue(const BeautifySettings& settings, bool noRegion) {
  FramePlan plan =
      FramePlan::make(settings.mask, settings.preset > 0 && settings.preset <= BeautifySettings::kPresetCount);
  if (noRegion) plan.dropSkinBranch();
  return plan.any();
}

}  // namespace

Beautifier::Beautifier(EngineKind kind) {
  engine_ = withCallerContext([&] { return makeEngine(kind, &reason_); });
  if (!engine_) throw std::runtime_error("no " + std::string(engineKindName(kind)) + " engine: " + reason_);
}

void Beautifier::setFaces(FacesMode mode) {
#if !LUMO_HAVE_FACES
  if (mode != FacesMode::Off) {
    throw std::runtime_error("this build has no face detection (it needs OpenCV's objdetect)");
  }
#endif
  faces_.store(mode, std::memory_order_relaxed);
}

bool Beautifier::limitToFaces(PixelBuffer& input) {
  const FacesMode mode = faces_.load(std::memory_order_relaxed);
  if (mode != facesInForce_) {
    faceRegions_.reset();
    facesInForce_ = mode;
    if (mode == FacesMode::Off) engine_->setRegionMask(RegionMask::whole());
  }
  if (mode == FacesMode::Off) return false;
#if LUMO_HAVE_FACES
  if (!faceRegions_) {
    std::string why;
    faceRegions_ = faces::FaceRegions::create(
        mode == FacesMode::Video ? faces::FaceRegionsSettings::video() : faces::FaceRegionsSettings::photos(), &why);
    if (!faceRegions_) throw std::runtime_error("cannot find faces: " + why);
  }
  RegionMask mask = faceRegions_->regionsFor(input);
  const bool none = mask.ellipses.empty();
  engine_->setRegionMask(std::move(mask));
  return none;
#else
  (void)input;
  return false;
#endif
}

Beautifier::~Beautifier() {
  withCallerContext([&] {
    engine_.reset();
    fallback_.reset();
    return 0;
  });
}

PixelBufferRef Beautifier::render(BeautifyEngine& engine, const PixelBufferRef& input) {
  return withCallerContext([&] { return engine.render(input); });
}

PixelBufferRef Beautifier::wrap(const FrameFormat& format, const FrameView& in, YuvColorimetry colorimetry) {
  PixelBufferRef input;
  int32_t status = kPixelBufferSuccess;
  if (format.planarFormat != 0) {
    PixelBufferPlane planes[kPixelBufferMaxPlanes];
    const int32_t count = pixelFormatTightPlanes(format.planarFormat, in.width, in.height, in.data, planes);
    PixelBufferAttributes attributes;
    attributes.colorimetry = colorimetry;
    status = PixelBuffer::createWithPlanes(in.width, in.height, format.planarFormat, planes, count, nullptr, attributes,
                                           &input);
  } else {
    const size_t bgraRow = static_cast<size_t>(in.width) * 4;
    uint8_t* pixels = in.data;
    size_t stride = in.stride;
    if (!format.bgra) {
      bgra_.resize(bgraRow * static_cast<size_t>(in.height));
      format.toBgra(in.data, in.stride, bgra_.data(), bgraRow, in.width, in.height);
      pixels = bgra_.data();
      stride = bgraRow;
    }
    status = PixelBuffer::createWithBytes(in.width, in.height, kPixelFormat32BGRA, pixels, stride, nullptr, {}, &input);
  }
  if (status != kPixelBufferSuccess) {
    throw std::invalid_argument("the library refused a " + std::to_string(in.width) + " x " +
                                std::to_string(in.height) + " frame (status " + std::to_string(status) + ")");
  }
  return input;
}

bool Beautifier::process(const FrameFormat& format, const FrameView& in, const FrameView& out,
                         YuvColorimetry colorimetry) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const PixelBufferRef input = wrap(format, in, colorimetry);
  const bool noRegion = limitToFaces(*input);
  const BeautifySettings wanted = engine_->wantedSettings();
  PixelBufferRef result = render(*engine_, input);
  // A setter racing this frame may have switched every pass off: only a pass due before and after counts.
  const bool due = passDue(wanted, noRegion) && passDue(engine_->wantedSettings(), noRegion);
  bool fellBack = false;
  if (result == input && due && engine_->kind() == EngineKind::Gl) {
    // A frame the GL engine cannot draw (beyond its texture limit, a first frame of 1 x 1): the CPU engine
    // draws the same picture.
    if (!fallback_) {
      fallback_ = makeEngine(EngineKind::Cpu);
      fellBack = true;
    }
    fallback_->applySettings(wanted);
    fallback_->setRegionMask(engine_->regionMask());
    result = render(*fallback_, input);
  }
  if (!result) throw std::runtime_error("the engine is not created");
  if (result == input) {
    if (due) throw std::runtime_error("the engine could not draw the frame");
    if (format.planarFormat != 0) {
      if (in.data != out.data) {
        std::memmove(out.data, in.data, pixelFormatFrameBytes(format.planarFormat, in.width, in.height));
      }
    } else {
      copyRows(in.data, in.stride, out.data, out.stride, static_cast<size_t>(in.width) * format.channels, in.height);
    }
    return fellBack;
  }
  if (format.planarFormat != 0) {
    PixelBufferPlane planes[kPixelBufferMaxPlanes];
    pixelFormatTightPlanes(format.planarFormat, in.width, in.height, out.data, planes);
    copyPlanesOut(result, planes);
    return fellBack;
  }
  result->lockBaseAddress(kPixelBufferLockReadOnly);
  format.fromBgra(static_cast<const uint8_t*>(result->baseAddress()), result->bytesPerRow(), out.data, out.stride,
                  in.width, in.height);
  result->unlockBaseAddress(kPixelBufferLockReadOnly);
  return fellBack;
}

}  // namespace lumo::python
