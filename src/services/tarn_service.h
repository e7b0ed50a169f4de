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

/// What the service clients share: the reading of their configuration text and the way to their server.
namespace tarn {

/// The configuration text of a service, "id user:password@host:port ...", read word by word with its
/// separators replaced by blanks.
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
        copy_terminated(field, words_.word());
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
        copy_terminated(field, words_.until(separator));
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
        copy_terminated(socket, is_port ? std::string_view() : last);
    }

  private:
    std::string text_;
    bool has_login_ = false;
    bool empty_password_ = false;
    scanner words_{{}};
};

/// Takes the container's name out of a host written "[name]"; 1 when there is one, else 0.
int read_container(std::string_view host, char (&name)[128]);

/// The address to connect to: the configured host, or the container's address now. When there is none, prints
/// so in the kind's name and returns nothing.
std::optional<std::string> service_host(const char* kind, int in_docker, std::string_view container,
                                        std::string_view host);

/// The host as a client library is to get it. A name is looked up here, because a library would wait for a
/// name server without a limit; one that has no IPv4 address is left to the library. Nothing when the look-up
/// took too long.
std::optional<std::string> looked_up_host(const std::string& host);

/// Connects to a TCP service; every step has the time-out `counter_tcp_to`, within the budget of the cycle. A
/// host that is not a dotted IPv4 address is not looked up: the connect fails.
stream connect_service(std::string_view host, int port);

/// Connects to a Unix-domain socket, as connect_service().
stream connect_service_path(std::string_view path);

/// send_once() and receive_once() on a service's connection.
ssize_t send_request(const stream& connection, std::string_view request);
ssize_t receive_reply(const stream& connection, std::span<char> buffer);

/// By when an answer of many reads must be complete: so many time-outs from now, and within the budget.
deadline answer_deadline(int timeouts);

/// Reads once, at most as much as the buffer holds. The reply is a text: it ends at a zero byte. Nothing for
/// a failed read, an expired time-out among them.
std::optional<std::string_view> read_reply(const stream& connection, std::span<char> buffer);

/// Writes a request and reads its reply as read_reply() does. Nothing for a failed write or read.
std::optional<std::string_view> ask_once(const stream& connection, std::string_view request,
                                         std::span<char> buffer);

}  // namespace tarn
