#pragma once

#include <string>
#include <string_view>

namespace tarn {

/// Base64 of a text: standard alphabet, "=" padding, a line feed after every 72 characters and none at the
/// end.
std::string base64(std::string_view text);

}  // namespace tarn
