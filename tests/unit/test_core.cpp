#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/tarn_core.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "record/tarn_turn.h"
#include "support/tarn_text.h"

namespace {

std::string calls;

/// An operation that writes down its name and the counter's id.
template <char Name>
int note(tarn_mycustom_counter& counter) {
    calls.append(1, Name).append(counter.id).append(" ");
    return 0;
}

int note_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    calls.append("d").append(std::to_string(interval)).append("/").append(std::to_string(iteration));
    calls.append(counter.id).append(" ");
    return 0;
}

int note_bson(tarn_mycustom_counter& counter, bson_t& /*document*/) {
    return note<'b'>(counter);
}

constexpr tarn_operations all = {note<'i'>, note<'r'>, note<'u'>, note_delta,
                                 note_bson, note<'D'>, note<'f'>};

/// One counter in each family but the core's, named after the family.
class Core : public testing::Test {
  protected:
    void SetUp() override {
        stats = {};
        init_config();
        config.interval = 60;
        tarn::copy_text(config.defaultServerIp, "127.0.0.1");
        add(mysql_family(), "my");
        add(custom_family(), "cu");
        add(mycustom_family(), "mc");
        add(memcache_family(), "me");
        add(beanstalk_family(), "be");
        add(redis_family(), "re");
        calls.clear();
    }
    void TearDown() override {
        stats = {};
        stop = 0;
    }
    static void add(tarn_family family, const char* id) {
        mycustom_register(family, "text", all);
        tarn::copy_text(family.slots[family.count - 1U].id, id);
    }
    /// What a call prints in debug mode, and the operations that it called.
    template <typename Call>
    static std::string traced(Call call) {
        config.debug = 1;
        calls.clear();
        testing::internal::CaptureStdout();
        call();
        config.debug = 0;
        return testing::internal::GetCapturedStdout() + "|" + calls;
    }
};

}  // namespace

TEST_F(Core, WalksInTheirOrdersWithTheirTexts) {
    EXPECT_EQ(
        traced([] { initCounters(5); }),
        "Init counters parent at 5: customs... done, core... done, mysqls... none(no mysql_handle)... done, "
        "mycustoms... done, memcaches... done, beanstalks... done, redises... done\n|icu imc ime ibe ire ");
    config.mysql_handle = &stats;
    EXPECT_EQ(traced([] { initCounters(5); }),
              "Init counters parent at 5: customs... done, core... done, mysqls... done, mycustoms... done, "
              "memcaches... done, beanstalks... done, redises... done\n|icu imy imc ime ibe ire ");
    EXPECT_EQ(traced([] { reinitCounters(60); }),
              "Reinit counters at 60: core... done, mysqls... done, mycustoms... done, memcaches... done, "
              "beanstalkss... done, redises... done\n|rmy rmc rme rbe rre ");
    EXPECT_THAT(
        traced(updateCounters),
        testing::MatchesRegex("update: core\\.\\.\\. done, mysqls\\.\\.\\. done, memcaches\\.\\.\\. done, "
                              "beanstalks\\.\\.\\. done, redises\\.\\.\\. done, mycustoms\\.\\.\\. done, "
                              "customs PARENT\\.\\.\\. [0-9]+done\n\\|umy ume ube ure umc "));
    EXPECT_EQ(traced([] { deltaCounters(3); }),
              "Calc delta: core... done, mysqls... done, mycustoms... done, memcaches... done, "
              "beanstalkss... done, "
              "redises... done\n|d60/3my d60/3mc d60/3me d60/3be d60/3re ");
    EXPECT_EQ(
        traced(dumpCounters),
        "Dump delta: core...\ndone, mysqls... done, customs...\ndone, mycustoms...\ndone, memcaches... done, "
        "beanstalks... done, redises... done\n|Dmy Dcu Dmc Dme Dbe Dre ");
    EXPECT_EQ(traced(freeCounters),
              "Freeing counters: core... done, mysqls... done, PARENT customs... done, mycustoms... done, "
              "memcaches... done, beanstalks... done, redises... done\n|fmy fcu fmc fme fbe fre ");
}

TEST_F(Core, AbsentOperationsArePassedOver) {
    mycustom_set(stats.redis_counters[0], {}, {});
    stats.mycustom_counters[0].delta = nullptr;  // in this family the dump goes by the delta operation
    stats.mysql_counters[0].dump = nullptr;
    updateCounters();
    dumpCounters();
    EXPECT_EQ(calls, "umy ume ube umc Dcu Dme Dbe ");
}

TEST_F(Core, TheFirstCycleSendsNothingAndTheLastNumberStartsAgain) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_cycle(61, 0), 1U);
    EXPECT_EQ(calls.find('b'), calls.find("be "));  // no report was built
    EXPECT_EQ(calls.find("rmy"), std::string::npos);
    calls.clear();
    EXPECT_EQ(run_cycle(120, 1), 2U);
    EXPECT_EQ(calls.substr(0, 4), "rmy ");  // a whole minute
    EXPECT_NE(calls.find("bme bbe bcu bmy bre bmc "), std::string::npos);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStdout();
    EXPECT_EQ(run_cycle(180, 1163962799), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "WOW! iteration 1163962800\n");
}

TEST_F(Core, CyclesFallOnTheRandomSecond) {
    config.randomsecond = 17;
    EXPECT_TRUE(is_cycle_second(77));
    EXPECT_FALSE(is_cycle_second(78));
    stop = 1;
    EXPECT_EQ(traced(main_loop), "Starting main loop\nExiting main loop\n|");
}

TEST_F(Core, ATextOf2048CharactersIsStoredWhole) {
    const std::string text(3000, 'x');
    mycustom_set(stats.redis_counters[0], text, {});
    EXPECT_EQ(tarn::text_of(stats.redis_counters[0].cfg_string), text.substr(0, 2048));
    EXPECT_EQ(redis_family().capacity(), 16U);
    EXPECT_EQ(custom_family().capacity(), 255U);
}
