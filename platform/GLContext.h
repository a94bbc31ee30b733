#pragma once

#include <memory>

#include "Export.h"

namespace lumo {

// An OpenGL ES 2 context on a headless EGL display. The EGL handles are kept opaque so that the public
// headers do not pull in EGL; they are the EGLDisplay, EGLSurface and EGLContext values themselves.
class LUMO_EXPORT GLContext {
 public:
  // What is current on one thread: the bound client API and the display, surfaces and context.
  struct Snapshot {
    unsigned api = 0;  // EGLenum from eglQueryAPI
    void* display = nullptr;
    void* draw = nullptr;
    void* read = nullptr;
    void* context = nullptr;

    bool operator==(const Snapshot& other) const;
    bool operator!=(const Snapshot& other) const { return !(*this == other); }
  };

  // Makes a context on Mesa's surfaceless platform, else the first EGL device, else the default display.
  // Returns null when no context can be made.
  static std::shared_ptr<GLContext> create();

  // Whatever is current on the calling thread, possibly a host's own context or nothing.
  static Snapshot current();
  // Restores a snapshot exactly; one without a context releases the thread's current context.
  static bool setCurrent(const Snapshot& snapshot);

  ~GLContext();
  GLContext(const GLContext&) = delete;
  GLContext& operator=(const GLContext&) = delete;

  // The single place that makes this context current.
  bool makeCurrent() const;
  bool isCurrent() const;
  Snapshot snapshot() const;

  void* eglDisplay() const { return display_; }
  void* eglContext() const { return context_; }
  // True when made without a config or surface (EGL_KHR_no_config_context + surfaceless).
  bool isSurfaceless() const { return surface_ == nullptr; }

 private:
  GLContext(void* display, void* context, void* surface);

  void* display_;
  void* context_;
  void* surface_;  // 1 x 1 pbuffer where the display cannot go without one
};

// The three-step guard: makes `ours` current unless it already is, and afterwards restores whatever the
// thread had, unless it had nothing, in which case `ours` stays current.
class LUMO_EXPORT ContextGuard {
 public:
  explicit ContextGuard(const GLContext* ours);
  ~ContextGuard();
  ContextGuard(const ContextGuard&) = delete;
  ContextGuard& operator=(const ContextGuard&) = delete;

  // False when `ours` is null or could not be made current; GL work must then be skipped.
  bool ok() const { return ok_; }

 private:
  bool remembered_ = false;
  bool ok_ = false;
  GLContext::Snapshot saved_;
};

}  // namespace lumo
