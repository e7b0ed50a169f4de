// Packets come from anyone: length and signature are checked before the document is parsed.
#include "receive_packet.h"

#include <bson/bson.h>
#include <openssl/crypto.h>

#include <cstring>

#include "report/tarn_sign.h"
#include "support/tarn_text.h"

namespace {

constexpr std::size_t min_document_size = 5;
constexpr std::size_t signature_length = std::tuple_size_v<tarn_signature>;

/// Reports have four levels; a document with more than this did not come from an agent.
constexpr int max_levels = 32;

/// The length that the document states: its first four bytes, little-endian.
std::uint32_t document_length(std::span<const std::uint8_t> packet) {
    std::uint32_t length = 0;
    std::memcpy(&length, packet.data(), sizeof length);
    return BSON_UINT32_FROM_LE(length);
}

bool is_valid_bson(std::span<const std::uint8_t> document, int levels);

bool is_valid_element(const bson_iter_t& element, int levels) {
    if (!tarn::is_utf8(bson_iter_key(&element))) return false;
    std::uint32_t length = 0;
    const std::uint8_t* data = nullptr;
    switch (bson_iter_type(&element)) {
        case BSON_TYPE_UTF8: {
            const char* const first = bson_iter_utf8(&element, &length);
            const std::string_view text(first, length);
            return tarn::is_utf8(text) && text.find('\0') == std::string_view::npos;
        }
        case BSON_TYPE_DOCUMENT:
            bson_iter_document(&element, &length, &data);
            return is_valid_bson({data, length}, levels - 1);
        case BSON_TYPE_ARRAY:
            bson_iter_array(&element, &length, &data);
            return is_valid_bson({data, length}, levels - 1);
        case BSON_TYPE_REGEX:
        case BSON_TYPE_DBPOINTER:
        case BSON_TYPE_CODE:
        case BSON_TYPE_SYMBOL:
        case BSON_TYPE_CODEWSCOPE:
            // An agent sends none of these types, whose texts and scopes are not checked here.
            return false;
        default:
            return true;
    }
}

/// Used instead of bson_validate(), which stops at some faults without reporting them.
bool is_valid_bson(std::span<const std::uint8_t> document, int levels) {
    bson_t view;
    bson_iter_t element;
    if (levels == 0 || !bson_init_static(&view, document.data(), document.size()) ||
        !bson_iter_init(&element, &view)) {
        return false;
    }
    while (bson_iter_next(&element)) {
        if (!is_valid_element(element, levels)) return false;
    }
    return element.err_off == 0;
}

/// Describes what is wrong with a packet's signature; null when it is right.
const char* signature_fault(std::span<const std::uint8_t> document, std::span<const std::uint8_t> signature,
                            std::string_view secret) {
    if (signature.empty()) return "not signed";
    const tarn_signature expected = signature_of(document, secret);
    return CRYPTO_memcmp(expected.data(), signature.data(), expected.size()) == 0 ? nullptr
                                                                                  : "wrong signature";
}

received_packet rejected(const char* reason, std::string fault = {}) {
    return {{}, false, fault.empty() ? reason : std::move(fault), reason};
}

}  // namespace

received_packet check_packet(std::span<const std::uint8_t> packet, const receive_secrets& secrets) {
    if (packet.size() < min_document_size) return rejected("shorter than any document");
    const std::size_t length = document_length(packet);
    const bool is_signed = packet.size() == length + signature_length;
    if (packet.size() != length && !is_signed) {
        return rejected("wrong length", "a document of " + std::to_string(length) +
                                            " bytes does not fit a packet of " +
                                            std::to_string(packet.size()));
    }
    const auto document = packet.first(length);
    // A packet from a sender without the secret must not reach the BSON parser.
    if (secrets.are_checked()) {
        const std::string* const secret = secrets.find(document);
        const char* const fault =
            secret == nullptr ? "unknown host" : signature_fault(document, packet.subspan(length), *secret);
        if (fault != nullptr) return rejected(fault);
    }
    if (!is_valid_bson(document, max_levels)) return rejected("not valid BSON");
    return {document, is_signed, {}, ""};
}
