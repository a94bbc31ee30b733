#include "TextureCache.h"
#include "GlHandle.h"
#include "PixelRows.h"

#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace lumo {
namespace {

constexpr GLenum kUnpackRowLength = 0x0CF2;  // GL_UNPACK_ROW_LENGTH of ES 3.0 and EXT_unpack_subimage
// The packed BGRA mapping of a BGRA buffer, whatever GL format the cache picked for it.
constexpr int32_t kBgraLayout = 0;

// How one plane of a buffer is laid out as a texture.
struct TexelLayout {
  int32_t plane = 0;
  int32_t glFormat = kBgraLayout;
  int32_t texelBytes = 4;
  int32_t width = 0;
  int32_t height = 0;
  bool operator==(const TexelLayout& other) const {
    return plane == other.plane && glFormat == other.glFormat && width == other.width && height == other.height;
  }
};

int32_t texelBytesOf(uint32_t format) {
  switch (format) {
    case GL_LUMINANCE: return 1;
    case GL_LUMINANCE_ALPHA: return 2;
    case GL_RGB: return 3;
    case GL_RGBA: return 4;
    default: return 0;
  }
}

// The GL_UNPACK_ALIGNMENT that steps from row to row by `stride` for rows of `rowBytes`, or 0 if none does.
GLint unpackAlignmentFor(size_t rowBytes, size_t stride) {
  for (const size_t alignment : {1, 2, 4, 8}) {
    if ((rowBytes + alignment - 1) / alignment * alignment == stride) return static_cast<GLint>(alignment);
  }
  return 0;
}

bool glHasExtension(const char* name) {
  const char* list = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
  if (list == nullptr) return false;
  const std::string extensions = std::string(" ") + list + " ";
  return extensions.find(std::string(" ") + name + " ") != std::string::npos;
}

bool glVersionAtLeast3() {
  const char* version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
  // "OpenGL ES 3.2 Mesa ..." or "OpenGL ES 2.0 ..."
  return version != nullptr && std::strncmp(version, "OpenGL ES ", 10) == 0 && version[10] >= '3';
}

}  // namespace

