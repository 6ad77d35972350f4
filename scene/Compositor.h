#pragma once

#include "RgbaConversion.h" // frameFromImage: what the outputs take of a composed picture
#include "SceneDef.h"

#include <QImage>
#include <QPainter>
#include <QString>
#include <QStringList>
#include <memory>

class Media;
namespace tavrin {
struct Frame;
}

// What the subtitle layers and the hall fallback show in one composition.
struct CaptionView
{
    bool show = true;       // "Mostrar subtítulos"
    QString text;           // the whole caption text, phrases joined with the separator
    QStringList phrases;    // the phrases on screen, newest last
    QString separator = QStringLiteral(" ");
};

// Paints one layer into `box` (pixels). Camera layers take `cameraFrame`.
void drawLayer(QPainter& painter, const Layer& layer, const QRectF& box, int outputHeight,
               const tavrin::Frame* cameraFrame);

// Text of a layer scales with the output's height: `size` is in pixels of a 1080-high output.
int textPixelSize(int size, int outputHeight);
// Distance of the dark outline behind a layer's text.
int shadowOffset(int size, int outputHeight);

// Turns scenes into pictures. One instance serves all compositions of the studio and keeps what
// can be reused from one frame to the next (converted source pictures, laid-out text); what it
// draws is what drawLayer draws, to within rounding. Main thread only.
class Compositor
{
public:
    enum class Mode {
        Fast,    // premultiplied ARGB32 with caches: the studio's own path
        Literal, // RGBA8888, every picture and text drawn anew: the reference for checks and benchmarks
    };

    explicit Compositor(Mode mode = Mode::Fast);
    ~Compositor();
    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

    // The scene is taken by value: the subtitle pass writes into its own copy. The picture is
    // premultiplied ARGB32 in Fast mode and RGBA8888 in Literal mode; it is the caller's alone, to
    // keep and to paint on.
    QImage compose(SceneDef scene, const QString& title, bool band, int width, int height, bool hall,
                   bool preview, const CaptionView& captions, const Media* camera);

    // The same with the camera's picture handed over directly (stills, checks, the benchmark), so
    // that no pipeline is needed. `cameraSerial` must change whenever the picture's pixels do: the
    // fast path keeps its converted copy for as long as frame address, serial and buffer stay the same.
    QImage compose(SceneDef scene, const QString& title, bool band, int width, int height, bool hall,
                   bool preview, const CaptionView& captions, const tavrin::Frame* cameraFrame,
                   quint64 cameraSerial);

private:
    struct Caches;
    Mode mode;
    std::unique_ptr<Caches> caches;
};
