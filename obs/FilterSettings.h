#pragma once

#include <obs/obs.h>

#include <lumo/BeautifyEngine.h>
#include <lumo/BeautifySettings.h>

namespace lumo::obs {

// What a user chose in the filter's properties.
struct FilterChoice {
  BeautifySettings beautify;
  bool facesOnly = false;
  EngineKind engine = EngineKind::Auto;
  bool operator==(const FilterChoice& other) const {
    return beautify == other.beautify && facesOnly == other.facesOnly && engine == other.engine;
  }
};

// The keys a scene collection stores. They are the saved form of a user's work: a key is never renamed or
// given another meaning; "version" says which keys a collection was saved with.
namespace key {
inline constexpr const char* kVersion = "version";
inline constexpr const char* kPolish = "polish";
inline constexpr const char* kPolishStep = "polish_step";
inline constexpr const char* kPolishStrength = "polish_strength";
inline constexpr const char* kWhiten = "whiten";
inline constexpr const char* kWhitenStrength = "whiten_strength";
inline constexpr const char* kSkinWhiten = "skin_whiten";
inline constexpr const char* kSkinWhitenStrength = "skin_whiten_strength";
inline constexpr const char* kSharpen = "sharpen";
inline constexpr const char* kSharpenStrength = "sharpen_strength";
inline constexpr const char* kPreset = "preset";
inline constexpr const char* kFacesOnly = "faces_only";
inline constexpr const char* kEngine = "engine";
}  // namespace key

inline constexpr int kSettingsVersion = 1;

// The library's defaults, as OBS shows them and falls back to for a key a collection lacks.
void setDefaults(obs_data_t* settings);
// The choice in `settings`, each number held to the library's range (a collection edited by hand, or saved
// by a later version with wider ranges, still loads).
FilterChoice readChoice(obs_data_t* settings);
// The properties dialog: a checkbox and slider per pass, the presets by name, faces only, the engine.
obs_properties_t* makeProperties();

}  // namespace lumo::obs
