// The platform layer on real EGL: context guard, pixel buffers, texture cache coherence.
#include <EGL/egl.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "support/GlHarness.h"

namespace lumo {
namespace {

TEST(ContextGuard, WithNoContextOursStaysCurrent) {
  auto ours = GLContext::create();
  ASSERT_TRUE(ours);
  std::thread([&] {
    ASSERT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    {
      ContextGuard guard(ours.get());
      EXPECT_TRUE(guard.ok());
      EXPECT_TRUE(ours->isCurrent());
    }
    EXPECT_TRUE(ours->isCurrent()) << "a thread that had nothing keeps ours";
    GLContext::setCurrent({});
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
  }).join();
}

TEST(ContextGuard, RestoresAHostContextExactly) {
  auto ours = GLContext::create();
  ASSERT_TRUE(ours);
  std::thread([&] {
    // The host's own context, with a pbuffer surface of its own, made without our classes.
    EGLDisplay display = static_cast<EGLDisplay>(ours->eglDisplay());
    const EGLint configAttributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT,
                                       EGL_NONE};
    EGLConfig config;
    EGLint count = 0;
    ASSERT_TRUE(eglChooseConfig(display, configAttributes, &config, 1, &count) && count == 1);
    const EGLint surfaceAttributes[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
    EGLSurface surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    eglBindAPI(EGL_OPENGL_ES_API);
    EGLContext host = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    ASSERT_NE(host, EGL_NO_CONTEXT);
    ASSERT_TRUE(eglMakeCurrent(display, surface, surface, host));
    const GLContext::Snapshot before = GLContext::current();
    {
      ContextGuard guard(ours.get());
      EXPECT_TRUE(ours->isCurrent());
      {
        ContextGuard nested(ours.get());  // already current: remembers nothing
        EXPECT_TRUE(ours->isCurrent());
      }
      EXPECT_TRUE(ours->isCurrent());
    }
    EXPECT_EQ(GLContext::current(), before);
    EXPECT_EQ(eglGetCurrentSurface(EGL_DRAW), surface);
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroyContext(display, host);
    eglDestroySurface(display, surface);
  }).join();
}

TEST(ContextGuard, TwoContextsOnTwoThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> results(2, -1);
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&results, i] {
      auto context = GLContext::create();
      if (!context) return;
      for (int round = 0; round < 20; ++round) {
        ContextGuard guard(context.get());
        glClearColor(i * 0.5f, 0, 0, 1);
        GLfloat colour[4] = {};
        glGetFloatv(GL_COLOR_CLEAR_VALUE, colour);
        if (colour[0] != i * 0.5f) return;
      }
      results[static_cast<size_t>(i)] = 0;
      GLContext::setCurrent({});
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(results, (std::vector<int>{0, 0}));
}

TEST(PixelBuffer, BadArgumentsGiveAStatus) {
  PixelBufferRef buffer;
  const PixelBufferAttributes attributes;
  EXPECT_EQ(PixelBuffer::create(0, 10, kPixelFormat32BGRA, attributes, &buffer), kPixelBufferErrorInvalidSize);
  EXPECT_EQ(PixelBuffer::create(10, -3, kPixelFormat32BGRA, attributes, &buffer), kPixelBufferErrorInvalidSize);
  EXPECT_EQ(PixelBuffer::create(1 << 30, 1 << 30, kPixelFormat32BGRA, attributes, &buffer),
            kPixelBufferErrorInvalidSize);
  EXPECT_EQ(PixelBuffer::create(10, 10, 0x34323076 /* '420v' */, attributes, &buffer),
            kPixelBufferErrorUnsupportedFormat);
  EXPECT_EQ(PixelBuffer::create(10, 10, kPixelFormat32BGRA, attributes, nullptr), kPixelBufferErrorInvalidArgument);
  EXPECT_FALSE(buffer);
  uint8_t bytes[64];
  EXPECT_EQ(PixelBuffer::createWithBytes(4, 4, kPixelFormat32BGRA, bytes, 8, nullptr, attributes, &buffer),
            kPixelBufferErrorInvalidStride);
  EXPECT_EQ(PixelBuffer::createWithBytes(4, 4, kPixelFormat32BGRA, nullptr, 16, nullptr, attributes, &buffer),
            kPixelBufferErrorInvalidArgument);
  EXPECT_EQ(PixelBuffer::create(3, 2, kPixelFormat32BGRA, attributes, &buffer), kPixelBufferSuccess);
  EXPECT_EQ(buffer->bytesPerRow(), 12u);
}

TEST(PixelBuffer, WrappedMemoryIsReleasedOnce) {
  std::vector<uint8_t> memory(64);
  int released = 0;
  {
    PixelBufferRef buffer;
    ASSERT_EQ(PixelBuffer::createWithBytes(
                  2, 2, kPixelFormat32BGRA, memory.data(), 32, [&](void* bytes) { released += bytes == memory.data(); },
                  {}, &buffer),
              kPixelBufferSuccess);
    EXPECT_EQ(buffer->baseAddress(), memory.data());
  }
  EXPECT_EQ(released, 1);
}

class TextureCacheGL : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    context_ = GLContext::create();
    ASSERT_TRUE(context_);
    TextureCacheAttributes attributes;
    attributes.useBgraExtensions = GetParam();
    ASSERT_EQ(TextureCache::create(context_, attributes, &cache_), kTextureCacheSuccess);
  }
  void TearDown() override {
    cache_.reset();
    GLContext::setCurrent({});
  }
  TextureRef map(const PixelBufferRef& buffer) {
    TextureRef texture;
    EXPECT_EQ(cache_->createTextureFromImage(buffer, GL_TEXTURE_2D, GL_RGBA, buffer->width(), buffer->height(),
                                             GL_BGRA_EXT, GL_UNSIGNED_BYTE, 0, &texture),
              kTextureCacheSuccess);
    return texture;
  }
  std::shared_ptr<GLContext> context_;
  std::shared_ptr<TextureCache> cache_;
};

