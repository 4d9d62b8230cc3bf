#include "backoff.h"

#include <algorithm>

namespace endpoint {

Backoff::Backoff(double min_seconds, double max_seconds) : m_min(min_seconds), m_max(max_seconds) {}

double Backoff::next(double random01) {
    double high = 2 * m_min;
    // Doubling step by step instead of a power: no overflow however long
    // the relay stays away.
    for (int i = 0; i < m_failures && high < m_max; ++i) high *= 2;
    high = std::min(high, m_max);
    double low = std::max(m_min, high / 2);
    ++m_failures;
    return low + random01 * (high - low);
}

void Backoff::connection_lasted(double seconds) {
    if (seconds >= kStableSeconds) m_failures = 0;
}

}  // namespace endpoint
