#include "Canvas.h"
#include "Frame.h"
#include "Media.h"
#include "PropertyPanel.h"
#include "SceneLimits.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFile>
#include <QInputDialog>
#include <QLabel>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QTabWidget>
#include <QSettings>
#include <QTest>
#include <QTimer>

#include <functional>
#include <stdexcept>

Q_DECLARE_METATYPE(Layer::Kind)

namespace {

QPushButton* buttonNamed(StudioWindow& window, const QString& text)
{
    QList<QPushButton*> found;
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            found << each;
    if (found.size() != 1)
        qFatal("%d buttons \"%s\"", int(found.size()), qPrintable(text));
    return found.first();
}

QAction* sourceEntry(StudioWindow& window, const QString& text)
{
    for (QAction* each : buttonNamed(window, QStringLiteral("+ Fuente"))->menu()->actions())
        if (each->text() == text)
            return each;
    qFatal("no entry \"%s\"", qPrintable(text));
}

QStringList rows(const QListWidget* list)
{
    QStringList texts;
    for (int row = 0; row < list->count(); ++row)
        texts << list->item(row)->text();
    return texts;
}

Layer named(const QString& name, Layer::Kind kind = Layer::Kind::Color)
{
    Layer layer;
    layer.kind = kind;
    layer.name = name;
    layer.rect = QRectF(0.2, 0.2, 0.3, 0.3);
    if (kind == Layer::Kind::Video) // a source of its own, to see when the scene lets it go
        layer.media = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    return layer;
}

void clickRow(QListWidget* list, int row)
{
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(row)).center());
}

} // namespace

// The tab "Escena y fuentes" on a real window: its scene and source buttons, the "+ Fuente" menu,
// the source list and the canvas gestures that reach the panels.
class tst_SceneTab : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void newScene_data();
    void newScene();
    void renameDuplicateAndChoose();
    void deleteScene_data();
    void deleteScene();
    void sourceMenuEntries_data();
    void sourceMenuEntries();
    void oneSubtitleSourcePerScene();
    void fullListsRefuseMore_data();
    void fullListsRefuseMore();
    void sourceListShowsTheFrontOnTop();
    void upDownAndRemove();
    void imageBoxFollowsThePicture_data();
    void imageBoxFollowsThePicture();
    void refusedImages_data();
    void refusedImages();
    void decodedImageKeepsStraightAlpha();
    void canvasGesturesReachTheTabAndThePanel();

private:
    // Runs `answer` on the next modal dialog of type D, from inside its own event loop.
    template <class D> void whenModal(std::function<void(D*)> answer)
    {
        auto* watch = new QTimer(this);
        watchers << watch;
        connect(watch, &QTimer::timeout, this, [watch, answer] {
            if (auto* dialog = qobject_cast<D*>(QApplication::activeModalWidget())) {
                watch->deleteLater();
                watch->stop();
                answer(dialog);
            }
        });
        watch->start(5);
    }
    // Answers the next message box with `button`, or its only one, noting its title and text.
    void answerBox(QMessageBox::StandardButton button, QString* text, QString* title = nullptr)
    {
        whenModal<QMessageBox>([=](QMessageBox* box) {
            *text = box->text();
            if (title)
                *title = box->windowTitle();
            (box->button(button) ? box->button(button) : box->buttons().constFirst())->click();
        });
    }
    static void showWindow(StudioWindow& window)
    {
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        window.tabs->setCurrentIndex(1);
    }
    QString writeImage(const QString& name, const QImage& image)
    {
        const QString path = folder + u'/' + name;
        if (!image.save(path, "PNG"))
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }

    QString folder;
    QList<QPointer<QTimer>> watchers;
};

void tst_SceneTab::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    gst_init(nullptr, nullptr);
    folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(folder));
}

void tst_SceneTab::cleanup()
{
    // A dialog that never came must not answer one of the next test.
    for (const QPointer<QTimer>& each : watchers)
        delete each.data();
    watchers.clear();
}

void tst_SceneTab::newScene_data()
{
    QTest::addColumn<int>("bus");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("Redes") << 0 << QStringLiteral("Culto de noche") << true;
    QTest::newRow("Pantallas de sala") << 1 << QStringLiteral("Culto de noche") << true;
    QTest::newRow("empty name") << 0 << QString() << true;
    QTest::newRow("cancelled") << 0 << QStringLiteral("Culto de noche") << false;
}

