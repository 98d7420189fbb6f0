#include "context_sync_client/retry_backoff_t.h"

#include <QSet>

#include <gtest/gtest.h>

using context_sync_client::retry_backoff_t;

TEST(retry_backoff_t, TheCeilingDoublesFromHalfASecondUpToEightSeconds)
{
    EXPECT_EQ(retry_backoff_t::ceiling_ms(0), 0);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(1), 0);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(2), 500);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(3), 1000);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(4), 2000);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(5), 4000);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(6), 8000);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(7), 8000);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(40), 8000);
    EXPECT_EQ(retry_backoff_t::ceiling_ms(1 << 30), 8000);
}

TEST(retry_backoff_t, EveryWaitLiesBetweenHalfTheCeilingAndTheCeiling)
{
    for (quint32 seed : { 1u, 2u, 17u, 123456u }) {
        retry_backoff_t backoff(seed);
        for (int round = 0; round < 50; ++round) {
            backoff.reset();
            for (int try_number = 2; try_number <= 12; ++try_number) {
                const int wait = backoff.next_wait();
                EXPECT_EQ(backoff.tries(), try_number);
                const int ceiling = retry_backoff_t::ceiling_ms(try_number);
                EXPECT_GE(wait, ceiling / 2) << "seed " << seed << " try " << try_number;
                EXPECT_LE(wait, ceiling) << "seed " << seed << " try " << try_number;
            }
        }
    }
}

TEST(retry_backoff_t, BothEndsOfTheIntervalAreReached)
{
    retry_backoff_t backoff(99);
    bool low = false;
    bool high = false;
    for (int i = 0; i < 20000 && !(low && high); ++i) {
        const int wait = backoff.wait_before(2);
        low = low || wait == 250;
        high = high || wait == 500;
    }
    EXPECT_TRUE(low);
    EXPECT_TRUE(high);
}

TEST(retry_backoff_t, TheSameSeedGivesTheSameWaitsAndOthersSpreadTheCrowd)
{
    retry_backoff_t first(7);
    retry_backoff_t second(7);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(first.next_wait(), second.next_wait());

    // Twenty-five clients turned away at the same moment: their second tries spread over the
    // interval instead of coming back together.
    QSet<int> waits;
    for (quint32 seed = 1; seed <= 25; ++seed)
        waits.insert(retry_backoff_t(seed).next_wait());
    EXPECT_GE(waits.size(), 15);
}

TEST(retry_backoff_t, ResetStartsAgainWithTheSecondTry)
{
    retry_backoff_t backoff(3);
    for (int i = 0; i < 8; ++i)
        backoff.next_wait();
    EXPECT_EQ(backoff.tries(), 9);
    backoff.reset();
    EXPECT_EQ(backoff.tries(), 1);
    const int wait = backoff.next_wait();
    EXPECT_GE(wait, 250);
    EXPECT_LE(wait, 500);
}

TEST(retry_backoff_t, TheWaitAfterASlotFreesSpansZeroToTheJitterAndCountsNoTry)
{
    retry_backoff_t backoff(21);
    bool low = false;
    bool high = false;
    QSet<int> waits;
    for (int i = 0; i < 20000; ++i) {
        const int wait = backoff.slot_free_wait();
        ASSERT_GE(wait, 0);
        ASSERT_LE(wait, retry_backoff_t::SLOT_JITTER_MS);
        low = low || wait == 0;
        high = high || wait == retry_backoff_t::SLOT_JITTER_MS;
        waits.insert(wait);
    }
    EXPECT_TRUE(low);
    EXPECT_TRUE(high);
    EXPECT_EQ(retry_backoff_t::SLOT_JITTER_MS, 250);
    // Clients that saw the same broadcast spread over the whole interval.
    EXPECT_EQ(waits.size(), retry_backoff_t::SLOT_JITTER_MS + 1);
    // The back-off's own sequence is untouched: the next wait is still the one before try 2.
    EXPECT_EQ(backoff.tries(), 1);
    const int next = backoff.next_wait();
    EXPECT_GE(next, 250);
    EXPECT_LE(next, 500);
}
