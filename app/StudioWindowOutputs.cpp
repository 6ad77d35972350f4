#include "StudioWindow.h"

#include "Frame.h"
#include "Output.h"
#include "RecordingRepair.h"
#include "SecretStore.h"
#include "StreamTarget.h"
#include "i18n.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <stdexcept>

namespace {

constexpr int streamBitrate = 6000000;

const QString unfinishedRecordingKey = QStringLiteral("unfinished_recording");

struct Preset
{
    const char* name;
    const char* server;
};

// The platforms' own ingest endpoints; the operator only adds the key.
constexpr Preset presets[4] = {
    {"YouTube", "rtmps://a.rtmps.youtube.com/live2"},
    {"Facebook", "rtmps://live-api-s.facebook.com:443/rtmp"},
    {"Twitch", "rtmp://live.twitch.tv/app"},
    {"Otro RTMP", "rtmp://"},
};

} // namespace

QWidget* StudioWindow::buildStreamTab()
{
    auto* tab = new QWidget;
    auto* grid = new QGridLayout(tab);
    for (std::size_t row = 0; row < destinations.size(); ++row) {
        Destination& each = destinations[row];
        each.name = QString::fromUtf8(presets[row].name);
        each.enabled = new QCheckBox(T(presets[row].name));
        each.server = new QLineEdit(QString::fromUtf8(presets[row].server));
        each.server->setObjectName(QStringLiteral("server-%1").arg(row));
        each.key = new QLineEdit;
        each.key->setObjectName(QStringLiteral("key-%1").arg(row));
        each.key->setEchoMode(QLineEdit::Password);
        each.key->setPlaceholderText(T("Clave de transmisión"));
        each.button = button(T("Iniciar"));
        each.status = new QLabel(T("Detenido"));
        connect(each.button, &QPushButton::clicked, this, [this, row] { runGuarded([this, row] { destination(row); }); });
        const int line = int(row);
        grid->addWidget(each.enabled, line, 0);
        grid->addWidget(each.server, line, 1);
        grid->addWidget(each.key, line, 2);
        grid->addWidget(each.button, line, 3);
        grid->addWidget(each.status, line, 4);
    }
    QPushButton* startSelected = button(T("Iniciar destinos seleccionados"));
    connect(startSelected, &QPushButton::clicked, this, &StudioWindow::startSelectedDestinations);
    grid->addWidget(startSelected, 4, 0, 1, 2);
    QPushButton* stopAll = button(T("Detener transmisiones"));
    connect(stopAll, &QPushButton::clicked, this, &StudioWindow::stopStreams);
    grid->addWidget(stopAll, 4, 2);
    recordButton = button(T("● Grabar"));
    recordButton->setObjectName(QStringLiteral("record"));
    action(recordButton, [this] { recordPressed(); });
    grid->addWidget(recordButton, 4, 3);
    QPushButton* saveKeys = button(T("Guardar claves en este equipo"));
    action(saveKeys, [this] { saveStreamKeys(); });
    grid->addWidget(saveKeys, 4, 4);
    grid->setColumnStretch(1, 2);
    grid->setColumnStretch(4, 1);
    return tab;
}

void StudioWindow::destination(std::size_t index)
{
    Destination& row = destinations.at(index);
    if (row.output) {
        retire(std::move(row.output));
        row.button->setText(T("Iniciar"));
        row.status->setText(T("Detenido"));
        lockFormat();
        return;
    }
    const QString server = row.server->text().trimmed();
    // The address first: a refused one leaves the key field as the operator left it, and its refusal
    // shows without a wait on the keyring.
    tavrin::streamServer(server);
    if (row.key->text().trimmed().isEmpty())
        row.key->setText(readSecret(QStringLiteral("stream-") + row.name));
    const QString key = row.key->text().trimmed();
    const QString target = tavrin::streamTarget(server, key);
    logLine(tavrin::keyLogLine(row.name, server, key));
    row.output = std::make_unique<Output>(width, height, true, target.toStdString(), streamBitrate, false);
    row.button->setText(T("Detener"));
    row.status->setText(T("Enviando · confirma recepción en la plataforma"));
    lockFormat();
}

void StudioWindow::startSelectedDestinations()
{
    for (std::size_t row = 0; row < destinations.size(); ++row) {
        if (!destinations[row].enabled->isChecked() || destinations[row].output)
            continue;
        try {
            destination(row);
        } catch (const std::exception& error) {
            destinations[row].status->setText(T(error.what()));
        }
    }
}

