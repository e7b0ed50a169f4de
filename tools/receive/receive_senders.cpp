// Anyone can connect: a sender costs one descriptor, for a limited time and with a limited number of bytes.
#include "receive_senders.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "receive_packet.h"
#include "receive_sockets.h"

namespace {

/// A sender must finish its report within this time of connecting.
constexpr auto stall_limit = std::chrono::seconds(10);

/// Bytes of unfinished reports, of all senders together.
constexpr std::size_t max_bytes = std::size_t{64} * 1024 * 1024;

}  // namespace

void tcp_senders::accept(int listener) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    tarn::unique_fd socket(
        ::accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
        if ((errno == EMFILE || errno == ENFILE) && !senders_.empty()) drop_most_idle();
        return;
    }
    if (senders_.size() >= limit_) drop_most_idle();
    const int descriptor = socket.get();
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) return;
    const time_point now = std::chrono::steady_clock::now();
    senders_[descriptor] = {std::move(socket), name_of(peer), now + stall_limit, now, {}};
}

void tcp_senders::remove(int descriptor) {
    const auto found = senders_.find(descriptor);
    bytes_ -= found->second.packet.size();
    senders_.erase(found);
}

/// Idle connections must not keep others out.
void tcp_senders::drop_most_idle() {
    const auto idlest =
        std::ranges::min_element(senders_, {}, [](const auto& one) { return one.second.last_active; });
    reject_(idlest->second.name, "idle", "idle, made way for another");
    remove(idlest->first);
}

/// Large reports that are never finished must not keep others out.
void tcp_senders::drop_largest() {
    const auto largest =
        std::ranges::max_element(senders_, {}, [](const auto& one) { return one.second.packet.size(); });
    reject_(largest->second.name, "unfinished", "too much from senders that do not finish");
    remove(largest->first);
}

void tcp_senders::serve(int descriptor) {
    const auto found = senders_.find(descriptor);
    if (found == senders_.end()) return;
    if (!receive(found->second)) remove(descriptor);
    while (bytes_ > max_bytes)
        drop_largest();
}

/// Receives once from a sender; false when its connection is finished.
bool tcp_senders::receive(sender& from) {
    const ssize_t got = ::recv(from.socket.get(), buffer_.data(), buffer_.size(), 0);
    if (got < 0) {
        if (errno == EAGAIN || errno == EINTR) return true;
        reject_(from.name, "receive error", std::strerror(errno));
        return false;
    }
    if (got == 0) {
        take_(from.name, from.packet);
        return false;
    }
    return keep(from, static_cast<std::size_t>(got));
}

/// Keeps what was received; false when it is too much.
bool tcp_senders::keep(sender& from, std::size_t size) {
    from.last_active = std::chrono::steady_clock::now();
    from.packet.insert(from.packet.end(), buffer_.begin(),
                       buffer_.begin() + static_cast<std::ptrdiff_t>(size));
    bytes_ += size;
    if (from.packet.size() <= max_packet_size) return true;
    reject_(from.name, "too large", "larger than any report");
    return false;
}

/// A report is small: a sender that has not finished in time never will.
void tcp_senders::drop_stalled() {
    const time_point now = std::chrono::steady_clock::now();
    std::erase_if(senders_, [&](const auto& one) {
        const sender& from = one.second;
        if (now < from.deadline) return false;
        reject_(from.name, "stalled", "stalled");
        bytes_ -= from.packet.size();
        return true;
    });
}
