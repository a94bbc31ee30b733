#include "VideoFile.h"

#include <gst/gst.h>
#include <gst/pbutils/missing-plugins.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <lumo/FrameLimits.h>

#include "ContainerLayout.h"
#include "SafeFile.h"

namespace lumo::tools {
namespace {

// Owning handles for the GStreamer and GLib objects used here.
struct ObjectUnref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};
template <typename T>
using Ref = std::unique_ptr<T, ObjectUnref>;
struct CapsUnref {
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
using CapsRef = std::unique_ptr<GstCaps, CapsUnref>;
struct MessageUnref {
  void operator()(GstMessage* message) const { gst_message_unref(message); }
};
using MessageRef = std::unique_ptr<GstMessage, MessageUnref>;
struct GFree {
  void operator()(gpointer memory) const { g_free(memory); }
};
using GText = std::unique_ptr<gchar, GFree>;
struct ErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorRef = std::unique_ptr<GError, ErrorFree>;

std::string lowerExtension(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  const size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || dot <= start) return {};
  std::string extension = path.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension;
}

constexpr const char* kNoVideo = "has no video stream to beautify";

// MP4's and WebM's muxers take frames of 16 x 16 and up; smaller ones fail negotiation without a reason.
constexpr int kMinVideoSide = 16;

const char* chromaFormat(Chroma chroma) {
  switch (chroma) {
    case Chroma::C422: return "Y42B";
    case Chroma::C444: return "Y444";
    default: return "I420";
  }
}

// Why a video of this size cannot be written with these settings; empty when it can.
std::string videoSizeProblem(int64_t width, int64_t height, const VideoSettings& settings, VideoCodec codec) {
  if (std::string problem = lumo::frameSizeProblem(width, height); !problem.empty()) return problem;
  const std::string size = std::to_string(width) + " x " + std::to_string(height);
  if (width < kMinVideoSide || height < kMinVideoSide) {
    return "is only " + size + ": the smallest video the tool writes is 16 x 16 (the containers' minimum)";
  }
  // x264 and x265 take whole chroma samples only: 4:2:0 needs both sides even, 4:2:2 an even width.
  const bool oddWidth = width % 2 != 0, oddHeight = height % 2 != 0;
  if (codec != VideoCodec::Vp9 && settings.chroma != Chroma::C444 &&
      (oddWidth || (oddHeight && settings.chroma == Chroma::C420))) {
    return "is " + size + ": " + videoCodecName(codec) + " in 4:2:" +
           (settings.chroma == Chroma::C420 ? "0 needs both sides even" : "2 needs an even width") +
           "; give --chroma 444, or write VP9 (.webm)";
  }
  return {};
}

// A frame size from caps that carry one; false for caps without it (most encoded formats before parsing).
bool sizeOfCaps(const GstCaps* caps, int64_t* width, int64_t* height) {
  if (caps == nullptr || gst_caps_get_size(caps) == 0) return false;
  const GstStructure* structure = gst_caps_get_structure(caps, 0);
  gint w = 0, h = 0;
  if (!gst_structure_get_int(structure, "width", &w) || !gst_structure_get_int(structure, "height", &h)) return false;
  *width = w;
  *height = h;
  return true;
}

constexpr const char* kBase = "gstreamer1.0-plugins-base";
constexpr const char* kGood = "gstreamer1.0-plugins-good";
constexpr const char* kBad = "gstreamer1.0-plugins-bad";
constexpr const char* kUgly = "gstreamer1.0-plugins-ugly";
constexpr const char* kLibav = "gstreamer1.0-libav";

// The Debian package that holds each element the tool asks for by name.
const char* packageOfElement(const std::string& element) {
  static const struct {
    const char* element;
    const char* package;
  } table[] = {
      {"x264enc", kUgly},       {"x265enc", kBad},           {"vp9enc", kGood},        {"avenc_aac", kLibav},
      {"voaacenc", kBad},       {"fdkaacenc", kBad},         {"opusenc", kBase},       {"mp4mux", kGood},
      {"qtmux", kGood},         {"matroskamux", kGood},      {"webmmux", kGood},       {"videoflip", kGood},       {"h265parse", kBad},
      {"parsebin", kBase},      {"decodebin", kBase},        {"videoconvert", kBase},  {"audioconvert", kBase},
      {"audioresample", kBase}, {"filesrc", "libgstreamer1.0-0"}, {"fdsink", "libgstreamer1.0-0"},
      {"queue", "libgstreamer1.0-0"},
  };
  for (const auto& entry : table) {
    if (element == entry.element) return entry.package;
  }
  return "the GStreamer plugin package that provides it";
}

// The package whose plugin reads a media type: a demuxer's or decoder's input. libav decodes most of the
// rest (H.264, H.265, MPEG-4, AAC, AC-3, ProRes...).
const char* packageOfMediaType(const std::string& type) {
  static const struct {
    const char* type;
    const char* package;
  } table[] = {
      {"video/x-vp8", kGood},      {"video/x-vp9", kGood},     {"video/quicktime", kGood},
      {"video/x-matroska", kGood}, {"video/webm", kGood},      {"video/x-msvideo", kGood},
      {"video/x-flv", kGood},      {"audio/x-flac", kGood},    {"audio/x-wav", kGood},
      {"audio/x-opus", kBase},     {"audio/x-vorbis", kBase},  {"application/ogg", kBase},
      {"video/x-theora", kBase},   {"video/mpegts", kBad},     {"video/x-av1", kBad},
  };
  for (const auto& entry : table) {
    if (type == entry.type) return entry.package;
  }
  return kLibav;
}

// "no H.264 (High Profile) decoder: install gstreamer1.0-libav", from a missing-plugin message.
std::string missingPluginText(GstMessage* message) {
  const GText description(gst_missing_plugin_message_get_description(message));
  const GText detail(gst_missing_plugin_message_get_installer_detail(message));
  std::string what = detail ? detail.get() : "";
  what = what.substr(what.find_last_of('|') + 1);  // "decoder-video/x-h264, stream-format=..."
  const size_t dash = what.find('-');
  const std::string kind = what.substr(0, dash);
  std::string name = dash == std::string::npos ? what : what.substr(dash + 1);
  name = name.substr(0, name.find(','));
  const char* package = kind == "element" ? packageOfElement(name) : packageOfMediaType(name);
  return std::string("no ") + (description ? description.get() : name.c_str()) + " is installed: install " + package;
}

Ref<GstElement> makeElement(const char* factory, std::string* error) {
  GstElement* element = gst_element_factory_make(factory, nullptr);
  if (element == nullptr) {
    *error = std::string("the GStreamer element ") + factory + " is missing: install " + packageOfElement(factory);
    return nullptr;
  }
  return Ref<GstElement>(GST_ELEMENT(gst_object_ref_sink(element)));
}

// The first of `factories` that is installed.
const char* firstInstalled(std::initializer_list<const char*> factories) {
  for (const char* name : factories) {
    if (Ref<GstElementFactory> factory{gst_element_factory_find(name)}) return name;
  }
  return nullptr;
}

const char* muxerName(Container container) {
  switch (container) {
    case Container::Mp4: return "mp4mux";
    case Container::Mov: return "qtmux";
    case Container::Mkv: return "matroskamux";
    default: return "webmmux";
  }
}

int defaultCrf(VideoCodec codec) {
  switch (codec) {
    case VideoCodec::H265: return 28;
    case VideoCodec::Vp9: return 31;
    default: return 23;
  }
}

// The video encoder for the settings: constant quality unless a bitrate is asked for.
VideoCodec codecOf(const VideoSettings& settings) {
  return settings.codec == VideoCodec::Default ? defaultCodec(settings.container) : settings.codec;
}

Ref<GstElement> makeVideoEncoder(const VideoSettings& settings, std::string* error) {
  const VideoCodec codec = codecOf(settings);
  const int crf = settings.crf >= 0 ? settings.crf : defaultCrf(codec);
  const std::string quality = std::to_string(crf);
  const std::string kbps = std::to_string(settings.bitrateKbps);
  const bool byBitrate = settings.bitrateKbps > 0;
  Ref<GstElement> encoder;
  auto set = [&](const char* property, const std::string& value) {
    gst_util_set_object_arg(G_OBJECT(encoder.get()), property, value.c_str());
  };
  if (codec == VideoCodec::H264) {
    if (!(encoder = makeElement("x264enc", error))) return nullptr;
    set("pass", byBitrate ? "cbr" : "qual");
    set(byBitrate ? "bitrate" : "quantizer", byBitrate ? kbps : quality);
  } else if (codec == VideoCodec::H265) {
    if (!(encoder = makeElement("x265enc", error))) return nullptr;
    if (byBitrate) {
      set("bitrate", kbps);
    } else {
      set("option-string", "crf=" + quality);
    }
  } else {
    if (!(encoder = makeElement("vp9enc", error))) return nullptr;
    // libvpx's defaults (cpu-used 0, one thread per frame) run at a few frames a second; these keep the
    // quality within a few percent at several times the speed.
    set("cpu-used", "4");
    set("row-mt", "true");
    set("threads", std::to_string(std::max(1u, std::thread::hardware_concurrency())));
    // With frames held back for look-ahead, the encoder loses some of the last ones at the end of the stream
    // whenever its rate control is pressed (13 of 250 at 4000 kbit/s): every frame counts more.
    set("lag-in-frames", "0");
    set("end-usage", byBitrate ? "vbr" : "cq");
    if (byBitrate) {
      set("target-bitrate", std::to_string(static_cast<long long>(settings.bitrateKbps) * 1000));
    } else {
      set("cq-level", quality);
      // Constant quality still obeys a bit rate as its ceiling; a low one (the element's default, or one
      // derived from bits per pixel, which this element ignores) overrides the quality level.
      set("target-bitrate", "100000000");
    }
  }
  return encoder;
}

// AAC for MP4, MOV and Matroska, Opus for WebM.
Ref<GstElement> makeAudioEncoder(Container container, std::string* error) {
  if (container == Container::Webm) return makeElement("opusenc", error);
  const char* aac = firstInstalled({"fdkaacenc", "avenc_aac", "voaacenc"});
  if (aac == nullptr) {
    *error = std::string("no AAC encoder is installed: install ") + kLibav;
    return nullptr;
  }
  return makeElement(aac, error);
}

// The lumobeautify element: the plugin beside the tool (installed, or in the build tree the tool belongs to)
// first, so that a tool never runs another build's element; then whatever GStreamer's registry knows.
Ref<GstElement> makeBeautifyElement(std::string* error) {
  char self[4096];
  const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
  std::string folder = length > 0 ? std::string(self, static_cast<size_t>(length)) : std::string();
  folder = folder.substr(0, folder.find_last_of('/'));
  std::vector<std::string> candidates{folder + "/" LUMO_PLUGIN_FROM_BINDIR};
#ifdef LUMO_BUILD_PLUGIN
  if (folder == LUMO_BUILD_TOOL_DIR) candidates.insert(candidates.begin(), LUMO_BUILD_PLUGIN);
#endif
  for (const std::string& path : candidates) {
    if (::access(path.c_str(), R_OK) != 0) continue;
    GError* raw = nullptr;
    Ref<GstPlugin> plugin(gst_plugin_load_file(path.c_str(), &raw));
    const ErrorRef failed(raw);
    if (plugin) break;
    *error = "the lumobeautify plugin " + path + " could not be loaded: " + failed->message;
    return nullptr;
  }
  GstElement* element = gst_element_factory_make("lumobeautify", nullptr);
  if (element == nullptr) {
    *error = "the GStreamer element lumobeautify (libgstlumo.so) is not installed; reinstall lumoimagefilter or "
             "point GST_PLUGIN_PATH at its folder";
    return nullptr;
  }
  return Ref<GstElement>(GST_ELEMENT(gst_object_ref_sink(element)));
}

// One input to the transcode: the pipeline, its dynamic branches, and what the streaming threads report.
class Transcode {
 public:
  Transcode(const VideoSettings& settings, const volatile std::sig_atomic_t* stop) : settings_(settings), stop_(stop) {}
  ~Transcode() {
    if (pipeline_) gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  }
  Transcode(const Transcode&) = delete;
  Transcode& operator=(const Transcode&) = delete;

