#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lumo::tools {

// A packed BGRA image (stride = width * 4), the layout the library takes.
struct Image {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> bgra;
};

enum class ImageFormat { Png, Jpeg, Unknown };

// A photo's file size is checked before it is read, its declared dimensions (against the library's frame
// limits) before the pixels are allocated.
inline constexpr size_t kMaxImageFileBytes = size_t{256} << 20;

// From the file name's extension: .png, .jpg, .jpeg (any case).
ImageFormat formatForPath(const std::string& path);
// From a file's first bytes (8 are enough): the PNG signature or a JPEG's SOI marker.
ImageFormat formatOfBytes(const uint8_t* data, size_t size);

// Decode a PNG or JPEG file (told apart by content). Returns false and a one-line reason on failure. A
// directory, a device or a file above kMaxImageFileBytes is refused before it is read. CMYK and YCCK JPEGs
// (Adobe's inverted CMYK included) are converted.
bool readImage(const std::string& path, Image* image, std::string* error);
bool decodeImage(const uint8_t* data, size_t size, Image* image, std::string* error);

// Encode to a format, JPEG at quality 92.
bool encodeImage(ImageFormat format, const Image& image, std::vector<uint8_t>* out, std::string* error);

}  // namespace lumo::tools
