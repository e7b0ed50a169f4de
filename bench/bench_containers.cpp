// The refresh of the container table, which makes one request per container: the time per container must stay
// constant. A fake engine answers every request with the captured answer of a real one.
#include <benchmark/benchmark.h>

#include <string>

#include "bench_peer.h"
#include "captures.h"
#include "docker/tarn_docker_core.h"
#include "record/tarn_config.h"

namespace {

void containers(benchmark::State& state) {
    const std::string path = "/tmp/tarn-bench-engine.sock";
    peer engine({captured("container.txt")}, path);
    init_config();
    config.id = 0x7A726E62;
    config.shm_key = static_cast<key_t>(config.id);
    if (docker_init(config.docker) == 0) {
        state.SkipWithError("no container table");
        return;
    }
    config.docker_sock_path = path;
    docker_set_socket(*config.docker, path);
    for (long n = 0; n < state.range(0); ++n)
        tarn_docker_add_container(*config.docker, "container-" + std::to_string(n));
    for (auto _ : state)
        tarn_docker_update(config.docker);
    state.counters["time_per_container"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    docker_free(config.docker);
}

BENCHMARK(containers)->Name("containers")->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMicrosecond);

}  // namespace
