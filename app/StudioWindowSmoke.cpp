#include "StudioWindow.h"

#include "Canvas.h"
#include "Frame.h"
#include "Media.h"
#include "i18n.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QLineEdit>
#include <cstdio>
#include <stdexcept>

namespace {

// Checks past this frame give up on the second image take. Left generous: a loaded machine may
// need a few frames more than the script's own gaps.
constexpr int lastSmokeFrame = 60;

bool isBlack(const QColor& colour)
{
    return colour.red() == 0 && colour.green() == 0 && colour.blue() == 0;
}

void check(bool condition, const char* failure)
{
    if (!condition)
        throw std::runtime_error(failure);
}

std::shared_ptr<tavrin::Frame> solidFrame(int channel)
{
    auto frame = std::make_shared<tavrin::Frame>(4, 4);
    for (std::size_t pixel = 0; pixel < frame->pixels.size(); pixel += 4)
        frame->pixels[pixel + std::size_t(channel)] = 255;
    return frame;
}

} // namespace

// The self-test: edits Preview, takes, and reads the centre of the real Stream program picture,
// frame by frame, to prove that nothing of Preview reaches Program outside a take.
void StudioWindow::smokeStep(const QImage& streamProgram, const QImage& preview)
{
    ++smokeFrames;
    const QColor centre = streamProgram.pixelColor(width / 2, height / 2);
    switch (smokeFrames) {
    case 8:
        overlayField->setText(T("PRUEBA DE TITULO"));
        bandCheck->setChecked(true);
        return;
    case 9:
        check(isBlack(centre), "Preview modifico Programa sin corte");
        return;
    case 10: {
        const QStringList arguments = QCoreApplication::arguments();
        const qsizetype at = arguments.indexOf(QStringLiteral("--snapshot"));
        if (at >= 0 && at + 1 < arguments.size())
            grab().save(arguments[at + 1]); // a failed save does not fail the test
        fadeCheck->setChecked(false);
        fadeEnabled = false;
        take();
        return;
    }
    case 14:
        check(camera && !camera->latest.empty() && !isBlack(centre), "Corte no envio camara a Programa");
        scene().layers.clear();
        refreshLayerList();
        overlayField->clear();
        bandCheck->setChecked(false);
        return;
    case 17:
        check(!isBlack(centre), "Seleccionar negro afecto Programa antes de corte");
        return;
    case 18:
        take();
        return;
    case 20: {
        check(isBlack(centre), "Corte negro no llego a Programa");
        Layer picture;
        picture.kind = Layer::Kind::Image;
        picture.rect = QRectF(0.0, 0.0, 1.0, 1.0);
        picture.image = solidFrame(0);
        addLayer(picture);
        take();
        return;
    }
    case 23:
        check(centre.red() == 255, "Imagen no llego a Programa");
        scene().layers.back().image = solidFrame(1);
        return;
    case 25:
        check(centre.red() == 255, "Cambiar imagen preparada modifico Programa");
        take();
        return;
    default:
        break;
    }
    if (smokeFrames < 28)
        return;
    if (!preview.isNull() && centre.green() == 255) {
        std::fputs("Desktop Preview/Program smoke passed\n", stdout);
        std::fflush(stdout);
        QCoreApplication::quit();
        return;
    }
    check(smokeFrames < lastSmokeFrame, "Segundo corte de imagen no llego a Programa");
}
