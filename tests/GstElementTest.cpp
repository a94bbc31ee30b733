// The lumobeautify element in a GstHarness: its frames against the library's own, caps, properties,
// errors and state changes, with the real plugin file loaded.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <fstream>

#include <lumo/lumo.h>

#include <EGL/egl.h>
#include <GLES2/gl2.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/GlHarness.h"

namespace lumo::test {
namespace {

struct Settings {
  uint32_t mask = BeautifyPolish | BeautifyWhiten | BeautifySkinWhiten;
  uint32_t preset = 0;
  float sharpen = 0.0f;
  float whiten = 0.5f;
};

// The portrait tiled over the frame, shifted by `shift` pixels, so every size has skin and edges.
reference::Frame portrait(int width, int height, int shift = 0) {
  static const reference::Frame sample = loadSample();
  reference::Frame frame(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::memcpy(frame.at(x, y), sample.at((x + shift) % sample.width, y % sample.height), 4);
    }
  }
  return frame;
}

// What the library itself returns for the frame.
template <typename Filter = LumoImageFilter>
reference::Frame libraryResult(const reference::Frame& in, const Settings& settings) {
  Filter filter;
  EXPECT_EQ(filter.create(), 0);
  filter.enableBeautifying(settings.mask);
  filter.setCustomizedFilter(settings.preset);
  filter.setSharppenFactor(settings.sharpen);
  filter.setWhitenFactor(settings.whiten);
  const reference::Frame out = fromBuffer(filter.render(toBuffer(in)));
  filter.destroy();
  return out;
}

std::string bgraCaps(int width, int height) {
  return "video/x-raw,format=BGRA,width=" + std::to_string(width) + ",height=" + std::to_string(height) +
         ",framerate=30/1";
}

// A buffer holding the frame with `stride` bytes a row; a padded stride travels in a video meta, and the
// padding holds a value the element must not pick up.
GstBuffer* makeBuffer(const reference::Frame& frame, size_t stride = 0) {
  const size_t rowBytes = static_cast<size_t>(frame.width) * 4;
  if (stride == 0) stride = rowBytes;
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, stride * static_cast<size_t>(frame.height), nullptr);
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_WRITE);
  std::memset(map.data, 0xA5, map.size);
  for (int y = 0; y < frame.height; ++y) std::memcpy(map.data + stride * y, frame.at(0, y), rowBytes);
  gst_buffer_unmap(buffer, &map);
  if (stride != rowBytes) {
    gsize offset[GST_VIDEO_MAX_PLANES] = {0};
    gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(stride)};
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_BGRA,
                                   static_cast<guint>(frame.width), static_cast<guint>(frame.height), 1, offset,
                                   strides);
  }
  return buffer;
}

// Reads a buffer of the harness's output caps back into a frame, through its video meta if it has one.
reference::Frame readBuffer(GstHarness* harness, GstBuffer* buffer) {
  GstCaps* caps = gst_pad_get_current_caps(harness->sinkpad);
  GstVideoInfo info;
  gst_video_info_from_caps(&info, caps);
  gst_caps_unref(caps);
  GstVideoFrame video;
  reference::Frame frame(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info));
  if (!gst_video_frame_map(&video, &info, buffer, GST_MAP_READ)) {
    ADD_FAILURE() << "output buffer does not map as BGRA";
    return frame;
  }
  const auto* data = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&video, 0));
  for (int y = 0; y < frame.height; ++y) {
    std::memcpy(frame.at(0, y), data + GST_VIDEO_FRAME_PLANE_STRIDE(&video, 0) * y,
                static_cast<size_t>(frame.width) * 4);
  }
  gst_video_frame_unmap(&video);
  return frame;
}

// Pushes one buffer and pulls the processed frame.
reference::Frame process(GstHarness* harness, const reference::Frame& in, size_t stride = 0) {
  GstBuffer* out = gst_harness_push_and_pull(harness, makeBuffer(in, stride));
  if (out == nullptr) {
    ADD_FAILURE() << "no output buffer";
    return {};
  }
  reference::Frame frame = readBuffer(harness, out);
  gst_buffer_unref(out);
  return frame;
}

