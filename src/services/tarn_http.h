#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"

/// What the HTTP services share: credentials, the exchange of the status pages, the reader of JSON bodies. No
/// status code, header or transfer coding is interpreted, and no redirect is followed.
namespace tarn {

/// Base64 of "user:password" for Basic authorization, cut to the field.
void set_credentials(char (&auth64)[1024], std::string_view user, std::string_view pass);

/// The same, but empty when user or password is.
void set_credentials_if_any(char (&auth64)[1024], std::string_view user, std::string_view pass);

/// A body may take this many time-outs altogether.
inline constexpr int body_timeouts = 10;

/// Connects to a service and reports, in the kind's name, what failed.
stream connect_http(const char* kind, std::string_view host, int port);

/// Fetches a status page: one request, one read of at most 16384 bytes, headers included. Nothing when the
/// exchange failed.
std::optional<std::string> fetch_status_page(const char* kind, std::string_view host, int port,
                                             std::string_view request);

/// Sends a request and returns the body of the answer, which is read in steps of 4096 bytes until a shorter
/// one. Nothing, with a message in the kind's name, when the exchange failed; nothing for an answer without a
/// header end, beyond 4 MiB, or not complete by the deadline.
std::optional<std::string> fetch_body(const char* kind, const stream& connection, std::string_view request,
                                      deadline end);

}  // namespace tarn
