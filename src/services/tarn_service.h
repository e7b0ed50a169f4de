#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "record/tarn_counter.h"
#include "record/tarn_records.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

/// What the service clients share: the reading of their configuration text, the way to their server, reply
/// tables, and the frame of their sub-documents.
namespace tarn {

/// The configuration text of a service, "id user:password@host:port ...", read word by word with its
/// separators turned into blanks.
class service_conf final {
  public:
    service_conf(const tarn_mycustom_counter& counter, std::string_view separators);
    service_conf(const service_conf&) = delete;
    service_conf& operator=(const service_conf&) = delete;
    ~service_conf() = default;

    /// True when the text holds an "@".
    [[nodiscard]] bool has_login() const { return has_login_; }

    /// Reads the next word into a field, cut to it; an empty text when there is none.
    template <std::size_t Size>
    void word(char (&field)[Size]) {
        copy_text(field, words_.word());
    }

    /// Reads user and password; the password is empty when nothing stands between its separators.
    template <std::size_t UserSize, std::size_t PassSize>
    void login(char (&user)[UserSize], char (&pass)[PassSize]) {
        word(user);
        pass[0] = '\0';
        if (!empty_password_) word(pass);
    }

    /// Reads everything before the next such character, blanks included, into a field. When that is nothing,
    /// no more words follow.
    template <std::size_t Size>
    void before(char separator, char (&field)[Size]) {
        copy_text(field, words_.until(separator));
        if (field[0] == '\0') words_ = scanner({});
    }

    /// Reads a decimal number as "%d" does. When there is none it is 0, and no more words follow.
    int number();

    /// Reads the last word of an address: an integer is a port, anything else a socket path, and the other of
    /// the two is 0 or empty.
    template <typename Port, std::size_t Size>
    void port_or_socket(Port& port, char (&socket)[Size]) {
        const std::string_view last = words_.word();
        const bool is_port = is_valid_int(last);
        port = is_port ? static_cast<Port>(to_number<int>(last)) : Port{};
        copy_text(socket, is_port ? std::string_view() : last);
    }

  private:
    std::string text_;
    bool has_login_ = false;
    bool empty_password_ = false;
    scanner words_{{}};
};

/// Takes the container's name out of a host written "[name]"; 1 when there is one, else 0.
int read_container(std::string_view host, char (&name)[128]);

/// The address to connect to: the configured host, or the container's address now. Without one it says so in
/// the kind's name and returns nothing.
std::optional<std::string> service_host(const char* kind, int in_docker, std::string_view container,
                                        std::string_view host);

/// Connects with the time-out of the counters' own connections. A host that is not a dotted IPv4 address is
/// not looked up: the connect fails.
stream connect_service(std::string_view host, int port);

/// Reads once, at most as much as the buffer holds. The reply is a text: it ends at a zero byte. Nothing for
/// a failed read, an expired time-out among them.
std::optional<std::string_view> read_reply(const unique_fd& socket, std::span<char> buffer);

/// Writes a request and reads its reply as read_reply() does. Nothing for a failed write or read.
std::optional<std::string_view> ask_once(const unique_fd& socket, std::string_view request,
                                         std::span<char> buffer);

/// One row of a reply table: a name in the reply and the function that stores what stands behind it.
template <typename Record>
struct reply_row {
    std::string_view name;
    void (*store)(Record& record, std::string_view value);
};

/// Stores a number as "%d" reads it into a member narrower than 64 bits and "%lu" into others. Without a
/// number the member keeps its value.
template <auto Member>
void as_number(record_of<Member>& record, std::string_view value) {
    using Value = std::remove_reference_t<decltype(record.*Member)>;
    std::conditional_t<sizeof(Value) < sizeof(std::uint64_t), int, std::uint64_t> number = 0;
    if (read_number(value, number) > 0) record.*Member = static_cast<Value>(number);
}

/// As as_number(), but without a number the member becomes 0.
template <auto Member>
void as_number_or_0(record_of<Member>& record, std::string_view value) {
    record.*Member = 0;
    as_number<Member>(record, value);
}

/// Stores the value under the first row whose name the line begins with.
template <typename Record, std::size_t Rows>
void store_line(std::string_view line, const reply_row<Record> (&rows)[Rows], Record& record) {
    for (const reply_row<Record>& row : rows) {
        if (!line.starts_with(row.name)) continue;
        row.store(record, line.substr(row.name.size()));
        return;
    }
}

/// Stores the value under the row that bears exactly this name.
template <typename Record, std::size_t Rows>
void store_named(std::string_view name, std::string_view value, const reply_row<Record> (&rows)[Rows],
                 Record& record) {
    for (const reply_row<Record>& row : rows) {
        if (name == row.name) row.store(record, value);
    }
}

/// The key of a service of the shared family: report and id, joined by "_".
std::string labelled_key(const tarn_mycustom_counter& counter);

/// Appends the sub-document of a service with a family of its own, keyed by its id; nothing when the delta is
/// not ok. Returns 1.
template <typename Record, std::size_t Rows>
int append_service(tarn_mycustom_counter& counter, bson_t& document, const bson_row<Record> (&rows)[Rows]) {
    const auto& delta = data_delta_of<Record>(counter);
    if (delta.ok == 0) return 1;
    sub_document service(document, counter.id);
    append_rows(service.document(), rows, delta);
    return 1;
}

/// Appends the sub-document of a service of the shared family, which says its report and id; as above.
template <typename Record, std::size_t Rows>
int append_labelled(tarn_mycustom_counter& counter, bson_t& document, const bson_row<Record> (&rows)[Rows]) {
    const auto& delta = data_delta_of<Record>(counter);
    if (delta.ok == 0) return 1;
    sub_document service(document, labelled_key(counter));
    append_text(service.document(), "report", counter.report);
    append_text(service.document(), "id", counter.id);
    append_rows(service.document(), rows, delta);
    return 1;
}

}  // namespace tarn
