#include "Canvas.h"
#include "Destination.h"
#include "GstTestRun.h"
#include "Media.h"
#include "Output.h"
#include "Picture.h"
#include "PictureCentre.h"
#include "SceneLimits.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>
#include <atomic>
#include <thread>

namespace {

// Answers file dialogs with the next of `files` (none: cancel), boxes with OK; notes what each showed.
struct ModalWatch : QObject
{
    QStringList files, seen, selected;
    QTimer timer;
    QPointer<QWidget> lastAnswered;

    explicit ModalWatch(const QStringList& chosen = {}) : files(chosen)
    {
        connect(&timer, &QTimer::timeout, this, &ModalWatch::look);
        timer.start(10);
    }
    void look()
    {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal || modal == lastAnswered)
            return;
        lastAnswered = modal;
        auto* dialog = qobject_cast<QFileDialog*>(modal);
        if (auto* box = qobject_cast<QMessageBox*>(modal)) {
            seen << box->windowTitle() + QStringLiteral(": ") + box->text();
            return box->button(QMessageBox::Ok)->click();
        }
        if (!dialog) {
            modal->close();
            return;
        }
        seen << dialog->windowTitle() + QStringLiteral(": ") + dialog->nameFilters().join(u',');
        selected = dialog->selectedFiles();
        // Typed into the name field, as the operator does: selectFile leaves a focused field alone.
        auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        const QString answer = files.isEmpty() ? QString() : files.takeFirst();
        if (answer.isEmpty() || !name)
            return dialog->reject();
        name->setText(answer);
        static_cast<QDialog*>(dialog)->accept(); // QFileDialog::accept checks the choice, as OK does
    }
};

QPushButton* buttonNamed(const StudioWindow& window, const QString& text)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each;
    qFatal("no button \"%s\"", qPrintable(text));
}

QJsonArray scenesJson(const std::vector<SceneDef>& list)
{
    QJsonArray array;
    for (const SceneDef& each : list)
        array.append(each.toJson());
    return array;
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The camera's test pattern has reached the picture: its centre is a bar, not black.
bool showsPicture(const QImage& image) { return !image.isNull() && centreOf(image) != QColor(Qt::black); }

// Every point of a coarse grid is black.
bool allBlack(const QImage& image)
{
    for (int y = 0; y < 18; ++y)
        for (int x = 0; x < 32; ++x)
            if (image.pixelColor((2 * x + 1) * image.width() / 64, (2 * y + 1) * image.height() / 36) != Qt::black)
                return false;
    return !image.isNull();
}

// Set by the bus in the thread that takes the pipeline from PAUSED to READY: 1 the GUI thread, 2 another.
std::atomic<int> teardownThread{0};
const std::thread::id guiThread = std::this_thread::get_id();
GstBusSyncReply noteTeardown(GstBus*, GstMessage* message, gpointer)
{
    GstState before = GST_STATE_VOID_PENDING, after = GST_STATE_VOID_PENDING;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_STATE_CHANGED && GST_IS_PIPELINE(GST_MESSAGE_SRC(message)))
        gst_message_parse_state_changed(message, &before, &after, nullptr);
    if (before == GST_STATE_PAUSED && after == GST_STATE_READY && !teardownThread)
        teardownThread = std::this_thread::get_id() == guiThread ? 1 : 2;
    return GST_BUS_PASS;
}

const QString projectDone =
    QStringLiteral("Proyecto guardado/abierto. Programa comienza en negro; claves no se incluyen.");

} // namespace

