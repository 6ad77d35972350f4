#include "SpokenAudio.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cstring>

std::vector<float> spokenStereo(const QString& voice, const QString& ssml)
{
    QTemporaryDir dir;
    const QString wav = dir.filePath(QStringLiteral("speech.wav"));
    const QString raw = dir.filePath(QStringLiteral("speech.f32"));
    if (QProcess::execute(QStringLiteral("espeak-ng"),
                          {QStringLiteral("-m"), QStringLiteral("-v"), voice, QStringLiteral("-w"), wav, ssml}) != 0 ||
        QProcess::execute(QStringLiteral("sox"),
                          {QStringLiteral("-R"), QStringLiteral("-D"), QStringLiteral("-v"), QStringLiteral("0.5"), wav,
                           QStringLiteral("-r"), QStringLiteral("48000"), QStringLiteral("-c"), QStringLiteral("2"),
                           QStringLiteral("-e"), QStringLiteral("floating-point"), QStringLiteral("-b"),
                           QStringLiteral("32"), QStringLiteral("-t"), QStringLiteral("raw"), raw}) != 0)
        return {};
    QFile file(raw);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    std::vector<float> samples(std::size_t(bytes.size()) / sizeof(float));
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return samples;
}
