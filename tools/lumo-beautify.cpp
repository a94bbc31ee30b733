// lumo-beautify: beautify a photo, a video file, or a live raw video stream (BGRA, RGBA, NV12, I420...) piped
// from and to FFmpeg or GStreamer.
#include <lumo/lumo.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FaceSource.h"
#include "ImageIO.h"
#include "RawStream.h"
#include "SafeFile.h"
#include "VideoFile.h"

namespace {

using lumo::tools::Image;
using lumo::tools::OutputFile;
using settings = lumo::BeautifySettings;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSignalBase = 128;  // 128 + the signal's number, as shells report it

struct Options {
  std::string input;
  std::string output;
  bool compare = false;
  bool progress = false;
  int rawWidth = 0;
  int rawHeight = 0;
  uint32_t rawFormat = lumo::kPixelFormat32BGRA;
  lumo::YuvColorimetry colorimetry;  // of YUV frames; unset parts follow the frame height
  lumo::BeautifySettings beautify;
  lumo::EngineKind engine = lumo::EngineKind::Auto;
  lumo::tools::VideoCodec videoCodec = lumo::tools::VideoCodec::Default;
  lumo::tools::Chroma chroma = lumo::tools::Chroma::C420;
  int crf = -1;
  int bitrateKbps = 0;
  std::string videoOption;  // the first video-only option given, for the message when there is no video
  bool faces = false;
  std::string faceCascade;
  std::shared_ptr<lumo::faces::FaceSource> faceSource;  // with --faces, made once the options are read
};

void printHelp() {
  std::printf(
      "Usage: lumo-beautify [OPTIONS] [IN] [-o OUT]\n"
      "       lumo-beautify --raw WIDTHxHEIGHT [OPTIONS] IN|- -o OUT|-\n"
      "\n"
      "Beautifies a portrait photo (PNG or JPEG, the format follows the file name), a video file, or a\n"
      "stream of raw frames. With no IN, beautifies the bundled sample portrait into the current folder.\n"
      "A video is anything GStreamer's installed plugins decode (.mp4, .mov, .mkv, .webm, .avi, .ts..., or\n"
      "a file whose content is one), or any IN with OUT named .mp4, .m4v, .mov, .mkv or .webm; OUT gets H.264\n"
      "(VP9 in .webm), the audio as it was where the container takes it (else AAC, Opus in .webm), and the\n"
      "frame rate, timestamps, pixel aspect and rotation of IN. Ctrl-C finishes OUT with the frames so far.\n"
      "\n"
      "  -o, --output FILE       where to write (default: IN's name with -beautified; a video's in its own\n"
      "                          container when the tool writes it, else .mp4)\n"
      "      --compare           also write a side-by-side before/after image (FILE-compare)\n"
      "      --raw WxH           stream mode: raw frames of W x H from IN (- for stdin) to OUT (- for\n"
      "                          stdout), one frame at a time, each out in the format it came in\n"
      "      --format F          the raw frames' layout: bgra, rgba, bgrx, rgbx, bgr, rgb, nv12, i420, i422,\n"
      "                          yuy2 or uyvy (FFmpeg's names too: bgr24, yuyv422, ...; default: bgra)\n"
      "      --matrix M          YUV matrix: bt601 or bt709 (default: bt709 above 576 rows, else bt601)\n"
      "      --range R           YUV range: limited (16..235) or full (0..255) (default: limited)\n"
      "      --progress          show progress on stderr (default: when stderr is a terminal)\n"
      "      --video-codec C     video: h264, h265 or vp9 (default: h264; vp9 in .webm)\n"
      "      --chroma S          video: chroma subsampling written, 420, 422 or 444 (default: 420, which every\n"
      "                          player and browser decodes)\n"
      "      --crf N             video: constant quality, lower is better (default: 23 h264, 28 h265, 31 vp9;\n"
      "                          0..50 h264, 0..51 h265, 0..63 vp9)\n"
      "      --bitrate KBPS      video: average bitrate in kbit/s instead of constant quality, 1..2000000\n"
      "      --mask LIST|N       passes to run: names polish,whiten,skin-whiten,sharpen or a number\n"
      "                          (default: polish,whiten,skin-whiten = 7; 0 = none)\n"
      "      --preset N          colour preset 0..13 (default: 0, none)\n"
      "      --polish-step X     smoothing sample step in pixels, 0..16 (default: 3)\n"
      "      --polish-factor X   smoothing colour-distance factor, 0..64 (default: 4)\n"
      "      --whiten X          whiten balance, 0..1 (default: 0.5; below brightens, above darkens)\n"
      "      --sharpen X         sharpen strength, -1..4 (default: 0)\n"
      "      --skin-whiten X     skin whiten strength, 0..1 (default: 0.5)\n"
      "      --engine E          auto, gl or cpu (default: auto = the CPU engine when the GL renderer is a\n"
      "                          software rasterizer or there is no GL, the GPU otherwise)\n"
      "      --simd S            cap the CPU engine's instruction set: best, avx3, avx2, sse4 or scalar\n"
      "                          (default: best; the engine line on stderr names the one in use)\n"
      "      --faces             smoothing and skin whitening on faces only (OpenCV's face detector);\n"
      "                          a frame without a face gets the whole-frame passes only\n"
      "      --face-cascade FILE the detector's cascade file, implies --faces (default: Debian's\n"
      "                          /usr/share/opencv4/haarcascades/haarcascade_frontalface_alt2.xml)\n"
      "  -h, --help              this text\n"
      "      --version           the library's version\n");
}

[[noreturn]] void usageError(const std::string& message) {
  std::fprintf(stderr, "lumo-beautify: %s (see --help)\n", message.c_str());
  std::exit(kExitUsage);
}

std::string rangeText(double low, double high) {
  char text[64];
  std::snprintf(text, sizeof text, "%g..%g", low, high);
  return text;
}

// A whole number in decimal digits only: no sign, no base prefix (010 is ten), no spaces, no fraction.
bool parseWhole(const char* text, long low, long high, long* value) {
  long number = 0;
  if (*text == '\0') return false;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return false;
    number = number * 10 + (*c - '0');
    if (number > high) return false;  // stops long before a long could wrap
  }
  if (number < low) return false;
  *value = number;
  return true;
}