  bool build(const std::string& input, int outputFd, std::string* error);
  VideoResult run(const std::function<void(const VideoProgress&)>& onProgress);

 private:
  // Where a decodebin's raw pad goes.
  struct Decoded {
    Transcode* owner;
    GstElement* next;
  };

  GstElement* add(Ref<GstElement> element);
  GstElement* add(const char* factory);
  bool chain(std::initializer_list<GstElement*> elements);
  GstElement* entryQueue(GstPad* from, bool unbounded);
  void addVideo(GstPad* pad);
  void addAudio(GstPad* pad, GstCaps* caps);
  void syncAll();
  void fail(const std::string& error);
  std::string failure();
  void endInputs();

  static void onParsedPad(GstElement*, GstPad* pad, gpointer self);
  static void onAllParsed(GstElement*, gpointer self);
  static void onDecodedPad(GstElement*, GstPad* pad, gpointer decoded);
  static GstPadProbeReturn onAudio(GstPad*, GstPadProbeInfo* info, gpointer self);
  static GstPadProbeReturn onFrame(GstPad*, GstPadProbeInfo* info, gpointer self);
  static GstPadProbeReturn onDecodedCaps(GstPad*, GstPadProbeInfo* info, gpointer self);
  static GstPadProbeReturn onUnusedEos(GstPad*, GstPadProbeInfo* info, gpointer self);
  static GstPadProbeReturn onRead(GstPad*, GstPadProbeInfo* info, gpointer self);
  void checkSize(const GstCaps* caps);
  bool streamsWithoutVideo();  // the demuxer found streams, none of them video
  bool streamFound();
  double declaredDuration();   // the input's length in seconds as its container gives it; -1 while unknown
  std::string shortfall(double declared, const VideoResult& result) const;
  std::string cutWhere() const;
  std::string indexMissing() const;
  std::string unreadable() const;  // a file cut short from which not one frame came

