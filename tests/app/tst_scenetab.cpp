#include "Canvas.h"
#include "Frame.h"
#include "Media.h"
#include "PropertyPanel.h"
#include "SceneLimits.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>
#include <csignal>
#include <functional>
#include <sys/prctl.h>

namespace {

QPushButton* buttonNamed(StudioWindow& window, const QString& text)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each;
    qFatal("no button \"%s\"", qPrintable(text));
}

// Triggers the "+ Fuente" menu entry `text`.
void addSource(StudioWindow& window, const QString& text)
{
    for (QAction* each : buttonNamed(window, QStringLiteral("+ Fuente"))->menu()->actions())
        if (each->text() == text)
            return each->trigger();
    qFatal("no entry \"%s\"", qPrintable(text));
}

QStringList rows(const QListWidget* list)
{
    QStringList texts;
    for (int row = 0; row < list->count(); ++row)
        texts << list->item(row)->text();
    return texts;
}

// A layer; a video one has a source of its own, to see when the scene lets it go.
Layer named(const QString& name, Layer::Kind kind = Layer::Kind::Color)
{
    Layer layer;
    layer.kind = kind;
    layer.name = name;
    layer.rect = QRectF(0.2, 0.2, 0.3, 0.3);
    if (kind == Layer::Kind::Video)
        layer.media = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    return layer;
}

void clickRow(QListWidget* list, int row)
{
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(row)).center());
}

} // namespace

// The tab "Escena y fuentes" on a real window: scene buttons, "+ Fuente", the source list, canvas gestures.
class tst_SceneTab : public QObject
{
    Q_OBJECT
    QString folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QProcess xvfb; // a display of its own for the screen capture
    QPointer<QTimer> watch;