long parseWholeOption(const std::string& option, const char* text, long low, long high) {
  long value = 0;
  if (!parseWhole(text, low, high, &value)) {
    usageError("option " + option + " wants a whole number in " + rangeText(low, high) + ", got '" + text + "'");
  }
  return value;
}

// The beautify settings as the library reads their text, with its message on a mistake.
template <typename Parse>
void parseSetting(const std::string& option, Parse parse) {
  std::string error;
  if (!parse("option " + option, &error)) usageError(error);
}

float parseFloatOption(const std::string& option, const char* text, lumo::FloatSetting which) {
  float value = 0.0f;
  parseSetting(option, [&](const std::string& name, std::string* error) {
    return lumo::parseFloatText(which, text, name, &value, error);
  });
  return value;
}

// WIDTHxHEIGHT, within the library's frame limits.
void parseRawSize(const char* text, int* width, int* height) {
  const std::string size = text;
  const size_t x = size.find('x');
  long w = 0, h = 0;
  if (x == std::string::npos || !parseWhole(size.substr(0, x).c_str(), 1, lumo::kMaxFrameSide, &w) ||
      !parseWhole(size.substr(x + 1).c_str(), 1, lumo::kMaxFrameSide, &h)) {
    usageError("option --raw wants WIDTHxHEIGHT, each a whole number in " + rangeText(1, lumo::kMaxFrameSide) +
               ", got '" + size + "'");
  }
  if (const std::string problem = lumo::frameSizeProblem(w, h); !problem.empty()) {
    usageError("option --raw: " + problem);
  }
  *width = static_cast<int>(w);
  *height = static_cast<int>(h);
}

