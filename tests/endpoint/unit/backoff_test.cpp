#include <gtest/gtest.h>

#include "tool.h"

using endpoint::Backoff;
using endpoint::BackoffKind;

TEST(Backoff, GrowsFromTheMinimumToTheMaximumWithJitter) {
    Backoff b(1, 300);
    // Whatever the draws, the delays never shrink until the maximum is near.
    double draws[] = {0.99, 0.0, 0.5, 0.99, 0.0, 0.3, 0.7, 0.0};
    double previous = 0;
    for (int i = 0; i < 8; ++i) {
        double d = b.next(draws[i]);
        EXPECT_GE(d, 1 << i) << i;
        EXPECT_LE(d, 2 << i) << i;
        EXPECT_GE(d, previous) << i;
        previous = d;
    }
    for (int i = 0; i < 2000; ++i) {  // then between half the maximum and the maximum
        double d = b.next(i % 2 == 0 ? 0.0 : 0.999999);
        EXPECT_GE(d, 150);
        EXPECT_LE(d, 300);
    }
    Backoff narrow(1, 1.5), fixed(0.2, 0.2);  // the maximum below twice the minimum
    for (double u : {0.0, 0.999, 0.5}) {
        EXPECT_GE(narrow.next(u), 1);
        EXPECT_LE(narrow.next(u), 1.5);
        EXPECT_DOUBLE_EQ(fixed.next(u), 0.2);
    }
}

TEST(Backoff, ALongOneStartsAt32TimesTheMinimumWithinTheMaximum) {
    Backoff b(1, 300), small(0.05, 0.4);
    EXPECT_GE(b.next(0, BackoffKind::Long), 32);
    EXPECT_LE(b.next(0.99, BackoffKind::Long), 128);
    EXPECT_LE(small.next(0.99, BackoffKind::Long), 0.4);
}

TEST(Backoff, AConnectionAsLongAsTheLongestDelayStartsAgainFromTheMinimum) {
    Backoff b(1, 300), small(0.05, 0.4);
    for (int i = 0; i < 5; ++i) b.next(0.5), small.next(0.5);
    b.connection_lasted(Backoff::kStableSeconds - 0.1);  // a minute at most
    small.connection_lasted(0.3);
    EXPECT_GE(b.next(0), 32);
    EXPECT_GE(small.next(0), 0.2);
    b.connection_lasted(Backoff::kStableSeconds);
    small.connection_lasted(0.4);
    EXPECT_LE(b.next(0.99), 2);
    EXPECT_LE(small.next(0.99), 0.1);
}
