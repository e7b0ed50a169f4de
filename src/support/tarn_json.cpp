// A tree built from the events of RapidJSON, which parses iteratively, in place, and passes numbers as text.
#include "support/tarn_json.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory_resource>
#include <new>
#include <utility>
#include <vector>

#include "support/tarn_text.h"

namespace {

/// Far more than any monitored service answers with. The limits keep the tree of a hostile answer below
/// 32 MiB.
constexpr std::size_t max_nodes = std::size_t{1} << 18U;
constexpr std::size_t max_depth = 1000;

/// A tree: the root node, and the memory of all other nodes.
struct document final : nx_json {
    std::pmr::monotonic_buffer_resource arena;
};

/// The parser's allocator. RapidJSON does not check for null, so a failed allocation throws.
class throwing_allocator final {
  public:
    static void* Malloc(std::size_t size) { return checked(std::malloc(size), size); }
    static void* Realloc(void* block, std::size_t /*old_size*/, std::size_t size) {
        if (size != 0) return checked(std::realloc(block, size), size);
        Free(block);
        return nullptr;
    }
    static void Free(void* block) { std::free(block); }

  private:
    static void* checked(void* block, std::size_t size) {
        if (block == nullptr && size != 0) throw std::bad_alloc();
        return block;
    }
};

/// A number that is not valid JSON, or that the parser refuses.
struct irregular_number {
    const char* at;  ///< position in the text, where a "0" has replaced it
    nx_json_type type;
    std::int64_t int_value;
    double dbl_value;
};

/// Builds the tree from the parser's events. An event beyond a limit returns false, which ends the parsing.
class tree_builder final {
  public:
    tree_builder(document& tree, const std::vector<irregular_number>& irregular)
        : tree_(tree), irregular_(irregular) {}

    bool Null() { return add(NX_JSON_NULL) != nullptr; }
    bool Bool(bool value) {
        nx_json* const node = add(NX_JSON_BOOL);
        if (node != nullptr) node->int_value = value ? 1 : 0;
        return node != nullptr;
    }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
        return add_number({text, length});
    }
    bool String(const char* text, rapidjson::SizeType /*length*/, bool /*copy*/) {
        nx_json* const node = add(NX_JSON_STRING);
        if (node != nullptr) node->text_value = text;
        return node != nullptr;
    }
    bool Key(const char* text, rapidjson::SizeType /*length*/, bool /*copy*/) {
        key_ = text;
        return true;
    }
    bool StartObject() { return open(NX_JSON_OBJECT); }
    bool StartArray() { return open(NX_JSON_ARRAY); }
    bool EndObject(rapidjson::SizeType /*members*/) { return close(); }
    bool EndArray(rapidjson::SizeType /*items*/) { return close(); }

    // Required by the parser but never called: numbers come as text.
    static bool Int(int /*value*/) { return false; }
    static bool Uint(unsigned /*value*/) { return false; }
    static bool Int64(std::int64_t /*value*/) { return false; }
    static bool Uint64(std::uint64_t /*value*/) { return false; }
    static bool Double(double /*value*/) { return false; }

  private:
    nx_json* add(nx_json_type type) {
        nx_json* const node = make_node();
        if (node != nullptr) {
            node->type = type;
            node->key = std::exchange(key_, nullptr);
        }
        return node;
    }

    /// The root, or a new last child of the innermost open container.
    nx_json* make_node() {
        if (++nodes_ > max_nodes) return nullptr;
        if (open_.empty()) return &tree_;
        auto* const node = new (tree_.arena.allocate(sizeof(nx_json), alignof(nx_json))) nx_json;
        nx_json& parent = *open_.back();
        (parent.child == nullptr ? parent.child : parent.last_child->next) = node;
        parent.last_child = node;
        ++parent.length;
        return node;
    }

    bool add_number(std::string_view text) {
        const bool is_double = text.find_first_of(".eE") != std::string_view::npos;
        nx_json* const node = add(is_double ? NX_JSON_DOUBLE : NX_JSON_INTEGER);
        if (node == nullptr) return false;
        if (next_irregular_ < irregular_.size() && irregular_[next_irregular_].at == text.data()) {
            const irregular_number& irregular = irregular_[next_irregular_++];
            node->type = irregular.type;
            node->int_value = irregular.int_value;
            node->dbl_value = irregular.dbl_value;
            return true;
        }
        tarn::read_number(text, node->int_value);
        if (is_double) {
            std::from_chars(text.data(), text.data() + text.size(), node->dbl_value);
        } else {
            node->dbl_value = static_cast<double>(node->int_value);
        }
        return true;
    }

    bool open(nx_json_type type) {
        if (open_.size() == max_depth) return false;
        nx_json* const node = add(type);
        if (node != nullptr) open_.push_back(node);
        return node != nullptr;
    }

    bool close() {
        open_.pop_back();
        return true;
    }

    document& tree_;
    const std::vector<irregular_number>& irregular_;
    std::size_t next_irregular_ = 0;
    const char* key_ = nullptr;
    std::vector<nx_json*> open_;
    std::size_t nodes_ = 0;
};

const nx_json null_node;

