// The replies of every kind of service that needs no client library, read into its record and reported.
#include <bson/bson.h>

#include "captures.h"
#include "record/tarn_records.h"

namespace {

auto all_services() {
    std::vector<std::pair<const captured_kind*, tarn_mycustom_counter>> services;
    for (const captured_kind& kind : captured_kinds()) {
        if (kind.steps[0][0].ends_with(".rows")) continue;
        services.emplace_back(&kind, configured(kind, 11));
        stats = {};  // the counter is not freed with the next one
    }
    return services;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static auto& services = *new std::vector(all_services());
    const std::string text(bytes, bytes + size);
    for (auto& [kind, counter] : services) {
        counter.free(counter);
        counter.init(counter);
        kind->read(counter, {text, text});
        counter.delta(counter, 15, 0);
        kind->read(counter, {text, text});
        counter.delta(counter, 15, 1);
        counter.dump(counter);
        bson_t document = BSON_INITIALIZER;
        counter.tobson(counter, document);
        bson_destroy(&document);
    }
    return 0;
}
