#include "GlHandle.h"

#include <GLES2/gl2.h>

#include "GlObjectCounter.h"

namespace lumo::gl {

uint32_t genTexture() {
  GLuint name = 0;
  glGenTextures(1, &name);
  if (name != 0) globjects::noteCreated();
  return name;
}

uint32_t genFramebuffer() {
  GLuint name = 0;
  glGenFramebuffers(1, &name);
  if (name != 0) globjects::noteCreated();
  return name;
}

void deleteTexture(uint32_t name) {
  glDeleteTextures(1, &name);
  globjects::noteDeleted();
}

void deleteFramebuffer(uint32_t name) {
  glDeleteFramebuffers(1, &name);
  globjects::noteDeleted();
}

uint32_t createShader(uint32_t type) {
  const GLuint name = glCreateShader(type);
  if (name != 0) globjects::noteCreated();
  return name;
}

uint32_t createProgram() {
  const GLuint name = glCreateProgram();
  if (name != 0) globjects::noteCreated();
  return name;
}

void deleteShader(uint32_t name) {
  glDeleteShader(name);
  globjects::noteDeleted();
}

void deleteProgram(uint32_t name) {
  glDeleteProgram(name);
  globjects::noteDeleted();
}

void setLinearClampSampling() {
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

}  // namespace lumo::gl
