#pragma once

#include <QString>

#include <vector>

// Speech by espeak-ng in `voice` from SSML (pauses of known length can be written in) as the studio's audio blocks
// carry it: 48 kHz interleaved stereo floats at half of full scale, the same on every run; empty when it fails.
std::vector<float> spokenStereo(const QString& voice, const QString& ssml);