void expectSameFrame(const reference::Frame& actual, const reference::Frame& expected) {
  ASSERT_EQ(actual.width, expected.width);
  ASSERT_EQ(actual.height, expected.height);
  const Difference difference = compare(actual, expected, 0);
  EXPECT_EQ(difference.maxColour, 0);
  EXPECT_EQ(difference.maxAlpha, 0);
}

// The element with its engine chosen before it starts (the harness starts it at once).
GstHarness* newHarness(const char* engine = "gl") {
  GstElement* element = gst_element_factory_make("lumobeautify", nullptr);
  gst_util_set_object_arg(G_OBJECT(element), "engine", engine);
  GstHarness* harness = gst_harness_new_with_element(element, "sink", "src");
  gst_object_unref(element);
  return harness;
}

bool threadHasContext() { return GLContext::current().context != EGL_NO_CONTEXT; }

TEST(LumoBeautifyElement, MatchesTheLibraryAtOddAndHdSizesAndPaddedStrides) {
  const int sizes[][2] = {{385, 289}, {1280, 720}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(std::to_string(size[0]) + " x " + std::to_string(size[1]));
    GstHarness* harness = newHarness();
    gst_harness_set_caps_str(harness, bgraCaps(size[0], size[1]).c_str(), bgraCaps(size[0], size[1]).c_str());
    const reference::Frame in = portrait(size[0], size[1]);
    const reference::Frame expected = libraryResult(in, Settings{});
    EXPECT_GT(compare(expected, in, 0).shareAbove, 0.05) << "the default settings should change the frame";
    expectSameFrame(process(harness, in), expected);
    // Rows padded to a stride that is no multiple of the width's.
    expectSameFrame(process(harness, in, static_cast<size_t>(size[0]) * 4 + 68), expected);
    gst_harness_teardown(harness);
  }
}

TEST(LumoBeautifyElement, TheCpuEngineGivesWhatCpuImageFilterGives) {
  GstHarness* harness = newHarness("cpu");
  gst_util_set_object_arg(G_OBJECT(harness->element), "mask", "polish+whiten+skin-whiten+sharpen");
  gst_harness_set_caps_str(harness, bgraCaps(385, 289).c_str(), bgraCaps(385, 289).c_str());
  const reference::Frame in = portrait(385, 289, 40);
  Settings settings;
  settings.mask = 15;
  const reference::Frame expected = libraryResult<CpuImageFilter>(in, settings);
  expectSameFrame(process(harness, in, 385 * 4 + 68), expected);
  gint engine = -1;
  g_object_get(harness->element, "engine", &engine, nullptr);
  EXPECT_EQ(engine, 2);
  gst_harness_teardown(harness);
}

TEST(LumoBeautifyElement, PropertyChangesTakeEffectAtTheNextBuffer) {
  GstHarness* harness = newHarness();
  gst_harness_set_caps_str(harness, bgraCaps(160, 120).c_str(), bgraCaps(160, 120).c_str());
  const reference::Frame in = portrait(160, 120, 200);
  expectSameFrame(process(harness, in), libraryResult(in, Settings{}));

  gst_util_set_object_arg(G_OBJECT(harness->element), "mask", "polish+whiten+sharpen");
  g_object_set(harness->element, "preset", 5u, "sharpen", 1.0f, "whiten", 0.2f, nullptr);
  Settings changed;
  changed.mask = BeautifyPolish | BeautifyWhiten | BeautifySharpen;
  changed.preset = 5;
  changed.sharpen = 1.0f;
  changed.whiten = 0.2f;
  expectSameFrame(process(harness, in), libraryResult(in, changed));

  // Only a preset.
  gst_util_set_object_arg(G_OBJECT(harness->element), "mask", "none");
  Settings presetOnly = changed;
  presetOnly.mask = 0;
  expectSameFrame(process(harness, in), libraryResult(in, presetOnly));

  // Nothing to do: the buffer passes through untouched, padding and all.
  g_object_set(harness->element, "preset", 0u, nullptr);
  GstBuffer* buffer = makeBuffer(in, 160 * 4 + 16);
  GstBuffer* out = gst_harness_push_and_pull(harness, gst_buffer_ref(buffer));
  EXPECT_EQ(out, buffer);
  gst_buffer_unref(out);
  gst_buffer_unref(buffer);

  // And back on.
  gst_util_set_object_arg(G_OBJECT(harness->element), "mask", "skin-whiten");
  Settings skinOnly = presetOnly;
  skinOnly.mask = BeautifySkinWhiten;
  skinOnly.preset = 0;
  expectSameFrame(process(harness, in), libraryResult(in, skinOnly));
  gst_harness_teardown(harness);
}