Options parse(int argc, char** argv) {
  Options options;
  bool formatGiven = false;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) usageError("option " + arg + " needs a value");
      return argv[++i];
    };
    if (arg == "-h" || arg == "--help") {
      printHelp();
      std::exit(0);
    } else if (arg == "--version") {
      std::printf("lumo-beautify %.1f (%s)\n", LumoImageFilterVersionNumber,
                  reinterpret_cast<const char*>(LumoImageFilterVersionString) + 4);
      std::exit(0);
    } else if (arg == "-o" || arg == "--output") {
      options.output = value();
      // An empty name would read as "not given" and quietly write the default one.
      if (options.output.empty()) usageError("option " + arg + " wants a file name, got ''");
    } else if (arg == "--compare") {
      options.compare = true;
    } else if (arg == "--progress") {
      options.progress = true;
    } else if (arg == "--video-codec") {
      const char* name = value();
      if (!lumo::tools::parseVideoCodec(name, &options.videoCodec)) {
        usageError(std::string("option --video-codec wants h264, h265 or vp9, got '") + name + "'");
      }
      if (options.videoOption.empty()) options.videoOption = arg;
    } else if (arg == "--chroma") {
      const char* name = value();
      if (!lumo::tools::parseChroma(name, &options.chroma)) {
        usageError(std::string("option --chroma wants 420, 422 or 444, got '") + name + "'");
      }
      if (options.videoOption.empty()) options.videoOption = arg;
    } else if (arg == "--crf") {
      options.crf = static_cast<int>(parseWholeOption(arg, value(), 0, 63));
      if (options.videoOption.empty()) options.videoOption = arg;
    } else if (arg == "--bitrate") {
      options.bitrateKbps = static_cast<int>(parseWholeOption(arg, value(), 1, 2000000));
      if (options.videoOption.empty()) options.videoOption = arg;
    } else if (arg == "--raw") {
      parseRawSize(value(), &options.rawWidth, &options.rawHeight);
    } else if (arg == "--format") {
      const char* name = value();
      if (!lumo::parsePixelFormat(name, &options.rawFormat)) {
        usageError(std::string("option --format wants bgra, rgba, bgrx, rgbx, bgr, rgb, nv12, i420, i422, yuy2 or "
                               "uyvy, got '") + name + "'");
      }
      formatGiven = true;
    } else if (arg == "--matrix") {
      const std::string name = value();
      if (!lumo::parseYuvMatrix(name, &options.colorimetry.matrix)) {
        usageError("option --matrix wants bt601 or bt709, got '" + name + "'");
      }
    } else if (arg == "--range") {
      const std::string name = value();
      if (!lumo::parseYuvRange(name, &options.colorimetry.range)) {
        usageError("option --range wants limited or full, got '" + name + "'");
      }
    } else if (arg == "--engine") {
      const char* name = value();
      if (!lumo::parseEngineKind(name, &options.engine)) {
        usageError(std::string("option --engine wants one of ") + lumo::engineKindNames() + ", got '" + name + "'");
      }
    } else if (arg == "--simd") {
      const std::string name = value();
      // Applied here, before any engine runs a kernel.
      if (!lumo::CpuImageFilter::limitSimd(name)) {
        usageError(std::string("option --simd wants one of ") + lumo::simdLevelNames() + ", got '" + name + "'");
      }
    } else if (arg == "--mask") {
      const char* text = value();
      parseSetting(arg, [&](const std::string& name, std::string* error) {
        return lumo::parseMaskText(text, name, &options.beautify.mask, error);
      });
    } else if (arg == "--preset") {
      const char* text = value();
      parseSetting(arg, [&](const std::string& name, std::string* error) {
        return lumo::parsePresetText(text, name, &options.beautify.preset, error);
      });
    } else if (arg == "--polish-step") {
      options.beautify.polishStep = parseFloatOption(arg, value(), lumo::FloatSetting::PolishStep);
    } else if (arg == "--polish-factor") {
      options.beautify.polishFactor = parseFloatOption(arg, value(), lumo::FloatSetting::PolishFactor);
    } else if (arg == "--whiten") {
      options.beautify.whiten = parseFloatOption(arg, value(), lumo::FloatSetting::Whiten);
    } else if (arg == "--sharpen") {
      options.beautify.sharpen = parseFloatOption(arg, value(), lumo::FloatSetting::Sharpen);
    } else if (arg == "--faces") {
      options.faces = true;
    } else if (arg == "--face-cascade") {
      options.faces = true;
      options.faceCascade = value();
    } else if (arg == "--skin-whiten") {
      options.beautify.skinWhiten = parseFloatOption(arg, value(), lumo::FloatSetting::SkinWhiten);
    } else if (arg.size() > 1 && arg[0] == '-') {
      usageError("unknown option '" + arg + "'");
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() > 1) usageError("one input at a time");
  if (!positional.empty()) options.input = positional[0];
  if (!positional.empty() && options.input.empty()) usageError("the input's name is empty ('')");
  if (formatGiven && options.rawWidth == 0) usageError("--format describes raw frames: use it with --raw");
  const bool colorimetryGiven = options.colorimetry != lumo::YuvColorimetry{};
  if (colorimetryGiven && !lumo::pixelFormatIsYuv(options.rawFormat)) {
    usageError("--matrix and --range describe YUV frames: use them with --raw and a YUV --format (nv12, i420, "
               "i422, yuy2, uyvy)");
  }
  if (options.rawWidth > 0 && (options.input.empty() || options.output.empty())) {
    usageError("--raw needs an input (- for stdin) and -o OUT (- for stdout)");
  }
  if (options.faces) {
    lumo::tools::SignalsHeld held;  // a stream's detection thread leaves signals to the main thread
    std::string why;
    options.faceSource = lumo::faces::FaceSource::create(
        options.rawWidth > 0 ? lumo::faces::FaceMode::Video : lumo::faces::FaceMode::Photos, options.faceCascade, &why);
    if (!options.faceSource) {
      std::fprintf(stderr, "lumo-beautify: --faces: %s\n", why.c_str());
      std::exit(kExitFailure);
    }
  }
  return options;
}

