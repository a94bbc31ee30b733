#include "support/GlHarness.h"

#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "ImageIO.h"
#include "PassSequence.h"

namespace lumo::test {

reference::Frame loadSample() {
  tools::Image image;
  std::string error;
  if (!tools::readImage(LUMO_SAMPLE_IMAGE, &image, &error)) {
    ADD_FAILURE() << "cannot read the sample: " << error;
    return {};
  }
  reference::Frame frame(image.width, image.height);
  frame.bgra = image.bgra;
  return frame;
}

PixelBufferRef toBuffer(const reference::Frame& frame, bool gpuShareable) {
  PixelBufferAttributes attributes;
  attributes.gpuShareable = gpuShareable;
  PixelBufferRef buffer;
  EXPECT_EQ(PixelBuffer::create(frame.width, frame.height, kPixelFormat32BGRA, attributes, &buffer),
            kPixelBufferSuccess);
  buffer->lockBaseAddress(0);
  std::memcpy(buffer->baseAddress(), frame.bgra.data(), frame.bgra.size());
  buffer->unlockBaseAddress(0);
  return buffer;
}

reference::Frame fromBuffer(const PixelBufferRef& buffer) {
  reference::Frame frame(buffer->width(), buffer->height());
  copyPixelsOut(buffer, frame.bgra.data(), static_cast<size_t>(frame.width) * 4);
  return frame;
}

Difference compare(const reference::Frame& a, const reference::Frame& b, int step) {
  Difference d;
  EXPECT_EQ(a.width, b.width);
  EXPECT_EQ(a.height, b.height);
  if (a.bgra.size() != b.bgra.size()) {
    d.maxColour = 255;
    return d;
  }
  size_t above = 0;
  for (size_t i = 0; i < a.bgra.size(); ++i) {
    const int diff = std::abs(int(a.bgra[i]) - int(b.bgra[i]));
    if (i % 4 == 3) {
      d.maxAlpha = std::max(d.maxAlpha, diff);
    } else {
      d.maxColour = std::max(d.maxColour, diff);
      if (diff > step) ++above;
    }
  }
  d.shareAbove = double(above) / double(a.bgra.size() / 4 * 3);
  return d;
}

GlHarness::GlHarness() : context_(GLContext::create()) {
  if (!context_) return;
  ContextGuard guard(context_.get());
  TextureCache::create(context_, &cache_);
  framebuffer_.reset(gl::genFramebuffer());
}

GlHarness::~GlHarness() {
  if (!context_) return;
  ContextGuard guard(context_.get());
  cache_.reset();
  framebuffer_.reset();
}

reference::Frame GlHarness::draw(VideoProcessFilter& filter, const reference::Frame& first,
                                 const reference::Frame* second, int pass) {
  ContextGuard guard(context_.get());
  PixelBufferRef in = toBuffer(first);
  PixelBufferRef in2 = second != nullptr ? toBuffer(*second) : nullptr;
  PixelBufferRef out = toBuffer(reference::Frame(first.width, first.height), true);
  TextureRef t0, t2, target;
  cache_->createTextureFromImage(in, GL_TEXTURE_2D, GL_RGBA, first.width, first.height, GL_BGRA_EXT, GL_UNSIGNED_BYTE,
                                 0, &t0);
  if (in2) {
    cache_->createTextureFromImage(in2, GL_TEXTURE_2D, GL_RGBA, second->width, second->height, GL_BGRA_EXT,
                                   GL_UNSIGNED_BYTE, 0, &t2);
  }
  cache_->createTextureFromImage(out, GL_TEXTURE_2D, GL_RGBA, first.width, first.height, GL_BGRA_EXT, GL_UNSIGNED_BYTE,
                                 0, &target);
  EXPECT_TRUE(t0 && target && (!in2 || t2));
  filter.doChangeFormat(0, first.width, first.height, nullptr);
  PassDraw how;  // as the facade draws a pass
  how.framebuffer = framebuffer_.get();
  how.width = first.width;
  how.height = first.height;
  how.first = t0->name();
  how.second = t2 ? t2->name() : 0;
  how.target = target->name();
  drawPass(filter, pass, how);
  glFinish();
  expectNoGlError();
  t0.reset();
  t2.reset();
  target.reset();
  return fromBuffer(out);
}

void expectNoGlError() { EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR)); }

}  // namespace lumo::test
