#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "record/tarn_counter.h"
#include "record/tarn_figures.h"
#include "record/tarn_operations.h"
#include "record/tarn_records.h"
#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

/// Shared by the service clients: parsing of their configuration text and connections to their servers.
namespace tarn {

/// Reads the configuration text of a service, "id user:password@host:port ...", word by word. The separators
/// are replaced by blanks first.
class service_conf final {
  public:
    service_conf(const tarn_mycustom_counter& counter, std::string_view separators);
    service_conf(const service_conf&) = delete;
    service_conf& operator=(const service_conf&) = delete;
    /// Notes a reason when text is missing or left over.
    ~service_conf();

    /// True when the text holds an "@".
    [[nodiscard]] bool has_login() const { return has_login_; }

    /// Reads the next word into a field, truncated to fit; the field is empty when there is none.
    template <std::size_t Size>
    void word(char (&field)[Size]) {
        copy_terminated(field, words_.word());
        is_incomplete_ = is_incomplete_ || field[0] == '\0';
    }

    /// Reads user and password. The password is empty when its two separators are adjacent.
    template <std::size_t UserSize, std::size_t PassSize>
    void login(char (&user)[UserSize], char (&pass)[PassSize]) {
        word(user);
        pass[0] = '\0';
        if (!empty_password_) word(pass);
    }

    /// Reads everything up to the next separator, blanks included, into a field. When that is nothing, no
    /// further words are read.
    template <std::size_t Size>
    void until(char separator, char (&field)[Size]) {
        copy_terminated(field, words_.until(separator));
        if (field[0] != '\0') return;
        is_incomplete_ = true;
        words_ = scanner({});
    }

    /// Reads a decimal number as "%d" does. Returns 0 when there is none; no further words are read then.
    int number();

    /// Reads the last word of an address. An integer is the port, and `socket` becomes empty; anything else
    /// is the socket path, and `port` becomes 0.
    template <typename Port, std::size_t Size>
    void port_or_socket(Port& port, char (&socket)[Size]) {
        const std::string_view last = words_.word();
        const bool is_port = is_valid_int(last);
        is_incomplete_ = is_incomplete_ || last.empty();
        port = is_port ? static_cast<Port>(to_number<int>(last)) : Port{};
        copy_terminated(socket, is_port ? std::string_view() : last);
    }

  private:
    std::string text_;
    bool has_login_ = false;
    bool empty_password_ = false;
    bool is_incomplete_ = false;
    scanner words_{{}};
};

/// Copies the container's name out of a host written as "[name]". Returns 1 when there is one, else 0.
int read_container(std::string_view host, char (&name)[128]);

/// The address to connect to: the configured host, or the current address of the container. Prints a message
/// that names the kind, and returns nothing, when the container has no address.
std::optional<std::string> service_host(const char* kind, int in_docker, std::string_view container,
                                        std::string_view host);

/// The host to pass to a client library. A name is resolved here, because the library would wait for a name
/// server without a limit; a name without an IPv4 address is returned unchanged. Returns nothing when the
/// look-up timed out.
std::optional<std::string> resolved_host(const std::string& host);

/// Connects to a TCP service. Each step has the time-out `counter_tcp_to`, within the budget of the cycle.
/// Names are not resolved: a host that is not a dotted IPv4 address fails to connect.
stream connect_service(std::string_view host, int port);

/// Connects to a Unix-domain socket with the limits of connect_service().
stream connect_service_path(std::string_view path);

/// send_once() and receive_once() that also report a time-out to the budget of the cycle.
ssize_t send_request(const stream& connection, std::string_view request);
ssize_t receive_reply(const stream& connection, std::span<char> buffer);

/// The deadline of an answer that takes several reads: `timeouts` times `counter_tcp_to` from now, within the
/// budget of the cycle.
deadline answer_deadline(int timeouts);

/// Reads once, up to the size of the buffer. The reply is a text that ends at the first zero byte. Returns
/// nothing when the read fails or times out.
std::optional<std::string_view> read_reply(const stream& connection, std::span<char> buffer);

/// Notes the error of a client library as a reason: the first line, or that the login was rejected.
void note_library_error(std::string_view text);

/// Notes a reason for a page of statistics that lacks this text, such as an error page.
void expect_text(std::string_view page, std::string_view text);

/// Notes a reason for a reply that does not begin with this text, such as an error.
void expect_start(std::string_view reply, std::string_view start);

/// Writes a request and reads its reply as read_reply() does. Returns nothing when either fails.
std::optional<std::string_view> ask_once(const stream& connection, std::string_view request,
                                         std::span<char> buffer);

}  // namespace tarn