/// Reads a number that JSON or the parser may refuse: octal ("010"), hexadecimal ("0x1F"), or one with a
/// fraction or exponent, which may have leading zeros or exceed a double. Returns the first character after
/// it, or `start` when it is not such a number. Integers beyond 64 bits saturate.
char* read_irregular_number(char* start, irregular_number& number) {
    char* const first = *start == '-' ? start + 1 : start;
    const std::size_t whole = std::strspn(first, "0123456789");
    const char after = first[whole];
    if (whole == 0) return start;

    char* end = nullptr;
    number.at = start;
    number.type = NX_JSON_INTEGER;
    if (after == '.' || after == 'e' || after == 'E') {
        number.type = NX_JSON_DOUBLE;
        tarn::read_number(start, number.int_value);
        number.dbl_value = std::strtod(start, &end);
        return end;
    }
    if (*first != '0' || (whole == 1 && after != 'x' && after != 'X')) return start;
    number.int_value = std::strtoll(start, &end, 0);
    number.dbl_value = static_cast<double>(number.int_value);
    return end;
}

/// Removes the numbers that the parser may refuse from a text, leaving a "0" and blanks in place of each. A
/// digit or "-" outside a string begins a number.
std::vector<irregular_number> remove_irregular_numbers(char* text) {
    std::vector<irregular_number> removed;
    bool in_string = false;
    for (; *text != '\0'; ++text) {
        if (*text == '"') in_string = !in_string;
        if (in_string && *text == '\\' && text[1] != '\0') ++text;
        if (in_string || (*text != '-' && (*text < '0' || *text > '9'))) continue;
        irregular_number number{};
        char* const end = read_irregular_number(text, number);
        if (end == text) {
            // A plain integer: skip its other digits.
            while (text[1] >= '0' && text[1] <= '9')
                ++text;
            continue;
        }
        std::fill(text, end, ' ');
        *text = '0';
        text = end - 1;
        removed.push_back(number);
    }
    return removed;
}

nx_json_tree parse(char* json, const std::vector<irregular_number>& irregular) {
    constexpr unsigned flags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                               rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
    using reader_type = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, throwing_allocator>;
    auto tree = std::make_unique<document>();
    tree_builder builder(*tree, irregular);
    rapidjson::InsituStringStream stream(json);
    reader_type reader;
    if (reader.Parse<flags>(stream, builder).IsError()) return nullptr;
    return nx_json_tree(tree.release());
}

}  // namespace

void nx_json_free(const nx_json* root) {
    delete static_cast<const document*>(root);
}

nx_json_tree nx_json_parse_utf8(std::string& text, std::size_t start) {
    start = std::min(start, text.size());
    const std::string original = text.substr(start);
    if (nx_json_tree tree = parse(text.data() + start, {})) return tree;
    // Few answers have irregular numbers, so they are looked for only in a text that did not parse.
    text.resize(start);
    text += original;
    const std::vector<irregular_number> irregular = remove_irregular_numbers(text.data() + start);
    return irregular.empty() ? nullptr : parse(text.data() + start, irregular);
}

const nx_json& nx_json_get(const nx_json& node, std::string_view key) {
    for (const nx_json* child = node.child; child != nullptr; child = child->next) {
        if (child->key != nullptr && key == child->key) return *child;
    }
    return null_node;
}

const nx_json& nx_json_item(const nx_json& node, int index) {
    if (index < 0) return null_node;
    const nx_json* child = node.child;
    for (; child != nullptr && index > 0; --index)
        child = child->next;
    return child != nullptr ? *child : null_node;
}

const char* nx_json_get_type(const nx_json& node) {
    switch (node.type) {
        case NX_JSON_NULL:
            return "null";
        case NX_JSON_OBJECT:
            return "object";
        case NX_JSON_ARRAY:
            return "array";
        case NX_JSON_STRING:
            return "string";
        case NX_JSON_INTEGER:
            return "int";
        case NX_JSON_DOUBLE:
            return "double";
        case NX_JSON_BOOL:
            return "bool";
    }
    return "unknown";
}

const nx_json& json_get_item_by_path(const nx_json& root, std::string_view path) {
    const nx_json* node = &root;
    for (auto key = tarn::next_token(path, "."); !key.empty(); key = tarn::next_token(path, ".")) {
        node = &nx_json_get(*node, key);
    }
    return *node;
}

std::int64_t json_get_long_by_path(const nx_json& root, std::string_view path) {
    return json_get_item_by_path(root, path).int_value;
}

int json_get_bool_by_path(const nx_json& root, std::string_view path) {
    const nx_json& node = json_get_item_by_path(root, path);
    return node.type == NX_JSON_BOOL ? static_cast<int>(node.int_value) : -1;
}

int json_get_str_by_path(const nx_json& root, std::string_view path, char* destination, std::size_t size) {
    if (size == 0) return 0;
    const nx_json& node = json_get_item_by_path(root, path);
    const std::string_view text = node.type == NX_JSON_STRING ? node.text_value : "";
    destination[text.copy(destination, size - 1)] = '\0';
    destination[size - 1] = '\0';
    return node.type == NX_JSON_STRING ? 1 : 0;
}

std::int64_t json_column_sum(const nx_json& object, std::string_view key, int& error_flag) {
    error_flag = object.type == NX_JSON_OBJECT ? 0 : 1;
    if (error_flag != 0) return 0;
    std::uint64_t sum = 0;
    for (const nx_json* child = object.child; child != nullptr; child = child->next) {
        const nx_json& value = nx_json_get(*child, key);
        if (child->type == NX_JSON_OBJECT && value.type == NX_JSON_INTEGER) {
            sum += static_cast<std::uint64_t>(value.int_value);
        } else {
            error_flag = 1;
        }
    }
    return static_cast<std::int64_t>(sum);
}
