#pragma once

#include <cstddef>
#include <cstdint>

namespace lumo::cpu {

// 24-bit BGR rows to the engines' BGRA (alpha 255) and back, between any two strides, at the best
// instruction set the CPU engine's dispatch allows. `to` may not overlap `from`.
void bgrToBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height);
void bgraToBgr(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height);

}  // namespace lumo::cpu
