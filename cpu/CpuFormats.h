#pragma once

#include <cstddef>
#include <cstdint>

#include "CpuKernels.h"
#include "PixelBuffer.h"

// Frames of the formats other than BGRA, to and from the packed BGRA the kernels work on. The engine runs
// these inside its first and last stages, band by band, so that a converted row is still in cache when the
// stage reads or writes it. SIMD through Highway, chosen at run time as for the pass kernels.
//
// 4:2:0 chroma is sited at the centre of its 2 x 2 block of luma (as a texture of half the size would be
// sampled): import upsamples it bilinearly (weights 3/4 and 1/4 towards the nearer sample, the edge sample
// repeated), export averages each block (fewer pixels at an odd edge). 4:2:2 chroma (I422, YUY2, UYVY) is
// sited at the centre of its pair of pixels on its own row and treated the same way across only. 24-bit
// rows gain and lose an opaque alpha.
namespace lumo::cpu {

struct Planes {
  uint32_t format = kPixelFormat32BGRA;
  int width = 0;
  int height = 0;
  uint8_t* data[kPixelBufferMaxPlanes] = {};
  size_t stride[kPixelBufferMaxPlanes] = {};
  YuvColorimetry colorimetry;  // resolved
};

// 16-bit samples a worker needs for importRows at this width: two blended chroma rows.
size_t importScratchSamples(int width);

// Rows [y0, y1) of `in` into `out` (alpha 255 where the format has none). Results are those of the exact
// arithmetic on the coefficients of YuvCoefficients.h, rounded once to the nearest level.
void importRows(const Planes& in, const Image& out, uint16_t* scratch, int y0, int y1);
// Rows [y0, y1) of `in` into `out`; for YUV formats y0 is even and y1 even or the height.
void exportRows(const ConstImage& in, const Planes& out, int y0, int y1);

}  // namespace lumo::cpu
