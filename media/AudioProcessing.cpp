#include "AudioProcessing.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <utility>

namespace tavrin {

namespace {

// Sums of squares per channel, turned into levels at the end of the block.
void finish(AudioLevels& levels, const double (&squares)[2], std::size_t frames)
{
    // An empty block has no power; dividing by zero frames would leave NaN on the meter.
    if (frames == 0)
        return;
    for (int c = 0; c < 2; ++c)
        levels.rms[c] = std::sqrt(squares[c] / double(frames));
}

} // namespace

AudioBlock processBlock(std::vector<float> samples, const AudioState& state)
{
    if (samples.size() % 2 != 0)
        throw std::runtime_error("Bloque de audio incompleto");
    if (!std::isfinite(state.gain) || state.gain < 0.0 || state.gain > 2.0)
        throw std::runtime_error("Ganancia invalida");

    AudioBlock block;
    double inputSquares[2] = {0.0, 0.0};
    double outputSquares[2] = {0.0, 0.0};
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const std::size_t c = i % 2;
        const double x = std::isfinite(samples[i]) ? double(samples[i]) : 0.0;
        const double magnitude = std::abs(x);
        block.input.peak[c] = std::max(block.input.peak[c], magnitude);
        inputSquares[c] += x * x;
        if (magnitude >= 1.0)
            block.input.clipped = true;

        if (state.muted) {
            samples[i] = 0.0f;
            continue;
        }
        double y = x * state.gain;
        // Clipping is what the gain asked for, so it is judged before the clamp hides it.
        if (std::abs(y) >= 1.0)
            block.output.clipped = true;
        y = std::clamp(y, -1.0, 1.0);
        samples[i] = float(y);
        block.output.peak[c] = std::max(block.output.peak[c], std::abs(y));
        outputSquares[c] += y * y;
    }

    const std::size_t frames = samples.size() / 2;
    finish(block.input, inputSquares, frames);
    finish(block.output, outputSquares, frames);
    block.samples = std::move(samples);
    return block;
}

int meterValue(const AudioLevels& levels)
{
    const double peak = std::max(levels.peak[0], levels.peak[1]);
    if (!(peak > 0.0))
        return 0;
    return int((std::max(20.0 * std::log10(peak), -60.0) + 60.0) * 100.0 / 60.0);
}

} // namespace tavrin
