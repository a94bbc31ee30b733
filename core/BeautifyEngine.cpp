#include "BeautifyEngine.h"

namespace lumo {

const char* engineKindName(EngineKind kind) {
  switch (kind) {
    case EngineKind::Gl: return "gl";
    case EngineKind::Cpu: return "cpu";
    case EngineKind::Auto: break;
  }
  return "auto";
}

bool parseEngineKind(const std::string& text, EngineKind* kind) {
  for (const EngineKind candidate : {EngineKind::Auto, EngineKind::Gl, EngineKind::Cpu}) {
    if (text == engineKindName(candidate)) {
      *kind = candidate;
      return true;
    }
  }
  return false;
}

BeautifyEngine::BeautifyEngine() = default;
BeautifyEngine::~BeautifyEngine() = default;

int32_t BeautifyEngine::enableBeautifying(uintptr_t mask) {
  m_nEnableBeautifyingLastUpdate.store(static_cast<int32_t>(static_cast<uint32_t>(mask)), std::memory_order_relaxed);
  return 1;
}

int32_t BeautifyEngine::setCustomizedFilter(uintptr_t index) {
  m_nCustomizedFilterIndexLastUpdate.store(static_cast<int32_t>(static_cast<uint32_t>(index)),
                                           std::memory_order_relaxed);
  return 1;
}

int32_t BeautifyEngine::setPolishStep(float step) {
  polish_step_.store(step, std::memory_order_relaxed);
  return 0;
}

int32_t BeautifyEngine::setPolishFactor(float factor) {
  polish_color_distance_factor_.store(factor, std::memory_order_relaxed);
  return 0;
}

int32_t BeautifyEngine::setWhitenFactor(float factor) {
  whiten_factor_.store(factor, std::memory_order_relaxed);
  return 0;
}

int32_t BeautifyEngine::setSharppenFactor(float factor) {
  sharppen_factor_.store(factor, std::memory_order_relaxed);
  return 0;
}

int32_t BeautifyEngine::setSkinWhitenFactor(float factor) {
  pinkwhiten_factor_.store(factor, std::memory_order_relaxed);
  return 0;
}

void BeautifyEngine::setRegionMask(RegionMask mask) {
  const std::lock_guard<std::mutex> lock(regionMutex_);
  region_ = std::move(mask);
  regionVersion_.fetch_add(1, std::memory_order_release);
}

RegionMask BeautifyEngine::regionMask() const {
  const std::lock_guard<std::mutex> lock(regionMutex_);
  return region_;
}

bool BeautifyEngine::takeRegionMask(uint64_t* seen, RegionMask* mask) const {
  if (regionVersion_.load(std::memory_order_acquire) == *seen) return false;
  const std::lock_guard<std::mutex> lock(regionMutex_);
  *mask = region_;
  *seen = regionVersion_.load(std::memory_order_relaxed);
  return true;
}

void BeautifyEngine::applySettings(const BeautifySettings& settings) {
  enableBeautifying(static_cast<uintptr_t>(static_cast<uint32_t>(settings.mask)));
  setCustomizedFilter(static_cast<uintptr_t>(static_cast<uint32_t>(settings.preset)));
  setPolishStep(settings.polishStep);
  setPolishFactor(settings.polishFactor);
  setWhitenFactor(settings.whiten);
  setSharppenFactor(settings.sharpen);
  setSkinWhitenFactor(settings.skinWhiten);
}

BeautifySettings BeautifyEngine::wantedSettings() const {
  BeautifySettings settings;
  settings.mask = m_nEnableBeautifyingLastUpdate.load(std::memory_order_relaxed);
  settings.preset = m_nCustomizedFilterIndexLastUpdate.load(std::memory_order_relaxed);
  settings.polishStep = polish_step_.load(std::memory_order_relaxed);
  settings.polishFactor = polish_color_distance_factor_.load(std::memory_order_relaxed);
  settings.whiten = whiten_factor_.load(std::memory_order_relaxed);
  settings.sharpen = sharppen_factor_.load(std::memory_order_relaxed);
  settings.skinWhiten = pinkwhiten_factor_.load(std::memory_order_relaxed);
  return settings;
}

void BeautifyEngine::applyWantedSettings() {
  const int32_t wantedMask = m_nEnableBeautifyingLastUpdate.load(std::memory_order_relaxed);
  if (wantedMask != m_nEnableBeautifying) doEnableBeautifying(wantedMask);
  const int32_t wantedIndex = m_nCustomizedFilterIndexLastUpdate.load(std::memory_order_relaxed);
  if (wantedIndex != m_nCustomizedFilterIndex) doSetCustomizedFilter(wantedIndex);
}

}  // namespace lumo
