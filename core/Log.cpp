#include "Log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace lumo {
namespace {

std::mutex& handlerMutex() {
  static std::mutex mutex;
  return mutex;
}

LogHandler& installedHandler() {
  static LogHandler handler;
  return handler;
}

}  // namespace

void log(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string line;
  if (length > 0) {
    std::vector<char> text(static_cast<size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, args);
    line.assign(text.data(), static_cast<size_t>(length));
  }
  va_end(args);

  std::lock_guard<std::mutex> lock(handlerMutex());
  if (installedHandler()) {
    installedHandler()(line.c_str());
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

void setLogHandler(LogHandler handler) {
  std::lock_guard<std::mutex> lock(handlerMutex());
  installedHandler() = std::move(handler);
}

}  // namespace lumo
