// How long to wait before starting the tool again: the first retry waits
// between MIN and 2*MIN seconds, each further one twice as long, up to
// between MAX/2 and MAX. Drawing from the upper half of each range keeps the
// delays growing while it spreads endpoints that lost the same relay at once.
// A Long one, where hammering cannot help, is drawn as if kLongSkip failures
// had come first. A connection that lasted as long as the longest delay
// (MAX, a minute at most) starts from MIN again.
#pragma once

#include <algorithm>

#include "classify.h"

namespace endpoint {

class Backoff {
public:
    static constexpr double kStableSeconds = 60;    // a connection this long resets, or MAX
    static constexpr double kLimitSeconds = 86400;  // largest MIN or MAX accepted
    static constexpr int kLongSkip = 5;             // a Long one starts at 32*MIN

    Backoff(double min_seconds, double max_seconds) { limits(min_seconds, max_seconds); }
    void limits(double min_seconds, double max_seconds) {
        m_min = min_seconds;
        m_max = max_seconds;
    }

    // The delay before the next attempt, for a random draw in [0, 1).
    double next(double random01, BackoffKind kind = BackoffKind::Normal) {
        int steps = m_failures++ + (kind == BackoffKind::Long ? kLongSkip : 0);
        double high = 2 * m_min;
        // Doubling step by step instead of a power: no overflow however long
        // the relay stays away.
        for (int i = 0; i < steps && high < m_max; ++i) high *= 2;
        high = std::min(high, m_max);
        double low = std::max(m_min, high / 2);
        return low + random01 * (high - low);
    }

    // A run of the tool ended after being connected for `seconds`.
    void connection_lasted(double seconds) {
        if (seconds >= std::min(m_max, kStableSeconds)) m_failures = 0;
    }

    int failures_in_a_row() const { return m_failures; }

private:
    double m_min = 1, m_max = 300;
    int m_failures = 0;
};

}  // namespace endpoint
