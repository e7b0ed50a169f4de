// The text format of Prometheus: HELP and TYPE of a metric, then its samples for all hosts.
#include "receive_metrics.h"

#include <unordered_map>

#include "line_protocol.h"

namespace {

/// Sources can be made up; each becomes a series.
constexpr std::size_t max_bad_series = 500;

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
    const auto append = [&text](std::string_view name, std::string_view type, std::string_view help,
                                auto value) {
        append_header(text, name, type, help);
        append_sample(text, name, static_cast<double>(value));
    };
    append("tarn_receive_packets_total", "counter", "Packets received.", counts.packets);
    append("tarn_receive_reports_total", "counter", "Good reports.", counts.good);
    append("tarn_receive_socket_drops_total", "counter",
           "Datagrams lost because the receive buffer was full.", counts.socket_drops);
    append("tarn_receive_forwarded_reports_total", "counter", "Reports that the engine has taken.",
           counts.forwarded.sent);
    append("tarn_receive_refused_reports_total", "counter", "Reports that the engine called invalid.",
           counts.forwarded.refused);
    append("tarn_receive_dropped_reports_total", "counter", "Reports dropped because the queue was full.",
           counts.forwarded.dropped);
    append("tarn_receive_queued_reports", "gauge", "Reports that wait for the engine.",
           counts.queued_reports);
    append("tarn_receive_queued_bytes", "gauge", "Size of the queue, compressed.", counts.queued_bytes);
    append_header(text, "tarn_receive_bad_packets_total", "counter",
                  "Packets refused, by reason and source.");
    for (const auto& [by, count] : counts.bad_by) {
        std::string labels = "tarn_receive_bad_packets_total{";
        append_label(labels, "reason", by.first);
        append_label(labels, "source", by.second);
        append_sample(text, labels + "}", static_cast<double>(count));
    }
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
