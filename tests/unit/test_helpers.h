#pragma once

#include <bson/bson.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>

#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "support/tarn_text.h"

/// Joins values with "|" into one text, so that a row of them is compared at once.
template <typename First, typename... Rest>
std::string fields(const First& first, const Rest&... rest) {
    std::ostringstream text;
    text << first;
    ((text << '|' << rest), ...);
    return text.str();
}

/// What a call prints on standard output.
template <typename Call>
std::string printed_by(Call call) {
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

/// Compares a text with a golden file. TARN_REWRITE_GOLDEN=1 in the environment rewrites the file first.
inline void expect_golden(const std::string& name, const std::string& text) {
    const std::string path = std::string(GOLDEN_DIR) + "/" + name;
    if (std::getenv("TARN_REWRITE_GOLDEN") != nullptr) std::ofstream(path) << text;
    std::ifstream golden(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(golden), {}), text);
}

/// Calls a function with the text before the last " -> " of each line of a golden file, and expects the text
/// after it. A line feed in either text is written as "\n". A line that begins with "// " is a comment.
template <typename Call>
void expect_table(const std::string& name, Call call) {
    std::ifstream rows(std::string(GOLDEN_DIR) + "/" + name);
    std::string text;
    for (std::string row; std::getline(rows, row);) {
        if (row.starts_with("// ")) {
            text += row + "\n";
            continue;
        }
        const std::string input = row.substr(0, row.rfind(" -> "));
        const std::string result = call(std::regex_replace(input, std::regex(R"(\\n)"), "\n"));
        text += input + " -> " + std::regex_replace(result, std::regex("\n"), R"(\n)") + "\n";
    }
    EXPECT_FALSE(text.empty()) << name;
    expect_golden(name, text);
}

/// A counter with the data blocks of its kind, zero-filled or made by init from a configuration text.
template <typename Record>
struct counter_of {
    tarn_mycustom_counter counter{};

    counter_of() { tarn::allocate_records<Record>(counter, "test"); }
    counter_of(std::string_view text, const tarn_operations& operations) {
        init_config();
        mycustom_set(counter, text, operations);
        printed_by([&] { counter.init(counter); });
    }
    counter_of(const counter_of&) = delete;
    counter_of& operator=(const counter_of&) = delete;
    ~counter_of() { tarn::free_records<Record>(counter); }
    Record& data() { return tarn::data_of<Record>(counter); }
    Record& delta() { return tarn::data_delta_of<Record>(counter); }
};
