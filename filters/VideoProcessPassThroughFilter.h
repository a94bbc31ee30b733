#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// Copies its input to its target unchanged.
class LUMO_EXPORT VideoProcessPassThroughFilter : public VideoProcessFilter {
 public:
  VideoProcessPassThroughFilter();
};

}  // namespace lumo