TEST(LumoBeautifyElement, PropertiesHaveTheDefaultsAndRanges) {
  GstElement* element = gst_element_factory_make("lumobeautify", nullptr);
  ASSERT_NE(element, nullptr);
  guint mask = 0;
  guint preset = 99;
  gfloat step = 0;
  gfloat factor = 0;
  gfloat skin = 0;
  g_object_get(element, "mask", &mask, "preset", &preset, "polish-step", &step, "polish-factor", &factor, "skin-whiten",
               &skin, nullptr);
  EXPECT_EQ(mask, 7u);
  EXPECT_EQ(preset, 0u);
  EXPECT_EQ(step, 3.0f);
  EXPECT_EQ(factor, 4.0f);
  EXPECT_EQ(skin, 0.5f);
  GParamSpec* param = g_object_class_find_property(G_OBJECT_GET_CLASS(element), "preset");
  ASSERT_NE(param, nullptr);
  EXPECT_EQ(G_PARAM_SPEC_UINT(param)->maximum, 13u);
  EXPECT_TRUE(param->flags & GST_PARAM_MUTABLE_PLAYING);
  EXPECT_TRUE(param->flags & GST_PARAM_CONTROLLABLE);
  gst_object_unref(element);
}

// The mask's text, from the table every front end's suite reads: taken or refused as the library reads it.
TEST(LumoBeautifyElement, MaskTextIsReadAsTheLibraryReadsIt) {
  GstElement* element = gst_element_factory_make("lumobeautify", nullptr);
  ASSERT_NE(element, nullptr);
  std::ifstream table(LUMO_SETTINGS_CASES);
  std::string line;
  int cases = 0;
  while (std::getline(table, line)) {
    if (line.rfind("mask\t", 0) != 0) continue;
    const size_t tab = line.find('\t', 5);
    const std::string text = line.substr(5, tab - 5);
    const std::string expected = line.substr(tab + 1);
    g_object_set(element, "mask", 5u, nullptr);
    gst_util_set_object_arg(G_OBJECT(element), "mask", text.c_str());
    guint mask = 0;
    g_object_get(element, "mask", &mask, nullptr);
    EXPECT_EQ(mask, expected[0] == '!' ? 5u : static_cast<guint>(std::stoul(expected))) << "'" << text << "'";
    ++cases;
  }
  EXPECT_GT(cases, 8);
  gst_object_unref(element);
}

TEST(LumoBeautifyElement, RefusesFormatsItDoesNotTake) {
  GstHarness* harness = newHarness();
  gst_harness_set_src_caps_str(harness, "video/x-raw,format=AYUV,width=64,height=48,framerate=30/1");
  EXPECT_EQ(gst_harness_push(harness, gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr)), GST_FLOW_NOT_NEGOTIATED);
  gst_harness_teardown(harness);
}

// Tight planes of a YUV frame (the portrait's bytes, so that it has skin-like values and edges).
std::vector<uint8_t> yuvPlanes(uint32_t format, int width, int height) {
  static const reference::Frame sample = loadSample();
  std::vector<uint8_t> raw(pixelFormatFrameBytes(format, width, height));
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = sample.bgra[(i * 5) % sample.bgra.size()];
  return raw;
}

