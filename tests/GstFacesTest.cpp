// lumobeautify's faces property in a GstHarness: the skin-gated passes change the face and nothing well
// outside it, frame after frame; a frame without a face passes unchanged; turned off, the whole frame again.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <lumo/lumo.h>

#include <cmath>
#include <cstring>
#include <string>

#include "support/GlHarness.h"

namespace lumo::test {
namespace {

using reference::Frame;

GstHarness* facesHarness(const char* engine, int width, int height) {
  GstHarness* harness = gst_harness_new("lumobeautify");
  gst_util_set_object_arg(G_OBJECT(harness->element), "mask", "polish+skin-whiten");
  gst_util_set_object_arg(G_OBJECT(harness->element), "engine", engine);
  g_object_set(harness->element, "faces", TRUE, nullptr);
  const std::string caps = "video/x-raw,format=BGRA,width=" + std::to_string(width) +
                           ",height=" + std::to_string(height) + ",framerate=30/1";
  gst_harness_set_caps_str(harness, caps.c_str(), caps.c_str());
  return harness;
}

Frame pushAndPull(GstHarness* harness, const Frame& in) {
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, in.bgra.size(), nullptr);
  gst_buffer_fill(buffer, 0, in.bgra.data(), in.bgra.size());
  GstBuffer* out = gst_harness_push_and_pull(harness, buffer);
  Frame frame(in.width, in.height);
  if (out == nullptr) {
    ADD_FAILURE() << "no output buffer";
    return frame;
  }
  gst_buffer_extract(out, 0, frame.bgra.data(), frame.bgra.size());
  gst_buffer_unref(out);
  return frame;
}

// Pixels outside a generous ellipse around the portrait's face that differ from the input, and pixels in
// the middle of the face that do.
struct Changes {
  int outside = 0;
  int inside = 0;
};

Changes changes(const Frame& in, const Frame& out) {
  Changes c;
  for (int y = 0; y < in.height; ++y) {
    for (int x = 0; x < in.width; ++x) {
      if (std::memcmp(in.at(x, y), out.at(x, y), 4) == 0) continue;
      if (std::hypot((x - 224.0f) / 90.0f, (y - 120.0f) / 110.0f) > 1.0f) ++c.outside;
      if (std::hypot((x - 224.0f) / 30.0f, (y - 125.0f) / 40.0f) < 1.0f) ++c.inside;
    }
  }
  return c;
}

class LumoBeautifyFaces : public ::testing::TestWithParam<const char*> {};

TEST_P(LumoBeautifyFaces, ChangesTheFaceOnlyFrameAfterFrame) {
  const Frame portrait = loadSample();
  GstHarness* harness = facesHarness(GetParam(), portrait.width, portrait.height);
  for (int i = 0; i < 7; ++i) {
    const Changes c = changes(portrait, pushAndPull(harness, portrait));
    EXPECT_EQ(c.outside, 0) << "frame " << i;
    EXPECT_GT(c.inside, 2000) << "frame " << i;
  }
  g_object_set(harness->element, "faces", FALSE, nullptr);
  EXPECT_GT(changes(portrait, pushAndPull(harness, portrait)).outside, 50000);
  gst_harness_teardown(harness);
}

TEST_P(LumoBeautifyFaces, AFrameWithoutAFacePassesUnchanged) {
  const Frame portrait = loadSample();
  Frame lower(portrait.width, 240);
  std::memcpy(lower.bgra.data(), portrait.at(0, 272), lower.bgra.size());
  GstHarness* harness = facesHarness(GetParam(), lower.width, lower.height);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pushAndPull(harness, lower).bgra, lower.bgra) << "frame " << i;
  gst_harness_teardown(harness);
}

INSTANTIATE_TEST_SUITE_P(Engines, LumoBeautifyFaces, ::testing::Values("cpu", "gl"));

}  // namespace
}  // namespace lumo::test
