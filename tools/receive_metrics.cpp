// The text format of Prometheus: HELP and TYPE of a metric, then its samples for all hosts.
#include "receive_metrics.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "line_protocol.h"
#include "support/tarn_streams.h"
#include "support/tarn_text.h"

namespace {

using namespace std::chrono_literals;

/// Sources can be made up; each becomes a series.
constexpr std::size_t max_bad_series = 500;

constexpr unsigned max_connections = 64;
constexpr unsigned idle_seconds = 10;
/// Who asks more often gets the text that was made last.
constexpr auto text_age = 1s;

void append_label(std::string& text, std::string_view name, std::string_view value) {
    if (value.empty()) return;
    if (text.back() != '{') text += ',';
    text.append(name).append("=\"");
    for (const char c : value) {
        if (c == '\\' || c == '"') text += '\\';
        text += c == '\n' ? "\\n" : std::string(1, c);
    }
    text += '"';
}

void append_sample(std::string& text, std::string_view labels, double value) {
    text.append(labels).append(" ");
    append_number(text, value);
    text += '\n';
}

void append_header(std::string& text, std::string_view name, std::string_view type, std::string_view help) {
    text.append("# HELP ").append(name).append(" ").append(help).append("\n");
    text.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void append_metric(std::string& text, std::string_view name, std::string_view type, std::string_view help,
                   double value) {
    append_header(text, name, type, help);
    append_sample(text, name, value);
}

std::string host_labels(const report_head& head) {
    std::string labels = "{";
    append_label(labels, "host", head.host);
    append_label(labels, "name", head.name);
    return labels;
}

/// The samples of each exported figure, from the last reports of all hosts.
class figure_samples final {
  public:
    void add(const host_table::host& one);
    void append_to(std::string& text) const;

  private:
    std::unordered_map<const report_row*, std::string> samples_;
};

std::string full_name(const report_section& section, const report_row& row) {
    return std::string(section.export_name) + "_" + std::string(row.export_name);
}

void figure_samples::add(const host_table::host& one) {
    const std::string of_host = host_labels(one.head);
    export_figures(
        one.document, one.head.interval,
        [&](const report_section& section, std::string_view name, std::span<const exported_figure> figures) {
            std::string labels = of_host;
            append_label(labels, section.label, name);
            labels += '}';
            for (const exported_figure& figure : figures) {
                std::string& text = samples_[figure.row];
                text.append(section.export_name).append("_").append(figure.row->export_name);
                std::visit([&](auto value) { append_sample(text, labels, static_cast<double>(value)); },
                           figure.value);
            }
        });
}

void figure_samples::append_to(std::string& text) const {
    for (const report_section& section : report_sections()) {
        for (const report_row& row : section.rows) {
            const auto found = samples_.find(&row);
            if (found == samples_.end()) continue;
            const std::string name = full_name(section, row);
            std::string help = "From " + (section.name.empty() ? "" : std::string(section.name) + ".");
            help.append(row.key).append(" of the report");
            if (!row.unit.empty()) help.append(" (").append(row.unit).append(")");
            help.append(": ").append(row.meaning);
            append_header(text, name, row.rule == figure_rule::total ? "counter" : "gauge", help);
            text += found->second;
        }
    }
}

void append_receiver(std::string& text, const receive_counts& counts) {
    append_metric(text, "tarn_receive_packets_total", "counter", "Packets received.",
                  static_cast<double>(counts.packets));
    append_metric(text, "tarn_receive_reports_total", "counter", "Good reports.",
                  static_cast<double>(counts.good));
    append_header(text, "tarn_receive_bad_packets_total", "counter",
                  "Packets refused, by reason and source.");
    for (const auto& [by, count] : counts.bad_by) {
        std::string labels = "tarn_receive_bad_packets_total{";
        append_label(labels, "reason", by.first);
        append_label(labels, "source", by.second);
        append_sample(text, labels + "}", static_cast<double>(count));
    }
    append_metric(text, "tarn_receive_socket_drops_total", "counter",
                  "Datagrams lost because the receive buffer was full.",
                  static_cast<double>(counts.socket_drops));
    append_metric(text, "tarn_receive_forwarded_reports_total", "counter",
                  "Reports that the engine has taken.", static_cast<double>(counts.forwarded.sent));
    append_header(text, "tarn_receive_dropped_reports_total", "counter",
                  "Reports not forwarded: the queue was full, or the engine called them invalid.");
    append_sample(text, "tarn_receive_dropped_reports_total{reason=\"queue full\"}",
                  static_cast<double>(counts.forwarded.dropped));
    append_sample(text, "tarn_receive_dropped_reports_total{reason=\"refused\"}",
                  static_cast<double>(counts.forwarded.refused));
    append_metric(text, "tarn_receive_queued_reports", "gauge", "Reports that wait for the engine.",
                  static_cast<double>(counts.queued_reports));
    append_metric(text, "tarn_receive_queued_bytes", "gauge", "Size of the queue, compressed.",
                  static_cast<double>(counts.queued_bytes));
}

void append_hosts(std::string& text, const host_table& hosts, host_table::time_point now) {
    std::string up;
    std::string age;
    std::string time;
    for (const auto& one : hosts.hosts()) {
        const std::string labels = host_labels(one.head) + "}";
        append_sample(up, "tarn_host_up" + labels, host_table::is_up(one, now) ? 1 : 0);
        append_sample(age, "tarn_host_report_age_seconds" + labels,
                      std::chrono::duration<double>(now - one.heard).count());
        append_sample(time, "tarn_host_report_timestamp_seconds" + labels, one.head.time);
    }
    append_header(text, "tarn_host_up", "gauge", "1 when the host was heard within three of its intervals.");
    text += up;
    append_header(text, "tarn_host_report_age_seconds", "gauge",
                  "Time since the last report of the host came.");
    text += age;
    append_header(text, "tarn_host_report_timestamp_seconds", "gauge",
                  "Time of the last report by the host's clock.");
    text += time;
}

}  // namespace

void receive_counts::add_bad(const std::string& reason, const std::string& source) {
    ++bad;
    const bool is_new = bad_by.size() >= max_bad_series && !bad_by.contains({reason, source});
    ++bad_by[{reason, is_new ? "other" : source}];
}

std::string metrics_text(const receive_counts& counts, const host_table& hosts, host_table::time_point now) {
    std::string text;
    append_receiver(text, counts);
    append_hosts(text, hosts, now);
    figure_samples figures;
    for (const auto& one : hosts.hosts()) {
        if (host_table::is_up(one, now)) figures.add(one);
    }
    figures.append_to(text);
    return text;
}

std::string metrics_server::open(const std::string& address, text_maker make_text) {
    make_text_ = std::move(make_text);
    const std::size_t colon = std::min(address.find(':'), address.size());
    const auto ip = tarn::parse_ipv4(std::string_view(address).substr(0, colon));
    const auto port = address.substr(std::min(colon + 1, address.size()));
    if (!ip || !tarn::is_valid_int(port) || port.size() > 5 || tarn::to_number<int>(port) > 65535 ||
        port[0] == '-')
        return address + " is not an IPv4 address and a port";
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_addr = *ip;
    bound.sin_port = htons(tarn::to_number<std::uint16_t>(port));
    daemon_.reset(MHD_start_daemon(MHD_USE_EPOLL, 0, nullptr, nullptr, on_request, this, MHD_OPTION_SOCK_ADDR,
                                   reinterpret_cast<const sockaddr*>(&bound), MHD_OPTION_CONNECTION_LIMIT,
                                   max_connections, MHD_OPTION_CONNECTION_TIMEOUT, idle_seconds,
                                   MHD_OPTION_END));
    if (!daemon_) return "cannot listen on " + address + ": " + std::strerror(errno);
    descriptor_ = MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    std::fprintf(stderr, "tarn-receive: metrics on http://%s:%d/metrics\n", tarn::ipv4_text(*ip).c_str(),
                 MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_BIND_PORT)->port);
    return {};
}