// The engine the options ask for, said on stderr so that a user knows which one ran; null (with the reason
// said) when it cannot be had, e.g. --engine gl without a GL context. Made with the signals held, so that
// its threads never take one meant to stop the main thread's read.
std::unique_ptr<lumo::BeautifyHost> startHost(const Options& options) {
  lumo::tools::SignalsHeld held;
  std::string why;
  std::unique_ptr<lumo::BeautifyHost> host = lumo::BeautifyHost::create(options.engine, &why);
  if (!host) {
    std::fprintf(stderr, "lumo-beautify: no %s engine: %s\n", lumo::engineKindName(options.engine), why.c_str());
    return nullptr;
  }
  if (host->kind() == lumo::EngineKind::Cpu) {
    std::fprintf(stderr, "lumo-beautify: engine cpu (%s; %s)\n", lumo::CpuImageFilter::simdTarget(), why.c_str());
  } else {
    std::fprintf(stderr, "lumo-beautify: engine gl (%s)\n", why.c_str());
  }
  host->applySettings(options.beautify);
  host->setRegionSource(options.faceSource);
  host->setNoticeHandler([](const std::string& notice) { std::fprintf(stderr, "lumo-beautify: %s\n", notice.c_str()); });
  return host;
}

// Draws one frame of tightly packed planes into `out` (the same layout). False with the reason when it
// could not be drawn.
bool process(lumo::BeautifyHost& host, const Options& options, std::vector<uint8_t>& frame, uint32_t format, int width,
             int height, std::vector<uint8_t>& out, std::string* why) {
  out.resize(frame.size());
  // A CPU engine made for a frame the GL engine hands back starts its threads here: they leave signals
  // to the main thread.
  lumo::tools::SignalsHeld held;
  const lumo::FrameResult result =
      host.process(lumo::HostFrame::tight(format, width, height, frame.data(), options.colorimetry),
                   lumo::HostFrame::tight(format, width, height, out.data(), options.colorimetry));
  if (!result.ok()) *why = result.why;
  return result.ok();
}

// Where the extension starts: a dot in the last part of the path, not its first character (".profile" has
// none, and "dir.v2/photo" none either). npos without one.
size_t extensionDot(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  const size_t dot = path.find_last_of('.');
  return dot != std::string::npos && dot > start ? dot : std::string::npos;
}

std::string withSuffix(const std::string& path, const std::string& suffix, const std::string& extension) {
  const size_t dot = extensionDot(path);
  return (dot == std::string::npos ? path : path.substr(0, dot)) + suffix + extension;
}

std::string extensionOf(const std::string& path) {
  const size_t dot = extensionDot(path);
  return dot == std::string::npos ? ".png" : path.substr(dot);
}

// IN's name with -beautified, in IN's format when it names one, PNG otherwise.
std::string defaultOutput(const std::string& input) {
  const std::string extension = extensionOf(input);
  const bool known = lumo::tools::formatForPath(extension) != lumo::tools::ImageFormat::Unknown;
  return withSuffix(input, "-beautified", known ? extension : ".png");
}

std::string bundledSample() {
  for (const char* candidate : {LUMO_INSTALLED_SAMPLE, LUMO_SOURCE_SAMPLE}) {
    if (::access(candidate, R_OK) == 0) return candidate;
  }
  return LUMO_SOURCE_SAMPLE;
}

