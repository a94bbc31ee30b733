#include "ImageIO.h"

#include <jpeglib.h>
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

#include <unistd.h>

#include "SafeFile.h"

namespace lumo::tools {
namespace {

bool hasSuffix(std::string text, const std::string& suffix) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string dimensions(uint64_t width, uint64_t height) { return std::to_string(width) + "x" + std::to_string(height); }

// Sides and pixel count within the limits; false with the reason otherwise.
bool withinLimits(const char* format, uint64_t width, uint64_t height, std::string* error) {
  if (width == 0 || height == 0 || width > kMaxImageSide || height > kMaxImageSide ||
      width * height > kMaxImagePixels) {
    *error = std::string(format) + " of " + dimensions(width, height) + " is above the limit (" +
             std::to_string(kMaxImageSide) + " a side, " + std::to_string(kMaxImagePixels >> 20) + " Mi pixels)";
    return false;
  }
  return true;
}

// Deflate codes at most 258 bytes with one length/distance pair, which takes at least two bits, so a zlib
// stream never inflates more than 1032:1. A PNG's filtered rows (a filter byte and the packed samples each)
// therefore need at least 1/1032 of their size in compressed bytes. This is the format's own bound, not a
// guess about photos: a file smaller than that cannot hold the rows its header declares.
constexpr uint64_t kDeflateMaxRatio = 1032;

bool decodePng(const uint8_t* data, size_t size, Image* image, std::string* error) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&png, data, size) == 0) {
    *error = std::string("not a readable PNG (") + png.message + ")";
    return false;
  }
  if (!withinLimits("PNG", png.width, png.height, error)) {
    png_image_free(&png);
    return false;
  }
  // IHDR follows the signature (libpng has checked it): bit depth at byte 24, colour type at 25.
  static const int kChannels[7] = {1, 0, 3, 1, 2, 0, 4};
  const uint64_t bitsPerPixel = static_cast<uint64_t>(data[24]) * (data[25] < 7 ? kChannels[data[25]] : 4);
  const uint64_t rows = (static_cast<uint64_t>(png.width) * bitsPerPixel + 7) / 8 + 1;
  if (rows * png.height > kDeflateMaxRatio * size) {
    *error = "PNG declares " + dimensions(png.width, png.height) + " pixels, more than its " + std::to_string(size) +
             " bytes can hold (truncated or forged)";
    png_image_free(&png);
    return false;
  }
  png.format = PNG_FORMAT_BGRA;
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
  if (png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr) == 0) {
    *error = std::string("corrupt or truncated PNG (") + png.message + ")";
    png_image_free(&png);
    return false;
  }
  image->width = static_cast<int32_t>(png.width);
  image->height = static_cast<int32_t>(png.height);
  image->bgra = std::move(pixels);
  return true;
}

struct JpegError {
  jpeg_error_mgr manager;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr info) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  (*info->err->format_message)(info, error->message);
  std::longjmp(error->jump, 1);
}

void jpegWarning(j_common_ptr info, int level) {
  // A corrupt-data warning (level -1) means a damaged or truncated file: treat it as an error.
  if (level < 0) jpegErrorExit(info);
}

// A Huffman-coded JPEG spends at least one bit on every 8 x 8 block of every component (the DC difference,
// and a baseline scan an end-of-block code too), so it holds at most 512 pixels per byte; photographs hold
// fewer than 100 (0.1 bit a pixel is a very flat picture already). 2048 leaves room for arithmetic coding's
// flat areas and still refuses a few hundred bytes that declare a gigapixel.
constexpr uint64_t kJpegMaxPixelsPerByte = 2048;
// Real progressive files have about ten scans; thousands of tiny ones would each sweep the whole image.
constexpr int kJpegMaxScans = 500;

void jpegProgress(j_common_ptr info) {
  auto* decompress = reinterpret_cast<j_decompress_ptr>(info);
  if (decompress->input_scan_number > kJpegMaxScans) {
    auto* error = reinterpret_cast<JpegError*>(info->err);
    std::snprintf(error->message, sizeof error->message, "more than %d scans", kJpegMaxScans);
    std::longjmp(error->jump, 1);
  }
}

// CMYK to BGRA in place. Adobe's files (an APP14 marker) store the inks inverted, 255 meaning none.
void cmykToBgra(uint8_t* row, size_t pixels, bool inverted) {
  for (size_t i = 0; i < pixels; ++i, row += 4) {
    unsigned ink[4];
    for (int c = 0; c < 4; ++c) ink[c] = inverted ? row[c] : 255u - row[c];
    const unsigned k = ink[3];
    row[0] = static_cast<uint8_t>((ink[2] * k + 127) / 255);  // yellow's absence is blue
    row[1] = static_cast<uint8_t>((ink[1] * k + 127) / 255);
    row[2] = static_cast<uint8_t>((ink[0] * k + 127) / 255);
    row[3] = 255;
  }
}