  VideoSettings settings_;
  const volatile std::sig_atomic_t* stop_;
  Ref<GstElement> pipeline_;
  GstElement* mux_ = nullptr;
  GstElement* sink_ = nullptr;
  std::mutex mutex_;  // guards what follows, written from streaming threads
  bool streamsFound_ = false;
  bool videoAdded_ = false;
  bool audioAdded_ = false;
  std::vector<GstElement*> pending_;             // added, state not yet synced with the pipeline
  std::vector<Ref<GstPad>> entries_;             // where EOS goes in to end the input early
  std::vector<std::unique_ptr<Decoded>> decoded_;
  std::string failure_;
  std::atomic<uint64_t> frames_{0};
  std::atomic<int64_t> firstPts_{-1};
  std::atomic<int64_t> lastEnd_{-1};
  std::atomic<int64_t> audioEnd_{-1};
  std::atomic<uint64_t> reads_{0};     // buffers the file source has handed on
  std::atomic<uint64_t> readEnd_{0};   // the furthest byte read
  uint64_t inputBytes_ = 0;
  int videoLeftOut_ = 0;  // video streams after the first
  LayoutCheck layout_;
};

GstElement* Transcode::add(Ref<GstElement> element) {
  GstElement* added = element.get();
  if (added == nullptr) return nullptr;
  gst_bin_add(GST_BIN(pipeline_.get()), added);  // the bin takes a reference of its own
  pending_.push_back(added);
  return added;
}

GstElement* Transcode::add(const char* factory) {
  std::string error;
  GstElement* element = add(makeElement(factory, &error));
  if (element == nullptr) fail(error);
  return element;
}

bool Transcode::chain(std::initializer_list<GstElement*> elements) {
  GstElement* previous = nullptr;
  for (GstElement* element : elements) {
    if (element == nullptr) return false;
    if (previous != nullptr && !gst_element_link(previous, element)) {
      fail(std::string("cannot link ") + GST_ELEMENT_NAME(previous) + " to " + GST_ELEMENT_NAME(element));
      return false;
    }
    previous = element;
  }
  return true;
}

// A queue fed from `from`, remembered as a place to end the input.
GstElement* Transcode::entryQueue(GstPad* from, bool unbounded) {
  GstElement* queue = add("queue");
  if (queue == nullptr) return nullptr;
  if (unbounded) {
    // Audio waits here while the muxer waits for video frames, which arrive an encoder's look-ahead later.
    g_object_set(queue, "max-size-buffers", 0u, "max-size-bytes", 0u, "max-size-time", guint64{0}, nullptr);
  }
  Ref<GstPad> sink(gst_element_get_static_pad(queue, "sink"));
  if (gst_pad_link(from, sink.get()) != GST_PAD_LINK_OK) {
    fail("cannot link a stream of the input");
    return nullptr;
  }
  entries_.push_back(std::move(sink));
  return queue;
}

// queue ! decodebin ! queue ! videoconvert ! lumobeautify ! queue ! videoconvert ! videoflip ! videoconvert
//   ! capsfilter (the chroma written) ! encoder ! (h265parse | identity) ! mux. The converters pass the
// decoder's NV12 or I420 through untouched.
void Transcode::addVideo(GstPad* pad) {
  std::string error;
  GstElement* beautify = add(makeBeautifyElement(&error));
  GstElement* encoder = add(makeVideoEncoder(settings_, &error));
  if (beautify == nullptr || encoder == nullptr) return fail(error);
  const BeautifySettings& b = settings_.beautify;
  g_object_set(beautify, "mask", static_cast<guint>(b.mask), "preset", static_cast<guint>(b.preset), "polish-step",
               static_cast<gdouble>(b.polishStep), "polish-factor", static_cast<gdouble>(b.polishFactor), "whiten",
               static_cast<gdouble>(b.whiten), "sharpen", static_cast<gdouble>(b.sharpen), "skin-whiten",
               static_cast<gdouble>(b.skinWhiten), nullptr);
  gst_util_set_object_arg(G_OBJECT(beautify), "engine", engineKindName(settings_.engine));
  if (settings_.faces) {
    g_object_set(beautify, "faces", TRUE, "face-cascade", settings_.faceCascade.c_str(), nullptr);
  }
  Ref<GstPad> counted(gst_element_get_static_pad(beautify, "src"));
  gst_pad_add_probe(counted.get(), GST_PAD_PROBE_TYPE_BUFFER, onFrame, this, nullptr);

  GstElement* decode = add("decodebin");
  GstElement* afterDecode = add("queue");
  GstElement* toBeautify = add("videoconvert");
  GstElement* toEncoder = add("queue");
  GstElement* fromBeautify = add("videoconvert");
  // A phone's rotation tag: the MP4 muxer writes no matrix for it and Matroska has none, so the frames are
  // turned upright instead, as a player would have shown them.
  GstElement* flip = add("videoflip");
  if (flip != nullptr) gst_util_set_object_arg(G_OBJECT(flip), "video-direction", "auto");
  // H.265 reaches MP4's muxer only in its parsed form.
  GstElement* parse = codecOf(settings_) == VideoCodec::H265 ? add("h265parse") : add("identity");
  GstElement* toChroma = add("videoconvert");  // videoflip takes no 4:2:2
  GstElement* chroma = add("capsfilter");
  if (chroma != nullptr) {
    const CapsRef caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, chromaFormat(settings_.chroma),
                                           nullptr));
    g_object_set(chroma, "caps", caps.get(), nullptr);
  }
  // Right where the decoder's frames leave it: a size the converters cannot take fails there, without a reason.
  Ref<GstPad> decodedIn(gst_element_get_static_pad(afterDecode, "sink"));
  gst_pad_add_probe(decodedIn.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, onDecodedCaps, this, nullptr);
  GstElement* entry = entryQueue(pad, false);
  if (entry == nullptr || !chain({entry, decode}) ||
      !chain({afterDecode, toBeautify, beautify, toEncoder, fromBeautify, flip, toChroma, chroma, encoder, parse, mux_})) {
    return;
  }
  decoded_.push_back(std::make_unique<Decoded>(Decoded{this, afterDecode}));
  g_signal_connect(decode, "pad-added", G_CALLBACK(onDecodedPad), decoded_.back().get());
}

