#pragma once

#include <functional>

#include "Export.h"

namespace lumo {

// Receives each log line, without a trailing newline. Called on whatever thread logs.
using LogHandler = std::function<void(const char* message)>;

// Formats printf-style and hands the line to the installed handler (stderr by default).
LUMO_EXPORT void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Installs a sink for the library's log lines; an empty handler restores the stderr default.
LUMO_EXPORT void setLogHandler(LogHandler handler);

}  // namespace lumo
