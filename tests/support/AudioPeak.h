#pragma once

#include <algorithm>
#include <cmath>
#include <deque>
#include <numeric>

// The largest magnitude among float samples, as a peak meter reads it; 0 for none.
inline float peakOf(const std::deque<float>& samples)
{
    return std::accumulate(samples.begin(), samples.end(), 0.0f,
                           [](float peak, float sample) { return std::max(peak, std::abs(sample)); });
}
