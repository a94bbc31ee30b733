// lumo._lumo: numpy frames through a beautify engine. Arrays are checked here, under the GIL; the frame
// itself is processed with the GIL released.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <climits>

#include <lumo/BeautifyEngine.h>
#include <lumo/BeautifySettings.h>
#include <lumo/Log.h>
#include <lumo/FrameLimits.h>
#include <lumo/PixelBuffer.h>
#include <lumo/SettingsText.h>

#include "Beautifier.h"
#include "FrameFormat.h"

namespace py = pybind11;

namespace lumo::python {
namespace {

using Settings = BeautifySettings;

[[noreturn]] void valueError(const std::string& message) { throw py::value_error(message); }

std::string shapeOf(const py::array& array) {
  std::string shape = "(";
  for (py::ssize_t i = 0; i < array.ndim(); ++i) {
    shape += (i > 0 ? ", " : "") + std::to_string(array.shape(i));
  }
  return shape + (array.ndim() == 1 ? ",)" : ")");
}

// Settings come as text (read by the library's parsers, as the tool reads its options) or as numbers,
// NumPy's scalars included; a bool is neither.
bool isText(const py::handle& value) { return py::isinstance<py::str>(value); }

// A whole number from anything with __index__ (values beyond 64 bits saturate, out of every range); false
// when it is no whole number at all.
bool wholeNumber(const py::handle& value, long long* number) {
  if (py::isinstance<py::bool_>(value) || PyIndex_Check(value.ptr()) == 0) return false;
  const auto index = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
  if (!index) throw py::error_already_set();
  int overflow = 0;
  const long long n = PyLong_AsLongLongAndOverflow(index.ptr(), &overflow);
  *number = overflow > 0 ? LLONG_MAX : (overflow < 0 ? LLONG_MIN : n);
  return true;
}

// The library's message for a value of the wrong kind, with the value as Python shows it.
[[noreturn]] void wrongKind(const std::string& message, const py::handle& value) {
  valueError(message.substr(0, message.rfind(", got ")) + ", got " + py::repr(value).cast<std::string>());
}

using WholeText = bool (*)(const std::string&, const std::string&, int32_t*, std::string*);
using WholeCheck = bool (*)(long long, const std::string&, int32_t*, std::string*);

int32_t parseWholeSetting(const char* name, const py::handle& value, WholeText parseText, WholeCheck check) {
  int32_t result = 0;
  std::string error;
  long long number = 0;
  if (isText(value)) {
    if (!parseText(value.cast<std::string>(), name, &result, &error)) valueError(error);
  } else if (wholeNumber(value, &number)) {
    if (!check(number, name, &result, &error)) valueError(error);
  } else {
    parseText("?", name, &result, &error);
    wrongKind(error, value);
  }
  return result;
}

int32_t parseMask(const py::handle& value) { return parseWholeSetting("mask", value, parseMaskText, checkMaskValue); }

int32_t parsePreset(const py::handle& value) {
  return parseWholeSetting("preset", value, parsePresetText, checkPresetValue);
}

float parseFloat(FloatSetting which, const py::handle& value) {
  std::string name = floatSettingInfo(which).name;
  for (char& c : name) c = c == '-' ? '_' : c;
  float result = 0.0f;
  std::string error;
  if (isText(value)) {
    if (!parseFloatText(which, value.cast<std::string>(), name, &result, &error)) valueError(error);
    return result;
  }
  const auto number = py::reinterpret_steal<py::object>(
      py::isinstance<py::bool_>(value) ? nullptr : PyNumber_Float(value.ptr()));
  if (!number) {
    PyErr_Clear();
    parseFloatText(which, "?", name, &result, &error);
    wrongKind(error, value);
  }
  if (!checkFloatValue(which, PyFloat_AsDouble(number.ptr()), name, &result, &error)) valueError(error);
  return result;
}

// The seven settings by their Python names.
Settings parseSettings(const py::handle& mask, const py::handle& preset, const py::handle& polishStep,
                       const py::handle& polishFactor, const py::handle& whiten, const py::handle& sharpen,
                       const py::handle& skinWhiten) {
  Settings settings;
  settings.mask = parseMask(mask);
  settings.preset = parsePreset(preset);
  settings.polishStep = parseFloat(FloatSetting::PolishStep, polishStep);
  settings.polishFactor = parseFloat(FloatSetting::PolishFactor, polishFactor);
  settings.whiten = parseFloat(FloatSetting::Whiten, whiten);
  settings.sharpen = parseFloat(FloatSetting::Sharpen, sharpen);
  settings.skinWhiten = parseFloat(FloatSetting::SkinWhiten, skinWhiten);
  return settings;
}

py::dict settingsDict(const Settings& settings) {
  py::dict dict;
  dict["mask"] = settings.mask;
  dict["preset"] = settings.preset;
  dict["polish_step"] = settings.polishStep;
  dict["polish_factor"] = settings.polishFactor;
  dict["whiten"] = settings.whiten;
  dict["sharpen"] = settings.sharpen;
  dict["skin_whiten"] = settings.skinWhiten;
  return dict;
}

const FrameFormat& formatFor(const py::array& frame, const py::object& name) {
  const FrameFormat* format = nullptr;
  if (!name.is_none()) {
    format = py::isinstance<py::str>(name) ? findFrameFormat(name.cast<std::string>()) : nullptr;
    if (format == nullptr) {
      valueError("format wants one of " + frameFormatNames() + ", got " + py::repr(name).cast<std::string>());
    }
  }
  if (format != nullptr && format->planar()) {
    // OpenCV's layout: the luma rows, then the chroma planes as further rows of the same width: H * 3 / 2
    // rows for 4:2:0 (a multiple of 3 whenever H is even: H = 6 gives 9), 2 * H for 4:2:2.
    if (frame.ndim() != 2 || frame.shape(0) % format->rows != 0 || frame.shape(1) % 2 != 0) {
      valueError(std::string("frame wants shape (") + (format->rows == 3 ? "H * 3 / 2" : "2 * H") +
                 ", W) with W and H even for format " + format->name + ", got " + shapeOf(frame));
    }
    return *format;
  }
  if (format != nullptr && format->channels == 2 && frame.ndim() == 3 && frame.shape(1) % 2 != 0) {
    valueError(std::string("frame wants an even width for format ") + format->name +
               " (two pixels share each pair of chroma samples), got " + shapeOf(frame));
  }
  if (frame.ndim() != 3 || (format != nullptr && frame.shape(2) != format->channels) ||
      (format == nullptr && (format = defaultFrameFormat(static_cast<int32_t>(frame.shape(2)))) == nullptr)) {
    valueError("frame wants shape H x W x 3 (bgr, rgb), H x W x 4 (bgra) or H x W x 2 (yuy2, uyvy), or a planar "
               "(H * 3 / 2) x W (nv12, i420) or (2 * H) x W (i422) with its format" +
               std::string(name.is_none() ? "" : " matching format " + name.cast<std::string>()) + ", got " +
               shapeOf(frame));
  }
  return *format;
}

// The array's memory as a frame of `format`: uint8; packed pixels within each row, rows any distance apart;
// planar frames wholly contiguous, their view being the luma plane.
FrameView viewOf(const char* what, const py::array& array, const FrameFormat& format) {
  if (!array.dtype().is(py::dtype::of<uint8_t>())) {
    valueError(std::string(what) + " wants dtype uint8, got " + py::str(array.dtype()).cast<std::string>());
  }
  const bool planar = format.planar();
  const py::ssize_t height = planar ? array.shape(0) * 2 / format.rows : array.shape(0), width = array.shape(1);
  if (height == 0 || width == 0) valueError(std::string(what) + " is empty: shape " + shapeOf(array));
  if (const std::string problem = frameSizeProblem(width, height); !problem.empty()) {
    valueError(std::string(what) + ": " + problem);
  }
  const py::ssize_t rowBytes = width * format.channels;
  if (planar ? (array.strides(1) != 1 || array.strides(0) != width)
             : (array.strides(2) != 1 || array.strides(1) != format.channels || array.strides(0) < rowBytes)) {
    std::string strides;
    for (py::ssize_t i = 0; i < array.ndim(); ++i) strides += (i > 0 ? ", " : "") + std::to_string(array.strides(i));
    valueError(std::string(what) +
               (planar ? " wants a C-contiguous array" : " wants C-contiguous pixels in each row (rows may be padded)") +
               ", got strides (" + strides + "); np.ascontiguousarray makes such a copy");
  }
  return {static_cast<uint8_t*>(const_cast<void*>(array.data())), static_cast<int32_t>(width),
          static_cast<int32_t>(height), static_cast<size_t>(array.strides(0))};
}

bool overlaps(const py::array& a, const py::array& b) {
  const auto begin = [](const py::array& v) { return static_cast<const uint8_t*>(v.data()); };
  const auto end = [&](const py::array& v) {
    const uint8_t* last = begin(v);
    for (py::ssize_t i = 0; i < v.ndim(); ++i) last += (v.shape(i) - 1) * v.strides(i);
    return last + 1;
  };
  return begin(a) < end(b) && begin(b) < end(a);
}

YuvColorimetry colorimetryOf(const py::object& matrix, const py::object& range) {
  YuvColorimetry colorimetry;
  auto text = [](const py::object& value) { return py::isinstance<py::str>(value) ? value.cast<std::string>() : ""; };
  if (!matrix.is_none() && !parseYuvMatrix(text(matrix), &colorimetry.matrix)) {
    valueError("matrix wants 'bt601' or 'bt709', got " + py::repr(matrix).cast<std::string>());
  }
  if (!range.is_none() && !parseYuvRange(text(range), &colorimetry.range)) {
    valueError("range wants 'limited' or 'full', got " + py::repr(range).cast<std::string>());
  }
  return colorimetry;
}

py::array process(Beautifier& beautifier, const py::array& frame, const py::object& outArg, const py::object& name,
                  const py::object& matrix, const py::object& range) {
  const FrameFormat& format = formatFor(frame, name);
  const FrameView in = viewOf("frame", frame, format);
  if (!pixelFormatIsYuv(format.pixelFormat) && (!matrix.is_none() || !range.is_none())) {
    valueError(std::string("matrix and range are for YUV frames (nv12, i420, i422, yuy2, uyvy), not ") + format.name);
  }
  const YuvColorimetry colorimetry = colorimetryOf(matrix, range);
  std::vector<py::ssize_t> shape(frame.shape(), frame.shape() + frame.ndim());
  py::array out;
  if (outArg.is_none()) {
    out = py::array_t<uint8_t>(shape);
  } else {
    if (!py::isinstance<py::array>(outArg)) {
      throw py::type_error("out wants a numpy array, got " + py::repr(outArg.get_type()).cast<std::string>());
    }
    out = outArg.cast<py::array>();
    if (out.ndim() != frame.ndim() || !std::equal(shape.begin(), shape.end(), out.shape())) {
      valueError("out wants the frame's shape " + shapeOf(frame) + ", got " + shapeOf(out));
    }
    if (!out.writeable()) valueError("out is read-only");
  }
  const FrameView to = viewOf("out", out, format);
  if (overlaps(frame, out) && !(in.data == to.data && in.stride == to.stride)) {
    valueError("out overlaps frame without being the same memory");
  }
  std::string notice;
  {
    py::gil_scoped_release released;
    notice = beautifier.process(format, in, to, colorimetry);
  }
  if (!notice.empty() && PyErr_WarnEx(PyExc_RuntimeWarning, notice.c_str(), 1) != 0) throw py::error_already_set();
  return out;
}


// faces=: False (everywhere), True or 'video' (a video's frames, faces carried between detections), or
// 'photos' (each picture's own faces).
FacesMode parseFaces(const py::object& value) {
  if (py::isinstance<py::bool_>(value)) return value.cast<bool>() ? FacesMode::Video : FacesMode::Off;
  // NumPy's bool (a mask's element, a comparison's result) is a bool too; its arrays are not.
  if (py::hasattr(value, "dtype") && py::hasattr(value, "ndim") && value.attr("ndim").cast<int>() == 0 &&
      value.attr("dtype").attr("kind").cast<std::string>() == "b") {
    return py::bool_(value) ? FacesMode::Video : FacesMode::Off;
  }
  if (py::isinstance<py::str>(value)) {
    const std::string name = value.cast<std::string>();
    if (name == "video") return FacesMode::Video;
    if (name == "photos") return FacesMode::Photos;
  }
  valueError("faces wants False, True, 'video' or 'photos', got " + py::repr(value).cast<std::string>());
  return FacesMode::Off;
}

py::object facesValue(FacesMode mode) {
  if (mode == FacesMode::Off) return py::bool_(false);
  return py::str(mode == FacesMode::Video ? "video" : "photos");
}

}  // namespace
}  // namespace lumo::python

