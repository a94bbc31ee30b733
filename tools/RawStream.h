#pragma once

#include <cstddef>
#include <cstdint>

namespace lumo::tools {

enum class ReadResult { Frame, End, Truncated, Error };

// Reads exactly `size` bytes from a descriptor, across as many short reads as a pipe delivers.
// End: nothing was left; Truncated: the stream ended inside the frame (`*got` bytes arrived).
ReadResult readFrame(int fd, uint8_t* frame, size_t size, size_t* got);

// Writes all bytes; false on an error (errno set, EPIPE for a closed pipe).
bool writeAll(int fd, const uint8_t* data, size_t size);

}  // namespace lumo::tools
