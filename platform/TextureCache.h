#pragma once

#include <cstdint>
#include <memory>

#include "Export.h"
#include "GLContext.h"
#include "PixelBuffer.h"

namespace lumo {

class TextureCacheCore;

// Status codes of the texture cache.
constexpr int32_t kTextureCacheSuccess = 0;
constexpr int32_t kTextureCacheErrorInvalidArgument = -6680;  // null buffer, out-pointer or context
constexpr int32_t kTextureCacheErrorUnsupported = -6681;      // target, format, type or plane not offered
constexpr int32_t kTextureCacheErrorSizeMismatch = -6682;     // size differs from the buffer's
constexpr int32_t kTextureCacheErrorTooLarge = -6683;         // above GL_MAX_TEXTURE_SIZE
constexpr int32_t kTextureCacheErrorNoContext = -6684;        // the cache's context cannot be made current

struct TextureCacheAttributes {
  // Use GL_EXT_texture_format_BGRA8888 and GL_EXT_read_format_bgra where the GL has them. Off, the cache
  // keeps RGBA textures and swizzles on the CPU, as it must on a GL without those extensions.
  bool useBgraExtensions = true;
};

// Counters of the GL work the cache did, to verify the steady state.
struct TextureCacheStatistics {
  uint64_t texturesCreated = 0;
  uint64_t texturesDeleted = 0;
  uint64_t uploads = 0;
  uint64_t readbacks = 0;
  uint64_t texturesRecycled = 0;  // a dead buffer's texture handed to a new buffer of the same size
  uint64_t liveTextures = 0;
};

// One GL texture standing for one pixel buffer during a frame. Owned by the cache; a TextureRef lends it.
class LUMO_EXPORT Texture {
 public:
  uint32_t target() const { return target_; }
  uint32_t name() const { return name_; }
  // The buffer this texture was made from.
  const PixelBuffer* buffer() const { return buffer_; }

 private:
  friend class TextureCacheCore;
  friend struct TextureRelease;
  uint32_t target_ = 0;
  uint32_t name_ = 0;
  const PixelBuffer* buffer_ = nullptr;
  int32_t lends_ = 0;
  std::shared_ptr<TextureCacheCore> owner_;  // keeps the cache alive while a texture is lent
};

struct LUMO_EXPORT TextureRelease {
  void operator()(Texture* texture) const;
};

// Dropping the reference is the release of the texture.
using TextureRef = std::unique_ptr<Texture, TextureRelease>;

// Maps pixel buffers to GL textures in one context and keeps both copies coherent: one texture per live
// buffer, reused across frames; an upload only when the buffer's memory changed; a readback on the next
// lock of a GPU-shareable buffer after it was mapped.
class LUMO_EXPORT TextureCache {
 public:
  static int32_t create(std::shared_ptr<GLContext> context, const TextureCacheAttributes& attributes,
                        std::shared_ptr<TextureCache>* out);
  static int32_t create(std::shared_ptr<GLContext> context, std::shared_ptr<TextureCache>* out) {
    return create(std::move(context), TextureCacheAttributes{}, out);
  }

  // Use create(); the core is the library's own.
  explicit TextureCache(std::shared_ptr<TextureCacheCore> core);

  // Reads pending GPU contents back into the buffers that are still alive, then deletes every texture
  // inside the cache's context.
  ~TextureCache();
  TextureCache(const TextureCache&) = delete;
  TextureCache& operator=(const TextureCache&) = delete;

  // Maps `buffer` to a texture, target GL_TEXTURE_2D and type GL_UNSIGNED_BYTE always:
  // - a BGRA buffer as a whole: internal format GL_RGBA or GL_BGRA_EXT, format GL_BGRA_EXT, plane 0, the
  //   buffer's own size;
  // - any plane of any format, its bytes taken as texels: format and internal format GL_LUMINANCE (one byte a
  //   texel), GL_LUMINANCE_ALPHA (two), GL_RGB (three: a 24-bit buffer) or GL_RGBA (four; such a texture
  //   may be rendered into, and a GPU-shareable buffer's plane is then read back on its next lock); the
  //   plane's height, and its row in texels rounded up (an NV12 luma plane of width 33 as GL_RGBA: 9 texels,
  //   the last one's tail unused).
  // One texture per buffer and plane.
  int32_t createTextureFromImage(const PixelBufferRef& buffer, uint32_t target, int32_t internalFormat, int32_t width,
                                 int32_t height, uint32_t format, uint32_t type, size_t plane, TextureRef* texture);

  // Deletes the textures of buffers that died.
  void flush();

  TextureCacheStatistics statistics() const;
  // Whether textures are native BGRA (false: RGBA with a CPU swizzle).
  bool usesBgraTextures() const;

 private:
  std::shared_ptr<TextureCacheCore> core_;
};

}  // namespace lumo
