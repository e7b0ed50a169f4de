#pragma once

#include <string_view>

#include "record/tarn_counter.h"

/// Facts about the host and the agent itself.
struct tarn_mycustom_data_os {
    int ok;                    ///< the last update completed
    char os_bit[256];          ///< machine architecture, from uname; at most 32 characters
    char os_name[256];         ///< distribution name, "unknown" when no file tells; at most 32 characters
    char os_version[256];      ///< distribution version, as os_name
    std::uint64_t open_files;  ///< allocated file handles of the system, from /proc/sys/fs/file-nr
    std::uint32_t tarn_memory_used;  ///< the agent's own resident memory, KiB, from /proc/self/statm
};

/// The family only steers which release files are tried.
enum class os_family { unknown, redhat, debian };

/// What the release files tell.
struct os_release {
    os_family family = os_family::unknown;
    char name[256] = "unknown";
    char version[256] = "unknown";
};

/// True for an empty text and for one of nothing but digits and ".".
bool isVer(std::string_view text);

/// Reads /etc/os-release. An ID of an unknown distribution ends the reading there.
void os_parse_os_release(std::string_view text, os_release& release);

/// Reads the first line of a release file ("CentOS release 6.7 (Final)"): the first word must name a known
/// distribution, the last of the others that looks like a version is the version. `debian_too` adds Ubuntu
/// and Debian to the known ones.
void os_parse_release_line(std::string_view text, bool debian_too, os_release& release);

/// The name under which a distribution is reported.
std::string_view os_report_name(std::string_view name);

extern const tarn_operations os_operations;
