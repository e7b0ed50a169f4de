// Base64 from OpenSSL, which encodes into one unbroken line; the line feeds are inserted afterwards.
#include "support/tarn_base64.h"

#include <openssl/evp.h>

namespace tarn {

std::string base64(std::string_view text) {
    constexpr std::size_t line_length = 72;
    std::string encoded((text.size() + 2) / 3 * 4 + 1, '\0');
    const int length =
        ::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                          reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    encoded.resize(static_cast<std::size_t>(length));
    for (std::size_t at = line_length; at < encoded.size(); at += line_length + 1)
        encoded.insert(at, 1, '\n');
    return encoded;
}

}  // namespace tarn