class TextureCacheCore : public PixelBufferBacking, public std::enable_shared_from_this<TextureCacheCore> {
 public:
  TextureCacheCore(std::shared_ptr<GLContext> context, const TextureCacheAttributes& attributes)
      : context_(std::move(context)) {
    ContextGuard guard(context_.get());
    if (!guard.ok()) return;
    nativeBgra_ = attributes.useBgraExtensions && glHasExtension("GL_EXT_texture_format_BGRA8888");
    readBgra_ = attributes.useBgraExtensions && glHasExtension("GL_EXT_read_format_bgra");
    unpackRowLength_ = glVersionAtLeast3() || glHasExtension("GL_EXT_unpack_subimage");
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxTextureSize_);
    ready_ = true;
  }

  // Whatever deleteAll() left (textures still lent then) goes without GL calls: no context is known to be
  // current here.
  ~TextureCacheCore() override {
    for (auto& [id, entry] : entries_) entry->name.release();
    readFramebuffer_.release();
  }

  bool ready() const { return ready_; }
  bool nativeBgra() const { return nativeBgra_; }

  // `layout` says how the plane's bytes are texels: the buffer's packed BGRA (kBgraLayout), or a plane's
  // bytes as GL_LUMINANCE, GL_LUMINANCE_ALPHA, GL_RGB or GL_RGBA texels of that many bytes.
  int32_t map(const PixelBufferRef& buffer, const TexelLayout& layout, TextureRef* out) {
    bool markShareable = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ContextGuard guard(context_.get());
      if (!guard.ok()) return kTextureCacheErrorNoContext;
      if (layout.width > maxTextureSize_ || layout.height > maxTextureSize_) return kTextureCacheErrorTooLarge;
      const uint64_t key = entryKey(buffer->identifier(), layout.plane);
      auto found = entries_.find(key);
      // A format or size the texture was not made for (a buffer mapped another way) starts it anew.
      if (found != entries_.end() && !(found->second->layout == layout)) {
        if (found->second->texture.lends_ != 0) return kTextureCacheErrorUnsupported;
        ++statistics_.texturesDeleted;
        entries_.erase(found);
        found = entries_.end();
      }
      // A host that wraps each frame in a new buffer gets the texture of a dead one back, so that
      // steady-state frames make no GL object and no allocation.
      if (found == entries_.end()) found = recycleDeadLocked(buffer, layout, key);
      purgeDeadLocked();
      if (found == entries_.end()) {
        found = entries_.emplace(key, std::make_unique<Entry>()).first;
        Entry& entry = *found->second;
        entry.name.reset(gl::genTexture());
        entry.texture.name_ = entry.name.get();
        entry.texture.target_ = GL_TEXTURE_2D;
        entry.layout = layout;
        ++statistics_.texturesCreated;
      }
      Entry& entry = *found->second;
      entry.buffer = buffer;
      entry.texture.buffer_ = buffer.get();
      const uint64_t version = buffer->contentVersion();
      glBindTexture(GL_TEXTURE_2D, entry.texture.name_);
      if (entry.uploadedVersion != version) {
        if (layout.glFormat == kBgraLayout) {
          upload(*buffer, entry.allocated);
        } else {
          uploadPlane(*buffer, layout, entry.allocated);
        }
        entry.allocated = true;
        entry.uploadedVersion = version;
      }
      glBindTexture(GL_TEXTURE_2D, 0);
      ++entry.texture.lends_;
      entry.texture.owner_ = shared_from_this();
      out->reset(&entry.texture);
      markShareable = buffer->isGpuShareable();
    }
    // Outside the cache's lock: the buffer's lock is taken before the cache's on readback.
    if (markShareable) buffer->markGpuNewer(weak_from_this());
    return kTextureCacheSuccess;
  }

  void release(Texture* texture) {
    std::shared_ptr<TextureCacheCore> keepAlive;
    std::lock_guard<std::mutex> lock(mutex_);
    if (--texture->lends_ == 0) keepAlive = std::move(texture->owner_);
  }

  void readBack(PixelBuffer& buffer) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ContextGuard guard(context_.get());
    if (!guard.ok()) return;
    for (int32_t plane = 0; plane < buffer.planeCount(); ++plane) {
      auto found = entries_.find(entryKey(buffer.identifier(), plane));
      if (found == entries_.end() || !found->second->allocated) continue;
      const TexelLayout& layout = found->second->layout;
      // Luminance and 24-bit textures are sources only: only RGBA planes are drawn into.
      if (layout.glFormat != kBgraLayout && layout.glFormat != GL_RGBA) continue;
      if (!readFramebuffer_) readFramebuffer_.reset(gl::genFramebuffer());
      glBindFramebuffer(GL_FRAMEBUFFER, readFramebuffer_.get());
      glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, found->second->texture.name_, 0);
      if (layout.glFormat == kBgraLayout) {
        readBackBgra(buffer);
      } else {
        readBackPlane(buffer, layout);
      }
      glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, 0, 0);
      glBindFramebuffer(GL_FRAMEBUFFER, 0);
      ++statistics_.readbacks;
    }
  }

  // Needs the texture attached to the read framebuffer.
  void readBackBgra(PixelBuffer& buffer) {
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    const size_t rowBytes = static_cast<size_t>(buffer.width()) * 4;
    auto* bytes = static_cast<uint8_t*>(buffer.baseAddress());
    const bool tight = buffer.bytesPerRow() == rowBytes;
    uint8_t* target = bytes;
    if (!tight || !readBgra_) {
      scratch_.resize(rowBytes * static_cast<size_t>(buffer.height()));
      target = scratch_.data();
    }
    glReadPixels(0, 0, buffer.width(), buffer.height(), readBgra_ ? GL_BGRA_EXT : GL_RGBA, GL_UNSIGNED_BYTE, target);
    if (target != bytes) {
      copyPixelRows(target, rowBytes, bytes, buffer.bytesPerRow(), buffer.width(), buffer.height(), !readBgra_);
    }
  }

  // An RGBA texture whose texels are the plane's bytes, four at a time; the last texel of a row may run past
  // the plane's row, and that tail is dropped. Needs the texture attached to the read framebuffer.
  void readBackPlane(PixelBuffer& buffer, const TexelLayout& layout) {
    const size_t rowBytes = buffer.planeGeometry(layout.plane).rowBytes();
    const size_t textureRowBytes = static_cast<size_t>(layout.width) * 4;
    const size_t stride = buffer.bytesPerRowOfPlane(layout.plane);
    auto* bytes = static_cast<uint8_t*>(buffer.baseAddressOfPlane(layout.plane));
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    if (textureRowBytes == rowBytes && stride == rowBytes) {
      glReadPixels(0, 0, layout.width, layout.height, GL_RGBA, GL_UNSIGNED_BYTE, bytes);
      return;
    }
    scratch_.resize(textureRowBytes * static_cast<size_t>(layout.height));
    glReadPixels(0, 0, layout.width, layout.height, GL_RGBA, GL_UNSIGNED_BYTE, scratch_.data());
    for (int32_t row = 0; row < layout.height; ++row) {
      std::memcpy(bytes + stride * static_cast<size_t>(row), scratch_.data() + textureRowBytes * static_cast<size_t>(row),
                  rowBytes);
    }
  }

  // Buffers still alive whose GL copy may be newer than their memory.
  std::vector<PixelBufferRef> liveShareableBuffers() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<PixelBufferRef> live;
    for (auto& [id, entry] : entries_) {
      auto buffer = entry->buffer.lock();
      if (buffer && buffer->isGpuShareable() && std::find(live.begin(), live.end(), buffer) == live.end()) {
        live.push_back(buffer);
      }
    }
    return live;
  }

  void deleteAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    ContextGuard guard(context_.get());
    for (auto it = entries_.begin(); it != entries_.end();) {
      if (it->second->texture.lends_ > 0) {
        ++it;
        continue;
      }
      if (!guard.ok()) it->second->name.release();  // no context to delete it in
      ++statistics_.texturesDeleted;
      it = entries_.erase(it);
    }
    if (!guard.ok()) readFramebuffer_.release();
    readFramebuffer_.reset();
  }

  void flush() {
    std::lock_guard<std::mutex> lock(mutex_);
    ContextGuard guard(context_.get());
    if (guard.ok()) purgeDeadLocked();
  }

  TextureCacheStatistics statistics() const {
    std::lock_guard<std::mutex> lock(mutex_);
    TextureCacheStatistics copy = statistics_;
    copy.liveTextures = entries_.size();
    return copy;
  }

 private:
  struct Entry {
    std::weak_ptr<PixelBuffer> buffer;
    GlTexture name;  // erasing the entry deletes the texture: only with the cache's context current
    Texture texture;
    TexelLayout layout;
    uint64_t uploadedVersion = 0;
    bool allocated = false;
  };

  // Buffer identifiers count up from 1, far below 2^62: the plane takes the two low bits.
  static uint64_t entryKey(uint64_t identifier, int32_t plane) {
    return (identifier << 2) | static_cast<uint64_t>(plane);
  }

  using Entries = std::unordered_map<uint64_t, std::unique_ptr<Entry>>;

  // Needs the lock held. Re-keys a dead buffer's entry of the same layout, and its other planes with it, so
  // that the purge that follows does not delete the planes this buffer maps next (the nodes move, nothing
  // is allocated). A plane mapped another way is made anew when it is mapped.
  Entries::iterator recycleDeadLocked(const PixelBufferRef& buffer, const TexelLayout& layout, uint64_t key) {
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      const Entry& entry = *it->second;
      if (!entry.buffer.expired() || entry.texture.lends_ != 0 || !entry.allocated || !(entry.layout == layout)) {
        continue;
      }
      const uint64_t dead = it->first >> 2;
      for (int32_t plane = 0; plane < kPixelBufferMaxPlanes; ++plane) {
        const uint64_t to = entryKey(buffer->identifier(), plane);
        auto from = entries_.find(entryKey(dead, plane));
        if (from == entries_.end() || from->second->texture.lends_ != 0 || entries_.count(to) != 0) continue;
        auto node = entries_.extract(from);
        node.key() = to;
        node.mapped()->buffer = buffer;  // alive again before the purge that follows
        node.mapped()->texture.buffer_ = buffer.get();
        node.mapped()->uploadedVersion = 0;
        entries_.insert(std::move(node));
        ++statistics_.texturesRecycled;
      }
      return entries_.find(key);
    }
    return entries_.end();
  }

  // Needs the context current and the lock held.
  void purgeDeadLocked() {
    for (auto it = entries_.begin(); it != entries_.end();) {
      if (it->second->buffer.expired() && it->second->texture.lends_ == 0) {
        ++statistics_.texturesDeleted;
        it = entries_.erase(it);
      } else {
        ++it;
      }
    }
  }

  // Needs the texture bound to GL_TEXTURE_2D.
  void upload(const PixelBuffer& buffer, bool allocated) {
    const GLsizei width = buffer.width();
    const GLsizei height = buffer.height();
    const GLenum format = nativeBgra_ ? GL_BGRA_EXT : GL_RGBA;
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    const auto* bytes = static_cast<const uint8_t*>(buffer.baseAddress());
    const uint8_t* source = bytes;
    bool rowLengthSet = false;
    if (nativeBgra_ && buffer.bytesPerRow() != rowBytes && unpackRowLength_ && buffer.bytesPerRow() % 4 == 0) {
      glPixelStorei(kUnpackRowLength, static_cast<GLint>(buffer.bytesPerRow() / 4));
      rowLengthSet = true;
    } else if (!nativeBgra_ || buffer.bytesPerRow() != rowBytes) {
      scratch_.resize(rowBytes * static_cast<size_t>(height));
      copyPixelRows(bytes, buffer.bytesPerRow(), scratch_.data(), rowBytes, width, height, !nativeBgra_);
      source = scratch_.data();
    }
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    if (allocated) {
      glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, format, GL_UNSIGNED_BYTE, source);
    } else {
      // GLES wants the internal format equal to the format; GL_RGBA + GL_BGRA_EXT is not accepted.
      glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(format), width, height, 0, format, GL_UNSIGNED_BYTE, source);
      gl::setLinearClampSampling();
    }
    if (rowLengthSet) glPixelStorei(kUnpackRowLength, 0);
    ++statistics_.uploads;
  }

  // Needs the texture bound to GL_TEXTURE_2D. Rows go straight from the plane where GL can take its stride
  // (an alignment that rounds the row up to it, as a 24-bit row padded to 4 bytes, or a row length in
  // texels); otherwise (and where texels run past the plane's row) through scratch, with the tail zeroed.
  void uploadPlane(const PixelBuffer& buffer, const TexelLayout& layout, bool allocated) {
    const size_t rowBytes = buffer.planeGeometry(layout.plane).rowBytes();
    const size_t texelBytes = static_cast<size_t>(layout.texelBytes);
    const size_t textureRowBytes = static_cast<size_t>(layout.width) * texelBytes;
    const size_t stride = buffer.bytesPerRowOfPlane(layout.plane);
    const auto* bytes = static_cast<const uint8_t*>(buffer.baseAddressOfPlane(layout.plane));
    const uint8_t* source = bytes;
    bool rowLengthSet = false;
    GLint alignment = textureRowBytes == rowBytes ? unpackAlignmentFor(rowBytes, stride) : 0;
    if (alignment == 0 && textureRowBytes == rowBytes && unpackRowLength_ && stride % texelBytes == 0) {
      glPixelStorei(kUnpackRowLength, static_cast<GLint>(stride / texelBytes));
      rowLengthSet = true;
      alignment = 1;
    } else if (alignment == 0) {
      scratch_.assign(textureRowBytes * static_cast<size_t>(layout.height), 0);
      for (int32_t row = 0; row < layout.height; ++row) {
        std::memcpy(scratch_.data() + textureRowBytes * static_cast<size_t>(row), bytes + stride * static_cast<size_t>(row),
                    rowBytes);
      }
      source = scratch_.data();
      alignment = 1;
    }
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    const auto format = static_cast<GLenum>(layout.glFormat);
    if (allocated) {
      glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, layout.width, layout.height, format, GL_UNSIGNED_BYTE, source);
    } else {
      glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(format), layout.width, layout.height, 0, format,
                   GL_UNSIGNED_BYTE, source);
      gl::setLinearClampSampling();
    }
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    if (rowLengthSet) glPixelStorei(kUnpackRowLength, 0);
    ++statistics_.uploads;
  }

  std::shared_ptr<GLContext> context_;
  mutable std::mutex mutex_;
  Entries entries_;
  std::vector<uint8_t> scratch_;
  TextureCacheStatistics statistics_;
  GlFramebuffer readFramebuffer_;
  GLint maxTextureSize_ = 0;
  bool nativeBgra_ = false;
  bool readBgra_ = false;
  bool unpackRowLength_ = false;
  bool ready_ = false;
};

