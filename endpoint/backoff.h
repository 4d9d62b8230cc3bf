// How long to wait before starting the tool again after a failure that can
// pass: exponential, with jitter, between a minimum and a maximum.
//
// The first retry waits between MIN and 2*MIN seconds, each further one
// twice as long, until the upper end reaches MAX; from then on each waits
// between MAX/2 and MAX (never less than MIN). Drawing from the upper half
// of the range keeps the delays growing while they spread endpoints that
// lost the same relay at the same moment. A connection that lasted a minute
// starts the sequence again from the minimum.
#pragma once

namespace endpoint {

class Backoff {
public:
    static constexpr double kStableSeconds = 60;    // a connection this long resets
    static constexpr double kLimitSeconds = 86400;  // largest MIN or MAX accepted

    Backoff(double min_seconds, double max_seconds);

    // The delay before the next attempt, for a random draw in [0, 1); counts
    // the attempt.
    double next(double random01);

    // A run of the tool ended after being connected for `seconds` (0 if it
    // never connected).
    void connection_lasted(double seconds);

    int failures_in_a_row() const { return m_failures; }

private:
    double m_min;
    double m_max;
    int m_failures = 0;
};

}  // namespace endpoint
