#include "BeautifyFilter.h"

#include <algorithm>

#include "ObsFrames.h"

namespace lumo::obs {

BeautifyFilter::BeautifyFilter(obs_source_t* self) : self_(self) {}

BeautifyFilter::~BeautifyFilter() = default;

std::string BeautifyFilter::sourceName() const {
  // A filter is named by the source it is on; until it is added, by its own name.
  obs_source_t* parent = obs_filter_get_parent(self_);
  const char* name = obs_source_get_name(parent != nullptr ? parent : self_);
  return name != nullptr ? name : "";
}

std::shared_ptr<BeautifyHost> BeautifyFilter::makeHost(EngineKind kind) {
  std::string why;
  std::unique_ptr<BeautifyHost> host = BeautifyHost::create(kind, &why);
  if (!host) {
    blog(LOG_WARNING, "[lumo-beautify] '%s': the %s engine cannot be made (%s); the CPU engine draws instead",
         sourceName().c_str(), engineKindName(kind), why.c_str());
    host = BeautifyHost::create(EngineKind::Cpu, &why);
    if (!host) return nullptr;
  }
  blog(LOG_INFO, "[lumo-beautify] '%s': engine %s (%s)", sourceName().c_str(), engineKindName(host->kind()),
       why.c_str());
  const std::string name = sourceName();
  host->setNoticeHandler(
      [name](const std::string& notice) { blog(LOG_INFO, "[lumo-beautify] '%s': %s", name.c_str(), notice.c_str()); });
  return host;
}

void BeautifyFilter::update(obs_data_t* settings) {
  const FilterChoice choice = readChoice(settings);
  std::shared_ptr<BeautifyHost> host;
  {
    const std::lock_guard<std::mutex> lock(hostMutex_);
    host = host_;
  }
  const bool newHost = !engineMade_ || choice.engine != engineAsked_;
  if (newHost) {
    // Made here, not on the graphics thread: making a GL engine takes tens of milliseconds.
    host = makeHost(choice.engine);
    engineMade_ = true;
    engineAsked_ = choice.engine;
  }
  if (!host) return;
  host->applySettings(choice.beautify);

  if (choice.facesOnly && !faces_) {
    std::string why;
    faces_ = faces::FaceSource::create(faces::FaceMode::Live, "", &why);
    if (!faces_) {
      blog(LOG_WARNING, "[lumo-beautify] '%s': faces only is not available, the whole frame is drawn: %s",
           sourceName().c_str(), why.c_str());
    }
  } else if (!choice.facesOnly) {
    faces_.reset();
  }
  host->setRegionSource(faces_);

  if (newHost) {
    const std::lock_guard<std::mutex> lock(hostMutex_);
    host_ = std::move(host);  // the old engine goes with the last frame that holds it
  }
}

obs_source_frame* BeautifyFilter::filterVideo(obs_source_frame* frame) {
  if (frame == nullptr) return frame;
  if (pixelFormatOf(frame->format) == 0) {
    if (std::find(formatsTold_.begin(), formatsTold_.end(), frame->format) == formatsTold_.end()) {
      formatsTold_.push_back(frame->format);
      blog(LOG_WARNING, "[lumo-beautify] '%s': frames in %s are not drawn and pass through untouched",
           sourceName().c_str(), get_video_format_name(frame->format));
    }
    return frame;
  }
  std::shared_ptr<BeautifyHost> host;
  {
    const std::lock_guard<std::mutex> lock(hostMutex_);
    host = host_;
  }
  if (!host) return frame;
  const FrameResult result = host->process(hostFrameOf(*frame));
  if (!result.ok() && !failureTold_) {
    failureTold_ = true;
    blog(LOG_WARNING, "[lumo-beautify] '%s': a %u x %u frame passes through untouched: %s", sourceName().c_str(),
         frame->width, frame->height, result.why.c_str());
  }
  return frame;
}

}  // namespace lumo::obs
