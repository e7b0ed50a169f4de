// The counter of a user's script. The script process runs the script; the parent reports its number and alert
// lines.
#include "customs/tarn_custom.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "customs/tarn_custom_conf.h"
#include "customs/tarn_custom_exec.h"
#include "record/tarn_config.h"
#include "record/tarn_operations.h"

namespace {

using data_custom = tarn_mycustom_data_custom;

int custom_init(tarn_mycustom_counter& cnt) {
    tarn::allocate_records<data_custom>(cnt, "Custom");
    custom_parse_conf(cnt);
    if (cnt.exec[0] == '\0') std::printf("Custom counter %s %s has no command\n", cnt.report, cnt.id);
    if (cnt.interval < 1) {
        std::printf("Custom counter %s %s: period %d is not allowed, using 1\n", cnt.report, cnt.id,
                    cnt.interval);
        cnt.interval = 1;
    }
    return 1;
}

int custom_update(tarn_mycustom_counter& cnt) {
    auto& data = tarn::data_of<data_custom>(cnt);
    int err = 1;
    call_exec(cnt.exec, cnt.uid, cnt.gid, cnt.max_seconds, cnt.type, err, data);
    data.ok = data.updated = err == 0 ? 1 : 0;
    return data.ok;
}

int custom_delta(tarn_mycustom_counter& cnt, std::uint32_t /*interval*/, std::uint64_t iteration) {
    const auto& data = tarn::data_of<data_custom>(cnt);
    auto& prev = tarn::data_prev_of<data_custom>(cnt);
    auto& delta = tarn::data_delta_of<data_custom>(cnt);

    delta = data;
    if (cnt.incremental == 0) return 1;
    delta.updated = 0;
    if (iteration != 0 && data.mustBeUpdated == 0) return 1;
    if (iteration != 0 && data.updated == 1 && prev.updated == 1) {
        delta.value = std::max(data.value - prev.value, 0.0);
        delta.updated = 1;
    }
    prev = data;
    return 1;
}

void append_alerts(bson_t& document, const data_custom& data) {
    tarn::sub_array alerts(document, "alerts");
    for (int at = 0; at < data.agent_alerts_count; ++at) {
        tarn::append_text(alerts.document(), std::to_string(at), data.agent_alerts[at].text);
    }
}

int custom_tobson(tarn_mycustom_counter& cnt, bson_t& document) {
    const auto& delta = tarn::data_delta_of<data_custom>(cnt);
    if (delta.mustBeUpdated == 0 || delta.updated == 0) return 1;
    const auto seconds = static_cast<std::uint32_t>(cnt.interval) * config.interval;

    tarn::sub_document custom(document, tarn::labelled_key(cnt));
    tarn::append_text(custom.document(), "report", cnt.report);
    tarn::append_text(custom.document(), "name", cnt.id);
    tarn::append_int32(custom.document(), "interval", static_cast<std::int32_t>(seconds));
    if (cnt.alert_condition[0] != '\0') {
        tarn::append_text(custom.document(), "alert_when", cnt.alert_condition);
    }
    tarn::append_double(custom.document(), "value", delta.value);
    if (cnt.type != custom_type_value) tarn::append_int64(custom.document(), "type", cnt.type);
    if (delta.agent_alerts_count > 0 || cnt.type == custom_type_status)
        append_alerts(custom.document(), delta);
    return 1;
}

int custom_dump(tarn_mycustom_counter& cnt) {
    const auto& delta = tarn::data_delta_of<data_custom>(cnt);
    std::printf("MyCustom %s report %s (ok=%d, upd=%d, must=%d) :\n", cnt.report, cnt.id, delta.ok,
                delta.updated, delta.mustBeUpdated);
    std::printf("\tvalue = %f\n", delta.value);
    if (cnt.alert_condition[0] != '\0') std::printf("\talert_when = %s\n", cnt.alert_condition);
    for (int at = 0; at < delta.agent_alerts_count; ++at) {
        std::printf("\tAgent alert #%d: '%s'\n", at, delta.agent_alerts[at].text);
    }
    return 1;
}

}  // namespace

void custom_sanitize(tarn_mycustom_data_custom& data) {
    data.agent_alerts_count = std::clamp(data.agent_alerts_count, 0, custom_max_alerts);
    for (tarn_mycustom_agent_alert& alert : data.agent_alerts)
        alert.text[sizeof alert.text - 1] = '\0';
}

const tarn_operations custom_operations = {
    .init = custom_init,
    .update = custom_update,
    .delta = custom_delta,
    .tobson = custom_tobson,
    .dump = custom_dump,
    .free = tarn::free_records<data_custom>,
};
