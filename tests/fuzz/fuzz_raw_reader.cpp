// Fuzz target: the raw frame reader, fed through a pipe in chunks whose sizes the input chooses.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "RawStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  // First byte: the frame size; second: the chunk size of the writes.
  const size_t frameSize = 1 + data[0] % 64;
  const size_t chunk = 1 + data[1] % 17;
  data += 2;
  size -= 2;
  int fds[2];
  if (::pipe(fds) != 0) return 0;
  // The whole input fits in the pipe's buffer (at most a few kilobytes), so the writes never block.
  for (size_t at = 0; at < size; at += chunk) {
    const size_t n = size - at < chunk ? size - at : chunk;
    if (!lumo::tools::writeAll(fds[1], data + at, n)) break;
  }
  ::close(fds[1]);
  std::vector<uint8_t> frame(frameSize);
  size_t consumed = 0;
  for (;;) {
    size_t got = 0;
    const lumo::tools::ReadResult result = lumo::tools::readFrame(fds[0], frame.data(), frameSize, &got);
    if (got > frameSize || std::memcmp(frame.data(), data + consumed, got) != 0) __builtin_trap();
    consumed += got;
    if (result == lumo::tools::ReadResult::Frame) {
      if (got != frameSize) __builtin_trap();
      continue;
    }
    // The stream ends exactly once: whole frames, then at most one short tail.
    if (consumed != size) __builtin_trap();
    if (result == lumo::tools::ReadResult::End && got != 0) __builtin_trap();
    if (result == lumo::tools::ReadResult::Truncated && (got == 0 || got >= frameSize)) __builtin_trap();
    if (result != lumo::tools::ReadResult::End && result != lumo::tools::ReadResult::Truncated) __builtin_trap();
    break;
  }
  ::close(fds[0]);
  return 0;
}
