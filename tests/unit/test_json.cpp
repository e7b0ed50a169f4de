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
    const std::pair<const char*, const char*> rows[] = {
        {"a.b", "5|-1|int"},       {".a..b.", "5|-1|int"}, {"a.d", "2|-1|double"},
        {"a.e", "-7|-1|double"},   {"a.t", "1|1|bool"},    {"a.f", "0|0|bool"},
        {"a.n", "0|-1|null"},      {"a.s", "0|-1|string"}, {"a.list", "0|-1|array"},
        {"a.list.x", "0|-1|null"}, {"x.b", "0|-1|null"},   {"neg", "-3|-1|int"},
        {"", "0|-1|object"},       {"dup", "1|-1|int"},    {"big", "9223372036854775807|-1|int"}};
    for (const auto& [path, expected] : rows) {
        const char* const type = nx_json_get_type(json_get_item_by_path(*json, path));
        EXPECT_EQ(fields(json_get_long_by_path(*json, path), json_get_bool_by_path(*json, path), type),
                  expected)
            << path;
    }
    const nx_json& list = json_get_item_by_path(*json, "a.list");
    EXPECT_EQ(fields(json_get_item_by_path(*json, "a.e").dbl_value, nx_json_item(list, 0).int_value,
                     json_get_item_by_path(*json, "neg").dbl_value,
                     nx_json_get(nx_json_item(list, 1), "x").int_value),
              "-700|1|-3|2");
    const nx_json& missing = nx_json_item(*json, 99);
    EXPECT_EQ(&missing, &nx_json_get(missing, "x"));  // one null node for every miss
    EXPECT_EQ(&missing, &nx_json_item(*json, -1));
    char text[8] = "zzzzzzz";
    EXPECT_EQ(json_get_str_by_path(*json, "a.s", text, 4), 1);
    EXPECT_STREQ(text, "t\"A");
    EXPECT_EQ(json_get_str_by_path(*json, "a.b", text, sizeof text), 0);
    EXPECT_EQ(fields(text, int{text[7]}), "|0");  // ended at its last byte too
}

TEST(Json, NumbersMayHaveFormsOutsideTheJsonStandard) {
    // The value as an integer, as a double, and its type.
    const std::pair<const char*, const char*> rows[] = {
        {"010", "8|8|int"},
        {"00", "0|0|int"},
        {"-010", "-8|-8|int"},
        {"0x1F", "31|31|int"},
        {"-0X10", "-16|-16|int"},
        {"0xFFFFFFFFFF", "1099511627775|1.09951e+12|int"},
        {"-0xFFFFFFFFFF", "-1099511627775|-1.09951e+12|int"},
        {"0x7FFFFFFFFFFFFFFF", "9223372036854775807|9.22337e+18|int"},
        {"0xFFFFFFFFFFFFFFFFFF", "9223372036854775807|9.22337e+18|int"},
        {"-07777777777777777777777777", "-9223372036854775808|-9.22337e+18|int"},
        {"-99999999999999999999", "-9223372036854775808|-9.22337e+18|int"},
        {"1e-08", "1|1e-08|double"},
        {"1.5e-09", "1|1.5e-09|double"},
        {"2.5e-018", "2|2.5e-18|double"},
        {"1e-010", "1|1e-10|double"},
        {"010.5", "10|10.5|double"},
        {"0.5", "0|0.5|double"},
        {"1e309", "1|inf|double"},
        {"-1e0400", "-1|-inf|double"}};
    for (const auto& [number, expected] : rows) {
        // A text with digits before it, and another odd number after it.
        const std::string text = std::string(R"({"t":"-010 \" 0x1F","v":)") + number + R"(,"w":[0x10,7]})";
        for (const std::string& whole : {text, text.substr(0, text.find(",\"w")) + "}"}) {
            const parsed json(whole);
            ASSERT_TRUE(json.tree) << whole;
            const nx_json& node = nx_json_get(*json, "v");
            EXPECT_EQ(fields(node.int_value, node.dbl_value, nx_json_get_type(node)), expected) << whole;
            EXPECT_STREQ(nx_json_get(*json, "t").text_value, "-010 \" 0x1F");
            EXPECT_EQ(nx_json_item(nx_json_get(*json, "w"), 0).int_value, whole == text ? 16 : 0);
        }
    }
}

