// Each kind of service on answers that real servers gave: what the agent itself does with one (read it,
// compute the rates, append the element), and the whole exchange beside a bare connect, write and read of as
// many bytes.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <bson/bson.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "bench_peer.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "services/tarn_apache.h"
#include "services/tarn_beanstalk.h"
#include "services/tarn_elastic.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_fpm.h"
#include "services/tarn_memcache.h"
#include "services/tarn_mysql.h"
#include "services/tarn_mysqlclient.h"
#include "services/tarn_nginx.h"
#include "services/tarn_postgre.h"
#include "services/tarn_postgreclient.h"
#include "services/tarn_rabbit.h"
#include "services/tarn_redis.h"
#include "services/tarn_sphinx.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

namespace {

using answers = std::vector<std::string>;

std::string captured(const std::string& name) {
    std::ifstream file(std::string(CAPTURES) + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string body_of(const std::string& answer) {
    return answer.substr(answer.find("\r\n\r\n") + 4);
}

/// Reads the answers into the counter's sample, as its update does once it has them.
using read_answers = void (*)(tarn_mycustom_counter& counter, const answers& texts);

template <typename Record, auto Parse>
void read_one(tarn_mycustom_counter& counter, const answers& texts) {
    auto& data = tarn::data_of<Record>(counter);
    data.ok = 1;
    Parse(texts[0], data);
}

template <typename Record, auto ParseFirst, auto ParseSecond>
void read_two(tarn_mycustom_counter& counter, const answers& texts) {
    auto& data = tarn::data_of<Record>(counter);
    data.ok = 1;
    ParseFirst(body_of(texts[0]), data);
    ParseSecond(body_of(texts[1]), data);
}

void read_fpm(tarn_mycustom_counter& counter, const answers& texts) {
    std::span<const char> bytes(texts[0]);
    fcgi_record record;
    fcgi_process_record(bytes, record);
    auto& data = tarn::data_of<tarn_mycustom_data_fpm>(counter);
    data.ok = 1;
    fpm_parse_res(record.content, data);
}

/// The client library of these kinds is a stub that has its rows at hand.
template <auto Update>
void read_rows(tarn_mycustom_counter& counter, const answers& /*texts*/) {
    Update(counter);
}

struct kind {
    std::string name;
    std::string before_port, behind_port;  ///< configuration text around the port
    std::vector<std::string> captures;
    read_answers read;
    tarn_operations operations;
};

const kind kinds[] = {
    {"redis",
     "a u:@127.0.0.1:",
     "",
     {"redis_info.txt"},
     read_one<tarn_mycustom_data_redis, redis_parse_info>,
     {redis_init, nullptr, redis_update, redis_delta, redis_tobson, nullptr, redis_free}},
    {"memcached",
     "127.0.0.1:",
     "",
     {"memcached_stats.txt"},
     read_one<tarn_mycustom_data_memcache, memcache_parse_stats>,
     {memcache_init1, nullptr, memcache_update, memcache_delta, memcache_tobson, nullptr, memcache_free}},
    {"beanstalk",
     "127.0.0.1:",
     "",
     {"beanstalkd_stats.txt"},
     read_one<tarn_mycustom_data_beanstalk, beanstalk_parse_stats>,
     {beanstalk_init1, nullptr, beanstalk_update, beanstalk_delta, beanstalk_tobson, nullptr,
      beanstalk_free}},
    {"nginx",
     "a 127.0.0.1:",
     "/status localhost",
     {"nginx_status.txt"},
     read_one<tarn_mycustom_data_nginx, nginx_parse_res>,
     {nginx_init, nullptr, nginx_update, nginx_delta, nginx_tobson, nullptr, nginx_free}},
    {"apache",
     "a 127.0.0.1:",
     "",
     {"apache_status.txt"},
     read_one<tarn_mycustom_data_apache, apache_parse_res>,
     {apache_init, nullptr, apache_update, apache_delta, apache_tobson, nullptr, apache_free}},
    {"fpm",
     "a 127.0.0.1:",
     " /status",
     {"fpm_answer.bin"},
     read_fpm,
     {fpm_init, nullptr, fpm_update, fpm_delta, fpm_tobson, nullptr, fpm_free}},
    {"rabbit",
     "a u:p@127.0.0.1:",
     "",
     {"rabbit_nodes.txt", "rabbit_queues.txt"},
     read_two<tarn_mycustom_data_rabbit, rabbit_parse_node_items, rabbit_parse_queues_items>,
     {rabbit_init, nullptr, rabbit_update, rabbit_delta, rabbit_tobson, nullptr, rabbit_free}},
    {"elastic",
     "a 127.0.0.1:",
     " node-7",
     {"elastic_node.txt", "elastic_health.txt"},
     read_two<tarn_mycustom_data_elastic, elastic_parse_node_items, elastic_parse_cluster_health>,
     {elastic_init, nullptr, elastic_update, elastic_delta, elastic_tobson, nullptr, elastic_free}},
    {"mysql",
     "a u:p@127.0.0.1:",
     "",
     {},
     read_rows<mysql_update>,
     {mysql_init1, nullptr, mysql_update, mysql_delta, mysql_tobson, nullptr, mysql_free}},
    {"postgre",
     "a u:p@127.0.0.1:",
     "",
     {},
     read_rows<postgre_update>,
     {postgre_init, nullptr, postgre_update, postgre_delta, postgre_tobson, nullptr, postgre_free}},
    {"sphinx",
     "a u:p@127.0.0.1:",
     "",
     {},
     read_rows<sphinx_update>,
     {sphinx_init, nullptr, sphinx_update, sphinx_delta, sphinx_tobson, nullptr, sphinx_free}},
};

/// What init prints is not the benchmark's.
class quiet final {
  public:
    quiet() : kept_(::dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        const tarn::unique_fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        ::dup2(nowhere.get(), STDOUT_FILENO);
    }
    ~quiet() {
        std::fflush(stdout);
        ::dup2(kept_, STDOUT_FILENO);
        ::close(kept_);
    }
    quiet(const quiet&) = delete;
    quiet& operator=(const quiet&) = delete;

  private:
    int kept_;
};

/// A counter of the kind whose server listens on this port.
class service final {
  public:
    service(const kind& row, int port) : release_(row.operations.free) {
        const quiet nothing;
        init_config();
        tarn::fill_text(config.mysql_lib, STUB_CLIENT);
        tarn::fill_text(config.postgre_lib, STUB_CLIENT);
        init_mysql_lib();
        init_postgre_lib();
        const std::string text = row.before_port + std::to_string(port) + row.behind_port;
        mycustom_set(*counter_, text, row.operations);
        row.operations.init(*counter_);
    }
    ~service() { release_(*counter_); }
    service(const service&) = delete;
    service& operator=(const service&) = delete;

    tarn_mycustom_counter& counter() { return *counter_; }

  private:
    std::unique_ptr<tarn_mycustom_counter> counter_ = std::make_unique<tarn_mycustom_counter>();
    mycustom_free release_;
};

answers captures_of(const kind& row) {
    answers texts;
    for (const std::string& name : row.captures)
        texts.push_back(captured(name));
    return texts;
}

/// Reading, rates and element, without a connection.
void own_work(benchmark::State& state, const kind& row) {
    const answers texts = captures_of(row);
    service measured(row, 1);
    tarn_mycustom_counter& counter = measured.counter();
    bson_t document = BSON_INITIALIZER;
    for (auto _ : state) {
        row.read(counter, texts);
        row.operations.delta(counter, 15, 1);
        bson_reinit(&document);
        row.operations.tobson(counter, document);
    }
    state.counters["element_bytes"] = static_cast<double>(document.len);
    bson_destroy(&document);
}

void exchange(benchmark::State& state, const kind& row) {
    peer server(captures_of(row));
    service measured(row, server.port());
    for (auto _ : state) {
        if (row.operations.update(measured.counter()) != 0) continue;
        state.SkipWithError("no sample");
        break;
    }
}

void bare_exchange(const peer& server) {
    static std::array<char, 65536> buffer;
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    place.sin_port = ::htons(static_cast<std::uint16_t>(server.port()));
    const int connection = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::connect(connection, reinterpret_cast<const sockaddr*>(&place), sizeof place);
    for (std::size_t answer = 0; answer < server.answers().size(); ++answer) {
        ::send(connection, buffer.data(), server.request_size(answer), 0);
        std::size_t missing = server.answers()[answer].size();
        while (missing > 0) {
            const ssize_t length = ::recv(connection, buffer.data(), missing, 0);
            if (length <= 0) break;
            missing -= static_cast<std::size_t>(length);
        }
    }
    ::close(connection);
}

void bare(benchmark::State& state, const kind& row) {
    peer server(captures_of(row));
    service measured(row, server.port());
    row.operations.update(measured.counter());  // tells the sizes of its requests
    for (auto _ : state)
        bare_exchange(server);
}

void add(const std::string& name, void (*run)(benchmark::State&, const kind&), const kind& row) {
    benchmark::RegisterBenchmark((name + "/" + row.name).c_str(), run, row)->Unit(benchmark::kMicrosecond);
}

const int registered = [] {
    for (const kind& row : kinds) {
        add("own", own_work, row);
        if (row.captures.empty()) continue;  // a library's exchange is the library's
        add("exchange", exchange, row);
        add("bare", bare, row);
    }
    return 0;
}();

}  // namespace