TEST_P(TextureCacheGL, UploadsOnlyAfterAWrite) {
  EXPECT_EQ(cache_->usesBgraTextures(), GetParam());
  PixelBufferRef buffer = test::toBuffer(test::loadSample());
  for (int i = 0; i < 3; ++i) map(buffer);
  EXPECT_EQ(cache_->statistics().uploads, 1u);
  buffer->lockBaseAddress(kPixelBufferLockReadOnly);
  buffer->unlockBaseAddress(kPixelBufferLockReadOnly);
  map(buffer);
  EXPECT_EQ(cache_->statistics().uploads, 1u) << "a read-only lock changes nothing";
  buffer->lockBaseAddress(0);
  buffer->unlockBaseAddress(0);
  map(buffer);
  EXPECT_EQ(cache_->statistics().uploads, 2u);
  EXPECT_EQ(cache_->statistics().texturesCreated, 1u);
}

TEST_P(TextureCacheGL, RenderedBufferReadsBackOnceAndPaddedStridesWork) {
  // A host frame with a padded stride, copied into a GPU-shareable buffer by a pass-through draw.
  const reference::Frame sample = test::loadSample();
  const size_t stride = 512 * 4 + 64;
  std::vector<uint8_t> padded(stride * 512, 0xEE);
  for (int y = 0; y < 512; ++y) std::memcpy(&padded[stride * y], sample.at(0, y), 512 * 4);
  PixelBufferRef input;
  ASSERT_EQ(PixelBuffer::createWithBytes(512, 512, kPixelFormat32BGRA, padded.data(), stride, nullptr, {}, &input),
            kPixelBufferSuccess);
  PixelBufferRef output;
  PixelBufferAttributes shareable;
  shareable.gpuShareable = true;
  ASSERT_EQ(PixelBuffer::create(512, 512, kPixelFormat32BGRA, shareable, &output), kPixelBufferSuccess);
  {
    ContextGuard guard(context_.get());
    VideoProcessPassThroughFilter filter;
    filter.initProgram();
    TextureRef source = map(input);
    TextureRef target = map(output);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, target->name(), 0);
    glViewport(0, 0, 512, 512);
    glUseProgram(filter.program());
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, source->name());
    filter.setUniforms(1);
    filter.setAttributes(1);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glDeleteFramebuffers(1, &framebuffer);
    test::expectNoGlError();
  }
  EXPECT_EQ(test::fromBuffer(output).bgra, sample.bgra);
  EXPECT_EQ(cache_->statistics().readbacks, 1u);
  test::fromBuffer(output);
  EXPECT_EQ(cache_->statistics().readbacks, 1u) << "read back once";
  EXPECT_EQ(cache_->statistics().uploads, 2u);
}