// Into the muxer as it came where the muxer takes it; decoded and re-encoded otherwise.
void Transcode::addAudio(GstPad* pad, GstCaps* caps) {
  GstElement* entry = entryQueue(pad, true);
  if (entry == nullptr) return;
  Ref<GstPad> reach(gst_element_get_static_pad(entry, "src"));
  gst_pad_add_probe(reach.get(), GST_PAD_PROBE_TYPE_BUFFER, onAudio, this, nullptr);
  if (gst_element_factory_can_sink_any_caps(gst_element_get_factory(mux_), caps)) {
    // The queue's pad takes any caps: the muxer's pad is asked for by the stream's own.
    Ref<GstPad> out(gst_element_get_static_pad(entry, "src"));
    Ref<GstPad> in(gst_element_get_compatible_pad(mux_, out.get(), caps));
    if (!in || gst_pad_link(out.get(), in.get()) != GST_PAD_LINK_OK) fail("the muxer refuses the input's audio");
    return;
  }
  std::string error;
  GstElement* encoder = add(makeAudioEncoder(settings_.container, &error));
  if (encoder == nullptr) return fail(error);
  GstElement* decode = add("decodebin");
  GstElement* convert = add("audioconvert");
  GstElement* resample = add("audioresample");
  if (!chain({entry, decode}) || !chain({convert, resample, encoder, mux_})) return;
  decoded_.push_back(std::make_unique<Decoded>(Decoded{this, convert}));
  g_signal_connect(decode, "pad-added", G_CALLBACK(onDecodedPad), decoded_.back().get());
}