    // Runs `answer` on the next modal dialog of type D, from inside its own event loop.
    template <class D> void whenModal(std::function<void(D*)> answer)
    {
        watch = new QTimer(this);
        connect(watch, &QTimer::timeout, this, [timer = watch.data(), answer] {
            if (auto* dialog = qobject_cast<D*>(QApplication::activeModalWidget())) {
                timer->deleteLater();
                timer->stop();
                answer(dialog);
            }
        });
        watch->start(5);
    }
    // Answers the next message box with `button`, or its only one; returns where its title and text go.
    std::shared_ptr<QStringList> answerBox(QMessageBox::StandardButton button = QMessageBox::Ok)
    {
        auto seen = std::make_shared<QStringList>();
        whenModal<QMessageBox>([=](QMessageBox* box) {
            *seen << box->windowTitle() << box->text();
            (box->button(button) ? box->button(button) : box->buttons().constFirst())->click();
        });
        return seen;
    }
    // Clicks "+ Escena" and answers the name dialog; returns its title, label and suggestion.
    QStringList newScene(StudioWindow& window, const QString& answer, bool accept = true)
    {
        QStringList asked;
        whenModal<QInputDialog>([&](QInputDialog* dialog) {
            asked << dialog->windowTitle() << dialog->labelText() << dialog->textValue();
            dialog->setTextValue(answer);
            accept ? dialog->accept() : dialog->reject();
        });
        buttonNamed(window, QStringLiteral("+ Escena"))->click();
        return asked;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
        QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
        QSettings().setValue(QStringLiteral("onboarding_complete"), true);
        gst_init(nullptr, nullptr);
        QVERIFY(QDir().mkpath(folder));
        xvfb.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); }); // ends with this test, even a crash
        xvfb.start(QStringLiteral("Xvfb"), {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "320x240x24"});
        QVERIFY(xvfb.waitForReadyRead(10000));
        qputenv("DISPLAY", ':' + xvfb.readAllStandardOutput().trimmed());
    }
    void cleanup() { delete watch.data(); } // a dialog that never came must not answer the next test

    // A new scene is its bus's default one; a copy goes after the original and shares its sources.
    void sceneButtons()
    {
        StudioWindow window(false);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        window.tabs->setCurrentIndex(1);
        const QStringList asked = newScene(window, QStringLiteral("Culto"), false);
        QCOMPARE(asked, (QStringList{"Nueva escena", "Nombre", "Escena 2"}));
        newScene(window, QString());
        QCOMPARE(newScene(window, QStringLiteral("Ofrenda")).last(), QStringLiteral("Escena 2"));
        QCOMPARE(rows(window.sceneList), (QStringList{"Escena 1", "Ofrenda"}));
        QCOMPARE(window.sceneList->currentRow(), 1);
        QCOMPARE(window.sceneCombo->currentText(), QStringLiteral("Ofrenda"));
        QCOMPARE(window.canvas->scene, &window.scenes[0][1]);
        for (int bus : {0, 1}) {
            window.busChosen(bus);
            if (bus)
                newScene(window, QStringLiteral("Sala"));
            SceneDef made = window.scenes[bus].back();
            made.name = window.defaultScene(bus).name;
            QCOMPARE(made.toJson(), window.defaultScene(bus).toJson());
            QCOMPARE(window.scenes[bus].size(), 2u);
        }
        window.busChosen(0);

        Layer picture = named(QStringLiteral("Logo"), Layer::Kind::Image);
        picture.image = std::make_shared<tavrin::Frame>(4, 2);
        window.scene().layers = {picture, named(QStringLiteral("Clip"), Layer::Kind::Video)};
        whenModal<QInputDialog>([](QInputDialog* dialog) {
            dialog->setTextValue(dialog->textValue() + QStringLiteral(" 2"));
            dialog->accept();
        });
        buttonNamed(window, QStringLiteral("Renombrar"))->click();
        buttonNamed(window, QStringLiteral("Duplicar"))->click();
        QCOMPARE(rows(window.sceneList), (QStringList{"Escena 1", "Ofrenda 2", "Ofrenda 2 copia"}));
        QCOMPARE(window.sceneCombo->currentText(), QStringLiteral("Ofrenda 2 copia"));
        const std::vector<Layer>& copy = window.scenes[0][2].layers;
        QVERIFY(copy.at(0).image && copy.at(1).media);
        QCOMPARE(copy[0].image.get(), window.scenes[0][1].layers[0].image.get());
        QCOMPARE(copy[1].media.get(), window.scenes[0][1].layers[1].media.get());

        clickRow(window.sceneList, 1);
        QCOMPARE(window.current[0], 1);
        QCOMPARE(window.sceneCombo->currentIndex(), 1);
        QCOMPARE(window.canvas->scene, &window.scenes[0][1]);
        QCOMPARE(rows(window.layerList), (QStringList{"Clip", "Logo"}));
        const std::weak_ptr<Media> source = window.scene().layers[1].media;
        for (auto answer : {QMessageBox::No, QMessageBox::Yes}) {
            const auto seen = answerBox(answer);
            buttonNamed(window, QStringLiteral("Eliminar escena"))->click();
            QCOMPARE(*seen, (QStringList{"Eliminar escena", "¿Eliminar la escena Ofrenda 2?"}));
            QCOMPARE(source.expired(), false);
        }
        QCOMPARE(rows(window.sceneList), (QStringList{"Escena 1", "Ofrenda 2 copia"}));
        QCOMPARE(window.sceneList->currentRow(), window.current[0]);
        QCOMPARE(window.canvas->scene, &window.scene());
        window.scenes[0][1].layers.clear();
        QTRY_VERIFY(source.expired()); // the pipeline was let go on a worker
        window.scenes[0].pop_back();
        window.refreshSceneList();
        const auto seen = answerBox();
        buttonNamed(window, QStringLiteral("Eliminar escena"))->click();
        QCOMPARE(*seen, (QStringList{"Velmora", "Debe quedar al menos una escena"}));
        QCOMPARE(window.statusLabel->text(), seen->last());
        QCOMPARE(window.sceneList->count(), 1);
    }

    // Each entry adds its kind on top, named after its place and selected in the canvas, the list and the panel.
    void sourceMenuEntries()
    {
        StudioWindow window(false);
        const QList<std::pair<const char*, Layer::Kind>> entries{
            {"Cámara / capturadora", Layer::Kind::Camera}, {"Color sólido", Layer::Kind::Color},
            {"Texto", Layer::Kind::Text}, {"Versículo bíblico", Layer::Kind::Verse},
            {"Subtítulos (IA): posición y estilo", Layer::Kind::Subtitle},
            {"Captura de pantalla", Layer::Kind::Screen}};
        for (int i = 0; i < entries.size(); ++i) {
            const auto refusal = answerBox();
            addSource(window, QString::fromUtf8(entries[i].first));
            QVERIFY2(refusal->isEmpty(), qPrintable(refusal->join(u' ')));
            delete watch.data();
            const Layer& made = window.scene().layers.at(std::size_t(i) + 1);
            QCOMPARE(made.kind, entries[i].second);
            QCOMPARE(made.name, Layer::label(made.kind) + u' ' + QString::number(i + 2));
            QCOMPARE(window.canvas->selected, i + 1);
            QCOMPARE(window.layerList->currentRow(), 0);
            QCOMPARE(window.layerList->item(0)->text(), made.name);
            QVERIFY(window.propertyPanel->findChild<QDoubleSpinBox*>(QStringLiteral("X")));
        }
        QCOMPARE(window.statusLabel->text(),
                 QStringLiteral("Captura de pantalla añadida. macOS puede pedir permiso de Grabación de pantalla."));
    }

    // Full lists take nothing more, screen capture included, and say why; one subtitle source per scene.
    void refusedSources()
    {
        const QString layers = QStringLiteral("Esta escena ya tiene el máximo de capas.");
        const QString scenes = QStringLiteral("Esta lista ya tiene el máximo de escenas.");
        const QString subtitles = QStringLiteral("Subtítulos (IA): posición y estilo");
        for (const auto& [control, refused] : std::initializer_list<std::pair<const char*, QString>>{
                 {"Texto", layers}, {"Captura de pantalla", layers}, {"+ Escena", scenes}, {"Duplicar", scenes}}) {
            StudioWindow window(false);
            window.scene().layers.resize(maxLayersPerScene);
            window.scenes[0].resize(maxScenesPerList, window.scenes[0].front());
            window.refreshSceneList();
            const auto seen = answerBox();
            if (refused == layers)
                addSource(window, QString::fromUtf8(control));
            else
                buttonNamed(window, QString::fromUtf8(control))->click();
            QCOMPARE(seen->value(1), refused);
            QCOMPARE(window.statusLabel->text(), refused);
            QCOMPARE(window.scenes[0].size(), maxScenesPerList);
            QCOMPARE(window.scene().layers.size(), maxLayersPerScene);
        }
        StudioWindow window(false);
        addSource(window, subtitles);
        window.scenes[0].push_back(window.defaultScene(0));
        window.current[0] = 1;
        window.refreshSceneList();
        addSource(window, subtitles);
        QCOMPARE(window.scenes[0][0].layers.back().kind, Layer::Kind::Subtitle);
        QCOMPARE(window.scenes[0][1].layers.back().kind, Layer::Kind::Subtitle);
        for (int bus : {0, 1}) {
            window.busChosen(bus);
            const std::size_t before = window.scene().layers.size();
            const auto seen = answerBox();
            addSource(window, subtitles);
            QCOMPARE(seen->value(1), QStringLiteral("Esta escena ya tiene una fuente de subtítulos."));
            QCOMPARE(window.statusLabel->text(), seen->value(1));
            QCOMPARE(window.scene().layers.size(), before);
        }
    }

    // Front on top; check marks write `visible`, a stale row nothing. Then ▲/▼/Eliminar: order and selection.
    void sourceListAndUpDownRemove()
    {
        StudioWindow window(false);
        window.scene().layers = {named("A"), named("B"), named("C", Layer::Kind::Video)};
        window.scene().layers[1].visible = false;
        window.canvas->select(0);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        window.tabs->setCurrentIndex(1);
        QListWidget* list = window.layerList;
        QCOMPARE(rows(list), (QStringList{"C", "B", "A"}));
        QCOMPARE(list->currentRow(), 2);
        QCOMPARE(list->item(1)->checkState(), Qt::Unchecked);
        list->item(0)->setCheckState(Qt::Unchecked);
        list->item(1)->setCheckState(Qt::Checked);
        (new QListWidgetItem(QStringLiteral("D"), list))->setData(Qt::UserRole, std::numeric_limits<int>::max());
        QList<bool> visible;
        for (const Layer& each : window.scene().layers)
            visible << each.visible;
        QCOMPARE(visible, (QList<bool>{true, true, false}));
        clickRow(list, 1);
        QCOMPARE(window.canvas->selected, 1);

        const std::weak_ptr<Media> source = window.scene().layers[2].media;
        const QStringList presses{"▲", "▼", "Eliminar", "select 2", "▲", "▼", "▼", "▼", "▲", "Eliminar"};
        const QStringList after{"ABC -1", "ABC -1", "ABC -1", "ABC 2", "ABC 2",
                                "ACB 1",  "CAB 0",  "CAB 0",  "ACB 1", "AB -1"};
        window.canvas->select(-1);
        for (int i = 0; i < presses.size(); ++i) {
            if (presses[i].startsWith(QLatin1String("select")))
                window.canvas->select(2);
            else
                buttonNamed(window, presses[i])->click();
            QString state;
            for (const Layer& each : window.scene().layers)
                state += each.name;
            QCOMPARE(state + u' ' + QString::number(window.canvas->selected), after[i]);
            if (window.canvas->selected >= 0) // the list follows, front on top
                QCOMPARE(list->currentItem()->text(), window.selectedLayer()->name);
        }
        QCOMPARE(rows(list), (QStringList{"B", "A"}));
        QTRY_VERIFY(source.expired()); // the removed video's pipeline was let go
    }

    void pictures_data()
    {
        QTest::addColumn<QSize>("picture");
        QTest::addColumn<bool>("vertical");
        QTest::addColumn<int>("bus");
        QTest::addColumn<QSizeF>("box");
        // h = 0.4 × W / (a × H), at most 0.9, and then w = a × 0.9 × H / W; the hall stays 1920 x 1080.
        QTest::newRow("8x1 in 1920x1080") << QSize(8, 1) << false << 0 << QSizeF(0.4, 0.0888889);
        QTest::newRow("1x8 in 1920x1080") << QSize(1, 8) << false << 0 << QSizeF(0.0632813, 0.9);
        QTest::newRow("16x9 in 1920x1080") << QSize(32, 18) << false << 0 << QSizeF(0.4, 0.4);
        QTest::newRow("8x1 in 1080x1920") << QSize(8, 1) << true << 0 << QSizeF(0.4, 0.028125);
        QTest::newRow("1x8 in 1080x1920") << QSize(1, 8) << true << 0 << QSizeF(0.2, 0.9);
        QTest::newRow("1x8 on the hall, stream vertical") << QSize(1, 8) << true << 1 << QSizeF(0.0632813, 0.9);
        // Refused: too wide, too tall, not a picture, missing.
        for (const QSize& size : {QSize(8193, 10), QSize(10, 8193), QSize(0, 1), QSize(0, 2)})
            QTest::addRow("refused %dx%d", size.width(), size.height()) << size << false << 0 << QSizeF();
    }
    // An image layer's box follows the picture's shape; the largest taken keeps straight alpha in RGBA.
    void pictures()
    {
        QFETCH(QSize, picture);
        QFETCH(bool, vertical);
        QFETCH(int, bus);
        QFETCH(QSizeF, box);
        StudioWindow window(false);
        window.formatCombo->setCurrentIndex(vertical ? 1 : 0);
        window.busChosen(bus);
        const QString name = QStringLiteral("picture-%1x%2.png").arg(picture.width()).arg(picture.height());
        const QString path = folder + u'/' + name;
        QFile::remove(path);
        QImage image(picture, QImage::Format_RGB32);
        image.fill(QColor(30, 90, 150));
        if (picture.width()) // else an empty file, or none at all
            QVERIFY(image.save(path, "PNG"));
        else if (picture.height() == 1)
            QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        if (box.isEmpty()) {
            QVERIFY_THROWS_EXCEPTION(std::runtime_error, window.addImageLayer(path));
            QCOMPARE(window.scene().layers.size(), 1u);
            return;
        }
        window.addImageLayer(path);
        const Layer& made = window.scene().layers.back();
        QVERIFY(made.kind == Layer::Kind::Image && made.path == path && made.name == name);
        QCOMPARE(QSize(made.image->width, made.image->height), picture);
        QCOMPARE(made.rect.topLeft(), QPointF(0.55, 0.05));
        QVERIFY2(qAbs(made.rect.width() - box.width()) < 1e-6 && qAbs(made.rect.height() - box.height()) < 1e-6,
                 qPrintable(QString::asprintf("%.9g x %.9g", made.rect.width(), made.rect.height())));
        if (picture != QSize(8, 1))
            return;
        QImage edge(8192, 2, QImage::Format_ARGB32);
        edge.fill(QColor(0, 0, 255));
        edge.setPixelColor(0, 0, QColor(200, 100, 50, 128));
        edge.setPixelColor(8191, 1, QColor(10, 20, 30));
        QVERIFY(edge.save(folder + QStringLiteral("/edge.png")));
        const auto frame = window.decodeImage(folder + QStringLiteral("/edge.png"));
        QCOMPARE(QSize(frame->width, frame->height), QSize(8192, 2));
        QCOMPARE(frame->pixels.size(), std::size_t(8192) * 2 * 4);
        const auto pixel = [&](std::size_t at) {
            const std::uint8_t* p = frame->pixels.data() + at * 4;
            return QColor(p[0], p[1], p[2], p[3]);
        };
        QCOMPARE(pixel(0), QColor(200, 100, 50, 128));
        QCOMPARE(pixel(1), QColor(0, 0, 255));
        QCOMPARE(pixel(2 * 8192 - 1), QColor(10, 20, 30));
    }

    // A double click selects a box and shows this tab; a drag moves it, the panel's boxes follow in place.
    void canvasGesturesReachTheTabAndThePanel()
    {
        StudioWindow window(false);
        window.scene().layers.push_back(named(QStringLiteral("Caja")));
        window.canvas->select(-1);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
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
        QVERIFY((moved.topLeft() - expected).manhattanLength() < 1e-6);
        QCOMPARE(moved.size(), QSizeF(0.3, 0.3));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // a rebuilt form would be gone now
        const std::array<double, 4> values{moved.x(), moved.y(), moved.width(), moved.height()};
        for (std::size_t i = 0; i < 4; ++i)
            QVERIFY(spins[i] && qAbs(spins[i]->value() - values[i] * 100.0) <= 0.05 + 1e-9);
        QCOMPARE(window.scene().layers[1].rect, moved); // writing the boxes did not echo back
    }
};

QTEST_MAIN(tst_SceneTab)
#include "tst_scenetab.moc"
