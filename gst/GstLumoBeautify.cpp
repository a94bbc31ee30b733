// lumobeautify: the beautify filter chain as a GStreamer video filter on YUV 4:2:0 and packed RGB frames,
// each frame out in the format it came in.
#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

#include <lumo/lumo.h>

#if LUMO_HAVE_FACES
#include "FaceRegions.h"
#endif

#include <memory>
#include <new>
#include <string>

GST_DEBUG_CATEGORY_STATIC(lumo_beautify_debug);
#define GST_CAT_DEFAULT lumo_beautify_debug

namespace {

using lumo::BeautifySettings;

// What the properties hold; copied under the object lock before each frame.
struct Settings {
  BeautifySettings beautify;
  gint engine = static_cast<gint>(lumo::EngineKind::Auto);
  bool faces = false;
  std::string faceCascade;  // empty: Debian's

  bool passthrough() const { return beautify.mask == 0 && beautify.preset == 0; }
};

// The C++ side of the instance, constructed in instance_init and destroyed in finalize.
struct State {
  Settings settings;                             // guarded by the object lock
  std::unique_ptr<lumo::BeautifyEngine> filter;  // made in start(), gone after stop()
  // Draws the frames the GL engine cannot (see transformFrame); made on the first such frame.
  std::unique_ptr<lumo::BeautifyEngine> fallback;
#if LUMO_HAVE_FACES
  // With the faces property on: the regions of the faces in each frame; made on the first such frame.
  std::unique_ptr<lumo::faces::FaceRegions> faces;
#endif
  bool regionLimited = false;  // the engines have a region mask in force
};

enum Property : guint {
  kPropMask = 1,
  kPropPreset,
  kPropPolishStep,
  kPropPolishFactor,
  kPropWhiten,
  kPropSharpen,
  kPropSkinWhiten,
  kPropEngine,
  kPropFaces,
  kPropFaceCascade,
};

}  // namespace

struct GstLumoBeautify {
  GstVideoFilter parent;
  State state;
};

struct GstLumoBeautifyClass {
  GstVideoFilterClass parent_class;
};

G_DEFINE_TYPE(GstLumoBeautify, gst_lumo_beautify, GST_TYPE_VIDEO_FILTER)

namespace {

GstLumoBeautify* self(gpointer object) { return reinterpret_cast<GstLumoBeautify*>(object); }

GType maskType() {
  static gsize type = 0;
  static const GFlagsValue values[] = {
      {lumo::BeautifyPolish, "Skin smoothing", "polish"},
      {lumo::BeautifyWhiten, "Whiten the whole frame", "whiten"},
      {lumo::BeautifySkinWhiten, "Pink whiten of skin", "skin-whiten"},
      {lumo::BeautifySharpen, "Sharpen (drops the detail layer, blends skin at one half)", "sharpen"},
      {0, nullptr, nullptr},
  };
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_flags_register_static("GstLumoBeautifyMask", values));
  return static_cast<GType>(type);
}

GType engineType() {
  static gsize type = 0;
  static const GEnumValue values[] = {
      {static_cast<gint>(lumo::EngineKind::Auto),
       "The CPU engine on a software GL renderer or without GL, the GPU otherwise", "auto"},
      {static_cast<gint>(lumo::EngineKind::Gl), "OpenGL ES 2.0 through EGL", "gl"},
      {static_cast<gint>(lumo::EngineKind::Cpu), "The CPU engine (SIMD, all cores)", "cpu"},
      {0, nullptr, nullptr},
  };
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("GstLumoBeautifyEngine", values));
  return static_cast<GType>(type);
}

constexpr auto kParamFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                      GST_PARAM_CONTROLLABLE | GST_PARAM_MUTABLE_PLAYING);

GParamSpec* floatSpec(const char* name, const char* nick, const char* blurb, const lumo::SettingRange& range) {
  return g_param_spec_float(name, nick, blurb, range.low, range.high, range.fallback, kParamFlags);
}

