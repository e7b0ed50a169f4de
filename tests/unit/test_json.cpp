// The JSON tree and the splitting of URLs and strings.
#include "support/tarn_json.h"
#include "support/tarn_parse_url.h"
#include "test_helpers.h"

namespace {

/// A text and its tree, whose nodes point into the text.
struct parsed {
    std::string text;
    nx_json_tree tree;
    explicit parsed(std::string json) : text(std::move(json)), tree(nx_json_parse_utf8(text)) {}
    const nx_json& operator*() const { return *tree; }
};

}  // namespace

TEST(Json, PathsReadValuesAndZeroForAMissingOne) {
    const parsed json(
        R"( {"a":{"b":5,"list":[1,{"x":2}],"d":2.75,"e":-7e2,"t":true,"f":false,"n":null,"s":"t\"\u0041\nx"},)"
        R"("a.b":1,"big":99999999999999999999,"neg":-3,"dup":1,"dup":2} trailing)");
    ASSERT_TRUE(json.tree);
    expect_table("json_paths.txt", [&](const std::string& path) {
        const nx_json& item = json_get_item_by_path(*json, path);
        return fields(json_get_long_by_path(*json, path), json_get_bool_by_path(*json, path),
                      nx_json_get_type(item), item.dbl_value);
    });
    const nx_json& list = json_get_item_by_path(*json, "a.list");
    EXPECT_EQ(fields(nx_json_item(list, 0).int_value, nx_json_get(nx_json_item(list, 1), "x").int_value,
                     nx_json_get(nx_json_item(list, 99), "x").int_value, nx_json_item(list, -1).int_value),
              "1|2|0|0");
    char text[8] = "zzzzzzz";
    EXPECT_EQ(json_get_str_by_path(*json, "a.s", text, 4), 1);
    EXPECT_STREQ(text, "t\"A");
    EXPECT_EQ(json_get_str_by_path(*json, "a.b", text, sizeof text), 0);
    EXPECT_EQ(fields(text, int{text[7]}), "|0");  // ended at its last byte too
}

TEST(Json, NumbersMayHaveFormsOutsideTheJsonStandard) {
    // The value as an integer, as a double, and its type.
    expect_table("json_numbers.txt", [](const std::string& number) {
        // Digits in a text before it, and other odd numbers on both sides.
        const parsed json(R"({"t":"-010 \" 0x1F","u":0x2,"v":)" + number + R"(,"w":[0x10,7]})");
        if (!json.tree) return std::string("no tree");
        EXPECT_STREQ(nx_json_get(*json, "t").text_value, "-010 \" 0x1F");
        EXPECT_EQ(json_get_long_by_path(*json, "u"), 2);
        EXPECT_EQ(nx_json_item(nx_json_get(*json, "w"), 0).int_value, 16);
        const nx_json& node = nx_json_get(*json, "v");
        return fields(node.int_value, node.dbl_value, nx_json_get_type(node));
    });
}

TEST(Json, InvalidOrExcessiveTextsAreRejected) {
    for (const char* const text :
         {"", " ", "{", "{\"a\":}", "{\"a\" 1}", "[1,]", "nul", "{\"a\":1", "\"\\x\""})
        EXPECT_FALSE(parsed(text).tree) << text;
    EXPECT_TRUE(parsed(std::string(1000, '[') + std::string(1000, ']')).tree);
    EXPECT_FALSE(parsed(std::string(1001, '[') + std::string(1001, ']')).tree);
    std::string wide = "[0";
    for (int n = 2; n < (1 << 18); ++n)
        wide += ",0";
    EXPECT_TRUE(parsed(wide + "]").tree);
    EXPECT_FALSE(parsed(wide + ",0]").tree);
}

TEST(Url, AddressesAreSplitIntoTheirParts) {
    expect_table("url_parts.txt", [](const std::string& url) {
        tarn_url_parts parts;
        EXPECT_EQ(tarn_parse_url(url, parts), 1);
        return fields(parts.user, parts.pass, parts.host, parts.port);
    });
}

TEST(Url, SplittingHonoursBackslashes) {
    expect_table("url_splits.txt", [](const std::string& text) {
        char parts[3][8] = {"-", "-", "-"};
        const tarn_text_part buffers[] = {{parts[0], 8}, {parts[1], 8}, {parts[2], 4}};
        tarn_split_str(text, ':', std::span(buffers).first(text.starts_with('3') ? 3 : 2));
        return fields(parts[0], parts[1], parts[2]);
    });
}
