// Every kind of service with captured answers, and every form of its configuration line.
#include "captures.h"
#include "config/tarn_config_line.h"
#include "config/tarn_kinds.h"
#include "test_helpers.h"

namespace {

/// The counter's element of the report; empty when it appends none.
std::string element_of(tarn_mycustom_counter& counter) {
    bson_t document = BSON_INITIALIZER;
    counter.tobson(counter, document);
    return printed_document(document);
}

/// What init prints.
std::string init_of(tarn_mycustom_counter& counter) {
    testing::internal::CaptureStderr();
    const std::string printed = printed_by([&] { counter.init(counter); });
    const std::string text = printed + testing::internal::GetCapturedStderr() +
                             (counter.update == nullptr ? "(is never sampled)\n" : "");
    counter.free(counter);
    return text;
}

}  // namespace

TEST(Captures, AnswersBecomeReportElements) {
    std::string text;
    for (const captured_kind& kind : captured_kinds()) {
        tarn_mycustom_counter* counter = nullptr;
        printed_by([&] { counter = &configured(kind, 11); });
        for (std::size_t step = 0; step < kind.steps.size(); ++step) {
            text += "== " + kind.steps[step].front() + "\n";
            text += printed_by([&] { kind.read(*counter, answers_of(kind, step)); });
            // The first sample is used twice, because a delta needs a previous one.
            counter->delta(*counter, 15, step);
            if (step == 0) counter->delta(*counter, 15, 1);
            text += element_of(*counter) + printed_by([&] { counter->dump(*counter); });
        }
        counter->free(*counter);
    }
    expect_golden("captures.txt", text);
}

TEST(Captures, ConfigurationLinesAreUnderstood) {
    std::istringstream lines(captured("lines.conf"));
    std::string text;
    init_config();
    config.mysql_handle = config.postgre_handle = &config;  // not null, and never used
    for (std::string line; std::getline(lines, line);) {
        stats = {};
        text += "== " + line + "\n";
        register_counter(split_config_line(line + "\n"));
        for (const tarn_family& family : {mysql_family(), custom_family(), mycustom_family(),
                                          memcache_family(), beanstalk_family(), redis_family()}) {
            if (family.count > 0) text += init_of(family.slots[0]);
        }
    }
    stats = {};
    expect_golden("lines.txt", text);
}