gfloat* floatField(Settings& settings, guint id) {
  switch (id) {
    case kPropPolishStep: return &settings.beautify.polishStep;
    case kPropPolishFactor: return &settings.beautify.polishFactor;
    case kPropWhiten: return &settings.beautify.whiten;
    case kPropSharpen: return &settings.beautify.sharpen;
    case kPropSkinWhiten: return &settings.beautify.skinWhiten;
    default: return nullptr;
  }
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
  GstLumoBeautify* element = self(object);
  GST_OBJECT_LOCK(element);
  Settings& settings = element->state.settings;
  if (id == kPropMask) {
    settings.beautify.mask = static_cast<int32_t>(g_value_get_flags(value));
  } else if (id == kPropPreset) {
    settings.beautify.preset = static_cast<int32_t>(g_value_get_uint(value));
  } else if (id == kPropEngine) {
    settings.engine = g_value_get_enum(value);
  } else if (id == kPropFaces) {
    settings.faces = g_value_get_boolean(value) != FALSE;
  } else if (id == kPropFaceCascade) {
    const gchar* path = g_value_get_string(value);
    settings.faceCascade = path != nullptr ? path : "";
  } else if (gfloat* field = floatField(settings, id)) {
    *field = g_value_get_float(value);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(element);
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
  GstLumoBeautify* element = self(object);
  GST_OBJECT_LOCK(element);
  Settings& settings = element->state.settings;
  if (id == kPropMask) {
    g_value_set_flags(value, static_cast<guint>(settings.beautify.mask));
  } else if (id == kPropPreset) {
    g_value_set_uint(value, static_cast<guint>(settings.beautify.preset));
  } else if (id == kPropEngine) {
    g_value_set_enum(value, settings.engine);
  } else if (id == kPropFaces) {
    g_value_set_boolean(value, settings.faces ? TRUE : FALSE);
  } else if (id == kPropFaceCascade) {
    g_value_set_string(value, settings.faceCascade.c_str());
  } else if (gfloat* field = floatField(settings, id)) {
    g_value_set_float(value, *field);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(element);
}

void finalize(GObject* object) {
  self(object)->state.~State();
  G_OBJECT_CLASS(gst_lumo_beautify_parent_class)->finalize(object);
}

// Runs `work` with the filter's GL context free to be made current, and leaves the calling thread's
// context as it was: a streaming thread never keeps the library's context after a frame.
template <typename Work>
auto withCallerContext(Work&& work) {
  const lumo::GLContext::Snapshot saved = lumo::GLContext::current();
  auto result = work();
  lumo::GLContext::setCurrent(saved);
  return result;
}

gboolean start(GstBaseTransform* transform) {
  GstLumoBeautify* element = self(transform);
  GST_OBJECT_LOCK(element);
  const auto wanted = static_cast<lumo::EngineKind>(element->state.settings.engine);
  GST_OBJECT_UNLOCK(element);
  std::string why;
  std::unique_ptr<lumo::BeautifyEngine> filter = withCallerContext([&] { return lumo::makeEngine(wanted, &why); });
  if (!filter) {
    GST_ELEMENT_ERROR(element, RESOURCE, FAILED,
                      ("lumobeautify cannot start the %s engine: %s", lumo::engineKindName(wanted), why.c_str()),
                      (nullptr));
    return FALSE;
  }
  GST_INFO_OBJECT(element, "engine %s (%s)", lumo::engineKindName(filter->kind()), why.c_str());
  element->state.filter = std::move(filter);
  return TRUE;
}

gboolean stop(GstBaseTransform* transform) {
  GstLumoBeautify* element = self(transform);
  withCallerContext([&] {
    element->state.filter.reset();
    element->state.fallback.reset();
#if LUMO_HAVE_FACES
    element->state.faces.reset();
#endif
    element->state.regionLimited = false;
    return 0;
  });
  return TRUE;
}

void beforeTransform(GstBaseTransform* transform, GstBuffer* buffer) {
  // Controlled properties take their value for this buffer's time first.
  const GstClockTime time =
      gst_segment_to_stream_time(&transform->segment, GST_FORMAT_TIME, GST_BUFFER_TIMESTAMP(buffer));
  if (GST_CLOCK_TIME_IS_VALID(time)) gst_object_sync_values(GST_OBJECT(transform), time);
  GST_OBJECT_LOCK(transform);
  const bool passthrough = self(transform)->state.settings.passthrough();
  GST_OBJECT_UNLOCK(transform);
  gst_base_transform_set_passthrough(transform, passthrough ? TRUE : FALSE);
}

#define LUMO_GST_FORMATS "{ NV12, I420, BGRA, RGBA, BGRx, RGBx }"

uint32_t pixelFormatOf(GstVideoFormat format) {
  switch (format) {
    case GST_VIDEO_FORMAT_NV12: return lumo::kPixelFormatNV12;
    case GST_VIDEO_FORMAT_I420: return lumo::kPixelFormatI420;
    case GST_VIDEO_FORMAT_BGRA: return lumo::kPixelFormat32BGRA;
    case GST_VIDEO_FORMAT_RGBA: return lumo::kPixelFormat32RGBA;
    case GST_VIDEO_FORMAT_BGRx: return lumo::kPixelFormat32BGRX;
    case GST_VIDEO_FORMAT_RGBx: return lumo::kPixelFormat32RGBX;
    default: return 0;
  }
}

// The caps' colorimetry (GStreamer has filled in its defaults where the caps gave none). The library knows
// BT.601 and BT.709: FCC is BT.601's matrix in all but rounding, and the rarer ones are drawn as BT.709.
lumo::YuvColorimetry colorimetryOf(const GstVideoInfo& info) {
  lumo::YuvColorimetry colorimetry;
  const GstVideoColorMatrix matrix = info.colorimetry.matrix;
  colorimetry.matrix = matrix == GST_VIDEO_COLOR_MATRIX_BT601 || matrix == GST_VIDEO_COLOR_MATRIX_FCC
                           ? lumo::YuvMatrix::Bt601
                           : lumo::YuvMatrix::Bt709;
  colorimetry.range =
      info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255 ? lumo::YuvRange::Full : lumo::YuvRange::Limited;
  return colorimetry;
}

// Wraps the frame's planes (with the strides and offsets of its video meta) without a copy.
int32_t wrapFrame(GstVideoFrame* frame, lumo::PixelBufferRef* out) {
  const uint32_t format = pixelFormatOf(GST_VIDEO_FRAME_FORMAT(frame));
  lumo::PixelBufferPlane planes[lumo::kPixelBufferMaxPlanes];
  const int32_t count = lumo::pixelFormatPlaneCount(format);
  for (int32_t plane = 0; plane < count; ++plane) {
    planes[plane] = {GST_VIDEO_FRAME_PLANE_DATA(frame, plane),
                     static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane))};
  }
  lumo::PixelBufferAttributes attributes;
  attributes.colorimetry = colorimetryOf(frame->info);
  return lumo::PixelBuffer::createWithPlanes(GST_VIDEO_FRAME_WIDTH(frame), GST_VIDEO_FRAME_HEIGHT(frame), format,
                                             planes, count, nullptr, attributes, out);
}