// Elements added while the pipeline runs take its state, the ones nearest the muxer first.
void Transcode::syncAll() {
  std::vector<GstElement*> added;
  added.swap(pending_);
  for (auto it = added.rbegin(); it != added.rend(); ++it) gst_element_sync_state_with_parent(*it);
}

void Transcode::fail(const std::string& error) {
  if (failure_.empty()) failure_ = error;
}

std::string Transcode::failure() {
  std::lock_guard<std::mutex> lock(mutex_);
  return failure_;
}

void Transcode::onParsedPad(GstElement*, GstPad* pad, gpointer data) {
  auto* self = static_cast<Transcode*>(data);
  CapsRef caps(gst_pad_get_current_caps(pad));
  if (!caps) caps.reset(gst_pad_query_caps(pad, nullptr));
  const std::string type = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->streamsFound_ = true;
  // The first video and the first audio stream; any other stream (a second angle, subtitles, a phone's
  // metadata track) stays unlinked and is dropped by the demuxer.
  if (type.rfind("image/", 0) == 0) {
    self->fail("is a still image (" + type + "), not a video: name the output .png or .jpg to beautify it");
  } else if (type.rfind("video/", 0) == 0 && self->videoAdded_) {
    ++self->videoLeftOut_;  // a second angle or a cover picture: dropped, and said so
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, onUnusedEos, self, nullptr);
  } else if (type.rfind("video/", 0) == 0) {
    self->videoAdded_ = true;
    self->checkSize(caps.get());  // before a decoder allocates frames of a forged size
    self->addVideo(pad);
  } else if (type.rfind("audio/", 0) == 0 && !self->audioAdded_) {
    self->audioAdded_ = true;
    self->addAudio(pad, caps.get());
  } else {
    // A demuxer may end an unlinked stream without an error (Matroska's subtitles do): its end is then the
    // input's, and an input that ends before any video stream appeared has none.
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, onUnusedEos, self, nullptr);
  }
  self->syncAll();
}

void Transcode::checkSize(const GstCaps* caps) {
  int64_t width = 0, height = 0;
  if (!sizeOfCaps(caps, &width, &height)) return;
  if (const std::string problem = videoSizeProblem(width, height, settings_, codecOf(settings_)); !problem.empty()) {
    fail(problem);
  }
}

// A demuxer ends a truncated file where its data ends, as if that were the end. The container's framing
// says where it should have ended; the furthest track's reach is also held against the length the container
// declares, within a few frames (the tracks of a whole file end a frame or two apart).
std::string Transcode::shortfall(double declared, const VideoResult& result) const {
  const int64_t furthest = std::max({lastEnd_.load(), audioEnd_.load(), int64_t{0}});
  const double reached = std::max(result.mediaSeconds, static_cast<double>(furthest) / GST_SECOND);
  const bool short_ = declared > 0 && reached < declared - std::min(0.5, declared / 4);
  if (!short_ && !layout_.cutShort) return {};
  char text[200];
  const unsigned long long frames = result.frames;
  if (!layout_.cutShort) {
    std::snprintf(text, sizeof text, "is cut short: its tracks end at %.1f s of the %.1f s it declares (%llu frames)",
                  reached, declared, frames);
    return text;
  }
  if (layout_.declared == 0) {
    std::snprintf(text, sizeof text, ", %.1f s in (%llu frames)", result.mediaSeconds, frames);
  } else {
    std::snprintf(text, sizeof text, "; it was read to %.1f s (%llu frames)", result.mediaSeconds, frames);
  }
  return "is cut short: " + cutWhere() + text;
}

