#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumo::python {

// A host frame's memory: `height` rows of `width` pixels, `stride` bytes apart.
struct FrameView {
  uint8_t* data = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  size_t stride = 0;
};

// Converts the pixels of one layout into another, row by row, between any two strides.
using RowConverter = void (*)(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width,
                              int32_t height);

// A frame layout Python hands in, and how it meets the engines' BGRA. Every layout the module takes is a
// row of this table (frameFormats()), so a new one is one more row.
struct FrameFormat {
  const char* name;
  int32_t channels;  // bytes per pixel: the array is H x W x channels
  bool bgra;         // already the engines' layout: wrapped without a copy
  RowConverter toBgra;
  RowConverter fromBgra;
};

// The format called `name`, or null.
const FrameFormat* findFrameFormat(const std::string& name);
// The format an H x W x `channels` array is taken as when no format is named, or null.
const FrameFormat* defaultFrameFormat(int32_t channels);
// "bgr, bgra": for error messages.
std::string frameFormatNames();

// Copies `rows` rows of `rowBytes` bytes between two strides.
void copyRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, size_t rowBytes, int32_t rows);

// BGR <-> BGRA with alpha 255: four pixels per byte shuffle where the CPU has SSSE3, per three 32-bit words
// elsewhere.
void bgrToBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height);
void bgraToBgr(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height);

}  // namespace lumo::python
