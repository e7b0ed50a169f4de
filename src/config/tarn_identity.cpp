// The checks of the server's identity, whose failure stops the start.
#include "config/tarn_identity.h"

#include <cstdio>
#include <string_view>

#include "record/tarn_config.h"

namespace {

/// True when a name that must come with a UUID is set; else prints a message.
bool check_name(std::string_view value, const char* key) {
    if (!value.empty()) return true;
    std::printf("ERROR: When using server UUID instead of ID, '%s' must be specified\n", key);
    return false;
}

}  // namespace

int parse_uuid(const char* text, key_t& key) {
    unsigned a = 0, b = 0, c = 0, d = 0, e = 0;
    // "%X" keeps the low 32 bits of a longer group.
    const int read = std::sscanf(text, "%X-%X-%X-%X-%X", &a, &b, &c, &d, &e);  // NOLINT(cert-err34-c)
    key = static_cast<key_t>(a ^ b ^ c ^ d ^ e);
    return read == 5 ? 1 : 0;
}

int check_identity() {
    if (config.id != 0) return 0;
    const std::size_t length = std::string_view(config.uuid).size();
    if (length == 0) {
        std::printf("ERROR: set server id or uuid!\n");
        return 1;
    }
    if (length != 36) {
        std::printf("%s", bad_uuid_message);
        return 1;
    }
    const bool has_server = check_name(config.server_name, "server_name");
    const bool has_project = check_name(config.project_name, "project_name");
    return has_server && has_project ? 0 : 1;
}