// Closes a descriptor on every way out.
struct Descriptor {
  int fd;
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  ~Descriptor() {
    if (fd > STDERR_FILENO) ::close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
};

int failure(const std::string& name, const std::string& error) {
  std::fprintf(stderr, "lumo-beautify: %s: %s\n", name.c_str(), error.c_str());
  return kExitFailure;
}

// Encodes and writes an image to an opened output; the output stays uncommitted.
bool writeEncoded(OutputFile& output, const std::string& path, const Image& image, std::string* error) {
  std::vector<uint8_t> encoded;
  if (!lumo::tools::encodeImage(lumo::tools::formatForPath(path), image, &encoded, error) || !output.open(error)) {
    return false;
  }
  if (!lumo::tools::writeAll(output.fd(), encoded.data(), encoded.size())) {
    *error = std::strerror(errno);
    return false;
  }
  return true;
}

int runPhoto(Options options) {
  const bool sampleRun = options.input.empty();
  if (sampleRun) {
    options.input = bundledSample();
    if (options.output.empty()) options.output = "astronaut-beautified.png";
    options.compare = true;
  }
  if (options.input == "-" && options.output.empty()) usageError("a photo read from stdin needs -o OUT");
  if (options.output.empty()) options.output = defaultOutput(options.input);
  if (lumo::tools::formatForPath(options.output) == lumo::tools::ImageFormat::Unknown) {
    usageError("unsupported output format '" + options.output + "' (use .png, .jpg or .jpeg)");
  }
  std::string error;
  lumo::tools::FileId inputId;
  const Descriptor in(lumo::tools::openInput(options.input, lumo::tools::InputUse::Photo, &inputId, &error));
  if (in.fd < 0) return failure(options.input, error);

  // Every output is checked against the input and each other before anything is read or written.
  OutputFile result, side;
  const std::string comparePath = withSuffix(options.output, "-compare", extensionOf(options.output));
  if (!result.resolve(options.output, &error)) return failure(options.output, error);
  if (result.overwrites(inputId)) {
    usageError("refusing to overwrite the input '" + options.input + "' with '" + options.output + "'");
  }
  if (options.compare) {
    if (!side.resolve(comparePath, &error)) return failure(comparePath, error);
    if (side.overwrites(inputId)) {
      usageError("refusing to overwrite the input '" + options.input + "' with the comparison '" + comparePath + "'");
    }
    if (side.sameTarget(result)) {
      usageError("the comparison '" + comparePath + "' and the result '" + options.output + "' are the same file");
    }
  }

  std::vector<uint8_t> data;
  Image image;
  if (!lumo::tools::readAll(in.fd, lumo::tools::kMaxImageFileBytes, &data, &error) ||
      !lumo::tools::decodeImage(data.data(), data.size(), &image, &error)) {
    return failure(options.input, error);
  }
  data = {};
  std::unique_ptr<lumo::BeautifyHost> host = startHost(options);
  if (!host) return kExitFailure;
  Image after{image.width, image.height, {}};
  const bool drawn =
      process(*host, options, image.bgra, lumo::kPixelFormat32BGRA, image.width, image.height, after.bgra, &error);
  host.reset();
  if (!drawn) return failure(options.input, "the picture could not be processed: " + error);
  if (options.faceSource) std::fprintf(stderr, "lumo-beautify: %s\n", options.faceSource->summary().c_str());

  // Both files are written completely before either replaces anything.
  if (!writeEncoded(result, options.output, after, &error)) return failure(options.output, error);
  if (options.compare) {
    Image both{image.width * 2, image.height, std::vector<uint8_t>(image.bgra.size() * 2)};
    const size_t row = static_cast<size_t>(image.width) * 4;
    for (int y = 0; y < image.height; ++y) {
      const size_t at = row * static_cast<size_t>(y);
      std::memcpy(both.bgra.data() + 2 * at, image.bgra.data() + at, row);
      std::memcpy(both.bgra.data() + 2 * at + row, after.bgra.data() + at, row);
    }
    if (!writeEncoded(side, comparePath, both, &error)) return failure(comparePath, error);
  }
  if (!result.commit(&error)) return failure(options.output, error);
  std::fprintf(stderr, "lumo-beautify: wrote %s (%dx%d)\n", options.output.c_str(), image.width, image.height);
  if (options.compare) {
    if (!side.commit(&error)) return failure(comparePath, error);
    std::fprintf(stderr, "lumo-beautify: wrote %s (before | after)\n", comparePath.c_str());
  }
  return 0;
}

const char* signalName(int sig) {
  switch (sig) {
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "SIGHUP";
    default: return "a signal";
  }
}

int runStream(const Options& options) {
  // SIGINT, SIGTERM and SIGHUP end the stream after the frame in hand: every frame written is complete, and
  // a regular output file keeps them. A read waiting for data returns at once (no SA_RESTART).
  lumo::tools::enableGracefulStop();
  const volatile std::sig_atomic_t* stop = lumo::tools::stopRequested();
  // Opening a FIFO waits for its other end; a stop signal meanwhile is a stop, not an error.
  auto failedToOpen = [&](const std::string& name, const std::string& error) {
    if (*stop == 0) return failure(name, error);
    std::fprintf(stderr, "lumo-beautify: interrupted before the first frame (%s)\n", signalName(*stop));
    return kExitSignalBase + *stop;
  };
  std::string error;
  lumo::tools::FileId inputId;
  const Descriptor in(lumo::tools::openInput(options.input, lumo::tools::InputUse::Stream, &inputId, &error));
  if (in.fd < 0) return failedToOpen(options.input, error);
  OutputFile out;
  if (!out.resolve(options.output, &error)) return failure(options.output, error);
  if (out.overwrites(inputId)) {
    usageError("refusing to overwrite the input '" + options.input + "' with '" + options.output + "'");
  }
  if (!out.open(&error)) return failedToOpen(options.output, error);

  const bool showProgress = options.progress || ::isatty(STDERR_FILENO) != 0;
  const size_t frameBytes = lumo::pixelFormatFrameBytes(options.rawFormat, options.rawWidth, options.rawHeight);
  std::vector<uint8_t> frame(frameBytes), result;
  std::vector<double> millis;
  size_t written = 0;
  std::unique_ptr<lumo::BeautifyHost> host = startHost(options);
  if (!host) return kExitFailure;
  const auto start = std::chrono::steady_clock::now();
  int status = 0;
  auto fail = [&](const std::string& message) {
    std::fprintf(stderr, "lumo-beautify: %s\n", message.c_str());
    return kExitFailure;
  };
  for (;;) {
    if (*stop != 0) break;
    size_t got = 0;
    const lumo::tools::ReadResult read = lumo::tools::readFrame(in.fd, frame.data(), frameBytes, &got, stop);
    if (read == lumo::tools::ReadResult::End || read == lumo::tools::ReadResult::Interrupted) break;
    if (read == lumo::tools::ReadResult::Error) {
      status = fail(options.input + ": " + std::strerror(errno));
      break;
    }
    if (read == lumo::tools::ReadResult::Truncated) {
      status = fail(options.input + ": stream ended inside frame " + std::to_string(millis.size() + 1) + " (" +
                    std::to_string(got) + " of " + std::to_string(frameBytes) + " bytes)");
      break;
    }
    const auto begin = std::chrono::steady_clock::now();
    if (!process(*host, options, frame, options.rawFormat, options.rawWidth, options.rawHeight, result, &error)) {
      status = fail("frame " + std::to_string(millis.size() + 1) + " could not be processed: " + error);
      break;
    }
    millis.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    if (!lumo::tools::writeAll(out.fd(), result.data(), result.size())) {
      if (errno == EPIPE) break;  // the reader went away: stop quietly
      status = fail(options.output + ": " + std::strerror(errno));
      break;
    }
    ++written;
    if (showProgress && millis.size() % 10 == 0) {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::fprintf(stderr, "\rlumo-beautify: %zu frames, %.1f fps", millis.size(), millis.size() / seconds);
    }
  }
  host.reset();
  if (showProgress) std::fputc('\n', stderr);
  const bool failed = status != 0;
  const int stoppedBy = *stop;
  if (stoppedBy != 0 && !failed) {
    std::fprintf(stderr, "lumo-beautify: interrupted after %zu complete frames (%s)\n", millis.size(),
                 signalName(stoppedBy));
    status = kExitSignalBase + stoppedBy;
  }
  if (failed || (stoppedBy != 0 && millis.empty())) {
    out.discard();  // a failed stream, or one stopped before its first frame: the old file stays as it was
  } else if (!out.commit(&error)) {
    status = failure(options.output, error);
  }
  if (failed) {
    // Timings would read as a success; what the reader already has is worth saying.
    if (out.writesInPlace()) {
      std::fprintf(stderr, "lumo-beautify: %zu complete frame%s written before the error\n", written,
                   written == 1 ? "" : "s");
    }
    return status;
  }
  std::vector<double> sorted = millis;
  std::sort(sorted.begin(), sorted.end());
  double mean = 0;
  for (double m : millis) mean += m;
  mean = millis.empty() ? 0 : mean / static_cast<double>(millis.size());
  const double p95 = sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, sorted.size() * 95 / 100)];
  std::fprintf(stderr, "lumo-beautify: %zu frame%s, mean %.2f ms, p95 %.2f ms per frame\n", millis.size(),
               millis.size() == 1 ? "" : "s", mean, p95);
  if (options.faceSource) std::fprintf(stderr, "lumo-beautify: %s\n", options.faceSource->summary().c_str());
  return status;
}