// What the CPU engine returns for tight planes with that colorimetry, as tight planes.
std::vector<uint8_t> libraryPlanes(std::vector<uint8_t> raw, uint32_t format, int width, int height,
                                   YuvColorimetry colorimetry, EngineKind kind) {
  PixelBufferPlane planes[kPixelBufferMaxPlanes];
  const int32_t count = pixelFormatTightPlanes(format, width, height, raw.data(), planes);
  PixelBufferAttributes attributes;
  attributes.colorimetry = colorimetry;
  PixelBufferRef in;
  EXPECT_EQ(PixelBuffer::createWithPlanes(width, height, format, planes, count, nullptr, attributes, &in),
            kPixelBufferSuccess);
  const std::unique_ptr<BeautifyEngine> engine = makeEngine(kind);
  engine->applySettings(BeautifySettings{});  // the element's defaults
  const PixelBufferRef out = engine->render(in);
  std::vector<uint8_t> result(raw.size());
  pixelFormatTightPlanes(format, width, height, result.data(), planes);
  copyPlanesOut(out, planes);
  return result;
}

// YUV and 24-bit frames (a camera's own formats among them) go through as they are, planes at padded strides
// and offsets from a video meta, with the caps' colorimetry (or GStreamer's default for the size), and come
// out in the same format.
TEST(LumoBeautifyElement, TakesYuvFramesWithTheirPlanesAndColorimetry) {
  struct Case {
    const char* format;
    uint32_t pixelFormat;
    int width, height;
    const char* colorimetry;  // in the caps, or none
    YuvColorimetry expected;
  };
  const Case cases[] = {
      {"NV12", kPixelFormatNV12, 64, 48, "bt709", {YuvMatrix::Bt709, YuvRange::Limited}},
      {"I420", kPixelFormatI420, 45, 31, nullptr, {YuvMatrix::Bt601, YuvRange::Limited}},
      {"NV12", kPixelFormatNV12, 33, 17, "1:3:5:1", {YuvMatrix::Bt709, YuvRange::Full}},
      {"YUY2", kPixelFormatYUY2, 64, 48, "bt709", {YuvMatrix::Bt709, YuvRange::Limited}},
      {"UYVY", kPixelFormatUYVY, 33, 17, "1:4:0:0", {YuvMatrix::Bt601, YuvRange::Full}},
      {"Y42B", kPixelFormatI422, 45, 31, nullptr, {YuvMatrix::Bt601, YuvRange::Limited}},
      {"BGR", kPixelFormat24BGR, 33, 17, nullptr, {}},
      {"RGB", kPixelFormat24RGB, 64, 48, nullptr, {}},
  };
  // Each engine draws YUV frames itself: the element's planes are what the library gives directly.
  for (const char* engine : {"cpu", "gl"})
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(engine) + " " + c.format + " " + std::to_string(c.width) + "x" +
                   std::to_string(c.height));
      GstHarness* harness = newHarness(engine);
      std::string caps = std::string("video/x-raw,format=") + c.format + ",width=" + std::to_string(c.width) +
                         ",height=" + std::to_string(c.height) + ",framerate=30/1";
      if (c.colorimetry != nullptr) caps += std::string(",colorimetry=") + c.colorimetry;
      gst_harness_set_caps_str(harness, caps.c_str(), caps.c_str());

      const std::vector<uint8_t> tight = yuvPlanes(c.pixelFormat, c.width, c.height);
      // Each plane 24 bytes wider than its row, and 8 bytes between planes.
      gsize offsets[GST_VIDEO_MAX_PLANES] = {};
      gint strides[GST_VIDEO_MAX_PLANES] = {};
      size_t total = 0;
      const int planes = pixelFormatPlaneCount(c.pixelFormat);
      for (int p = 0; p < planes; ++p) {
        const PixelPlaneGeometry g = pixelFormatPlane(c.pixelFormat, c.width, c.height, p);
        offsets[p] = total;
        strides[p] = static_cast<gint>(g.rowBytes() + 24);
        total += static_cast<size_t>(strides[p]) * static_cast<size_t>(g.height) + 8;
      }
      GstBuffer* buffer = gst_buffer_new_allocate(nullptr, total, nullptr);
      GstMapInfo map;
      gst_buffer_map(buffer, &map, GST_MAP_WRITE);
      std::memset(map.data, 0xA5, map.size);
      size_t from = 0;
      for (int p = 0; p < planes; ++p) {
        const PixelPlaneGeometry g = pixelFormatPlane(c.pixelFormat, c.width, c.height, p);
        for (int y = 0; y < g.height; ++y, from += g.rowBytes()) {
          std::memcpy(map.data + offsets[p] + static_cast<size_t>(strides[p]) * y, tight.data() + from, g.rowBytes());
        }
      }
      gst_buffer_unmap(buffer, &map);
      gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, gst_video_format_from_string(c.format),
                                     static_cast<guint>(c.width), static_cast<guint>(c.height),
                                     static_cast<guint>(planes), offsets, strides);

      GstBuffer* out = gst_harness_push_and_pull(harness, buffer);
      ASSERT_NE(out, nullptr);
      GstCaps* outCaps = gst_pad_get_current_caps(harness->sinkpad);
      GstVideoInfo info;
      ASSERT_TRUE(gst_video_info_from_caps(&info, outCaps));
      gst_caps_unref(outCaps);
      EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), gst_video_format_from_string(c.format));
      GstVideoFrame frame;
      ASSERT_TRUE(gst_video_frame_map(&frame, &info, out, GST_MAP_READ));
      std::vector<uint8_t> got;
      for (int p = 0; p < planes; ++p) {
        const PixelPlaneGeometry g = pixelFormatPlane(c.pixelFormat, c.width, c.height, p);
        const auto* data = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, p));
        for (int y = 0; y < g.height; ++y) {
          const uint8_t* row = data + GST_VIDEO_FRAME_PLANE_STRIDE(&frame, p) * y;
          got.insert(got.end(), row, row + g.rowBytes());
        }
      }
      gst_video_frame_unmap(&frame);
      gst_buffer_unref(out);
      EngineKind kind = EngineKind::Auto;
      ASSERT_TRUE(parseEngineKind(engine, &kind));
      EXPECT_EQ(got, libraryPlanes(tight, c.pixelFormat, c.width, c.height, c.expected, kind));
      EXPECT_NE(got, tight);
      gst_harness_teardown(harness);
    }
}

