// The settings' text forms, from the one table every front end's test reads (tests/settings/cases.tsv).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "SettingsText.h"

namespace lumo {
namespace {

struct Case {
  std::string setting;
  std::string text;
  std::string expected;  // a value, or "! " and the message after the setting's name
};

std::vector<Case> cases() {
  std::ifstream file(LUMO_SETTINGS_CASES);
  std::vector<Case> all;
  std::string line;
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t a = line.find('\t');
    const size_t b = line.find('\t', a + 1);
    all.push_back({line.substr(0, a), line.substr(a + 1, b - a - 1), line.substr(b + 1)});
  }
  return all;
}

// The value the library reads, as text ("3", "0.25"), or "! " and its message without the name.
std::string readBack(const Case& c) {
  const std::string name = "NAME";
  std::string error;
  std::string value;
  bool ok = false;
  if (c.setting == "mask" || c.setting == "preset") {
    int32_t number = 0;
    ok = c.setting == "mask" ? parseMaskText(c.text, name, &number, &error)
                             : parsePresetText(c.text, name, &number, &error);
    value = std::to_string(number);
  } else {
    const FloatSettingInfo* info = findFloatSetting(c.setting);
    if (info == nullptr) return "unknown setting " + c.setting;
    float number = 0.0f;
    ok = parseFloatText(info->which, c.text, name, &number, &error);
    char text[32];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(number));
    value = text;
  }
  if (ok) return value;
  EXPECT_EQ(error.rfind(name + " ", 0), 0u) << "the message starts with the caller's name: " << error;
  return "! " + error.substr(name.size() + 1);
}

TEST(SettingsText, EveryCaseOfTheSharedTable) {
  const std::vector<Case> all = cases();
  ASSERT_GT(all.size(), 20u) << "table " << LUMO_SETTINGS_CASES << " not read";
  for (const Case& c : all) {
    EXPECT_EQ(readBack(c), c.expected) << c.setting << " '" << c.text << "'";
  }
}

TEST(SettingsText, MasksFormatAsTheyParse) {
  for (int32_t mask = 0; mask <= BeautifySettings::kAllPasses; ++mask) {
    int32_t back = -1;
    std::string error;
    ASSERT_TRUE(parseMaskText(formatMask(mask), "mask", &back, &error)) << error;
    EXPECT_EQ(back, mask) << formatMask(mask);
  }
  EXPECT_EQ(formatMask(0), "none");
  EXPECT_EQ(formatMask(BeautifyPolish | BeautifySharpen), "polish,sharpen");
}

TEST(SettingsText, NumbersHandedInAsNumbersKeepTheRanges) {
  std::string error;
  float value = 0.0f;
  EXPECT_FALSE(checkFloatValue(FloatSetting::Whiten, std::nan(""), "whiten", &value, &error));
  EXPECT_EQ(error, "whiten wants a number in 0..1, got nan");
  EXPECT_FALSE(checkFloatValue(FloatSetting::PolishStep, 1e30, "step", &value, &error));
  EXPECT_TRUE(checkFloatValue(FloatSetting::Sharpen, -1.0, "sharpen", &value, &error));
  EXPECT_EQ(value, -1.0f);
  int32_t whole = 0;
  EXPECT_FALSE(checkMaskValue(16, "mask", &whole, &error));
  EXPECT_FALSE(checkPresetValue(-1, "preset", &whole, &error));
  EXPECT_TRUE(checkPresetValue(13, "preset", &whole, &error));
  EXPECT_EQ(whole, 13);
}

}  // namespace
}  // namespace lumo
