#include "SpokenAudio.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cstring>

std::vector<float> spokenStereo(const QString& voice, const QString& ssml)
{
    QTemporaryDir dir;
    const QString wav = dir.filePath(QStringLiteral("speech.wav")),
                  raw = dir.filePath(QStringLiteral("speech.f32"));
    QFile file(raw);
    if (QProcess::execute(QStringLiteral("espeak-ng"), {QStringLiteral("-m"), QStringLiteral("-v"), voice,
                                                        QStringLiteral("-w"), wav, ssml}) != 0 ||
        QProcess::execute(QStringLiteral("sox"),
                          QStringLiteral("-R -D -v 0.5").split(u' ')
                              << wav
                              << QStringLiteral("-r 48000 -c 2 -e floating-point -b 32 -t raw").split(u' ')
                              << raw) != 0 ||
        !file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    std::vector<float> samples(std::size_t(bytes.size()) / sizeof(float));
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return samples;
}
