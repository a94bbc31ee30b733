#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "Export.h"
#include "GlHandle.h"

namespace lumo {

// One full-screen GPU pass: a program built from a vertex and a fragment text, a quad drawn as a
// four-vertex triangle strip, and the frame size its uniforms are computed from. Attribute location 0 is
// "position", location 1 "inputTextureCoordinate"; the first input is sampled through
// `inputImageTexture` on texture unit 0. Every method but the constructor and the accessors needs the
// owning GL context current, destruction included.
class LUMO_EXPORT VideoProcessFilter {
 public:
  VideoProcessFilter();
  virtual ~VideoProcessFilter();
  VideoProcessFilter(const VideoProcessFilter&) = delete;
  VideoProcessFilter& operator=(const VideoProcessFilter&) = delete;

  // Compiles both texts, binds the attribute slots, links and looks up the uniforms. Returns the program.
  uint32_t initProgram();
  // Deletes the fragment shader, the vertex shader and the program. The program's name stays readable.
  void uninitProgram();

  void initAttributes(uint32_t program);
  virtual void initUniforms(uint32_t program);
  virtual void setUniforms(int32_t pass);
  void setAttributes(int32_t pass);

  int32_t doChangeFormat(int32_t format, int32_t width, int32_t height, int32_t* strides);
  // Fills a view of another aspect ratio with the image, centre kept, cut on the overflowing axis.
  int32_t setCropModeVerticesAndTexCoord(int32_t imgWidth, int32_t imgHeight, int32_t viewWidth, int32_t viewHeight);

  const std::string& fragmentShader() const { return _fragmentShader; }
  void setFragmentShader(std::string text) { _fragmentShader = std::move(text); }
  const std::string& vertexShader() const { return _vertexShader; }
  void setVertexShader(std::string text) { _vertexShader = std::move(text); }
  int32_t imgWidth() const { return _imgWidth; }
  void setImgWidth(int32_t width) { _imgWidth = width; }
  int32_t imgHeight() const { return _imgHeight; }
  void setImgHeight(int32_t height) { _imgHeight = height; }
  uint32_t program() const { return _program; }

  // The quad, four (x, y) positions and four (s, t) coordinates in strip order.
  const std::array<float, 8>& vertices() const { return m_lstVertices; }
  const std::array<float, 8>& texCoords() const { return m_lstTexCoord; }

 private:
  GlShader m_hVertexShader;
  GlShader m_hFragShader;
  GlProgram m_hProgram;
  int32_t m_nFrameUniform = 0;
  // Client-side arrays handed to glVertexAttribPointer: they stay at this address for the filter's life.
  std::array<float, 8> m_lstVertices{};
  std::array<float, 8> m_lstTexCoord{};
  int32_t _imgHeight = 1;
  int32_t _imgWidth = 1;
  uint32_t _program = 0;  // the property: m_hProgram's name, kept after the program is deleted
  std::string _fragmentShader;
  std::string _vertexShader;
};

}  // namespace lumo