// Project open and save on real windows, with real pictures and a real video behind the layers.
class tst_Project : public QObject
{
    Q_OBJECT
    QString folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QString picturePath = folder + QStringLiteral("/logo.png");
    QString videoUri;
    // Everything an open may change, in one comparable text; media by address, so a reopened source shows too.
    static QByteArray stateOf(StudioWindow& window)
    {
        QJsonArray media;
        const auto addMedia = [&media](const SceneDef& scene) {
            for (const Layer& layer : scene.layers)
                media.append(QString::asprintf("%p %p", static_cast<void*>(layer.media.get()),
                                               static_cast<void*>(layer.image.get())));
        };
        for (const auto& list : window.scenes)
            std::for_each(list.begin(), list.end(), addMedia);
        addMedia(window.program);
        addMedia(window.hallProgram);
        return QJsonDocument(QJsonArray{scenesJson(window.scenes[0]), scenesJson(window.scenes[1]),
                                        scenesJson({window.program, window.hallProgram}), window.current[0],
                                        window.current[1], window.formatCombo->currentIndex(), window.width,
                                        window.height, window.bandCheck->isChecked(), window.overlayField->text(),
                                        window.gainSlider->value(), window.sceneCombo->count(), media})
            .toJson(QJsonDocument::Compact);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
        QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
        QSettings().setValue(QStringLiteral("onboarding_complete"), true);
        gst_init(nullptr, nullptr);
        QVERIFY(QDir().mkpath(folder));
        QImage picture(64, 32, QImage::Format_RGB32);
        picture.fill(QColor(10, 200, 30));
        QVERIFY(picture.save(picturePath));
        const QString videoPath = folder + QStringLiteral("/clip.webm");
        QFile::remove(videoPath);
        QVERIFY(runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                         "vp8enc deadline=1 ! webmmux ! filesink location=\"" + QFile::encodeName(videoPath) + '"'));
        videoUri = QUrl::fromLocalFile(videoPath).toString();
    }

    void savedProjectOpensTheSameInAnotherStudio()
    {
        const QString path = folder + QStringLiteral("/culto"); // no extension: none may be added
        QFile::remove(path);
        QFile::remove(path + QStringLiteral(".tavrin"));
        const QStringList keys{QStringLiteral("clave-youtube-7f3a9"), QStringLiteral("apibible-9c1e77d2")};
        QJsonArray savedStream, savedHall;
        {
            StudioWindow author(false);
            author.formatCombo->setCurrentIndex(1);
            author.addImageLayer(picturePath);
            author.addVideoLayer(videoUri);
            Layer verse;
            verse.kind = Layer::Kind::Verse;
            verse.reference = QStringLiteral("Juan 3:16");
            author.scenes[0].push_back(SceneDef{QStringLiteral("Predicación"), {verse}});
            author.current[0] = 1;
            author.busChosen(1);
            author.scenes[1].push_back(SceneDef{QStringLiteral("Bienvenida"), {}});
            author.current[1] = 1;
            author.refreshSceneList();
            author.addImageLayer(picturePath);
            author.busChosen(0);
            author.bandCheck->setChecked(true);
            author.overlayField->setText(QStringLiteral("Culto de domingo"));
            author.gainSlider->setValue(150);
            author.destinations[0].server->setText(QStringLiteral("rtmp://127.0.0.1/live"));
            author.destinations[0].key->setText(keys[0]);
            author.apiBibleKeyField->setText(keys[1]);
            savedStream = scenesJson(author.scenes[0]);
            savedHall = scenesJson(author.scenes[1]);
            ModalWatch watch({path});
            buttonNamed(author, QStringLiteral("Guardar proyecto"))->click();
            QCOMPARE(watch.seen, QStringList{"Guardar proyecto: Velmora (*.tavrin)"});
            QCOMPARE(author.statusLabel->text(), projectDone);
        }
        QVERIFY(!QFile::exists(path + QStringLiteral(".tavrin")));
        const QByteArray written = readFile(path);
        QVERIFY(!written.isEmpty() && !written.contains(keys[0].toUtf8()) && !written.contains(keys[1].toUtf8()));

        // The other studio has something on air, with a lower third.
        StudioWindow reader(false);
        reader.fadeCheck->setChecked(false);
        reader.overlayField->setText(QStringLiteral("Anuncios"));
        reader.bandCheck->setChecked(true);
        reader.take();
        QTRY_VERIFY(showsPicture(reader.programMonitor->image));
        QVERIFY(!reader.hallProgram.layers.empty());
        ModalWatch watch({path});
        buttonNamed(reader, QStringLiteral("Abrir proyecto"))->click();
        QCOMPARE(watch.seen, QStringList{"Abrir proyecto: Velmora (*.tavrin)"});
        QCOMPARE(reader.statusLabel->text(), projectDone);
        QCOMPARE(scenesJson(reader.scenes[0]), savedStream);
        QCOMPARE(scenesJson(reader.scenes[1]), savedHall);
        QCOMPARE(reader.current, (std::array<int, 2>{1, 1}));
        QCOMPARE(reader.sceneCombo->currentText(), QStringLiteral("Predicación"));
        QCOMPARE(reader.formatCombo->currentIndex(), 1);
        QVERIFY(reader.bandCheck->isChecked());
        QCOMPARE(reader.overlayField->text(), QStringLiteral("Culto de domingo"));
        QCOMPARE(reader.audioState.gain, 1.5);

        // Pictures are decoded again, and the video runs again at the project's vertical size.
        const Layer& picture = reader.scenes[0][0].layers[1];
        QVERIFY(picture.image && reader.scenes[1][1].layers.back().image);
        QCOMPARE(QSize(picture.image->width, picture.image->height), QSize(64, 32));
        QCOMPARE(picture.image->pixels[1], std::uint8_t(200));
        const Layer& video = reader.scenes[0][0].layers[2];
        QVERIFY(video.media);
        QTRY_VERIFY_WITH_TIMEOUT(video.media->frameCount > 0, 10000);
        QCOMPARE(QSize(video.media->latest.width, video.media->latest.height), QSize(1080, 1920));

        // Whatever either Program showed before, both start black, the frozen lower third included.
        QVERIFY(reader.program.layers.empty() && reader.hallProgram.layers.empty());
        QTRY_VERIFY(allBlack(reader.programMonitor->image));
        QTRY_VERIFY(allBlack(reader.hallMonitor->image));

        // The opened file is where the next save starts; cancelling it ends quietly.
        reader.project(true);
        QCOMPARE(watch.seen.size(), 2);
        QCOMPARE(watch.selected, QStringList{path});
        QCOMPARE(readFile(path), written);
    }

    // A source only Program held stops on a worker; missing files are named in one warning, layers stay.
    void openStopsOldSourcesAndNamesMissingFiles()
    {
        const QString gone = folder + QStringLiteral("/gone");
        QDir(gone).removeRecursively();
        const QString missingVideo = QUrl::fromLocalFile(gone + QStringLiteral("/clip.webm")).toString();
        const QString path = folder + QStringLiteral("/missing.tavrin");
        QVERIFY(writeFile(path, QStringLiteral(R"({"version":3,"gain":100,"scenes":[{"name":"Culto","layers":[
            {"kind":"text","name":"Título"},{"kind":"video","name":"Clip","uri":"%1"},
            {"kind":"image","name":"Logo","path":"%2/logo.png"},{"kind":"image","name":"Bueno","path":"%3"}]}]})")
                                    .arg(missingVideo, gone, picturePath)
                                    .toUtf8()));
        StudioWindow window(false);
        window.addVideoLayer(videoUri);
        window.take();
        window.scene().layers.pop_back();
        window.refreshLayerList();
        const std::weak_ptr<Media> onAir = window.program.layers.back().media;
        QCOMPARE(onAir.use_count(), 1L);
        QTRY_VERIFY_WITH_TIMEOUT(onAir.lock()->frameCount > 0, 10000); // playing, so it passes PAUSED to READY
        gst_bus_set_sync_handler(onAir.lock()->bus.get(), noteTeardown, nullptr, nullptr);
        ModalWatch watch;
        window.openProject(path);
        QCOMPARE(watch.seen, QStringList{"Abrir proyecto: Clip: No se pudo iniciar fuente\n"
                                         "Logo: Imagen inválida o demasiado grande"});
        QCOMPARE(window.statusLabel->text(), projectDone);
        QVERIFY(window.program.layers.empty());
        const std::vector<Layer>& layers = window.scenes[0][0].layers;
        QCOMPARE(layers.size(), std::size_t(4));
        QVERIFY(layers[1].uri == missingVideo && !layers[1].media && !layers[2].image && layers[3].image);
        // A project without Hall scenes gets the hall's default one.
        QCOMPARE(scenesJson(window.scenes[1]), QJsonArray{window.defaultScene(1).toJson()});
        QTRY_VERIFY_WITH_TIMEOUT(teardownThread != 0, 10000);
        QCOMPARE(teardownThread.load(), 2);
        QTRY_VERIFY(onAir.expired());
        const QImage before = window.canvas->frame; // and the studio goes on drawing
        QTRY_VERIFY(window.canvas->frame.cacheKey() != before.cacheKey());
    }

    void refusedFilesChangeNothing_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<bool>("recording");
        QTest::addColumn<QString>("message");
        // Each asks for the vertical format, which must not be applied either.
        const QString version = QStringLiteral("Versión de proyecto inválida");
        const QString invalid = QStringLiteral("Proyecto inválido");
        const QByteArray head = R"({"version":3,"gain":100,"vertical":true)";
        QTest::newRow("damaged") << head + R"(,"scenes":[{"name":)" << false << version;
        QTest::newRow("oversized") << head + '}' + QByteArray(4194304, ' ') << false << invalid;
        QTest::newRow("wrong version") << QByteArray(R"({"version":4,"gain":100,"vertical":true})") << false << version;
        QTest::newRow("no gain") << QByteArray(R"({"version":3,"vertical":true,"scenes":[{"name":"Otra"}]})") << false
                                 << QStringLiteral("Opciones de proyecto inválidas");
        // Generated past the bounds: a scene list too long, a scene too full.
        QByteArray longList = head + R"(,"scenes":[{"name":"Escena"})";
        const QByteArray layer = R"({"kind":"text","text":"Bienvenidos","size":400})";
        QByteArray fullScene = head + R"(,"hall":[{"name":"Sala","layers":[)" + layer;
        for (std::size_t more = 0; more < std::max(maxScenesPerList, maxLayersPerScene); ++more) {
            longList += more < maxScenesPerList ? R"(,{"name":"Escena"})" : "";
            fullScene += more < maxLayersPerScene ? ',' + layer : QByteArray();
        }
        QTest::newRow("too many scenes") << longList + "]}" << false << invalid;
        QTest::newRow("too many layers") << fullScene + "]}]}" << false << invalid;
        QTest::newRow("while recording") << QByteArray(R"({"version":3,"gain":10,"scenes":[{"name":"Otra"}]})") << true
                                         << QStringLiteral("Detén salidas antes de abrir/guardar proyecto");
    }
    // The file dialog, then the warning; while an output runs no file dialog opens, for saving either.
    void refusedFilesChangeNothing()
    {
        QFETCH(QByteArray, document);
        QFETCH(bool, recording);
        QFETCH(QString, message);
        const QString path = folder + QStringLiteral("/refused.tavrin");
        QVERIFY(writeFile(path, document));
        StudioWindow window(false);
        window.fadeCheck->setChecked(false);
        window.take();
        QTRY_VERIFY(showsPicture(window.programMonitor->image));
        if (recording)
            window.startRecording(folder + QStringLiteral("/while-project.webm"));
        const QByteArray before = stateOf(window);
        ModalWatch watch({path});
        buttonNamed(window, QStringLiteral("Abrir proyecto"))->click();
        if (recording)
            buttonNamed(window, QStringLiteral("Guardar proyecto"))->click();
        const QString box = QStringLiteral("Velmora: ") + message;
        const QString dialog = QStringLiteral("Abrir proyecto: Velmora (*.tavrin)");
        QCOMPARE(watch.seen, (recording ? QStringList{box, box} : QStringList{dialog, box}));
        QCOMPARE(window.statusLabel->text(), message);
        QCOMPARE(stateOf(window), before);
        QVERIFY(showsPicture(window.programMonitor->image));
        QVERIFY(!recording || window.recording->running);
    }
};

QTEST_MAIN(tst_Project)
#include "tst_project.moc"
