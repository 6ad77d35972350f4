#include "CameraDiagnostics.h"

#include "Frame.h"

std::uint32_t cornerFingerprint(const tavrin::Frame& frame)
{
    std::uint32_t value = 0;
    if (frame.empty())
        return value;
    for (int y = frame.height * 9 / 10; y < frame.height; y += 7)
        for (int x = frame.width * 9 / 10; x < frame.width; x += 7)
            value = value * 31 + frame.pixels[(std::size_t(y) * std::size_t(frame.width) + std::size_t(x)) * 4];
    return value;
}

QString diagnosticLine(const CameraHealth& health)
{
    const tavrin::Frame* latest = health.latest;
    const bool hasFrame = latest && !latest->empty();
    QString centre = QStringLiteral("vacio");
    if (hasFrame) {
        const std::size_t at = (std::size_t(latest->height / 2) * std::size_t(latest->width) + std::size_t(latest->width / 2)) * 4;
        centre = QStringLiteral("%1,%2,%3").arg(latest->pixels[at]).arg(latest->pixels[at + 1]).arg(latest->pixels[at + 2]);
    }
    centre += QStringLiteral(" nieve=%1").arg(hasFrame ? cornerFingerprint(*latest) : 0u);
    return QStringLiteral("DIAG frames=%1 media=%2 capas=%3 latest=%4x%5 centro=%6 preparado.centro=%7,%8,%9 active=%10")
        .arg(health.frameCount)
        .arg(health.instance)
        .arg(health.layerCount)
        .arg(latest ? latest->width : 0)
        .arg(latest ? latest->height : 0)
        .arg(centre)
        .arg(health.previewCentre.red())
        .arg(health.previewCentre.green())
        .arg(health.previewCentre.blue())
        .arg(health.active ? 1 : 0);
}
