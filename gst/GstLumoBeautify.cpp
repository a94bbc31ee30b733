// lumobeautify: the beautify filter chain as a GStreamer video filter on YUV 4:2:0 and packed RGB frames,
// each frame out in the format it came in.
#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

#include <lumo/lumo.h>

#include "FaceSource.h"

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
  Settings settings;                          // guarded by the object lock
  std::unique_ptr<lumo::BeautifyHost> host;  // made in start(), gone after stop()
  // With the faces property on: the faces in each frame; made on the first such frame.
  std::shared_ptr<lumo::faces::FaceSource> faces;
  std::string facesCascade;  // the cascade `faces` was made with
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
  if (g_once_init_enter(&type)) {
    // The passes' names and descriptions are the library's, as every front end spells them.
    static GFlagsValue values[lumo::kMaskPassCount + 1] = {};
    for (size_t i = 0; i < lumo::kMaskPassCount; ++i) {
      const lumo::MaskPassName& pass = lumo::maskPassNames()[i];
      values[i] = {static_cast<guint>(pass.bit), pass.description, pass.name};
    }
    const GType registered = g_flags_register_static("GstLumoBeautifyMask", values);
    // Text for the mask (gst-launch, gst_util_set_object_arg) is read by the library, as every front end
    // reads it: "polish,whiten", "polish+whiten" and "010" (ten) alike.
    static GstValueTable table{};
    table.type = registered;
    table.deserialize = [](GValue* dest, const gchar* text) -> gboolean {
      int32_t mask = 0;
      std::string error;
      if (!lumo::parseMaskText(text, "mask", &mask, &error)) {
        GST_WARNING("%s", error.c_str());
        return FALSE;
      }
      g_value_set_flags(dest, static_cast<guint>(mask));
      return TRUE;
    };
    gst_value_register(&table);
    g_once_init_leave(&type, registered);
  }
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

gboolean start(GstBaseTransform* transform) {
  GstLumoBeautify* element = self(transform);
  GST_OBJECT_LOCK(element);
  const auto wanted = static_cast<lumo::EngineKind>(element->state.settings.engine);
  GST_OBJECT_UNLOCK(element);
  std::string why;
  std::unique_ptr<lumo::BeautifyHost> host = lumo::BeautifyHost::create(wanted, &why);
  if (!host) {
    GST_ELEMENT_ERROR(element, RESOURCE, FAILED,
                      ("lumobeautify cannot start the %s engine: %s", lumo::engineKindName(wanted), why.c_str()),
                      (nullptr));
    return FALSE;
  }
  GST_INFO_OBJECT(element, "engine %s (%s)", lumo::engineKindName(host->kind()), why.c_str());
  host->setNoticeHandler([element](const std::string& notice) {
    GST_ELEMENT_WARNING(element, STREAM, FAILED, ("lumobeautify: %s", notice.c_str()), (nullptr));
  });
  element->state.host = std::move(host);
  return TRUE;
}

gboolean stop(GstBaseTransform* transform) {
  GstLumoBeautify* element = self(transform);
  element->state.host.reset();
  element->state.faces.reset();
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

// A camera's own formats (YUY2 and UYVY from UVC and capture cards, Y42B from a JPEG decoder, BGR from V4L2's
// BGR24) go in and out as they are, without a videoconvert either side.
#define LUMO_GST_FORMATS "{ NV12, I420, YUY2, UYVY, Y42B, BGRA, RGBA, BGRx, RGBx, BGR, RGB }"

uint32_t pixelFormatOf(GstVideoFormat format) {
  switch (format) {
    case GST_VIDEO_FORMAT_NV12: return lumo::kPixelFormatNV12;
    case GST_VIDEO_FORMAT_I420: return lumo::kPixelFormatI420;
    case GST_VIDEO_FORMAT_BGRA: return lumo::kPixelFormat32BGRA;
    case GST_VIDEO_FORMAT_RGBA: return lumo::kPixelFormat32RGBA;
    case GST_VIDEO_FORMAT_BGRx: return lumo::kPixelFormat32BGRX;
    case GST_VIDEO_FORMAT_RGBx: return lumo::kPixelFormat32RGBX;
    case GST_VIDEO_FORMAT_YUY2: return lumo::kPixelFormatYUY2;
    case GST_VIDEO_FORMAT_UYVY: return lumo::kPixelFormatUYVY;
    case GST_VIDEO_FORMAT_Y42B: return lumo::kPixelFormatI422;
    case GST_VIDEO_FORMAT_BGR: return lumo::kPixelFormat24BGR;
    case GST_VIDEO_FORMAT_RGB: return lumo::kPixelFormat24RGB;
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

// The frame's planes, with the strides and offsets of its video meta, as the host layer takes them.
lumo::HostFrame hostFrame(GstVideoFrame* frame) {
  lumo::HostFrame host;
  host.pixelFormat = pixelFormatOf(GST_VIDEO_FRAME_FORMAT(frame));
  host.width = GST_VIDEO_FRAME_WIDTH(frame);
  host.height = GST_VIDEO_FRAME_HEIGHT(frame);
  host.colorimetry = colorimetryOf(frame->info);
  for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(frame) && plane < lumo::kPixelBufferMaxPlanes; ++plane) {
    host.planes[plane] = {GST_VIDEO_FRAME_PLANE_DATA(frame, plane),
                          static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane))};
  }
  return host;
}