TEST(Json, ColumnSumsTakeIntegersAndFlagOtherValues) {
    const std::pair<const char*, const char*> rows[] = {{R"({"a":{"x":1},"b":{"x":2},"c":{"x":"3"}})", "3|1"},
                                                        {R"({"a":{"x":1},"b":{"x":2}})", "3|0"},
                                                        {R"({"a":{"x":1.5},"b":7,"c":{}})", "0|1"},
                                                        {"{}", "0|0"},
                                                        {R"([{"x":1}])", "0|1"}};
    for (const auto& [text, expected] : rows) {
        int error = -1;
        const std::int64_t sum = json_column_sum(*parsed(text), "x", error);
        EXPECT_EQ(fields(sum, error), expected) << text;
    }
}

TEST(Json, InvalidOrExcessiveTextsAreRejected) {
    for (const char* const text : {"", " ", "{", "{\"a\":}", "{\"a\" 1}", "[1,]", "nul", "{\"a\":1",
                                   "\"\\x\"", "[08]", "[0x]", "[1e]", "[01 2]"})
        EXPECT_FALSE(parsed(text).tree) << text;
    EXPECT_TRUE(parsed(std::string(1000, '[') + std::string(1000, ']')).tree);
    EXPECT_FALSE(parsed(std::string(1001, '[') + std::string(1001, ']')).tree);
    std::string wide = "[0";
    for (int n = 2; n < (1 << 18); ++n)
        wide += ",0";
    EXPECT_TRUE(parsed(wide + "]").tree);
    EXPECT_FALSE(parsed(wide + ",0]").tree);
    std::string embedded = "HTTP/1.0 200\r\n\r\n{\"a\":1}";
    EXPECT_EQ(json_get_long_by_path(*nx_json_parse_utf8(embedded, embedded.find('{')), "a"), 1);
}

TEST(Url, AddressesAreSplitIntoTheirParts) {
    const std::string longest(500, 'u'), cut(99, 'u');
    const std::pair<std::string, std::string> rows[] = {
        {"user:secret@10.0.0.1:6379", "user|secret|10.0.0.1|6379"},
        {"10.0.0.1:6379", "||10.0.0.1|6379"},
        {"10.0.0.1", "||10.0.0.1|0"},
        {"@h:1", "||h|1"},
        {"u:p:q@h:1:2", "u|p:q|h|1"},
        {"u\\:v:p\\@q@h@i:7", "u:v|p@q|h@i|7"},
        {"u@", "||u|0"},
        {longest + ":p@" + longest, cut + "||" + cut + "|0"}};
    for (const auto& [url, expected] : rows) {
        tarn_url_parts parts;
        EXPECT_EQ(tarn_parse_url(url, parts), 1);
        EXPECT_EQ(fields(parts.user, parts.pass, parts.host, parts.port), expected) << url;
    }
}

TEST(Url, SplittingHonoursBackslashes) {
    const std::pair<std::string_view, const char*> rows[] = {
        {"a\\:b:c", "a:b|c|-"}, {"a:b:c", "a|b:c|-"},    {"a\\\\:b\\n\\", "a\\|b\\n\\|-"},
        {"", "|-|-"},           {"3::longer", "3||lon"}, {"much too long", "much to|-|-"}};
    for (const auto& [text, expected] : rows) {
        char parts[3][8] = {"-", "-", "-"};
        const tarn_text_part buffers[] = {{parts[0], 8}, {parts[1], 8}, {parts[2], 4}};
        tarn_split_str(text, ':', std::span(buffers).first(text.starts_with('3') ? 3 : 2));
        EXPECT_EQ(fields(parts[0], parts[1], parts[2]), expected) << text;
    }
}
