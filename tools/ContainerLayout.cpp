#include "ContainerLayout.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace lumo::tools {
namespace {

class Reader {
 public:
  explicit Reader(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~Reader() {
    if (fd_ >= 0) ::close(fd_);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // The size of a regular file; 0 for anything else.
  uint64_t size() const {
    struct stat status {};
    if (fd_ < 0 || ::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    return static_cast<uint64_t>(status.st_size);
  }
  bool read(uint64_t offset, uint8_t* out, size_t count) const {
    return fd_ >= 0 && ::pread(fd_, out, count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count);
  }

 private:
  int fd_;
};

uint64_t bigEndian(const uint8_t* bytes, int count) {
  uint64_t value = 0;
  for (int i = 0; i < count; ++i) value = value << 8 | bytes[i];
  return value;
}

// ISO BMFF: top-level boxes, each with its size up front (1: a 64-bit size follows; 0: to the end of the file).
LayoutCheck isoBoxes(const Reader& file, uint64_t size) {
  LayoutCheck check{false, size, 0, "MP4 box"};
  bool index = false;
  bool picture = false;  // a top-level `meta` box
  // A HEIF or AVIF picture has a top-level `meta` box in place of `moov`: not a movie missing its index.
  auto finish = [&] {
    check.picture = picture && !index && !check.cutShort;
    check.noIndex = !index && !picture;
    return check;
  };
  uint64_t offset = 0;
  for (int boxes = 0; offset + 8 <= size; ++boxes) {
    if (boxes == 100000) return {};  // not a file a camera or an editor wrote: the demuxer judges it
    uint8_t head[16];
    if (!file.read(offset, head, 8)) return {};
    index = index || std::memcmp(head + 4, "moov", 4) == 0;
    picture = picture || std::memcmp(head + 4, "meta", 4) == 0;
    uint64_t length = bigEndian(head, 4);
    if (length == 0) return finish();  // runs to the end, whatever that is: nothing can follow it
    if (length == 1) {
      if (!file.read(offset + 8, head + 8, 8)) return {};
      length = bigEndian(head + 8, 8);
    }
    if (length < 8) return {};  // not a box: the demuxer says what is wrong
    if (length > size - offset) {
      check.cutShort = true;
      check.declared = offset + length;
      return finish();
    }
    offset += length;
  }
  check.declared = offset;
  return finish();
}

// RIFF (AVI): one chunk declaring its length; an OpenDML file of over 1 GiB adds further RIFF chunks after it.
LayoutCheck riffChunk(const Reader& file, uint64_t size) {
  uint8_t head[8];
  if (!file.read(0, head, 8)) return {};
  const uint64_t length = 8 + (uint64_t{head[4]} | uint64_t{head[5]} << 8 | uint64_t{head[6]} << 16 |
                               uint64_t{head[7]} << 24);
  return {length > size, size, length, "RIFF chunk"};
}

// An EBML variable-length number: its first byte's leading zeros say how many bytes follow.
bool ebmlNumber(const Reader& file, uint64_t offset, bool keepMarker, uint64_t* value, int* length, bool* unknown) {
  uint8_t bytes[8];
  if (!file.read(offset, bytes, 1) || bytes[0] == 0) return false;
  int count = 1;
  while ((bytes[0] & (0x80 >> (count - 1))) == 0) ++count;
  if (count > 1 && !file.read(offset + 1, bytes + 1, static_cast<size_t>(count - 1))) return false;
  uint64_t number = keepMarker ? bytes[0] : bytes[0] & (0xFF >> count);
  bool allOnes = number == (0xFFu >> count);
  for (int i = 1; i < count; ++i) {
    number = number << 8 | bytes[i];
    allOnes = allOnes && bytes[i] == 0xFF;
  }
  *value = number;
  *length = count;
  if (unknown != nullptr) *unknown = allOnes;
  return true;
}

// Matroska and WebM: the EBML header, then the Segment, whose size a recorder may leave unknown.
LayoutCheck matroskaSegment(const Reader& file, uint64_t size) {
  uint64_t offset = 0;
  for (int element = 0; element < 2; ++element) {
    uint64_t id = 0, length = 0;
    int idBytes = 0, sizeBytes = 0;
    bool unknown = false;
    if (!ebmlNumber(file, offset, true, &id, &idBytes, nullptr) ||
        !ebmlNumber(file, offset + idBytes, false, &length, &sizeBytes, &unknown)) {
      return {};
    }
    const uint64_t body = offset + idBytes + sizeBytes;
    if (element == 1) {
      if (id != 0x18538067 || unknown) return {};
      return {length > size - std::min(size, body), size, body + length, "Matroska segment"};
    }
    if (unknown) return {};
    offset = body + length;
  }
  return {};
}

}  // namespace

LayoutCheck checkLayout(const std::string& path) {
  const Reader file(path);
  const uint64_t size = file.size();
  uint8_t head[200] = {};
  if (size < 12 || !file.read(0, head, std::min<uint64_t>(size, sizeof head))) return {};
  if (std::memcmp(head + 4, "ftyp", 4) == 0 || std::memcmp(head + 4, "moov", 4) == 0 ||
      std::memcmp(head + 4, "wide", 4) == 0 || std::memcmp(head + 4, "mdat", 4) == 0) {
    return isoBoxes(file, size);
  }
  if (std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "AVI ", 4) == 0) return riffChunk(file, size);
  if (std::memcmp(head, "\x1a\x45\xdf\xa3", 4) == 0) return matroskaSegment(file, size);
  // MPEG-TS carries no length of its own: a file that ends inside a packet is one that was cut short.
  if (size >= 189 && head[0] == 0x47 && head[188] == 0x47) return {size % 188 != 0, size, 0, "MPEG-TS packet"};
  if (size >= 197 && head[4] == 0x47 && head[196] == 0x47) return {size % 192 != 0, size, 0, "MPEG-TS packet"};
  return {};
}

}  // namespace lumo::tools
