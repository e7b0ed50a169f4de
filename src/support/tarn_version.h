#pragma once

/// The agent's own version, as reported and printed; set by the build system.
inline constexpr const char* tarn_version = TARN_VERSION;

/// The first two numbers of a version.
struct tarn_version_info {
    unsigned int major;
    unsigned int minor;
};

/// Compares by major, then by minor number: -1 when `ver1` is lower, 1 when it is higher, 0 when they are
/// equal.
constexpr int tarn_version_compare(const tarn_version_info& ver1, const tarn_version_info& ver2) {
    if (ver1.major != ver2.major) return ver1.major < ver2.major ? -1 : 1;
    if (ver1.minor != ver2.minor) return ver1.minor < ver2.minor ? -1 : 1;
    return 0;
}