void TextureRelease::operator()(Texture* texture) const {
  if (texture == nullptr) return;
  // The owner is moved out under the core's lock and dropped after it, so the core may go with it.
  TextureCacheCore* core = texture->owner_.get();
  if (core != nullptr) core->release(texture);
}

TextureCache::TextureCache(std::shared_ptr<TextureCacheCore> core) : core_(std::move(core)) {}

int32_t TextureCache::create(std::shared_ptr<GLContext> context, const TextureCacheAttributes& attributes,
                             std::shared_ptr<TextureCache>* out) {
  if (out == nullptr) return kTextureCacheErrorInvalidArgument;
  out->reset();
  if (!context) return kTextureCacheErrorInvalidArgument;
  auto core = std::make_shared<TextureCacheCore>(std::move(context), attributes);
  if (!core->ready()) return kTextureCacheErrorNoContext;
  *out = std::make_shared<TextureCache>(std::move(core));
  return kTextureCacheSuccess;
}

TextureCache::~TextureCache() {
  for (const PixelBufferRef& buffer : core_->liveShareableBuffers()) buffer->synchronizeFromGpu();
  core_->deleteAll();
}

int32_t TextureCache::createTextureFromImage(const PixelBufferRef& buffer, uint32_t target, int32_t internalFormat,
                                             int32_t width, int32_t height, uint32_t format, uint32_t type,
                                             size_t plane, TextureRef* texture) {
  if (texture == nullptr) return kTextureCacheErrorInvalidArgument;
  texture->reset();
  if (!buffer) return kTextureCacheErrorInvalidArgument;
  if (target != GL_TEXTURE_2D || type != GL_UNSIGNED_BYTE) return kTextureCacheErrorUnsupported;
  TexelLayout layout;
  layout.width = width;
  layout.height = height;
  if (format == GL_BGRA_EXT) {
    if ((internalFormat != GL_RGBA && internalFormat != GL_BGRA_EXT) || plane != 0 ||
        buffer->pixelFormat() != kPixelFormat32BGRA) {
      return kTextureCacheErrorUnsupported;
    }
    if (width != buffer->width() || height != buffer->height()) return kTextureCacheErrorSizeMismatch;
    return core_->map(buffer, layout, texture);
  }
  // A plane's bytes as texels of one, two or four bytes: width is the plane's row in texels, rounded up.
  const int32_t texelBytes = texelBytesOf(format);
  if (texelBytes == 0 || internalFormat != static_cast<int32_t>(format) ||
      plane >= static_cast<size_t>(buffer->planeCount())) {
    return kTextureCacheErrorUnsupported;
  }
  layout.plane = static_cast<int32_t>(plane);
  layout.glFormat = static_cast<int32_t>(format);
  layout.texelBytes = texelBytes;
  const PixelPlaneGeometry geometry = buffer->planeGeometry(layout.plane);
  const size_t texels = (geometry.rowBytes() + static_cast<size_t>(texelBytes) - 1) / static_cast<size_t>(texelBytes);
  if (width <= 0 || static_cast<size_t>(width) != texels || height != geometry.height) {
    return kTextureCacheErrorSizeMismatch;
  }
  return core_->map(buffer, layout, texture);
}

void TextureCache::flush() { core_->flush(); }

TextureCacheStatistics TextureCache::statistics() const { return core_->statistics(); }

bool TextureCache::usesBgraTextures() const { return core_->nativeBgra(); }

}  // namespace lumo
