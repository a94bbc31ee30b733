#include "FrameFormat.h"

#include <array>
#include <cstring>

#include <lumo/PixelRows.h>

namespace lumo::python {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the word shuffles below assume little-endian pixels");

constexpr uint32_t kOpaque = 0xFF000000u;  // alpha 255 in a little-endian BGRA word

inline uint32_t load32(const uint8_t* p) {
  uint32_t word;
  std::memcpy(&word, p, 4);
  return word;
}

inline void store32(uint8_t* p, uint32_t word) { std::memcpy(p, &word, 4); }

void copyBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  copyPixelRows(from, fromStride, to, toStride, width, height);
}

const std::array<FrameFormat, 2> kFormats{{
    {"bgr", 3, false, bgrToBgra, bgraToBgr},
    {"bgra", 4, true, copyBgra, copyBgra},
}};

}  // namespace

const FrameFormat* findFrameFormat(const std::string& name) {
  for (const FrameFormat& format : kFormats) {
    if (name == format.name) return &format;
  }
  return nullptr;
}

const FrameFormat* defaultFrameFormat(int32_t channels) {
  for (const FrameFormat& format : kFormats) {
    if (format.channels == channels) return &format;
  }
  return nullptr;
}

std::string frameFormatNames() {
  std::string names;
  for (const FrameFormat& format : kFormats) {
    if (!names.empty()) names += ", ";
    names += format.name;
  }
  return names;
}

void copyRows(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, size_t rowBytes, int32_t rows) {
  if (from == to && fromStride == toStride) return;  // in place: nothing moves
  for (int32_t y = 0; y < rows; ++y) {
    std::memmove(to + toStride * static_cast<size_t>(y), from + fromStride * static_cast<size_t>(y), rowBytes);
  }
}

// Four BGR pixels are three words: w0 = B0 G0 R0 B1, w1 = G1 R1 B2 G2, w2 = R2 B3 G3 R3 (lowest byte first).
void bgrToBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  const int32_t quads = width / 4;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    for (int32_t q = 0; q < quads; ++q, in += 12, out += 16) {
      const uint32_t w0 = load32(in), w1 = load32(in + 4), w2 = load32(in + 8);
      store32(out, w0 | kOpaque);
      store32(out + 4, (w0 >> 24) | (w1 << 8) | kOpaque);
      store32(out + 8, (w1 >> 16) | (w2 << 16) | kOpaque);
      store32(out + 12, (w2 >> 8) | kOpaque);
    }
    for (int32_t x = quads * 4; x < width; ++x, in += 3, out += 4) {
      out[0] = in[0];
      out[1] = in[1];
      out[2] = in[2];
      out[3] = 0xFF;
    }
  }
}

void bgraToBgr(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  const int32_t quads = width / 4;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    for (int32_t q = 0; q < quads; ++q, in += 16, out += 12) {
      const uint32_t p0 = load32(in), p1 = load32(in + 4), p2 = load32(in + 8), p3 = load32(in + 12);
      store32(out, (p0 & 0x00FFFFFFu) | (p1 << 24));
      store32(out + 4, ((p1 >> 8) & 0x0000FFFFu) | (p2 << 16));
      store32(out + 8, ((p2 >> 16) & 0x000000FFu) | (p3 << 8));
    }
    for (int32_t x = quads * 4; x < width; ++x, in += 4, out += 3) {
      out[0] = in[0];
      out[1] = in[1];
      out[2] = in[2];
    }
  }
}

}  // namespace lumo::python
