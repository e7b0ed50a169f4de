#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// How a report came.
struct arrival {
    std::string sender;  ///< address and port
    std::chrono::system_clock::time_point time;
    const char* signature;  ///< "good", "not checked" or "not signed"
};

/// A text in which each control character is replaced with \u00XX.
std::string printable(std::string_view text);

/// A time as "2026-11-23T09:30:00.123Z".
std::string time_text(std::chrono::system_clock::time_point moment);

/// The report as one line of JSON. An array whose elements have names is written as an object, so that the
/// names are not lost.
std::string report_as_json(std::span<const std::uint8_t> document);

/// Sender, arrival and report as one line of JSON that any reader understands: {"sender":"192.0.2.7:40952",
/// "arrived":"2026-11-23T09:30:00.123Z","signature":"good","report":{...}}. The report's families are always
/// objects, and a figure that is not a finite number is null.
std::string report_as_json_line(const arrival& from, std::span<const std::uint8_t> document);

/// The report laid out for a reader, one figure per line with its unit.
std::string report_as_text(std::span<const std::uint8_t> document);