void metrics_server::serve() {
    // The text of many hosts is large.
    if (std::chrono::steady_clock::now() - last_made_ >= text_age) last_.reset();
    MHD_run(daemon_.get());
}

/// The answer to a scrape; the last one, unless it has become old.
MHD_Response* metrics_server::metrics() {
    if (last_) return last_.get();
    auto text = std::make_unique<std::string>(make_text_());
    last_.reset(MHD_create_response_from_buffer_with_free_callback_cls(
        text->size(), text->data(), [](void* sent) { delete static_cast<std::string*>(sent); }, text.get()));
    if (last_) {
        static_cast<void>(text.release());
        MHD_add_response_header(last_.get(), MHD_HTTP_HEADER_CONTENT_TYPE,
                                "text/plain; version=0.0.4; charset=utf-8");
    }
    last_made_ = std::chrono::steady_clock::now();
    return last_.get();
}

MHD_Result metrics_server::answer(MHD_Connection* connection, const char* path, const char* method) {
    const bool is_read = std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0;
    if (is_read && std::strcmp(path, "/metrics") == 0)
        return MHD_queue_response(connection, MHD_HTTP_OK, metrics());
    static char missing[] = "Only /metrics is served.\n";
    const std::unique_ptr<MHD_Response, tarn::closer<MHD_destroy_response>> response(
        MHD_create_response_from_buffer(sizeof missing - 1, missing, MHD_RESPMEM_PERSISTENT));
    return MHD_queue_response(connection, MHD_HTTP_NOT_FOUND, response.get());
}

MHD_Result metrics_server::on_request(void* self, MHD_Connection* connection, const char* path,
                                      const char* method, const char* /*version*/, const char* /*data*/,
                                      std::size_t* size, void** /*request*/) {
    *size = 0;
    return static_cast<metrics_server*>(self)->answer(connection, path, method);
}