void tst_SceneTab::newScene()
{
    QFETCH(int, bus);
    QFETCH(QString, answer);
    QFETCH(bool, accepted);
    StudioWindow window(false);
    window.busChosen(bus);
    QStringList asked;
    whenModal<QInputDialog>([&](QInputDialog* dialog) {
        asked << dialog->windowTitle() << dialog->labelText() << dialog->textValue();
        dialog->setTextValue(answer);
        accepted ? dialog->accept() : dialog->reject();
    });
    buttonNamed(window, QStringLiteral("+ Escena"))->click();
    QCOMPARE(asked, (QStringList{QStringLiteral("Nueva escena"), QStringLiteral("Nombre"),
                                 QStringLiteral("Escena 2")}));

    QStringList names{QStringLiteral("Escena 1")};
    if (accepted && !answer.isEmpty())
        names << answer;
    QCOMPARE(rows(window.sceneList), names);
    QCOMPARE(window.scenes[1 - bus].size(), 1u);
    QCOMPARE(window.sceneList->currentRow(), names.size() - 1);
    QCOMPARE(window.sceneCombo->currentText(), names.last());
    QCOMPARE(window.canvas->scene, &window.scenes[bus].back());
    // A new scene starts as the bus's default one.
    SceneDef made = window.scenes[bus].back();
    made.name = QStringLiteral("Escena 1");
    QCOMPARE(made.toJson(), window.defaultScene(bus).toJson());
}

void tst_SceneTab::renameDuplicateAndChoose()
{
    StudioWindow window(false);
    Layer picture = named(QStringLiteral("Logo"), Layer::Kind::Image);
    picture.image = std::make_shared<tavrin::Frame>(4, 2);
    window.scenes[0] = {
        SceneDef{QStringLiteral("Bienvenida"), {picture, named(QStringLiteral("Clip"), Layer::Kind::Video)}},
        SceneDef{QStringLiteral("Sermón"), {named(QStringLiteral("Fondo"))}}};
    window.current[0] = 0;
    window.refreshSceneList();
    showWindow(window);
    QString suggested;
    whenModal<QInputDialog>([&](QInputDialog* dialog) {
        suggested = dialog->textValue();
        dialog->setTextValue(QStringLiteral("Alabanza"));
        dialog->accept();
    });
    buttonNamed(window, QStringLiteral("Renombrar"))->click();
    QCOMPARE(suggested, QStringLiteral("Bienvenida"));

    // The copy goes right after the original and shares its picture and its running source.
    buttonNamed(window, QStringLiteral("Duplicar"))->click();
    QCOMPARE(rows(window.sceneList),
             (QStringList{QStringLiteral("Alabanza"), QStringLiteral("Alabanza copia"),
                          QStringLiteral("Sermón")}));
    QCOMPARE(window.sceneCombo->currentText(), QStringLiteral("Alabanza copia"));
    QCOMPARE(window.sceneList->currentRow(), 1);
    const std::vector<Layer>& original = window.scenes[0][0].layers;
    const std::vector<Layer>& copy = window.scenes[0][1].layers;
    QVERIFY(copy.at(0).image && copy.at(1).media);
    QCOMPARE(copy[0].image.get(), original[0].image.get());
    QCOMPARE(copy[1].media.get(), original[1].media.get());

    clickRow(window.sceneList, 2);
    QCOMPARE(window.current[0], 2);
    QCOMPARE(window.sceneCombo->currentIndex(), 2);
    QCOMPARE(window.canvas->scene, &window.scenes[0][2]);
    QCOMPARE(rows(window.layerList), QStringList{QStringLiteral("Fondo")});
}

void tst_SceneTab::deleteScene_data()
{
    QTest::addColumn<bool>("lastOne");
    QTest::addColumn<bool>("confirm");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("text");
    const QString ask = QStringLiteral("¿Eliminar la escena Ofrenda?");
    QTest::newRow("yes") << false << true << QStringLiteral("Eliminar escena") << ask;
    QTest::newRow("no") << false << false << QStringLiteral("Eliminar escena") << ask;
    QTest::newRow("last one") << true << true << QStringLiteral("Velmora")
                              << QStringLiteral("Debe quedar al menos una escena");
}

