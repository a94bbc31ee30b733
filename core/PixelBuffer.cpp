#include "PixelBuffer.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

namespace lumo {
namespace {

std::atomic<uint64_t> nextIdentifier{1};

struct FormatName {
  uint32_t format;
  const char* name;
};
constexpr FormatName kFormatNames[] = {
    {kPixelFormat32BGRA, "bgra"}, {kPixelFormat32RGBA, "rgba"}, {kPixelFormat32BGRX, "bgrx"},
    {kPixelFormat32RGBX, "rgbx"}, {kPixelFormat24BGR, "bgr"},   {kPixelFormat24RGB, "rgb"},
    {kPixelFormatNV12, "nv12"},   {kPixelFormatI420, "i420"},   {kPixelFormatI422, "i422"},
    {kPixelFormatYUY2, "yuy2"},   {kPixelFormatUYVY, "uyvy"},
};

int32_t validate(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferRef* out) {
  if (out == nullptr) return kPixelBufferErrorInvalidArgument;
  if (width < 1 || height < 1 || width > kPixelBufferMaxDimension || height > kPixelBufferMaxDimension) {
    return kPixelBufferErrorInvalidSize;
  }
  if (pixelFormatPlaneCount(pixelFormat) == 0) return kPixelBufferErrorUnsupportedFormat;
  return kPixelBufferSuccess;
}

}  // namespace

int32_t pixelFormatPlaneCount(uint32_t pixelFormat) {
  switch (pixelFormat) {
    case kPixelFormat32BGRA:
    case kPixelFormat32RGBA:
    case kPixelFormat32BGRX:
    case kPixelFormat32RGBX:
    case kPixelFormat24BGR:
    case kPixelFormat24RGB:
    case kPixelFormatYUY2:
    case kPixelFormatUYVY: return 1;
    case kPixelFormatNV12: return 2;
    case kPixelFormatI420:
    case kPixelFormatI422: return 3;
    default: return 0;
  }
}

bool pixelFormatIsYuv(uint32_t pixelFormat) {
  return pixelFormat == kPixelFormatNV12 || pixelFormat == kPixelFormatI420 || pixelFormat == kPixelFormatI422 ||
         pixelFormatIsPackedYuv(pixelFormat);
}

bool pixelFormatIsPackedYuv(uint32_t pixelFormat) {
  return pixelFormat == kPixelFormatYUY2 || pixelFormat == kPixelFormatUYVY;
}

int32_t pixelFormatChromaRows(uint32_t pixelFormat) {
  return pixelFormat == kPixelFormatNV12 || pixelFormat == kPixelFormatI420 ? 2 : 1;
}

PixelPlaneGeometry pixelFormatPlane(uint32_t pixelFormat, int32_t width, int32_t height, int32_t plane) {
  const int32_t planes = pixelFormatPlaneCount(pixelFormat);
  if (plane < 0 || plane >= planes) return {};
  // A packed 4:2:2 sample is a pair of pixels, four bytes.
  if (pixelFormatIsPackedYuv(pixelFormat)) return {(width + 1) / 2, height, 4};
  if (planes == 1) return {width, height, pixelFormat == kPixelFormat24BGR || pixelFormat == kPixelFormat24RGB ? 3 : 4};
  if (plane == 0) return {width, height, 1};
  const int32_t rows = pixelFormatChromaRows(pixelFormat);
  return {(width + 1) / 2, (height + rows - 1) / rows, pixelFormat == kPixelFormatNV12 ? 2 : 1};
}

size_t pixelFormatFrameBytes(uint32_t pixelFormat, int32_t width, int32_t height) {
  size_t bytes = 0;
  for (int32_t plane = 0; plane < pixelFormatPlaneCount(pixelFormat); ++plane) {
    const PixelPlaneGeometry geometry = pixelFormatPlane(pixelFormat, width, height, plane);
    bytes += geometry.rowBytes() * static_cast<size_t>(geometry.height);
  }
  return bytes;
}

int32_t pixelFormatTightPlanes(uint32_t pixelFormat, int32_t width, int32_t height, void* bytes,
                               PixelBufferPlane planes[kPixelBufferMaxPlanes]) {
  auto* next = static_cast<uint8_t*>(bytes);
  const int32_t count = pixelFormatPlaneCount(pixelFormat);
  for (int32_t plane = 0; plane < count; ++plane) {
    const PixelPlaneGeometry geometry = pixelFormatPlane(pixelFormat, width, height, plane);
    planes[plane] = {next, geometry.rowBytes()};
    next += geometry.rowBytes() * static_cast<size_t>(geometry.height);
  }
  return count;
}

const char* pixelFormatName(uint32_t pixelFormat) {
  for (const FormatName& entry : kFormatNames) {
    if (entry.format == pixelFormat) return entry.name;
  }
  return nullptr;
}

bool parseYuvMatrix(const std::string& name, YuvMatrix* matrix) {
  if (name != "bt601" && name != "bt709") return false;
  *matrix = name == "bt601" ? YuvMatrix::Bt601 : YuvMatrix::Bt709;
  return true;
}

bool parseYuvRange(const std::string& name, YuvRange* range) {
  if (name == "limited" || name == "tv") {
    *range = YuvRange::Limited;
  } else if (name == "full" || name == "pc") {
    *range = YuvRange::Full;
  } else {
    return false;
  }
  return true;
}

bool parsePixelFormat(const std::string& name, uint32_t* pixelFormat) {
  std::string lower = name;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  // FFmpeg's and GStreamer's names too, as a pipe from either names its frames.
  static const FormatName kOtherNames[] = {
      {kPixelFormat24BGR, "bgr24"},    {kPixelFormat24RGB, "rgb24"},     {kPixelFormatI422, "y42b"},
      {kPixelFormatI422, "yuv422p"},   {kPixelFormatYUY2, "yuyv422"},    {kPixelFormatUYVY, "uyvy422"},
      {kPixelFormatI420, "yuv420p"},
  };
  for (const auto* table : {kFormatNames, kOtherNames}) {
    const size_t count = table == kFormatNames ? std::size(kFormatNames) : std::size(kOtherNames);
    for (size_t i = 0; i < count; ++i) {
      if (lower == table[i].name) {
        *pixelFormat = table[i].format;
        return true;
      }
    }
  }
  return false;
}

YuvColorimetry resolveColorimetry(YuvColorimetry colorimetry, int32_t height) {
  if (colorimetry.matrix == YuvMatrix::Auto) colorimetry.matrix = height > 576 ? YuvMatrix::Bt709 : YuvMatrix::Bt601;
  if (colorimetry.range == YuvRange::Auto) colorimetry.range = YuvRange::Limited;
  return colorimetry;
}

PixelBuffer::PixelBuffer(Token, int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferPlane* planes,
                         ReleaseCallback release, const PixelBufferAttributes& attributes)
    : width_(width),
      height_(height),
      pixelFormat_(pixelFormat),
      planeCount_(pixelFormatPlaneCount(pixelFormat)),
      colorimetry_(resolveColorimetry(attributes.colorimetry, height)),
      release_(std::move(release)),
      attributes_(attributes),
      identifier_(nextIdentifier.fetch_add(1, std::memory_order_relaxed)) {
  for (int32_t plane = 0; plane < planeCount_; ++plane) planes_[plane] = planes[plane];
}

PixelBuffer::~PixelBuffer() {
  if (release_) release_(planes_[0].bytes);
}

int32_t PixelBuffer::create(int32_t width, int32_t height, uint32_t pixelFormat,
                            const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  const int32_t status = validate(width, height, pixelFormat, out);
  if (status != kPixelBufferSuccess) {
    if (out != nullptr) out->reset();
    return status;
  }
  // One allocation; each plane's rows 64-byte aligned (rows rounded up to 64 bytes for planar formats, so
  // that every row starts aligned; packed rows stay tight, as hosts expect width * 4).
  const int32_t count = pixelFormatPlaneCount(pixelFormat);
  PixelBufferPlane planes[kPixelBufferMaxPlanes];
  size_t offsets[kPixelBufferMaxPlanes] = {};
  size_t total = 0;
  for (int32_t plane = 0; plane < count; ++plane) {
    const PixelPlaneGeometry geometry = pixelFormatPlane(pixelFormat, width, height, plane);
    planes[plane].bytesPerRow = count == 1 ? geometry.rowBytes() : (geometry.rowBytes() + 63) / 64 * 64;
    offsets[plane] = total;
    total += (planes[plane].bytesPerRow * static_cast<size_t>(geometry.height) + 63) / 64 * 64;
  }
  // Zeroed: a fresh buffer reads as transparent black, like a new GL texture.
  auto* bytes = static_cast<uint8_t*>(std::aligned_alloc(64, total));
  if (bytes == nullptr) {
    out->reset();
    return kPixelBufferErrorAllocationFailed;
  }
  std::memset(bytes, 0, total);
  for (int32_t plane = 0; plane < count; ++plane) planes[plane].bytes = bytes + offsets[plane];
  const int32_t made = make(
      width, height, pixelFormat, planes, [](void* memory) { std::free(memory); }, attributes, out);
  if (made != kPixelBufferSuccess) std::free(bytes);
  return made;
}

int32_t PixelBuffer::make(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferPlane* planes,
                          ReleaseCallback release, const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  try {
    *out = std::make_shared<PixelBuffer>(Token{}, width, height, pixelFormat, planes, std::move(release), attributes);
  } catch (const std::bad_alloc&) {
    out->reset();
    return kPixelBufferErrorAllocationFailed;
  }
  return kPixelBufferSuccess;
}

int32_t PixelBuffer::createWithBytes(int32_t width, int32_t height, uint32_t pixelFormat, void* bytes,
                                     size_t bytesPerRow, ReleaseCallback release,
                                     const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  if (out != nullptr && pixelFormatPlaneCount(pixelFormat) > 1) {
    out->reset();
    return kPixelBufferErrorInvalidArgument;  // planar formats go through createWithPlanes
  }
  const PixelBufferPlane plane{bytes, bytesPerRow};
  return createWithPlanes(width, height, pixelFormat, &plane, 1, std::move(release), attributes, out);
}

int32_t PixelBuffer::createWithPlanes(int32_t width, int32_t height, uint32_t pixelFormat,
                                      const PixelBufferPlane* planes, int32_t planeCount, ReleaseCallback release,
                                      const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  const int32_t status = validate(width, height, pixelFormat, out);
  if (status != kPixelBufferSuccess) {
    if (out != nullptr) out->reset();
    return status;
  }
  if (planes == nullptr || planeCount != pixelFormatPlaneCount(pixelFormat)) {
    out->reset();
    return kPixelBufferErrorInvalidArgument;
  }
  for (int32_t plane = 0; plane < planeCount; ++plane) {
    if (planes[plane].bytes == nullptr) {
      out->reset();
      return kPixelBufferErrorInvalidArgument;
    }
    if (planes[plane].bytesPerRow < pixelFormatPlane(pixelFormat, width, height, plane).rowBytes()) {
      out->reset();
      return kPixelBufferErrorInvalidStride;
    }
  }
  return make(width, height, pixelFormat, planes, std::move(release), attributes, out);
}

int32_t PixelBuffer::lockBaseAddress(uint32_t /*flags*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (gpuNewer_) {
    if (auto backing = backing_.lock()) backing->readBack(*this);
    gpuNewer_ = false;
  }
  return kPixelBufferSuccess;
}

int32_t PixelBuffer::unlockBaseAddress(uint32_t flags) {
  if ((flags & kPixelBufferLockReadOnly) == 0) {
    contentVersion_.fetch_add(1, std::memory_order_acq_rel);
  }
  return kPixelBufferSuccess;
}

void PixelBuffer::markGpuNewer(std::weak_ptr<PixelBufferBacking> backing) {
  std::lock_guard<std::mutex> lock(mutex_);
  gpuNewer_ = true;
  backing_ = std::move(backing);
}

void PixelBuffer::synchronizeFromGpu() { lockBaseAddress(kPixelBufferLockReadOnly); }

}  // namespace lumo