// Renders one frame into `out`; false when the engine handed the input back undrawn.
bool renderInto(lumo::BeautifyEngine& engine, const lumo::PixelBufferRef& input, GstVideoFrame* out) {
  return withCallerContext([&] {
    const lumo::PixelBufferRef result = engine.render(input);
    if (!result || result == input) return false;
    lumo::PixelBufferPlane planes[lumo::kPixelBufferMaxPlanes];
    for (int32_t plane = 0; plane < result->planeCount(); ++plane) {
      planes[plane] = {GST_VIDEO_FRAME_PLANE_DATA(out, plane),
                       static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(out, plane))};
    }
    lumo::copyPlanesOut(result, planes);
    return true;
  });
}

// With the faces property on, hands the engine this frame's face regions (the first frame waits for its
// detection, later ones take the faces a worker thread carries); off again, the whole frame. False, with
// the error posted, when faces are wanted and cannot be found.
bool limitToFaces(GstLumoBeautify* element, const Settings& settings, lumo::BeautifyEngine& filter,
                  lumo::PixelBuffer& input) {
  State& state = element->state;
  if (!settings.faces) {
    if (state.regionLimited) filter.setRegionMask(lumo::RegionMask::whole());
    state.regionLimited = false;
    return true;
  }
#if LUMO_HAVE_FACES
  if (!state.faces) {
    lumo::faces::FaceRegionsSettings faceSettings = lumo::faces::FaceRegionsSettings::video();
    faceSettings.detector.cascade = settings.faceCascade;
    std::string why;
    state.faces = lumo::faces::FaceRegions::create(faceSettings, &why);
    if (!state.faces) {
      GST_ELEMENT_ERROR(element, RESOURCE, FAILED, ("lumobeautify cannot find faces: %s", why.c_str()), (nullptr));
      return false;
    }
    GST_INFO_OBJECT(element, "faces: cascade %s", state.faces->cascadePath().c_str());
  }
  filter.setRegionMask(state.faces->regionsFor(input));
  state.regionLimited = true;
  return true;
#else
  (void)filter;
  (void)input;
  GST_ELEMENT_ERROR(element, RESOURCE, FAILED,
                    ("lumobeautify was built without face detection (OpenCV's objdetect)"), (nullptr));
  return false;
#endif
}

