// The OBS Studio module: registers the "Beautify (Lumo)" filter for asynchronous video sources (cameras,
// media files, capture cards). OBS is C: no exception may leave a callback.
#include <exception>
#include <memory>

#include <obs/obs-module.h>

#include "BeautifyFilter.h"
#include "FilterSettings.h"

OBS_DECLARE_MODULE()
OBS_MODULE_USE_DEFAULT_LOCALE("lumo-beautify", "en-US")

namespace {

using lumo::obs::BeautifyFilter;

const char* filterName(void*) { return obs_module_text("BeautifyLumo"); }

void* createFilter(obs_data_t* settings, obs_source_t* source) {
  try {
    auto filter = std::make_unique<BeautifyFilter>(source);
    filter->update(settings);
    return filter.release();  // OBS holds it until destroyFilter
  } catch (const std::exception& e) {
    blog(LOG_ERROR, "[lumo-beautify] the filter cannot be made: %s", e.what());
    return nullptr;
  }
}

void destroyFilter(void* data) {
  try {
    std::unique_ptr<BeautifyFilter>(static_cast<BeautifyFilter*>(data)).reset();
  } catch (const std::exception& e) {
    blog(LOG_ERROR, "[lumo-beautify] %s", e.what());
  }
}

void updateFilter(void* data, obs_data_t* settings) {
  try {
    static_cast<BeautifyFilter*>(data)->update(settings);
  } catch (const std::exception& e) {
    blog(LOG_ERROR, "[lumo-beautify] the settings cannot be applied: %s", e.what());
  }
}

obs_source_frame* filterVideo(void* data, obs_source_frame* frame) {
  try {
    return static_cast<BeautifyFilter*>(data)->filterVideo(frame);
  } catch (const std::exception& e) {
    blog(LOG_ERROR, "[lumo-beautify] a frame passes through untouched: %s", e.what());
    return frame;
  }
}

void defaults(obs_data_t* settings) { lumo::obs::setDefaults(settings); }

obs_properties_t* properties(void*) { return lumo::obs::makeProperties(); }

}  // namespace

MODULE_EXPORT const char* obs_module_description(void) {
  return "Beautify (Lumo): skin smoothing, whitening, sharpening and colour presets for cameras and media";
}

bool obs_module_load(void) {
  obs_source_info info{};
  info.id = "lumo_beautify_filter";
  info.type = OBS_SOURCE_TYPE_FILTER;
  info.output_flags = OBS_SOURCE_ASYNC_VIDEO;
  info.get_name = filterName;
  info.create = createFilter;
  info.destroy = destroyFilter;
  info.update = updateFilter;
  info.get_defaults = defaults;
  info.get_properties = properties;
  info.filter_video = filterVideo;
  obs_register_source(&info);
  return true;
}
