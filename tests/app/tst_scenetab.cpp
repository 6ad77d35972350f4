#include "Canvas.h"
#include "Frame.h"
#include "Media.h"
#include "PropertyPanel.h"
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
#include <QTest>
#include <QTimer>

#include <functional>
#include <stdexcept>

Q_DECLARE_METATYPE(Layer::Kind)

// The tab "Escena y fuentes" on a real window: its scene and source buttons, the "+ Fuente" menu,
// the source list and the canvas gestures that reach the panels.
class tst_SceneTab : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void newSceneOnTheEditedBus_data();
    void newSceneOnTheEditedBus();
    void newSceneWithoutANameDoesNothing_data();
    void newSceneWithoutANameDoesNothing();
    void renameReplacesTheName();
    void choosingASceneInTheList();
    void duplicateGoesRightAfterAndShares();
    void lastSceneCannotBeDeleted();
    void deleteAsksFirst_data();
    void deleteAsksFirst();
    void sourceMenuEntries_data();
    void sourceMenuEntries();
    void oneSubtitleSourcePerScene();
    void addLayerKeepsANameAndTheBox();
    void sourceListShowsTheFrontOnTop();
    void upAndDownCarryTheSelection();
    void removeTakesTheLayerAway();
    void imageBoxFollowsThePicture_data();
    void imageBoxFollowsThePicture();
    void refusedImages_data();
    void refusedImages();
    void decodedImageKeepsStraightAlpha();
    void draggingUpdatesThePanelInPlace();
    void doubleClickSelectsAndShowsTheTab();

private:
    // Runs `answer` on the next modal dialog of type D, from inside its own event loop.
    template <class D> void whenModal(std::function<void(D*)> answer);
    static QPushButton* buttonNamed(StudioWindow& window, const QString& text);
    static QAction* sourceEntry(StudioWindow& window, const QString& text);
    static QStringList rows(const QListWidget* list);
    static Layer named(const QString& name, Layer::Kind kind = Layer::Kind::Color);
    static void showWindow(StudioWindow& window);
    QString writeImage(const QString& name, const QImage& image);

    QString folder;
    QList<QPointer<QTimer>> watchers;
};

void tst_SceneTab::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
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

template <class D> void tst_SceneTab::whenModal(std::function<void(D*)> answer)
{
    auto* watch = new QTimer(this);
    watchers << watch;
    connect(watch, &QTimer::timeout, this, [watch, answer] {
        if (auto* dialog = qobject_cast<D*>(QApplication::activeModalWidget())) {
            watch->stop();
            watch->deleteLater();
            answer(dialog);
        }
    });
    watch->start(5);
}

QPushButton* tst_SceneTab::buttonNamed(StudioWindow& window, const QString& text)
{
    QPushButton* found = nullptr;
    for (QPushButton* each : window.findChildren<QPushButton*>()) {
        if (each->text() == text) {
            if (found)
                qFatal("two buttons \"%s\"", qPrintable(text));
            found = each;
        }
    }
    if (!found)
        qFatal("no button \"%s\"", qPrintable(text));
    return found;
}

QAction* tst_SceneTab::sourceEntry(StudioWindow& window, const QString& text)
{
    const QMenu* menu = buttonNamed(window, QStringLiteral("+ Fuente"))->menu();
    if (!menu)
        qFatal("\"+ Fuente\" has no menu");
    for (QAction* each : menu->actions())
        if (each->text() == text)
            return each;
    qFatal("no entry \"%s\"", qPrintable(text));
    return nullptr;
}

QStringList tst_SceneTab::rows(const QListWidget* list)
{
    QStringList texts;
    for (int row = 0; row < list->count(); ++row)
        texts << list->item(row)->text();
    return texts;
}

Layer tst_SceneTab::named(const QString& name, Layer::Kind kind)
{
    Layer layer;
    layer.kind = kind;
    layer.name = name;
    layer.rect = QRectF(0.1, 0.1, 0.3, 0.3);
    return layer;
}

