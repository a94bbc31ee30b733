#include "ImageIO.h"

#include <jpeglib.h>
#include <png.h>

#include <lumo/FrameLimits.h>

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

// Sides and pixel count within the library's limits; false with the reason otherwise.
bool withinLimits(const char* format, uint64_t width, uint64_t height, std::string* error) {
  // Header fields are at most 32 bits: within int64_t as they are.
  const std::string problem = lumo::frameSizeProblem(static_cast<int64_t>(width), static_cast<int64_t>(height));
  if (problem.empty()) return true;
  *error = std::string(format) + " image: " + problem;
  return false;
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

// The EXIF Orientation (1..8) in a JPEG's APP1 segments; 1, as stored, when there is none or it is unreadable.
int exifOrientation(jpeg_saved_marker_ptr marker) {
  for (; marker != nullptr; marker = marker->next) {
    const uint8_t* exif = marker->data;
    const size_t size = marker->data_length;
    if (marker->marker != JPEG_APP0 + 1 || size < 14 || std::memcmp(exif, "Exif\0\0", 6) != 0) continue;
    const uint8_t* tiff = exif + 6;
    const size_t length = size - 6;
    const bool little = tiff[0] == 'I' && tiff[1] == 'I';
    if (!little && !(tiff[0] == 'M' && tiff[1] == 'M')) continue;
    auto u16 = [&](size_t at) -> uint32_t {
      return little ? tiff[at] | tiff[at + 1] << 8 : tiff[at] << 8 | tiff[at + 1];
    };
    auto u32 = [&](size_t at) -> uint32_t { return little ? u16(at) | u16(at + 2) << 16 : u16(at) << 16 | u16(at + 2); };
    const size_t ifd = u32(4);
    if (ifd + 2 > length) continue;
    const size_t entries = u16(ifd);
    for (size_t i = 0; i < entries && ifd + 2 + 12 * (i + 1) <= length; ++i) {
      const size_t entry = ifd + 2 + 12 * i;
      // Orientation: tag 0x0112, one SHORT (type 3) held in the value field itself.
      if (u16(entry) == 0x0112 && u16(entry + 2) == 3 && u32(entry + 4) == 1) {
        const uint32_t value = u16(entry + 8);
        return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
      }
    }
  }
  return 1;
}

// Turns a picture stored in EXIF orientation `orientation` upright, as a viewer would show it: each output
// pixel is read from where that orientation stored it.
void orientUpright(Image* image, int orientation) {
  if (orientation <= 1) return;
  const int32_t w = image->width, h = image->height;
  const bool swaps = orientation >= 5;  // 5..8 turn the picture a quarter
  const int32_t outWidth = swaps ? h : w, outHeight = swaps ? w : h;
  std::vector<uint8_t> out(image->bgra.size());
  for (int32_t y = 0; y < outHeight; ++y) {
    for (int32_t x = 0; x < outWidth; ++x) {
      int32_t sx = x, sy = y;
      switch (orientation) {
        case 2: sx = w - 1 - x; break;                   // mirrored
        case 3: sx = w - 1 - x; sy = h - 1 - y; break;   // upside down
        case 4: sy = h - 1 - y; break;                   // mirrored upside down
        case 5: sx = y; sy = x; break;                   // transposed
        case 6: sx = y; sy = h - 1 - x; break;           // turned a quarter anticlockwise: turn it clockwise
        case 7: sx = w - 1 - y; sy = h - 1 - x; break;   // transversed
        default: sx = w - 1 - y; sy = x; break;          // 8: turned clockwise: turn it back
      }
      std::memcpy(&out[(static_cast<size_t>(y) * outWidth + x) * 4],
                  &image->bgra[(static_cast<size_t>(sy) * w + sx) * 4], 4);
    }
  }
  image->width = outWidth;
  image->height = outHeight;
  image->bgra = std::move(out);
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
  jpeg_save_markers(&info, JPEG_APP0 + 1, 0xFFFF);  // EXIF, for the orientation
  jpeg_read_header(&info, TRUE);
  const int orientation = exifOrientation(info.marker_list);  // the saved markers last until the decode ends
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
  // A phone stores the sensor's rows and says how to turn them; the picture is beautified, searched for
  // faces and written the way it is meant to be seen.
  orientUpright(image, orientation);
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

ImageFormat formatOfBytes(const uint8_t* data, size_t size) {
  static const uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (size >= 8 && std::memcmp(data, kPngSignature, 8) == 0) return ImageFormat::Png;
  if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) return ImageFormat::Jpeg;
  return ImageFormat::Unknown;
}

bool decodeImage(const uint8_t* data, size_t size, Image* image, std::string* error) {
  switch (formatOfBytes(data, size)) {
    case ImageFormat::Png: return decodePng(data, size, image, error);
    case ImageFormat::Jpeg: return decodeJpeg(data, size, image, error);
    default: break;
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
