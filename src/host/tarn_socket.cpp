// Reads /proc/net/sockstat: "TCP: inuse 12 orphan 3 tw 40 alloc 20 mem 5" and "UDP: inuse 4 mem 2".
#include "host/tarn_socket.h"

#include <cstdio>

#include "record/tarn_operations.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using data_socket = tarn_mycustom_data_socket;
using tarn::bson::int32;
using enum tarn::rule;

/// The numbers of a line in the kernel's order.
constexpr std::uint32_t data_socket::*tcp_fields[] = {&data_socket::tcp_inuse, &data_socket::tcp_orphan,
                                                      &data_socket::tcp_tw};
constexpr std::uint32_t data_socket::*udp_fields[] = {&data_socket::udp_inuse};

constexpr auto figures = tarn::figures_of<data_socket>({
    tarn::reported<&data_socket::ok>("ok"),
    tarn::reported<&data_socket::tcp_inuse, as_read, int32>("tcp_inuse"),
    tarn::reported<&data_socket::tcp_tw, as_read, int32>("tcp_tw"),
    tarn::reported<&data_socket::tcp_orphan, as_read, int32>("tcp_orphan"),
    tarn::reported<&data_socket::udp_inuse, as_read, int32>("udp_inuse"),
});

/// Reads a line "LABEL: name number name number ...", one number for each member.
template <std::size_t Members>
void parse_line(std::string_view line, std::uint32_t data_socket::*const (&members)[Members],
                data_socket& data) {
    tarn::scanner fields(line);
    fields.skip(1);
    for (const auto member : members) {
        if (!fields.skip(1) || !fields.number(data.*member)) return;
    }
}

/// A count that is missing from the text keeps its value.
void parse_sockstat(std::string_view sockstat, data_socket& data) {
    tarn::line_reader lines(sockstat);
    for (std::string_view line; lines.next(line);) {
        if (line.starts_with("TCP:")) parse_line(line, tcp_fields, data);
        if (line.starts_with("UDP:")) parse_line(line, udp_fields, data);
    }
}

int socket_init(tarn_mycustom_counter& counter) {
    tarn::allocate_data<data_socket>(counter, "socket");
    return 1;
}

bool socket_update(data_socket& data) {
    const auto sockstat = tarn::read_kernel_file("/proc/net/sockstat");
    if (sockstat) parse_sockstat(*sockstat, data);
    return sockstat.has_value();
}

int socket_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    tarn::append_section<figures>(document, "socket", tarn::data_of<data_socket>(counter));
    return 1;
}

int socket_dump(tarn_mycustom_counter& counter) {
    const auto& data = tarn::data_of<data_socket>(counter);
    std::printf("MyCustom %s report %s(%d) :\n", counter.report, counter.id, data.ok);
    std::printf("\ttcp_inuse = %u\n", data.tcp_inuse);
    std::printf("\ttcp_tw = %u\n", data.tcp_tw);
    std::printf("\ttcp_orphan = %u\n", data.tcp_orphan);
    std::printf("\tudp_inuse = %u\n", data.udp_inuse);
    return 1;
}

}  // namespace

const tarn_operations socket_operations = {
    .init = socket_init,
    .update = tarn::sampled<socket_update>,
    .tobson = socket_tobson,
    .dump = socket_dump,
    .free = tarn::free_records<data_socket>,
};