void tst_SceneTab::showWindow(StudioWindow& window)
{
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    window.tabs->setCurrentIndex(1);
}

QString tst_SceneTab::writeImage(const QString& name, const QImage& image)
{
    const QString path = folder + u'/' + name;
    if (!image.save(path, "PNG"))
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

void tst_SceneTab::newSceneOnTheEditedBus_data()
{
    QTest::addColumn<int>("bus");
    QTest::newRow("Redes") << 0;
    QTest::newRow("Pantallas de sala") << 1;
}

void tst_SceneTab::newSceneOnTheEditedBus()
{
    QFETCH(int, bus);
    StudioWindow window(false);
    window.busChosen(bus);
    QString title, label, suggested;
    whenModal<QInputDialog>([&](QInputDialog* dialog) {
        title = dialog->windowTitle();
        label = dialog->labelText();
        suggested = dialog->textValue();
        dialog->setTextValue(QStringLiteral("Culto de noche"));
        dialog->accept();
    });
    buttonNamed(window, QStringLiteral("+ Escena"))->click();

    QCOMPARE(title, QStringLiteral("Nueva escena"));
    QCOMPARE(label, QStringLiteral("Nombre"));
    QCOMPARE(suggested, QStringLiteral("Escena 2"));
    QCOMPARE(window.scenes[bus].size(), 2u);
    QCOMPARE(window.scenes[1 - bus].size(), 1u);
    QCOMPARE(window.current[bus], 1);
    const SceneDef& made = window.scenes[bus].back();
    QCOMPARE(made.name, QStringLiteral("Culto de noche"));
    const SceneDef expected = window.defaultScene(bus);
    QCOMPARE(made.layers.size(), expected.layers.size());
    for (std::size_t i = 0; i < made.layers.size(); ++i)
        QCOMPARE(made.layers[i].kind, expected.layers[i].kind);
    QCOMPARE(rows(window.sceneList), (QStringList{QStringLiteral("Escena 1"), QStringLiteral("Culto de noche")}));
    QCOMPARE(window.sceneList->currentRow(), 1);
    QCOMPARE(window.sceneCombo->currentText(), QStringLiteral("Culto de noche"));
    QCOMPARE(window.canvas->scene, &window.scenes[bus][1]);
}

void tst_SceneTab::newSceneWithoutANameDoesNothing_data()
{
    QTest::addColumn<bool>("accepted");
    QTest::newRow("empty name") << true;
    QTest::newRow("cancelled") << false;
}

void tst_SceneTab::newSceneWithoutANameDoesNothing()
{
    QFETCH(bool, accepted);
    StudioWindow window(false);
    whenModal<QInputDialog>([accepted](QInputDialog* dialog) {
        dialog->setTextValue(QString());
        if (accepted)
            dialog->accept();
        else
            dialog->reject();
    });
    buttonNamed(window, QStringLiteral("+ Escena"))->click();
    QCOMPARE(window.scenes[0].size(), 1u);
    QCOMPARE(window.current[0], 0);
    QCOMPARE(rows(window.sceneList), QStringList{QStringLiteral("Escena 1")});
}

void tst_SceneTab::renameReplacesTheName()
{
    StudioWindow window(false);
    window.scenes[0].push_back(SceneDef{QStringLiteral("Alabanza"), {}});
    window.current[0] = 1;
    window.refreshSceneList();
    QString suggested;
    whenModal<QInputDialog>([&](QInputDialog* dialog) {
        suggested = dialog->textValue();
        dialog->setTextValue(QStringLiteral("Bautismo"));
        dialog->accept();
    });
    buttonNamed(window, QStringLiteral("Renombrar"))->click();
    QCOMPARE(suggested, QStringLiteral("Alabanza"));
    QCOMPARE(rows(window.sceneList), (QStringList{QStringLiteral("Escena 1"), QStringLiteral("Bautismo")}));
    QCOMPARE(window.sceneList->currentRow(), 1);
    QCOMPARE(window.sceneCombo->itemText(1), QStringLiteral("Bautismo"));
}

void tst_SceneTab::choosingASceneInTheList()
{
    StudioWindow window(false);
    window.scenes[0].push_back(SceneDef{QStringLiteral("Alabanza"), {named(QStringLiteral("Fondo"))}});
    window.refreshSceneList();
    showWindow(window);
    QListWidgetItem* second = window.sceneList->item(1);
    QTest::mouseClick(window.sceneList->viewport(), Qt::LeftButton, {},
                      window.sceneList->visualItemRect(second).center());
    QCOMPARE(window.current[0], 1);
    QCOMPARE(window.sceneCombo->currentIndex(), 1);
    QCOMPARE(window.canvas->scene, &window.scenes[0][1]);
    QCOMPARE(rows(window.layerList), QStringList{QStringLiteral("Fondo")});
}

void tst_SceneTab::duplicateGoesRightAfterAndShares()
{
    StudioWindow window(false);
    SceneDef first{QStringLiteral("Bienvenida"), {}};
    Layer picture = named(QStringLiteral("Logo"), Layer::Kind::Image);
    picture.image = std::make_shared<tavrin::Frame>(4, 2);
    Layer video = named(QStringLiteral("Clip"), Layer::Kind::Video);
    video.media = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    first.layers = {picture, video};
    window.scenes[0] = {first, SceneDef{QStringLiteral("Sermón"), {}}};
    window.current[0] = 0;
    window.refreshSceneList();

    buttonNamed(window, QStringLiteral("Duplicar"))->click();
    QCOMPARE(rows(window.sceneList), (QStringList{QStringLiteral("Bienvenida"), QStringLiteral("Bienvenida copia"),
                                                 QStringLiteral("Sermón")}));
    QCOMPARE(window.current[0], 1);
    QCOMPARE(window.sceneList->currentRow(), 1);
    const SceneDef& original = window.scenes[0][0];
    const SceneDef& copy = window.scenes[0][1];
    QCOMPARE(copy.layers.size(), 2u);
    QVERIFY(copy.layers[0].image);
    QCOMPARE(copy.layers[0].image.get(), original.layers[0].image.get());
    QVERIFY(copy.layers[1].media);
    QCOMPARE(copy.layers[1].media.get(), original.layers[1].media.get());
}

void tst_SceneTab::lastSceneCannotBeDeleted()
{
    StudioWindow window(false);
    QString title, text;
    whenModal<QMessageBox>([&](QMessageBox* box) {
        title = box->windowTitle();
        text = box->text();
        box->accept();
    });
    buttonNamed(window, QStringLiteral("Eliminar escena"))->click();
    QCOMPARE(title, QStringLiteral("Velmora"));
    QCOMPARE(text, QStringLiteral("Debe quedar al menos una escena"));
    QCOMPARE(window.statusLabel->text(), QStringLiteral("Debe quedar al menos una escena"));
    QCOMPARE(window.scenes[0].size(), 1u);
    QCOMPARE(rows(window.sceneList), QStringList{QStringLiteral("Escena 1")});
}

void tst_SceneTab::deleteAsksFirst_data()
{
    QTest::addColumn<bool>("confirm");
    QTest::newRow("yes") << true;
    QTest::newRow("no") << false;
}

void tst_SceneTab::deleteAsksFirst()
{
    QFETCH(bool, confirm);
    StudioWindow window(false);
    Layer video = named(QStringLiteral("Clip"), Layer::Kind::Video);
    video.media = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    const std::weak_ptr<Media> source = video.media;
    window.scenes[0] = {SceneDef{QStringLiteral("Anuncios"), {}}, SceneDef{QStringLiteral("Ofrenda"), {video}}};
    video = {};
    window.current[0] = 1;
    window.refreshSceneList();

    QString title, text;
    whenModal<QMessageBox>([&](QMessageBox* box) {
        title = box->windowTitle();
        text = box->text();
        box->button(confirm ? QMessageBox::Yes : QMessageBox::No)->click();
    });
    buttonNamed(window, QStringLiteral("Eliminar escena"))->click();
    QCOMPARE(title, QStringLiteral("Eliminar escena"));
    QVERIFY2(text.startsWith(QStringLiteral("¿Eliminar la escena")) && text.contains(QStringLiteral("Ofrenda")),
             qPrintable(text));
    if (!confirm) {
        QCOMPARE(window.scenes[0].size(), 2u);
        QVERIFY(!source.expired());
        return;
    }
    QCOMPARE(rows(window.sceneList), QStringList{QStringLiteral("Anuncios")});
    QCOMPARE(window.current[0], 0);
    QCOMPARE(window.sceneList->currentRow(), 0);
    QCOMPARE(window.canvas->scene, &window.scenes[0][0]);
    QTRY_VERIFY(source.expired()); // the pipeline was let go on a worker
}

void tst_SceneTab::sourceMenuEntries_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<Layer::Kind>("kind");
    QTest::addColumn<QRectF>("box");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("size");
    const QRectF full(0, 0, 1, 1);
    QTest::newRow("camera") << QStringLiteral("Cámara / capturadora") << Layer::Kind::Camera << full << QString() << 56;
    QTest::newRow("screen") << QStringLiteral("Captura de pantalla") << Layer::Kind::Screen << full << QString() << 56;
    QTest::newRow("colour") << QStringLiteral("Color sólido") << Layer::Kind::Color << full << QString() << 56;
    QTest::newRow("text") << QStringLiteral("Texto") << Layer::Kind::Text << QRectF(0.08, 0.72, 0.84, 0.2)
                          << QStringLiteral("Texto nuevo") << 56;
    QTest::newRow("verse") << QStringLiteral("Versículo bíblico") << Layer::Kind::Verse
                           << QRectF(0.08, 0.62, 0.84, 0.3)
                           << QStringLiteral("Escribe la cita en Propiedades, p. ej. Juan 3:16") << 48;
    QTest::newRow("subtitles") << QStringLiteral("Subtítulos (IA): posición y estilo") << Layer::Kind::Subtitle
                               << QRectF(0.04, 0.78, 0.92, 0.16) << QString() << 56;
}

