#pragma once

// libobs run headless (an X server from xvfb-run, Mesa's EGL), with the built module loaded, a source that
// outputs the frames a test hands it, and capture filters before and after the filter under test: what the
// OBS suite and the OBS timing program share.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <obs/obs.h>

namespace lumo::obstest {

// A frame's planes copied out tightly (rows without their padding), with where and when it was seen.
struct Captured {
  video_format format = VIDEO_FORMAT_NONE;
  uint32_t width = 0;
  uint32_t height = 0;
  bool fullRange = false;
  uint64_t timestamp = 0;
  std::vector<std::vector<uint8_t>> planes;
  std::vector<uint32_t> rowBytes;
  void* glContext = nullptr;  // the EGL context current on the thread that filtered it
  uint64_t enteredNs = 0;     // os_gettime_ns() when the capture began
  uint64_t leftNs = 0;        // and when it had copied the frame
  bool operator==(const Captured& other) const { return planes == other.planes; }
};

// A frame in a test's memory, in an OBS format, with its planes' rows tightly packed.
struct TestFrame {
  video_format format = VIDEO_FORMAT_NONE;
  uint32_t width = 0;
  uint32_t height = 0;
  bool fullRange = false;
  video_colorspace colorspace = VIDEO_CS_709;
  std::vector<std::vector<uint8_t>> planes;
  std::vector<uint32_t> rowBytes;
};

// Bytes per row and rows of plane `plane` of an OBS format at a size (OBS's own layout: chroma rounded up).
bool planeGeometry(video_format format, uint32_t width, uint32_t height, int plane, uint32_t* rowBytes,
                   uint32_t* rows);
// The BGRA picture `bgra` (width x height, packed) in `format`, converted with BT.709 limited range (a
// realistic frame, not a reference conversion).
TestFrame frameFrom(const std::vector<uint8_t>& bgra, uint32_t width, uint32_t height, video_format format);
// The library's pixel format for an OBS format, written out independently of the module's own table.
uint32_t lumoFormat(video_format format);
// The sample portrait, scaled (nearest) to width x height, as packed BGRA.
std::vector<uint8_t> portrait(uint32_t width, uint32_t height);

// libobs for the whole process: started once, shut down at exit.
class ObsRuntime {
 public:
  // Starts libobs and loads the module from `module` with its data from `data`; false, with the reason, when
  // it cannot.
  static bool start(const std::string& module, const std::string& data, std::string* why);
  static void stop();

  // "[lumo-beautify]" lines logged so far.
  static std::vector<std::string> moduleLog();
  static void clearModuleLog();
};

// An asynchronous source of the test's own, with capture filters before and after the filters added
// between them.
class TestSource {
 public:
  TestSource();
  ~TestSource();
  TestSource(const TestSource&) = delete;
  TestSource& operator=(const TestSource&) = delete;

  obs_source_t* source() const { return source_; }
  // Adds the filter under test between the captures (a filter added later runs later); returns it, owned.
  obs_source_t* addFilter(const char* id, obs_data_t* settings);
  void removeFilter(obs_source_t* filter);
  // OBS's graphics context current around the filters (the capture before enters it, the one after leaves
  // it), as a filter that draws with OBS would leave it.
  void holdGraphicsAroundFilters(bool hold);

  struct Seen {
    Captured before;
    Captured after;
  };
  // Outputs the frame and waits until the capture after the filters has it; false after 10 s.
  bool push(const TestFrame& frame, Seen* seen);
  // Outputs the frame without waiting.
  void output(const TestFrame& frame, uint64_t timestamp);

 private:
  obs_source_t* source_ = nullptr;
  obs_source_t* before_ = nullptr;
  obs_source_t* after_ = nullptr;
  std::vector<obs_source_t*> filters_;
  uint64_t nextTimestamp_ = 1;
};

}  // namespace lumo::obstest
