#include <gtest/gtest.h>

#include "support/tarn_json.h"
#include "support/tarn_parse_url.h"

namespace {

/// A parsed text that outlives its tree.
struct parsed {
    std::string text;
    nx_json_tree tree;
    explicit parsed(std::string json) : text(std::move(json)), tree(nx_json_parse_utf8(text)) {}
    const nx_json& operator*() const { return *tree; }
};

}  // namespace

TEST(Json, PathsReadWhateverIsThereAndZeroOtherwise) {
    const parsed json(
        R"( {"a":{"b":5,"list":[1,{"x":2}],"d":2.75,"e":-7e2,"t":true,"f":false,"n":null,"s":"t\"\u0041\nx"},)"
        R"("a.b":1,"big":99999999999999999999,"neg":-3,"dup":1,"dup":2} trailing)");
    ASSERT_TRUE(json.tree);
    struct {
        const char* path;
        std::int64_t value;
        int flag;
        const char* type;
    } const rows[] = {
        {"a.b", 5, -1, "int"},       {".a..b.", 5, -1, "int"}, {"a.d", 2, -1, "double"},
        {"a.e", -7, -1, "double"},   {"a.t", 1, 1, "bool"},    {"a.f", 0, 0, "bool"},
        {"a.n", 0, -1, "null"},      {"a.s", 0, -1, "string"}, {"a.list", 0, -1, "array"},
        {"a.list.x", 0, -1, "null"}, {"x.b", 0, -1, "null"},   {"neg", -3, -1, "int"},
        {"", 0, -1, "object"},       {"dup", 1, -1, "int"},    {"big", INT64_MAX, -1, "int"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(json_get_long_by_path(*json, row.path), row.value) << row.path;
        EXPECT_EQ(json_get_bool_by_path(*json, row.path), row.flag) << row.path;
        EXPECT_STREQ(nx_json_get_type(json_get_item_by_path(*json, row.path)), row.type) << row.path;
    }
    EXPECT_DOUBLE_EQ(json_get_item_by_path(*json, "a.e").dbl_value, -700.0);
    EXPECT_DOUBLE_EQ(json_get_item_by_path(*json, "neg").dbl_value, -3.0);
    EXPECT_EQ(nx_json_item(json_get_item_by_path(*json, "a.list"), 0).int_value, 1);
    EXPECT_EQ(nx_json_get(nx_json_item(json_get_item_by_path(*json, "a.list"), 1), "x").int_value, 2);
    const nx_json& missing = nx_json_item(*json, 99);
    EXPECT_EQ(&missing, &nx_json_get(missing, "x"));  // one null node for every miss
    EXPECT_EQ(&missing, &nx_json_item(*json, -1));
    char text[4] = "zzz";
    EXPECT_EQ(json_get_str_by_path(*json, "a.s", text, sizeof text), 1);
    EXPECT_STREQ(text, "t\"A");
    EXPECT_EQ(json_get_str_by_path(*json, "a.b", text, sizeof text), 0);
    EXPECT_STREQ(text, "");
    nx_json strange;
    strange.type = static_cast<nx_json_type>(9);
    EXPECT_STREQ(nx_json_get_type(strange), "unknown");
}

TEST(Json, ColumnsSumTheirIntegersAndFlagTheRest) {
    const auto sum = [](const char* text, int flag) {
        const parsed json(text);
        int error = -1;
        const std::int64_t total = json_column_sum(*json, "x", error);
        EXPECT_EQ(error, flag) << text;
        return total;
    };
    EXPECT_EQ(sum(R"({"a":{"x":1},"b":{"x":2},"c":{"x":"3"}})", 1), 3);
    EXPECT_EQ(sum(R"({"a":{"x":1},"b":{"x":2}})", 0), 3);
    EXPECT_EQ(sum(R"({"a":{"x":1.5},"b":7,"c":{}})", 1), 0);
    EXPECT_EQ(sum("{}", 0), 0);
    EXPECT_EQ(sum(R"([{"x":1}])", 1), 0);
}

TEST(Json, WhatIsNoJsonIsNothing) {
    for (const char* const text :
         {"", " ", "{", "{\"a\":}", "{\"a\" 1}", "[1,]", "nul", "{\"a\":1", "\"\\x\"", "012"}) {
        const parsed json(text);
        if (std::string_view(text) == "012") continue;  // the value is 0, and the rest is not looked at
        EXPECT_FALSE(json.tree) << text;
    }
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_TRUE(parsed(deep).tree);
    EXPECT_FALSE(parsed(std::string(100000, '[')).tree);
    std::string wide = "[0";
    for (int n = 0; n < (1 << 20); ++n)
        wide += ",0";
    EXPECT_FALSE(parsed(wide + "]").tree);  // more than a million nodes
    std::string embedded = "HTTP/1.0 200\r\n\r\n{\"a\":1}";
    EXPECT_EQ(json_get_long_by_path(*nx_json_parse_utf8(embedded, embedded.find('{')), "a"), 1);
}

TEST(Url, AddressesAreSplitIntoTheirPieces) {
    struct {
        std::string_view url;
        const char *user, *pass, *host;
        std::uint32_t port;
    } const rows[] = {
        {"user:secret@10.0.0.1:6379", "user", "secret", "10.0.0.1", 6379},
        {"10.0.0.1:6379", "", "", "10.0.0.1", 6379},
        {"10.0.0.1", "", "", "10.0.0.1", 0},
        {"@h:1", "", "", "h", 1},
        {"u:p:q@h:1:2", "u", "p:q", "h", 1},
        {"u\\:v:p\\@q@h@i:7", "u:v", "p@q", "h@i", 7},
        {"", "", "", "", 0},
        {"u@", "", "", "u", 0},
    };
    for (const auto& row : rows) {
        tarn_url_parts parts;
        EXPECT_EQ(tarn_parse_url(row.url, parts), 1);
        EXPECT_STREQ(parts.user, row.user) << row.url;
        EXPECT_STREQ(parts.pass, row.pass) << row.url;
        EXPECT_STREQ(parts.host, row.host) << row.url;
        EXPECT_EQ(parts.port, row.port) << row.url;
    }
    tarn_url_parts parts;
    tarn_parse_url(std::string(500, 'u') + ":p@" + std::string(500, 'h'), parts);
    EXPECT_EQ(parts.user, std::string(99, 'u'));
    EXPECT_EQ(parts.host, std::string(99, 'h'));
}

TEST(Url, SplittingHonoursBackslashes) {
    const auto split = [](std::string_view text) {
        char parts[3][8] = {"-", "-", "-"};
        const tarn_text_part buffers[] = {{parts[0], 8}, {parts[1], 8}, {parts[2], 4}};
        tarn_split_str(text, ':', std::span(buffers).first(text.starts_with('3') ? 3 : 2));
        return std::string(parts[0]) + "|" + parts[1] + "|" + parts[2];
    };
    EXPECT_EQ(split("a\\:b:c"), "a:b|c|-");
    EXPECT_EQ(split("a:b:c"), "a|b:c|-");
    EXPECT_EQ(split("a\\\\:b\\n\\"), "a\\|b\\n\\|-");
    EXPECT_EQ(split(""), "|-|-");
    EXPECT_EQ(split("3::longer"), "3||lon");
    EXPECT_EQ(split("much too long"), "much to|-|-");
}