void tst_SceneTab::sourceMenuEntries()
{
    QFETCH(QString, entry);
    QFETCH(Layer::Kind, kind);
    QFETCH(QRectF, box);
    QFETCH(QString, text);
    QFETCH(int, size);
    StudioWindow window(false);
    QCOMPARE(window.scene().layers.size(), 1u);
    QString refusal;
    whenModal<QMessageBox>([&](QMessageBox* box) {
        refusal = box->text();
        box->accept();
    });
    sourceEntry(window, entry)->trigger();
    if (kind == Layer::Kind::Screen && refusal == QLatin1String("No se pudo iniciar fuente"))
        QSKIP("screen capture needs a display to grab");
    QVERIFY2(refusal.isEmpty(), qPrintable(refusal));

    const auto& layers = window.scene().layers;
    QCOMPARE(layers.size(), 2u);
    const Layer& made = layers.back();
    QCOMPARE(made.kind, kind);
    QCOMPARE(made.rect, box);
    QCOMPARE(made.text, text);
    QCOMPARE(made.size, size);
    QCOMPARE(made.name, Layer::label(kind) + QStringLiteral(" 2"));
    // The new layer is selected, on top of the list and in the panel.
    QCOMPARE(window.canvas->selected, 1);
    QCOMPARE(window.layerList->currentRow(), 0);
    QCOMPARE(window.layerList->item(0)->text(), made.name);
    QVERIFY(window.propertyPanel->findChild<QDoubleSpinBox*>(QStringLiteral("X")));
    if (kind == Layer::Kind::Screen) {
        QVERIFY(made.media);
        QCOMPARE(window.statusLabel->text(),
                 QStringLiteral("Captura de pantalla añadida. macOS puede pedir permiso de Grabación de pantalla."));
    }
}