// Where the framing says a cut-short file ends: "the file has 3000 of the 157104 bytes its RIFF chunk
// declares", or "it ends inside an MPEG-TS packet" for a container that declares no length.
std::string Transcode::cutWhere() const {
  if (layout_.declared == 0) return std::string("it ends inside an ") + layout_.framing;
  return "the file has " + std::to_string(layout_.size) + " of the " + std::to_string(layout_.declared) +
         " bytes its " + layout_.framing + " declares";
}

double Transcode::declaredDuration() {
  gint64 nanoseconds = -1;
  if (gst_element_query_duration(pipeline_.get(), GST_FORMAT_TIME, &nanoseconds) && nanoseconds > 0) {
    return static_cast<double>(nanoseconds) / GST_SECOND;
  }
  return -1;
}

bool Transcode::streamFound() {
  std::lock_guard<std::mutex> lock(mutex_);
  return streamsFound_;
}

bool Transcode::streamsWithoutVideo() {
  std::lock_guard<std::mutex> lock(mutex_);
  return streamsFound_ && !videoAdded_;
}

GstPadProbeReturn Transcode::onDecodedCaps(GstPad*, GstPadProbeInfo* info, gpointer data) {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  auto* self = static_cast<Transcode*>(data);
  std::lock_guard<std::mutex> lock(self->mutex_);
  self->checkSize(caps);
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn Transcode::onUnusedEos(GstPad*, GstPadProbeInfo* info, gpointer data) {
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_EOS) return GST_PAD_PROBE_OK;
  auto* self = static_cast<Transcode*>(data);
  std::lock_guard<std::mutex> lock(self->mutex_);
  if (!self->videoAdded_) self->fail(kNoVideo);
  return GST_PAD_PROBE_REMOVE;
}

void Transcode::onAllParsed(GstElement*, gpointer data) {
  auto* self = static_cast<Transcode*>(data);
  std::lock_guard<std::mutex> lock(self->mutex_);
  if (!self->videoAdded_) self->fail(kNoVideo);
}

void Transcode::onDecodedPad(GstElement*, GstPad* pad, gpointer data) {
  auto* decoded = static_cast<Decoded*>(data);
  Ref<GstPad> sink(gst_element_get_static_pad(decoded->next, "sink"));
  if (gst_pad_is_linked(sink.get())) return;
  if (gst_pad_link(pad, sink.get()) != GST_PAD_LINK_OK) {
    std::lock_guard<std::mutex> lock(decoded->owner->mutex_);
    decoded->owner->fail("the decoded stream cannot be converted for the encoder");
  }
}

GstPadProbeReturn Transcode::onAudio(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* self = static_cast<Transcode*>(data);
  const GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (GST_BUFFER_PTS_IS_VALID(buffer)) {
    const int64_t end = static_cast<int64_t>(GST_BUFFER_PTS(buffer)) +
                        (GST_BUFFER_DURATION_IS_VALID(buffer) ? static_cast<int64_t>(GST_BUFFER_DURATION(buffer)) : 0);
    if (end > self->audioEnd_.load()) self->audioEnd_.store(end);  // one streaming thread writes it
  }
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn Transcode::onFrame(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* self = static_cast<Transcode*>(data);
  const GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (GST_BUFFER_PTS_IS_VALID(buffer)) {
    const auto pts = static_cast<int64_t>(GST_BUFFER_PTS(buffer));
    int64_t none = -1;
    self->firstPts_.compare_exchange_strong(none, pts);
    const int64_t end = pts + (GST_BUFFER_DURATION_IS_VALID(buffer) ? static_cast<int64_t>(GST_BUFFER_DURATION(buffer)) : 0);
    if (end > self->lastEnd_.load()) self->lastEnd_.store(end);
  }
  self->frames_.fetch_add(1);
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn Transcode::onRead(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* self = static_cast<Transcode*>(data);
  const GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (buffer != nullptr && GST_BUFFER_OFFSET_IS_VALID(buffer)) {
    const uint64_t end = GST_BUFFER_OFFSET(buffer) + gst_buffer_get_size(const_cast<GstBuffer*>(buffer));
    if (end > self->readEnd_.load()) self->readEnd_.store(end);  // one streaming thread reads the file
  }
  self->reads_.fetch_add(1);
  return GST_PAD_PROBE_OK;
}

std::string Transcode::indexMissing() const {
  if (!layout_.cutShort) {
    return "has no index (no moov box, which a recorder writes last): not one frame can be read; a recording "
           "stopped before it was finished leaves a file like this";
  }
  return "is cut short before its index: " + cutWhere() +
         ", and without the index (the moov box, which a recorder writes last) not one frame can be read";
}

std::string Transcode::unreadable() const {
  return "is cut short: " + cutWhere() + ", and not one frame could be read from it";
}

bool Transcode::build(const std::string& input, int outputFd, std::string* error) {
  pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("lumo-beautify"))));
  GstElement* source = add(makeElement("filesrc", error));
  GstElement* parse = source ? add(makeElement("parsebin", error)) : nullptr;
  mux_ = parse ? add(makeElement(muxerName(settings_.container), error)) : nullptr;
  sink_ = mux_ ? add(makeElement("fdsink", error)) : nullptr;
  pending_.clear();  // the pipeline's own state change starts these
  if (sink_ == nullptr) return false;
  // What the video branch needs is checked before the first frame, so that a missing plugin fails at once.
  if (!makeVideoEncoder(settings_, error) || !makeBeautifyElement(error)) return false;
  g_object_set(source, "location", input.c_str(), nullptr);
  layout_ = checkLayout(input);
  std::error_code unknown;
  inputBytes_ = std::filesystem::file_size(input, unknown);
  if (unknown) inputBytes_ = 0;
  if (layout_.picture) {
    *error = "is a HEIF or AVIF photo, not a video: the tool reads photos as PNG or JPEG";
    return false;
  }
  if (layout_.noIndex) {
    // The demuxer would find nothing to play, and the error it posts that early can be lost inside parsebin.
    *error = indexMissing();
    return false;
  }
  g_object_set(sink_, "fd", outputFd, "sync", FALSE, nullptr);
  if (!gst_element_link(source, parse) || !gst_element_link(mux_, sink_)) {
    *error = "cannot link the input to the demuxer or the muxer to the output";
    return false;
  }
  Ref<GstPad> read(gst_element_get_static_pad(source, "src"));
  gst_pad_add_probe(read.get(), GST_PAD_PROBE_TYPE_BUFFER, onRead, this, nullptr);
  g_signal_connect(parse, "pad-added", G_CALLBACK(onParsedPad), this);
  g_signal_connect(parse, "no-more-pads", G_CALLBACK(onAllParsed), this);
  return true;
}