bool decodeJpeg(const uint8_t* data, size_t size, Image* image, std::string* error) {
  jpeg_decompress_struct info;
  JpegError jerr;
  jpeg_progress_mgr progress{};
  info.err = jpeg_std_error(&jerr.manager);
  jerr.manager.error_exit = jpegErrorExit;
  jerr.manager.emit_message = jpegWarning;
  std::vector<uint8_t> pixels;
  if (setjmp(jerr.jump) != 0) {
    jpeg_destroy_decompress(&info);
    *error = std::string("corrupt or truncated JPEG (") + jerr.message + ")";
    return false;
  }
  jpeg_create_decompress(&info);
  progress.progress_monitor = jpegProgress;
  info.progress = &progress;
  jpeg_mem_src(&info, data, static_cast<unsigned long>(size));
  jpeg_read_header(&info, TRUE);
  if (!withinLimits("JPEG", info.image_width, info.image_height, error)) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  if (static_cast<uint64_t>(info.image_width) * info.image_height > kJpegMaxPixelsPerByte * size) {
    *error = "JPEG declares " + dimensions(info.image_width, info.image_height) + " pixels, more than its " +
             std::to_string(size) + " bytes can hold (truncated or forged)";
    jpeg_destroy_decompress(&info);
    return false;
  }
  const bool cmyk = info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK;
  const bool inverted = info.saw_Adobe_marker != 0;
  info.out_color_space = cmyk ? JCS_CMYK : JCS_EXT_BGRA;  // libjpeg converts YCCK to CMYK, not to RGB
  jpeg_start_decompress(&info);
  const size_t stride = static_cast<size_t>(info.output_width) * 4;
  pixels.resize(stride * info.output_height);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = pixels.data() + stride * info.output_scanline;
    jpeg_read_scanlines(&info, &row, 1);
    if (cmyk) cmykToBgra(row, info.output_width, inverted);
  }
  jpeg_finish_decompress(&info);
  image->width = static_cast<int32_t>(info.output_width);
  image->height = static_cast<int32_t>(info.output_height);
  jpeg_destroy_decompress(&info);
  image->bgra = std::move(pixels);
  return true;
}

bool encodePng(const Image& image, std::vector<uint8_t>* out, std::string* error) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width);
  png.height = static_cast<png_uint_32>(image.height);
  png.format = PNG_FORMAT_BGRA;
  // One pass into a buffer of the largest possible size, rather than a sizing pass and a second encode.
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
  out->resize(size);
  if (png_image_write_to_memory(&png, out->data(), &size, 0, image.bgra.data(), 0, nullptr) == 0) {
    *error = std::string("PNG encoding failed (") + png.message + ")";
    return false;
  }
  out->resize(size);
  return true;
}

bool encodeJpeg(const Image& image, std::vector<uint8_t>* out, std::string* error) {
  jpeg_compress_struct info;
  JpegError jerr;
  info.err = jpeg_std_error(&jerr.manager);
  jerr.manager.error_exit = jpegErrorExit;
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  if (setjmp(jerr.jump) != 0) {
    jpeg_destroy_compress(&info);
    std::free(buffer);
    *error = std::string("JPEG encoding failed (") + jerr.message + ")";
    return false;
  }
  jpeg_create_compress(&info);
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = static_cast<JDIMENSION>(image.width);
  info.image_height = static_cast<JDIMENSION>(image.height);
  info.input_components = 4;
  info.in_color_space = JCS_EXT_BGRA;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 92, TRUE);
  jpeg_start_compress(&info, TRUE);
  const size_t stride = static_cast<size_t>(image.width) * 4;
  while (info.next_scanline < info.image_height) {
    auto* row = const_cast<JSAMPROW>(image.bgra.data() + stride * info.next_scanline);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  out->assign(buffer, buffer + size);
  jpeg_destroy_compress(&info);
  std::free(buffer);
  return true;
}

}  // namespace

ImageFormat formatForPath(const std::string& path) {
  if (hasSuffix(path, ".png")) return ImageFormat::Png;
  if (hasSuffix(path, ".jpg") || hasSuffix(path, ".jpeg")) return ImageFormat::Jpeg;
  return ImageFormat::Unknown;
}

bool decodeImage(const uint8_t* data, size_t size, Image* image, std::string* error) {
  static const uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (size >= 8 && std::memcmp(data, kPngSignature, 8) == 0) return decodePng(data, size, image, error);
  if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
    return decodeJpeg(data, size, image, error);
  }
  *error = size == 0 ? "empty file" : "unsupported image format (PNG and JPEG are read)";
  return false;
}

bool readImage(const std::string& path, Image* image, std::string* error) {
  const int fd = openInput(path, InputUse::Photo, nullptr, error);
  if (fd < 0) return false;
  std::vector<uint8_t> data;
  const bool read = readAll(fd, kMaxImageFileBytes, &data, error);
  ::close(fd);
  return read && decodeImage(data.data(), data.size(), image, error);
}

bool encodeImage(ImageFormat format, const Image& image, std::vector<uint8_t>* out, std::string* error) {
  if (format == ImageFormat::Png) return encodePng(image, out, error);
  if (format == ImageFormat::Jpeg) return encodeJpeg(image, out, error);
  *error = "unsupported output format (use .png, .jpg or .jpeg)";
  return false;
}

}  // namespace lumo::tools
