#include "tests/unit/walk.h"

#include <random>

#include "agent/signal-mask.h"
#include "agent/signals.h"
#include "tests/unit/connection-test.h"

/*
 * The longest way to a registration when the controller is good: a wait for the answer that does not come (62
 * s), the closure that is not reported (35 s), a last idle time of minutes (300 s), connecting (60 s and 79
 * s), the parent MAC and some seconds of the loop.
 */
enum { LONGEST_WAY = 600 };

/* The disk need not keep up with tens of thousands of status texts and close reasons. */
extern "C" int fsync(int) { return 0; }

class walk_test : public connection_test {
protected:
    static void SetUpTestSuite()
    {
        signals_block();
        platform_init_signal_handler();
    }
    void SetUp() override
    {
        connection_test::SetUp();
        walk_reset();
        da.debug_level = -1;
    }

    /* A fresh agent in this situation; the path begins. */
    void begin(const walk_situation &situation)
    {
        TearDown();
        SetUp();
        walk_controller_closes = true;
        path = std::string("from \"") + situation.name + "\"";
        situation.reach();
        look();
    }

    /* False when the event cannot happen here. */
    bool step(const walk_event &event)
    {
        if (failed || !event.possible())
            return false;
        path += std::string(", ") + event.name;
        event.happen();
        look();
        return true;
    }

    /* Nothing may be wrong, and on its own it finds its way. */
    void leave_alone()
    {
        if (failed)
            return;
        path += ", left alone";
        walk_reset();
        std::string wrong;
        int took = walk_seconds_until_registered(LONGEST_WAY, &wrong);
        if (took < 0)
            fail(wrong.empty() ? "not registered after " + std::to_string(LONGEST_WAY) + " s, state " +
                                     std::to_string(da.state)
                               : wrong);
        look();
    }

    bool failed = false;

private:
    void look()
    {
        std::string wrong = walk_wrong();
        if (!wrong.empty())
            fail(wrong);
        if (!failed && HasFailure())
            fail("the library was used wrongly");
    }
    void fail(const std::string &why)
    {
        failed = true;
        ADD_FAILURE() << why << "\n  " << path;
    }

    std::string path;
};

/* Also says that every situation can be reached and is a sound one. */
TEST_F(walk_test, every_situation_alone_leads_to_a_registration)
{
    for (const walk_situation &situation : walk_situations) {
        begin(situation);
        leave_alone();
    }
}

TEST_F(walk_test, all_ways_of_two_events_from_every_situation)
{
    for (const walk_situation &situation : walk_situations)
        for (const walk_event &first : walk_events)
            for (const walk_event &second : walk_events) {
                begin(situation);
                if (!step(first))
                    break;
                if (step(second))
                    leave_alone();
                if (failed)
                    return;
            }
}

TEST_F(walk_test, long_random_ways)
{
    for (unsigned seed = 1; seed <= 200 && !failed; seed++) {
        std::mt19937 random(seed);
        begin(walk_situations[random() % walk_situations.size()]);
        for (int steps = 0; steps < 300 && !failed; steps++) {
            step(walk_events[random() % walk_events.size()]);
            if (random() % 20 == 0)
                leave_alone();
        }
        leave_alone();
    }
}
