// The signature is a plain digest of document and secret, not an HMAC.
#include "report/tarn_sign.h"

#include <openssl/sha.h>

#include "record/tarn_trace.h"

tarn_signature signature_of(std::span<const std::uint8_t> document, std::string_view secret) {
    std::array<unsigned char, SHA_DIGEST_LENGTH> digest{};
    SHA_CTX context;
    SHA1_Init(&context);
    SHA1_Update(&context, document.data(), document.size());
    SHA1_Update(&context, secret.data(), secret.size());
    SHA1_Final(digest.data(), &context);

    constexpr std::string_view digits = "0123456789abcdef";
    tarn_signature signature{};
    for (std::size_t at = 0; at < digest.size(); ++at) {
        signature[2 * at] = digits[digest[at] >> 4U];
        signature[2 * at + 1] = digits[digest[at] & 0xFU];
    }
    return signature;
}

void sign(std::span<const std::uint8_t> document, std::string_view secret,
          std::vector<std::uint8_t>& packet) {
    packet.assign(document.begin(), document.end());
    if (secret.empty()) return;
    trace("sign packet\n");
    const tarn_signature signature = signature_of(document, secret);
    packet.insert(packet.end(), signature.begin(), signature.end());
}