TEST_P(TextureCacheGL, SteadyStateCreatesNoTexturesAndDeadBuffersArePurged) {
  PixelBufferAttributes shareable;
  shareable.gpuShareable = true;
  PixelBufferRef a, b;
  PixelBuffer::create(64, 64, kPixelFormat32BGRA, shareable, &a);
  PixelBuffer::create(64, 64, kPixelFormat32BGRA, shareable, &b);
  for (int frame = 0; frame < 10; ++frame) {
    TextureRef ta = map(a);
    TextureRef tb = map(b);
    EXPECT_NE(ta->name(), tb->name());
  }
  EXPECT_EQ(cache_->statistics().texturesCreated, 2u);
  EXPECT_EQ(cache_->statistics().uploads, 2u);
  a.reset();
  cache_->flush();
  EXPECT_EQ(cache_->statistics().texturesDeleted, 1u);
  EXPECT_EQ(cache_->statistics().liveTextures, 1u);
}

TEST_P(TextureCacheGL, ANewBufferEachFrameTakesOverTheDeadOnesTexture) {
  // A host that wraps every frame anew (a decoder's or a GStreamer frame) must still get each frame's
  // pixels, without a new GL texture a frame.
  std::vector<uint8_t> bytes(32 * 16 * 4);
  GLuint firstName = 0;
  for (int frame = 0; frame < 5; ++frame) {
    std::fill(bytes.begin(), bytes.end(), static_cast<uint8_t>(40 * frame + 10));
    PixelBufferRef buffer;
    ASSERT_EQ(PixelBuffer::createWithBytes(32, 16, kPixelFormat32BGRA, bytes.data(), 32 * 4, nullptr, {}, &buffer),
              kPixelBufferSuccess);
    TextureRef texture = map(buffer);
    if (frame == 0) firstName = texture->name();
    EXPECT_EQ(texture->name(), firstName);
    ContextGuard guard(context_.get());
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture->name(), 0);
    uint8_t pixel[4] = {0, 0, 0, 0};
    glReadPixels(31, 15, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel);
    glDeleteFramebuffers(1, &framebuffer);
    EXPECT_EQ(pixel[1], 40 * frame + 10) << "frame " << frame << " shows an older frame's pixels";
  }
  EXPECT_EQ(cache_->statistics().texturesCreated, 1u);
  EXPECT_EQ(cache_->statistics().texturesRecycled, 4u);
  EXPECT_EQ(cache_->statistics().uploads, 5u);
  // Another size gets a texture of its own.
  PixelBufferRef other;
  PixelBuffer::create(16, 16, kPixelFormat32BGRA, {}, &other);
  map(other);
  EXPECT_EQ(cache_->statistics().texturesCreated, 2u);
}

TEST_P(TextureCacheGL, RefusesWhatItCannotMap) {
  PixelBufferRef buffer;
  PixelBuffer::create(8, 8, kPixelFormat32BGRA, {}, &buffer);
  TextureRef texture;
  EXPECT_EQ(
      cache_->createTextureFromImage(nullptr, GL_TEXTURE_2D, GL_RGBA, 8, 8, GL_BGRA_EXT, GL_UNSIGNED_BYTE, 0, &texture),
      kTextureCacheErrorInvalidArgument);
  EXPECT_EQ(
      cache_->createTextureFromImage(buffer, GL_TEXTURE_2D, GL_RGBA, 9, 8, GL_BGRA_EXT, GL_UNSIGNED_BYTE, 0, &texture),
      kTextureCacheErrorSizeMismatch);
  EXPECT_EQ(cache_->createTextureFromImage(buffer, GL_TEXTURE_2D, GL_RGBA, 8, 8, GL_RGBA, GL_FLOAT, 0, &texture),
            kTextureCacheErrorUnsupported);
  EXPECT_FALSE(texture);
  GLint maxSize = 0;
  {
    ContextGuard guard(context_.get());
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxSize);
  }
  PixelBufferRef huge;
  ASSERT_EQ(PixelBuffer::create(maxSize + 1, 1, kPixelFormat32BGRA, {}, &huge), kPixelBufferSuccess);
  EXPECT_EQ(cache_->createTextureFromImage(huge, GL_TEXTURE_2D, GL_RGBA, maxSize + 1, 1, GL_BGRA_EXT, GL_UNSIGNED_BYTE,
                                           0, &texture),
            kTextureCacheErrorTooLarge);
}

INSTANTIATE_TEST_SUITE_P(BgraAndRgbaFallback, TextureCacheGL, ::testing::Bool());

}  // namespace
}  // namespace lumo
