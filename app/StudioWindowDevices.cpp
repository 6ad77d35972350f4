#include "StudioWindow.h"

#include "AudioCapture.h"
#include "Media.h"
#include "i18n.h"

#include <QComboBox>
#include <QGuiApplication>
#include <QScreen>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>

namespace {
// One second of room sound waiting for the mix: a late frame catches up, nothing builds delay.
constexpr std::size_t programAudioFloats = 96000;
} // namespace

QWidget* StudioWindow::buildSourcesTab()
{
    auto* tab = new QWidget;
    auto* grid = new QGridLayout(tab);
    grid->addWidget(new QLabel(T("Cámara")), 0, 0);
    cameraCombo = new QComboBox;
    cameraCombo->setMinimumWidth(260);
    grid->addWidget(cameraCombo, 0, 1);
    grid->addWidget(new QLabel(T("Audio")), 1, 0);
    audioCombo = new QComboBox;
    audioCombo->setObjectName(QStringLiteral("audio"));
    grid->addWidget(audioCombo, 1, 1);
    QPushButton* refresh = button(T("Actualizar dispositivos"));
    action(refresh, [this] { refreshDevices(); });
    grid->addWidget(refresh, 0, 2);
    QPushButton* connectButton = button(T("Conectar fuentes"));
    action(connectButton, [this] { connectSources(); });
    grid->addWidget(connectButton, 1, 2);

    QPushButton* loadImage = button(T("Cargar imagen"));
    action(loadImage, [this] { askImageLayer(); });
    auto* loadRow = new QHBoxLayout;
    loadRow->addWidget(loadImage);
    QPushButton* loadVideo = button(T("Cargar video"));
    action(loadVideo, [this] { askVideoLayer(); });
    loadRow->addWidget(loadVideo);
    QPushButton* networkSource = button(T("Fuente de red"));
    action(networkSource, [this] { askNetworkSource(); });
    loadRow->addWidget(networkSource);
    loadRow->addStretch();
    grid->addLayout(loadRow, 2, 0, 1, 3);

    grid->addWidget(new QLabel(T("Pantalla")), 3, 0);
    screenCombo = new QComboBox;
    for (const QScreen* each : QGuiApplication::screens())
        screenCombo->addItem(each->name());
    grid->addWidget(screenCombo, 3, 1);
    hallButton = button(T("Pantallas de sala en el monitor elegido"));
    action(hallButton, [this] { hallScreensPressed(); });
    grid->addWidget(hallButton, 3, 2);
    grid->setColumnStretch(3, 1);
    grid->setRowStretch(4, 1);
    return tab;
}

void StudioWindow::refreshDevices()
{
    videoDevices.clear();
    audioDevices.clear();
    cameraCombo->clear();
    audioCombo->clear();
    cameraCombo->addItem(T("Barras de prueba"));
    audioCombo->addItem(T("Sin entrada / silencio"));
    audioCombo->addItem(T("Señal de prueba (sin altavoces)"));

    const gstptr::Object<GstDeviceMonitor> monitor(gst_device_monitor_new());
    gst_device_monitor_add_filter(monitor.get(), "Video/Source", nullptr);
    gst_device_monitor_add_filter(monitor.get(), "Audio/Source", nullptr);
    gst_device_monitor_start(monitor.get());
    GList* devices = gst_device_monitor_get_devices(monitor.get());
    for (GList* item = devices; item; item = item->next) {
        gstptr::Device device(GST_DEVICE(item->data)); // the list's reference, now ours
        const gstptr::String className(gst_device_get_device_class(device.get()));
        const gstptr::String displayName(gst_device_get_display_name(device.get()));
        const QString shown = QString::fromUtf8(displayName ? displayName.get() : "?");
        if (className && g_str_has_prefix(className.get(), "Video/Source")) {
            cameraCombo->addItem(shown);
            videoDevices.push_back(std::move(device));
        } else {
            audioCombo->addItem(shown);
            audioDevices.push_back(std::move(device));
        }
    }
    g_list_free(devices);
    gst_device_monitor_stop(monitor.get());
}

void StudioWindow::connectSources()
{
    retireMedia(std::move(capture));
    programAudio.clear();
    meter(inputMeter, 0);
    meter(processedMeter, 0);

    const int index = cameraCombo->currentIndex() - 1;
    logLine(QStringLiteral("Abrir cámara índice %1 : %2").arg(QString::number(index), cameraCombo->currentText()));
    bool cameraFailed = false;
    if (!(camera && camera->running && cameraIndex == index)) {
        try {
            GstDevice* device = index >= 0 ? videoDevices.at(std::size_t(index)).get() : nullptr;
            auto opened = std::make_shared<Media>(width, height, device, std::string(), true, false);
            retireMedia(std::exchange(camera, std::move(opened)));
            cameraIndex = index;
            logLine(QStringLiteral("Cámara creada: ") + QString::fromStdString(camera->diagnostics));
            cameraFirstFrameLogged = false;
        } catch (const std::exception& error) {
            notify(T("Cámara: ") + T(error.what()));
            cameraFailed = true;
        }
    }

    const int audioIndex = audioCombo->currentIndex();
    if (audioIndex >= 1) {
        try {
            GstDevice* device = audioIndex == 1 ? nullptr : audioDevices.at(std::size_t(audioIndex - 2)).get();
            capture = std::make_unique<AudioCapture>(device);
        } catch (const std::exception& error) {
            notify(T("Audio: ") + T(error.what()));
            return;
        }
        capture->onBlock = [this](const tavrin::AudioBlock& block) {
            programAudio.insert(programAudio.end(), block.samples.begin(), block.samples.end());
            if (programAudio.size() > programAudioFloats)
                programAudio.erase(programAudio.begin(),
                                   programAudio.begin() + std::ptrdiff_t(programAudio.size() - programAudioFloats));
            translation.feed(block);
        };
    }
    if (!cameraFailed)
        notify(T("Fuentes abiertas. Prepara una escena y pulsa AL AIRE."));
}
