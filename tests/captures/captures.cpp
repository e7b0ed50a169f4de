// The parsers that read the answers of each kind, and a counter without a server.
#include "captures.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <type_traits>

#include "config/tarn_config_line.h"
#include "config/tarn_kinds.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "services/tarn_apache.h"
#include "services/tarn_beanstalk.h"
#include "services/tarn_elastic.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_fpm.h"
#include "services/tarn_memcache.h"
#include "services/tarn_mysqlclient.h"
#include "services/tarn_nginx.h"
#include "services/tarn_postgreclient.h"
#include "services/tarn_rabbit.h"
#include "services/tarn_redis.h"

namespace {

using texts = std::vector<std::string>;

/// Calls a parser on an answer; false when it refuses it. A parser that takes a string gets the body only.
template <typename Record, typename Result, typename Text>
bool parse_with(Result (*parse)(Text, Record&), const std::string& answer, Record& data) {
    const std::size_t head_end =
        std::is_same_v<Text, std::string> ? answer.find("\r\n\r\n") : std::string::npos;
    const Text text(std::string_view(answer).substr(head_end == std::string::npos ? 0 : head_end + 4));
    if constexpr (!std::is_void_v<Result>) return parse(text, data) != 0;
    parse(text, data);
    return true;
}

/// Parses each answer with its parser, up to the first one that is refused.
template <typename Record, auto... Parse>
void read_answers(tarn_mycustom_counter& counter, const texts& answers) {
    auto& data = tarn::data_of<Record>(counter);
    auto answer = answers.begin();
    data.ok = ((answer == answers.end() || parse_with(Parse, *answer++, data)) && ...) ? 1 : 0;
}

/// Parses the first record of an answer.
int parse_record(std::string_view answer, tarn_mycustom_data_fpm& data) {
    std::span<const char> bytes(answer);
    fcgi_record record;
    const bool is_complete = fcgi_process_record(bytes, record) == fcgi_progress::complete;
    return is_complete ? fpm_parse_res(record.content, data) : 0;
}

/// Runs the whole update, with the stub as client library.
void read_rows(tarn_mycustom_counter& counter, const texts& answers) {
    ::setenv("TARN_ROWS", (std::string(CAPTURES "/") + answers[0]).c_str(), 1);
    counter.update(counter);
}

/// The kinds in their file: "> NAME", the configuration line, and the files of each sample on a line.
std::vector<captured_kind> read_kinds() {
    static const std::map<std::string, decltype(captured_kind::read)> readers = {
        {"redis", read_answers<tarn_mycustom_data_redis, redis_parse_info>},
        {"memcached", read_answers<tarn_mycustom_data_memcache, memcache_parse_stats>},
        {"beanstalk", read_answers<tarn_mycustom_data_beanstalk, beanstalk_parse_stats>},
        {"nginx", read_answers<tarn_mycustom_data_nginx, nginx_parse_res>},
        {"apache", read_answers<tarn_mycustom_data_apache, apache_parse_res>},
        {"fpm", read_answers<tarn_mycustom_data_fpm, parse_record>},
        {"rabbit",
         read_answers<tarn_mycustom_data_rabbit, rabbit_parse_node_items, rabbit_parse_queues_items>},
        {"elastic",
         read_answers<tarn_mycustom_data_elastic, elastic_parse_node_items, elastic_parse_cluster_health>},
        {"mysql", read_rows},
        {"postgre", read_rows},
        {"sphinx", read_rows}};
    std::vector<captured_kind> kinds;
    std::istringstream lines(captured("kinds.txt"));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("> ")) {
            const std::string name = line.substr(2);
            std::getline(lines, line);
            kinds.push_back({name, line, {}, readers.at(name)});
        } else {
            std::istringstream files(line);
            kinds.back().steps.push_back(texts(std::istream_iterator<std::string>(files), {}));
        }
    }
    return kinds;
}

}  // namespace

std::span<const captured_kind> captured_kinds() {
    static const std::vector<captured_kind> kinds = read_kinds();
    return kinds;
}

std::string captured(const std::string& name) {
    std::ifstream file(std::string(CAPTURES "/") + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> answers_of(const captured_kind& kind, std::size_t step) {
    texts answers;
    for (const std::string& name : kind.steps[step])
        answers.push_back(name.ends_with(".rows") ? name : captured(name));
    return answers;
}

tarn_mycustom_counter& only_counter() {
    for (const tarn_family& family :
         {mysql_family(), memcache_family(), beanstalk_family(), redis_family()}) {
        if (family.count > 0) return family.slots[0];
    }
    return mycustom_family().slots[0];
}

tarn_mycustom_counter& configured(const captured_kind& kind, int port) {
    if (only_counter().free != nullptr) only_counter().free(only_counter());
    stats = {};
    init_config();
    tarn::copy_padded(config.mysql_lib, STUB_CLIENT);
    tarn::copy_padded(config.postgre_lib, STUB_CLIENT);
    init_mysql_lib();
    init_postgre_lib();
    std::string line = kind.line;
    line.replace(line.find("@port@"), 6, std::to_string(port));
    register_counter(split_config_line(line));
    tarn_mycustom_counter& counter = only_counter();
    counter.init(counter);
    return counter;
}
