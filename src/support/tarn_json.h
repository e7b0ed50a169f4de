#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// A JSON tree whose nodes are found by path. A look-up never fails: a missing node is the one shared null
/// node, whose values are all zero.
enum nx_json_type : int {
    NX_JSON_NULL,
    NX_JSON_OBJECT,
    NX_JSON_ARRAY,
    NX_JSON_STRING,
    NX_JSON_INTEGER,
    NX_JSON_DOUBLE,
    NX_JSON_BOOL
};

/// One node. Its texts point into the parsed text, which must outlive the tree.
struct nx_json {
    nx_json_type type = NX_JSON_NULL;
    int length = 0;                    ///< number of children; the agent does not read it
    const char* key = nullptr;         ///< member name when the node is a member of an object
    const char* text_value = nullptr;  ///< value of a string
    std::int64_t int_value = 0;        ///< integer; 1 or 0 for a bool; digits of a double before "." or "e"
    double dbl_value = 0;              ///< value of a double or integer; the agent does not read it
    nx_json* child = nullptr;
    nx_json* next = nullptr;
    nx_json* last_child = nullptr;
};

/// Frees a tree, but not its text.
void nx_json_free(const nx_json* root);

struct nx_json_deleter {
    void operator()(const nx_json* root) const { nx_json_free(root); }
};

/// Owns a tree.
using nx_json_tree = std::unique_ptr<const nx_json, nx_json_deleter>;

/// Parses the JSON value at position `start` of a text, in place; text after it is ignored. Besides JSON's
/// numbers it accepts octal ("010") and hexadecimal ("0x1F") integers; integers beyond 64 bits saturate, and
/// a double out of range is infinite. Returns nothing on a syntax error, more than 262144 nodes or more than
/// 1000 levels of nesting. Throws std::bad_alloc.
nx_json_tree nx_json_parse_utf8(std::string& text, std::size_t start = 0);

/// The first member of an object with this key; the null node when there is none.
const nx_json& nx_json_get(const nx_json& node, std::string_view key);

/// The child of an array or object at a zero-based index; the null node when there is none.
const nx_json& nx_json_item(const nx_json& node, int index);

/// "null", "object", "array", "string", "int", "double", "bool", or "unknown" for any other type. The agent
/// does not call it.
const char* nx_json_get_type(const nx_json& node);

/// The node at a path of object keys separated by "."; empty segments are skipped.
const nx_json& json_get_item_by_path(const nx_json& root, std::string_view path);

/// The `int_value` of the node at a path, whatever its type; 0 when there is none.
std::int64_t json_get_long_by_path(const nx_json& root, std::string_view path);

/// 1 or 0 for a bool at the path, -1 for anything else.
int json_get_bool_by_path(const nx_json& root, std::string_view path);

/// Copies the string at the path, truncated and terminated, and returns 1; empties the destination and
/// returns 0 when there is no string.
int json_get_str_by_path(const nx_json& root, std::string_view path, char* destination, std::size_t size);

/// The sum of one integer member over the children of an object. `error_flag` is 1 when the node is not an
/// object or a child lacks the integer; the other children are still added.
std::int64_t json_column_sum(const nx_json& object, std::string_view key, int& error_flag);