void tst_SceneTab::oneSubtitleSourcePerScene()
{
    StudioWindow window(false);
    const QString entry = QStringLiteral("Subtítulos (IA): posición y estilo");
    const QString refused = QStringLiteral("Esta escena ya tiene una fuente de subtítulos.");
    QStringList boxes;
    const auto answerBoxes = [&] {
        whenModal<QMessageBox>([&](QMessageBox* box) {
            boxes << box->text();
            box->accept();
        });
    };
    sourceEntry(window, entry)->trigger();
    QCOMPARE(window.scene().layers.size(), 2u);

    answerBoxes();
    sourceEntry(window, entry)->trigger();
    QCOMPARE(boxes, QStringList{refused});
    QCOMPARE(window.statusLabel->text(), refused);
    QCOMPARE(window.scene().layers.size(), 2u);

    // Another scene of the same bus can have its own.
    window.scenes[0].push_back(window.defaultScene(0));
    window.current[0] = 1;
    window.refreshSceneList();
    sourceEntry(window, entry)->trigger();
    QCOMPARE(window.scene().layers.size(), 2u);
    QCOMPARE(window.scene().layers.back().kind, Layer::Kind::Subtitle);
    QCOMPARE(boxes.size(), 1);

    // The hall's default scene already has one.
    window.busChosen(1);
    answerBoxes();
    sourceEntry(window, entry)->trigger();
    QCOMPARE(boxes, (QStringList{refused, refused}));
    QCOMPARE(window.scene().layers.size(), window.defaultScene(1).layers.size());
}

