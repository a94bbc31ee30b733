#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <lumo/BeautifyEngine.h>
#include <lumo/BeautifySettings.h>

#include "FrameFormat.h"

namespace lumo::faces {
class FaceRegions;
}

namespace lumo::python {

// Where the skin-gated passes act: everywhere, on the faces of a video's frames (carried from detection to
// detection), or on each picture's own faces.
enum class FacesMode { Off, Video, Photos };

// One engine and what a host loop around it needs: frames of any supported layout in and out, one at a
// time (a mutex serialises callers sharing it, since an engine renders on one thread at a time), settings
// from any thread. Plain C++: the Python binding validates arrays and releases the GIL around process().
class Beautifier {
 public:
  // Throws std::runtime_error with the library's reason when the engine cannot be made.
  explicit Beautifier(EngineKind kind);
  ~Beautifier();
  Beautifier(const Beautifier&) = delete;
  Beautifier& operator=(const Beautifier&) = delete;

  EngineKind kind() const { return engine_->kind(); }
  // What decided the engine, e.g. "GL renderer is llvmpipe (...)".
  const std::string& reason() const { return reason_; }

  // Recorded at once, applied at the next frame: safe while another thread is inside process().
  void applySettings(const BeautifySettings& settings) { engine_->applySettings(settings); }
  BeautifySettings settings() const { return engine_->wantedSettings(); }
  // Applied at the next frame, from any thread. Throws std::runtime_error in a build without face detection.
  void setFaces(FacesMode mode);
  FacesMode faces() const { return faces_.load(std::memory_order_relaxed); }

  // Beautifies `in` into `out` (same format and size; `out` may be `in` itself). Returns true when the
  // frame went to the CPU engine because the GL engine could not draw it (first time only). A planar
  // frame's view is its luma plane, the chroma planes following it tightly; `colorimetry` is its.
  bool process(const FrameFormat& format, const FrameView& in, const FrameView& out, YuvColorimetry colorimetry = {});

 private:
  PixelBufferRef render(BeautifyEngine& engine, const PixelBufferRef& input);
  PixelBufferRef wrap(const FrameFormat& format, const FrameView& in, YuvColorimetry colorimetry);
  // Hands the engine the frame's face regions, or the whole frame; true when the region covers nothing.
  bool limitToFaces(PixelBuffer& input);

  std::unique_ptr<BeautifyEngine> engine_;
  std::unique_ptr<BeautifyEngine> fallback_;  // the CPU engine, for frames the GL engine hands back undrawn
  std::string reason_;
  std::vector<uint8_t> bgra_;  // a frame of another layout, converted; sized on a size change only
  std::atomic<FacesMode> faces_{FacesMode::Off};
  FacesMode facesInForce_ = FacesMode::Off;
  std::unique_ptr<faces::FaceRegions> faceRegions_;
  std::mutex mutex_;
};

}  // namespace lumo::python