// With the faces property on, the host takes its regions from the faces in each frame (the first frame
// waits for its detection, later ones take the faces a worker thread carries); off again, the whole frame.
// False, with the error posted, when faces are wanted and cannot be found.
bool followFaces(GstLumoBeautify* element, const Settings& settings) {
  State& state = element->state;
  if (!settings.faces) {
    if (state.faces) state.host->setRegionSource(nullptr);
    state.faces.reset();
    return true;
  }
  if (state.faces && state.facesCascade == settings.faceCascade) return true;
  std::string why;
  state.faces = lumo::faces::FaceSource::create(lumo::faces::FaceMode::Video, settings.faceCascade, &why);
  state.facesCascade = settings.faceCascade;
  state.host->setRegionSource(state.faces);
  if (!state.faces) {
    GST_ELEMENT_ERROR(element, RESOURCE, FAILED, ("lumobeautify cannot find faces: %s", why.c_str()), (nullptr));
    return false;
  }
  GST_INFO_OBJECT(element, "faces: cascade %s", state.faces->cascadePath().c_str());
  return true;
}

// Frames above the library's size limit are refused when the caps arrive, before a buffer of that size is
// allocated upstream, with the limit in the message rather than a bare "not negotiated".
gboolean setInfo(GstVideoFilter* videoFilter, GstCaps*, GstVideoInfo* in, GstCaps*, GstVideoInfo*) {
  const std::string problem = lumo::frameSizeProblem(GST_VIDEO_INFO_WIDTH(in), GST_VIDEO_INFO_HEIGHT(in));
  if (problem.empty()) return TRUE;
  GST_ELEMENT_ERROR(videoFilter, STREAM, FORMAT, ("lumobeautify: %s", problem.c_str()), (nullptr));
  return FALSE;
}

GstFlowReturn transformFrame(GstVideoFilter* videoFilter, GstVideoFrame* in, GstVideoFrame* out) {
  GstLumoBeautify* element = self(videoFilter);
  lumo::BeautifyHost* host = element->state.host.get();
  if (host == nullptr) {
    GST_ELEMENT_ERROR(element, CORE, FAILED, ("lumobeautify received a frame before it was started"), (nullptr));
    return GST_FLOW_ERROR;
  }
  GST_OBJECT_LOCK(element);
  const Settings settings = element->state.settings;
  GST_OBJECT_UNLOCK(element);
  host->applySettings(settings.beautify);
  if (!followFaces(element, settings)) return GST_FLOW_ERROR;

  // The frames' memory is wrapped, not copied; the result is drawn straight into the output frame.
  const lumo::FrameResult result = host->process(hostFrame(in), hostFrame(out));
  if (!result.ok()) {
    GST_ELEMENT_ERROR(element, STREAM, FAILED,
                      ("lumobeautify could not process a %d x %d frame", GST_VIDEO_FRAME_WIDTH(in),
                       GST_VIDEO_FRAME_HEIGHT(in)),
                      ("%s", result.why.c_str()));
    return GST_FLOW_ERROR;
  }
  return GST_FLOW_OK;
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
  videoFilterClass->set_info = setInfo;
  videoFilterClass->transform_frame = transformFrame;

  gst_type_mark_as_plugin_api(maskType(), static_cast<GstPluginAPIFlags>(0));
  gst_type_mark_as_plugin_api(engineType(), static_cast<GstPluginAPIFlags>(0));
}

static void gst_lumo_beautify_init(GstLumoBeautify* element) { new (&element->state) State(); }

static gboolean plugin_init(GstPlugin* plugin) {
  GST_DEBUG_CATEGORY_INIT(lumo_beautify_debug, "lumobeautify", 0, "Lumo beautify filter");
  // The element's properties keep the preset in range, so the library's one log line is the notice each new
  // preset filter writes as it is made: GStreamer's debug log, not the application's stderr, is its place.
  lumo::setLogHandler([](const char* line) { GST_CAT_INFO(lumo_beautify_debug, "%s", line); });
  return gst_element_register(plugin, "lumobeautify", GST_RANK_NONE, gst_lumo_beautify_get_type());
}

#define PACKAGE "lumoimagefilter"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, lumo, "Real-time beautify filters for live video", plugin_init,
                  LUMO_VERSION, "Proprietary", "LumoImageFilter", "none")