TEST(LumoBeautifyElement, FramesTheGpuCannotDrawAreDrawnByTheCpuEngineWithAWarning) {
  GstHarness* harness = newHarness();
  GstBus* bus = gst_bus_new();
  gst_element_set_bus(harness->element, bus);
  // A first frame of 1 x 1: the GL engine makes its output buffers from the second size on.
  gst_harness_set_caps_str(harness, bgraCaps(1, 1).c_str(), bgraCaps(1, 1).c_str());
  const reference::Frame tiny = portrait(1, 1);
  expectSameFrame(process(harness, tiny), libraryResult<CpuImageFilter>(tiny, Settings{}));
  GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING);
  ASSERT_NE(message, nullptr);
  GError* error = nullptr;
  gst_message_parse_warning(message, &error, nullptr);
  EXPECT_NE(std::string(error->message).find("the GL engine could not draw a 1 x 1 bgra frame"), std::string::npos)
      << error->message;
  g_error_free(error);
  gst_message_unref(message);
  EXPECT_EQ(gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR), nullptr);

  gst_harness_set_caps_str(harness, bgraCaps(64, 48).c_str(), bgraCaps(64, 48).c_str());
  const reference::Frame in = portrait(64, 48);
  expectSameFrame(process(harness, in), libraryResult(in, Settings{}));

  // Above the library's frame limit: refused when the caps arrive, with the limit, before any frame.
  gst_harness_set_caps_str(harness, bgraCaps(16385, 1).c_str(), bgraCaps(16385, 1).c_str());
  EXPECT_NE(gst_harness_push(harness, gst_buffer_new_allocate(nullptr, 16385 * 4, nullptr)), GST_FLOW_OK);
  message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  ASSERT_NE(message, nullptr);
  gst_message_parse_error(message, &error, nullptr);
  EXPECT_NE(std::string(error->message).find("a 16385 x 1 frame is above the limit (16384 a side"), std::string::npos)
      << error->message;
  g_error_free(error);
  gst_message_unref(message);
  gst_element_set_bus(harness->element, nullptr);
  gst_object_unref(bus);
  gst_harness_teardown(harness);
}

