#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "Export.h"

namespace lumo {

class PixelBuffer;
using PixelBufferRef = std::shared_ptr<PixelBuffer>;

// 32-bit BGRA, the four-character code 'BGRA'; the only layout the library accepts.
constexpr uint32_t kPixelFormat32BGRA = 0x42475241;

// Lock flag: the host only reads, so the GPU copy stays valid after the unlock.
constexpr uint32_t kPixelBufferLockReadOnly = 0x00000001;

// Status codes of PixelBuffer::create and createWithBytes.
constexpr int32_t kPixelBufferSuccess = 0;
constexpr int32_t kPixelBufferErrorInvalidArgument = -6661;  // null out-pointer or null bytes
constexpr int32_t kPixelBufferErrorInvalidSize = -6662;      // width or height not in 1..kPixelBufferMaxDimension
constexpr int32_t kPixelBufferErrorUnsupportedFormat = -6663;
constexpr int32_t kPixelBufferErrorAllocationFailed = -6664;
constexpr int32_t kPixelBufferErrorInvalidStride = -6665;  // bytesPerRow below width * 4

// Upper bound on either side; far above any texture size, low enough that width * height * 4 cannot overflow.
constexpr int32_t kPixelBufferMaxDimension = 32768;

struct PixelBufferAttributes {
  // The buffer may be rendered into by the GPU (the facade's output buffers): after it was mapped to a
  // texture, its GL copy counts as newer and is read back on the next lock.
  bool gpuShareable = false;
};

// Memory handed to the texture cache's readback: implemented by the cache that last mapped a buffer.
class PixelBufferBacking {
 public:
  virtual ~PixelBufferBacking() = default;
  // Copies the GL texture of `buffer` into its memory; called with the buffer's lock held.
  virtual void readBack(PixelBuffer& buffer) = 0;
};

// A reference-counted image of 32-bit BGRA pixels, in its own memory or wrapping the host's.
class LUMO_EXPORT PixelBuffer {
 public:
  using ReleaseCallback = std::function<void(void* bytes)>;

  static int32_t create(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferAttributes& attributes,
                        PixelBufferRef* out);
  // Wraps host memory without copying; `release` (may be empty) runs when the last reference goes.
  static int32_t createWithBytes(int32_t width, int32_t height, uint32_t pixelFormat, void* bytes, size_t bytesPerRow,
                                 ReleaseCallback release, const PixelBufferAttributes& attributes, PixelBufferRef* out);

  // Only the factories above can make the token; the constructor is public for std::make_shared.
  class Token {
    friend class PixelBuffer;
    Token() = default;
  };
  PixelBuffer(Token, int32_t width, int32_t height, size_t bytesPerRow, void* bytes, ReleaseCallback release,
              const PixelBufferAttributes& attributes);
  ~PixelBuffer();
  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;

  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  size_t bytesPerRow() const { return bytesPerRow_; }
  uint32_t pixelFormat() const { return kPixelFormat32BGRA; }
  bool isGpuShareable() const { return attributes_.gpuShareable; }
  uint64_t identifier() const { return identifier_; }

  // Brackets every CPU access to the pixels. A lock brings the memory up to date with the GPU; an unlock
  // without kPixelBufferLockReadOnly marks the memory as changed, so the next mapping uploads it.
  int32_t lockBaseAddress(uint32_t flags);
  int32_t unlockBaseAddress(uint32_t flags);
  void* baseAddress() const { return bytes_; }

  // Texture-cache side of the coherence protocol.
  uint64_t contentVersion() const { return contentVersion_.load(std::memory_order_acquire); }
  void markGpuNewer(std::weak_ptr<PixelBufferBacking> backing);
  // Runs a pending readback now (the cache calls this before it goes away).
  void synchronizeFromGpu();

 private:
  static int32_t make(int32_t width, int32_t height, size_t bytesPerRow, void* bytes, ReleaseCallback release,
                      const PixelBufferAttributes& attributes, PixelBufferRef* out);

  const int32_t width_;
  const int32_t height_;
  const size_t bytesPerRow_;
  void* const bytes_;
  const ReleaseCallback release_;
  const PixelBufferAttributes attributes_;
  const uint64_t identifier_;
  std::atomic<uint64_t> contentVersion_{1};
  std::mutex mutex_;
  bool gpuNewer_ = false;
  std::weak_ptr<PixelBufferBacking> backing_;
};

}  // namespace lumo
