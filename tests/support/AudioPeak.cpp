#include "AudioPeak.h"

#include <algorithm>
#include <cmath>

float peakOf(const std::deque<float>& samples)
{
    float peak = 0.0f;
    for (float sample : samples)
        peak = std::max(peak, std::abs(sample));
    return peak;
}
