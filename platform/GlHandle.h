#pragma once

#include <cstdint>
#include <utility>

#include "Export.h"

namespace lumo {

namespace gl {
// glGen* / glDelete* of one name, counted in lumo::glObjectStatistics().
LUMO_EXPORT uint32_t genTexture();
LUMO_EXPORT uint32_t genFramebuffer();
LUMO_EXPORT void deleteTexture(uint32_t name);
LUMO_EXPORT void deleteFramebuffer(uint32_t name);
// glCreateShader / glCreateProgram and their deletes, counted the same way.
LUMO_EXPORT uint32_t createShader(uint32_t type);
LUMO_EXPORT uint32_t createProgram();
LUMO_EXPORT void deleteShader(uint32_t name);
LUMO_EXPORT void deleteProgram(uint32_t name);
// Linear filtering and clamp to edge on the texture bound to GL_TEXTURE_2D of the active unit: how every
// pass samples.
LUMO_EXPORT void setLinearClampSampling();
}  // namespace gl

// Owns one GL object name; 0 is empty. Move-only. The name is deleted on reset() or destruction, so the
// handle must go while its context is current; release() gives the name up without a GL call, for when
// that context is already gone.
template <void (*Delete)(uint32_t)>
class GlHandle {
 public:
  GlHandle() = default;
  explicit GlHandle(uint32_t name) : name_(name) {}
  ~GlHandle() { reset(); }
  GlHandle(GlHandle&& other) noexcept : name_(other.release()) {}
  GlHandle& operator=(GlHandle&& other) noexcept {
    if (this != &other) {
      reset();
      name_ = other.release();
    }
    return *this;
  }
  GlHandle(const GlHandle&) = delete;
  GlHandle& operator=(const GlHandle&) = delete;

  uint32_t get() const { return name_; }
  explicit operator bool() const { return name_ != 0; }
  void reset(uint32_t name = 0) {
    if (name_ != 0) Delete(name_);
    name_ = name;
  }
  uint32_t release() { return std::exchange(name_, 0u); }

 private:
  uint32_t name_ = 0;
};

using GlTexture = GlHandle<gl::deleteTexture>;
using GlFramebuffer = GlHandle<gl::deleteFramebuffer>;
using GlShader = GlHandle<gl::deleteShader>;
using GlProgram = GlHandle<gl::deleteProgram>;

}  // namespace lumo
