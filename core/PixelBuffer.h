#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Export.h"

namespace lumo {

class PixelBuffer;
using PixelBufferRef = std::shared_ptr<PixelBuffer>;

// Pixel formats, by their four-character codes. Packed 32-bit formats in byte order (BGRx and RGBx have an
// unused fourth byte, read as opaque) and 24-bit ones (BGR, OpenCV's and V4L2's BGR24; RGB); the 4:2:0 YUV
// formats NV12 (a Y plane, then one plane of interleaved U and V) and I420 (Y, U and V planes), whose chroma
// planes are half the size, rounded up; and the 4:2:2 ones, chroma of half the width (rounded up) on every
// row: I422 (Y, U and V planes; GStreamer's Y42B) and the packed YUY2 (bytes Y0 U Y1 V) and UYVY (U Y0 V Y1),
// two pixels to four bytes, an odd width's last pair completed by a padding sample.
constexpr uint32_t kPixelFormat32BGRA = 0x42475241;  // 'BGRA'
constexpr uint32_t kPixelFormat32RGBA = 0x52474241;  // 'RGBA'
constexpr uint32_t kPixelFormat32BGRX = 0x42475278;  // 'BGRx'
constexpr uint32_t kPixelFormat32RGBX = 0x52474278;  // 'RGBx'
constexpr uint32_t kPixelFormatNV12 = 0x4E563132;    // 'NV12'
constexpr uint32_t kPixelFormatI420 = 0x49343230;    // 'I420'
constexpr uint32_t kPixelFormat24BGR = 0x42475233;   // 'BGR3'
constexpr uint32_t kPixelFormat24RGB = 0x52474233;   // 'RGB3'
constexpr uint32_t kPixelFormatI422 = 0x49343232;    // 'I422'
constexpr uint32_t kPixelFormatYUY2 = 0x59555932;    // 'YUY2'
constexpr uint32_t kPixelFormatUYVY = 0x55595659;    // 'UYVY'

constexpr int32_t kPixelBufferMaxPlanes = 3;

// One plane of a format at a frame size: samples across, rows, and bytes per sample.
struct PixelPlaneGeometry {
  int32_t width = 0;
  int32_t height = 0;
  int32_t bytesPerSample = 0;
  size_t rowBytes() const { return static_cast<size_t>(width) * static_cast<size_t>(bytesPerSample); }
};

// 0 for a format the library does not take.
LUMO_EXPORT int32_t pixelFormatPlaneCount(uint32_t pixelFormat);
LUMO_EXPORT bool pixelFormatIsYuv(uint32_t pixelFormat);
// Rows of luma a chroma sample covers: 2 for the 4:2:0 formats, 1 for every other.
LUMO_EXPORT int32_t pixelFormatChromaRows(uint32_t pixelFormat);
// YUY2 and UYVY: Y, U and V in one plane.
LUMO_EXPORT bool pixelFormatIsPackedYuv(uint32_t pixelFormat);
// Plane `plane` of `pixelFormat` at width x height; all zero for a plane the format does not have.
LUMO_EXPORT PixelPlaneGeometry pixelFormatPlane(uint32_t pixelFormat, int32_t width, int32_t height, int32_t plane);
// Bytes of a frame with tightly packed rows and planes one after another (what a raw stream carries).
LUMO_EXPORT size_t pixelFormatFrameBytes(uint32_t pixelFormat, int32_t width, int32_t height);
// "bgra", "rgba", "bgrx", "rgbx", "bgr", "rgb", "nv12", "i420", "i422", "yuy2", "uyvy"; null for an unknown
// format.
LUMO_EXPORT const char* pixelFormatName(uint32_t pixelFormat);
// Case-insensitive inverse of pixelFormatName; false for an unknown name.
LUMO_EXPORT bool parsePixelFormat(const std::string& name, uint32_t* pixelFormat);

// How YUV samples map to RGB. Auto resolves as GStreamer does for caps without colorimetry: BT.709 above 576
// rows, BT.601 up to 576, and limited range (16..235 luma, 16..240 chroma).
enum class YuvMatrix : uint8_t { Auto, Bt601, Bt709 };
enum class YuvRange : uint8_t { Auto, Limited, Full };
struct YuvColorimetry {
  YuvMatrix matrix = YuvMatrix::Auto;
  YuvRange range = YuvRange::Auto;
  bool operator==(const YuvColorimetry& other) const { return matrix == other.matrix && range == other.range; }
  bool operator!=(const YuvColorimetry& other) const { return !(*this == other); }
};
// "bt601" or "bt709"; "limited" (or "tv") or "full" (or "pc"), as FFmpeg names them. False otherwise.
LUMO_EXPORT bool parseYuvMatrix(const std::string& name, YuvMatrix* matrix);
LUMO_EXPORT bool parseYuvRange(const std::string& name, YuvRange* range);
// `colorimetry` with Auto parts resolved for a frame of `height` rows.
LUMO_EXPORT YuvColorimetry resolveColorimetry(YuvColorimetry colorimetry, int32_t height);

// Lock flag: the host only reads, so the GPU copy stays valid after the unlock.
constexpr uint32_t kPixelBufferLockReadOnly = 0x00000001;

// Status codes of PixelBuffer::create and createWithBytes.
constexpr int32_t kPixelBufferSuccess = 0;
constexpr int32_t kPixelBufferErrorInvalidArgument = -6661;  // null out-pointer or null bytes
constexpr int32_t kPixelBufferErrorInvalidSize = -6662;      // width or height not in 1..kPixelBufferMaxDimension
constexpr int32_t kPixelBufferErrorUnsupportedFormat = -6663;
constexpr int32_t kPixelBufferErrorAllocationFailed = -6664;
constexpr int32_t kPixelBufferErrorInvalidStride = -6665;  // a plane's bytesPerRow below its row of samples

// Upper bound on either side; far above any texture size, low enough that width * height * 4 cannot overflow.
constexpr int32_t kPixelBufferMaxDimension = 32768;

struct PixelBufferAttributes {
  // The buffer may be rendered into by the GPU (the facade's output buffers): after it was mapped to a
  // texture, its GL copy counts as newer and is read back on the next lock.
  bool gpuShareable = false;
  // For YUV formats: how the samples map to RGB (Auto parts resolved by the frame's height).
  YuvColorimetry colorimetry;
};

// One plane of host memory handed to createWithPlanes.
struct PixelBufferPlane {
  void* bytes = nullptr;
  size_t bytesPerRow = 0;
};

// The planes of a frame stored tightly, one after another, from `bytes` (a raw stream's layout, that of
// pixelFormatFrameBytes); returns their number, 0 for an unknown format.
LUMO_EXPORT int32_t pixelFormatTightPlanes(uint32_t pixelFormat, int32_t width, int32_t height, void* bytes,
                                           PixelBufferPlane planes[kPixelBufferMaxPlanes]);

// Memory handed to the texture cache's readback: implemented by the cache that last mapped a buffer.
class PixelBufferBacking {
 public:
  virtual ~PixelBufferBacking() = default;
  // Copies the GL texture of `buffer` into its memory; called with the buffer's lock held.
  virtual void readBack(PixelBuffer& buffer) = 0;
};

// A reference-counted image in one of the formats above, in its own memory or wrapping the host's planes.
class LUMO_EXPORT PixelBuffer {
 public:
  using ReleaseCallback = std::function<void(void* bytes)>;