void tst_SceneTab::addLayerKeepsANameAndTheBox()
{
    StudioWindow window(false);
    Layer logo = named(QStringLiteral("Logo"));
    logo.rect = QRectF(0.7, 0.02, 0.25, 0.1);
    window.addLayer(logo);
    Layer plain;
    plain.kind = Layer::Kind::Text;
    plain.rect = QRectF(0.3, 0.3, 0.2, 0.2);
    window.addLayer(plain);
    const auto& layers = window.scene().layers;
    QCOMPARE(layers.size(), 3u);
    QCOMPARE(layers[1].name, QStringLiteral("Logo"));
    QCOMPARE(layers[1].rect, QRectF(0.7, 0.02, 0.25, 0.1));
    QCOMPARE(layers[2].name, QStringLiteral("Texto 3"));
    QCOMPARE(layers[2].rect, QRectF(0.3, 0.3, 0.2, 0.2));
    QCOMPARE(window.canvas->selected, 2);
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
    for (int row = 0; row < 3; ++row) {
        const QListWidgetItem* item = list->item(row);
        QCOMPARE(item->data(Qt::UserRole).toInt(), 2 - row);
        QVERIFY(item->flags() & Qt::ItemIsUserCheckable);
        QCOMPARE(item->checkState(), row == 1 ? Qt::Unchecked : Qt::Checked);
        QCOMPARE(item->toolTip(), QStringLiteral("Marca para mostrar, desmarca para ocultar"));
    }
    QCOMPARE(list->currentRow(), 2);

    // Check marks write `visible`.
    list->item(0)->setCheckState(Qt::Unchecked);
    list->item(1)->setCheckState(Qt::Checked);
    QVERIFY(!window.scene().layers[2].visible);
    QVERIFY(window.scene().layers[1].visible);

    // A click on a row selects its layer on the canvas.
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(1)).center());
    QCOMPARE(window.canvas->selected, 1);
    QCOMPARE(list->currentItem()->text(), QStringLiteral("B"));
    QCOMPARE(rows(list), (QStringList{QStringLiteral("C"), QStringLiteral("B"), QStringLiteral("A")}));
}

