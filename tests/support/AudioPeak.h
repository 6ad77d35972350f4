#pragma once

#include <deque>

// The largest magnitude among float samples, as a peak meter reads it; 0 for none.
float peakOf(const std::deque<float>& samples);
