// The tree is built by the event parser of RapidJSON: iterative, in place, numbers taken as their text.
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

/// Far beyond the answer of any service that is watched; together they keep the tree of a hostile answer
/// below 32 MiB.
constexpr std::size_t max_nodes = std::size_t{1} << 18U;
constexpr std::size_t max_depth = 1000;

/// A tree: its root, and the memory that holds all other nodes.
struct document final : nx_json {
    std::pmr::monotonic_buffer_resource arena;
};

/// The parser's own memory. RapidJSON does not check what its allocator returns.
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

/// A number that JSON itself does not know, or that the parser refuses.
struct odd_number {
    const char* at;  ///< its place in the text, where a "0" now stands
    nx_json_type type;
    std::int64_t int_value;
    double dbl_value;
};

/// Hangs the parser's events into a tree. Returns false, which ends the parsing, beyond the limits.
class tree_builder final {
  public:
    tree_builder(document& tree, const std::vector<odd_number>& odd) : tree_(tree), odd_(odd) {}

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

    // Never called: numbers come as their text.
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

    /// The root, or a new last child of the container that is open.
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
        if (next_odd_ < odd_.size() && odd_[next_odd_].at == text.data()) {
            const odd_number& odd = odd_[next_odd_++];
            node->type = odd.type;
            node->int_value = odd.int_value;
            node->dbl_value = odd.dbl_value;
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
    const std::vector<odd_number>& odd_;
    std::size_t next_odd_ = 0;
    const char* key_ = nullptr;
    std::vector<nx_json*> open_;
    std::size_t nodes_ = 0;
};

const nx_json null_node;

/// Reads a number of a form that JSON does not know: octal ("010"), hexadecimal ("0x1F"), a fraction with
/// leading zeros, or an exponent beyond what a double holds. Returns the first character after it; the start
/// when it is not such a number. Integers beyond 64 bits become the largest or lowest one.
char* read_odd_number(char* start, odd_number& number) {
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

/// Takes the numbers that the parser refuses out of a text and puts a "0" and blanks in their place. A digit
/// or "-" outside a string begins a number.
std::vector<odd_number> take_odd_numbers(char* text) {
    std::vector<odd_number> taken;
    bool in_string = false;
    for (; *text != '\0'; ++text) {
        if (*text == '"') in_string = !in_string;
        if (in_string && *text == '\\' && text[1] != '\0') ++text;
        if (in_string || (*text != '-' && (*text < '0' || *text > '9'))) continue;
        odd_number number{};
        char* const end = read_odd_number(text, number);
        if (end == text) {
            // A plain integer: its other digits begin nothing.
            while (text[1] >= '0' && text[1] <= '9')
                ++text;
            continue;
        }
        std::fill(text, end, ' ');
        *text = '0';
        text = end - 1;
        taken.push_back(number);
    }
    return taken;
}

nx_json_tree parse(char* json, const std::vector<odd_number>& odd) {
    constexpr unsigned flags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                               rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
    using reader_type = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, throwing_allocator>;
    auto tree = std::make_unique<document>();
    tree_builder builder(*tree, odd);
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
    // Hardly any answer has odd numbers, so that they are looked for in one that did not parse.
    text.resize(start);
    text += original;
    const std::vector<odd_number> odd = take_odd_numbers(text.data() + start);
    return odd.empty() ? nullptr : parse(text.data() + start, odd);
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
