// Describes and samples services through the records and operations of their kinds.
#include "check_services.h"

#include <bson/bson.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string_view>

#include "docker/tarn_docker_core.h"
#include "record/tarn_budget.h"
#include "record/tarn_config.h"
#include "record/tarn_reason.h"
#include "record/tarn_records.h"
#include "services/tarn_apache.h"
#include "services/tarn_beanstalk.h"
#include "services/tarn_elastic.h"
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

/// What the records of the kinds have in common.
struct service_view {
    std::string host;
    std::string port;  ///< a number or a socket path
    std::string user;
    std::string password;
    std::string more;  ///< path, name of the server or node
};

/// Reads the members that the record of a kind has.
template <typename Record>
service_view view_of(const tarn_mycustom_counter& counter) {
    const auto& data = *static_cast<const Record*>(counter.data);
    service_view view;
    if constexpr (requires { data.ip; }) view.host = data.ip;
    if constexpr (requires { data.host; }) view.host = data.host;
    if constexpr (std::is_array_v<decltype(Record::port)>) {
        view.port = data.port;
    } else if (data.port != 0) {
        view.port = std::to_string(data.port);
    }
    if constexpr (requires { data.socket; }) view.port += data.socket;
    if constexpr (requires { data.user; }) view.user = data.user;
    if constexpr (requires { data.pass; }) view.password = data.pass;
    if constexpr (requires { data.request_uri; })
        view.more = std::string("/") + data.request_uri + " of " + data.server;
    if constexpr (requires { data.status_path; }) view.more = data.status_path;
    if constexpr (requires { data.node_name; }) view.more = std::string("node ") + data.node_name;
    return view;
}

struct kind_view {
    const tarn_operations* kind;
    service_view (*view)(const tarn_mycustom_counter& counter);
};

constexpr kind_view views[] = {
    {&redis_operations, view_of<tarn_mycustom_data_redis>},
    {&mysql_operations, view_of<tarn_mycustom_data_mysql>},
    {&postgre_operations, view_of<tarn_mycustom_data_postgre>},
    {&memcache_operations, view_of<tarn_mycustom_data_memcache>},
    {&beanstalk_operations, view_of<tarn_mycustom_data_beanstalk>},
    {&sphinx_operations, view_of<tarn_mycustom_data_sphinx>},
    {&rabbit_operations, view_of<tarn_mycustom_data_rabbit>},
    {&elastic_operations, view_of<tarn_mycustom_data_elastic>},
    {&apache_operations, view_of<tarn_mycustom_data_apache>},
    {&nginx_operations, view_of<tarn_mycustom_data_nginx>},
    {&fpm_operations, view_of<tarn_mycustom_data_fpm>},
};

/// Nothing for a script.
service_view view_of(const checked_counter& one) {
    for (const kind_view& row : views) {
        if (row.kind == one.kind->operations) return row.view(*one.counter);
    }
    return {};
}

bool is_script(const checked_counter& one) {
    return one.kind->family().slots.data() == custom_family().slots.data();
}

std::string script_description(const tarn_mycustom_counter& script) {
    return std::string("report ") + script.report + ", every " +
           std::to_string(static_cast<std::uint32_t>(script.interval) * config.interval) + " s as user " +
           std::to_string(script.uid) + ": " + (script.exec + tarn::leading_spaces(script.exec));
}

/// The number of figures in the counter's element of the report; 0 when it appends none.
int figures_of(tarn_mycustom_counter& counter) {
    bson_t document = BSON_INITIALIZER;
    counter.tobson(counter, document);
    bson_iter_t element;
    bson_iter_t figure;
    int count = 0;
    if (bson_iter_init(&element, &document) && bson_iter_next(&element) &&
        bson_iter_recurse(&element, &figure)) {
        while (bson_iter_next(&figure)) {
            const std::string_view key = bson_iter_key(&figure);
            if (key != "ok" && key != "report" && key != "id") ++count;
        }
    }
    bson_destroy(&document);
    return count;
}

