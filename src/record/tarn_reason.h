#pragma once

#include <string_view>

/// Why a service could not be read, in a few words for the administrator. Whoever parses a configuration text
/// or talks to a service notes what goes wrong; tarn-check shows it. The agent itself never clears the
/// reason, so all notes but its first cost it one comparison.
namespace tarn {

/// Notes a reason, formatted as by printf and truncated to 255 bytes. Only the first one since clear_reason()
/// is kept, because later ones are its consequences.
[[gnu::format(printf, 1, 2)]] void note_reason(const char* format, ...);

/// Notes a wait that took this many seconds.
void note_timeout(int seconds);

/// Notes the text of a system error, such as "connection refused", followed by `where`.
void note_system_error(int error, std::string_view where = {});

/// Empty when nothing has been noted.
std::string_view noted_reason();

/// The reason of a configuration text that ends too early.
inline constexpr std::string_view text_is_missing = "text is missing";

void clear_reason();

}  // namespace tarn
