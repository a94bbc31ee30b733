// lumo-beautify: beautify a photo, or a live raw BGRA stream piped from and to FFmpeg or GStreamer.
#include <lumo/lumo.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <climits>
#include <fcntl.h>
#include <unistd.h>

#include "Engine.h"
#include "ImageIO.h"
#include "RawStream.h"
#include "Settings.h"

namespace {

using lumo::tools::Image;
namespace settings = lumo::settings;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;  // 128 + SIGINT, as shells report it
constexpr int kMaxRawSide = 16384;

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) { interrupted = 1; }

struct Options {
  std::string input;
  std::string output;
  bool compare = false;
  bool progress = false;
  int rawWidth = 0;
  int rawHeight = 0;
  long mask = settings::kDefaultMask;
  long preset = 0;
  float polishStep = settings::kPolishStep.fallback;
  float polishFactor = settings::kPolishFactor.fallback;
  float whiten = settings::kWhiten.fallback;
  float sharpen = settings::kSharpen.fallback;
  float skinWhiten = settings::kSkinWhiten.fallback;
  lumo::tools::EngineKind engine = lumo::tools::EngineKind::Auto;
};

void printHelp() {
  std::printf(
      "Usage: lumo-beautify [OPTIONS] [IN] [-o OUT]\n"
      "       lumo-beautify --raw WIDTHxHEIGHT [OPTIONS] IN|- -o OUT|-\n"
      "\n"
      "Beautifies a portrait photo (PNG or JPEG, the format follows the file name), or a stream of packed\n"
      "BGRA frames. With no IN, beautifies the bundled sample portrait into the current folder.\n"
      "\n"
      "  -o, --output FILE       where to write (default: IN's name with -beautified)\n"
      "      --compare           also write a side-by-side before/after image (FILE-compare)\n"
      "      --raw WxH           stream mode: raw BGRA frames of W x H from IN (- for stdin) to OUT (- for\n"
      "                          stdout), one frame at a time\n"
      "      --progress          show frames and fps on stderr (default: when stderr is a terminal)\n"
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

// Plain decimal notation (1, -0.5, 2.5e-1): no spaces, hexadecimal, inf or nan.
float parseFloat(const std::string& option, const char* text, float low, float high) {
  auto digits = [](const char*& c) {
    const char* start = c;
    while (*c >= '0' && *c <= '9') ++c;
    return c - start;
  };
  const char* c = text;
  if (*c == '+' || *c == '-') ++c;
  auto mantissa = digits(c);
  if (*c == '.') mantissa += digits(++c);
  bool valid = mantissa > 0;
  if (valid && (*c == 'e' || *c == 'E')) {
    ++c;
    if (*c == '+' || *c == '-') ++c;
    valid = digits(c) > 0;
  }
  valid = valid && *c == '\0';
  const double value = valid ? std::strtod(text, nullptr) : 0.0;
  if (!valid || !(value >= low && value <= high)) {
    usageError("option " + option + " wants a number in " + rangeText(low, high) + ", got '" + text + "'");
  }
  return static_cast<float>(value);
}

float parseRange(const std::string& option, const char* text, const settings::Range& range) {
  return parseFloat(option, text, range.low, range.high);
}

long parseMask(const char* text) {
  if ((*text >= '0' && *text <= '9') || *text == '-' || *text == '+') {
    long number = 0;
    if (!parseWhole(text, 0, settings::kAllPasses, &number)) {
      usageError("option --mask wants a whole number in " + rangeText(0, settings::kAllPasses) +
                 " or pass names, got '" + text + "'");
    }
    return number;
  }
  long mask = 0;
  std::string list = text;
  size_t start = 0;
  while (start <= list.size()) {
    const size_t comma = std::min(list.find(',', start), list.size());
    const std::string name = list.substr(start, comma - start);
    if (name == "polish") mask |= lumo::BeautifyPolish;
    else if (name == "whiten") mask |= lumo::BeautifyWhiten;
    else if (name == "skin-whiten") mask |= lumo::BeautifySkinWhiten;
    else if (name == "sharpen") mask |= lumo::BeautifySharpen;
    else if (name != "none") usageError("option --mask: unknown pass '" + name + "'");
    start = comma + 1;
  }
  return mask;
}

// WIDTHxHEIGHT, each a whole number in 1..16384.
void parseRawSize(const char* text, int* width, int* height) {
  const std::string size = text;
  const size_t x = size.find('x');
  long w = 0, h = 0;
  if (x == std::string::npos || !parseWhole(size.substr(0, x).c_str(), 1, kMaxRawSide, &w) ||
      !parseWhole(size.substr(x + 1).c_str(), 1, kMaxRawSide, &h)) {
    usageError("option --raw wants WIDTHxHEIGHT, each a whole number in " + rangeText(1, kMaxRawSide) +
               ", got '" + size + "'");
  }
  *width = static_cast<int>(w);
  *height = static_cast<int>(h);
}

Options parse(int argc, char** argv) {
  Options options;
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
    } else if (arg == "--compare") {
      options.compare = true;
    } else if (arg == "--progress") {
      options.progress = true;
    } else if (arg == "--raw") {
      parseRawSize(value(), &options.rawWidth, &options.rawHeight);
    } else if (arg == "--engine") {
      const char* name = value();
      if (!lumo::tools::parseEngine(name, &options.engine)) {
        usageError(std::string("option --engine wants auto, gl or cpu, got '") + name + "'");
      }
    } else if (arg == "--mask") {
      options.mask = parseMask(value());
    } else if (arg == "--preset") {
      options.preset = parseWholeOption(arg, value(), 0, settings::kMaxPreset);
    } else if (arg == "--polish-step") {
      options.polishStep = parseRange(arg, value(), settings::kPolishStep);
    } else if (arg == "--polish-factor") {
      options.polishFactor = parseRange(arg, value(), settings::kPolishFactor);
    } else if (arg == "--whiten") {
      options.whiten = parseRange(arg, value(), settings::kWhiten);
    } else if (arg == "--sharpen") {
      options.sharpen = parseRange(arg, value(), settings::kSharpen);
    } else if (arg == "--skin-whiten") {
      options.skinWhiten = parseRange(arg, value(), settings::kSkinWhiten);
    } else if (arg.size() > 1 && arg[0] == '-') {
      usageError("unknown option '" + arg + "'");
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() > 1) usageError("one input at a time");
  if (!positional.empty()) options.input = positional[0];
  if (options.rawWidth > 0 && (options.input.empty() || options.output.empty())) {
    usageError("--raw needs an input (- for stdin) and -o OUT (- for stdout)");
  }
  return options;
}

// The engine the options ask for, said on stderr so that a user knows which one ran.
lumo::tools::Engine makeEngine(const Options& options) {
  std::string why;
  const lumo::tools::EngineKind kind = lumo::tools::resolveEngine(options.engine, &why);
  if (kind == lumo::tools::EngineKind::Cpu) {
    std::fprintf(stderr, "lumo-beautify: engine cpu (%s; %s)\n", lumo::CpuImageFilter::simdTarget(), why.c_str());
  } else {
    std::fprintf(stderr, "lumo-beautify: engine gl (%s)\n", why.c_str());
  }
  return lumo::tools::Engine(kind);
}

void configure(lumo::tools::Engine& filter, const Options& options) {
  filter.enableBeautifying(static_cast<uintptr_t>(options.mask));
  filter.setCustomizedFilter(static_cast<uintptr_t>(options.preset));
  filter.setPolishStep(options.polishStep);
  filter.setPolishFactor(options.polishFactor);
  filter.setWhitenFactor(options.whiten);
  filter.setSharppenFactor(options.sharpen);
  filter.setSkinWhitenFactor(options.skinWhiten);
}

// Copies a frame's result (the input itself when no pass ran) into packed BGRA.
void copyOut(const lumo::PixelBufferRef& result, uint8_t* packed) {
  result->lockBaseAddress(lumo::kPixelBufferLockReadOnly);
  const auto* bytes = static_cast<const uint8_t*>(result->baseAddress());
  const size_t row = static_cast<size_t>(result->width()) * 4;
  for (int32_t y = 0; y < result->height(); ++y) {
    std::memcpy(packed + row * static_cast<size_t>(y), bytes + result->bytesPerRow() * static_cast<size_t>(y), row);
  }
  result->unlockBaseAddress(lumo::kPixelBufferLockReadOnly);
}

bool process(lumo::tools::Engine& filter, std::vector<uint8_t>& frame, int width, int height,
             std::vector<uint8_t>& out) {
  lumo::PixelBufferRef input;
  if (lumo::PixelBuffer::createWithBytes(width, height, lumo::kPixelFormat32BGRA, frame.data(),
                                         static_cast<size_t>(width) * 4, nullptr, {}, &input) != 0) {
    return false;
  }
  const lumo::PixelBufferRef result = filter.render(input);
  if (!result) return false;
  out.resize(frame.size());
  copyOut(result, out.data());
  return true;
}

std::string withSuffix(const std::string& path, const std::string& suffix, const std::string& extension) {
  const size_t slash = path.find_last_of('/');
  const size_t dot = path.find_last_of('.');
  const std::string stem = dot != std::string::npos && (slash == std::string::npos || dot > slash)
                               ? path.substr(0, dot)
                               : path;
  return stem + suffix + extension;
}

std::string extensionOf(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  return dot == std::string::npos ? ".png" : path.substr(dot);
}

std::string bundledSample() {
  for (const char* candidate : {LUMO_INSTALLED_SAMPLE, LUMO_SOURCE_SAMPLE}) {
    if (::access(candidate, R_OK) == 0) return candidate;
  }
  return LUMO_SOURCE_SAMPLE;
}

int runPhoto(Options options) {
  const bool sampleRun = options.input.empty();
  if (sampleRun) {
    options.input = bundledSample();
    if (options.output.empty()) options.output = "astronaut-beautified.png";
    options.compare = true;
  }
  if (options.output.empty()) options.output = withSuffix(options.input, "-beautified", extensionOf(options.input));
  if (lumo::tools::formatForPath(options.output) == lumo::tools::ImageFormat::Unknown) {
    usageError("unsupported output format '" + options.output + "' (use .png, .jpg or .jpeg)");
  }
  char inputReal[PATH_MAX], outputReal[PATH_MAX];
  if (::realpath(options.input.c_str(), inputReal) != nullptr &&
      ::realpath(options.output.c_str(), outputReal) != nullptr && std::strcmp(inputReal, outputReal) == 0) {
    usageError("refusing to overwrite the input '" + options.input + "'");
  }
  Image image;
  std::string error;
  if (!lumo::tools::readImage(options.input, &image, &error)) {
    std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.input.c_str(), error.c_str());
    return kExitFailure;
  }
  lumo::tools::Engine filter = makeEngine(options);
  configure(filter, options);
  filter.create();
  Image result{image.width, image.height, {}};
  const bool ok = process(filter, image.bgra, image.width, image.height, result.bgra);
  filter.destroy();
  if (!ok) {
    std::fprintf(stderr, "lumo-beautify: %s: the frame could not be processed (no GL context?)\n",
                 options.input.c_str());
    return kExitFailure;
  }
  if (!lumo::tools::writeImage(options.output, result, &error)) {
    std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.output.c_str(), error.c_str());
    return kExitFailure;
  }
  std::fprintf(stderr, "lumo-beautify: wrote %s (%dx%d)\n", options.output.c_str(), image.width, image.height);
  if (options.compare) {
    Image side{image.width * 2, image.height, std::vector<uint8_t>(image.bgra.size() * 2)};
    const size_t row = static_cast<size_t>(image.width) * 4;
    for (int y = 0; y < image.height; ++y) {
      std::memcpy(&side.bgra[2 * row * y], &image.bgra[row * y], row);
      std::memcpy(&side.bgra[2 * row * y + row], &result.bgra[row * y], row);
    }
    const std::string comparePath = withSuffix(options.output, "-compare", extensionOf(options.output));
    if (!lumo::tools::writeImage(comparePath, side, &error)) {
      std::fprintf(stderr, "lumo-beautify: %s: %s\n", comparePath.c_str(), error.c_str());
      return kExitFailure;
    }
    std::fprintf(stderr, "lumo-beautify: wrote %s (before | after)\n", comparePath.c_str());
  }
  return 0;
}

