#include "StudioWindow.h"

#include "CameraDiagnostics.h"
#include "Canvas.h"
#include "Media.h"
#include "Picture.h"
#include "SceneSources.h"
#include "i18n.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QFileInfo>
#include <QPainter>
#include <chrono>
#include <cstdio>

namespace {
constexpr std::int64_t cameraReopenSpacingUs = 3000000;
constexpr double fadeLengthUs = 400000.0;
constexpr qint64 captionLifeMs = 40000;
} // namespace

void StudioWindow::tick()
{
    try {
        pollSources();
        reopenCamera();
        pollAudio();
        reapRetired();
        const std::int64_t nowUs = g_get_monotonic_time();
        if (!frameClock.due(nowUs))
            return;
        frameStage(nowUs);
    } catch (const std::exception& error) {
        // The frame clock has moved on already: this frame is lost and the next firing goes on.
        notify(T(error.what()));
        if (smoke) {
            std::fprintf(stderr, "%s\n", error.what());
            QCoreApplication::exit(1);
        }
    }
}

QImage StudioWindow::compose(SceneDef scene, const QString& title, bool band, int width, int height, bool hall,
                             bool preview)
{
    return compositor.compose(std::move(scene), title, band, width, height, hall, preview, captionView(),
                              camera.get());
}

void StudioWindow::pollSources()
{
    std::vector<Media*> sources;
    if (camera)
        sources.push_back(camera.get());
    for (const auto& busScenes : scenes)
        for (const SceneDef& each : busScenes)
            collectSources(each, sources);
    collectSources(program, sources);
    collectSources(hallProgram, sources);
    for (Media* source : sources) {
        source->poll();
        if (source->error.empty())
            continue;
        // A failed source shows nothing rather than a frozen picture; it stays in its layer.
        notify(T(source->error.c_str()));
        source->error.clear();
        source->latest = {};
    }
}

void StudioWindow::reopenCamera()
{
    if (!camera || !camera->isDevice || camera->running || cameraIndex < 0 ||
        cameraIndex >= int(videoDevices.size()))
        return;
    const std::int64_t nowUs = g_get_monotonic_time();
    if (nowUs - cameraReopenAtUs <= cameraReopenSpacingUs)
        return;
    cameraReopenAtUs = nowUs;
    try {
        auto reopened = std::make_shared<Media>(width, height, videoDevices[std::size_t(cameraIndex)].get(),
                                                std::string(), true, false);
        retireMedia(std::exchange(camera, std::move(reopened)));
        cameraFirstFrameLogged = false;
        logLine(QStringLiteral("Cámara reabierta: ") + QString::fromStdString(camera->diagnostics));
    } catch (const std::exception& error) {
        logLine(QStringLiteral("Cámara: no se pudo reabrir: ") + QString::fromUtf8(error.what()));
    }
}

void StudioWindow::reapRetired()
{
    for (auto entry = retired.begin(); entry != retired.end();) {
        if (entry->wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            ++entry;
            continue;
        }
        std::future<void> finished = std::move(*entry);
        entry = retired.erase(entry);
        finished.get(); // a tear-down's exception comes out here
    }
}

void StudioWindow::frameStage(std::int64_t nowUs)
{
    QElapsedTimer stageTimer;
    stageTimer.start();
    const std::int64_t frameUs = frameClock.advance(nowUs);

    if (camera && !cameraFirstFrameLogged && camera->frameCount >= 1) {
        cameraFirstFrameLogged = true;
        logLine(QStringLiteral("Cámara: primer cuadro recibido. ") + QString::fromStdString(camera->diagnostics) +
                QStringLiteral(" latest=%1x%2").arg(camera->latest.width).arg(camera->latest.height));
    }

    // The last phrase leaves the screens after a while without a new one, also on air.
    if (!captionText.isEmpty() && lastCaptionMs != 0 &&
        QDateTime::currentMSecsSinceEpoch() - lastCaptionMs > captionLifeMs)
        clearCaptions();

    const bool hallPreview = editTarget == 1;
    QImage preview = compose(scene(), overlayField->text(), bandCheck->isChecked(), hallPreview ? hallWidth : width,
                             hallPreview ? hallHeight : height, hallPreview, true);
    QImage streamProgram = compose(program, programOverlay, programBand, width, height, false, false);
    QImage hallPicture = compose(hallProgram, QString(), false, hallWidth, hallHeight, true, false);

    writeDiagnostics(preview);

    if (fadeProgress < 1.0) {
        fadeProgress = std::min(1.0, double(nowUs - fadeStartUs) / fadeLengthUs);
        QPainter painter(&streamProgram);
        painter.setOpacity(1.0 - fadeProgress);
        painter.drawImage(0, 0, fadeFrom);
    }

    canvas->frame = preview;
    canvas->update();
    programMonitor->image = streamProgram;
    programMonitor->update();
    hallMonitor->image = hallPicture;
    hallMonitor->update();
    hallWindow->image = hallPicture;
    hallWindow->update();

    // Mixed on every frame, on air or not, so that the queues drain in real time.
    pushOutputs(streamProgram, mixAudio(), frameUs);
    if (onFrameStage)
        onFrameStage(double(stageTimer.nsecsElapsed()) / 1e6);

    if (smoke)
        smokeStep(streamProgram, preview);
}

void StudioWindow::writeDiagnostics(const QImage& preview)
{
    if (!camera || camera->frameCount == 0 || camera->frameCount % 90 != 0 ||
        int(camera->frameCount) == lastDiagFrame)
        return;
    lastDiagFrame = int(camera->frameCount);
    CameraHealth health;
    health.frameCount = camera->frameCount;
    health.instance = quintptr(camera.get());
    health.layerCount = int(scene().layers.size());
    health.latest = &camera->latest;
    health.previewCentre = preview.pixelColor(preview.width() / 2, preview.height() / 2);
    health.active = camera->running;
    logLine(diagnosticLine(health));

    if (camera->frameCount != 90 || camera->latest.empty() || !qEnvironmentVariableIsSet("VELMORA_DIAG"))
        return;
    const QString folder = QFileInfo(logPath()).absolutePath();
    const QImage latest(camera->latest.pixels.data(), camera->latest.width, camera->latest.height,
                        camera->latest.width * 4, QImage::Format_RGBA8888);
    latest.save(folder + QStringLiteral("/camara-latest.png"));
    preview.save(folder + QStringLiteral("/preparacion.png"));
}
