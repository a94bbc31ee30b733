#include "FilterSettings.h"

#include <algorithm>
#include <string>

#include <obs/obs-module.h>

namespace lumo::obs {

namespace {

struct Pass {
  const char* enabled;
  const char* strength;
  int32_t bit;
  SettingRange range;
  float BeautifySettings::*value;
  double step;
};

const Pass kPasses[] = {
    {key::kPolish, key::kPolishStrength, BeautifyPolish, BeautifySettings::kPolishFactor,
     &BeautifySettings::polishFactor, 0.5},
    {key::kWhiten, key::kWhitenStrength, BeautifyWhiten, BeautifySettings::kWhiten, &BeautifySettings::whiten, 0.01},
    {key::kSkinWhiten, key::kSkinWhitenStrength, BeautifySkinWhiten, BeautifySettings::kSkinWhiten,
     &BeautifySettings::skinWhiten, 0.01},
    {key::kSharpen, key::kSharpenStrength, BeautifySharpen, BeautifySettings::kSharpen, &BeautifySettings::sharpen,
     0.05},
};

float held(double value, const SettingRange& range) {
  return std::clamp(static_cast<float>(value), range.low, range.high);
}

}  // namespace

void setDefaults(obs_data_t* settings) {
  const BeautifySettings defaults;
  obs_data_set_default_int(settings, key::kVersion, kSettingsVersion);
  for (const Pass& pass : kPasses) {
    obs_data_set_default_bool(settings, pass.enabled, (defaults.mask & pass.bit) != 0);
    obs_data_set_default_double(settings, pass.strength, pass.range.fallback);
  }
  obs_data_set_default_double(settings, key::kPolishStep, BeautifySettings::kPolishStep.fallback);
  obs_data_set_default_int(settings, key::kPreset, 0);
  obs_data_set_default_bool(settings, key::kFacesOnly, false);
  obs_data_set_default_string(settings, key::kEngine, engineKindName(EngineKind::Auto));
}

FilterChoice readChoice(obs_data_t* settings) {
  FilterChoice choice;
  BeautifySettings& beautify = choice.beautify;
  beautify.mask = 0;
  for (const Pass& pass : kPasses) {
    if (obs_data_get_bool(settings, pass.enabled)) beautify.mask |= pass.bit;
    beautify.*pass.value = held(obs_data_get_double(settings, pass.strength), pass.range);
  }
  beautify.polishStep = held(obs_data_get_double(settings, key::kPolishStep), BeautifySettings::kPolishStep);
  const long long preset = obs_data_get_int(settings, key::kPreset);
  beautify.preset = preset >= 1 && preset <= BeautifySettings::kPresetCount ? static_cast<int32_t>(preset) : 0;
  choice.facesOnly = obs_data_get_bool(settings, key::kFacesOnly);
  const char* engine = obs_data_get_string(settings, key::kEngine);
  if (engine == nullptr || !parseEngineKind(engine, &choice.engine)) choice.engine = EngineKind::Auto;
  return choice;
}

obs_properties_t* makeProperties() {
  obs_properties_t* props = obs_properties_create();
  const auto slider = [props](const Pass& pass, const char* text) {
    obs_properties_add_float_slider(props, pass.strength, obs_module_text(text), pass.range.low, pass.range.high,
                                    pass.step);
  };
  obs_properties_add_bool(props, key::kPolish, obs_module_text("Smoothing"));
  obs_properties_add_float_slider(props, key::kPolishStep, obs_module_text("SmoothingStep"),
                                  BeautifySettings::kPolishStep.low, BeautifySettings::kPolishStep.high, 0.1);
  slider(kPasses[0], "SmoothingStrength");
  obs_properties_add_bool(props, key::kWhiten, obs_module_text("Whiten"));
  slider(kPasses[1], "WhitenStrength");
  obs_properties_add_bool(props, key::kSkinWhiten, obs_module_text("SkinWhiten"));
  slider(kPasses[2], "SkinWhitenStrength");
  obs_properties_add_bool(props, key::kSharpen, obs_module_text("Sharpen"));
  slider(kPasses[3], "SharpenStrength");

  obs_property_t* presets = obs_properties_add_list(props, key::kPreset, obs_module_text("Preset"),
                                                    OBS_COMBO_TYPE_LIST, OBS_COMBO_FORMAT_INT);
  obs_property_list_add_int(presets, obs_module_text("Preset.None"), 0);
  for (int index = 1; index <= BeautifySettings::kPresetCount; ++index) {
    const std::string text = "Preset." + std::to_string(index);
    obs_property_list_add_int(presets, obs_module_text(text.c_str()), index);
  }

  obs_properties_add_bool(props, key::kFacesOnly, obs_module_text("FacesOnly"));
  obs_property_t* engine = obs_properties_add_list(props, key::kEngine, obs_module_text("Engine"),
                                                   OBS_COMBO_TYPE_LIST, OBS_COMBO_FORMAT_STRING);
  obs_property_list_add_string(engine, obs_module_text("Engine.Auto"), engineKindName(EngineKind::Auto));
  obs_property_list_add_string(engine, obs_module_text("Engine.Cpu"), engineKindName(EngineKind::Cpu));
  obs_property_list_add_string(engine, obs_module_text("Engine.Gl"), engineKindName(EngineKind::Gl));
  return props;
}

}  // namespace lumo::obs
