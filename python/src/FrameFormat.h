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

// A frame layout Python hands in, and how it meets the engines. Every layout the module takes is a row of
// this table (frameFormats()), so a new one is one more row.
struct FrameFormat {
  const char* name;
  int32_t channels;  // packed: bytes per pixel, the array is H x W x channels; planar: 1
  bool bgra;         // already the engines' layout: wrapped without a copy
  RowConverter toBgra;
  RowConverter fromBgra;
  // Planar YUV 4:2:0 (NV12, I420) as OpenCV holds it: one (H * 3 / 2) x W array of the planes one after
  // another, handed to the engines as planes without a copy; 0 for the packed layouts.
  uint32_t planarFormat = 0;
};

// The format called `name`, or null.
const FrameFormat* findFrameFormat(const std::string& name);
// The packed format an H x W x `channels` array is taken as when no format is named, or null.
const FrameFormat* defaultFrameFormat(int32_t channels);
// "bgr, bgra, nv12, i420": for error messages.
std::string frameFormatNames();

// Copies `rows` rows of `rowBytes` bytes between two strides.
void copyRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, size_t rowBytes, int32_t rows);

// BGR <-> BGRA with alpha 255: four pixels per byte shuffle where the CPU has SSSE3, per three 32-bit words
// elsewhere.
void bgrToBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height);
void bgraToBgr(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height);

}  // namespace lumo::python
