// Checks configuration files line by line with the agent's own tables of keys and kinds.
#include "check_config.h"

#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <set>

#include "check_keywords.h"
#include "check_services.h"
#include "config/tarn_config_files.h"
#include "config/tarn_identity.h"
#include "config/tarn_settings.h"
#include "docker/tarn_docker_core.h"
#include "record/tarn_reason.h"
#include "support/tarn_files.h"
#include "support/tarn_shared_memory.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

constexpr std::size_t max_line = 4095;
constexpr std::size_t max_value = 255;

std::string quoted(std::string_view text) {
    return '"' + std::string(text) + '"';
}

template <typename Row>
const Row* matching(std::span<const Row> rows, std::string_view key) {
    const auto found = std::find_if(rows.begin(), rows.end(),
                                    [key](const Row& row) { return matches(key, row.keyword, row.match); });
    return found != rows.end() ? &*found : nullptr;
}

/// True for a line that is meant as a comment. The agent has no comments: it ignores unknown keys.
bool is_comment(std::string_view key) {
    return key.starts_with('#') || key.starts_with(';') || key.starts_with("//");
}

/// What is wrong with the value of a setting that has been applied; empty when nothing is.
std::string value_fault(const setting& row, std::string_view value) {
    const bool is_number = value.find_first_not_of("0123456789") == std::string_view::npos;
    if (row.form == value_form::number && !is_number) return quoted(value) + " is not a number";
    if (row.keyword == "id" &&
        tarn::to_number<std::int64_t>(value) > std::numeric_limits<std::uint32_t>::max())
        return quoted(value) + " is above 4294967295";
    if (row.keyword == "port" && !(config.port > 0 && config.port <= 65535))
        return quoted(value) + " is not a port";
    if (row.keyword == "interval" && config.interval == 0) return "the interval must be at least 1 second";
    if (row.keyword == "address" && !tarn::parse_ipv4(value))
        return quoted(value) + " is not an IPv4 address; for a name there is \"domain\"";
    if (row.keyword == "proto" && value != "tcp" && value != "udp")
        return quoted(value) + R"( is neither "tcp" nor "udp"; UDP is used)";
    return {};
}

class config_check final {
  public:
    explicit config_check(findings& found) : found_(found) {}

    void check_file(const std::string& path);
    std::vector<checked_counter> take_counters() { return std::move(counters_); }

  private:
    void error(const std::string& text) { found_.error(place(), text); }
    void warning(const std::string& text) { found_.warning(place(), text); }
    [[nodiscard]] std::string place() const { return path_ + ":" + std::to_string(line_); }

    void check_permissions(const struct stat& status);
    void check_line(std::string_view raw);
    void check_rest(const config_line& line);
    void check_setting(const setting& row, const config_line& line);
    void check_counter(const counter_kind& kind, const config_line& line);
    void add_counter(const counter_kind& kind, const config_line& line);
    bool has_whole_text(const checked_counter& one, const config_line& line);

    findings& found_;
    std::string path_;
    int line_ = 0;
    bool has_secrets_ = false;                   ///< in the current file
    std::map<std::string, std::string> places_;  ///< of counters, by kind and id
    std::vector<checked_counter> counters_;
};

void config_check::check_permissions(const struct stat& status) {
    const auto allows = [&status](mode_t group, mode_t others) {
        return (status.st_gid != 0 && (status.st_mode & group) != 0) || (status.st_mode & others) != 0;
    };
    if (status.st_uid != 0 || allows(S_IWGRP, S_IWOTH))
        found_.warning(path_, "others than root can write to it, and so run commands as root");
    if (has_secrets_ && allows(S_IRGRP, S_IROTH))
        found_.warning(path_, "others than root can read the secrets in it; use mode 0600");
}

void config_check::check_file(const std::string& path) {
    path_ = path;
    line_ = 0;
    has_secrets_ = false;
    struct stat status {};
    const bool exists = ::stat(path.c_str(), &status) == 0;
    const tarn::unique_file file(exists && S_ISREG(status.st_mode) ? std::fopen(path.c_str(), "re")
                                                                   : nullptr);
    if (!file) {
        const char* const fault = S_ISDIR(status.st_mode) ? "is a directory" : "is not a regular file";
        found_.error(path, exists && !S_ISREG(status.st_mode) ? fault : std::strerror(errno));
        return;
    }
    std::array<char, max_line + 1> buffer{};
    for (std::string_view raw; read_config_line(*file, buffer, raw);) {
        ++line_;
        check_line(raw);
    }
    check_permissions(status);
}

void config_check::check_line(std::string_view raw) {
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    if (line_ == 1 && raw.starts_with(byte_order_mark)) {
        error("a byte order mark precedes the first key, so the agent ignores that line");
        raw.remove_prefix(byte_order_mark.size());
    }
    const config_line line = split_config_line(raw);
    if (line.key.empty() || is_comment(line.key)) return;
    if (raw.size() == max_line && !raw.ends_with('\n')) warning("truncated to 4095 characters");
    if (raw.ends_with("\r\n")) warning("ends in a carriage return");
    if (const setting* const row = matching(config_settings(), line.key)) {
        check_setting(*row, line);
    } else if (const counter_kind* const kind = matching(counter_kinds(), line.key)) {
        check_counter(*kind, line);
    } else {
        error(unknown_key_message(line));
    }
}

/// Checks that nothing is lost of a value that is one word.
void config_check::check_rest(const config_line& line) {
    const auto end =
        static_cast<std::size_t>(line.full_value.data() + line.full_value.size() - line.text.data());
    const std::string_view word = tarn::scanner(line.after(end)).word();
    if (!word.empty()) warning(quoted(word) + " is left over");
    const std::size_t longest = line.key == "secret" ? max_value + 1 : max_value;
    if (line.full_value.size() > longest)
        warning("the value is truncated to " + std::to_string(longest) + " characters");
}

