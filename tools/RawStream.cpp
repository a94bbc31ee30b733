#include "RawStream.h"

#include <cerrno>

#include <unistd.h>

namespace lumo::tools {

ReadResult readFrame(int fd, uint8_t* frame, size_t size, size_t* got, const volatile std::sig_atomic_t* stop) {
  size_t filled = 0;
  while (filled < size) {
    const ssize_t n = ::read(fd, frame + filled, size - filled);
    if (n < 0) {
      *got = filled;
      if (errno == EINTR) {
        if (stop != nullptr && *stop != 0) return ReadResult::Interrupted;
        continue;
      }
      return ReadResult::Error;
    }
    if (n == 0) break;
    filled += static_cast<size_t>(n);
  }
  *got = filled;
  if (filled == size) return ReadResult::Frame;
  return filled == 0 ? ReadResult::End : ReadResult::Truncated;
}

bool writeAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace lumo::tools
