#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"

/// Shared by the HTTP services: credentials, fetching a status page, fetching a JSON body. Status codes,
/// headers and transfer codings are not interpreted, and redirects are not followed.
namespace tarn {

/// Stores Base64 of "user:password" for Basic authorization, truncated to the field.
void set_credentials(char (&auth64)[1024], std::string_view user, std::string_view pass);

/// As set_credentials(), but stores an empty text when user or password is empty.
void set_credentials_if_any(char (&auth64)[1024], std::string_view user, std::string_view pass);

/// Time limit of a whole body, in multiples of `counter_tcp_to`.
inline constexpr int body_timeouts = 10;

/// Connects to a service. Prints a message, with the name of the kind, when that fails.
stream connect_http(const char* kind, std::string_view host, int port);

/// Fetches a status page: one request, one read of at most 16384 bytes, headers included. Returns nothing
/// when the exchange fails. A page without the text `expected` is returned, and a reason is noted.
std::optional<std::string> fetch_status_page(const char* kind, std::string_view host, int port,
                                             std::string_view request, std::string_view expected);

/// Sends a request and returns the body of the answer. The answer is read in steps of 4096 bytes; a shorter
/// read ends it. Returns nothing, with a message, when the exchange fails, and nothing for an answer that has
/// no header end, exceeds 4 MiB or is not complete by the deadline.
std::optional<std::string> fetch_body(const char* kind, const stream& connection, std::string_view request,
                                      deadline end);

}  // namespace tarn