void tst_SceneTab::deleteScene()
{
    QFETCH(bool, lastOne);
    QFETCH(bool, confirm);
    QFETCH(QString, title);
    QFETCH(QString, text);
    StudioWindow window(false);
    window.scenes[0] = {
        SceneDef{QStringLiteral("Ofrenda"), {named(QStringLiteral("Clip"), Layer::Kind::Video)}}};
    const std::weak_ptr<Media> source = window.scenes[0][0].layers[0].media;
    if (!lastOne)
        window.scenes[0].insert(window.scenes[0].begin(), SceneDef{QStringLiteral("Anuncios"), {}});
    window.current[0] = lastOne ? 0 : 1;
    window.refreshSceneList();
    QString seenTitle, seenText;
    answerBox(confirm ? QMessageBox::Yes : QMessageBox::No, &seenText, &seenTitle);
    buttonNamed(window, QStringLiteral("Eliminar escena"))->click();
    QCOMPARE(seenTitle, title);
    QCOMPARE(seenText, text);
    const bool deleted = confirm && !lastOne;
    QCOMPARE(rows(window.sceneList).contains(QStringLiteral("Ofrenda")), !deleted);
    QCOMPARE(window.sceneList->count(), lastOne || deleted ? 1 : 2);
    QCOMPARE(window.sceneList->currentRow(), window.current[0]);
    QCOMPARE(window.canvas->scene, &window.scene());
    if (lastOne)
        QCOMPARE(window.statusLabel->text(), text);
    if (deleted)
        QTRY_VERIFY(source.expired()); // the pipeline was let go on a worker
    else
        QVERIFY(!source.expired());
}

void tst_SceneTab::sourceMenuEntries_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<Layer::Kind>("kind");
    QTest::newRow("camera") << QStringLiteral("Cámara / capturadora") << Layer::Kind::Camera;
    QTest::newRow("screen") << QStringLiteral("Captura de pantalla") << Layer::Kind::Screen;
    QTest::newRow("colour") << QStringLiteral("Color sólido") << Layer::Kind::Color;
    QTest::newRow("text") << QStringLiteral("Texto") << Layer::Kind::Text;
    QTest::newRow("verse") << QStringLiteral("Versículo bíblico") << Layer::Kind::Verse;
    QTest::newRow("subtitles") << QStringLiteral("Subtítulos (IA): posición y estilo")
                               << Layer::Kind::Subtitle;
}

void tst_SceneTab::sourceMenuEntries()
{
    QFETCH(QString, entry);
    QFETCH(Layer::Kind, kind);
    StudioWindow window(false);
    QString refusal;
    answerBox(QMessageBox::Ok, &refusal);
    sourceEntry(window, entry)->trigger();
    if (kind == Layer::Kind::Screen && refusal == QLatin1String("No se pudo iniciar fuente"))
        QSKIP("screen capture needs a display to grab");
    QVERIFY2(refusal.isEmpty(), qPrintable(refusal));
    const auto& layers = window.scene().layers;
    QCOMPARE(layers.size(), 2u);
    QCOMPARE(layers.back().kind, kind);
    QCOMPARE(layers.back().name, Layer::label(kind) + QStringLiteral(" 2"));
    // The new layer is selected, on top of the list and in the panel.
    QCOMPARE(window.canvas->selected, 1);
    QCOMPARE(window.layerList->currentRow(), 0);
    QCOMPARE(window.layerList->item(0)->text(), layers.back().name);
    QVERIFY(window.propertyPanel->findChild<QDoubleSpinBox*>(QStringLiteral("X")));
    if (kind == Layer::Kind::Screen)
        QCOMPARE(window.statusLabel->text(),
                 QStringLiteral(
                     "Captura de pantalla añadida. macOS puede pedir permiso de Grabación de pantalla."));
}