void config_check::check_setting(const setting& row, const config_line& line) {
    has_secrets_ = has_secrets_ || row.keyword == "secret" || row.keyword == "project_secret";
    if (line.key != row.keyword) warning(quoted(line.key) + " is read as " + quoted(row.keyword));
    if (line.value.empty()) return error(quoted(row.keyword) + " has no value");
    if (line.value.starts_with('=')) return error("no \"=\" between key and value");
    // The operations of these two would create the container table.
    if (row.keyword == "id") {
        config.id = tarn::to_number<std::uint32_t>(line.value);
        config.shm_key = static_cast<key_t>(config.id);
    } else if (row.keyword == "uuid") {
        tarn::copy_terminated(config.uuid, line.value);
        parse_uuid(config.uuid, config.shm_key);
    } else {
        row.apply(line);
    }
    const std::string fault = value_fault(row, line.value);
    if (!fault.empty()) error(fault);
    if (row.form != value_form::rest_of_line) check_rest(line);
}

void config_check::check_counter(const counter_kind& kind, const config_line& line) {
    // A keyword without "_" takes any character in its place.
    const std::string_view after = line.key.substr(kind.keyword.size());
    if (!kind.keyword.ends_with('_') && !after.empty() && !after.starts_with('_'))
        warning(quoted(line.key) + " is read as " + quoted(kind.keyword));
    const tarn_family family = kind.family();
    if (family.count < family.capacity()) return add_counter(kind, line);
    error("ignored: there are " + std::to_string(family.capacity()) + " counters of this family already");
}

/// Reports text that is missing from a line or left over; false when it is missing.
bool config_check::has_whole_text(const checked_counter& one, const config_line& line) {
    const bool is_script = one.kind->family().slots.data() == custom_family().slots.data();
    const std::string reason(tarn::noted_reason());
    if (line.value.empty() || reason == tarn::text_is_missing ||
        (is_script && one.counter->exec[0] == '\0')) {
        error("text is missing: write " + quoted(one.kind->form));
        return false;
    }
    if (!reason.empty()) warning(reason);
    if (one.kind->match == key_match::exact) check_rest(line);
    return true;
}

void config_check::add_counter(const counter_kind& kind, const config_line& line) {
    tarn::clear_reason();
    register_counter(line);
    tarn_mycustom_counter& counter = kind.family().slots[kind.family().count - 1U];
    counter.init(counter);
    std::string name(kind.keyword);
    if (!name.ends_with('_')) name += kind.match == key_match::exact ? " " : "_";
    const checked_counter one{&kind, &counter, name + counter.id, place()};
    if (!has_whole_text(one, line)) return;
    has_secrets_ = has_secrets_ || has_password(one);
    const auto [other, is_new] = places_.emplace(one.name + " " + counter.report, one.place);
    if (!is_new) warning("the same kind and id as in " + other->second);
    found_.note(one.place, one.name + ": " + description(one));
    counters_.push_back(one);
}

/// True when the agent would start with this identity.
bool check_server(const std::string& path, findings& found) {
    if (config.id != 0) return true;
    const std::string_view uuid = tarn::text_of(config.uuid);
    key_t key = 0;
    if (uuid.empty()) {
        found.error(path, R"(neither "id" nor "uuid" is set)");
        return false;
    }
    if (uuid.size() != 36 || parse_uuid(config.uuid, key) == 0)
        found.error(path, "the uuid does not have the form aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee");
    if (config.server_name[0] == '\0') found.error(path, "a uuid also needs \"server_name\"");
    if (config.project_name[0] == '\0') found.error(path, "a uuid also needs \"project_name\"");
    return true;
}

void note_running_agent(const std::string& path, findings& found) {
    const int block = tarn::find_block(tarn_docker_key(), sizeof(tarn_docker_t));
    if (block >= 0 && tarn::is_block_of_other_agent(block))
        found.note(path, "an agent with this identity is running");
}

/// Warns when interfaces and mounts alone may fill a datagram.
void check_report_size(const std::string& path, findings& found) {
    constexpr std::size_t datagram = 65507;
    constexpr std::size_t of_interface = 75;  ///< bytes of an element, with a short name
    constexpr std::size_t of_mount = 120;
    const auto lines = [](const char* file) {
        const auto text = tarn::read_file(file);
        return text ? static_cast<std::size_t>(std::count(text->begin(), text->end(), '\n')) : 0;
    };
    const std::size_t size = of_interface * lines("/proc/net/dev") + of_mount * lines("/proc/self/mounts");
    if (config.proto == IPPROTO_UDP && size > datagram)
        found.warning(path, "a report may exceed the 65507 bytes of a UDP datagram; set \"proto tcp\"");
}

}  // namespace

std::vector<checked_counter> check_config(findings& found) {
    config_check check(found);
    const std::string main_file = config.configFile;
    // Kinds with a client library read their lines only if that is loaded.
    config.mysql_handle = config.postgre_handle = &config;
    check.check_file(main_file);
    for (const std::string& path : extra_config_paths())
        check.check_file(path);
    config.mysql_handle = config.postgre_handle = nullptr;
    if (check_server(main_file, found)) {
        if (config.defaultServerIp[0] == '\0' && config.serverName[0] == '\0')
            found.error(main_file, R"(no collector: set "address" or "domain")");
        check_report_size(main_file, found);
        note_running_agent(main_file, found);
    }
    return check.take_counters();
}