PYBIND11_MODULE(_lumo, module) {
  using lumo::python::Beautifier;
  using lumo::python::Settings;
  namespace lp = lumo::python;
  module.doc() = "Beautify numpy frames (BGR or BGRA, uint8) with the LumoImageFilter engines.";
  module.attr("__version__") = LUMO_VERSION;
  // Settings are checked here before the library sees them, so its one log line (a preset index out of range)
  // can only be the notice each new preset filter writes as it is made: not for a Python program's stderr.
  lumo::setLogHandler([](const char*) {});

  py::dict ranges;
  ranges["polish_step"] = py::make_tuple(Settings::kPolishStep.low, Settings::kPolishStep.high);
  ranges["polish_factor"] = py::make_tuple(Settings::kPolishFactor.low, Settings::kPolishFactor.high);
  ranges["whiten"] = py::make_tuple(Settings::kWhiten.low, Settings::kWhiten.high);
  ranges["sharpen"] = py::make_tuple(Settings::kSharpen.low, Settings::kSharpen.high);
  ranges["skin_whiten"] = py::make_tuple(Settings::kSkinWhiten.low, Settings::kSkinWhiten.high);
  ranges["preset"] = py::make_tuple(0, Settings::kPresetCount);
  ranges["mask"] = py::make_tuple(0, Settings::kAllPasses);
  module.attr("SETTING_RANGES") = ranges;
  module.attr("DEFAULTS") = lp::settingsDict(Settings{});
  py::dict bits;
  for (size_t i = 0; i < lumo::kMaskPassCount; ++i) bits[lumo::maskPassNames()[i].name] = lumo::maskPassNames()[i].bit;
  module.attr("MASK_BITS") = bits;

  module.attr("MAX_FRAME_SIDE") = lumo::kMaxFrameSide;
  module.attr("MAX_FRAME_PIXELS") = lumo::kMaxFramePixels;
  module.def(
      "check_frame_size",
      [](int64_t width, int64_t height) {
        if (const std::string problem = lumo::frameSizeProblem(width, height); !problem.empty()) lp::valueError(problem);
      },
      py::arg("width"), py::arg("height"),
      "ValueError naming the limit when a width x height frame is above what every front end takes "
      "(MAX_FRAME_SIDE a side, MAX_FRAME_PIXELS in all); a photo's header can be checked before it is decoded.");

  const Settings defaults;
  module.def(
      "check_settings",
      [](const py::object& mask, const py::object& preset, const py::object& polishStep,
         const py::object& polishFactor, const py::object& whiten, const py::object& sharpen,
         const py::object& skinWhiten) {
        return lp::settingsDict(lp::parseSettings(mask, preset, polishStep, polishFactor, whiten, sharpen, skinWhiten));
      },
      py::kw_only(), py::arg("mask") = defaults.mask, py::arg("preset") = defaults.preset,
      py::arg("polish_step") = defaults.polishStep, py::arg("polish_factor") = defaults.polishFactor,
      py::arg("whiten") = defaults.whiten, py::arg("sharpen") = defaults.sharpen,
      py::arg("skin_whiten") = defaults.skinWhiten,
      "The seven settings checked against their ranges (ValueError naming the range otherwise), mask names "
      "turned into the number, as a dict.");

  py::class_<Beautifier>(module, "Beautifier", R"doc(
One beautify engine with its settings. process() takes uint8 frames H x W x 3 (BGR) or H x W x 4 (BGRA),
C-contiguous or with padded rows, and releases the GIL while the frame is drawn. Settings are attributes
that may change between frames (and from any thread). One frame at a time: threads sharing a Beautifier
are serialised; give each thread its own to run frames in parallel.)doc")
      .def(py::init([](const std::string& engine, const py::object& mask, const py::object& preset,
                       const py::object& polishStep, const py::object& polishFactor, const py::object& whiten,
                       const py::object& sharpen, const py::object& skinWhiten, const py::object& faces) {
             lumo::EngineKind kind;
             if (!lumo::parseEngineKind(engine, &kind)) {
               lp::valueError(std::string("engine wants one of ") + lumo::engineKindNames() + ", got '" + engine + "'");
             }
             const Settings settings =
                 lp::parseSettings(mask, preset, polishStep, polishFactor, whiten, sharpen, skinWhiten);
             const lp::FacesMode facesMode = lp::parseFaces(faces);
             auto beautifier = std::make_unique<Beautifier>(kind);
             beautifier->applySettings(settings);
             beautifier->setFaces(facesMode);
             return beautifier;
           }),
           py::arg("engine") = "auto", py::arg("mask") = defaults.mask, py::arg("preset") = defaults.preset,
           py::arg("polish_step") = defaults.polishStep, py::arg("polish_factor") = defaults.polishFactor,
           py::arg("whiten") = defaults.whiten, py::arg("sharpen") = defaults.sharpen,
           py::arg("skin_whiten") = defaults.skinWhiten, py::arg("faces") = false)
      .def("process", &lp::process, py::arg("frame"), py::arg("out") = py::none(), py::kw_only(),
           py::arg("format") = py::none(), py::arg("matrix") = py::none(), py::arg("range") = py::none(),
           "Beautifies one frame; returns a new array, or `out` filled (same shape, may be `frame` itself). "
           "format: 'bgr', 'rgb', 'bgra', or 'yuy2' or 'uyvy' for an H x W x 2 array (default: bgr for 3 channels, "
           "bgra for 4), or 'nv12' or 'i420' for a (H * 3 / 2) x W array, or 'i422' for a (2 * H) x W "
           "array as OpenCV holds them; matrix ('bt601', 'bt709') and range ('limited', 'full') of YUV frames "
           "(default: bt709 above 576 rows, else bt601; limited).")
      .def_property_readonly("engine", [](const Beautifier& b) { return lumo::engineKindName(b.kind()); },
                             "'gl' or 'cpu': the engine that runs")
      .def_property_readonly("engine_reason", &Beautifier::reason, "what decided the engine")
      .def_property(
          "faces", [](const Beautifier& b) { return lp::facesValue(b.faces()); },
          [](Beautifier& b, const py::object& v) { b.setFaces(lp::parseFaces(v)); },
          "smoothing and skin whitening on faces only: False (everywhere), True or 'video' (a video's frames, "
          "detections every third frame on a worker thread), or 'photos' (each frame its own detection); a frame "
          "without a face gets the whole-frame passes only")
      .def_property(
          "mask", [](const Beautifier& b) { return b.settings().mask; },
          [](Beautifier& b, const py::object& v) {
            const int32_t mask = lp::parseMask(v);
            b.updateSettings([&](Settings& s) { s.mask = mask; });
          },
          "passes: bits polish 1, whiten 2, skin-whiten 4, sharpen 8 (or their names, 'polish,whiten')")
      .def_property(
          "preset", [](const Beautifier& b) { return b.settings().preset; },
          [](Beautifier& b, const py::object& v) {
            const int32_t preset = lp::parsePreset(v);
            b.updateSettings([&](Settings& s) { s.preset = preset; });
          },
          "colour preset 1..13, 0 for none")
      .def_property(
          "polish_step", [](const Beautifier& b) { return b.settings().polishStep; },
          [](Beautifier& b, const py::object& v) {
            const float x = lp::parseFloat(lumo::FloatSetting::PolishStep, v);
            b.updateSettings([&](Settings& s) { s.polishStep = x; });
          },
          "smoothing sample step in pixels, 0..16")
      .def_property(
          "polish_factor", [](const Beautifier& b) { return b.settings().polishFactor; },
          [](Beautifier& b, const py::object& v) {
            const float x = lp::parseFloat(lumo::FloatSetting::PolishFactor, v);
            b.updateSettings([&](Settings& s) { s.polishFactor = x; });
          },
          "smoothing colour-distance factor, 0..64")
      .def_property(
          "whiten", [](const Beautifier& b) { return b.settings().whiten; },
          [](Beautifier& b, const py::object& v) {
            const float x = lp::parseFloat(lumo::FloatSetting::Whiten, v);
            b.updateSettings([&](Settings& s) { s.whiten = x; });
          },
          "whiten balance, 0..1 (below brightens, above darkens)")
      .def_property(
          "sharpen", [](const Beautifier& b) { return b.settings().sharpen; },
          [](Beautifier& b, const py::object& v) {
            const float x = lp::parseFloat(lumo::FloatSetting::Sharpen, v);
            b.updateSettings([&](Settings& s) { s.sharpen = x; });
          },
          "sharpen strength, -1..4")
      .def_property(
          "skin_whiten", [](const Beautifier& b) { return b.settings().skinWhiten; },
          [](Beautifier& b, const py::object& v) {
            const float x = lp::parseFloat(lumo::FloatSetting::SkinWhiten, v);
            b.updateSettings([&](Settings& s) { s.skinWhiten = x; });
          },
          "pink whiten strength on skin, 0..1")
      .def("__repr__", [](const Beautifier& b) {
        const Settings s = b.settings();
        char text[256];
        std::snprintf(text, sizeof text,
                      "Beautifier(engine='%s', mask=%d, preset=%d, polish_step=%g, polish_factor=%g, whiten=%g, "
                      "sharpen=%g, skin_whiten=%g)",
                      lumo::engineKindName(b.kind()), s.mask, s.preset, s.polishStep, s.polishFactor, s.whiten,
                      s.sharpen, s.skinWhiten);
        return std::string(text);
      });
}
