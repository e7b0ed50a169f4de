// The keys that set a field of the configuration record, one row each.
#include <netinet/in.h>

#include <cstdio>

#include "config/tarn_identity.h"
#include "config/tarn_settings.h"
#include "docker/tarn_docker_core.h"
#include "record/tarn_config.h"
#include "support/tarn_text.h"

namespace {

/// A base-10 number that stops at the first non-digit; 0 for a text without digits.
template <auto Field>
line_result number(const config_line& line) {
    using Value = std::remove_reference_t<decltype(config.*Field)>;
    config.*Field = static_cast<Value>(tarn::to_number<std::int64_t>(line.value));
    return line_result::taken;
}

/// A text, truncated to fit its field with a terminator.
template <auto Field>
line_result text(const config_line& line) {
    tarn::copy_terminated(config.*Field, line.value);
    return line_result::taken;
}

/// A text that may fill its field, then without a terminator.
template <auto Field>
line_result padded_text(const config_line& line) {
    tarn::copy_padded(config.*Field, line.value);
    return line_result::taken;
}

/// A secret may be longer than other values: 256 characters, which fill its field.
line_result secret(const config_line& line) {
    tarn::copy_padded(config.secret, line.full_value);
    return line_result::taken;
}

/// A text that is appended to a list; a full list ignores it.
template <auto List, auto Count>
line_result list_entry(const config_line& line) {
    if (config.*Count < static_cast<int>(std::size(config.*List))) {
        tarn::copy_terminated((config.*List)[config.*Count], line.value);
        ++(config.*Count);
    }
    return line_result::taken;
}

/// Accepts only a number. A user name would read as 0, which is root, so the default is kept instead.
line_result default_user(const config_line& line) {
    if (tarn::read_number(line.value, config.custom_default_uid) == 0) {
        std::printf("custom_uid %.*s is not a number, scripts run as user %d\n",
                    static_cast<int>(line.value.size()), line.value.data(), config.custom_default_uid);
    }
    return line_result::taken;
}

/// Creates the container table once the server's id is known.
void start_docker() {
    docker_init(config.docker);
    if (config.docker != nullptr && !config.docker_sock_path.empty()) {
        docker_set_socket(*config.docker, config.docker_sock_path);
    }
}

line_result server_id(const config_line& line) {
    number<&tarn_config::id>(line);
    config.shm_key = static_cast<key_t>(config.id);
    start_docker();
    return line_result::taken;
}

line_result server_uuid(const config_line& line) {
    tarn::copy_terminated(config.uuid, line.value);
    if (parse_uuid(config.uuid, config.shm_key) == 0) {
        std::printf("%s", bad_uuid_message);
        return line_result::malformed;
    }
    start_docker();
    return line_result::taken;
}

line_result transport(const config_line& line) {
    if (line.value == "tcp") config.proto = IPPROTO_TCP;
    return line_result::taken;
}

/// The path is the rest of the line after one separator, so it may contain blanks.
line_result docker_socket(const config_line& line) {
    config.docker_sock_path = tarn::remove_newline_ch(line.after(line.key.size() + 1));
    if (config.docker != nullptr) docker_set_socket(*config.docker, config.docker_sock_path);
    std::printf("Docker socket '%s'\n", config.docker_sock_path.c_str());
    return line_result::taken;
}

constexpr setting settings[] = {
    {"id", key_match::exact, server_id, value_form::number},
    {"uuid", key_match::exact, server_uuid},
    {"server_name", key_match::exact, text<&tarn_config::server_name>},
    {"project_name", key_match::exact, text<&tarn_config::project_name>},
    {"project_secret", key_match::exact, text<&tarn_config::project_secret>},
    {"proto", key_match::exact, transport},
    {"address", key_match::exact, text<&tarn_config::defaultServerIp>},
    {"domain", key_match::exact, text<&tarn_config::serverName>},
    {"interval", key_match::exact, number<&tarn_config::interval>, value_form::number},
    {"port", key_match::exact, number<&tarn_config::port>, value_form::number},
    {"nameserver", key_match::exact, list_entry<&tarn_config::dns_servers, &tarn_config::dns_servers_count>},
    {"secret", key_match::exact, secret},
    {"mysql_connect_to", key_match::exact, number<&tarn_config::mysql_connect_to>, value_form::number},
    {"mysql_read_to", key_match::exact, number<&tarn_config::mysql_read_to>, value_form::number},
    {"mysql_write_to", key_match::exact, number<&tarn_config::mysql_write_to>, value_form::number},
    {"server_tcp_to", key_match::exact, number<&tarn_config::server_tcp_to>, value_form::number},
    {"counter_tcp_to", key_match::exact, number<&tarn_config::counter_tcp_to>, value_form::number},
    {"slow_query_sec", key_match::exact, padded_text<&tarn_config::slow_query_sec>},
    {"custom_counters_delimiter", key_match::prefix, number<&tarn_config::custom_counters_delimiter>,
     value_form::number},
    {"custom_uid", key_match::prefix, default_user, value_form::number},
    {"custom_gid", key_match::prefix, number<&tarn_config::custom_default_gid>, value_form::number},
    {"mysql_lib", key_match::exact, padded_text<&tarn_config::mysql_lib>},
    {"slashedApache", key_match::exact, number<&tarn_config::apacheSlashed>, value_form::number},
    {"postgre_lib", key_match::exact, padded_text<&tarn_config::postgre_lib>},
    {"docker_sock", key_match::exact, docker_socket, value_form::rest_of_line},
    {"exclude_tmpfs", key_match::exact, number<&tarn_config::exclude_tmpfs>, value_form::number},
    {"exclude_mount", key_match::exact,
     list_entry<&tarn_config::path_exclude_masks, &tarn_config::path_exclude_masks_count>},
    {"exclude_interfaces", key_match::exact,
     list_entry<&tarn_config::interface_exclude_masks, &tarn_config::interface_exclude_masks_count>},
};

}  // namespace

std::span<const setting> config_settings() {
    return settings;
}

line_result apply_setting(const config_line& line) {
    for (const setting& row : settings) {
        if (matches(line.key, row.keyword, row.match)) return row.apply(line);
    }
    return line_result::unknown;
}
