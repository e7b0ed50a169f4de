// Stands in for both database client libraries without a server. The results come from the file named by
// TARN_ROWS: "> TEXT" begins the rows for statements that begin with TEXT, "= NAME NAME" names the columns,
// tabs separate fields, and "\N" is SQL's NULL.
#include <array>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using fields = std::vector<std::string>;

struct answer {
    std::string prefix;  ///< of the statements that it answers
    fields names;
    std::vector<fields> rows;
};

fields split(const std::string& line) {
    fields found;
    std::istringstream rest(line);
    for (std::string field; std::getline(rest, field, '\t');)
        found.push_back(field);
    return found;
}

std::vector<answer> read_answers(const std::string& path) {
    std::vector<answer> answers;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("> ")) {
            answers.push_back({line.substr(2), {}, {}});
        } else if (line.starts_with("= ")) {
            answers.back().names = split(line.substr(2));
        } else {
            answers.back().rows.push_back(split(line));
        }
    }
    return answers;
}

const answer* found = nullptr;
std::size_t next_row = 0;
std::array<char*, 64> row{};
int object;

int find_answer(const std::string& statement) {
    static std::map<std::string, std::vector<answer>> files;
    const char* const path = std::getenv("TARN_ROWS");
    auto& answers = files[path];
    if (answers.empty()) answers = read_answers(path);
    found = nullptr;
    next_row = 0;
    for (const answer& one : answers) {
        if (statement.starts_with(one.prefix)) found = &one;
    }
    return found == nullptr ? 1 : 0;
}

char* text_of(const std::string& field) {
    return field == "\\N" ? nullptr : const_cast<char*>(field.c_str());
}

}  // namespace

// The names are those of the libraries.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" {
void* mysql_init(void* /*connection*/) {
    return &object;
}
void mysql_close(void* /*connection*/) {}
const char* mysql_error(void* /*connection*/) {
    return "";
}
void* mysql_real_connect(void* connection, ...) {
    return connection;
}
int mysql_query(void* /*connection*/, const char* text) {
    return find_answer(text);
}
const void* mysql_store_result(void* /*connection*/) {
    return found;
}
unsigned mysql_num_fields(void* /*result*/) {
    return found->rows.empty() ? 0 : static_cast<unsigned>(found->rows[0].size());
}
void mysql_free_result(void* /*result*/) {}
int mysql_options(void* /*connection*/, int /*option*/, const void* /*value*/) {
    return 0;
}
void mysql_library_end() {}
char** mysql_fetch_row(void* /*result*/) {
    if (next_row == found->rows.size()) return nullptr;
    const fields& values = found->rows[next_row++];
    for (std::size_t at = 0; at < values.size(); ++at)
        row.at(at) = text_of(values[at]);
    return row.data();
}

void* PQconnectdb(const char* /*conninfo*/) {
    return &object;
}
void* PQsetdbLogin(...) {
    return &object;
}
int PQstatus(const void* /*connection*/) {
    return 0;
}
void* PQexec(void* /*connection*/, const char* text) {
    find_answer(text);
    return &object;
}
char* PQgetvalue(const void* /*result*/, int at, int column) {
    return text_of(found->rows.at(static_cast<std::size_t>(at)).at(static_cast<std::size_t>(column)));
}
int PQresultStatus(const void* /*result*/) {
    return found != nullptr ? 2 : 7;
}
int PQntuples(const void* /*result*/) {
    return static_cast<int>(found->rows.size());
}
int PQnfields(const void* /*result*/) {
    return static_cast<int>(found->names.size());
}
char* PQfname(const void* /*result*/, int column) {
    return text_of(found->names.at(static_cast<std::size_t>(column)));
}
char* PQerrorMessage(const void* /*connection*/) {
    return const_cast<char*>("");
}
void PQclear(void* /*result*/) {}
void PQfinish(void* /*connection*/) {}
}
// NOLINTEND(readability-identifier-naming)
