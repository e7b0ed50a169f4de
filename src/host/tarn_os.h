#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// Facts about the host and the agent itself.
struct tarn_mycustom_data_os {
    int ok;                    ///< the last update completed
    char os_bit[256];          ///< machine architecture, from uname; at most 32 characters
    char os_name[256];         ///< distribution name, "unknown" when no file has it; at most 32 characters
    char os_version[256];      ///< distribution version, as os_name
    std::uint64_t open_files;  ///< allocated file handles of the system, from /proc/sys/fs/file-nr
    std::uint32_t tarn_memory_used;  ///< the agent's own resident memory, KiB, from /proc/self/statm
};

/// Decides which release files are tried; not reported.
enum class os_family { unknown, redhat, debian };

/// The distribution's facts from the release files.
struct os_release {
    os_family family = os_family::unknown;
    char name[256] = "unknown";
    char version[256] = "unknown";
};

/// True for an empty text and for a text of digits and "." only.
bool isVer(std::string_view text);

/// Parses /etc/os-release. The ID of an unknown distribution ends the parsing.
void os_parse_os_release(std::string_view text, os_release& release);

/// Parses the first line of a release file ("CentOS release 6.7 (Final)"). The first word must name a known
/// distribution; the version is the last of the other words that satisfies isVer(). `debian_too` adds Ubuntu
/// and Debian to the known distributions.
void os_parse_release_line(std::string_view text, bool debian_too, os_release& release);

/// The name under which a distribution is reported.
std::string_view os_report_name(std::string_view name);

extern const tarn_operations os_operations;
