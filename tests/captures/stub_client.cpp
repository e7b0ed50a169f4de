// Stands in for both database client libraries without a server. The results come from the file named by
// TARN_ROWS: "> TEXT" begins the rows for statements that begin with TEXT, tabs separate fields, and "\N" is
// SQL's NULL. The first row of a result of PostgreSQL, "= NAME NAME", names the columns.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using fields = std::vector<std::string>;
using rows = std::vector<fields>;

/// The rows for each beginning of a statement.
std::map<std::string, rows> read_answers(const std::string& path) {
    std::map<std::string, rows> answers;
    rows* newest = nullptr;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("> ")) {
            newest = &answers[line.substr(2)];
            continue;
        }
        std::istringstream rest(line.starts_with("= ") ? line.substr(2) : line);
        fields& row = newest->emplace_back();
        for (std::string field; std::getline(rest, field, '\t');)
            row.push_back(field);
    }
    return answers;
}

const rows* found = nullptr;
std::size_t next_row = 0;
std::array<char*, 64> row{};
int object;

int find_answer(const std::string& statement) {
    static std::map<std::string, std::map<std::string, rows>> files;
    const char* const path = std::getenv("TARN_ROWS");
    if (!files.contains(path)) files[path] = read_answers(path);
    found = nullptr;
    next_row = 0;
    for (const auto& [beginning, answer] : files[path]) {
        if (statement.starts_with(beginning)) found = &answer;
    }
    return found == nullptr ? 1 : 0;
}

char* text_of(const std::string& field) {
    return field == "\\N" ? nullptr : const_cast<char*>(field.c_str());
}

}  // namespace

// The names are those of the libraries. Parameters that nothing reads are left out.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" {
void* mysql_init(void* /*connection*/) {
    return &object;
}
void mysql_close(void* /*connection*/) {}
const char* mysql_error(const void* /*connection*/) {
    return "";
}
[[gnu::alias("mysql_init")]] void* mysql_real_connect(void* connection);
int mysql_query(void* /*connection*/, const char* text) {
    return find_answer(text);
}
const void* mysql_store_result(void* /*connection*/) {
    return found;
}
unsigned mysql_num_fields(void* /*result*/) {
    return found->empty() ? 0 : static_cast<unsigned>(found->front().size());
}
void mysql_free_result(void* /*result*/) {}
int mysql_options(const void* /*connection*/) {
    return 0;
}
void mysql_library_end() {}
char** mysql_fetch_row(void* /*result*/) {
    if (next_row == found->size()) return nullptr;
    std::ranges::transform((*found)[next_row++], row.begin(), text_of);
    return row.data();
}

int PQconnectdb;  // looked up, never called
[[gnu::alias("mysql_init")]] void* PQsetdbLogin(void* host);
[[gnu::alias("mysql_options")]] int PQstatus(const void* connection);
[[gnu::alias("mysql_error")]] const char* PQerrorMessage(const void* connection);
void* PQexec(void* /*connection*/, const char* text) {
    find_answer(text);
    return &object;
}
char* PQgetvalue(const void* /*result*/, int at, int column) {
    return text_of(found->at(static_cast<std::size_t>(at) + 1).at(static_cast<std::size_t>(column)));
}
int PQresultStatus(const void* /*result*/) {
    return found != nullptr ? 2 : 7;
}
int PQntuples(const void* /*result*/) {
    return static_cast<int>(found->size()) - 1;
}
int PQnfields(const void* /*result*/) {
    return static_cast<int>(found->front().size());
}
char* PQfname(const void* /*result*/, int column) {
    return text_of(found->front().at(static_cast<std::size_t>(column)));
}
void PQclear(void* /*result*/) {}
void PQfinish(void* /*connection*/) {}
}
// NOLINTEND(readability-identifier-naming)
