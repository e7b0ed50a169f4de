// Reads the configuration files. A line sets a field, registers a counter or is ignored.
#include "config/tarn_config_files.h"

#include <glob.h>
#include <sys/stat.h>

#include "config/tarn_identity.h"
#include "config/tarn_kinds.h"
#include "config/tarn_settings.h"
#include "record/tarn_config.h"
#include "record/tarn_trace.h"
#include "support/tarn_files.h"

namespace {

/// The most extra files whose paths are kept; further files are still read.
constexpr std::size_t max_extra_paths = 256;

/// Anyone who can write to the file can run commands as root.
void warn_if_writable(const char* path, std::FILE& file) {
    struct stat status {};
    if (::fstat(::fileno(&file), &status) != 0) return;
    const bool by_group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    if (status.st_uid != 0 || by_group || (status.st_mode & S_IWOTH) != 0)
        std::printf("WARNING: others than root can write to config file %s\n", path);
}

/// Reads one configuration file: a key and a value per line, no comments, unknown keys ignored. Returns 1
/// when the file is missing, a UUID is malformed, or the configuration so far does not identify the server.
int parse_config_file(const char* path) {
    trace("Reading config file %s\n", path);
    const tarn::unique_file file(std::fopen(path, "re"));
    if (!file) {
        std::printf("Config file %s not found!\n", path);
        return 1;
    }
    warn_if_writable(path, *file);
    std::array<char, 4096> buffer{};
    for (std::string_view raw; read_config_line(*file, buffer, raw);) {
        const config_line line = split_config_line(raw);
        if (line.key.empty()) continue;
        const line_result result = apply_setting(line);
        if (result == line_result::malformed) return 1;
        if (result == line_result::unknown) register_counter(line);
    }
    return check_identity();
}

}  // namespace

bool read_config_line(std::FILE& file, std::array<char, 4096>& buffer, std::string_view& line) {
    if (std::fgets(buffer.data(), static_cast<int>(buffer.size()), &file) == nullptr) return false;
    line = buffer.data();
    if (line.size() + 1 == buffer.size() && !line.ends_with('\n')) {
        for (int c = std::fgetc(&file); c != EOF && c != '\n';)
            c = std::fgetc(&file);
    }
    return true;
}

std::vector<std::string> extra_config_paths() {
    glob_t found{};
    std::vector<std::string> paths;
    if (::glob(config.extConfigPattern, 0, nullptr, &found) == 0)
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    ::globfree(&found);
    return paths;
}

int parse_config() {
    config.id = 0;
    config.extConfigFiles.clear();
    if (const int result = parse_config_file(config.configFile); result != 0) return result;

    for (const std::string& path : extra_config_paths()) {
        if (const int result = parse_config_file(path.c_str()); result != 0) return result;
        if (config.extConfigFiles.size() < max_extra_paths) config.extConfigFiles.emplace_back(path);
    }
    return 0;
}
