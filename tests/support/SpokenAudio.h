#pragma once

#include <QString>

#include <vector>

// Speech by espeak-ng in `voice` ("es", "en") from SSML, so that pauses of known length can be
// written in, as the studio's audio blocks carry it: 48 kHz interleaved stereo floats, at half of
// full scale. The same text gives the same samples on every run. Empty when espeak-ng or sox fails.
std::vector<float> spokenStereo(const QString& voice, const QString& ssml);
