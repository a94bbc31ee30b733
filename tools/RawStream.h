#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>

namespace lumo::tools {

enum class ReadResult { Frame, End, Truncated, Error, Interrupted };

// Reads exactly `size` bytes from a descriptor, across as many short reads as a pipe delivers.
// End: nothing was left; Truncated: the stream ended inside the frame (`*got` bytes arrived).
// Interrupted: a signal arrived while `*stop` was set (a read interrupted otherwise is retried).
ReadResult readFrame(int fd, uint8_t* frame, size_t size, size_t* got,
                     const volatile std::sig_atomic_t* stop = nullptr);

// Writes all bytes; false on an error (errno set, EPIPE for a closed pipe).
bool writeAll(int fd, const uint8_t* data, size_t size);

}  // namespace lumo::tools