int runStream(const Options& options) {
  const int in = options.input == "-" ? STDIN_FILENO : ::open(options.input.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.input.c_str(), std::strerror(errno));
    return kExitFailure;
  }
  std::string temporary;
  int out = STDOUT_FILENO;
  if (options.output != "-" && lumo::tools::isSpecialFile(options.output)) {
    out = ::open(options.output.c_str(), O_WRONLY | O_CLOEXEC);  // a device or FIFO: written in place
    if (out < 0) {
      std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.output.c_str(), std::strerror(errno));
      return kExitFailure;
    }
  } else if (options.output != "-") {
    temporary = options.output + ".tmp-" + std::to_string(::getpid());
    out = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
      std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.output.c_str(), std::strerror(errno));
      return kExitFailure;
    }
  }
  auto fail = [&](const std::string& message) {
    if (!message.empty()) std::fprintf(stderr, "lumo-beautify: %s\n", message.c_str());
    if (!temporary.empty()) {
      ::close(out);
      ::unlink(temporary.c_str());
    }
    return kExitFailure;
  };
  const bool showProgress = options.progress || ::isatty(STDERR_FILENO) != 0;
  const size_t frameBytes = static_cast<size_t>(options.rawWidth) * static_cast<size_t>(options.rawHeight) * 4;
  std::vector<uint8_t> frame(frameBytes), result;
  std::vector<double> millis;
  lumo::tools::Engine filter = makeEngine(options);
  configure(filter, options);
  filter.create();
  const auto start = std::chrono::steady_clock::now();
  int status = 0;
  // Ctrl-C ends the stream after the frame in hand: every frame written is complete, and a regular output
  // file keeps them. No SA_RESTART, so a read waiting for data returns at once.
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  for (;;) {
    if (interrupted != 0) break;
    size_t got = 0;
    const lumo::tools::ReadResult read = lumo::tools::readFrame(in, frame.data(), frameBytes, &got, &interrupted);
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
    if (!process(filter, frame, options.rawWidth, options.rawHeight, result)) {
      status = fail("frame " + std::to_string(millis.size() + 1) + " could not be processed");
      break;
    }
    millis.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    if (!lumo::tools::writeAll(out, result.data(), result.size())) {
      if (errno == EPIPE) break;  // the reader went away: stop quietly
      status = fail(options.output + ": " + std::strerror(errno));
      break;
    }
    if (showProgress && millis.size() % 10 == 0) {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::fprintf(stderr, "\rlumo-beautify: %zu frames, %.1f fps", millis.size(), millis.size() / seconds);
    }
  }
  filter.destroy();
  if (showProgress) std::fputc('\n', stderr);
  if (interrupted != 0 && status == 0) {
    std::fprintf(stderr, "lumo-beautify: interrupted after %zu complete frames\n", millis.size());
    status = kExitInterrupted;
  }
  if (!temporary.empty() && (status == 0 || status == kExitInterrupted)) {
    if (::fsync(out) != 0 || ::close(out) != 0 || ::rename(temporary.c_str(), options.output.c_str()) != 0) {
      std::fprintf(stderr, "lumo-beautify: %s: %s\n", options.output.c_str(), std::strerror(errno));
      ::unlink(temporary.c_str());
      status = kExitFailure;
    }
  }
  std::vector<double> sorted = millis;
  std::sort(sorted.begin(), sorted.end());
  double mean = 0;
  for (double m : millis) mean += m;
  mean = millis.empty() ? 0 : mean / static_cast<double>(millis.size());
  const double p95 = sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, sorted.size() * 95 / 100)];
  std::fprintf(stderr, "lumo-beautify: %zu frames, mean %.2f ms, p95 %.2f ms per frame\n", millis.size(), mean, p95);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a closed output pipe shows up as EPIPE and ends the stream quietly
  const Options options = parse(argc, argv);
  return options.rawWidth > 0 ? runStream(options) : runPhoto(options);
}
