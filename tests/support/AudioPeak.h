#pragma once

#include <algorithm>
#include <cmath>
#include <deque>

// The largest magnitude among float samples, as a peak meter reads it; 0 for none.
inline float peakOf(const std::deque<float>& samples)
{
    float peak = 0.0f;
    for (float sample : samples)
        peak = std::max(peak, std::abs(sample));
    return peak;
}
