// The engine's log: verbose lines under the tag "qimra".
#pragma once

namespace qimra {

// On Android the line goes to the system log at verbose priority; elsewhere
// to standard error as "V/qimra: <line>". Returns the underlying call's result.
int log_line(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qimra