// EOS into every stream where it enters: the decoders, the element and the encoders finish what they hold,
// and the muxer writes a complete file.
void Transcode::endInputs() {
  std::vector<GstPad*> pads;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Ref<GstPad>& pad : entries_) pads.push_back(GST_PAD(gst_object_ref(pad.get())));
  }
  for (GstPad* pad : pads) {
    gst_pad_send_event(pad, gst_event_new_eos());
    gst_object_unref(pad);
  }
}

VideoResult Transcode::run(const std::function<void(const VideoProgress&)>& onProgress) {
  VideoResult result;
  const auto start = std::chrono::steady_clock::now();
  auto seconds = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  auto media = [&] {
    const int64_t first = firstPts_.load(), end = lastEnd_.load();
    return first >= 0 && end >= first ? static_cast<double>(end - first) / GST_SECOND : 0.0;
  };
  Ref<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  std::string missing;  // a missing decoder says more than decodebin's own "no suitable plugins found"
  // One bus message: true when the run is over.
  auto handle = [&](GstMessage* message) {
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT) {
      if (gst_is_missing_plugin_message(message) && missing.empty()) missing = missingPluginText(message);
      return false;
    }
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
      result.outcome = *stop_ != 0 ? VideoResult::Outcome::Stopped : VideoResult::Outcome::Done;
      return true;
    }
    GError* raw = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &raw, &debug);
    const ErrorRef error(raw);
    const GText details(debug);
    result.outputFault = GST_MESSAGE_SRC(message) == GST_OBJECT(sink_);
    if (!missing.empty()) {
      result.error = missing;
    } else if (!result.outputFault && streamsWithoutVideo()) {
      result.error = kNoVideo;  // the demuxer's "not linked" on the streams that are not video
    } else {
      result.error = std::string("cannot be transcoded: ") + error->message;
    }
    return true;
  };
  const auto wanted = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR | GST_MESSAGE_ELEMENT);
  GstStateChangeReturn started;
  {
    SignalsHeld held;  // the streaming threads inherit it: stop signals reach the thread that polls for them
    started = gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  }
  if (started == GST_STATE_CHANGE_FAILURE) {
    while (result.error.empty()) {
      const MessageRef message(gst_bus_pop_filtered(bus.get(), wanted));
      if (!message) result.error = "cannot be opened";
      else handle(message.get());
    }
  }
  bool ending = false;
  double duration = -1;
  double nextReport = 0.5;
  // A demuxer that fails while parsebin is still plugging it posts an error that parsebin drops, and the
  // pipeline then waits for ever. Until the demuxer's first stream appears nothing but the demuxer reads
  // the file, and nothing holds it back: a local file left unread that long is such a case.
  constexpr double kStallSeconds = 15;
  uint64_t lastReads = 0;
  double lastMove = 0;
  bool stalled = false;
  while (result.error.empty()) {
    const MessageRef message(gst_bus_timed_pop_filtered(bus.get(), 100 * GST_MSECOND, wanted));
    if (message && handle(message.get())) break;
    result.error = failure();
    if (const uint64_t reads = reads_.load(); message || reads != lastReads || frames_.load() > 0) {
      lastReads = reads;
      lastMove = seconds();
    } else if (result.error.empty() && *stop_ == 0 && seconds() - lastMove > kStallSeconds && !streamFound()) {
      stalled = true;
      result.error = "cannot be transcoded: the demuxer stopped at byte " + std::to_string(readEnd_.load()) +
                     " of " + std::to_string(inputBytes_) + " without finding a stream or giving a reason";
    }
    if (*stop_ != 0 && !ending) {
      if (frames_.load() == 0) {
        result.outcome = VideoResult::Outcome::Stopped;
        break;
      }
      ending = true;
      endInputs();
    }
    if (duration < 0) duration = declaredDuration();
    if (onProgress && seconds() >= nextReport) {
      nextReport = seconds() + 0.5;
      onProgress({frames_.load(), seconds(), media(), duration});
    }
  }
  if (duration < 0) duration = declaredDuration();  // a short input can end before the first query
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  result.frames = frames_.load();
  result.wallSeconds = seconds();
  result.mediaSeconds = media();
  // What the tool found itself says more than the "not negotiated" or "not linked" that follows from it.
  if (const std::string found = failure(); !found.empty() && !result.outputFault) {
    result.error = found;
  } else if ((stalled || result.error.rfind("cannot be transcoded: ", 0) == 0) && !result.outputFault &&
             result.frames == 0 && layout_.cutShort) {
    result.error = unreadable();  // the demuxer's own words ("Could not demultiplex stream.") say less
  }
  if (result.error.empty() && result.outcome == VideoResult::Outcome::Done && result.frames == 0) {
    result.error = !missing.empty() ? missing : kNoVideo;
  }
  if (result.error.empty() && result.outcome == VideoResult::Outcome::Done) {
    result.error = shortfall(duration, result);
  }
  if (!result.error.empty()) result.outcome = VideoResult::Outcome::Failed;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (videoLeftOut_ > 0) {
    result.notes.push_back("has " + std::to_string(videoLeftOut_ + 1) +
                           " video streams: the first is beautified, the others are left out of the output");
  }
  return result;
}

}  // namespace

