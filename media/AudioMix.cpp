#include "AudioMix.h"

#include <algorithm>

namespace tavrin {

namespace {

float takeFront(std::deque<float>& queue)
{
    if (queue.empty())
        return 0.0f;
    const float sample = queue.front();
    queue.pop_front();
    return sample;
}

float clampUnit(double value)
{
    return float(std::clamp(value, -1.0, 1.0));
}

} // namespace

std::vector<float> mixBlock(std::deque<float>* videoQueue, std::deque<float>& roomQueue,
                            std::deque<float>& voiceQueue, const AudioState& state, int originalPercent,
                            int voicePercent)
{
    std::vector<float> block(mixBlockSamples, 0.0f);
    for (float& out : block) {
        if (videoQueue) {
            const float a = takeFront(*videoQueue);
            const float v = takeFront(voiceQueue);
            const double s = state.muted ? 0.0 : clampUnit(a * state.gain);
            out = clampUnit(double(voicePercent) * v / 100.0 + double(originalPercent) * s / 100.0);
        } else {
            const float a = takeFront(roomQueue);
            const float v = takeFront(voiceQueue);
            out = clampUnit(double(originalPercent) * a / 100.0 + double(voicePercent) * v / 100.0);
        }
    }
    return block;
}

} // namespace tavrin
