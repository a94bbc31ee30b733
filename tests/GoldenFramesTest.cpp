// Whole frames of both engines against digests recorded from an earlier build: a refactoring or an
// optimisation that changes one byte of one frame, for any mask and preset, fails here.
//
// One engine object per settings set walks every mask and preset in turn, alternating between two frame
// sizes, so that deferred mask and preset changes, a preset replaced while one is in force and frame-size
// changes are all exercised on the way. The input carries varied alpha, which the skin mask and the passes
// that keep alpha must treat per pixel. Record anew (only when a change of picture is intended) with
//   LUMO_WRITE_GOLDEN=tests/golden/frames.txt ctest -R GoldenFrames
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using reference::Frame;

struct Step {
  int mask;
  int preset;
};

std::vector<Step> steps() {
  std::vector<Step> list;
  for (int mask = 0; mask <= 15; ++mask) list.push_back({mask, 0});
  for (int preset = 1; preset <= 13; ++preset) {
    for (const int mask : {0, 5, 15}) list.push_back({mask, preset});
  }
  list.push_back({-1, 14});  // both out of range: the input comes back
  list.push_back({7, 0});
  return list;
}

struct FloatSet {
  const char* name;
  float polishStep, polishFactor, whiten, sharpen, skinWhiten;
};

constexpr FloatSet kFloatSets[] = {{"defaults", 3.0f, 4.0f, 0.5f, 0.0f, 0.5f},
                                   {"custom", 2.5f, 6.0f, 0.3f, 0.7f, 0.8f}};

// A piece of the portrait (face and edges) with alpha varying over the frame.
Frame crop(const Frame& sample, int x0, int y0, int width, int height) {
  Frame frame(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const uint8_t* from = sample.at(x0 + x, y0 + y);
      uint8_t* to = frame.at(x, y);
      to[0] = from[0];
      to[1] = from[1];
      to[2] = from[2];
      to[3] = static_cast<uint8_t>(255 - ((x * 7 + y * 13) % 97));
    }
  }
  return frame;
}

// The portrait's rows 150 on, repeated mirrored beyond its right edge, with alpha varying as in crop().
Frame widened(const Frame& sample, int width, int height) {
  Frame frame(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int period = 2 * sample.width;
      const int sx = x % period < sample.width ? x % period : period - 1 - x % period;
      const uint8_t* from = sample.at(sx, 150 + y);
      uint8_t* to = frame.at(x, y);
      std::memcpy(to, from, 3);
      to[3] = static_cast<uint8_t>(255 - ((x * 7 + y * 13) % 97));
    }
  }
  return frame;
}

uint64_t digest(const Frame& frame) {
  uint64_t hash = 1469598103934665603ull;  // FNV-1a
  for (const uint8_t byte : frame.bgra) {
    hash ^= byte;
    hash *= 1099511628211ull;
  }
  return hash;
}

template <typename Engine>
void record(const char* engineName, std::map<std::string, std::string>* out) {
  const Frame sample = loadSample();
  const Frame inputs[2] = {crop(sample, 180, 150, 97, 61), crop(sample, 120, 260, 64, 90)};
  const Frame wide = widened(sample, 613, 83);
  for (const FloatSet& set : kFloatSets) {
    Engine engine;
    engine.create();
    engine.setPolishStep(set.polishStep);
    engine.setPolishFactor(set.polishFactor);
    engine.setWhitenFactor(set.whiten);
    engine.setSharppenFactor(set.sharpen);
    engine.setSkinWhitenFactor(set.skinWhiten);
    int index = 0;
    for (const Step& step : steps()) {
      const Frame& in = inputs[index % 2];
      engine.enableBeautifying(static_cast<uintptr_t>(static_cast<uint32_t>(step.mask)));
      engine.setCustomizedFilter(static_cast<uintptr_t>(step.preset));
      const PixelBufferRef result = engine.render(toBuffer(in));
      std::ostringstream key;
      key << engineName << ' ' << set.name << ' ' << index << " mask " << step.mask << " preset " << step.preset << ' '
          << in.width << 'x' << in.height;
      char value[32];
      std::snprintf(value, sizeof value, "%016llx",
                    static_cast<unsigned long long>(result ? digest(fromBuffer(result)) : 0));
      (*out)[key.str()] = value;
      ++index;
    }
    // Wider than the CPU engine's strips of columns, so that strip seams and band edges are in the picture.
    for (const int mask : {1, 7, 15}) {
      engine.enableBeautifying(static_cast<uintptr_t>(mask));
      engine.setCustomizedFilter(0);
      const PixelBufferRef result = engine.render(toBuffer(wide));
      char value[32];
      std::snprintf(value, sizeof value, "%016llx",
                    static_cast<unsigned long long>(result ? digest(fromBuffer(result)) : 0));
      (*out)[std::string(engineName) + ' ' + set.name + " wide mask " + std::to_string(mask) + ' ' +
             std::to_string(wide.width) + 'x' + std::to_string(wide.height)] = value;
    }
    engine.destroy();
    GLContext::setCurrent({});
  }
}

std::map<std::string, std::string> readGolden(const std::string& path) {
  std::map<std::string, std::string> golden;
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    const size_t space = line.rfind(' ');
    if (space != std::string::npos) golden[line.substr(0, space)] = line.substr(space + 1);
  }
  return golden;
}

TEST(GoldenFrames, BothEnginesDrawTheRecordedFrames) {
  std::map<std::string, std::string> frames;
  record<LumoImageFilter>("gl", &frames);
  record<CpuImageFilter>("cpu", &frames);

  if (const char* path = std::getenv("LUMO_WRITE_GOLDEN")) {
    std::ofstream file(path);
    for (const auto& [key, value] : frames) file << key << ' ' << value << '\n';
    GTEST_SKIP() << "recorded " << frames.size() << " digests into " << path;
  }
  const std::map<std::string, std::string> golden = readGolden(LUMO_GOLDEN_FRAMES);
  ASSERT_EQ(golden.size(), frames.size()) << "cannot read " << LUMO_GOLDEN_FRAMES;
  int differing = 0;
  for (const auto& [key, value] : frames) {
    const auto it = golden.find(key);
    if (it == golden.end() || it->second != value) {
      if (++differing <= 20)
        ADD_FAILURE() << key << ": " << value << ", recorded " << (it == golden.end() ? "nothing" : it->second);
    }
  }
  EXPECT_EQ(differing, 0) << "frames differ from the recorded ones";
}

}  // namespace
}  // namespace lumo::test
