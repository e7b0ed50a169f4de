// The FastCGI protocol: a record is an eight-byte header, content and padding. The client sends three records
// in one write and reads the records of the answer.
#include "services/tarn_fcgi.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "record/tarn_budget.h"
#include "services/tarn_service.h"

namespace {

constexpr std::uint8_t protocol_version = 1;
constexpr std::uint8_t type_begin_request = 1;
constexpr std::uint8_t type_parameters = 4;
constexpr std::uint8_t role_responder = 1;

/// Limit of an answer, bytes; a status page is a few hundred.
constexpr std::size_t max_answer = 4999;

fcgi_header create_header(std::uint8_t type, std::uint16_t request_id, std::size_t content_len) {
    fcgi_header header;
    header.version = protocol_version;
    header.type = type;
    header.request_id_hi = static_cast<std::uint8_t>(request_id >> 8U);
    header.request_id_lo = static_cast<std::uint8_t>(request_id);
    header.content_len_hi = static_cast<std::uint8_t>(content_len >> 8U);
    header.content_len_lo = static_cast<std::uint8_t>(content_len);
    return header;
}

void append_header(std::string& request, const fcgi_header& header) {
    std::array<char, sizeof header> bytes{};
    std::memcpy(bytes.data(), &header, sizeof header);
    request.append(bytes.data(), bytes.size());
}

void append_length(std::string& buffer, std::size_t length) {
    constexpr std::size_t max_short = 127;
    for (std::size_t byte = 0; byte < (length <= max_short ? 1U : 4U); ++byte) {
        buffer.append(1, static_cast<char>(length >> (8 * byte) & 0xFFU));
    }
}

/// Stores one byte of the header and advances the state.
void process_header(char byte, fcgi_record& record) {
    auto* const bytes = reinterpret_cast<char*>(&record.header);
    bytes[record.state] = byte;
    record.state = static_cast<fcgi_state>(record.state + 1);
}

/// Allocates the content; its length is in the header.
void begin_content(fcgi_record& record) {
    record.length = record.header.content_len_hi * 256U + record.header.content_len_lo;
    record.content.assign(record.length, '\0');
    record.state = fcgi_state_content_proc;
}

/// Consumes content, then padding. A record is complete once its padding has been received.
fcgi_progress process_content(std::span<const char>& bytes, fcgi_record& record) {
    const std::size_t wanted = record.length + record.header.padding_len - record.offset;
    const std::size_t taken = std::min(bytes.size(), wanted);
    if (record.offset < record.length) {
        const std::size_t copied = std::min(taken, record.length - record.offset);
        std::copy_n(bytes.begin(), copied,
                    record.content.begin() + static_cast<std::ptrdiff_t>(record.offset));
    }
    record.offset += taken;
    bytes = bytes.subspan(taken);
    if (taken == wanted) {
        record.state = fcgi_state_done;
        return fcgi_progress::complete;
    }
    if (record.offset >= record.length) record.state = fcgi_state_padding;
    return fcgi_progress::incomplete;
}

/// Receives once into the buffer. An empty result ends the session.
std::span<const char> receive(const tarn::stream& connection, std::span<char> buffer) {
    const ssize_t got = tarn::receive_reply(connection, buffer);
    if (got < 0 && errno != EINTR && errno != EAGAIN) {
        std::perror("recv");
        std::exit(EXIT_FAILURE);
    }
    return buffer.first(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
}

/// Decodes records until the answer ends. Bytes after a complete record in the same read are dropped.
void read_answer(const tarn::stream& connection, tarn::deadline end, const fcgi_record_handler& on_record) {
    std::array<char, max_answer> buffer;
    std::size_t total = 0;
    fcgi_record record;
    while (total < max_answer) {
        if (end.has_passed()) {
            tarn::budget.note_timeout();
            return;
        }
        std::span<const char> bytes = receive(connection, std::span(buffer).subspan(total));
        if (bytes.empty()) return;
        total += bytes.size();
        if (fcgi_process_record(bytes, record) == fcgi_progress::incomplete) continue;
        on_record(record);
        if (bytes.empty()) return;
        record = {};
    }
}

}  // namespace

std::size_t serialize_name_value(std::string& buffer, const fcgi_name_value& pair) {
    const std::size_t before = buffer.size();
    append_length(buffer, pair.name.size());
    append_length(buffer, pair.value.size());
    buffer.append(pair.name).append(pair.value);
    return buffer.size() - before;
}

namespace {

/// The whole request for a status page: begin, parameters, end of parameters.
std::string status_request(std::string_view status_path) {
    const fcgi_name_value nvs[] = {{"SCRIPT_FILENAME", "/tarn_asking_for_status"},
                                   {"SCRIPT_NAME", status_path},
                                   {"REQUEST_URI", status_path},
                                   {"REQUEST_METHOD", "GET"}};
    std::string parameters;
    for (const fcgi_name_value& pair : nvs)
        serialize_name_value(parameters, pair);

    constexpr std::uint16_t request_id = 1;
    constexpr std::array<char, 8> begin_body{0, role_responder};  // flags 0: the server closes the connection
    std::string request;
    append_header(request, create_header(type_begin_request, request_id, begin_body.size()));
    request.append(begin_body.data(), begin_body.size());
    append_header(request, create_header(type_parameters, request_id, parameters.size()));
    request.append(parameters);
    append_header(request, create_header(type_parameters, request_id, 0));
    return request;
}

}  // namespace

fcgi_progress fcgi_process_record(std::span<const char>& bytes, fcgi_record& record) {
    while (record.state <= fcgi_state_reserved) {
        if (bytes.empty()) return fcgi_progress::incomplete;
        process_header(bytes.front(), record);
        bytes = bytes.subspan(1);
    }
    // Even a record without content is complete only when a byte after its header has arrived.
    if (bytes.empty()) return fcgi_progress::incomplete;
    if (record.state == fcgi_state_content_begin) begin_content(record);
    return process_content(bytes, record);
}

void simple_session_1(const tarn::stream& connection, std::string_view status_path, tarn::deadline end,
                      const fcgi_record_handler& on_record) {
    if (tarn::send_request(connection, status_request(status_path)) < 0) {
        std::perror("send");
        return;
    }
    read_answer(connection, end, on_record);
}
