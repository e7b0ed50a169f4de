// A fleet of hosts for tarn-receive: tarn_fleet sends signed reports of many ids over UDP to the loopback
// interface. Each is a real report of this host with a captured Redis, with id and time replaced.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "captures.h"
#include "core/tarn_core.h"
#include "record/tarn_config.h"
#include "report/tarn_bson.h"
#include "report/tarn_sign.h"
#include "support/tarn_files.h"

namespace {

struct fleet_options {
    std::uint16_t port = 8641;
    std::uint32_t hosts = 10000;
    std::uint32_t interval = 15;  ///< seconds between two reports of a host
    std::uint32_t reports = 8;    ///< of each host
    std::string secrets;          ///< file to write with the ids and secrets
};

std::string secret_of(std::uint32_t id) {
    return "secret-" + std::to_string(id);
}

/// Samples this host twice, and the captured answers of a Redis server, into one report.
std::vector<std::uint8_t> sample_report(std::uint32_t interval) {
    for (const captured_kind& kind : captured_kinds()) {
        if (kind.name != "redis") continue;
        tarn_mycustom_counter& counter = configured(kind, 6379);
        config.id = 1;
        config.interval = interval;
        setCoreCounters();
        initCounters(0);
        updateCounters();
        for (std::size_t step = 0; step < kind.steps.size(); ++step) {
            kind.read(counter, answers_of(kind, step));
            deltaCounters(step);
        }
        const auto document = stats_to_bson();
        return {document.begin(), document.end()};
    }
    return {};
}

/// Where the value of an int32 element at the top of a document begins.
std::uint8_t* place_of(std::vector<std::uint8_t>& document, std::string_view key) {
    const std::string element = '\x10' + std::string(key) + '\0';
    const std::string_view bytes(reinterpret_cast<const char*>(document.data()), document.size());
    return document.data() + bytes.find(element) + element.size();
}

void write_secrets(const fleet_options& options) {
    std::ofstream file(options.secrets);
    for (std::uint32_t id = 1; id <= options.hosts; ++id)
        file << id << ' ' << secret_of(id) << '\n';
}

/// Sends the reports at an even pace; returns how many the kernel has taken.
unsigned long send_reports(const fleet_options& options, std::vector<std::uint8_t> document) {
    using clock = std::chrono::steady_clock;
    const tarn::unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(options.port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::uint8_t* const id_place = place_of(document, "id");
    std::uint8_t* const time_place = place_of(document, "time");
    const auto gap = std::chrono::duration<double>(options.interval) / options.hosts;
    const auto start = clock::now();
    const auto start_time = static_cast<std::uint64_t>(std::time(nullptr));
    std::vector<std::uint8_t> packet;
    unsigned long sent = 0;
    const std::uint64_t total = std::uint64_t{options.reports} * options.hosts;
    for (std::uint64_t at = 0; at < total; ++at) {
        std::this_thread::sleep_until(
            start + std::chrono::duration_cast<clock::duration>(static_cast<double>(at) * gap));
        const auto id = static_cast<std::uint32_t>(at % options.hosts) + 1;
        // The time at which it is due: a late report is as new as it would have been.
        const auto due = static_cast<std::int32_t>(start_time + at / options.hosts * options.interval);
        std::memcpy(id_place, &id, sizeof id);
        std::memcpy(time_place, &due, sizeof due);
        sign(document, secret_of(id), packet);
        const ssize_t taken = ::sendto(socket.get(), packet.data(), packet.size(), 0,
                                       reinterpret_cast<const sockaddr*>(&to), sizeof to);
        sent += taken == static_cast<ssize_t>(packet.size()) ? 1 : 0;
    }
    const std::chrono::duration<double> took = clock::now() - start;
    std::printf("%lu reports of %zu bytes sent in %.1f s, %.0f a second\n", sent, packet.size(), took.count(),
                static_cast<double>(sent) / took.count());
    return sent;
}

}  // namespace

int main(int argc, char** argv) {
    fleet_options options;
    CLI::App app("Sends the reports of a fleet to tarn-receive on the loopback interface.", "tarn_fleet");
    app.option_defaults()->always_capture_default();
    app.add_option("--port", options.port, "UDP port of tarn-receive");
    app.add_option("--hosts", options.hosts, "Hosts, with the ids from 1 on")->check(CLI::PositiveNumber);
    app.add_option("--interval", options.interval, "Seconds between two reports of a host");
    app.add_option("--reports", options.reports, "Reports of each host");
    app.add_option("--secrets", options.secrets, "Only write this file, for the receiver");
    CLI11_PARSE(app, argc, argv);
    if (!options.secrets.empty()) {
        write_secrets(options);
        return 0;
    }
    send_reports(options, sample_report(options.interval));
    return 0;
}
