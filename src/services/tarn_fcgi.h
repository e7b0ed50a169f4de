#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "support/tarn_deadline.h"
#include "support/tarn_streams.h"

/// A FastCGI client for one request and its answer, limited to what the PHP-FPM counter needs.

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

/// Position of the decoder in a record: at one of the eight header bytes, or after them.
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

/// One record of the answer, which may be only partly decoded.
struct fcgi_record {
    fcgi_header header;
    std::string content;     ///< `length` bytes, zero where not yet received
    std::size_t offset = 0;  ///< bytes of content, and then of padding, consumed so far
    std::size_t length = 0;  ///< content length
    fcgi_state state = fcgi_state_version;
};

/// Whether the bytes passed to the decoder completed a record.
enum class fcgi_progress { incomplete = 1, complete = 2 };

/// Appends one encoded parameter and returns its size in bytes. A length of 128 or more takes four bytes,
/// least significant first and with the top bit clear; the protocol has the opposite order and sets the bit.
std::size_t serialize_name_value(std::string& buffer, const fcgi_name_value& pair);

/// Decodes one record from the front of `bytes` and removes the bytes that it consumed.
fcgi_progress fcgi_process_record(std::span<const char>& bytes, fcgi_record& record);

/// Called for each complete record.
using fcgi_record_handler = std::function<void(const fcgi_record& record)>;

/// Sends one request on a connected socket and passes each complete record of the answer to `on_record`. The
/// session ends without a message when the answer ends, is cut short or is not complete by the deadline. A
/// failed send is printed. A receive error other than a time-out ends the process.
void simple_session_1(const tarn::stream& connection, std::string_view status_path, tarn::deadline end,
                      const fcgi_record_handler& on_record);
