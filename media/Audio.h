#pragma once

#include <cstdint>
#include <vector>

namespace tavrin {

// The operator's settings for the main audio input.
struct AudioState
{
    bool muted = false;
    double gain = 1.0; // linear, 0 to 2
};

// Levels of one block; channel 0 is left, 1 right.
struct AudioLevels
{
    double rms[2] = {0.0, 0.0};
    double peak[2] = {0.0, 0.0};
    bool clipped = false;
};

// One delivered block: interleaved stereo at 48 kHz, after mute, gain and clamp.
struct AudioBlock
{
    std::vector<float> samples;
    std::int64_t pts = 0; // nanoseconds; 0 when the buffer had none
    AudioLevels input;
    AudioLevels output;
};

} // namespace tavrin
