// The cap on the kernels' instruction set: Highway's dispatch picks the best target it was not told to
// leave out, so the cap is the set of better targets disabled.
#include <hwy/targets.h>

#include <cstring>

#include "CpuImageFilter.h"

namespace lumo {
namespace {

struct SimdLevel {
  const char* name;
  int64_t best;  // the best target allowed; 0: no cap
};

// Highway numbers better targets with lower bits.
constexpr SimdLevel kLevels[] = {
    {"best", 0}, {"avx3", HWY_AVX3}, {"avx2", HWY_AVX2}, {"sse4", HWY_SSE4}, {"scalar", HWY_SCALAR},
};

}  // namespace

bool CpuImageFilter::limitSimd(const std::string& name) {
  for (const SimdLevel& level : kLevels) {
    if (name == level.name) {
      hwy::DisableTargets(level.best == 0 ? 0 : level.best - 1);
      return true;
    }
  }
  return false;
}

}  // namespace lumo
