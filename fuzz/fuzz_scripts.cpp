// A script's settings, its output, and its result in the shared memory that any user can write to.
#include <bson/bson.h>

#include <algorithm>
#include <cstring>

#include "customs/tarn_custom.h"
#include "customs/tarn_custom_exec.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    init_config();
    tarn_mycustom_counter counter{};
    mycustom_set(counter, text, custom_operations);
    counter.init(counter);
    auto& data = tarn::data_of<tarn_mycustom_data_custom>(counter);
    auto& result = tarn::data_delta_of<tarn_mycustom_data_custom>(counter);
    for (const int type : {custom_type_value, custom_type_status}) {
        custom_parse_output(text, type, data);
        data.updated = data.mustBeUpdated = 1;
        counter.delta(counter, 15, 1);
        for (const bool is_shared : {false, true}) {
            if (is_shared) std::memcpy(&result, bytes, std::min(size, sizeof result));
            custom_sanitize(result);
            counter.dump(counter);
            bson_t document = BSON_INITIALIZER;
            counter.tobson(counter, document);
            bson_destroy(&document);
        }
    }
    counter.free(counter);
    return 0;
}
