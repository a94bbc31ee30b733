#include "GlDebug.h"

#include <GLES2/gl2.h>

#include <vector>

#include "Log.h"

namespace lumo::gldebug {

#if defined(LUMO_GL_CHECKS)

void checkShader(unsigned shader, const char* what) {
  GLint status = GL_FALSE;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &status);
  if (status == GL_TRUE) return;
  GLint length = 0;
  glGetShaderiv(shader, GL_INFO_LOG_LENGTH, &length);
  std::vector<char> info(static_cast<size_t>(length > 0 ? length : 1), '\0');
  glGetShaderInfoLog(shader, static_cast<GLsizei>(info.size()), nullptr, info.data());
  log("VideoProcessFilter::initProgram(): %s shader failed to compile: %s", what, info.data());
}

void checkProgram(unsigned program, const char* what) {
  GLint status = GL_FALSE;
  glGetProgramiv(program, GL_LINK_STATUS, &status);
  if (status == GL_TRUE) return;
  GLint length = 0;
  glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
  std::vector<char> info(static_cast<size_t>(length > 0 ? length : 1), '\0');
  glGetProgramInfoLog(program, static_cast<GLsizei>(info.size()), nullptr, info.data());
  log("VideoProcessFilter::initProgram(): %s failed to link: %s", what, info.data());
}

void checkError(const char* where) {
  for (GLenum error = glGetError(); error != GL_NO_ERROR; error = glGetError()) {
    log("%s: GL error 0x%04x", where, error);
  }
}

void checkFramebuffer(const char* where) {
  const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER);
  if (status != GL_FRAMEBUFFER_COMPLETE) log("%s: framebuffer incomplete, status 0x%04x", where, status);
}

void discardErrors() {
  while (glGetError() != GL_NO_ERROR) {
  }
}

#else

void discardErrors() {}

void checkShader(unsigned, const char*) {}
void checkProgram(unsigned, const char*) {}
void checkError(const char*) {}
void checkFramebuffer(const char*) {}

#endif

}  // namespace lumo::gldebug
