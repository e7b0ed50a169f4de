// Writes the tables of the report into its documents: report_docs FILE... replaces the lines between
// "figures: SECTION" and "end of figures" in Markdown (.md) and manual pages. With --check it changes nothing
// and fails for a document that is out of date.
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>

#include "report_table.h"

namespace {

using formatter = std::string (*)(const report_section&);

std::string_view type_name(bson type) {
    constexpr std::string_view names[] = {"double", "string", "document", "array", "int32", "int64"};
    return names[static_cast<std::size_t>(type)];
}

std::string exported_name(const report_section& section, const report_row& row) {
    if (row.export_name.empty()) return "";
    return "`" + std::string(section.export_name) + "_" + std::string(row.export_name) + "`";
}

std::string markdown(const report_section& section) {
    std::ostringstream text;
    text << "| key | BSON type | unit | exported as | meaning and source |\n|---|---|---|---|---|\n";
    for (const report_row& row : section.rows) {
        text << "| `" << row.key << "` | " << type_name(row.type) << " | " << row.unit << " | "
             << exported_name(section, row) << " | " << row.meaning << " |\n";
    }
    return text.str();
}

/// Markdown as plain text with the character escapes of a manual page.
std::string without_markup(std::string_view text) {
    static const std::pair<std::regex, std::string> changes[] = {
        {std::regex(R"(\[([^\]]*)\]\([^)]*\))"), "$1"},
        {std::regex("`|\\*\\*"), ""},
        {std::regex("−"), R"(\-)"},
        {std::regex("×"), R"(\(mu)"},
        {std::regex("÷"), R"(\(di)"},
        {std::regex("…"), "..."}};
    std::string plain(text);
    for (const auto& [from, to] : changes)
        plain = std::regex_replace(plain, from, to);
    return plain;
}

/// Markdown as the text lines of a manual page: at most 78 bytes, and a new line for each sentence.
std::string manual_text(std::string_view markdown_text) {
    std::istringstream words(without_markup(markdown_text));
    std::string text;
    std::size_t column = 0;
    for (std::string word; words >> word;) {
        const bool is_break = column + word.size() >= 78 || text.ends_with('.');
        if (column > 0) text += is_break ? '\n' : ' ';
        if (is_break) column = 0;
        // A line that begins with one of these would be a macro.
        if (column == 0 && (word[0] == '.' || word[0] == '\'')) text += "\\&";
        text += word;
        column += word.size() + 1;
    }
    return text + '\n';
}

std::string manual(const report_section& section) {
    std::ostringstream text;
    text << ".Bl -tag -width Ds\n";
    for (const report_row& row : section.rows) {
        text << ".It Li " << row.key << " Pq " << type_name(row.type) << "\n";
        const std::string unit = row.unit.empty() ? "" : std::string(row.unit) + "; ";
        text << manual_text(unit + std::string(row.meaning));
    }
    text << ".El\n";
    return text.str();
}

/// The name of a section in a line like "<!-- figures: mem -->"; nothing in any other line.
const report_section* begun_section(const std::string& line) {
    const std::size_t at = line.find("figures: ");
    if (at == std::string::npos) return nullptr;
    const std::string name = line.substr(at + 9, line.find(' ', at + 9) - at - 9);
    return find_section(name == "top" ? "" : name);
}

std::string rewritten(std::istream& document, formatter format) {
    std::string text;
    bool is_inside = false;
    for (std::string line; std::getline(document, line);) {
        if (line.find("end of figures") != std::string::npos) is_inside = false;
        if (!is_inside) text += line + '\n';
        if (const report_section* const section = begun_section(line)) {
            text += format(*section);
            is_inside = true;
        }
    }
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    const bool only_check = argc > 1 && std::string_view(argv[1]) == "--check";
    int status = 0;
    for (int at = only_check ? 2 : 1; at < argc; ++at) {
        const std::string path = argv[at];
        std::stringstream before;
        before << std::ifstream(path).rdbuf();
        const std::string after = rewritten(before, path.ends_with(".md") ? markdown : manual);
        if (after == before.str()) continue;
        if (only_check) {
            std::cerr << path
                      << " differs from the table of the report; the target \"documents\" updates it\n";
            status = 1;
        } else {
            std::ofstream(path) << after;
        }
    }
    return status;
}
