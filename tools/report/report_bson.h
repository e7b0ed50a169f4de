#pragma once

#include <bson/bson.h>

#include <string_view>

/// Reading of documents that have been checked.

inline bool is_container(const bson_iter_t& element) {
    return BSON_ITER_HOLDS_DOCUMENT(&element) || BSON_ITER_HOLDS_ARRAY(&element);
}

/// The text with this key among the elements that follow; empty when there is none.
inline std::string_view text_of(const bson_iter_t& before_first, const char* key) {
    // Passed by value, the iterator would not have its alignment of 128 bytes with every compiler.
    bson_iter_t elements = before_first;
    const bool found = bson_iter_find(&elements, key) && BSON_ITER_HOLDS_UTF8(&elements);
    return found ? bson_iter_utf8(&elements, nullptr) : std::string_view{};
}
