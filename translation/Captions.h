#pragma once

#include <QByteArray>
#include <QFont>
#include <QString>
#include <QStringList>

#include <vector>

class Layer;
class SceneDef;

// What the screens show as subtitles: phrases that fit the subtitle box, oldest leaving first.
namespace captions {

// The text between phrases for the setting "caption_separator": 1 a new line, 2 a blank line
// between phrases, anything else one blank.
QString separatorFor(int setting);

// The area phrases are measured against, in pixels of the output.
struct Box
{
    double width = 0.0;
    double height = 0.0;
    QFont font;
};

// The first subtitle layer that is shown, or null.
const Layer* visibleSubtitle(const SceneDef& scene);

// The box of `layer` on an output of that size, or the default box without a layer.
Box boxFor(const Layer* layer, int outputWidth, int outputHeight);

// `phrases` with `text` added at the end, less as many of the oldest phrases as needed for the
// rest to fit `box` when joined by `separator`. The newest always stays, even when it alone is
// too long.
QStringList fit(QStringList phrases, const QString& text, const QString& separator, const Box& box);

// The service's speech (24 kHz mono, signed 16-bit little-endian) as the mix takes it: 48 kHz
// stereo floats, each sample repeated for both channels and twice in time.
std::vector<float> speechToStereo(const QByteArray& speech);

} // namespace captions
