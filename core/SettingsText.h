#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "BeautifySettings.h"
#include "Export.h"

namespace lumo {

// Settings as text, read and written the same way by every front end (the tool's options, the element's
// properties, the Python package and lumo.batch). Each parser returns false with a message that names the
// setting as the caller calls it (`name`, e.g. "--mask" or "mask"), what it wants and what it got; the
// same text gives the same value or the same message wherever it is typed.

// A pass of the enable mask: its bit, its name in text ("polish", "whiten", "skin-whiten", "sharpen") and
// what it does, in bit order.
struct MaskPassName {
  int32_t bit;
  const char* name;
  const char* description;
};
constexpr size_t kMaskPassCount = 4;
LUMO_EXPORT const MaskPassName* maskPassNames();

// A mask: a decimal number 0..15 (digits only: "010" is ten), or pass names separated by ',' or '+'
// ("polish,whiten", "polish+sharpen"), "none" for 0. Names may repeat; spaces around them are ignored.
LUMO_EXPORT bool parseMaskText(const std::string& text, const std::string& name, int32_t* mask, std::string* error);
// A mask as a number (e.g. handed in by Python): 0..15.
LUMO_EXPORT bool checkMaskValue(long long value, const std::string& name, int32_t* mask, std::string* error);
// "polish,whiten,skin-whiten", "none" for 0; bits outside the four passes as a number after them.
LUMO_EXPORT std::string formatMask(int32_t mask);

// A preset index: a decimal number 0..13.
LUMO_EXPORT bool parsePresetText(const std::string& text, const std::string& name, int32_t* preset, std::string* error);
LUMO_EXPORT bool checkPresetValue(long long value, const std::string& name, int32_t* preset, std::string* error);

// The five float settings, by their names in text.
enum class FloatSetting { PolishStep, PolishFactor, Whiten, Sharpen, SkinWhiten };
constexpr size_t kFloatSettingCount = 5;
struct FloatSettingInfo {
  FloatSetting which;
  const char* name;  // "polish-step", "polish-factor", "whiten", "sharpen", "skin-whiten"
  SettingRange range;
  float BeautifySettings::*field;
};
LUMO_EXPORT const FloatSettingInfo& floatSettingInfo(FloatSetting which);
// The setting called `name` ('_' taken for '-'), or null.
LUMO_EXPORT const FloatSettingInfo* findFloatSetting(const std::string& name);
// Plain decimal notation ("1", "-0.5", "2.5e-1"): no spaces, hexadecimal, inf or nan; within the range.
LUMO_EXPORT bool parseFloatText(FloatSetting which, const std::string& text, const std::string& name, float* value,
                                std::string* error);
// A number handed in as a number: finite and within the range.
LUMO_EXPORT bool checkFloatValue(FloatSetting which, double value, const std::string& name, float* out,
                                 std::string* error);

// The CPU engine's instruction-set caps: "best", "avx3", "avx2", "sse4", "scalar".
LUMO_EXPORT bool isSimdLevelName(const std::string& text);
LUMO_EXPORT const char* simdLevelNames();  // "best, avx3, avx2, sse4, scalar"

// "auto, gl, cpu": for messages (engineKindName and parseEngineKind read and write one).
LUMO_EXPORT const char* engineKindNames();

}  // namespace lumo