// Whether a regular file's first bytes are a video container's.
bool contentIsVideo(const std::string& path) {
  const Descriptor in(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (in.fd < 0 || ::fstat(in.fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  uint8_t head[256];
  const ssize_t got = ::pread(in.fd, head, sizeof head, 0);
  return got > 0 && lumo::tools::looksLikeVideo(head, static_cast<size_t>(got));
}

// Whether the run is a video's: OUT names a container the tool writes, IN's name is a video's, or IN is a
// regular file (not named as a photo) whose first bytes are a video container's.
bool isVideoRun(const Options& options) {
  if (options.rawWidth > 0 || options.input.empty() || options.input == "-") return false;
  if (lumo::tools::containerForPath(options.output) != lumo::tools::Container::Unknown) return true;
  if (lumo::tools::isVideoPath(options.input)) return true;
  if (lumo::tools::formatForPath(options.input) != lumo::tools::ImageFormat::Unknown) return false;
  return contentIsVideo(options.input);
}

std::string clockText(double seconds) {
  const long whole = std::lround(std::max(0.0, seconds));
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

// One progress line, redrawn in place: percent, frames, frames per second and time left.
void showVideoProgress(const lumo::tools::VideoProgress& p) {
  const double fps = p.wallSeconds > 0 ? static_cast<double>(p.frames) / p.wallSeconds : 0;
  if (p.duration > 0 && p.position > 0) {
    const double left = (p.duration - p.position) * p.wallSeconds / p.position;
    std::fprintf(stderr, "\rlumo-beautify: %3.0f%%  %llu frames  %.1f fps  %s left   ",
                 std::min(100.0, 100 * p.position / p.duration), static_cast<unsigned long long>(p.frames), fps,
                 clockText(left).c_str());
  } else {
    std::fprintf(stderr, "\rlumo-beautify: %llu frames  %.1f fps   ", static_cast<unsigned long long>(p.frames), fps);
  }
}

int runVideo(Options options) {
  using lumo::tools::Container;
  using lumo::tools::VideoResult;
  if (options.output.empty()) {
    const bool written = lumo::tools::containerForPath(options.input) != Container::Unknown;
    options.output = withSuffix(options.input, "-beautified", written ? extensionOf(options.input) : ".mp4");
  }
  lumo::tools::VideoSettings video;
  video.container = lumo::tools::containerForPath(options.output);
  if (video.container == Container::Unknown) {
    usageError("'" + options.input + "' is a video: name the output .mp4, .m4v, .mov, .mkv or .webm, not '" +
               options.output + "'");
  }
  if (options.compare) usageError("--compare makes a side-by-side photo; it does not apply to a video");
  video.codec = options.videoCodec;
  video.chroma = options.chroma;
  const lumo::tools::VideoCodec codec =
      video.codec == lumo::tools::VideoCodec::Default ? lumo::tools::defaultCodec(video.container) : video.codec;
  if (!lumo::tools::containerTakes(video.container, codec)) {
    usageError("'" + options.output + "' cannot hold " + lumo::tools::videoCodecName(codec) +
               " video (.webm takes vp9, .mp4 and .mov h264 or h265, .mkv all)");
  }
  if (options.crf > lumo::tools::maxCrf(codec)) {
    usageError("option --crf wants a whole number in " + rangeText(0, lumo::tools::maxCrf(codec)) + " for " +
               lumo::tools::videoCodecName(codec) + ", got " + std::to_string(options.crf));
  }
  if (options.crf >= 0 && options.bitrateKbps > 0) usageError("--crf and --bitrate exclude each other: give one");
  video.crf = options.crf;
  video.bitrateKbps = options.bitrateKbps;
  video.beautify = options.beautify;
  video.engine = options.engine;
  video.faces = options.faces;
  video.faceCascade = options.faceCascade;

  std::string error;
  lumo::tools::FileId inputId;
  const Descriptor in(lumo::tools::openInput(options.input, lumo::tools::InputUse::Video, &inputId, &error));
  if (in.fd < 0) return failure(options.input, error);
  uint8_t head[8] = {};
  if (::pread(in.fd, head, sizeof head, 0) == static_cast<ssize_t>(sizeof head)) {
    const lumo::tools::ImageFormat photo = lumo::tools::formatOfBytes(head, sizeof head);
    if (photo != lumo::tools::ImageFormat::Unknown) {
      return failure(options.input, std::string("is a ") + (photo == lumo::tools::ImageFormat::Png ? "PNG" : "JPEG") +
                                        " photo, not a video: name the output .png or .jpg to beautify it");
    }
  }
  OutputFile out;
  if (!out.resolve(options.output, &error)) return failure(options.output, error);
  if (out.overwrites(inputId)) {
    usageError("refusing to overwrite the input '" + options.input + "' with '" + options.output + "'");
  }
  if (!out.open(&error)) return failure(options.output, error);
  if (::lseek(out.fd(), 0, SEEK_CUR) < 0) {
    return failure(options.output, "cannot be written: a video needs a file, not a pipe or terminal");
  }

  // SIGINT, SIGTERM and SIGHUP end the input where it is; the file is finished with the frames so far.
  lumo::tools::enableGracefulStop();
  const volatile std::sig_atomic_t* stop = lumo::tools::stopRequested();
  const bool showProgress = options.progress || ::isatty(STDERR_FILENO) != 0;
  bool shown = false;
  // The GStreamer element reads the descriptor checked above, not whatever the name leads to by now.
  const VideoResult result = lumo::tools::transcodeVideo(
      "/proc/self/fd/" + std::to_string(in.fd), out.fd(), video, stop, [&](const lumo::tools::VideoProgress& p) {
        if (!showProgress) return;
        showVideoProgress(p);
        shown = true;
      });
  if (shown) std::fputc('\n', stderr);
  const std::string length = clockText(result.mediaSeconds);
  char wall[32];
  std::snprintf(wall, sizeof wall, "%.1f s", result.wallSeconds);
  const std::string speed = std::to_string(result.frames) + " frames (" + length + ") in " + wall;
  if (result.outcome == VideoResult::Outcome::Failed) {
    out.discard();
    return failure(result.outputFault ? options.output : options.input, result.error);
  }
  const int stoppedBy = *stop;
  if (result.outcome == VideoResult::Outcome::Stopped && result.frames == 0) {
    out.discard();
    std::fprintf(stderr, "lumo-beautify: interrupted before the first frame (%s); nothing written\n",
                 signalName(stoppedBy));
    return kExitSignalBase + stoppedBy;
  }
  if (!out.commit(&error)) return failure(options.output, error);
  for (const std::string& note : result.notes) {
    std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.input.c_str(), note.c_str());
  }
  const double fps = result.wallSeconds > 0 ? static_cast<double>(result.frames) / result.wallSeconds : 0;
  const double realTime = result.wallSeconds > 0 ? result.mediaSeconds / result.wallSeconds : 0;
  if (result.outcome == VideoResult::Outcome::Stopped) {
    std::fprintf(stderr, "lumo-beautify: interrupted (%s): wrote %s with the first %s\n", signalName(stoppedBy),
                 options.output.c_str(), speed.c_str());
    return kExitSignalBase + stoppedBy;
  }
  std::fprintf(stderr, "lumo-beautify: wrote %s: %s, %.1f fps, %.2fx real time\n", options.output.c_str(),
               speed.c_str(), fps, realTime);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Before anything is opened: no file may become stdout or stderr, and no temporary may exist unguarded.
  lumo::tools::ensureStandardDescriptors();
  lumo::tools::installSignalHandlers();
  // The tool checks every setting before the library sees it, so the library's one log line (a preset index
  // out of range) can only be the notice each new preset filter writes as it is made: not for the user.
  lumo::setLogHandler([](const char*) {});
  try {
    const Options options = parse(argc, argv);
    if (options.input == "-" && options.rawWidth == 0 &&
        lumo::tools::containerForPath(options.output) != lumo::tools::Container::Unknown) {
      usageError("a video is read from a file, not from standard input: give its file name, or --raw for raw "
                 "frames through a pipe");
    }
    if (isVideoRun(options)) return runVideo(options);
    if (!options.videoOption.empty()) {
      usageError(options.videoOption + " applies to video files, and '" +
                 (options.input.empty() ? std::string("the sample") : options.input) + "' is not one");
    }
    if (options.rawWidth == 0 && !options.input.empty() && options.input != "-" && contentIsVideo(options.input)) {
      // Named as a photo, so its default output would be too: the user says what the video becomes.
      std::fprintf(stderr, "lumo-beautify: %s: is a video, not a photo: give -o NAME.mp4 (or .mkv, .webm) to "
                   "beautify it\n", options.input.c_str());
      return kExitFailure;
    }
    return options.rawWidth > 0 ? runStream(options) : runPhoto(options);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "lumo-beautify: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumo-beautify: %s\n", e.what());
  }
  return kExitFailure;  // the outputs' destructors have removed their temporaries
}
