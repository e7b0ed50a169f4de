// Each kind of service with captured answers of real servers: the agent's own work (parsing, rates, report),
// and the whole exchange compared with a bare connect, write and read of the same sizes.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <bson/bson.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "bench_peer.h"
#include "captures.h"
#include "support/tarn_files.h"

namespace {

/// Discards standard output during init.
class silenced_output final {
  public:
    silenced_output() : kept_(::dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        const tarn::unique_fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        ::dup2(nowhere.get(), STDOUT_FILENO);
    }
    ~silenced_output() {
        std::fflush(stdout);
        ::dup2(kept_, STDOUT_FILENO);
        ::close(kept_);
    }
    silenced_output(const silenced_output&) = delete;
    silenced_output& operator=(const silenced_output&) = delete;

  private:
    int kept_;
};

/// A counter of the kind whose server listens on this port.
tarn_mycustom_counter& quietly_configured(const captured_kind& kind, int port) {
    const silenced_output silenced;
    return configured(kind, port);
}

/// Parsing, rates and report element, without a connection.
void own_work(benchmark::State& state, const captured_kind& kind) {
    const auto answers = answers_of(kind, 0);
    tarn_mycustom_counter& counter = quietly_configured(kind, 1);
    bson_t document = BSON_INITIALIZER;
    for (auto _ : state) {
        kind.read(counter, answers);
        counter.delta(counter, 15, 1);
        bson_reinit(&document);
        counter.tobson(counter, document);
    }
    state.counters["element_bytes"] = static_cast<double>(document.len);
    bson_destroy(&document);
}

void exchange(benchmark::State& state, const captured_kind& kind) {
    peer server(answers_of(kind, 0));
    tarn_mycustom_counter& counter = quietly_configured(kind, server.port());
    for (auto _ : state) {
        if (counter.update(counter) != 0) continue;
        state.SkipWithError("no sample");
        break;
    }
}

void bare_exchange(const peer& server) {
    static std::array<char, 65536> buffer;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    address.sin_port = ::htons(static_cast<std::uint16_t>(server.port()));
    const int connection = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address);
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

void bare(benchmark::State& state, const captured_kind& kind) {
    peer server(answers_of(kind, 0));
    tarn_mycustom_counter& counter = quietly_configured(kind, server.port());
    counter.update(counter);  // records the sizes of the requests
    for (auto _ : state)
        bare_exchange(server);
}

void add(const std::string& name, void (*run)(benchmark::State&, const captured_kind&),
         const captured_kind& kind) {
    benchmark::RegisterBenchmark((name + "/" + kind.name).c_str(), run, kind)->Unit(benchmark::kMicrosecond);
}

const int registered = [] {
    for (const captured_kind& kind : captured_kinds()) {
        add("own", own_work, kind);
        if (kind.steps[0][0].ends_with(".rows")) continue;  // the exchange is in the client library
        add("exchange", exchange, kind);
        add("bare", bare, kind);
    }
    return 0;
}();

}  // namespace
