// The walkers over the families, and the cycle that calls them.
#include "core/tarn_core.h"

#include "record/tarn_clock.h"
#include "test_helpers.h"

namespace {

std::string calls;

/// An operation that records its name and the counter's id.
template <char Name, typename... Rest>
int note(tarn_mycustom_counter& counter, Rest... /*rest*/) {
    calls.append(1, Name).append(counter.id).append(" ");
    return 0;
}

int note_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    calls.append(std::to_string(interval)).append("/").append(std::to_string(iteration));
    return note<'d'>(counter);
}

constexpr tarn_operations all = {note<'i'>,          note<'r'>, note<'u'>, note_delta,
                                 note<'b', bson_t&>, note<'D'>, note<'f'>};

/// One counter in each family except the core family, named after its family.
class Core : public testing::Test {
  protected:
    void SetUp() override {
        stats = {};
        init_config();
        tarn::copy_terminated(config.defaultServerIp, "127.0.0.1");
        const std::pair<tarn_family, const char*> families[] = {
            {mysql_family(), "my"},    {custom_family(), "cu"},    {mycustom_family(), "mc"},
            {memcache_family(), "me"}, {beanstalk_family(), "be"}, {redis_family(), "re"}};
        for (const auto& [family, id] : families) {
            mycustom_register(family, "text", all);
            tarn::copy_terminated(family.slots[0].id, id);
        }
        calls.clear();
    }
    void TearDown() override { stats = {}; }
};

}  // namespace

TEST_F(Core, WalksHaveTheirOrder) {
    initCounters(5);
    EXPECT_EQ(calls, "icu imc ime ibe ire ");  // without the client library
    calls.clear();
    config.mysql_handle = &stats;
    initCounters(5);
    reinitCounters(60);
    updateCounters();
    deltaCounters(3);
    dumpCounters();
    freeCounters();
    EXPECT_EQ(calls,
              "icu imy imc ime ibe ire rmy rmc rme rbe rre umy ume ube ure umc "
              "15/3dmy 15/3dmc 15/3dme 15/3dbe 15/3dre Dmy Dcu Dmc Dme Dbe Dre fmy fcu fmc fme fbe fre ");
}

TEST_F(Core, AbsentOperationsAreSkipped) {
    mycustom_set(stats.redis_counters[0], {}, {});
    stats.mycustom_counters[0].delta = nullptr;  // in this family the dump depends on the delta operation
    stats.mysql_counters[0].dump = nullptr;
    updateCounters();
    dumpCounters();
    EXPECT_EQ(calls, "umy ume ube umc Dcu Dme Dbe ");
}

TEST_F(Core, TheFirstCycleSendsNothingAndTheCycleNumberWraps) {
    EXPECT_EQ(run_cycle(61, 0), 1U);
    EXPECT_EQ(calls, "umy ume ube ure umc 15/0dmy 15/0dmc 15/0dme 15/0dbe 15/0dre ");
    calls.clear();
    EXPECT_EQ(printed_by([] { EXPECT_EQ(run_cycle(120, 1), 2U); }), "");
    EXPECT_TRUE(calls.starts_with("rmy ")) << calls;  // a whole minute
    EXPECT_TRUE(calls.ends_with(" bme bbe bcu bmy bre bmc ")) << calls;
    EXPECT_EQ(printed_by([] { EXPECT_EQ(run_cycle(180, 1163962799), 0U); }), "WOW! iteration 1163962800\n");
}

TEST_F(Core, CyclesFallOnTheRandomSecond) {
    config.randomsecond = 2;
    cycle_clock clock;
    std::string due;
    for (const long t : {77, 77, 78, 92, 78, 77, 62})  // asked twice, set back
        due += clock.is_due(t) ? "+" : "-";
    EXPECT_EQ(due, "+--+-++");
}
