#pragma once

#include <lumo/lumo.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Video files through GStreamer: the input demuxed and decoded by whatever plugins are installed, the frames
// beautified by the lumobeautify element in YUV as the decoder gives them, encoded and muxed by the output's
// extension. Audio goes into the output as it came where the container takes it, re-encoded otherwise.
namespace lumo::tools {

enum class Container { Mp4, Mov, Mkv, Webm, Unknown };
enum class VideoCodec { Default, H264, H265, Vp9 };
// The chroma subsampling written: 4:2:0 unless asked, since browsers and most players decode nothing else.
enum class Chroma { C420, C422, C444 };

// The container an output name asks for (.mp4, .m4v, .mov, .mkv, .webm, any case).
Container containerForPath(const std::string& path);
// Whether a name is a video file the tool reads: the containers it writes and the usual others (.avi, .ts...).
bool isVideoPath(const std::string& path);
// Whether a file's first bytes are a video container's: ISO BMFF (mp4, mov, 3gp), Matroska/WebM, AVI, Ogg,
// FLV or MPEG-TS. Photos (PNG, JPEG) never match.
bool looksLikeVideo(const uint8_t* data, size_t size);

bool parseVideoCodec(const std::string& name, VideoCodec* codec);
// "420", "422", "444".
bool parseChroma(const std::string& name, Chroma* chroma);
const char* videoCodecName(VideoCodec codec);
// The codec written when none is asked for: H.264, VP9 in WebM.
VideoCodec defaultCodec(Container container);
bool containerTakes(Container container, VideoCodec codec);
// The --crf range of a codec's encoder.
int maxCrf(VideoCodec codec);

struct VideoSettings {
  Container container = Container::Mp4;
  VideoCodec codec = VideoCodec::Default;
  int crf = -1;          // constant quality; -1: the codec's default
  int bitrateKbps = 0;   // average bitrate instead of constant quality; 0: not asked
  Chroma chroma = Chroma::C420;
  BeautifySettings beautify;
  EngineKind engine = EngineKind::Auto;
  bool faces = false;       // the skin-gated passes on faces only (the element's faces property)
  std::string faceCascade;  // empty: Debian's
};

struct VideoProgress {
  uint64_t frames = 0;     // beautified so far
  double wallSeconds = 0;  // since the pipeline started
  double position = 0;     // media seconds reached
  double duration = -1;    // the input's length in seconds, -1 while unknown
};

struct VideoResult {
  enum class Outcome { Done, Stopped, Failed };
  Outcome outcome = Outcome::Failed;
  uint64_t frames = 0;
  double wallSeconds = 0;
  double mediaSeconds = 0;
  std::string error;         // one line for a failure, naming the missing package where one is missing
  bool outputFault = false;  // the error is the output's (a full disk), not the input's
  std::vector<std::string> notes;  // what the output leaves out of the input, a line each
};

// Transcodes `input` (a readable path: the tool hands /proc/self/fd/N of the descriptor it checked) into the
// writable, seekable descriptor `outputFd`. `stop` non-zero ends the input where it is: the frames so far are
// encoded and the file finalised (Stopped); a stop before the first frame gives Stopped with 0 frames and
// nothing worth keeping. `onProgress` is called about twice a second from the calling thread.
VideoResult transcodeVideo(const std::string& input, int outputFd, const VideoSettings& settings,
                           const volatile std::sig_atomic_t* stop,
                           const std::function<void(const VideoProgress&)>& onProgress);

}  // namespace lumo::tools
