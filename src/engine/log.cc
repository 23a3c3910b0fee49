#include "engine/log.h"

#include <cstdarg>
#include <cstdio>

#ifdef __ANDROID__
#include <android/log.h>
#endif

namespace qimra {

int log_line(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
#ifdef __ANDROID__
    const int result = __android_log_vprint(ANDROID_LOG_VERBOSE, "qimra", fmt, args);
#else
    char line[512];
    vsnprintf(line, sizeof line, fmt, args);
    const int result = fprintf(stderr, "V/qimra: %s\n", line);
#endif
    va_end(args);
    return result;
}

}  // namespace qimra
