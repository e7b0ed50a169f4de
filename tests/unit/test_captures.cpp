// Every kind of service with captured answers, and every form of its configuration line.
#include "captures.h"
#include "config/tarn_config_line.h"
#include "config/tarn_kinds.h"
#include "report/tarn_bson_print.h"
#include "test_helpers.h"

TEST(Captures, AnswersBecomeReportElements) {
    std::string text;
    for (const captured_kind& kind : captured_kinds()) {
        tarn_mycustom_counter* counter = nullptr;
        printed_by([&] { counter = &configured(kind, 11); });
        config.interval = 60;  // rates take the interval of the walk
        for (std::size_t step = 0; step < kind.steps.size(); ++step) {
            text += "== " + kind.steps[step].front() + "\n";
            text += printed_by([&] { kind.read(*counter, answers_of(kind, step)); });
            // The first sample is used twice, because a delta needs a previous one.
            counter->delta(*counter, 15, step);
            if (step == 0) counter->delta(*counter, 15, 1);
            bson_t document = BSON_INITIALIZER;
            counter->tobson(*counter, document);
            text += printed_by([&] {
                print_report({bson_get_data(&document), document.len}, 0);
                counter->dump(*counter);
            });
            bson_destroy(&document);
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
        config.mysql_on = config.postgre_on = 0;
        register_counter(split_config_line(line + "\n"));
        text += "== " + line + (config.mysql_on != 0 ? " (MySQL)" : "") +
                (config.postgre_on != 0 ? " (PostgreSQL)\n" : "\n");
        tarn_mycustom_counter& counter = only_counter();
        if (counter.init == nullptr) continue;
        text += printed_by([&] { counter.init(counter); });
        if (counter.update == nullptr) text += "(is never sampled)\n";
        counter.free(counter);
    }
    stats = {};
    expect_golden("lines.txt", text);
}