// One per scene: a second is refused with its message, another scene of the bus may have its own,
// and the hall's default scene has one already.
void tst_SceneTab::oneSubtitleSourcePerScene()
{
    StudioWindow window(false);
    const QString entry = QStringLiteral("Subtítulos (IA): posición y estilo");
    const QString refused = QStringLiteral("Esta escena ya tiene una fuente de subtítulos.");
    sourceEntry(window, entry)->trigger();
    window.scenes[0].push_back(window.defaultScene(0));
    window.current[0] = 1;
    window.refreshSceneList();
    sourceEntry(window, entry)->trigger();
    for (int bus : {0, 1}) {
        window.busChosen(bus);
        const std::size_t before = window.scene().layers.size();
        QString seen;
        answerBox(QMessageBox::Ok, &seen);
        sourceEntry(window, entry)->trigger();
        QCOMPARE(seen, refused);
        QCOMPARE(window.statusLabel->text(), refused);
        QCOMPARE(window.scene().layers.size(), before);
    }
    QCOMPARE(window.scenes[0][0].layers.back().kind, Layer::Kind::Subtitle);
    QCOMPARE(window.scenes[0][1].layers.back().kind, Layer::Kind::Subtitle);
}

void tst_SceneTab::fullListsRefuseMore_data()
{
    QTest::addColumn<QString>("control");
    QTest::addColumn<bool>("menuEntry");
    QTest::addColumn<QString>("refused");
    const QString layers = QStringLiteral("Esta escena ya tiene el máximo de capas.");
    const QString scenes = QStringLiteral("Esta lista ya tiene el máximo de escenas.");
    QTest::newRow("text layer") << QStringLiteral("Texto") << true << layers;
    QTest::newRow("screen capture, before any pipeline") << QStringLiteral("Captura de pantalla") << true << layers;
    QTest::newRow("new scene") << QStringLiteral("+ Escena") << false << scenes;
    QTest::newRow("duplicate") << QStringLiteral("Duplicar") << false << scenes;
}

// A scene and a list at their bounds take nothing more, and say why.
void tst_SceneTab::fullListsRefuseMore()
{
    QFETCH(QString, control);
    QFETCH(bool, menuEntry);
    QFETCH(QString, refused);
    StudioWindow window(false);
    window.scene().layers.resize(maxLayersPerScene);
    window.scenes[0].resize(maxScenesPerList, window.scenes[0].front());
    window.refreshSceneList();
    QString seen;
    answerBox(QMessageBox::Ok, &seen);
    if (menuEntry)
        sourceEntry(window, control)->trigger();
    else
        buttonNamed(window, control)->click();
    QCOMPARE(seen, refused);
    QCOMPARE(window.statusLabel->text(), refused);
    QCOMPARE(window.scenes[0].size(), maxScenesPerList);
    QCOMPARE(window.scene().layers.size(), maxLayersPerScene);
}

void tst_SceneTab::sourceListShowsTheFrontOnTop()
{
    StudioWindow window(false);
    Layer hidden = named(QStringLiteral("B"));
    hidden.visible = false;
    window.scene().layers = {named(QStringLiteral("A")), hidden, named(QStringLiteral("C"))};
    window.canvas->select(0);
    showWindow(window);
    QListWidget* list = window.layerList;
    QCOMPARE(rows(list), (QStringList{QStringLiteral("C"), QStringLiteral("B"), QStringLiteral("A")}));
    QCOMPARE(list->item(1)->checkState(), Qt::Unchecked);
    QCOMPARE(list->item(2)->checkState(), Qt::Checked);
    QCOMPARE(list->currentRow(), 2);
    // Check marks write `visible`; a click on a row selects its layer on the canvas.
    list->item(0)->setCheckState(Qt::Unchecked);
    list->item(1)->setCheckState(Qt::Checked);
    QVERIFY(!window.scene().layers[2].visible);
    QVERIFY(window.scene().layers[1].visible);
    clickRow(list, 1);
    QCOMPARE(window.canvas->selected, 1);
}