// Downstream hands out buffers whose rows are padded (a video buffer pool with alignment): the element
// writes each row at the output's own stride.
GstPadProbeReturn offerPaddedPool(GstPad*, GstPadProbeInfo* info, gpointer) {
  GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
  GstCaps* caps = nullptr;
  gst_query_parse_allocation(query, &caps, nullptr);
  GstVideoInfo videoInfo;
  gst_video_info_from_caps(&videoInfo, caps);
  GstVideoAlignment alignment;
  gst_video_alignment_reset(&alignment);
  alignment.padding_right = 13;
  gst_video_info_align(&videoInfo, &alignment);
  GstBufferPool* pool = gst_video_buffer_pool_new();
  GstStructure* config = gst_buffer_pool_get_config(pool);
  gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(GST_VIDEO_INFO_SIZE(&videoInfo)), 2, 0);
  gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
  gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_ALIGNMENT);
  gst_buffer_pool_config_set_video_alignment(config, &alignment);
  gst_buffer_pool_set_config(pool, config);
  gst_query_add_allocation_pool(query, pool, static_cast<guint>(GST_VIDEO_INFO_SIZE(&videoInfo)), 2, 0);
  gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
  gst_object_unref(pool);
  return GST_PAD_PROBE_HANDLED;
}

TEST(LumoBeautifyElement, WritesIntoPaddedDownstreamBuffers) {
  for (const char* engine : {"gl", "cpu"}) {
    SCOPED_TRACE(engine);
    GstHarness* harness = newHarness(engine);
    GstPad* src = gst_element_get_static_pad(harness->element, "src");
    gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, offerPaddedPool, nullptr, nullptr);
    gst_object_unref(src);
    gst_harness_set_caps_str(harness, bgraCaps(37, 23).c_str(), bgraCaps(37, 23).c_str());
    const reference::Frame in = portrait(37, 23, 100);
    GstBuffer* out = gst_harness_push_and_pull(harness, makeBuffer(in));
    ASSERT_NE(out, nullptr);
    GstVideoMeta* meta = gst_buffer_get_video_meta(out);
    ASSERT_NE(meta, nullptr) << "downstream's pool was not used";
    EXPECT_GT(meta->stride[0], 37 * 4);
    expectSameFrame(readBuffer(harness, out), libraryResult(in, Settings{}));
    gst_buffer_unref(out);
    gst_harness_teardown(harness);
  }
}

