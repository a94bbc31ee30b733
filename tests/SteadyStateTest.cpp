// Steady-state frames make no GL object and no heap allocation in the library. This executable replaces
// the global operator new to count allocations made on the rendering thread while a window is open.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "support/GlHarness.h"

// Sanitizer builds bring their own operator new; there the heap is counted by the Release build only.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCountingHeap = false;
namespace {
thread_local bool counting = false;
thread_local size_t allocations = 0;
}  // namespace
#else
constexpr bool kCountingHeap = true;
namespace {
thread_local bool counting = false;
thread_local size_t allocations = 0;

void* allocate(size_t size) {
  if (counting) ++allocations;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
#endif

namespace lumo::test {
namespace {

// Counts operator new calls on this thread and GL objects made by the library while `work` runs.
struct Counts {
  size_t allocations = 0;
  uint64_t glObjectsCreated = 0;
  uint64_t glObjectsDeleted = 0;
};

template <typename Work>
Counts count(Work work) {
  const GLObjectStatistics before = glObjectStatistics();
  allocations = 0;
  counting = true;
  work();
  counting = false;
  const GLObjectStatistics after = glObjectStatistics();
  return {allocations, after.created - before.created, after.deleted - before.deleted};
}

class SteadyState : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(filter_.create(), 0);
    frameA_ = loadSample();
    frameB_ = pattern(512, 512, [](int x, int y) {
      return reference::Rgba{(x % 256) / 255.0f, (y % 256) / 255.0f, 0.6f, 1.0f};
    });
    PixelBuffer::create(512, 512, kPixelFormat32BGRA, {}, &input_);
  }
  void TearDown() override {
    filter_.destroy();
    GLContext::setCurrent({});
  }

  // What a capture host does each frame: write into its own buffer, render, read the result.
  void frame(int index) {
    const reference::Frame& source = index % 2 == 0 ? frameA_ : frameB_;
    input_->lockBaseAddress(0);
    std::memcpy(input_->baseAddress(), source.bgra.data(), source.bgra.size());
    input_->unlockBaseAddress(0);
    const PixelBufferRef output = filter_.render(input_);
    ASSERT_TRUE(output);
    ASSERT_NE(output, input_);
    output->lockBaseAddress(kPixelBufferLockReadOnly);
    checksum_ += static_cast<const uint8_t*>(output->baseAddress())[4 * (256 * 512 + 256)];
    output->unlockBaseAddress(kPixelBufferLockReadOnly);
  }

  LumoImageFilter filter_;
  PixelBufferRef input_;
  reference::Frame frameA_;
  reference::Frame frameB_;
  unsigned checksum_ = 0;
};

TEST_F(SteadyState, FramesMakeNoGlObjectAndNoAllocation) {
  struct Case {
    uint32_t mask;
    uint32_t preset;
  };
  for (const Case c : {Case{7, 0}, Case{15, 0}, Case{1, 0}, Case{8, 0}, Case{0, 5}, Case{7, 13}}) {
    SCOPED_TRACE("mask " + std::to_string(c.mask) + " preset " + std::to_string(c.preset));
    filter_.enableBeautifying(c.mask);
    filter_.setCustomizedFilter(c.preset);
    for (int i = 0; i < 3; ++i) frame(i);  // settings applied, programs built, textures made
    const Counts counts = count([&] {
      for (int i = 0; i < 10; ++i) {
        // Changing the float settings is part of a live session; it must not allocate either.
        filter_.setPolishStep(2.0f + static_cast<float>(i % 3));
        filter_.setSkinWhitenFactor(0.3f + 0.05f * static_cast<float>(i));
        filter_.setSharppenFactor(0.1f * static_cast<float>(i));
        frame(i);
      }
    });
    if (kCountingHeap) {
      EXPECT_EQ(counts.allocations, 0u);
    }
    EXPECT_EQ(counts.glObjectsCreated, 0u);
    EXPECT_EQ(counts.glObjectsDeleted, 0u);
  }
  EXPECT_NE(checksum_, 0u);
}

TEST_F(SteadyState, ANewHostBufferEachFrameMakesNoGlObject) {
  // Hosts that wrap each decoded frame anew: the wrapper is the host's allocation, the textures (one a plane
  // for YUV and 24-bit frames, whose result is read back plane by plane) are reused.
  filter_.enableBeautifying(7);
  for (const uint32_t format : {kPixelFormat32BGRA, kPixelFormatNV12, kPixelFormatI420, kPixelFormatI422,
                                kPixelFormatYUY2, kPixelFormatUYVY, kPixelFormat24BGR, kPixelFormat24RGB}) {
    SCOPED_TRACE(pixelFormatName(format));
    std::vector<uint8_t> memory(frameA_.bgra);
    std::vector<uint8_t> result(memory.size());
    auto wrappedFrame = [&] {
      PixelBufferPlane planes[kPixelBufferMaxPlanes];
      const int32_t count = pixelFormatTightPlanes(format, 512, 512, memory.data(), planes);
      PixelBufferRef wrapped;
      PixelBuffer::createWithPlanes(512, 512, format, planes, count, nullptr, {}, &wrapped);
      const PixelBufferRef output = filter_.render(wrapped);
      ASSERT_NE(output, wrapped);
      ASSERT_EQ(output->pixelFormat(), format);
      pixelFormatTightPlanes(format, 512, 512, result.data(), planes);
      copyPlanesOut(output, planes);
      checksum_ += result[512 * 256 + 256];
    };
    for (int i = 0; i < 3; ++i) wrappedFrame();
    const Counts counts = count([&] {
      for (int i = 0; i < 10; ++i) wrappedFrame();
    });
    EXPECT_EQ(counts.glObjectsCreated, 0u);
    EXPECT_EQ(counts.glObjectsDeleted, 0u);
  }
  EXPECT_NE(checksum_, 0u);
}

TEST_F(SteadyState, CpuEngineFramesMakeNoAllocation) {
  CpuImageFilter engine;
  engine.create();
  for (const uint32_t mask : {7u, 15u, 2u}) {
    engine.enableBeautifying(mask);
    engine.setCustomizedFilter(mask == 2 ? 4 : 0);
    for (int i = 0; i < 3; ++i) ASSERT_NE(engine.render(input_), input_);  // scratch sized on the first frame
    const Counts counts = count([&] {
      for (int i = 0; i < 10; ++i) {
        engine.setWhitenFactor(0.1f * static_cast<float>(i));
        const PixelBufferRef output = engine.render(input_);
        output->lockBaseAddress(kPixelBufferLockReadOnly);
        checksum_ += static_cast<const uint8_t*>(output->baseAddress())[1000];
        output->unlockBaseAddress(kPixelBufferLockReadOnly);
      }
    });
    if (kCountingHeap) {
      EXPECT_EQ(counts.allocations, 0u) << "mask " << mask;
    }
    EXPECT_EQ(counts.glObjectsCreated, 0u);
  }
  engine.destroy();
}

TEST_F(SteadyState, TheCounterSeesAllocationsAndGlObjects) {
  // The checks above prove nothing if the counters are blind.
  const Counts counts = count([] {
    LumoImageFilter other;
    other.create();
    other.enableBeautifying(1);
    other.render(toBuffer(loadSample()));
    other.destroy();
  });
  if (kCountingHeap) {
    EXPECT_GT(counts.allocations, 10u);
  }
  EXPECT_GT(counts.glObjectsCreated, 10u);
  EXPECT_EQ(counts.glObjectsCreated, counts.glObjectsDeleted) << "destroy gives back every GL object";
}

}  // namespace
}  // namespace lumo::test
