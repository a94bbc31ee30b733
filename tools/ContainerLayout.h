#pragma once

#include <cstdint>
#include <string>

namespace lumo::tools {

// What a container's own framing says of a file's length. A demuxer reads a truncated file up to where its
// data ends and reports that as the end; the framing (an ISO box, a RIFF chunk, a Matroska segment, a
// 188-byte MPEG-TS packet) declares where it should have ended.
struct LayoutCheck {
  bool cutShort = false;
  uint64_t size = 0;      // the file's bytes
  uint64_t declared = 0;  // where its framing says it ends; 0 where that is not known
  const char* framing = "";  // "MP4 box", "RIFF chunk", "Matroska segment", "MPEG-TS packet"
  // An MP4 or MOV file whose boxes, as far as they go, hold no `moov`: the index of its samples, which a
  // recorder writes last. Without it no demuxer can find a single frame.
  bool noIndex = false;
  bool picture = false;  // a HEIF or AVIF still: the same boxes, a `meta` box and no `moov`
};

// Reads only the headers of each top-level unit (a few dozen bytes each); an unreadable or unknown file
// is not cut short here, the demuxer says what is wrong with it.
LayoutCheck checkLayout(const std::string& path);

}  // namespace lumo::tools
