// Long runs, many threads and hostile frames through the facade: nothing leaks, races or corrupts a frame.
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <GLES2/gl2.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "support/GlHarness.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // the sanitizer's allocator keeps freed memory: RSS says nothing
#else
constexpr bool kSanitized = false;
#endif

namespace lumo::test {
namespace {

using reference::Frame;

size_t residentBytes() {
  long pages = 0;
  long resident = 0;
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return 0;
  if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(statm);
  return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// A crop of the portrait, so that every size has skin and edges.
Frame crop(int width, int height, int x0, int y0) {
  static const Frame sample = loadSample();
  Frame frame(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::memcpy(frame.at(x, y), sample.at((x0 + x) % sample.width, (y0 + y) % sample.height), 4);
    }
  }
  return frame;
}

struct Settings {
  uint32_t mask;
  uint32_t preset;
  float step, factor, whiten, sharpen, skin;
};

template <typename Filter>
void apply(Filter& filter, const Settings& s) {
  filter.enableBeautifying(s.mask);
  filter.setCustomizedFilter(s.preset);
  filter.setPolishStep(s.step);
  filter.setPolishFactor(s.factor);
  filter.setWhitenFactor(s.whiten);
  filter.setSharppenFactor(s.sharpen);
  filter.setSkinWhitenFactor(s.skin);
}

template <typename Filter = LumoImageFilter>
Frame renderAlone(const Frame& in, const Settings& settings) {
  Filter filter;
  filter.create();
  apply(filter, settings);
  const Frame out = fromBuffer(filter.render(toBuffer(in)));
  filter.destroy();
  GLContext::setCurrent({});
  return out;
}

TEST(Soak, ChangingFramesThenCreateDestroyCyclesLeaveNothingBehind) {
  const uint64_t liveAtStart = glObjectStatistics().live();
  const int sizes[][2] = {{64, 48}, {97, 61}, {160, 120}, {33, 200}, {128, 128}};
  size_t processed = 0;
  {
    LumoImageFilter filter;
    ASSERT_EQ(filter.create(), 0);
    PixelBufferRef input;
    for (int i = 0; i < 2000; ++i) {
      if (i % 40 == 0) {
        filter.enableBeautifying(static_cast<uintptr_t>((i / 40) % 17));     // 16: no known pass
        filter.setCustomizedFilter(static_cast<uintptr_t>((i / 120) % 15));  // 14: out of range
      }
      filter.setPolishStep(1.0f + static_cast<float>(i % 5));
      filter.setPolishFactor(2.0f + static_cast<float>(i % 7));
      filter.setWhitenFactor(static_cast<float>(i % 11) / 10.0f);
      filter.setSharppenFactor(static_cast<float>(i % 9) / 8.0f - 0.5f);
      filter.setSkinWhitenFactor(static_cast<float>(i % 4) / 3.0f);
      const auto& size = sizes[(i / 100) % 5];
      // Mostly the host's own pool of one buffer; every seventh frame a buffer of its own.
      if (!input || input->width() != size[0] || input->height() != size[1] || i % 7 == 0) {
        input = toBuffer(crop(size[0], size[1], i % 300, i % 200));
      }
      const PixelBufferRef output = filter.render(input);
      ASSERT_TRUE(output) << "frame " << i;
      ASSERT_EQ(output->width(), size[0]);
      if (output != input) ++processed;
      if (i % 10 == 0) {
        ASSERT_EQ(output->lockBaseAddress(kPixelBufferLockReadOnly), kPixelBufferSuccess);
        output->unlockBaseAddress(kPixelBufferLockReadOnly);
      }
    }
    filter.destroy();
  }
  GLContext::setCurrent({});
  EXPECT_GT(processed, 1500u);
  EXPECT_EQ(glObjectStatistics().live(), liveAtStart) << "GL objects left after 2000 frames";

  const Frame small = crop(48, 32, 200, 150);
  auto cycle = [&](int i) {
    LumoImageFilter filter;
    ASSERT_EQ(filter.create(), 0);
    filter.enableBeautifying(static_cast<uintptr_t>(1 + i % 15));
    filter.setCustomizedFilter(static_cast<uintptr_t>(i % 3 == 0 ? 1 + i % 13 : 0));
    ASSERT_TRUE(filter.render(toBuffer(small)));
    filter.destroy();
    GLContext::setCurrent({});
  };
  for (int i = 0; i < 20; ++i) cycle(i);  // the driver's caches and the allocator settle first
  const size_t residentBefore = residentBytes();
  for (int i = 0; i < 300; ++i) cycle(i);
  const size_t residentAfter = residentBytes();
  EXPECT_EQ(glObjectStatistics().live(), liveAtStart) << "GL objects left after 300 cycles";
  if (!kSanitized) {
    // A leak of one frame's buffers or one context per cycle would be tens of megabytes by now.
    EXPECT_LT(residentAfter, residentBefore + 16u * 1024 * 1024)
        << "resident memory grew from " << residentBefore << " to " << residentAfter << " bytes";
  }
  std::printf("soak: 2000 frames (%zu processed), 320 create/render/destroy cycles, RSS %zu -> %zu KiB\n", processed,
              residentBefore / 1024, residentAfter / 1024);
}

template <typename Filter>
void hammerSettersWhileRendering() {
  Filter filter;
  ASSERT_EQ(filter.create(), 0);
  const Frame in = crop(64, 48, 220, 120);
  const PixelBufferRef input = toBuffer(in);
  std::atomic<bool> stop{false};
  std::atomic<int> running{0};
  auto hammer = [&](uint32_t seed) {
    uint32_t state = seed;
    running.fetch_add(1);
    while (!stop.load(std::memory_order_relaxed)) {
      state = state * 1664525u + 1013904223u;
      const float unit = static_cast<float>(state >> 8) / 16777216.0f;
      filter.setPolishStep(4.0f * unit);
      filter.setPolishFactor(8.0f * unit);
      filter.setWhitenFactor(unit);
      filter.setSharppenFactor(unit - 0.5f);
      filter.setSkinWhitenFactor(unit);
      filter.enableBeautifying((state >> 4) % 16);
      filter.setCustomizedFilter((state >> 12) % 14);
    }
  };
  std::thread a(hammer, 1u);
  std::thread b(hammer, 2u);
  // Frames start only once both setters are running, so that every one of them races the setters.
  while (running.load() < 2) std::this_thread::yield();
  int drawn = 0;
  for (int i = 0; i < 150; ++i) {
    const PixelBufferRef output = filter.render(input);
    ASSERT_TRUE(output);
    ASSERT_EQ(output->width(), 64);
    if (output != input) ++drawn;
  }
  stop = true;
  EXPECT_GT(drawn, 0) << "frames drawn while the setters ran";
  a.join();
  b.join();
  // Once the setters are quiet, the next frame is exactly what a fresh facade draws with those settings.
  const Settings last{7, 3, 3.0f, 4.0f, 0.4f, 0.0f, 0.6f};
  apply(filter, last);
  const Frame out = fromBuffer(filter.render(input));
  filter.destroy();
  GLContext::setCurrent({});
  EXPECT_EQ(out.bgra, renderAlone<Filter>(in, last).bgra);
}

TEST(Threads, SettersHammeredFromTwoThreadsWhileFramesRender) { hammerSettersWhileRendering<LumoImageFilter>(); }

// The CPU engine's own worker threads, under the same hammering.
TEST(Threads, CpuEngineSettersHammeredWhileFramesRender) { hammerSettersWhileRendering<CpuImageFilter>(); }

TEST(Threads, FourFacadesOnFourThreadsMatchOneFacadeAlone) {
  const Settings settings[4] = {{7, 0, 3, 4, 0.5f, 0, 0.5f},
                                {15, 0, 2, 6, 0.3f, 0.5f, 0.7f},
                                {1, 4, 3, 4, 0.5f, 0, 0.5f},
                                {0, 9, 3, 4, 0.5f, 0, 0.5f}};
  Frame inputs[4];
  Frame expected[4];
  for (int t = 0; t < 4; ++t) {
    inputs[t] = crop(120 + 8 * t, 90, 60 * t, 100 + 20 * t);
    expected[t] = renderAlone(inputs[t], settings[t]);
  }
  int mismatches[4] = {0, 0, 0, 0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      LumoImageFilter filter;
      filter.create();
      apply(filter, settings[t]);
      const PixelBufferRef input = toBuffer(inputs[t]);
      for (int i = 0; i < 12; ++i) {
        if (fromBuffer(filter.render(input)).bgra != expected[t].bgra) ++mismatches[t];
      }
      filter.destroy();
      GLContext::setCurrent({});
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

TEST(HostileFrames, EachGetsItsDocumentedResultAndTheNextGoodFrameIsProcessed) {
  LumoImageFilter filter;
  ASSERT_EQ(filter.create(), 0);
  filter.enableBeautifying(7);
  const Frame good = crop(80, 60, 230, 130);
  const Frame expected = renderAlone(good, {7, 0, 3, 4, 0.5f, 0, 0.5f});
  auto expectGoodFrameWorks = [&](const char* after) {
    const PixelBufferRef input = toBuffer(good);
    const PixelBufferRef output = filter.render(input);
    ASSERT_TRUE(output) << after;
    ASSERT_NE(output, input) << after;
    EXPECT_EQ(fromBuffer(output).bgra, expected.bgra) << after;
  };

  // 1 x 1 as the first frame: no output buffers exist for it yet, the input comes back.
  const PixelBufferRef tiny = toBuffer(Frame(1, 1));
  EXPECT_EQ(filter.render(tiny), tiny);
  expectGoodFrameWorks("a 1 x 1 first frame");

  EXPECT_EQ(filter.render(nullptr), nullptr);
  expectGoodFrameWorks("a null frame");

  // 0 x 0 and non-BGRA buffers cannot be made: the host gets a status, never a buffer.
  PixelBufferRef refused;
  EXPECT_EQ(PixelBuffer::create(0, 0, kPixelFormat32BGRA, {}, &refused), kPixelBufferErrorInvalidSize);
  EXPECT_EQ(PixelBuffer::create(16, 16, 0x79757632 /* '2vuy' */, {}, &refused), kPixelBufferErrorUnsupportedFormat);
  EXPECT_FALSE(refused);

  GLint maxSize = 0;
  {
    auto context = GLContext::create();
    ContextGuard guard(context.get());
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maxSize);
  }
  const PixelBufferRef wide = toBuffer(Frame(maxSize + 1, 1));
  EXPECT_EQ(filter.render(wide), wide) << "a frame above GL_MAX_TEXTURE_SIZE comes back unprocessed";
  expectGoodFrameWorks("a frame above the texture limit");

  // The host frees its memory as soon as render returns: nothing may touch it afterwards (ASan watches).
  for (int i = 0; i < 3; ++i) {
    auto* memory = static_cast<uint8_t*>(std::malloc(good.bgra.size()));
    std::memcpy(memory, good.bgra.data(), good.bgra.size());
    PixelBufferRef borrowed;
    ASSERT_EQ(PixelBuffer::createWithBytes(
                  80, 60, kPixelFormat32BGRA, memory, 80 * 4, [](void* bytes) { std::free(bytes); }, {}, &borrowed),
              kPixelBufferSuccess);
    const PixelBufferRef output = filter.render(borrowed);
    borrowed.reset();  // the release callback frees the memory now
    EXPECT_EQ(fromBuffer(output).bgra, expected.bgra);
  }
  expectGoodFrameWorks("frames whose memory was freed after the call");
  filter.destroy();
  GLContext::setCurrent({});
}

}  // namespace
}  // namespace lumo::test
