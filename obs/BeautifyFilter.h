#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <obs/obs.h>

#include <lumo/BeautifyHost.h>

#include "FaceSource.h"
#include "FilterSettings.h"

namespace lumo::obs {

// One "Beautify (Lumo)" filter on one source.
//
// OBS calls filterVideo() on its graphics thread with the source's locks held, so nothing there waits: the
// engine is made in update() (OBS's UI thread) and handed over under a lock held only to copy a pointer;
// faces are found on the face source's own worker thread and applied when ready; settings reach the engine
// through the host layer, which applies them at the next frame.
class BeautifyFilter {
 public:
  explicit BeautifyFilter(obs_source_t* self);
  ~BeautifyFilter();
  BeautifyFilter(const BeautifyFilter&) = delete;
  BeautifyFilter& operator=(const BeautifyFilter&) = delete;

  void update(obs_data_t* settings);
  // Draws the frame in place; a format the library does not draw passes through untouched.
  obs_source_frame* filterVideo(obs_source_frame* frame);

 private:
  std::string sourceName() const;
  std::shared_ptr<BeautifyHost> makeHost(EngineKind kind);

  obs_source_t* self_;

  std::mutex hostMutex_;
  std::shared_ptr<BeautifyHost> host_;

  // update() only (OBS calls it one at a time).
  bool engineMade_ = false;
  EngineKind engineAsked_ = EngineKind::Auto;
  std::shared_ptr<faces::FaceSource> faces_;

  // filterVideo() only.
  std::vector<video_format> formatsTold_;
  bool failureTold_ = false;
};

}  // namespace lumo::obs
