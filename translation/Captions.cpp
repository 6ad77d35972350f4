#include "Captions.h"

#include "Layer.h"
#include "SceneDef.h"

#include <QFontMetrics>

#include <algorithm>

namespace captions {

QString separatorFor(int setting)
{
    switch (setting) {
    case 1:
        return QStringLiteral("\n");
    case 2:
        return QStringLiteral("\n\n");
    default:
        return QStringLiteral(" ");
    }
}

const Layer* visibleSubtitle(const SceneDef& scene)
{
    for (const Layer& layer : scene.layers)
        if (layer.kind == Layer::Kind::Subtitle && layer.visible)
            return &layer;
    return nullptr;
}

Box boxFor(const Layer* layer, int outputWidth, int outputHeight)
{
    Box box;
    if (layer) {
        box.width = outputWidth * layer->rect.width() - 24;
        box.height = outputHeight * layer->rect.height() - 16;
        box.font.setFamily(layer->font);
        box.font.setPixelSize(std::max(4, layer->size * outputHeight / 1080));
        box.font.setWeight(layer->bold ? QFont::Bold : QFont::Normal);
        return box;
    }
    box.width = (outputWidth * 18) / 20;
    box.height = (outputHeight * 3) / 4;
    box.font.setFamily(QStringLiteral("Sans Serif"));
    box.font.setPixelSize(std::max(4, 68 * outputHeight / 1080));
    box.font.setWeight(QFont::Bold);
    return box;
}

QStringList fit(QStringList phrases, const QString& text, const QString& separator, const Box& box)
{
    phrases.append(text);
    const QFontMetrics metrics(box.font);
    while (phrases.size() >= 2) {
        const QRect measured = metrics.boundingRect(QRect(0, 0, int(box.width - 1), 99999),
                                                    Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap,
                                                    phrases.join(separator));
        if (box.height >= measured.height())
            break;
        phrases.removeFirst();
    }
    return phrases;
}

std::vector<float> speechToStereo(const QByteArray& speech)
{
    std::vector<float> samples;
    samples.reserve(std::size_t(speech.size() / 2) * 4);
    const auto* bytes = reinterpret_cast<const unsigned char*>(speech.constData());
    for (qsizetype i = 0; i + 1 < speech.size(); i += 2) {
        const auto value = std::int16_t(std::uint16_t(bytes[i] | (bytes[i + 1] << 8)));
        const float sample = float(value) * (1.0f / 32768.0f);
        samples.insert(samples.end(), 4, sample);
    }
    return samples;
}

} // namespace captions
