// The trace goes to standard output, in order with the messages that are always printed.
#include "record/tarn_trace.h"

#include <cstdarg>
#include <cstdio>

#include "record/tarn_config.h"

void trace(const char* format, ...) {
    if (config.debug == 0) return;
    std::va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
}