  static int32_t create(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferAttributes& attributes,
                        PixelBufferRef* out);
  // Wraps host memory of a packed (one-plane) format without copying; `release` (may be empty) runs with
  // `bytes` when the last reference goes.
  static int32_t createWithBytes(int32_t width, int32_t height, uint32_t pixelFormat, void* bytes, size_t bytesPerRow,
                                 ReleaseCallback release, const PixelBufferAttributes& attributes, PixelBufferRef* out);
  // Wraps host planes of any format without copying: `planeCount` must be the format's. `release` runs with
  // the first plane's address.
  static int32_t createWithPlanes(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferPlane* planes,
                                  int32_t planeCount, ReleaseCallback release, const PixelBufferAttributes& attributes,
                                  PixelBufferRef* out);

  // Only the factories above can make the token; the constructor is public for std::make_shared.
  class Token {
    friend class PixelBuffer;
    Token() = default;
  };
  PixelBuffer(Token, int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferPlane* planes,
              ReleaseCallback release, const PixelBufferAttributes& attributes);
  ~PixelBuffer();
  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;

  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  size_t bytesPerRow() const { return planes_[0].bytesPerRow; }
  uint32_t pixelFormat() const { return pixelFormat_; }
  int32_t planeCount() const { return planeCount_; }
  // Plane geometry and memory; plane 0 is what bytesPerRow() and baseAddress() give.
  PixelPlaneGeometry planeGeometry(int32_t plane) const {
    return pixelFormatPlane(pixelFormat_, width_, height_, plane);
  }
  size_t bytesPerRowOfPlane(int32_t plane) const { return planes_[plane].bytesPerRow; }
  void* baseAddressOfPlane(int32_t plane) const { return planes_[plane].bytes; }
  // Resolved (never Auto). An engine's output takes its input's.
  YuvColorimetry colorimetry() const { return colorimetry_; }
  void setColorimetry(YuvColorimetry colorimetry) { colorimetry_ = resolveColorimetry(colorimetry, height_); }
  bool isGpuShareable() const { return attributes_.gpuShareable; }
  uint64_t identifier() const { return identifier_; }

  // Brackets every CPU access to the pixels. A lock brings the memory up to date with the GPU; an unlock
  // without kPixelBufferLockReadOnly marks the memory as changed, so the next mapping uploads it.
  int32_t lockBaseAddress(uint32_t flags);
  int32_t unlockBaseAddress(uint32_t flags);
  void* baseAddress() const { return planes_[0].bytes; }

  // Texture-cache side of the coherence protocol.
  uint64_t contentVersion() const { return contentVersion_.load(std::memory_order_acquire); }
  void markGpuNewer(std::weak_ptr<PixelBufferBacking> backing);
  // Runs a pending readback now (the cache calls this before it goes away).
  void synchronizeFromGpu();

 private:
  static int32_t make(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferPlane* planes,
                      ReleaseCallback release, const PixelBufferAttributes& attributes, PixelBufferRef* out);

  const int32_t width_;
  const int32_t height_;
  const uint32_t pixelFormat_;
  const int32_t planeCount_;
  PixelBufferPlane planes_[kPixelBufferMaxPlanes];
  YuvColorimetry colorimetry_;
  const ReleaseCallback release_;
  const PixelBufferAttributes attributes_;
  const uint64_t identifier_;
  std::atomic<uint64_t> contentVersion_{1};
  std::mutex mutex_;
  bool gpuNewer_ = false;
  std::weak_ptr<PixelBufferBacking> backing_;
};

}  // namespace lumo
