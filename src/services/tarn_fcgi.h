#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"

/// A FastCGI client for one request and its answer, as far as the PHP-FPM counter needs it.

/// The header of a record, in wire order.
struct fcgi_header {
    std::uint8_t version = 0;  ///< 1
    std::uint8_t type = 0;     ///< 1 begin request, 4 parameters, 6 standard output
    std::uint8_t request_id_hi = 0;
    std::uint8_t request_id_lo = 0;
    std::uint8_t content_len_hi = 0;  ///< content length, bytes
    std::uint8_t content_len_lo = 0;
    std::uint8_t padding_len = 0;  ///< padding after the content, bytes
    std::uint8_t reserved = 0;
};
static_assert(sizeof(fcgi_header) == 8);

/// A parameter of a request.
struct fcgi_name_value {
    std::string_view name;
    std::string_view value;
};

/// Where the decoder stands in a record: at one of the eight bytes of its header, or after them.
enum fcgi_state : int {
    fcgi_state_version,
    fcgi_state_type,
    fcgi_state_request_id_hi,
    fcgi_state_request_id_lo,
    fcgi_state_content_len_hi,
    fcgi_state_content_len_lo,
    fcgi_state_padding_len,
    fcgi_state_reserved,
    fcgi_state_content_begin,
    fcgi_state_content_proc,
    fcgi_state_padding,
    fcgi_state_done
};

/// A record of the answer, as far as it has been decoded.
struct fcgi_record {
    fcgi_header header;
    std::string content;     ///< as long as the header says, zero-filled where it has not been received
    std::size_t offset = 0;  ///< bytes of content, and then of padding, consumed so far
    std::size_t length = 0;  ///< content length
    fcgi_state state = fcgi_state_version;
};

/// What the decoder says of the bytes that it was given.
enum class fcgi_progress { incomplete = 1, complete = 2 };

/// Appends one encoded parameter and returns the number of bytes. A length of 128 and more takes four bytes,
/// least significant first and without a marked top bit: the form of this client, not of the protocol.
std::size_t serialize_name_value(std::string& buffer, const fcgi_name_value& pair);

/// The whole request for a status page: begin, parameters, end of parameters; request id 1.
std::string fcgi_status_request(std::string_view status_path);

/// Decodes a record from the front of `bytes` and removes what belongs to it, never more than there is.
fcgi_progress fcgi_process_record(std::span<const char>& bytes, fcgi_record& record);

/// What is done with a complete record.
using fcgi_use_record = std::function<void(const fcgi_record& record)>;

/// One request and its answer on a connected socket. An answer that is cut, not complete by the deadline or
/// over ends the session without a message; a failed send is printed; any other failure of a receive ends the
/// process.
void simple_session_1(const tarn::stream& connection, std::string_view status_path, tarn::deadline end,
                      const fcgi_use_record& use);
