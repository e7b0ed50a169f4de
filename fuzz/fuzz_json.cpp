// JSON: the engine's inspection of a container, its stream of statistics, and look-ups by path.
#include "docker/tarn_docker_core.h"
#include "docker/tarn_docker_loop.h"
#include "support/tarn_json.h"
#include "support/tarn_json_framer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string answer(bytes, bytes + size);
    docker_stats_t stats;
    tarn::json_framer framer;
    for (std::size_t at = 0, piece = 1; at < size; at += piece++) {
        parse_response(framer.feed(std::string_view(answer).substr(at, piece)), stats);
        docker_cpu_percent(stats);
    }
    for (const std::size_t start : {std::size_t{0}, answer.find("{\"")}) {
        if (start >= size) continue;
        std::string text = answer;
        const nx_json_tree tree = nx_json_parse_utf8(text, start);
        if (!tree) continue;
        tarn_docker_container_t container{};
        char status[19];
        docker_read_answer(*tree, container, status);
        int error = 0;
        for (const nx_json* node = tree->child; node != nullptr; node = node->next)
            json_column_sum(*node, "queue", error);
        json_get_item_by_path(nx_json_item(*tree, 1), answer);
    }
    return 0;
}