GstFlowReturn transformFrame(GstVideoFilter* videoFilter, GstVideoFrame* in, GstVideoFrame* out) {
  GstLumoBeautify* element = self(videoFilter);
  lumo::BeautifyEngine* filter = element->state.filter.get();
  if (filter == nullptr) {
    GST_ELEMENT_ERROR(element, CORE, FAILED, ("lumobeautify received a frame before it was started"), (nullptr));
    return GST_FLOW_ERROR;
  }
  GST_OBJECT_LOCK(element);
  const Settings settings = element->state.settings;
  GST_OBJECT_UNLOCK(element);

  // The setters only record values; the filter applies them at the start of this frame's render.
  filter->applySettings(settings.beautify);

  const int width = GST_VIDEO_FRAME_WIDTH(in);
  const int height = GST_VIDEO_FRAME_HEIGHT(in);
  const char* formatName = gst_video_format_to_string(GST_VIDEO_FRAME_FORMAT(in));

  // The frame's memory is wrapped, not copied; the texture cache reuses the texture of the last frame.
  lumo::PixelBufferRef input;
  const int32_t wrapped = wrapFrame(in, &input);
  if (wrapped != lumo::kPixelBufferSuccess) {
    GST_ELEMENT_ERROR(element, STREAM, FAILED, ("lumobeautify cannot process a %d x %d frame", width, height),
                      ("wrapping the frame failed with status %d", wrapped));
    return GST_FLOW_ERROR;
  }
  if (!limitToFaces(element, settings, *filter, *input)) return GST_FLOW_ERROR;
  if (renderInto(*filter, input, out)) return GST_FLOW_OK;
  // No face, and only skin-gated passes asked for: the frame is rightly unchanged.
  if (element->state.regionLimited && filter->regionMask().ellipses.empty()) {
    return gst_video_frame_copy(out, in) ? GST_FLOW_OK : GST_FLOW_ERROR;
  }
  // Not in passthrough, so a pass was due: the GL engine could not draw this frame (larger than the GPU's
  // texture limit, a first frame of 1 x 1, a lost context, a format it does not map). The CPU engine draws
  // the same picture.
  if (filter->kind() == lumo::EngineKind::Gl) {
    if (!element->state.fallback) {
      element->state.fallback = lumo::makeEngine(lumo::EngineKind::Cpu);
      GST_ELEMENT_WARNING(element, STREAM, FAILED,
                          ("lumobeautify: the GL engine could not draw a %d x %d %s frame; the CPU engine draws "
                           "such frames",
                           width, height, formatName),
                          (nullptr));
    }
    element->state.fallback->applySettings(settings.beautify);
    element->state.fallback->setRegionMask(filter->regionMask());
    if (renderInto(*element->state.fallback, input, out)) return GST_FLOW_OK;
  }
  GST_ELEMENT_ERROR(element, STREAM, FAILED, ("lumobeautify could not process a %d x %d frame", width, height),
                    ("the engine drew nothing"));
  return GST_FLOW_ERROR;
}

}  // namespace

