#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"

/// A stream to the engine's socket, not open, with a message, when that fails. Each wait on it is bounded by
/// one second.
tarn::stream tarn_docker_connect(std::string_view sock_path);

/// The request for a path of the engine's API, "GET PATH HTTP/1.0" and two bare line feeds. Nothing for a
/// path that does not fit, and for a name other than a letter or digit followed by letters, digits, "_", "."
/// and "-": any other could be a request of a local user's choice.
std::optional<std::string> tarn_docker_request(std::string_view before, std::string_view name,
                                               std::string_view after);

/// Sends one request and returns the whole answer. All waits together take at most a second and end before
/// the deadline; what has come by then is the answer. Nothing for a failure, whose message has been printed,
/// and beyond 4 MiB.
std::optional<std::string> tarn_docker_cmd(const tarn::stream& connection, std::string_view request,
                                           tarn::deadline latest);
