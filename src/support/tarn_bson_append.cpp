// Appends through libbson, which stores texts as they are: invalid UTF-8 is replaced before it gets there.
#include "support/tarn_bson_append.h"

#include "support/tarn_text.h"

namespace tarn {
namespace {

int length_of(std::string_view text) {
    return static_cast<int>(text.size());
}

/// Passes valid UTF-8 on without a copy, and a cleaned copy of any other text.
template <typename Use>
void with_utf8(std::string_view text, Use use) {
    if (is_utf8(text)) {
        use(text);
    } else {
        use(to_utf8(text));
    }
}

}  // namespace

void append_int32(bson_t& document, std::string_view key, std::int32_t value) {
    bson_append_int32(&document, key.data(), length_of(key), value);
}

void append_int64(bson_t& document, std::string_view key, std::int64_t value) {
    bson_append_int64(&document, key.data(), length_of(key), value);
}

void append_double(bson_t& document, std::string_view key, double value) {
    bson_append_double(&document, key.data(), length_of(key), value);
}

void append_text(bson_t& document, std::string_view key, std::string_view text) {
    with_utf8(text, [&](std::string_view clean) {
        // The pointer of an empty view may be null, which libbson writes as a BSON null.
        const char* const value = clean.empty() ? "" : clean.data();
        bson_append_utf8(&document, key.data(), length_of(key), value, length_of(clean));
    });
}

void append_no_text(bson_t& document, std::string_view key) {
    bson_append_utf8(&document, key.data(), length_of(key), nullptr, 0);
}

sub_document::sub_document(bson_t& parent, std::string_view key) : parent_(parent) {
    with_utf8(key, [this](std::string_view clean) {
        bson_append_document_begin(&parent_, clean.data(), length_of(clean), &child_);
    });
}

sub_document::~sub_document() {
    bson_append_document_end(&parent_, &child_);
}

sub_array::sub_array(bson_t& parent, std::string_view key) : parent_(parent) {
    bson_append_array_begin(&parent_, key.data(), length_of(key), &child_);
}

sub_array::~sub_array() {
    bson_append_array_end(&parent_, &child_);
}

}  // namespace tarn
