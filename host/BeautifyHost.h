#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BeautifyEngine.h"
#include "BeautifySettings.h"
#include "Export.h"
#include "PixelBuffer.h"
#include "RegionMask.h"

namespace lumo {

// 24-bit BGR (OpenCV's frames), by its older name.
constexpr uint32_t kHostFormat24BGR = kPixelFormat24BGR;

// A frame in a host's memory: its format, size, planes (each with its stride; chroma planes of half the
// size, rounded up) and, for YUV formats, how its samples map to RGB.
struct LUMO_EXPORT HostFrame {
  uint32_t pixelFormat = kPixelFormat32BGRA;
  int32_t width = 0;
  int32_t height = 0;
  PixelBufferPlane planes[kPixelBufferMaxPlanes];
  YuvColorimetry colorimetry;

  // A one-plane frame (the packed RGB and YUV formats).
  static HostFrame packed(uint32_t pixelFormat, int32_t width, int32_t height, void* bytes, size_t bytesPerRow);
  // Planes stored tightly one after another (a raw stream's layout).
  static HostFrame tight(uint32_t pixelFormat, int32_t width, int32_t height, void* bytes,
                         YuvColorimetry colorimetry = {});
};

// Every format the host layer takes: the engines'.
LUMO_EXPORT bool isHostFormat(uint32_t pixelFormat);

// What became of a frame.
enum class FrameStatus {
  Drawn,          // the output holds the beautified frame
  PassedThrough,  // nothing was due (no pass enabled, or only skin passes and no region): output = input
  Failed,         // the output is not written; `why` says why
};

struct FrameResult {
  FrameStatus status = FrameStatus::Failed;
  std::string why;  // for PassedThrough and Failed
  bool ok() const { return status != FrameStatus::Failed; }
};

// Where the skin-gated passes act, frame by frame (faces/ implements it with its face tracker).
class LUMO_EXPORT RegionSource {
 public:
  virtual ~RegionSource();
  // The regions of `frame` in its own pixels. Called on the processing thread, one frame at a time; may
  // throw std::exception, which fails that frame with its message.
  virtual RegionMask regionsFor(PixelBuffer& frame) = 0;
};

// What every front end (the tool, the GStreamer element, the Python package) needs around an engine,
// decided once: it makes the engine (makeEngine), keeps the settings, hands the skin-gated passes the
// regions of a RegionSource, wraps the host's frames of every format and stride without a copy, keeps the caller's GL context as it was around every call, and draws with
// the CPU engine any frame the GL engine hands back undrawn (beyond its texture limit, a first frame of
// 1 x 1, a format it does not map), saying so once through the notice handler.
//
// process() is called one frame at a time (calls from several threads are serialised); the setters may be
// called from any thread and apply from the next frame.
class LUMO_EXPORT BeautifyHost {
 public:
  // Null, with the reason in `why`, when the engine cannot be made. On success `why` says what decided.
  static std::unique_ptr<BeautifyHost> create(EngineKind kind, std::string* why = nullptr);
  // Only create() can make the token; the constructor is public for std::make_unique.
  class Token {
    friend class BeautifyHost;
    Token() = default;
  };
  BeautifyHost(Token, std::unique_ptr<BeautifyEngine> engine, std::string reason);
  ~BeautifyHost();
  BeautifyHost(const BeautifyHost&) = delete;
  BeautifyHost& operator=(const BeautifyHost&) = delete;

  EngineKind kind() const;
  // What decided the engine, e.g. "GL renderer is llvmpipe (...)".
  const std::string& reason() const { return reason_; }

  void applySettings(const BeautifySettings& settings);
  // Changes some settings in one step, so that setters racing each other lose nothing.
  void updateSettings(const std::function<void(BeautifySettings&)>& change);
  BeautifySettings settings() const;
  // Null: the whole frame (the default).
  void setRegionSource(std::shared_ptr<RegionSource> source);
  std::shared_ptr<RegionSource> regionSource() const;
  // Told once, the first time the CPU engine draws a frame the GL engine handed back undrawn.
  void setNoticeHandler(std::function<void(const std::string&)> handler);

  // Beautifies `in` into `out`, of the same format and size; `out` may be `in` itself (in place).
  FrameResult process(const HostFrame& in, const HostFrame& out);
  FrameResult process(const HostFrame& frame) { return process(frame, frame); }

  // The regions the last frame was drawn with.
  RegionMask lastRegions() const;

 private:
  FrameResult processLocked(const HostFrame& in, const HostFrame& out);
  PixelBufferRef render(BeautifyEngine& engine, const PixelBufferRef& input);

  std::unique_ptr<BeautifyEngine> engine_;
  std::unique_ptr<BeautifyEngine> fallback_;  // the CPU engine, made on the first frame GL hands back
  std::string reason_;

  mutable std::mutex settingsMutex_;
  BeautifySettings settings_;
  std::shared_ptr<RegionSource> source_;
  std::function<void(const std::string&)> notice_;

  mutable std::mutex frameMutex_;  // one frame at a time
  bool regionLimited_ = false;     // the engines have a region mask in force
  RegionMask lastRegions_;
};

}  // namespace lumo
