#pragma once

#include <bson/bson.h>

#include <cstdint>
#include <span>
#include <string_view>

/// Typed appends to a BSON document, and the tables that tell a record's members from its keys. Keys and
/// texts that come from outside are written as valid UTF-8 (an invalid byte becomes "?"): one bad name must
/// not make the whole document unreadable.
namespace tarn {

void append_int32(bson_t& document, std::string_view key, std::int32_t value);
void append_int64(bson_t& document, std::string_view key, std::int64_t value);
void append_double(bson_t& document, std::string_view key, double value);
void append_text(bson_t& document, std::string_view key, std::string_view text);

/// A text without a value: the library writes it as a BSON null.
void append_no_text(bson_t& document, std::string_view key);

/// A sub-document that is open as long as this object lives. Everything for it is appended to document().
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

/// An array that is open as long as this object lives. Its elements bear the keys that they are appended
/// with.
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

/// One row of an append table: a key and the function that appends a member of the record under it.
template <typename Record>
struct bson_row {
    const char* key;
    void (*append)(bson_t& document, const char* key, const Record& record);
};

template <typename Member>
struct member_traits;

template <typename Record, typename Value>
struct member_traits<Value Record::*> {
    using record = Record;
};

/// The record that a pointer to member belongs to.
template <auto Member>
using record_of = typename member_traits<decltype(Member)>::record;

/// Appends an integer member as int64: signed values sign-extended, unsigned 32-bit ones zero-extended.
template <auto Member>
void as_int64(bson_t& document, const char* key, const record_of<Member>& record) {
    append_int64(document, key, static_cast<std::int64_t>(record.*Member));
}

/// Appends an unsigned 32-bit member as int32, bit for bit.
template <auto Member>
void as_int32(bson_t& document, const char* key, const record_of<Member>& record) {
    append_int32(document, key, static_cast<std::int32_t>(record.*Member));
}

/// Appends a number as double: floats are widened, integers converted.
template <auto Member>
void as_double(bson_t& document, const char* key, const record_of<Member>& record) {
    append_double(document, key, static_cast<double>(record.*Member));
}

/// Appends every row of a table, in its order.
template <typename Record, std::size_t Rows>
void append_rows(bson_t& document, const bson_row<Record> (&rows)[Rows], const Record& record) {
    for (const bson_row<Record>& row : rows)
        row.append(document, row.key, record);
}

}  // namespace tarn