void tst_SceneTab::upAndDownCarryTheSelection()
{
    StudioWindow window(false);
    window.scene().layers = {named(QStringLiteral("A")), named(QStringLiteral("B")), named(QStringLiteral("C"))};
    QPushButton* up = buttonNamed(window, QStringLiteral("▲"));
    QPushButton* down = buttonNamed(window, QStringLiteral("▼"));
    const auto order = [&] {
        QString names;
        for (const Layer& each : window.scene().layers)
            names += each.name;
        return names;
    };

    window.canvas->select(-1);
    up->click();
    down->click();
    QCOMPARE(order(), QStringLiteral("ABC"));

    window.canvas->select(2);
    up->click(); // already in front
    QCOMPARE(order(), QStringLiteral("ABC"));
    QCOMPARE(window.canvas->selected, 2);

    down->click();
    QCOMPARE(order(), QStringLiteral("ACB"));
    QCOMPARE(window.canvas->selected, 1);
    QCOMPARE(rows(window.layerList), (QStringList{QStringLiteral("B"), QStringLiteral("C"), QStringLiteral("A")}));
    QCOMPARE(window.layerList->currentItem()->text(), QStringLiteral("C"));

    down->click();
    down->click(); // already at the back
    QCOMPARE(order(), QStringLiteral("CAB"));
    QCOMPARE(window.canvas->selected, 0);

    up->click();
    QCOMPARE(order(), QStringLiteral("ACB"));
    QCOMPARE(window.canvas->selected, 1);
    QCOMPARE(window.layerList->currentItem()->text(), QStringLiteral("C"));
}

void tst_SceneTab::removeTakesTheLayerAway()
{
    StudioWindow window(false);
    Layer video = named(QStringLiteral("Clip"), Layer::Kind::Video);
    video.media = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    const std::weak_ptr<Media> source = video.media;
    window.scene().layers = {video, named(QStringLiteral("Fondo"))};
    video = {};
    QPushButton* remove = buttonNamed(window, QStringLiteral("Eliminar"));

    window.canvas->select(-1);
    remove->click();
    QCOMPARE(window.scene().layers.size(), 2u);

    window.canvas->select(0);
    remove->click();
    QCOMPARE(window.scene().layers.size(), 1u);
    QCOMPARE(window.scene().layers[0].name, QStringLiteral("Fondo"));
    QCOMPARE(window.canvas->selected, -1);
    QCOMPARE(rows(window.layerList), QStringList{QStringLiteral("Fondo")});
    QTRY_VERIFY(source.expired());
}

void tst_SceneTab::imageBoxFollowsThePicture_data()
{
    QTest::addColumn<QSize>("picture");
    QTest::addColumn<bool>("vertical");
    QTest::addColumn<int>("bus");
    QTest::addColumn<QRectF>("box");
    // h = 0.4 × W / (a × H), at most 0.9, and then w = a × 0.9 × H / W.
    QTest::newRow("8x1 in 1920x1080") << QSize(8, 1) << false << 0 << QRectF(0.55, 0.05, 0.4, 0.0888889);
    QTest::newRow("1x8 in 1920x1080") << QSize(1, 8) << false << 0 << QRectF(0.55, 0.05, 0.0632813, 0.9);
    QTest::newRow("16x9 in 1920x1080") << QSize(32, 18) << false << 0 << QRectF(0.55, 0.05, 0.4, 0.4);
    QTest::newRow("8x1 in 1080x1920") << QSize(8, 1) << true << 0 << QRectF(0.55, 0.05, 0.4, 0.028125);
    QTest::newRow("1x8 in 1080x1920") << QSize(1, 8) << true << 0 << QRectF(0.55, 0.05, 0.2, 0.9);
    // The hall keeps 1920 x 1080 whatever the stream's format.
    QTest::newRow("1x8 on the hall, stream vertical") << QSize(1, 8) << true << 1
                                                      << QRectF(0.55, 0.05, 0.0632813, 0.9);
}

