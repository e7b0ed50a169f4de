#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// JSON as a tree of nodes that is read by paths. Reading never fails: whatever is not there is the null
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
    int length = 0;                    ///< number of children of an object or array
    const char* key = nullptr;         ///< member name when the node is a member of an object
    const char* text_value = nullptr;  ///< value of a string
    std::int64_t int_value = 0;  ///< integer; 1 or 0 of a bool; of a double what stands before "." or "e"
    double dbl_value = 0;        ///< value of a double, and of an integer
    nx_json* child = nullptr;
    nx_json* next = nullptr;
    nx_json* last_child = nullptr;
};

/// Frees a tree in one step, but not its text.
void nx_json_free(const nx_json* root);

struct nx_json_deleter {
    void operator()(const nx_json* root) const { nx_json_free(root); }
};

/// Owns a tree.
using nx_json_tree = std::unique_ptr<const nx_json, nx_json_deleter>;

/// Parses the JSON value at the start of a text, in place; what follows it is ignored. Beside the numbers of
/// JSON it takes octal ("010") and hexadecimal ("0x1F") integers; integers beyond 64 bits become the largest
/// or lowest one, and a double beyond its range is infinite. Returns nothing for a syntax error, for more
/// than 262144 nodes and for more than 1000 levels of nesting. Throws std::bad_alloc.
nx_json_tree nx_json_parse_utf8(std::string& text, std::size_t start = 0);

/// The first member of an object with this key, the null node when there is none.
const nx_json& nx_json_get(const nx_json& node, std::string_view key);

/// The child of an array or object at an index from 0, the null node when there is none.
const nx_json& nx_json_item(const nx_json& node, int index);

/// "null", "object", "array", "string", "int", "double", "bool", or "unknown" for any other type.
const char* nx_json_get_type(const nx_json& node);

/// The node at a path of object keys separated by "."; empty segments vanish.
const nx_json& json_get_item_by_path(const nx_json& root, std::string_view path);

/// The `int_value` of the node at a path, whatever its type; 0 when there is none.
std::int64_t json_get_long_by_path(const nx_json& root, std::string_view path);

/// 1 or 0 for a bool at the path, -1 for anything else.
int json_get_bool_by_path(const nx_json& root, std::string_view path);

/// Copies the string at the path, cut and terminated, and returns 1; makes the destination empty and returns
/// 0 when there is no string.
int json_get_str_by_path(const nx_json& root, std::string_view path, char* destination, std::size_t size);

/// The sum of one integer member over the children of an object. `error_flag` is 1 when the node is no object
/// or a child lacks the integer; the other children count all the same.
std::int64_t json_column_sum(const nx_json& object, std::string_view key, int& error_flag);
