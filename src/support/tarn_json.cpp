// The tree is built by the event parser of RapidJSON: iterative, in place, numbers taken as their text.
#include "support/tarn_json.h"

#include <rapidjson/reader.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <memory_resource>
#include <utility>
#include <vector>

#include "support/tarn_text.h"

namespace {

/// Far beyond the answer of any service that is watched; keeps a hostile one from taking the memory.
constexpr std::size_t most_nodes = std::size_t{1} << 20U;

/// A tree: its root, and the memory that all other nodes lie in.
struct document final : nx_json {
    std::pmr::monotonic_buffer_resource arena;
};

/// Hangs the parser's events into a tree. Returns false, which ends the parsing, beyond the most nodes.
class tree_builder final {
  public:
    explicit tree_builder(document& tree) : tree_(tree) {}

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
        if (++nodes_ > most_nodes) return nullptr;
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
        tarn::read_number(text, node->int_value);
        if (is_double) {
            std::from_chars(text.data(), text.data() + text.size(), node->dbl_value);
        } else {
            node->dbl_value = static_cast<double>(node->int_value);
        }
        return true;
    }

    bool open(nx_json_type type) {
        nx_json* const node = add(type);
        if (node != nullptr) open_.push_back(node);
        return node != nullptr;
    }

    bool close() {
        open_.pop_back();
        return true;
    }

    document& tree_;
    const char* key_ = nullptr;
    std::vector<nx_json*> open_;
    std::size_t nodes_ = 0;
};

const nx_json null_node;

/// True for a 0 that begins a number and does not stand alone.
bool begins_other_base(char before, const char* text) {
    return *text == '0' && std::isalnum(static_cast<unsigned char>(text[1])) != 0 &&
           std::string_view(" \t\r\n:,[-").find(before) != std::string_view::npos;
}

/// Rewrites the integer at `start`, whose first digit is a 0, as a decimal one and fills its place up with
/// blanks. Returns the first character behind it. What is no integer of base 8 or 16 stays, for the parser to
/// refuse.
char* rewrite_integer(char* start) {
    char* end = nullptr;
    errno = 0;
    const std::int64_t value = std::strtoll(start, &end, 0);
    std::array<char, 24> digits{};
    const auto [last, error] = std::to_chars(digits.begin(), digits.end(), value);
    const auto length = last - digits.begin();
    if (errno != 0 || *end == '.' || *end == 'e' || *end == 'E' || length > end - start) return end;
    std::fill(std::copy(digits.begin(), last, start), end, ' ');
    return end;
}

/// True when some 0, perhaps one inside a text, looks like the start of such an integer. Hardly any answer
/// has one.
bool may_have_other_bases(std::string_view text) {
    for (std::size_t at = text.find('0'); at != std::string_view::npos; at = text.find('0', at + 1)) {
        if (begins_other_base(at > 0 ? text[at - 1] : ' ', text.data() + at)) return true;
    }
    return false;
}

/// Integers may be octal ("010") or hexadecimal ("0x1F"), which JSON itself does not know.
void rewrite_bases(char* text) {
    bool in_string = false;
    for (char before = ' '; *text != '\0'; before = *text++) {
        if (*text == '"') in_string = !in_string;
        if (in_string && *text == '\\' && text[1] != '\0') ++text;
        if (in_string || !begins_other_base(before, text)) continue;
        text = rewrite_integer(before == '-' ? text - 1 : text) - 1;
    }
}

}  // namespace

void nx_json_free(const nx_json* root) {
    delete static_cast<const document*>(root);
}

nx_json_tree nx_json_parse_utf8(std::string& text, std::size_t start) {
    constexpr unsigned flags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                               rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
    auto tree = std::make_unique<document>();
    tree_builder builder(*tree);
    char* const json = text.data() + std::min(start, text.size());
    if (may_have_other_bases(json)) rewrite_bases(json);
    rapidjson::InsituStringStream stream(json);
    rapidjson::Reader reader;
    if (reader.Parse<flags>(stream, builder).IsError()) return nullptr;
    return nx_json_tree(tree.release());
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
