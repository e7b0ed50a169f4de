// Reports as text and as JSON. Their texts come from the network, so control characters are escaped.
#include "receive_print.h"

#include <bson/bson.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>

namespace {

/// The column in which values begin, unless the key is longer.
constexpr std::size_t value_column = 24;

struct unit_row {
    std::string_view section;  ///< top-level element; in "mycustoms" the kind; "" for the top level
    std::string_view key;
    std::string_view unit;
};

/// The units of the figures that have one. A figure not listed is a count, a flag or a text.
constexpr unit_row units[] = {
    {"", "interval", "seconds"},
    {"", "tarn_memory_used", "KiB of memory used by the agent"},
    {"", "open_files", "open file handles"},
    {"", "lavg", "processes on average in the last minute"},
    {"", "ncpu", "CPUs"},
    {"mem", "free", "kB"},
    {"mem", "used", "kB"},
    {"mem", "buffers", "kB"},
    {"mem", "cached", "kB"},
    {"mem", "swapfree", "kB"},
    {"mem", "swapused", "kB"},
    {"mem", "swapin", "pages per second"},
    {"mem", "swapout", "pages per second"},
    {"cpu", "guest", "%"},
    {"cpu", "idle", "%"},
    {"cpu", "iowait", "%"},
    {"cpu", "irq", "%"},
    {"cpu", "nice", "%"},
    {"cpu", "softirq", "%"},
    {"cpu", "steal", "%"},
    {"cpu", "system", "%"},
    {"cpu", "user", "%"},
    {"socket", "tcp_inuse", "TCP sockets in use"},
    {"socket", "tcp_tw", "TCP sockets in TIME-WAIT"},
    {"socket", "tcp_orphan", "TCP sockets without a process"},
    {"socket", "udp_inuse", "UDP sockets in use"},
    {"mounts", "free", "MiB"},
    {"mounts", "total", "MiB"},
    {"mounts", "space_perc", "of the space is free"},
    {"mounts", "inodes_perc", "of the inodes are free"},
    {"disks", "rbytes", "reads per second"},
    {"disks", "wbytes", "writes per second"},
    {"disks", "rticks", "ms per second reading"},
    {"disks", "wticks", "ms per second writing"},
    {"disks", "tticks", "ms per second in I/O"},
    {"disks", "sread", "sectors read per second"},
    {"disks", "swrite", "sectors written per second"},
    {"disks", "avio", "ms per operation"},
    {"disks", "busy", "% busy"},
    {"net", "rbytes", "bit/s received"},
    {"net", "sbytes", "bit/s sent"},
    {"memcaches", "get", "per minute"},
    {"memcaches", "set", "per minute"},
    {"memcaches", "misses", "per minute"},
    {"memcaches", "hits", "per minute"},
    {"memcaches", "evictions", "per minute"},
    {"memcaches", "read", "bytes per minute received"},
    {"memcaches", "write", "bytes per minute sent"},
    {"memcaches", "bytes", "bytes"},
    {"memcaches", "max_bytes", "bytes"},
    {"beanstalks", "put", "jobs per minute"},
    {"beanstalks", "cdelete", "jobs per minute"},
    {"beanstalks", "uptime", "seconds"},
    {"beanstalks", "connections", "change per minute"},
    {"custom", "interval", "seconds"},
    {"mysqls", "insert", "per minute"},
    {"mysqls", "select", "per minute"},
    {"mysqls", "update", "per minute"},
    {"mysqls", "delete", "per minute"},
    {"mysqls", "aborted", "connects per minute"},
    {"mysqls", "innodb_pool", "bytes"},
    {"mysqls", "slow", "per minute"},
    {"mysqls", "innodb_free", "bytes"},
    {"mysqls", "innodb_del", "rows per minute"},
    {"mysqls", "innodb_ins", "rows per minute"},
    {"mysqls", "innodb_read", "rows per minute"},
    {"mysqls", "innodb_updated", "rows per minute"},
    {"mysqls", "behind_master", "seconds"},
    {"redises", "uptime", "seconds"},
    {"redises", "total_connections_received", "per minute"},
    {"redises", "total_commands_processed", "per minute"},
    {"redises", "keyspace_hits", "per minute"},
    {"redises", "keyspace_misses", "per minute"},
    {"redises", "expired_keys", "per minute"},
    {"redises", "evicted_keys", "per minute"},
    {"redises", "master_sync_left_bytes", "bytes"},
    {"redises", "memused", "bytes"},
    {"Nginx", "rps", "requests per second"},
    {"Apache", "tA", "requests per second"},
    {"FPM", "accepted", "connections per second"},
    {"Rabbit", "disk_free", "GB"},
    {"Rabbit", "disk_free_limit", "GB"},
    {"Rabbit", "disk_left", "GB"},
    {"Rabbit", "mem_used", "MB"},
    {"Rabbit", "mem_limit", "MB"},
    {"Rabbit", "mem_left", "MB"},
    {"Rabbit", "mem_used_perc", "%"},
    {"Rabbit", "proc_used_perc", "%"},
    {"Postgre", "cmtd", "per minute"},
    {"Postgre", "rolbck", "per minute"},
    {"Postgre", "actv_con", "change per minute"},
    {"Postgre", "idle_con", "change per minute"},
    {"Postgre", "i_in_tr_con", "change per minute"},
    {"Postgre", "lock_con", "change per minute"},
    {"Postgre", "slo_all", "change per minute"},
    {"Postgre", "slo_dml", "change per minute"},
    {"Postgre", "slo_sel", "change per minute"},
    {"Sphinx", "C", "connections per minute"},
    {"Sphinx", "C_S", "searches per minute"},
    {"Sphinx", "C_U", "updates per minute"},
    {"Sphinx", "Q", "queries per minute"},
    {"Sphinx", "Q_W", "seconds per minute"},
    {"docker", "cpu_usage", "% of one CPU"},
};

std::string_view unit_of(std::string_view section, std::string_view key) {
    for (const unit_row& row : units) {
        if (row.section == section && row.key == key) return row.unit;
    }
    return {};
}

bool is_container(const bson_iter_t& element) {
    return BSON_ITER_HOLDS_DOCUMENT(&element) || BSON_ITER_HOLDS_ARRAY(&element);
}

/// The section of a container's figures. Only the elements of "mycustoms" are of several kinds; each names
/// its kind under "report".
std::string section_within(const bson_iter_t& container, const std::string& parent_section,
                           std::size_t depth) {
    if (depth == 0) return bson_iter_key(&container);
    bson_iter_t kind;
    const bool names_kind = depth == 1 && parent_section == "mycustoms" &&
                            bson_iter_recurse(&container, &kind) && bson_iter_find(&kind, "report") &&
                            BSON_ITER_HOLDS_UTF8(&kind);
    return names_kind ? bson_iter_utf8(&kind, nullptr) : parent_section;
}

/// True when the keys of the container's elements are "0", "1", ... as in an ordinary array.
bool is_positional(const bson_iter_t& container) {
    bson_iter_t elements;
    bson_iter_recurse(&container, &elements);
    for (std::size_t position = 0; bson_iter_next(&elements); ++position) {
        if (bson_iter_key(&elements) != std::to_string(position)) return false;
    }
    return true;
}

void copy_elements(bson_iter_t& elements, bson_t& copy);

void copy_container(const bson_iter_t& element, bson_t& copy) {
    const char* const key = bson_iter_key(&element);
    bson_iter_t children;
    bson_t child;
    bson_iter_recurse(&element, &children);
    if (BSON_ITER_HOLDS_ARRAY(&element) && is_positional(element)) {
        bson_append_array_begin(&copy, key, -1, &child);
        copy_elements(children, child);
        bson_append_array_end(&copy, &child);
    } else {
        bson_append_document_begin(&copy, key, -1, &child);
        copy_elements(children, child);
        bson_append_document_end(&copy, &child);
    }
}

/// Copies elements. An array whose elements have names becomes a document.
void copy_elements(bson_iter_t& elements, bson_t& copy) {
    while (bson_iter_next(&elements)) {
        if (is_container(elements)) {
            copy_container(elements, copy);
        } else {
            bson_append_iter(&copy, nullptr, 0, &elements);
        }
    }
}

std::string time_text(std::int32_t seconds) {
    const std::time_t moment = seconds;
    std::tm utc{};
    ::gmtime_r(&moment, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text.data();
}

/// The length of the control character that a UTF-8 text begins with, 0 if it begins with another character.
std::size_t control_length(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
    // U+0080 to U+009F. A terminal takes U+009B for ESC and "[".
    return byte(0) == 0xC2 && text.size() > 1 && byte(1) < 0xA0 ? 2 : 0;
}

/// Shows each control character as \u00XX, since it could change what the reader's terminal displays. In JSON
/// these are U+007F to U+009F, which libbson does not escape.
std::string printable(std::string_view text) {
    std::string clean;
    while (!text.empty()) {
        const std::size_t length = control_length(text);
        if (length == 0) {
            clean += text.front();
            text.remove_prefix(1);
            continue;
        }
        // With either length the last byte equals the code point.
        std::array<char, 8> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\u%04x",
                      static_cast<unsigned char>(text[length - 1]));
        clean += escaped.data();
        text.remove_prefix(length);
    }
    return clean;
}

std::string value_text(const bson_iter_t& element) {
    std::array<char, 64> text{};
    switch (bson_iter_type(&element)) {
        case BSON_TYPE_INT32:
            return std::to_string(bson_iter_int32(&element));
        case BSON_TYPE_INT64:
            return std::to_string(bson_iter_int64(&element));
        case BSON_TYPE_DOUBLE:
            std::snprintf(text.data(), text.size(), "%.6g", bson_iter_double(&element));
            return text.data();
        case BSON_TYPE_UTF8:
            return printable(bson_iter_utf8(&element, nullptr));
        default:
            return "-";
    }
}

void lay_out(bson_iter_t& elements, const std::string& section, std::size_t depth, std::string& text);

void lay_out_element(const bson_iter_t& element, const std::string& section, std::size_t depth,
                     std::string& text) {
    const std::string_view key = bson_iter_key(&element);
    const std::string start = std::string(2 * depth, ' ') + printable(key);
    text += start;
    if (is_container(element)) {
        text += '\n';
        bson_iter_t children;
        bson_iter_recurse(&element, &children);
        lay_out(children, section_within(element, section, depth), depth + 1, text);
        return;
    }
    const bool is_time = depth == 0 && key == "time" && BSON_ITER_HOLDS_INT32(&element);
    text.append(start.size() < value_column ? value_column - start.size() : 1, ' ');
    text += is_time ? time_text(bson_iter_int32(&element)) : value_text(element);
    if (const std::string_view unit = unit_of(section, key); !unit.empty()) text.append(" ").append(unit);
    text += '\n';
}

void lay_out(bson_iter_t& elements, const std::string& section, std::size_t depth, std::string& text) {
    while (bson_iter_next(&elements))
        lay_out_element(elements, section, depth, text);
}

struct bson_text_free {
    void operator()(char* text) const { bson_free(text); }
};

}  // namespace

std::string report_as_json(std::span<const std::uint8_t> document) {
    bson_iter_t elements;
    if (!bson_iter_init_from_data(&elements, document.data(), document.size())) return {};
    bson_t copy = BSON_INITIALIZER;
    copy_elements(elements, copy);
    const std::unique_ptr<char, bson_text_free> json(bson_as_relaxed_extended_json(&copy, nullptr));
    bson_destroy(&copy);
    return json ? printable(json.get()) : "";
}

std::string report_as_text(std::span<const std::uint8_t> document) {
    std::string text;
    bson_iter_t elements;
    if (bson_iter_init_from_data(&elements, document.data(), document.size())) lay_out(elements, {}, 0, text);
    return text;
}
