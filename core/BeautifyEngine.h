#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "BeautifySettings.h"
#include "Export.h"
#include "PixelBuffer.h"
#include "RegionMask.h"

namespace lumo {

enum class EngineKind { Auto, Gl, Cpu };

// "auto", "gl", "cpu".
LUMO_EXPORT const char* engineKindName(EngineKind kind);
LUMO_EXPORT bool parseEngineKind(const std::string& text, EngineKind* kind);

// The host interface of every engine: one BGRA frame in, the processed frame out.
//
// create(), destroy() and render() are called one at a time, from any thread. The setters may be called
// from any thread at any time: they only record a value, and the engine applies it at the top of its next
// frame, so that everything an engine builds or tears down happens on the rendering thread.
class LUMO_EXPORT BeautifyEngine {
 public:
  virtual ~BeautifyEngine();
  BeautifyEngine(const BeautifyEngine&) = delete;
  BeautifyEngine& operator=(const BeautifyEngine&) = delete;

  // Both always return 0; a second create() without destroy() does nothing.
  virtual int32_t create() = 0;
  virtual int32_t destroy() = 0;
  // Null before create() and after destroy(); the input itself when no pass runs or the frame cannot be
  // drawn; otherwise one of the engine's output buffers, which it may draw into again at the next frame: a
  // host reads or copies the result before its next call (a buffer it still holds is never freed).
  virtual PixelBufferRef render(const PixelBufferRef& pixelBuffer) = 0;
  virtual EngineKind kind() const = 0;

  // The wanted mask or preset index: the low 32 bits as a signed value, applied at the next frame. Return 1.
  int32_t enableBeautifying(uintptr_t mask);
  int32_t setCustomizedFilter(uintptr_t index);
  // Stored as given, read at each frame. Return 0.
  int32_t setPolishStep(float step);
  int32_t setPolishFactor(float factor);
  int32_t setWhitenFactor(float factor);
  int32_t setSharppenFactor(float factor);
  int32_t setSkinWhitenFactor(float factor);

  // Limits the skin-gated passes to the mask's regions from the next frame on; RegionMask::whole() (the
  // default) lifts the limit. Any thread, like the other setters.
  void setRegionMask(RegionMask mask);
  RegionMask regionMask() const;

  // All seven settings, as the setters would record them.
  void applySettings(const BeautifySettings& settings);
  // What the host asked for last (applied at the next frame, if not already).
  BeautifySettings wantedSettings() const;

 protected:
  BeautifyEngine();

  // At the top of a frame: hands a wanted mask or preset index that differs from the one in force to
  // doEnableBeautifying / doSetCustomizedFilter, which build or release what it needs.
  void applyWantedSettings();
  // The region mask the host set since `*seen`, copied into `*mask`; false (and no copy) when it has not
  // changed, so that a steady frame takes no lock and allocates nothing.
  bool takeRegionMask(uint64_t* seen, RegionMask* mask) const;
  virtual int32_t doEnableBeautifying(int32_t mask) = 0;
  virtual int32_t doSetCustomizedFilter(int32_t index) = 0;

  int32_t m_nEnableBeautifying = 0;  // in force
  std::atomic<int32_t> m_nEnableBeautifyingLastUpdate{0};
  int32_t m_nCustomizedFilterIndex = 0;  // in force
  std::atomic<int32_t> m_nCustomizedFilterIndexLastUpdate{0};
  // Single 32-bit stores and loads, relaxed: a setter racing a frame is seen by this frame or the next.
  std::atomic<float> polish_step_{BeautifySettings::kPolishStep.fallback};
  std::atomic<float> polish_color_distance_factor_{BeautifySettings::kPolishFactor.fallback};
  std::atomic<float> whiten_factor_{BeautifySettings::kWhiten.fallback};
  std::atomic<float> sharppen_factor_{BeautifySettings::kSharpen.fallback};
  std::atomic<float> pinkwhiten_factor_{BeautifySettings::kSkinWhiten.fallback};

 private:
  mutable std::mutex regionMutex_;
  RegionMask region_;
  std::atomic<uint64_t> regionVersion_{0};
};

}  // namespace lumo