void tst_SceneTab::imageBoxFollowsThePicture()
{
    QFETCH(QSize, picture);
    QFETCH(bool, vertical);
    QFETCH(int, bus);
    QFETCH(QRectF, box);
    StudioWindow window(false);
    if (vertical)
        window.formatCombo->setCurrentIndex(1);
    window.busChosen(bus);
    QImage image(picture, QImage::Format_RGB32);
    image.fill(QColor(30, 90, 150));
    const QString name = QStringLiteral("picture-%1x%2.png").arg(picture.width()).arg(picture.height());
    const QString path = writeImage(name, image);
    const std::size_t before = window.scene().layers.size();

    window.addImageLayer(path);
    const auto& layers = window.scene().layers;
    QCOMPARE(layers.size(), before + 1);
    const Layer& made = layers.back();
    QCOMPARE(made.kind, Layer::Kind::Image);
    QCOMPARE(made.path, path);
    QCOMPARE(made.name, name);
    QVERIFY(made.image);
    QCOMPARE(QSize(made.image->width, made.image->height), picture);
    QCOMPARE(made.rect.x(), box.x());
    QCOMPARE(made.rect.y(), box.y());
    QVERIFY2(qAbs(made.rect.width() - box.width()) < 1e-6, qPrintable(QString::number(made.rect.width(), 'g', 9)));
    QVERIFY2(qAbs(made.rect.height() - box.height()) < 1e-6, qPrintable(QString::number(made.rect.height(), 'g', 9)));
    QCOMPARE(window.canvas->selected, int(layers.size()) - 1);
}

void tst_SceneTab::refusedImages_data()
{
    QTest::addColumn<QString>("file");
    QTest::newRow("8193 wide") << QStringLiteral("wide.png");
    QTest::newRow("8193 tall") << QStringLiteral("tall.png");
    QTest::newRow("not a picture") << QStringLiteral("notes.png");
    QTest::newRow("missing") << QStringLiteral("missing.png");
}

void tst_SceneTab::refusedImages()
{
    QFETCH(QString, file);
    QString path = folder + u'/' + file;
    QFile::remove(path);
    if (file == QLatin1String("wide.png") || file == QLatin1String("tall.png")) {
        QImage big(file == QLatin1String("wide.png") ? QSize(8193, 10) : QSize(10, 8193), QImage::Format_RGB32);
        big.fill(Qt::white);
        path = writeImage(file, big);
    } else if (file == QLatin1String("notes.png")) {
        QFile notes(path);
        QVERIFY(notes.open(QIODevice::WriteOnly));
        notes.write("Juan 3:16\n");
    }
    StudioWindow window(false);
    try {
        window.decodeImage(path);
        QFAIL("decoded");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QByteArray(error.what()), QByteArray("Imagen inválida o demasiado grande"));
    }
    QVERIFY_THROWS_EXCEPTION(std::runtime_error, window.addImageLayer(path));
    QCOMPARE(window.scene().layers.size(), 1u);
}

void tst_SceneTab::decodedImageKeepsStraightAlpha()
{
    QImage image(8192, 2, QImage::Format_ARGB32);
    image.fill(QColor(0, 0, 255));
    image.setPixelColor(0, 0, QColor(200, 100, 50, 128));
    image.setPixelColor(8191, 1, QColor(10, 20, 30));
    const QString path = writeImage(QStringLiteral("edge.png"), image);
    StudioWindow window(false);
    const auto frame = window.decodeImage(path);
    QVERIFY(frame);
    QCOMPARE(frame->width, 8192);
    QCOMPARE(frame->height, 2);
    QCOMPARE(frame->pixels.size(), std::size_t(8192) * 2 * 4);
    const auto pixel = [&](int x, int y) {
        const std::uint8_t* p = frame->pixels.data() + (std::size_t(y) * 8192 + std::size_t(x)) * 4;
        return QColor(p[0], p[1], p[2], p[3]);
    };
    QCOMPARE(pixel(0, 0), QColor(200, 100, 50, 128));
    QCOMPARE(pixel(1, 0), QColor(0, 0, 255));
    QCOMPARE(pixel(8191, 1), QColor(10, 20, 30));
}