void StudioWindow::stopStreams()
{
    for (Destination& row : destinations) {
        retire(std::move(row.output));
        row.button->setText(T("Iniciar"));
        row.status->setText(T("Detenido"));
    }
    lockFormat();
}

void StudioWindow::saveStreamKeys()
{
    for (const Destination& row : destinations) {
        if (!storeSecret(QStringLiteral("stream-") + row.name, row.key->text()))
            throw std::runtime_error("No se pudo guardar en el almacén seguro del sistema");
    }
    notify(T("Claves guardadas en Llavero / Credential Manager."));
}

void StudioWindow::recordPressed()
{
    if (!recording) {
        const QString path = QFileDialog::getSaveFileName(this, T("Grabar Programa"), QString(), T("WebM (*.webm)"));
        if (!path.isEmpty())
            startRecording(path);
        return;
    }
    recording->finish();
    recordButton->setText(T("Finalizando..."));
}

void StudioWindow::startRecording(const QString& path)
{
    recording = std::make_unique<Output>(width, height, false, path.toStdString(), streamBitrate, false);
    rememberRecording(path);
    recordButton->setText(T("■ Detener grabación"));
    lockFormat();
    notify(T("Grabando Programa y audio seleccionado."));
}

void StudioWindow::rememberRecording(const QString& path)
{
    if (path.isEmpty())
        settings.remove(unfinishedRecordingKey);
    else
        settings.setValue(unfinishedRecordingKey, path);
    // At once: a crash is exactly when the settings would not be written later.
    settings.sync();
}

void StudioWindow::recoverRecording()
{
    const QString path = settings.value(unfinishedRecordingKey).toString();
    if (path.isEmpty())
        return;
    if (!QFileInfo::exists(path)) {
        rememberRecording(QString());
        return;
    }
    logLine(QStringLiteral("Grabación sin terminar, se repara: ") + path);
    // Like a tear-down, on a worker that the destructor waits for; the result comes back through the
    // event loop, which drops it if the window is gone by then.
    retired.push_back(std::async(std::launch::async, [this, path] {
        std::string repaired;
        std::string failure;
        try {
            repaired = repairRecording(path.toStdString());
        } catch (const std::exception& error) {
            failure = error.what();
        }
        QMetaObject::invokeMethod(
            this,
            [this, path, repaired, failure] {
                // A recording started in the meantime is remembered for itself.
                if (settings.value(unfinishedRecordingKey).toString() == path)
                    rememberRecording(QString());
                if (!failure.empty())
                    logLine(QString::fromStdString(failure) + QStringLiteral(": ") + path);
                notify(repaired.empty() ? T("No se pudo reparar la grabación interrumpida: ") + path
                                        : T("Grabación interrumpida reparada: ") + QString::fromStdString(repaired));
            },
            Qt::QueuedConnection);
    }));
}

void StudioWindow::retire(std::unique_ptr<Output> output)
{
    retireMedia(std::move(output));
}

bool StudioWindow::outputsRunning() const
{
    return recording || std::any_of(destinations.begin(), destinations.end(),
                                    [](const Destination& row) { return bool(row.output); });
}

void StudioWindow::lockFormat()
{
    const bool locked = outputsRunning();
    formatCombo->setEnabled(!locked);
    formatCombo->setToolTip(locked ? T("Detén transmisiones y grabación para cambiar el formato")
                                   : T("Horizontal o vertical"));
}

void StudioWindow::pushOutputs(const QImage& streamProgram, const std::vector<float>& audio, std::int64_t frameUs)
{
    if (!outputsRunning())
        return;
    std::shared_ptr<tavrin::Frame> filled = outputFrames.acquire();
    frameFromImage(streamProgram, *filled);
    const std::shared_ptr<const tavrin::Frame> frame = std::move(filled);
    const auto pts = std::uint64_t(frameUs - epochUs) * 1000;
    if (recording) {
        recording->push(frame, audio, pts);
        if (!recording->running) {
            if (recording->ended)
                rememberRecording(QString());
            notify(recording->ended && recording->error.empty() ? T("Grabación guardada correctamente")
                                                                 : T(recording->error.c_str()));
            retire(std::move(recording));
            recordButton->setText(T("● Grabar"));
        }
    }
    for (Destination& row : destinations) {
        if (!row.output)
            continue;
        row.output->push(frame, audio, pts);
        if (row.output->running)
            continue;
        row.status->setText(T(row.output->error.c_str()));
        retire(std::move(row.output));
        row.button->setText(T("Iniciar"));
    }
    lockFormat();
}
