#include "PixelBuffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace lumo {
namespace {

std::atomic<uint64_t> nextIdentifier{1};

int32_t validate(int32_t width, int32_t height, uint32_t pixelFormat, const PixelBufferRef* out) {
  if (out == nullptr) return kPixelBufferErrorInvalidArgument;
  if (width < 1 || height < 1 || width > kPixelBufferMaxDimension || height > kPixelBufferMaxDimension) {
    return kPixelBufferErrorInvalidSize;
  }
  if (pixelFormat != kPixelFormat32BGRA) return kPixelBufferErrorUnsupportedFormat;
  return kPixelBufferSuccess;
}

}  // namespace

PixelBuffer::PixelBuffer(Token, int32_t width, int32_t height, size_t bytesPerRow, void* bytes, ReleaseCallback release,
                         const PixelBufferAttributes& attributes)
    : width_(width),
      height_(height),
      bytesPerRow_(bytesPerRow),
      bytes_(bytes),
      release_(std::move(release)),
      attributes_(attributes),
      identifier_(nextIdentifier.fetch_add(1, std::memory_order_relaxed)) {}

PixelBuffer::~PixelBuffer() {
  if (release_) release_(bytes_);
}

int32_t PixelBuffer::create(int32_t width, int32_t height, uint32_t pixelFormat,
                            const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  const int32_t status = validate(width, height, pixelFormat, out);
  if (status != kPixelBufferSuccess) {
    if (out != nullptr) out->reset();
    return status;
  }
  const size_t bytesPerRow = static_cast<size_t>(width) * 4;
  // Zeroed, 64-byte aligned rows: a fresh buffer reads as transparent black, like a new GL texture.
  void* bytes = std::aligned_alloc(64, (bytesPerRow * static_cast<size_t>(height) + 63) / 64 * 64);
  if (bytes == nullptr) {
    out->reset();
    return kPixelBufferErrorAllocationFailed;
  }
  std::memset(bytes, 0, bytesPerRow * static_cast<size_t>(height));
  const int32_t made = make(
      width, height, bytesPerRow, bytes, [](void* memory) { std::free(memory); }, attributes, out);
  if (made != kPixelBufferSuccess) std::free(bytes);
  return made;
}

int32_t PixelBuffer::make(int32_t width, int32_t height, size_t bytesPerRow, void* bytes, ReleaseCallback release,
                          const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  try {
    *out = std::make_shared<PixelBuffer>(Token{}, width, height, bytesPerRow, bytes, std::move(release), attributes);
  } catch (const std::bad_alloc&) {
    out->reset();
    return kPixelBufferErrorAllocationFailed;
  }
  return kPixelBufferSuccess;
}

int32_t PixelBuffer::createWithBytes(int32_t width, int32_t height, uint32_t pixelFormat, void* bytes,
                                     size_t bytesPerRow, ReleaseCallback release,
                                     const PixelBufferAttributes& attributes, PixelBufferRef* out) {
  const int32_t status = validate(width, height, pixelFormat, out);
  if (status != kPixelBufferSuccess) {
    if (out != nullptr) out->reset();
    return status;
  }
  if (bytes == nullptr) {
    out->reset();
    return kPixelBufferErrorInvalidArgument;
  }
  if (bytesPerRow < static_cast<size_t>(width) * 4) {
    out->reset();
    return kPixelBufferErrorInvalidStride;
  }
  return make(width, height, bytesPerRow, bytes, std::move(release), attributes, out);
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
