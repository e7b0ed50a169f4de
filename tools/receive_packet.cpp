#include "receive_packet.h"

#include <bson/bson.h>
#include <openssl/crypto.h>

#include "report/tarn_sign.h"

namespace {

constexpr std::size_t smallest_document = 5;
constexpr std::size_t signature_length = std::tuple_size_v<tarn_signature>;

/// Reports are four levels deep; a document nested beyond this was not made by an agent. Neither was one with
/// code in it, whose scope the library would follow to any depth.
constexpr int deepest_level = 32;

std::uint32_t own_length(std::span<const std::uint8_t> packet) {
    std::uint32_t length = 0;
    for (std::size_t at = 4; at-- > 0;)
        length = length << 8U | packet[at];
    return length;
}

bool is_shallow(bson_iter_t& elements, int levels) {
    if (levels == 0) return false;
    while (bson_iter_next(&elements)) {
        if (BSON_ITER_HOLDS_CODEWSCOPE(&elements)) return false;
        if (!BSON_ITER_HOLDS_DOCUMENT(&elements) && !BSON_ITER_HOLDS_ARRAY(&elements)) continue;
        bson_iter_t children;
        if (!bson_iter_recurse(&elements, &children) || !is_shallow(children, levels - 1)) return false;
    }
    return true;
}

bool is_valid_bson(std::span<const std::uint8_t> document) {
    bson_t view;
    bson_iter_t elements;
    return bson_init_static(&view, document.data(), document.size()) && bson_iter_init(&elements, &view) &&
           is_shallow(elements, deepest_level) && bson_validate(&view, BSON_VALIDATE_UTF8, nullptr);
}

received_packet bad(std::string fault) {
    return {{}, false, std::move(fault)};
}

}  // namespace

received_packet check_packet(std::span<const std::uint8_t> packet, std::string_view secret) {
    if (packet.size() < smallest_document) return bad("shorter than any document");
    const std::size_t length = own_length(packet);
    const bool is_signed = packet.size() == length + signature_length;
    if (packet.size() != length && !is_signed) {
        return bad("a document of " + std::to_string(length) + " bytes does not fit a packet of " +
                   std::to_string(packet.size()));
    }
    const auto document = packet.first(length);
    if (!is_valid_bson(document)) return bad("not valid BSON");
    if (!secret.empty()) {
        if (!is_signed) return bad("not signed");
        const tarn_signature expected = signature_of(document, secret);
        if (CRYPTO_memcmp(expected.data(), packet.data() + length, expected.size()) != 0) {
            return bad("wrong signature");
        }
    }
    return {document, is_signed, {}};
}
