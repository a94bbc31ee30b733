#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <lumo/BeautifyHost.h>
#include <lumo/BeautifySettings.h>

#include "FrameFormat.h"

namespace lumo::python {

// Where the skin-gated passes act: everywhere, on the faces of a video's frames (carried from detection to
// detection), or on each picture's own faces.
enum class FacesMode { Off, Video, Photos };

// The Python face of the library's host layer: arrays' memory in and out as host frames. Plain C++: the
// binding validates arrays and releases the GIL around process().
class Beautifier {
 public:
  // Throws std::runtime_error with the library's reason when the engine cannot be made.
  explicit Beautifier(EngineKind kind);

  EngineKind kind() const { return host_->kind(); }
  // What decided the engine, e.g. "GL renderer is llvmpipe (...)".
  const std::string& reason() const { return host_->reason(); }

  // Recorded at once, applied at the next frame: safe while another thread is inside process().
  void applySettings(const BeautifySettings& settings) { host_->applySettings(settings); }
  void updateSettings(const std::function<void(BeautifySettings&)>& change) { host_->updateSettings(change); }
  BeautifySettings settings() const { return host_->settings(); }
  // Applied at the next frame, from any thread. Throws std::runtime_error where faces cannot be found.
  void setFaces(FacesMode mode);
  FacesMode faces() const { return faces_.load(std::memory_order_relaxed); }

  // Beautifies `in` into `out` (same format and size; `out` may be `in` itself); throws std::runtime_error
  // when the frame cannot be drawn. A planar frame's view is its luma plane, the chroma planes following it
  // tightly; `colorimetry` is its. Returns the host layer's notice of this frame (the GL engine's first
  // undrawn frame), or an empty text.
  std::string process(const FrameFormat& format, const FrameView& in, const FrameView& out,
                      YuvColorimetry colorimetry = {});

 private:
  std::unique_ptr<BeautifyHost> host_;
  std::atomic<FacesMode> faces_{FacesMode::Off};
  std::mutex faceMutex_;     // setFaces from several threads
  std::mutex processMutex_;  // one frame at a time, so that a frame's notice is its own
  std::string notice_;       // written by the host's handler inside process()
};

}  // namespace lumo::python