void tst_SceneTab::upDownAndRemove()
{
    StudioWindow window(false);
    window.scene().layers = {named(QStringLiteral("A")), named(QStringLiteral("B")),
                             named(QStringLiteral("C"), Layer::Kind::Video)};
    const std::weak_ptr<Media> source = window.scene().layers[2].media;
    // Each press, from nothing selected on: the order back to front, and the selection after it.
    const QStringList presses{"▲", "▼", "Eliminar", "select 2", "▲", "▼", "▼", "▼", "▲", "Eliminar"};
    const QStringList after{"ABC -1", "ABC -1", "ABC -1", "ABC 2", "ABC 2",
                            "ACB 1",  "CAB 0",  "CAB 0",  "ACB 1", "AB -1"};
    window.canvas->select(-1);
    for (int i = 0; i < presses.size(); ++i) {
        if (presses[i].startsWith(QLatin1String("select")))
            window.canvas->select(presses[i].back().digitValue());
        else
            buttonNamed(window, presses[i])->click();
        QString state;
        for (const Layer& each : window.scene().layers)
            state += each.name;
        QCOMPARE(state + u' ' + QString::number(window.canvas->selected), after[i]);
        if (window.canvas->selected >= 0) // the list follows, front on top
            QCOMPARE(window.layerList->currentItem()->text(), window.selectedLayer()->name);
    }
    QCOMPARE(rows(window.layerList), (QStringList{QStringLiteral("B"), QStringLiteral("A")}));
    QTRY_VERIFY(source.expired()); // the removed video's pipeline was let go
}

void tst_SceneTab::imageBoxFollowsThePicture_data()
{
    QTest::addColumn<QSize>("picture");
    QTest::addColumn<bool>("vertical");
    QTest::addColumn<int>("bus");
    QTest::addColumn<QSizeF>("box");
    // h = 0.4 × W / (a × H), at most 0.9, and then w = a × 0.9 × H / W.
    QTest::newRow("8x1 in 1920x1080") << QSize(8, 1) << false << 0 << QSizeF(0.4, 0.0888889);
    QTest::newRow("1x8 in 1920x1080") << QSize(1, 8) << false << 0 << QSizeF(0.0632813, 0.9);
    QTest::newRow("16x9 in 1920x1080") << QSize(32, 18) << false << 0 << QSizeF(0.4, 0.4);
    QTest::newRow("8x1 in 1080x1920") << QSize(8, 1) << true << 0 << QSizeF(0.4, 0.028125);
    QTest::newRow("1x8 in 1080x1920") << QSize(1, 8) << true << 0 << QSizeF(0.2, 0.9);
    // The hall keeps 1920 x 1080 whatever the stream's format.
    QTest::newRow("1x8 on the hall, stream vertical") << QSize(1, 8) << true << 1 << QSizeF(0.0632813, 0.9);
}

void tst_SceneTab::imageBoxFollowsThePicture()
{
    QFETCH(QSize, picture);
    QFETCH(bool, vertical);
    QFETCH(int, bus);
    QFETCH(QSizeF, box);
    StudioWindow window(false);
    window.formatCombo->setCurrentIndex(vertical ? 1 : 0);
    window.busChosen(bus);
    QImage image(picture, QImage::Format_RGB32);
    image.fill(QColor(30, 90, 150));
    const QString name = QStringLiteral("picture-%1x%2.png").arg(picture.width()).arg(picture.height());
    const QString path = writeImage(name, image);
    window.addImageLayer(path);
    const Layer& made = window.scene().layers.back();
    QCOMPARE(made.kind, Layer::Kind::Image);
    QCOMPARE(made.path, path);
    QCOMPARE(made.name, name);
    QCOMPARE(QSize(made.image->width, made.image->height), picture);
    QCOMPARE(made.rect.topLeft(), QPointF(0.55, 0.05));
    QVERIFY2(qAbs(made.rect.width() - box.width()) < 1e-6 && qAbs(made.rect.height() - box.height()) < 1e-6,
             qPrintable(QString::asprintf("%.9g x %.9g", made.rect.width(), made.rect.height())));
}

void tst_SceneTab::refusedImages_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QSize>("size");
    QTest::newRow("8193 wide") << QStringLiteral("wide.png") << QSize(8193, 10);
    QTest::newRow("8193 tall") << QStringLiteral("tall.png") << QSize(10, 8193);
    QTest::newRow("not a picture") << QStringLiteral("notes.png") << QSize();
    QTest::newRow("missing") << QStringLiteral("missing.png") << QSize();
}

void tst_SceneTab::refusedImages()
{
    QFETCH(QString, file);
    QFETCH(QSize, size);
    const QString path = folder + u'/' + file;
    QFile::remove(path);
    QImage big(size, QImage::Format_RGB32);
    big.fill(Qt::white);
    if (size.isValid())
        writeImage(file, big);
    else if (QFile notes(path); file == QLatin1String("notes.png"))
        QVERIFY(notes.open(QIODevice::WriteOnly) && notes.write("Juan 3:16\n") > 0);
    StudioWindow window(false);
    try {
        window.addImageLayer(path);
        QFAIL("added");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QByteArray(error.what()), QByteArray("Imagen inválida o demasiado grande"));
    }
    QCOMPARE(window.scene().layers.size(), 1u);
}

