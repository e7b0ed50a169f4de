// The reason is a text in static memory, so that noting one never fails.
#include "record/tarn_reason.h"

#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace tarn {
namespace {

std::array<char, 256> noted{};

}  // namespace

void note_reason(const char* format, ...) {
    if (noted[0] != '\0') return;
    va_list values;
    va_start(values, format);
    std::vsnprintf(noted.data(), noted.size(), format, values);
    va_end(values);
}

void note_timeout(int seconds) {
    note_reason("timed out after %d s", seconds);
}

void note_system_error(int error, std::string_view where) {
    if (noted[0] != '\0') return;
    std::string text = std::strerror(error);
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    note_reason("%s%s%.*s", text.c_str(), where.empty() ? "" : " ", static_cast<int>(where.size()),
                where.data());
}

std::string_view noted_reason() {
    return noted.data();
}

void clear_reason() {
    noted[0] = '\0';
}

}  // namespace tarn
