#include "receive_print.h"

#include <bson/bson.h>

#include <array>
#include <cinttypes>
#include <ctime>
#include <memory>
#include <string_view>

namespace {

struct unit_row {
    std::string_view section;  ///< top-level element, or the report name of a service; "" for the top itself
    std::string_view key;
    std::string_view unit;
};

/// Units of the figures that have one. A figure that is not here is a count, a flag or a text.
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

/// True when the elements' keys are "0", "1", ... as those of an array usually are.
bool is_positional(bson_iter_t elements) {
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
    if (BSON_ITER_HOLDS_ARRAY(&element) && is_positional(children)) {
        bson_append_array_begin(&copy, key, -1, &child);
        copy_elements(children, child);
        bson_append_array_end(&copy, &child);
    } else {
        bson_append_document_begin(&copy, key, -1, &child);
        copy_elements(children, child);
        bson_append_document_end(&copy, &child);
    }
}

/// Copies elements, with every array whose elements have names turned into a document.
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

/// Control characters would let a sender write on the reader's terminal.
std::string printable(std::string_view text) {
    std::string clean(text);
    for (char& c : clean) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
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

void lay_out(bson_iter_t elements, const std::string& section, std::size_t depth, std::string& text);

void lay_out_element(const bson_iter_t& element, const std::string& section, std::size_t depth,
                     std::string& text) {
    const std::string_view key = bson_iter_key(&element);
    text.append(2 * depth, ' ').append(printable(key));
    if (is_container(element)) {
        text += '\n';
        bson_iter_t children;
        bson_iter_recurse(&element, &children);
        lay_out(children, depth == 0 ? std::string(key) : section, depth + 1, text);
        return;
    }
    const bool is_time = depth == 0 && key == "time" && BSON_ITER_HOLDS_INT32(&element);
    text.append(2 * depth + key.size() < 24 ? 24 - 2 * depth - key.size() : 1, ' ');
    text += is_time ? time_text(bson_iter_int32(&element)) : value_text(element);
    if (const std::string_view unit = unit_of(section, key); !unit.empty()) text.append(" ").append(unit);
    text += '\n';
}

void lay_out(bson_iter_t elements, const std::string& section, std::size_t depth, std::string& text) {
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
    return json ? json.get() : "";
}

std::string report_as_text(std::span<const std::uint8_t> document) {
    std::string text;
    bson_iter_t elements;
    if (bson_iter_init_from_data(&elements, document.data(), document.size())) lay_out(elements, {}, 0, text);
    return text;
}
