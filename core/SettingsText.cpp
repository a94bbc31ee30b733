#include "SettingsText.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace lumo {
namespace {

constexpr MaskPassName kMaskPasses[kMaskPassCount] = {
    {BeautifyPolish, "polish", "Skin smoothing"},
    {BeautifyWhiten, "whiten", "Whiten the whole frame"},
    {BeautifySkinWhiten, "skin-whiten", "Pink whiten of skin"},
    {BeautifySharpen, "sharpen", "Sharpen (drops the detail layer, blends skin at one half)"},
};

constexpr FloatSettingInfo kFloats[kFloatSettingCount] = {
    {FloatSetting::PolishStep, "polish-step", BeautifySettings::kPolishStep, &BeautifySettings::polishStep},
    {FloatSetting::PolishFactor, "polish-factor", BeautifySettings::kPolishFactor, &BeautifySettings::polishFactor},
    {FloatSetting::Whiten, "whiten", BeautifySettings::kWhiten, &BeautifySettings::whiten},
    {FloatSetting::Sharpen, "sharpen", BeautifySettings::kSharpen, &BeautifySettings::sharpen},
    {FloatSetting::SkinWhiten, "skin-whiten", BeautifySettings::kSkinWhiten, &BeautifySettings::skinWhiten},
};

constexpr const char* kSimdLevels[] = {"best", "avx3", "avx2", "sse4", "scalar"};

std::string rangeText(double low, double high) {
  char text[64];
  std::snprintf(text, sizeof text, "%g..%g", low, high);
  return text;
}

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Decimal digits only, no sign or prefix, at most `high`.
bool parseWhole(const std::string& text, long long high, long long* value) {
  if (text.empty()) return false;
  long long number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    number = number * 10 + (c - '0');
    if (number > high) return false;  // long before a long long could wrap
  }
  *value = number;
  return true;
}

bool fail(std::string* error, std::string message) {
  if (error != nullptr) *error = std::move(message);
  return false;
}

std::string maskWants(const std::string& name) {
  std::string names;
  for (const MaskPassName& pass : kMaskPasses) names += std::string(pass.name) + ", ";
  return name + " wants a whole number in " + rangeText(0, BeautifySettings::kAllPasses) + " or pass names (" +
         names + "none) joined by ',' or '+'";
}

}  // namespace

const MaskPassName* maskPassNames() { return kMaskPasses; }

bool parseMaskText(const std::string& text, const std::string& name, int32_t* mask, std::string* error) {
  const std::string whole = trimmed(text);
  if (!whole.empty() && ((whole[0] >= '0' && whole[0] <= '9') || whole[0] == '-' || whole[0] == '+')) {
    long long number = 0;
    if (!parseWhole(whole, BeautifySettings::kAllPasses, &number)) {
      return fail(error, maskWants(name) + ", got '" + text + "'");
    }
    *mask = static_cast<int32_t>(number);
    return true;
  }
  int32_t bits = 0;
  size_t start = 0;
  while (true) {
    const size_t end = whole.find_first_of(",+", start);
    const std::string part = trimmed(whole.substr(start, end == std::string::npos ? std::string::npos : end - start));
    bool known = part == "none";
    for (const MaskPassName& pass : kMaskPasses) {
      if (part == pass.name) {
        bits |= pass.bit;
        known = true;
      }
    }
    if (!known) {
      return fail(error, maskWants(name) + ", got '" + text + "'" +
                             (part.empty() || part == whole ? "" : " (unknown pass '" + part + "')"));
    }
    if (end == std::string::npos) break;
    start = end + 1;
  }
  *mask = bits;
  return true;
}

bool checkMaskValue(long long value, const std::string& name, int32_t* mask, std::string* error) {
  if (value < 0 || value > BeautifySettings::kAllPasses) {
    return fail(error, maskWants(name) + ", got " + std::to_string(value));
  }
  *mask = static_cast<int32_t>(value);
  return true;
}

std::string formatMask(int32_t mask) {
  std::string text;
  for (const MaskPassName& pass : kMaskPasses) {
    if ((mask & pass.bit) != 0) text += (text.empty() ? "" : ",") + std::string(pass.name);
  }
  const int32_t rest = mask & ~BeautifySettings::kAllPasses;
  if (rest != 0) text += (text.empty() ? "" : ",") + std::to_string(rest);
  return text.empty() ? "none" : text;
}

bool parsePresetText(const std::string& text, const std::string& name, int32_t* preset, std::string* error) {
  long long number = 0;
  if (!parseWhole(trimmed(text), BeautifySettings::kPresetCount, &number)) {
    return fail(error, name + " wants a whole number in " + rangeText(0, BeautifySettings::kPresetCount) + ", got '" +
                           text + "'");
  }
  *preset = static_cast<int32_t>(number);
  return true;
}

bool checkPresetValue(long long value, const std::string& name, int32_t* preset, std::string* error) {
  if (value < 0 || value > BeautifySettings::kPresetCount) {
    return fail(error, name + " wants a whole number in " + rangeText(0, BeautifySettings::kPresetCount) + ", got " +
                           std::to_string(value));
  }
  *preset = static_cast<int32_t>(value);
  return true;
}

const FloatSettingInfo& floatSettingInfo(FloatSetting which) { return kFloats[static_cast<size_t>(which)]; }

const FloatSettingInfo* findFloatSetting(const std::string& name) {
  std::string dashed = name;
  for (char& c : dashed) c = c == '_' ? '-' : c;
  for (const FloatSettingInfo& info : kFloats) {
    if (dashed == info.name) return &info;
  }
  return nullptr;
}

bool parseFloatText(FloatSetting which, const std::string& text, const std::string& name, float* value,
                    std::string* error) {
  const SettingRange range = floatSettingInfo(which).range;
  auto digits = [](const char*& c) {
    const char* start = c;
    while (*c >= '0' && *c <= '9') ++c;
    return c - start;
  };
  const char* c = text.c_str();
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
  const double number = valid ? std::strtod(text.c_str(), nullptr) : 0.0;
  if (!valid || !(number >= range.low && number <= range.high)) {
    return fail(error, name + " wants a number in " + rangeText(range.low, range.high) + ", got '" + text + "'");
  }
  *value = static_cast<float>(number);
  return true;
}

bool checkFloatValue(FloatSetting which, double value, const std::string& name, float* out, std::string* error) {
  const SettingRange range = floatSettingInfo(which).range;
  if (!(value >= range.low && value <= range.high)) {  // NaN fails too
    char got[32];
    std::snprintf(got, sizeof got, "%g", value);
    return fail(error, name + " wants a number in " + rangeText(range.low, range.high) + ", got " + got);
  }
  *out = static_cast<float>(value);
  return true;
}

bool isSimdLevelName(const std::string& text) {
  for (const char* level : kSimdLevels) {
    if (text == level) return true;
  }
  return false;
}

const char* simdLevelNames() { return "best, avx3, avx2, sse4, scalar"; }

const char* engineKindNames() { return "auto, gl, cpu"; }

}  // namespace lumo