// The largest picture taken, in RGBA order with its alpha straight, not premultiplied.
void tst_SceneTab::decodedImageKeepsStraightAlpha()
{
    QImage image(8192, 2, QImage::Format_ARGB32);
    image.fill(QColor(0, 0, 255));
    image.setPixelColor(0, 0, QColor(200, 100, 50, 128));
    image.setPixelColor(8191, 1, QColor(10, 20, 30));
    StudioWindow window(false);
    const auto frame = window.decodeImage(writeImage(QStringLiteral("edge.png"), image));
    QCOMPARE(QSize(frame->width, frame->height), QSize(8192, 2));
    QCOMPARE(frame->pixels.size(), std::size_t(8192) * 2 * 4);
    const auto pixel = [&](int x, int y) {
        const std::uint8_t* p = frame->pixels.data() + (std::size_t(y) * 8192 + std::size_t(x)) * 4;
        return QColor(p[0], p[1], p[2], p[3]);
    };
    QCOMPARE(pixel(0, 0), QColor(200, 100, 50, 128));
    QCOMPARE(pixel(1, 0), QColor(0, 0, 255));
    QCOMPARE(pixel(8191, 1), QColor(10, 20, 30));
}

// A double click on a box selects it and brings the tab forward without moving it; a drag moves it
// and the panel's position boxes follow in place, without a new form.
void tst_SceneTab::canvasGesturesReachTheTabAndThePanel()
{
    StudioWindow window(false);
    window.scene().layers.push_back(named(QStringLiteral("Caja")));
    window.canvas->select(-1);
    showWindow(window);
    window.tabs->setCurrentIndex(0);
    Canvas* canvas = window.canvas;
    // The picture: 16:9 fitted and centred in the canvas.
    const QSizeF fitted = QSizeF(16, 9).scaled(QSizeF(canvas->size()), Qt::KeepAspectRatio);
    const QPointF origin((canvas->width() - fitted.width()) / 2, (canvas->height() - fitted.height()) / 2);
    const QPoint press = (origin + QPointF(0.35 * fitted.width(), 0.35 * fitted.height())).toPoint();
    QTest::mouseDClick(canvas, Qt::LeftButton, {}, press);
    QCOMPARE(canvas->selected, 1);
    QCOMPARE(window.tabs->currentIndex(), 1);
    QCOMPARE(window.layerList->currentItem()->text(), QStringLiteral("Caja"));
    QCOMPARE(window.scene().layers[1].rect, QRectF(0.2, 0.2, 0.3, 0.3));

    std::array<QPointer<QDoubleSpinBox>, 4> spins;
    for (std::size_t i = 0; i < 4; ++i)
        spins[i] = window.propertyPanel->findChild<QDoubleSpinBox*>(QString(QLatin1Char("XYWH"[i])));
    const QPoint step(int(fitted.width() * 0.05), int(fitted.height() * 0.1));
    QTest::mousePress(canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(canvas, press + step / 2);
    QTest::mouseMove(canvas, press + step);
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, press + step);
    const QRectF moved = window.scene().layers[1].rect;
    const QPointF expected(0.2 + step.x() / fitted.width(), 0.2 + step.y() / fitted.height());
    QVERIFY2((moved.topLeft() - expected).manhattanLength() < 1e-6, qPrintable(QString::number(moved.x())));
    QCOMPARE(moved.size(), QSizeF(0.3, 0.3));

    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // a rebuilt form would be gone now
    const std::array<double, 4> values{moved.x(), moved.y(), moved.width(), moved.height()};
    for (std::size_t i = 0; i < 4; ++i) {
        QVERIFY(spins[i]);
        QVERIFY(qAbs(spins[i]->value() - values[i] * 100.0) <= 0.05 + 1e-9);
    }
    QCOMPARE(window.scene().layers[1].rect, moved); // writing the boxes did not echo back
}

QTEST_MAIN(tst_SceneTab)
#include "tst_scenetab.moc"