void tst_SceneTab::draggingUpdatesThePanelInPlace()
{
    StudioWindow window(false);
    Layer box = named(QStringLiteral("Caja"));
    box.rect = QRectF(0.2, 0.2, 0.3, 0.3);
    window.addLayer(box);
    showWindow(window);
    Canvas* canvas = window.canvas;
    QCOMPARE(canvas->selected, 1);
    std::array<QPointer<QDoubleSpinBox>, 4> spins;
    const std::array<QString, 4> names{QStringLiteral("X"), QStringLiteral("Y"), QStringLiteral("W"),
                                       QStringLiteral("H")};
    for (std::size_t i = 0; i < 4; ++i) {
        spins[i] = window.propertyPanel->findChild<QDoubleSpinBox*>(names[i]);
        QVERIFY(spins[i]);
    }
    QCOMPARE(spins[0]->value(), 20.0);

    // The picture box: 16:9 fitted and centred in the canvas.
    const QSizeF fitted = QSizeF(16, 9).scaled(QSizeF(canvas->size()), Qt::KeepAspectRatio);
    const QPointF origin((canvas->width() - fitted.width()) / 2, (canvas->height() - fitted.height()) / 2);
    const QPoint press = (origin + QPointF(0.35 * fitted.width(), 0.35 * fitted.height())).toPoint();
    const QPoint step(int(fitted.width() * 0.05), int(fitted.height() * 0.1));
    QTest::mousePress(canvas, Qt::LeftButton, {}, press);
    QTest::mouseMove(canvas, press + step / 2);
    QTest::mouseMove(canvas, press + step);
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, press + step);

    const QRectF moved = window.scene().layers[1].rect;
    QVERIFY2(qAbs(moved.x() - (0.2 + step.x() / fitted.width())) < 1e-6, qPrintable(QString::number(moved.x())));
    QVERIFY2(qAbs(moved.y() - (0.2 + step.y() / fitted.height())) < 1e-6, qPrintable(QString::number(moved.y())));
    QCOMPARE(moved.size(), QSizeF(0.3, 0.3));

    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // a rebuilt form would be gone now
    const std::array<double, 4> values{moved.x(), moved.y(), moved.width(), moved.height()};
    for (std::size_t i = 0; i < 4; ++i) {
        QVERIFY2(spins[i], qPrintable(names[i]));
        QCOMPARE(window.propertyPanel->findChild<QDoubleSpinBox*>(names[i]), spins[i].data());
        QVERIFY2(qAbs(spins[i]->value() - values[i] * 100.0) <= 0.05 + 1e-9, qPrintable(names[i]));
    }
    QCOMPARE(window.scene().layers[1].rect, moved); // writing the boxes did not echo back
}

void tst_SceneTab::doubleClickSelectsAndShowsTheTab()
{
    StudioWindow window(false);
    Layer box = named(QStringLiteral("Caja"));
    box.rect = QRectF(0.5, 0.5, 0.3, 0.3);
    window.scene().layers.push_back(box);
    window.canvas->select(-1);
    showWindow(window);
    window.tabs->setCurrentIndex(0);

    Canvas* canvas = window.canvas;
    const QSizeF fitted = QSizeF(16, 9).scaled(QSizeF(canvas->size()), Qt::KeepAspectRatio);
    const QPointF origin((canvas->width() - fitted.width()) / 2, (canvas->height() - fitted.height()) / 2);
    const QPoint inside = (origin + QPointF(0.65 * fitted.width(), 0.65 * fitted.height())).toPoint();
    QTest::mouseDClick(canvas, Qt::LeftButton, {}, inside);
    QCOMPARE(canvas->selected, 1);
    QCOMPARE(window.tabs->currentIndex(), 1);
    QCOMPARE(window.layerList->currentItem()->text(), QStringLiteral("Caja"));
    QCOMPARE(window.scene().layers[1].rect, QRectF(0.5, 0.5, 0.3, 0.3)); // a double click moves nothing
}

QTEST_MAIN(tst_SceneTab)
#include "tst_scenetab.moc"