static void gst_lumo_beautify_class_init(GstLumoBeautifyClass* klass) {
  auto* objectClass = G_OBJECT_CLASS(klass);
  auto* elementClass = GST_ELEMENT_CLASS(klass);
  auto* transformClass = GST_BASE_TRANSFORM_CLASS(klass);
  auto* videoFilterClass = GST_VIDEO_FILTER_CLASS(klass);

  objectClass->set_property = setProperty;
  objectClass->get_property = getProperty;
  objectClass->finalize = finalize;

  g_object_class_install_property(
      objectClass, kPropMask,
      g_param_spec_flags("mask", "Passes", "Beautify passes to run, e.g. polish+whiten (none: only the preset)",
                         maskType(), BeautifySettings::kDefaultMask, kParamFlags));
  g_object_class_install_property(
      objectClass, kPropPreset,
      g_param_spec_uint("preset", "Preset", "Colour preset drawn after the passes (0: none)", 0,
                        BeautifySettings::kPresetCount, 0, kParamFlags));
  g_object_class_install_property(
      objectClass, kPropPolishStep,
      floatSpec("polish-step", "Polish step", "Smoothing sample step in pixels", BeautifySettings::kPolishStep));
  g_object_class_install_property(
      objectClass, kPropPolishFactor,
      floatSpec("polish-factor", "Polish factor", "Smoothing colour-distance factor", BeautifySettings::kPolishFactor));
  g_object_class_install_property(
      objectClass, kPropWhiten,
      floatSpec("whiten", "Whiten", "Whiten balance: below 0.5 brightens, above darkens", BeautifySettings::kWhiten));
  g_object_class_install_property(objectClass, kPropSharpen,
                                  floatSpec("sharpen", "Sharpen", "Sharpen strength", BeautifySettings::kSharpen));
  g_object_class_install_property(
      objectClass, kPropEngine,
      g_param_spec_enum(
          "engine", "Engine", "Where the passes run; chosen when the element starts", engineType(),
          static_cast<gint>(lumo::EngineKind::Auto),
          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY)));
  g_object_class_install_property(
      objectClass, kPropFaces,
      g_param_spec_boolean("faces", "Faces only",
                           "Smoothing and skin whitening on the faces OpenCV's detector finds only", FALSE,
                           kParamFlags));
  g_object_class_install_property(
      objectClass, kPropFaceCascade,
      g_param_spec_string("face-cascade", "Face cascade",
                          "The detector's cascade file (empty: Debian's frontal-face cascade); read when the "
                          "first frame with faces on arrives",
                          "", static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
  g_object_class_install_property(
      objectClass, kPropSkinWhiten,
      floatSpec("skin-whiten", "Skin whiten", "Pink whiten strength on skin", BeautifySettings::kSkinWhiten));

  // Output format = input format: GstVideoFilter's caps transform keeps the format.
  GstCaps* caps = gst_caps_from_string(GST_VIDEO_CAPS_MAKE(LUMO_GST_FORMATS));
  gst_element_class_add_pad_template(elementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
  gst_element_class_add_pad_template(elementClass, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  gst_element_class_set_static_metadata(elementClass, "Lumo beautify", "Filter/Effect/Video",
                                        "Skin smoothing, whitening, sharpening and colour presets on the GPU",
                                        "LumoImageFilter developers");

  transformClass->start = start;
  transformClass->stop = stop;
  transformClass->before_transform = beforeTransform;
  videoFilterClass->transform_frame = transformFrame;

  gst_type_mark_as_plugin_api(maskType(), static_cast<GstPluginAPIFlags>(0));
  gst_type_mark_as_plugin_api(engineType(), static_cast<GstPluginAPIFlags>(0));
}

static void gst_lumo_beautify_init(GstLumoBeautify* element) { new (&element->state) State(); }

static gboolean plugin_init(GstPlugin* plugin) {
  GST_DEBUG_CATEGORY_INIT(lumo_beautify_debug, "lumobeautify", 0, "Lumo beautify filter");
  return gst_element_register(plugin, "lumobeautify", GST_RANK_NONE, gst_lumo_beautify_get_type());
}

#define PACKAGE "lumoimagefilter"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, lumo, "Real-time beautify filters for live video", plugin_init,
                  LUMO_VERSION, "Proprietary", "LumoImageFilter", "none")
