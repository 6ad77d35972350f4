#pragma once

#include "Audio.h"

#include <vector>

namespace tavrin {

// Applies mute, gain and clamp to one interleaved stereo block and measures it before and after.
// The input levels are taken before the gain, so a muted input still moves the input meter. A sample
// that is not a number or infinite counts as silence. The returned block has pts 0.
// Throws std::runtime_error "Bloque de audio incompleto" for an odd float count and "Ganancia invalida"
// for a gain that is not finite or lies outside 0 to 2.
AudioBlock processBlock(std::vector<float> samples, const AudioState& state);

// A level as a meter value: the louder channel's peak, -60 dBFS to 0 dBFS over 0 to 100.
int meterValue(const AudioLevels& levels);

} // namespace tavrin
