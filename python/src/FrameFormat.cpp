#include "FrameFormat.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <lumo/PixelBuffer.h>
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

const std::array<FrameFormat, 4> kFormats{{
    {"bgr", 3, false, bgrToBgra, bgraToBgr},
    {"bgra", 4, true, copyBgra, copyBgra},
    {"nv12", 1, false, nullptr, nullptr, kPixelFormatNV12},
    {"i420", 1, false, nullptr, nullptr, kPixelFormatI420},
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
    if (format.channels == channels && format.planarFormat == 0) return &format;
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

namespace {

// Four BGR pixels are three words: w0 = B0 G0 R0 B1, w1 = G1 R1 B2 G2, w2 = R2 B3 G3 R3 (lowest byte first).
// Portable; from pixel `x` to the end of the row.
void bgrToBgraWords(const uint8_t* in, uint8_t* out, int32_t x, int32_t width) {
  for (; x + 4 <= width; x += 4) {
    const uint8_t* from = in + 3 * x;
    uint8_t* to = out + 4 * x;
    const uint32_t w0 = load32(from), w1 = load32(from + 4), w2 = load32(from + 8);
    store32(to, w0 | kOpaque);
    store32(to + 4, (w0 >> 24) | (w1 << 8) | kOpaque);
    store32(to + 8, (w1 >> 16) | (w2 << 16) | kOpaque);
    store32(to + 12, (w2 >> 8) | kOpaque);
  }
  for (; x < width; ++x) store32(out + 4 * x, in[3 * x] | in[3 * x + 1] << 8 | in[3 * x + 2] << 16 | kOpaque);
}

void bgraToBgrWords(const uint8_t* in, uint8_t* out, int32_t x, int32_t width) {
  for (; x + 4 <= width; x += 4) {
    const uint8_t* from = in + 4 * x;
    uint8_t* to = out + 3 * x;
    const uint32_t p0 = load32(from), p1 = load32(from + 4), p2 = load32(from + 8), p3 = load32(from + 12);
    store32(to, (p0 & 0x00FFFFFFu) | (p1 << 24));
    store32(to + 4, ((p1 >> 8) & 0x0000FFFFu) | (p2 << 16));
    store32(to + 8, ((p2 >> 16) & 0x000000FFu) | (p3 << 8));
  }
  for (; x < width; ++x) std::memcpy(out + 3 * x, in + 4 * x, 3);
}

#if defined(__x86_64__)
// One byte shuffle moves four pixels (about four times the words' speed). A 16-byte access at 3 x stays
// inside a row of `width` pixels while x + 6 <= width; the rest of the row goes word-wise.
__attribute__((target("ssse3"))) int32_t bgrToBgraShuffle(const uint8_t* in, uint8_t* out, int32_t width) {
  const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m128i opaque = _mm_set1_epi32(static_cast<int>(kOpaque));
  int32_t x = 0;
  for (; x + 6 <= width; x += 4) {
    const __m128i bgr = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 3 * x));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * x), _mm_or_si128(_mm_shuffle_epi8(bgr, spread), opaque));
  }
  return x;
}

// The 16-byte store also writes the first bytes of the next four pixels, which the next step overwrites.
__attribute__((target("ssse3"))) int32_t bgraToBgrShuffle(const uint8_t* in, uint8_t* out, int32_t width) {
  const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  int32_t x = 0;
  for (; x + 6 <= width; x += 4) {
    const __m128i bgra = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 4 * x));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 3 * x), _mm_shuffle_epi8(bgra, pack));
  }
  return x;
}

const bool kHasShuffle = __builtin_cpu_supports("ssse3");
#endif

}  // namespace

void bgrToBgra(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    int32_t x = 0;
#if defined(__x86_64__)
    if (kHasShuffle) x = bgrToBgraShuffle(in, out, width);
#endif
    bgrToBgraWords(in, out, x, width);
  }
}

void bgraToBgr(const uint8_t* from, size_t fromStride, uint8_t* to, size_t toStride, int32_t width, int32_t height) {
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = from + fromStride * static_cast<size_t>(y);
    uint8_t* out = to + toStride * static_cast<size_t>(y);
    int32_t x = 0;
#if defined(__x86_64__)
    if (kHasShuffle) x = bgraToBgrShuffle(in, out, width);
#endif
    bgraToBgrWords(in, out, x, width);
  }
}

}  // namespace lumo::python
