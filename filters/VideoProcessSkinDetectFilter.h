#pragma once

#include <array>

#include "VideoProcessFilter.h"

namespace lumo {

// Keeps the colour and zeroes alpha outside skin tones, so alpha carries the skin mask down the chain.
class LUMO_EXPORT VideoProcessSkinDetectFilter : public VideoProcessFilter {
 public:
  VideoProcessSkinDetectFilter();

 private:
  // Same names as fields of the base, separate storage that nothing reads; part of the class's layout.
  [[maybe_unused]] int32_t m_nFrameUniform = 0;
  [[maybe_unused]] std::array<float, 8> m_lstVertices{};
  [[maybe_unused]] std::array<float, 8> m_lstTexCoord{};
};

}  // namespace lumo
