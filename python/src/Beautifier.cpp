#include "Beautifier.h"

#include <stdexcept>

#include "FaceSource.h"

namespace lumo::python {
namespace {

HostFrame hostFrame(const FrameFormat& format, const FrameView& view, YuvColorimetry colorimetry) {
  if (format.planar()) return HostFrame::tight(format.pixelFormat, view.width, view.height, view.data, colorimetry);
  return HostFrame::packed(format.pixelFormat, view.width, view.height, view.data, view.stride);
}

}  // namespace

Beautifier::Beautifier(EngineKind kind) {
  std::string why;
  host_ = BeautifyHost::create(kind, &why);
  if (!host_) throw std::runtime_error("no " + std::string(engineKindName(kind)) + " engine: " + why);
  host_->setNoticeHandler([this](const std::string& notice) { notice_ = notice; });
}

void Beautifier::setFaces(FacesMode mode) {
  const std::lock_guard<std::mutex> lock(faceMutex_);
  std::shared_ptr<faces::FaceSource> source;
  if (mode != FacesMode::Off) {
    std::string why;
    source = faces::FaceSource::create(mode == FacesMode::Video ? faces::FaceMode::Video : faces::FaceMode::Photos,
                                       {}, &why);
    if (!source) throw std::runtime_error("cannot find faces: " + why);
  }
  host_->setRegionSource(std::move(source));
  faces_.store(mode, std::memory_order_relaxed);
}

std::string Beautifier::process(const FrameFormat& format, const FrameView& in, const FrameView& out,
                                YuvColorimetry colorimetry) {
  const std::lock_guard<std::mutex> lock(processMutex_);
  notice_.clear();
  const FrameResult result = host_->process(hostFrame(format, in, colorimetry), hostFrame(format, out, colorimetry));
  if (!result.ok()) throw std::runtime_error(result.why);
  return notice_;
}

}  // namespace lumo::python