Container containerForPath(const std::string& path) {
  const std::string extension = lowerExtension(path);
  if (extension == "mp4" || extension == "m4v") return Container::Mp4;
  if (extension == "mov") return Container::Mov;
  if (extension == "mkv") return Container::Mkv;
  if (extension == "webm") return Container::Webm;
  return Container::Unknown;
}

bool isVideoPath(const std::string& path) {
  if (containerForPath(path) != Container::Unknown) return true;
  const std::string extension = lowerExtension(path);
  for (const char* known : {"avi", "ts", "mts", "m2ts", "3gp", "3g2", "flv", "ogv", "mpg", "mpeg", "wmv", "mxf"}) {
    if (extension == known) return true;
  }
  return false;
}

bool looksLikeVideo(const uint8_t* data, size_t size) {
  auto at = [&](size_t offset, const char* bytes, size_t count) {
    return size >= offset + count && std::memcmp(data + offset, bytes, count) == 0;
  };
  return at(4, "ftyp", 4) || at(4, "moov", 4) || at(4, "mdat", 4) || at(4, "wide", 4) ||  // ISO BMFF, QuickTime
         at(0, "\x1a\x45\xdf\xa3", 4) ||                                                  // Matroska, WebM
         (at(0, "RIFF", 4) && at(8, "AVI ", 4)) || at(0, "OggS", 4) || at(0, "FLV\x01", 4) ||
         (size >= 189 && data[0] == 0x47 && data[188] == 0x47);  // MPEG-TS: sync bytes 188 apart
}

bool parseChroma(const std::string& name, Chroma* chroma) {
  if (name == "420") {
    *chroma = Chroma::C420;
  } else if (name == "422") {
    *chroma = Chroma::C422;
  } else if (name == "444") {
    *chroma = Chroma::C444;
  } else {
    return false;
  }
  return true;
}

bool parseVideoCodec(const std::string& name, VideoCodec* codec) {
  if (name == "h264" || name == "avc" || name == "x264") {
    *codec = VideoCodec::H264;
  } else if (name == "h265" || name == "hevc" || name == "x265") {
    *codec = VideoCodec::H265;
  } else if (name == "vp9") {
    *codec = VideoCodec::Vp9;
  } else {
    return false;
  }
  return true;
}

const char* videoCodecName(VideoCodec codec) {
  switch (codec) {
    case VideoCodec::H264: return "h264";
    case VideoCodec::H265: return "h265";
    case VideoCodec::Vp9: return "vp9";
    default: return "default";
  }
}

VideoCodec defaultCodec(Container container) {
  return container == Container::Webm ? VideoCodec::Vp9 : VideoCodec::H264;
}

bool containerTakes(Container container, VideoCodec codec) {
  if (codec == VideoCodec::Default || container == Container::Mkv) return true;
  return container == Container::Webm ? codec == VideoCodec::Vp9 : codec != VideoCodec::Vp9;
}

int maxCrf(VideoCodec codec) {
  switch (codec) {
    case VideoCodec::H265: return 51;
    case VideoCodec::Vp9: return 63;
    default: return 50;  // x264enc's quantizer range
  }
}

VideoResult transcodeVideo(const std::string& input, int outputFd, const VideoSettings& settings,
                           const volatile std::sig_atomic_t* stop,
                           const std::function<void(const VideoProgress&)>& onProgress) {
  gst_init(nullptr, nullptr);
  Transcode transcode(settings, stop);
  VideoResult result;
  if (!transcode.build(input, outputFd, &result.error)) return result;
  return transcode.run(onProgress);
}

}  // namespace lumo::tools
