#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"

/// Connects to the engine's socket. On failure prints a message and returns a stream that is not open. Each
/// wait on the stream is limited to one second, and ends by `latest`.
tarn::stream tarn_docker_connect(std::string_view sock_path, tarn::deadline latest);

/// The request for a path of the engine's API: "GET ", the path in three parts, " HTTP/1.0" and two bare line
/// feeds. Returns nothing when the path is too long, or when the name is not a letter or digit followed by
/// letters, digits, "_", "." and "-": any other name could let a local user choose the request.
std::optional<std::string> tarn_docker_request(std::string_view prefix, std::string_view name,
                                               std::string_view suffix);

/// Sends one request and returns the whole answer. All waits together take at most one second and end by
/// `latest`; what has arrived by then is the answer. Returns nothing on failure, after printing a message,
/// and for an answer beyond 4 MiB.
std::optional<std::string> tarn_docker_cmd(const tarn::stream& connection, std::string_view request,
                                           tarn::deadline latest);
