#pragma once

#include <bson/bson.h>

#include <cstdint>
#include <string_view>

/// Typed appends to a BSON document. Keys and texts from outside are written as valid UTF-8 (an invalid byte
/// becomes "?"): one bad name must not make the whole document unreadable.
namespace tarn {

void append_int32(bson_t& document, std::string_view key, std::int32_t value);
void append_int64(bson_t& document, std::string_view key, std::int64_t value);
void append_double(bson_t& document, std::string_view key, double value);
void append_text(bson_t& document, std::string_view key, std::string_view text);

/// Appends a BSON null in place of a text.
void append_no_text(bson_t& document, std::string_view key);

/// A sub-document that is open for the lifetime of this object. Its elements are appended to document().
class sub_document final {
  public:
    sub_document(bson_t& parent, std::string_view key);
    ~sub_document();
    sub_document(const sub_document&) = delete;
    sub_document& operator=(const sub_document&) = delete;

    bson_t& document() { return child_; }

  private:
    bson_t& parent_;
    bson_t child_;
};

/// An array that is open for the lifetime of this object. Its elements keep the keys that they are appended
/// with; they are not numbered.
class sub_array final {
  public:
    sub_array(bson_t& parent, std::string_view key);
    ~sub_array();
    sub_array(const sub_array&) = delete;
    sub_array& operator=(const sub_array&) = delete;

    bson_t& document() { return child_; }

  private:
    bson_t& parent_;
    bson_t child_;
};

}  // namespace tarn
