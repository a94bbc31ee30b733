#include "ImageIO.h"

#include <jpeglib.h>
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace lumo::tools {
namespace {

bool hasSuffix(std::string text, const std::string& suffix) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

constexpr size_t kMaxPixels = size_t{1} << 28;  // 16384 x 16384: refuse absurd headers before allocating

bool decodePng(const uint8_t* data, size_t size, Image* image, std::string* error) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&png, data, size) == 0) {
    *error = std::string("not a readable PNG (") + png.message + ")";
    return false;
  }
  if (static_cast<size_t>(png.width) * png.height > kMaxPixels) {
    png_image_free(&png);
    *error = "PNG too large";
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

bool decodeJpeg(const uint8_t* data, size_t size, Image* image, std::string* error) {
  jpeg_decompress_struct info;
  JpegError jerr;
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
  jpeg_mem_src(&info, data, static_cast<unsigned long>(size));
  jpeg_read_header(&info, TRUE);
  if (static_cast<size_t>(info.image_width) * info.image_height > kMaxPixels) {
    jpeg_destroy_decompress(&info);
    *error = "JPEG too large";
    return false;
  }
  info.out_color_space = JCS_EXT_BGRA;
  jpeg_start_decompress(&info);
  const size_t stride = static_cast<size_t>(info.output_width) * 4;
  pixels.resize(stride * info.output_height);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = pixels.data() + stride * info.output_scanline;
    jpeg_read_scanlines(&info, &row, 1);
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
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    *error = std::strerror(errno);
    return false;
  }
  std::vector<uint8_t> data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) {
    *error = "read error";
    return false;
  }
  return decodeImage(data.data(), data.size(), image, error);
}

bool writeImage(const std::string& path, const Image& image, std::string* error) {
  std::vector<uint8_t> encoded;
  const ImageFormat format = formatForPath(path);
  if (format == ImageFormat::Unknown) {
    *error = "unsupported output format (use .png, .jpg or .jpeg)";
    return false;
  }
  if (!(format == ImageFormat::Png ? encodePng(image, &encoded, error) : encodeJpeg(image, &encoded, error))) {
    return false;
  }
  const bool inPlace = isSpecialFile(path);
  const std::string temporary = inPlace ? path : path + ".tmp-" + std::to_string(::getpid());
  std::FILE* file = std::fopen(temporary.c_str(), "wb");
  if (file == nullptr) {
    *error = std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(encoded.data(), 1, encoded.size(), file) == encoded.size();
  // fsync means nothing on a device or pipe (and fails on some); the flush still reports a full disk.
  const bool flushed = std::fflush(file) == 0 && (inPlace || ::fsync(fileno(file)) == 0);
  const int savedErrno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !flushed || !closed) {
    if (!inPlace) std::remove(temporary.c_str());
    *error = std::strerror(savedErrno != 0 ? savedErrno : EIO);
    return false;
  }
  if (!inPlace && std::rename(temporary.c_str(), path.c_str()) != 0) {
    *error = std::strerror(errno);
    std::remove(temporary.c_str());
    return false;
  }
  return true;
}

bool isSpecialFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

}  // namespace lumo::tools
