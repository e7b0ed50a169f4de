// Reads /etc/os-release (lines KEY=value, values quoted or not) or, if that names no known distribution, the
// first line of older release files; and the agent's resident pages and the system's allocated file handles.
#include "host/tarn_os.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <span>

#include "record/tarn_operations.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_os = tarn_mycustom_data_os;

/// A word of a release file and the family that it belongs to.
struct family_word {
    std::string_view word;
    os_family family;
};

/// Values of "ID=".
constexpr family_word ids[] = {{"centos", os_family::redhat},
                               {"fedora", os_family::redhat},
                               {"amzn", os_family::redhat},
                               {"ubuntu", os_family::debian},
                               {"debian", os_family::debian}};

/// First words of the older release files.
constexpr family_word first_words[] = {{"CentOS", os_family::redhat}, {"Fedora", os_family::redhat},
                                       {"Amazon", os_family::redhat}, {"Red", os_family::redhat},
                                       {"Ubuntu", os_family::debian}, {"Debian", os_family::debian}};

/// Names in the release files and the names that are reported for them.
constexpr std::string_view report_names[][2] = {{"Debian GNU/Linux", "Debian"},
                                                {"CentOS Linux", "CentOS"},
                                                {"Amazon Linux AMI", "AmazonLinux"},
                                                {"Amazon", "AmazonLinux"},
                                                {"Red", "RHEL"}};

/// Older release files, in the order in which they are tried. The comma in the last path is intended.
struct release_file {
    const char* path;
    bool debian_too;
};
constexpr release_file release_files[] = {
    {"/etc/redhat-release", false}, {"/etc/issue", true}, {"/etc/issue,net", true}};

/// Maximum length of a line of a release file; a longer one counts as several lines.
constexpr std::size_t line_limit = 1023;
constexpr std::size_t text_limit = 32;

os_family family_of(std::span<const family_word> table, std::string_view word) {
    for (const family_word& row : table) {
        if (row.word == word) return row.family;
    }
    return os_family::unknown;
}

/// Adds what the older files say, as long as the distribution is unknown.
void read_older_files(os_release& release) {
    for (const release_file& file : release_files) {
        if (release.family != os_family::unknown) break;
        if (const auto text = tarn::read_file(file.path)) {
            os_parse_release_line(*text, file.debian_too, release);
        }
    }
}

/// The facts from the release files as they are now.
os_release find_release() {
    constexpr const char* path = "/etc/os-release";
    static tarn::file_watch watch;
    static os_release newest;
    if (watch.has_changed(path)) {
        newest = {};
        if (const auto text = tarn::read_file(path)) {
            os_parse_os_release(*text, newest);
        } else {
            watch = {};  // it may only be that no descriptor is free
        }
    }
    os_release release = newest;
    read_older_files(release);
    return release;
}

/// Resident memory, KiB: the second number of statm, in pages. 0 when the file cannot be read.
std::uint32_t resident_memory() {
    const auto statm = tarn::read_kernel_file("/proc/self/statm");
    if (!statm) return 0;
    tarn::scanner fields(*statm);
    std::uint64_t pages = 0;
    if (fields.skip(1)) fields.number(pages);
    return static_cast<std::uint32_t>(pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024);
}

/// The first number of file-nr. 0 when the file cannot be read.
std::uint64_t allocated_handles() {
    const auto file_nr = tarn::read_kernel_file("/proc/sys/fs/file-nr");
    return file_nr ? tarn::to_number<std::uint64_t>(*file_nr) : 0;
}

}  // namespace

bool isVer(std::string_view text) {
    return text.find_first_not_of("0123456789.") == std::string_view::npos;
}

void os_parse_os_release(std::string_view text, os_release& release) {
    tarn::line_reader lines(text, line_limit);
    for (std::string_view line; lines.next(line);) {
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        const std::string_view key = line.substr(0, equals);
        const std::string_view value = line.substr(equals + 1);
        if (key == "ID") {
            char id[256];
            tarn::strcpyfilter(value, id, '"');
            release.family = family_of(ids, id);
            if (release.family == os_family::unknown) return;
        } else if (key == "NAME") {
            tarn::strcpyfilter(value, release.name, '"');
        } else if (key == "VERSION_ID") {
            tarn::strcpyfilter(value, release.version, '"');
        }
    }
}

void os_parse_release_line(std::string_view text, bool debian_too, os_release& release) {
    tarn::line_reader lines(text, line_limit);
    std::string_view line;
    lines.next(line);
    const std::string_view name = tarn::next_token(line, " ");
    const os_family family = family_of(first_words, name);
    if (family == os_family::unknown || (family == os_family::debian && !debian_too)) return;

    release.family = family;
    tarn::copy_terminated(release.name, name);
    for (auto word = tarn::next_token(line, " "); !word.empty(); word = tarn::next_token(line, " ")) {
        if (isVer(word)) tarn::copy_terminated(release.version, word);
    }
}

std::string_view os_report_name(std::string_view name) {
    for (const auto& [found, reported] : report_names) {
        if (found == name) return reported;
    }
    return name;
}

namespace {

int os_init(tarn_mycustom_counter& counter) {
    tarn::allocate_data<data_os>(counter, "Os");
    return 1;
}

bool os_update(data_os& data) {
    const os_release release = find_release();
    utsname host{};
    ::uname(&host);

    tarn::copy_terminated(data.os_bit, tarn::text_of(host.machine).substr(0, text_limit));
    tarn::copy_terminated(data.os_name, os_report_name(release.name).substr(0, text_limit));
    tarn::copy_terminated(data.os_version, tarn::text_of(release.version).substr(0, text_limit));
    data.tarn_memory_used = resident_memory();
    data.open_files = allocated_handles();
    return true;
}

int os_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    const auto& data = tarn::data_of<data_os>(counter);
    const bool ok = data.ok != 0;
    const auto text = [&](const char* key, const char* value) {
        ok ? tarn::append_text(document, key, value) : tarn::append_no_text(document, key);
    };
    tarn::append_int64(document, "ok", data.ok);
    text("os_bit", data.os_bit);
    text("os_name", data.os_name);
    text("os_version", data.os_version);
    tarn::append_int64(document, "tarn_memory_used", ok ? data.tarn_memory_used : 0);
    tarn::append_int64(document, "open_files", ok ? static_cast<std::int64_t>(data.open_files) : 0);
    return 1;
}

int os_dump(tarn_mycustom_counter& counter) {
    const auto& data = tarn::data_of<data_os>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, data.ok);
    std::printf("\tOS bit = %s\n", data.os_bit);
    std::printf("\tOS name = %s\n", data.os_name);
    std::printf("\tOS version = %s\n", data.os_version);
    std::printf("\tOS open files = %" PRIu64 "\n", data.open_files);
    std::printf("\tOS tarn mem used = %u\n", data.tarn_memory_used);
    return 1;
}

}  // namespace

const tarn_operations os_operations = {
    .init = os_init,
    .update = tarn::sampled<os_update>,
    .tobson = os_tobson,
    .dump = os_dump,
    .free = tarn::free_records<data_os>,
};