TEST(LumoBeautifyElement, CyclesStatesWithoutData) {
  GstElement* element = gst_element_factory_make("lumobeautify", nullptr);
  ASSERT_NE(element, nullptr);
  for (int cycle = 0; cycle < 5; ++cycle) {
    EXPECT_EQ(gst_element_set_state(element, GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(gst_element_set_state(element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  }
  gst_object_unref(element);
}

TEST(LumoBeautifyElement, CyclesStatesWithDataFromAStreamingThreadThatChanges) {
  GstHarness* harness = newHarness();
  const reference::Frame in = portrait(96, 64, 150);
  const reference::Frame expected = libraryResult(in, Settings{});
  for (int cycle = 0; cycle < 10; ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    // Caps again after each restart: going to NULL drops the pads' sticky events.
    gst_harness_set_caps_str(harness, bgraCaps(96, 64).c_str(), bgraCaps(96, 64).c_str());
    reference::Frame out;
    bool contextLeftCurrent = true;
    std::thread streaming([&] {
      out = process(harness, in);
      contextLeftCurrent = threadHasContext();
    });
    streaming.join();
    expectSameFrame(out, expected);
    EXPECT_FALSE(contextLeftCurrent) << "the library's context stayed current on the streaming thread";
    ASSERT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    ASSERT_EQ(gst_element_set_state(harness->element, GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
  }
  gst_harness_teardown(harness);
}

// Run by ctest with EGL pointed at no driver (element_without_gl); skipped elsewhere. engine=gl cannot start,
// and says why; the pipeline reports the element's error and goes down to NULL cleanly (LeakSanitizer
// watches in the ASan build). engine=auto starts on the CPU engine.
TEST(LumoBeautifyElementWithoutGl, StartFailsWithTheTrueReasonAndAutoRunsOnTheCpu) {
  if (std::getenv("LUMO_EXPECT_NO_GL") == nullptr) GTEST_SKIP() << "needs a process without EGL drivers";
  GError* error = nullptr;
  GstElement* pipeline = gst_parse_launch(
      "videotestsrc num-buffers=3 ! video/x-raw,format=BGRA,width=32,height=16 ! lumobeautify name=beautify "
      "engine=gl ! fakesink",
      &error);
  ASSERT_NE(pipeline, nullptr) << (error ? error->message : "");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* message = gst_bus_timed_pop_filtered(bus, 30 * GST_SECOND, GST_MESSAGE_ERROR);
  ASSERT_NE(message, nullptr) << "no error reached the bus";
  GstElement* beautify = gst_bin_get_by_name(GST_BIN(pipeline), "beautify");
  EXPECT_EQ(GST_MESSAGE_SRC(message), GST_OBJECT(beautify)) << "the error comes from lumobeautify";
  gst_message_parse_error(message, &error, nullptr);
  EXPECT_EQ(std::string(error->message), "lumobeautify cannot start the gl engine: no GL context could be made");
  g_error_free(error);
  gst_message_unref(message);
  EXPECT_EQ(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);

  gst_util_set_object_arg(G_OBJECT(beautify), "engine", "auto");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  message = gst_bus_timed_pop_filtered(bus, 30 * GST_SECOND,
                                       static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(GST_MESSAGE_TYPE(message), GST_MESSAGE_EOS) << "auto runs without GL";
  gst_message_unref(message);
  EXPECT_EQ(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  gst_object_unref(beautify);
  gst_object_unref(bus);
  gst_object_unref(pipeline);
}

TEST(LumoBeautifyElement, LeavesTheStreamingThreadsOwnContextCurrent) {
  auto host = GLContext::create();
  ASSERT_TRUE(host);
  ASSERT_TRUE(host->makeCurrent());
  const GLContext::Snapshot before = GLContext::current();
  GstHarness* harness = newHarness();
  gst_harness_set_caps_str(harness, bgraCaps(32, 32).c_str(), bgraCaps(32, 32).c_str());
  const reference::Frame out = process(harness, portrait(32, 32));
  EXPECT_EQ(out.width, 32);
  EXPECT_TRUE(GLContext::current() == before);
  gst_harness_teardown(harness);
  EXPECT_TRUE(GLContext::current() == before);
  GLContext::setCurrent({});
}

}  // namespace
}  // namespace lumo::test

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Listing the tests (CTest's discovery, in the plain environment) needs no plugin scan.
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  gst_init(&argc, &argv);
  GError* error = nullptr;
  GstPlugin* plugin = gst_plugin_load_file(LUMO_GST_PLUGIN, &error);
  if (plugin == nullptr) {
    std::fprintf(stderr, "cannot load %s: %s\n", LUMO_GST_PLUGIN, error ? error->message : "?");
    return 1;
  }
  gst_object_unref(plugin);
  const int result = RUN_ALL_TESTS();
  gst_deinit();
  return result;
}
