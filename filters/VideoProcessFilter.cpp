#include "VideoProcessFilter.h"

#include <GLES2/gl2.h>

#include "GlDebug.h"
#include "GlHandle.h"
#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterVertexShaderString =
    "attribute vec4 position; attribute vec4 texcoord; varying vec2 textureCoordinate; void main() { "
    "gl_Position = position; textureCoordinate = texcoord.xy; }";

VideoProcessFilter::VideoProcessFilter()
    : m_lstVertices{-1.0f, -1.0f, 1.0f, -1.0f, -1.0f, 1.0f, 1.0f, 1.0f},
      m_lstTexCoord{0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 1.0f, 1.0f},
      _vertexShader(kVideoCapFilterVertexShaderString) {}

VideoProcessFilter::~VideoProcessFilter() { uninitProgram(); }

uint32_t VideoProcessFilter::initProgram() {
  m_hProgram.reset(gl::createProgram());
  _program = m_hProgram.get();
  GLint status = GL_FALSE;

  m_hVertexShader.reset(gl::createShader(GL_VERTEX_SHADER));
  const char* vertexText = _vertexShader.c_str();
  glShaderSource(m_hVertexShader.get(), 1, &vertexText, nullptr);
  glCompileShader(m_hVertexShader.get());
  glGetShaderiv(m_hVertexShader.get(), GL_COMPILE_STATUS, &status);
  gldebug::checkShader(m_hVertexShader.get(), "vertex");

  m_hFragShader.reset(gl::createShader(GL_FRAGMENT_SHADER));
  const char* fragmentText = _fragmentShader.c_str();
  glShaderSource(m_hFragShader.get(), 1, &fragmentText, nullptr);
  glCompileShader(m_hFragShader.get());
  gldebug::checkShader(m_hFragShader.get(), "fragment");

  glAttachShader(_program, m_hVertexShader.get());
  glAttachShader(_program, m_hFragShader.get());
  initAttributes(_program);
  glLinkProgram(_program);
  glGetProgramiv(_program, GL_LINK_STATUS, &status);
  gldebug::checkProgram(_program, "program");
  // The build has no failure branch: a broken program simply draws nothing useful.
  (void)status;
  initUniforms(_program);
  return _program;
}

void VideoProcessFilter::uninitProgram() {
  m_hFragShader.reset();
  m_hVertexShader.reset();
  m_hProgram.reset();
}

void VideoProcessFilter::initAttributes(uint32_t program) {
  glBindAttribLocation(program, 0, "position");
  glBindAttribLocation(program, 1, "inputTextureCoordinate");
  // The common vertex text names its coordinate attribute "texcoord". Binding it too puts it at location 1
  // on every GL instead of wherever a linker would place it; no program declares both names.
  glBindAttribLocation(program, 1, "texcoord");
  setAttributes(0);
}

void VideoProcessFilter::initUniforms(uint32_t program) {
  m_nFrameUniform = glGetUniformLocation(program, "inputImageTexture");
}

void VideoProcessFilter::setUniforms(int32_t /*pass*/) { glUniform1i(m_nFrameUniform, 0); }

void VideoProcessFilter::setAttributes(int32_t /*pass*/) {
  glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, m_lstVertices.data());
  glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, m_lstTexCoord.data());
  glEnableVertexAttribArray(0);
  glEnableVertexAttribArray(1);
}

int32_t VideoProcessFilter::doChangeFormat(int32_t /*format*/, int32_t width, int32_t height, int32_t* /*strides*/) {
  _imgWidth = width;
  _imgHeight = height;
  return 0;
}

int32_t VideoProcessFilter::setCropModeVerticesAndTexCoord(int32_t imgWidth, int32_t imgHeight, int32_t viewWidth,
                                                           int32_t viewHeight) {
  const float imageAspect = static_cast<float>(imgWidth) / static_cast<float>(imgHeight);
  const float viewAspect = static_cast<float>(viewWidth) / static_cast<float>(viewHeight);
  float scaleX = 1.0f;
  float scaleY = 1.0f;
  if (imageAspect > viewAspect) {
    scaleX = static_cast<float>(imgHeight) * viewAspect / static_cast<float>(imgWidth);
  } else {
    scaleY = static_cast<float>(imgWidth) / viewAspect / static_cast<float>(imgHeight);
  }
  const double x0 = (1.0 - static_cast<double>(scaleX)) * 0.5;
  const double y0 = (1.0 - static_cast<double>(scaleY)) * 0.5;
  const float left = static_cast<float>(x0);
  const float bottom = static_cast<float>(y0);
  const float right = static_cast<float>(1.0 - x0);
  const float top = static_cast<float>(1.0 - y0);
  m_lstVertices = {-1.0f, 1.0f, 1.0f, 1.0f, -1.0f, -1.0f, 1.0f, -1.0f};
  m_lstTexCoord = {left, top, right, top, left, bottom, right, bottom};
  return 0;
}

}  // namespace lumo