/// Loads the client library of the kind; false, with a reason, when it is missing.
bool load_library(const counter_kind& kind) {
    const bool is_mysql = kind.library_flag == &tarn_config::mysql_on;
    const bool is_postgre = kind.library_flag == &tarn_config::postgre_on;
    if (is_mysql) tarn::load_mysql();
    if (is_postgre) tarn::load_postgre();
    const bool is_missing =
        (is_mysql && !tarn::is_mysql_loaded()) || (is_postgre && !tarn::is_postgre_loaded());
    const std::string_view name = tarn::text_of(is_mysql ? config.mysql_lib : config.postgre_lib);
    if (is_missing)
        tarn::note_reason("the library %.*s cannot be loaded", static_cast<int>(name.size()), name.data());
    return !is_missing;
}

/// The text after the name of a service. Two deltas of one sample make its figures reportable.
std::string outcome_of(const checked_counter& one) {
    tarn_mycustom_counter& counter = *one.counter;
    const auto start = std::chrono::steady_clock::now();
    if (load_library(*one.kind) && counter.update != nullptr) counter.update(counter);
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    counter.delta(counter, config.interval, 0);
    counter.delta(counter, config.interval, 1);
    const int figures = figures_of(counter);
    if (figures == 0) tarn::note_reason("no figures");
    if (!tarn::noted_reason().empty()) return "FAILED " + std::string(tarn::noted_reason());
    return "ok " + std::to_string(took.count()) + " ms " + std::to_string(figures) + " figures";
}

int result_pipe = -1;

/// Some failures end the agent, and so the process of a probe.
void write_reason_at_exit() {
    const std::string text = "FAILED " + std::string(tarn::noted_reason()) + "; the agent would end";
    [[maybe_unused]] const ssize_t written = ::write(result_pipe, text.data(), text.size());
}

[[noreturn]] void probe(const checked_counter& one, int output) {
    constexpr auto longest = std::chrono::seconds(60);
    result_pipe = output;
    std::atexit(write_reason_at_exit);
    tarn::clear_reason();
    tarn::budget.begin_cycle(longest);
    tarn::budget.begin_exchange(0, tarn::slot_of_living);
    const std::string text = outcome_of(one);
    const ssize_t written = ::write(output, text.data(), text.size());
    ::_exit(written < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
}

/// Runs the probe in a process of its own, because a library may hang or crash in it.
std::string probed(const checked_counter& one) {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return "FAILED no pipe";
    const tarn::unique_fd input(ends[0]);
    tarn::unique_fd output(ends[1]);
    const pid_t pid = ::fork();
    if (pid == 0) probe(one, output.get());
    output.reset();
    std::array<char, 512> text{};
    const ssize_t got = pid > 0 ? ::read(input.get(), text.data(), text.size()) : 0;
    if (pid > 0) ::waitpid(pid, nullptr, 0);
    return got > 0 ? std::string(text.data(), static_cast<std::size_t>(got)) : "FAILED its process crashed";
}

}  // namespace

std::string description(const checked_counter& one) {
    if (is_script(one)) return script_description(*one.counter);
    const service_view view = view_of(one);
    std::string text = view.host + (view.port.starts_with('/') ? " " : ":") + view.port;
    if (!view.more.empty()) text += ", " + view.more;
    if (!view.user.empty()) text += ", user " + view.user;
    return text + (view.password.empty() ? "" : ", with a password");
}

bool has_password(const checked_counter& one) {
    return !is_script(one) && !view_of(one).password.empty();
}

void probe_services(const std::vector<checked_counter>& counters, const std::string& only, std::FILE& out,
                    findings& found) {
    docker_init_private(config.docker);
    if (config.docker != nullptr && !config.docker_sock_path.empty())
        docker_set_socket(*config.docker, config.docker_sock_path);
    bool is_known = only.empty();
    for (const checked_counter& one : counters) {
        if (is_script(one) || (!only.empty() && only != one.name && only != one.counter->id)) continue;
        is_known = true;
        const std::string outcome = probed(one);
        std::fprintf(&out, "%s %s\n", one.name.c_str(), outcome.c_str());
        if (outcome.starts_with("FAILED")) found.count_error();
    }
    if (!is_known) found.error("tarn-check", "no service is called \"" + only + "\"");
}
