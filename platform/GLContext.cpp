#include "GLContext.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstring>
#include <mutex>

namespace lumo {
namespace {

bool hasExtension(const char* list, const char* name) {
  if (list == nullptr) return false;
  const size_t length = std::strlen(name);
  for (const char* at = std::strstr(list, name); at != nullptr; at = std::strstr(at + 1, name)) {
    const bool startsWord = at == list || at[-1] == ' ';
    const bool endsWord = at[length] == '\0' || at[length] == ' ';
    if (startsWord && endsWord) return true;
  }
  return false;
}

EGLDisplay initialized(EGLDisplay display) {
  if (display == EGL_NO_DISPLAY) return EGL_NO_DISPLAY;
  EGLint major = 0;
  EGLint minor = 0;
  return eglInitialize(display, &major, &minor) == EGL_TRUE ? display : EGL_NO_DISPLAY;
}

EGLDisplay openHeadlessDisplay() {
  const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  auto getPlatformDisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (getPlatformDisplay != nullptr && hasExtension(clientExtensions, "EGL_MESA_platform_surfaceless")) {
    EGLDisplay display = initialized(getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr));
    if (display != EGL_NO_DISPLAY) return display;
  }
  // NVIDIA's headless driver offers no surfaceless platform but enumerates its GPUs as EGL devices.
  auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
  if (getPlatformDisplay != nullptr && queryDevices != nullptr &&
      hasExtension(clientExtensions, "EGL_EXT_platform_device")) {
    EGLDeviceEXT devices[8];
    EGLint count = 0;
    if (queryDevices(8, devices, &count) == EGL_TRUE) {
      for (EGLint i = 0; i < count; ++i) {
        EGLDisplay display = initialized(getPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, devices[i], nullptr));
        if (display != EGL_NO_DISPLAY) return display;
      }
    }
  }
  return initialized(eglGetDisplay(EGL_DEFAULT_DISPLAY));
}

// Displays are shared by every context of the process; EGL does not reference-count eglInitialize, so the
// display is opened once and never terminated (a host may be using the same display).
EGLDisplay sharedDisplay() {
  static std::once_flag once;
  static EGLDisplay display = EGL_NO_DISPLAY;
  std::call_once(once, [] { display = openHeadlessDisplay(); });
  return display;
}

}  // namespace

bool GLContext::Snapshot::operator==(const Snapshot& other) const {
  return api == other.api && display == other.display && draw == other.draw && read == other.read &&
         context == other.context;
}

GLContext::GLContext(void* display, void* context, void* surface)
    : display_(display), context_(context), surface_(surface) {}

std::shared_ptr<GLContext> GLContext::create() {
  EGLDisplay display = sharedDisplay();
  if (display == EGL_NO_DISPLAY) return nullptr;
  if (eglBindAPI(EGL_OPENGL_ES_API) != EGL_TRUE) return nullptr;

  const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
  const char* extensions = eglQueryString(display, EGL_EXTENSIONS);
  if (hasExtension(extensions, "EGL_KHR_no_config_context") &&
      hasExtension(extensions, "EGL_KHR_surfaceless_context")) {
    EGLContext context = eglCreateContext(display, EGL_NO_CONFIG_KHR, EGL_NO_CONTEXT, contextAttributes);
    if (context != EGL_NO_CONTEXT) {
      return std::shared_ptr<GLContext>(new GLContext(display, context, nullptr));
    }
  }

  const EGLint configAttributes[] = {EGL_SURFACE_TYPE,
                                     EGL_PBUFFER_BIT,
                                     EGL_RENDERABLE_TYPE,
                                     EGL_OPENGL_ES2_BIT,
                                     EGL_RED_SIZE,
                                     8,
                                     EGL_GREEN_SIZE,
                                     8,
                                     EGL_BLUE_SIZE,
                                     8,
                                     EGL_ALPHA_SIZE,
                                     8,
                                     EGL_NONE};
  EGLConfig config = nullptr;
  EGLint count = 0;
  if (eglChooseConfig(display, configAttributes, &config, 1, &count) != EGL_TRUE || count < 1) {
    return nullptr;
  }
  const EGLint surfaceAttributes[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
  EGLSurface surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
  if (surface == EGL_NO_SURFACE) return nullptr;
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
  if (context == EGL_NO_CONTEXT) {
    eglDestroySurface(display, surface);
    return nullptr;
  }
  return std::shared_ptr<GLContext>(new GLContext(display, context, surface));
}

GLContext::~GLContext() {
  if (isCurrent()) {
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  }
  eglDestroyContext(display_, context_);
  if (surface_ != nullptr) eglDestroySurface(display_, surface_);
}

GLContext::Snapshot GLContext::current() {
  Snapshot snapshot;
  snapshot.api = eglQueryAPI();
  snapshot.display = eglGetCurrentDisplay();
  snapshot.draw = eglGetCurrentSurface(EGL_DRAW);
  snapshot.read = eglGetCurrentSurface(EGL_READ);
  snapshot.context = eglGetCurrentContext();
  return snapshot;
}

bool GLContext::setCurrent(const Snapshot& snapshot) {
  if (snapshot.context == EGL_NO_CONTEXT) {
    bool released = true;
    EGLDisplay display = eglGetCurrentDisplay();
    if (display != EGL_NO_DISPLAY) {
      released = eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT) == EGL_TRUE;
    }
    if (snapshot.api != 0) eglBindAPI(snapshot.api);
    return released;
  }
  if (snapshot.api != 0) eglBindAPI(snapshot.api);
  return eglMakeCurrent(snapshot.display, snapshot.draw, snapshot.read, snapshot.context) == EGL_TRUE;
}

bool GLContext::makeCurrent() const {
  eglBindAPI(EGL_OPENGL_ES_API);
  return eglMakeCurrent(display_, surface_, surface_, context_) == EGL_TRUE;
}

bool GLContext::isCurrent() const { return eglGetCurrentContext() == context_; }

GLContext::Snapshot GLContext::snapshot() const {
  return Snapshot{EGL_OPENGL_ES_API, display_, surface_, surface_, context_};
}

ContextGuard::ContextGuard(const GLContext* ours) {
  if (ours == nullptr) return;
  if (ours->isCurrent()) {
    ok_ = true;
    return;
  }
  saved_ = GLContext::current();
  remembered_ = true;
  ok_ = ours->makeCurrent();
}

ContextGuard::~ContextGuard() {
  if (remembered_ && saved_.context != EGL_NO_CONTEXT) GLContext::setCurrent(saved_);
}

}  // namespace lumo
