#pragma once

#include "Audio.h"

#include <deque>
#include <vector>

namespace tavrin {

// One frame's worth of output sound: 1600 stereo frames at 48 kHz.
constexpr int mixBlockSamples = 3200;

// Mixes one block for the outputs and drains what it used from the queues, whether or not anything
// is on air, so that the queues keep real time. With `videoQueue` (the sound of a video on the Stream
// program) the room's sound is replaced: gain and mute are applied to the video here. Without it the
// room queue is used as it is, since the capture applied gain and mute already. Sliders are 0..100.
std::vector<float> mixBlock(std::deque<float>* videoQueue, std::deque<float>& roomQueue,
                            std::deque<float>& voiceQueue, const AudioState& state, int originalPercent,
                            int voicePercent);

} // namespace tavrin
