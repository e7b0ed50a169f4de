#include "config/tarn_config_files.h"

#include <glob.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <span>

#include "config/tarn_kinds.h"
#include "config/tarn_settings.h"
#include "record/tarn_config.h"
#include "record/tarn_trace.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

/// Extra files whose paths are kept; those beyond are read all the same.
constexpr std::size_t extra_files_kept = 256;

/// Reads one line, at most 4095 characters of it; the rest of a longer one is dropped, and so is what follows
/// a zero byte. False at the end of the file.
bool read_line(std::FILE& file, std::array<char, 4096>& buffer, std::string_view& line) {
    if (std::fgets(buffer.data(), static_cast<int>(buffer.size()), &file) == nullptr) return false;
    line = buffer.data();
    if (line.size() + 1 == buffer.size() && !line.ends_with('\n')) {
        for (int c = std::fgetc(&file); c != EOF && c != '\n';)
            c = std::fgetc(&file);
    }
    return true;
}

/// Whoever can write into the file can run commands as root.
void warn_if_writable(const char* path, std::FILE& file) {
    struct stat status {};
    if (::fstat(::fileno(&file), &status) != 0) return;
    const bool by_group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    if (status.st_uid != 0 || by_group || (status.st_mode & S_IWOTH) != 0)
        std::printf("WARNING: others than root can write to config file %s\n", path);
}

/// A server is known by its id, or by a UUID together with the names of the server and its project.
int check_identity() {
    if (config.id != 0) return 0;
    const std::size_t length = std::strlen(config.uuid);
    if (length == 0) {
        std::printf("ERROR: set server id or uuid!\n");
        return 1;
    }
    if (length != 36) {
        std::printf("ERROR: UUID must be in aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee format\n");
        return 1;
    }
    int result = 0;
    if (config.server_name[0] == '\0') {
        std::printf("ERROR: When using server UUID instead of ID, 'server_name' must be specified\n");
        result = 1;
    }
    if (config.project_name[0] == '\0') {
        std::printf("ERROR: When using server UUID instead of ID, 'project_name' must be specified\n");
        result = 1;
    }
    return result;
}

/// Owns what glob() found.
class glob_result final {
  public:
    explicit glob_result(const char* pattern) : found_(::glob(pattern, 0, nullptr, &glob_) == 0) {}
    ~glob_result() { ::globfree(&glob_); }
    glob_result(const glob_result&) = delete;
    glob_result& operator=(const glob_result&) = delete;

    [[nodiscard]] std::span<char* const> paths() const {
        return found_ ? std::span<char* const>(glob_.gl_pathv, glob_.gl_pathc) : std::span<char* const>();
    }

  private:
    glob_t glob_{};
    bool found_;
};

}  // namespace

int parse_uuid(const char* text, key_t& key) {
    unsigned a = 0, b = 0, c = 0, d = 0, e = 0;
    // "%X" reads a longer group modulo 2^32, which is what the key is made of.
    const int read = std::sscanf(text, "%X-%X-%X-%X-%X", &a, &b, &c, &d, &e);  // NOLINT(cert-err34-c)
    key = static_cast<key_t>(a ^ b ^ c ^ d ^ e);
    return read == 5 ? 1 : 0;
}

int parse_config_file(const char* path) {
    trace("Reading config file %s\n", path);
    const tarn::unique_file file(std::fopen(path, "re"));
    if (!file) {
        std::printf("Config file %s not found!\n", path);
        return 1;
    }
    warn_if_writable(path, *file);
    std::array<char, 4096> buffer{};
    for (std::string_view raw; read_line(*file, buffer, raw);) {
        const config_line line = split_config_line(raw);
        if (line.key.empty()) continue;
        const line_result result = apply_setting(line);
        if (result == line_result::malformed) return 1;
        if (result == line_result::unknown) register_counter(line);
    }
    return check_identity();
}

int parse_config() {
    config.id = 0;
    config.extConfigFiles.clear();
    if (const int result = parse_config_file(config.configFile); result != 0) return result;

    const glob_result extra(config.extConfigPattern);
    for (const char* const path : extra.paths()) {
        if (const int result = parse_config_file(path); result != 0) return result;
        if (config.extConfigFiles.size() < extra_files_kept) config.extConfigFiles.emplace_back(path);
    }
    return 0;
}
