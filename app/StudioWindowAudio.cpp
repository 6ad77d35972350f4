#include "StudioWindow.h"

#include "AudioCapture.h"
#include "AudioMix.h"
#include "AudioProcessing.h"
#include "Media.h"
#include "i18n.h"

#include <QGridLayout>
#include <QLabel>
#include <QProgressBar>
#include <QSlider>
#include <stdexcept>

namespace {

QSlider* percentSlider(int maximum, int value)
{
    auto* slider = new QSlider(Qt::Horizontal);
    slider->setRange(0, maximum);
    slider->setValue(value);
    return slider;
}

QProgressBar* levelBar()
{
    auto* bar = new QProgressBar;
    bar->setRange(0, 100);
    bar->setValue(0);
    bar->setTextVisible(false);
    return bar;
}

} // namespace

QWidget* StudioWindow::buildAudioTab()
{
    auto* tab = new QWidget;
    auto* grid = new QGridLayout(tab);
    grid->addWidget(new QLabel(T("Ganancia de entrada")), 0, 0);
    gainSlider = percentSlider(200, 100);
    connect(gainSlider, &QSlider::valueChanged, this, [this](int value) {
        runGuarded([this, value] {
            const double gain = value / 100.0;
            if (gain < 0.0 || gain > 2.0)
                throw std::runtime_error("Ganancia fuera de 0 a 2");
            audioState.gain = gain;
        });
    });
    grid->addWidget(gainSlider, 0, 1);
    muteButton = button(T("Silenciar"));
    action(muteButton, [this] {
        audioState.muted = !audioState.muted;
        muteButton->setText(audioState.muted ? T("Quitar silencio") : T("Silenciar"));
    });
    grid->addWidget(muteButton, 0, 2);
    grid->addWidget(new QLabel(T("Entrada")), 1, 0);
    inputMeter = levelBar();
    grid->addWidget(inputMeter, 1, 1, 1, 2);
    grid->addWidget(new QLabel(T("Procesado")), 2, 0);
    processedMeter = levelBar();
    grid->addWidget(processedMeter, 2, 1, 1, 2);
    grid->addWidget(new QLabel(T("Original en salidas")), 3, 0);
    originalSlider = percentSlider(100, 100);
    grid->addWidget(originalSlider, 3, 1, 1, 2);
    grid->addWidget(new QLabel(T("Voz traducida en salidas")), 4, 0);
    voiceSlider = percentSlider(100, 100);
    grid->addWidget(voiceSlider, 4, 1, 1, 2);
    grid->setColumnStretch(1, 1);
    grid->setRowStretch(5, 1);
    return tab;
}

void StudioWindow::pollAudio()
{
    if (!capture)
        return;
    capture->poll(audioState);
    meter(inputMeter, tavrin::meterValue(capture->input));
    meter(processedMeter, tavrin::meterValue(capture->output));
    if (capture->running)
        return;
    // Audio is not reopened by itself: outputs go on with silence or the voice until the operator
    // connects the sources again.
    notify(T("Audio detenido; video continúa. ") + T(capture->error.c_str()));
    retireMedia(std::move(capture));
    programAudio.clear();
}

std::vector<float> StudioWindow::mixAudio()
{
    // A video with its sound on, on the Stream program, replaces the room in the outputs.
    std::deque<float>* videoQueue = nullptr;
    for (const Layer& layer : program.layers) {
        if (layer.kind == Layer::Kind::Video && layer.visible && layer.sound && layer.media) {
            videoQueue = &layer.media->audioRing;
            break;
        }
    }
    return tavrin::mixBlock(videoQueue, programAudio, voiceAudio, audioState, originalSlider->value(),
                            voiceSlider->value());
}
