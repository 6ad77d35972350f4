#include "Canvas.h"
#include "Destination.h"
#include "GstTestRun.h"
#include "Media.h"
#include "Output.h"
#include "Picture.h"
#include "PictureCentre.h"
#include "SceneLimits.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QSlider>
#include <QSettings>
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <thread>

namespace {

// Answers modal windows the way the operator would, in the order they are expected, noting what
// each showed. One that comes unasked is noted and closed, so a stray dialog fails the test instead
// of hanging it.
class ModalWatch : public QObject
{
public:
    struct Seen
    {
        QString title, text;
        QStringList filters, selected;
    };

    ModalWatch()
    {
        connect(&timer, &QTimer::timeout, this, [this] { look(); });
        timer.start(10);
    }
    // Picks `path` in the next file dialog, or cancels it when `path` is empty.
    void chooseFile(const QString& path) { answers.push_back(path); }
    void pressOk() { answers.push_back(std::nullopt); }
    // Everything asked for was answered and nothing else came.
    bool done() const { return answers.empty() && unexpected.isEmpty(); }

    QList<Seen> seen;
    QStringList unexpected;

private:
    void look()
    {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal || modal == lastAnswered)
            return;
        lastAnswered = modal;
        auto* dialog = qobject_cast<QFileDialog*>(modal);
        auto* box = qobject_cast<QMessageBox*>(modal);
        if (answers.empty() || answers.front().has_value() != bool(dialog) || (!dialog && !box)) {
            unexpected << modal->windowTitle() + u' ' + (box ? box->text() : QString());
            modal->close();
            return;
        }
        const std::optional<QString> answer = answers.front();
        answers.pop_front();
        if (box) {
            seen.append({box->windowTitle(), box->text(), {}, {}});
            box->button(QMessageBox::Ok)->click();
            return;
        }
        seen.append({dialog->windowTitle(), {}, dialog->nameFilters(), dialog->selectedFiles()});
        // Typed into the name field, as the operator does: selectFile leaves a focused field alone.
        auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        if (answer->isEmpty() || !name)
            return dialog->reject();
        name->setText(*answer);
        static_cast<QDialog*>(dialog)->accept(); // QFileDialog::accept checks the choice, as OK does
    }

    QTimer timer;
    std::deque<std::optional<QString>> answers; // a file to choose, or none for a message box
    QPointer<QWidget> lastAnswered;
};

QPushButton* buttonNamed(const StudioWindow& window, const QString& text)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each;
    qFatal("no button \"%s\"", qPrintable(text));
    return nullptr;
}

QJsonArray scenesJson(const std::vector<SceneDef>& list)
{
    QJsonArray array;
    for (const SceneDef& each : list)
        array.append(each.toJson());
    return array;
}

// The camera's test pattern has reached the picture: its centre is a bar, not black.
bool showsPicture(const QImage& image)
{
    return !image.isNull() && centreOf(image) != QColor(Qt::black);
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

// Every point of a coarse grid is black.
bool allBlack(const QImage& image)
{
    for (int y = 0; y < 18; ++y)
        for (int x = 0; x < 32; ++x)
            if (image.pixelColor((2 * x + 1) * image.width() / 64, (2 * y + 1) * image.height() / 36) !=
                Qt::black)
                return false;
    return !image.isNull();
}

// Notes in which thread a pipeline is taken down. Its bus calls this in the thread that changes the
// state, so the step from PAUSED to READY shows who stopped it.
struct Teardown
{
    std::thread::id guiThread = std::this_thread::get_id();
    std::atomic<bool> seen{false};
    std::atomic<bool> onGuiThread{false};

    // Installed with a reference of its own, so a failing test cannot leave the bus a dangling note.
    static void watch(GstBus* bus, const std::shared_ptr<Teardown>& teardown)
    {
        gst_bus_set_sync_handler(bus, &Teardown::note, new std::shared_ptr<Teardown>(teardown),
                                 [](gpointer held) { delete static_cast<std::shared_ptr<Teardown>*>(held); });
    }

    static GstBusSyncReply note(GstBus*, GstMessage* message, gpointer held)
    {
        Teardown* teardown = static_cast<std::shared_ptr<Teardown>*>(held)->get();
        if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STATE_CHANGED ||
            !GST_IS_PIPELINE(GST_MESSAGE_SRC(message)))
            return GST_BUS_PASS;
        GstState before = GST_STATE_VOID_PENDING;
        GstState after = GST_STATE_VOID_PENDING;
        gst_message_parse_state_changed(message, &before, &after, nullptr);
        if (before == GST_STATE_PAUSED && after == GST_STATE_READY && !teardown->seen) {
            teardown->onGuiThread = std::this_thread::get_id() == teardown->guiThread;
            teardown->seen = true;
        }
        return GST_BUS_PASS;
    }
};

const QString projectDone =
    QStringLiteral("Proyecto guardado/abierto. Programa comienza en negro; claves no se incluyen.");
const QStringList projectFilter{QStringLiteral("Velmora (*.tavrin)")};

} // namespace

// Project open and save on a real window: the file one studio writes, another opens, with real
// pictures and a real video behind its layers.
class tst_Project : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void savedProjectOpensTheSameInAnotherStudio();
    void missingFilesAreNamedInOneWarning();
    void refusedFilesChangeNothing_data();
    void refusedFilesChangeNothing();
    void sourceOnlyProgramShowsIsStoppedOnAWorker();

private:
    // Everything an open may change, in one comparable text; media by address, so a reopened
    // source shows as a change too.
    static QByteArray stateOf(StudioWindow& window);
    QString folder;
    QString picturePath;
    QString videoUri;
};

void tst_Project::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    QSettings().setValue(QStringLiteral("onboarding_complete"), true);
    gst_init(nullptr, nullptr);
    folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(folder));
    picturePath = folder + QStringLiteral("/logo.png");
    QImage picture(64, 32, QImage::Format_RGB32);
    picture.fill(QColor(10, 200, 30));
    QVERIFY(picture.save(picturePath));
    const QString videoPath = folder + QStringLiteral("/clip.webm");
    QFile::remove(videoPath);
    QVERIFY(runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                     "vp8enc deadline=1 ! webmmux ! filesink location=\"" +
                     QFile::encodeName(videoPath) + '"'));
    videoUri = QUrl::fromLocalFile(videoPath).toString();
}

QByteArray tst_Project::stateOf(StudioWindow& window)
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
    const QJsonObject state{
        {QStringLiteral("stream"), scenesJson(window.scenes[0])},
        {QStringLiteral("hall"), scenesJson(window.scenes[1])},
        {QStringLiteral("programs"), scenesJson({window.program, window.hallProgram})},
        {QStringLiteral("current"), QJsonArray{window.current[0], window.current[1]}},
        {QStringLiteral("format"),
         QJsonArray{window.formatCombo->currentIndex(), window.width, window.height}},
        {QStringLiteral("band"), window.bandCheck->isChecked()},
        {QStringLiteral("title"), window.overlayField->text()},
        {QStringLiteral("gain"), window.gainSlider->value()},
        {QStringLiteral("sceneList"), window.sceneCombo->count()},
        {QStringLiteral("media"), media},
    };
    return QJsonDocument(state).toJson(QJsonDocument::Compact);
}

void tst_Project::savedProjectOpensTheSameInAnotherStudio()
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
        verse.text = QStringLiteral("Porque de tal manera amó Dios al mundo…");
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

        ModalWatch watch;
        watch.chooseFile(path);
        buttonNamed(author, QStringLiteral("Guardar proyecto"))->click();
        QVERIFY2(watch.done(), qPrintable(watch.unexpected.join(u'\n')));
        QCOMPARE(watch.seen[0].title, QStringLiteral("Guardar proyecto"));
        QCOMPARE(watch.seen[0].filters, projectFilter);
        QCOMPARE(author.statusLabel->text(), projectDone);
    }
    QVERIFY(!QFile::exists(path + QStringLiteral(".tavrin")));
    const QByteArray written = readFile(path);
    QVERIFY(!written.isEmpty());
    for (const QString& key : keys)
        QVERIFY2(!written.contains(key.toUtf8()), qPrintable(key));

    // The other studio has something on air, with a lower third.
    StudioWindow reader(false);
    reader.fadeCheck->setChecked(false);
    reader.scene().layers[0].kind = Layer::Kind::Color;
    reader.scene().layers[0].fill = QColor(200, 0, 0);
    reader.overlayField->setText(QStringLiteral("Anuncios"));
    reader.bandCheck->setChecked(true);
    reader.take();
    QTRY_COMPARE(centreOf(reader.programMonitor->image), QColor(200, 0, 0));
    QVERIFY(!reader.hallProgram.layers.empty());

    ModalWatch watch;
    watch.chooseFile(path);
    buttonNamed(reader, QStringLiteral("Abrir proyecto"))->click();
    QVERIFY2(watch.done(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(watch.seen[0].title, QStringLiteral("Abrir proyecto"));
    QCOMPARE(watch.seen[0].filters, projectFilter);
    QCOMPARE(reader.statusLabel->text(), projectDone);
    QCOMPARE(scenesJson(reader.scenes[0]), savedStream);
    QCOMPARE(scenesJson(reader.scenes[1]), savedHall);
    QCOMPARE(reader.current, (std::array<int, 2>{1, 1}));
    QCOMPARE(reader.sceneCombo->currentText(), QStringLiteral("Predicación"));
    QCOMPARE(reader.formatCombo->currentIndex(), 1);
    QVERIFY(reader.bandCheck->isChecked());
    QCOMPARE(reader.overlayField->text(), QStringLiteral("Culto de domingo"));
    QCOMPARE(reader.audioState.gain, 1.5);

    // Pictures are decoded again from their files and the video runs again from its address, at
    // the project's vertical size.
    const Layer& picture = reader.scenes[0][0].layers[1];
    QVERIFY(picture.image);
    QCOMPARE(QSize(picture.image->width, picture.image->height), QSize(64, 32));
    QCOMPARE(picture.image->pixels[1], std::uint8_t(200));
    QVERIFY(reader.scenes[1][1].layers.back().image);
    const Layer& video = reader.scenes[0][0].layers[2];
    QVERIFY(video.media);
    QTRY_VERIFY_WITH_TIMEOUT(video.media->frameCount > 0, 10000);
    QCOMPARE(QSize(video.media->latest.width, video.media->latest.height), QSize(1080, 1920));

    // Whatever either Program showed before, both start black, the frozen lower third included.
    QVERIFY(reader.program.layers.empty());
    QVERIFY(reader.hallProgram.layers.empty());
    QTRY_VERIFY(allBlack(reader.programMonitor->image));
    QTRY_VERIFY(allBlack(reader.hallMonitor->image));

    // The opened file is where the next save starts; cancelling it ends quietly.
    watch.chooseFile(QString());
    reader.project(true);
    QVERIFY2(watch.done(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(watch.seen[1].selected, QStringList{path});
    QCOMPARE(readFile(path), written);
}

void tst_Project::missingFilesAreNamedInOneWarning()
{
    const QString gone = folder + QStringLiteral("/gone");
    QDir(gone).removeRecursively();
    const QString missingVideo = QUrl::fromLocalFile(gone + QStringLiteral("/clip.webm")).toString();
    const QString path = folder + QStringLiteral("/missing.tavrin");
    QVERIFY(writeFile(path, QStringLiteral(R"({"version":3,"gain":100,
        "scenes":[{"name":"Culto","layers":[{"kind":"text","name":"Título"},{"kind":"video","name":"Clip","uri":"%1"}]}],
        "hall":[{"name":"Sala","layers":[{"kind":"image","name":"Logo","path":"%2/logo.png"},
                                         {"kind":"image","name":"Bueno","path":"%3"}]}]})")
                                .arg(missingVideo, gone, picturePath)
                                .toUtf8()));
    StudioWindow window(false);
    ModalWatch watch;
    watch.pressOk();
    window.openProject(path);
    QVERIFY2(watch.done(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(watch.seen[0].title, QStringLiteral("Abrir proyecto"));
    QCOMPARE(watch.seen[0].text,
             QStringLiteral("Clip: No se pudo iniciar fuente\nLogo: Imagen inválida o demasiado grande"));
    QCOMPARE(window.statusLabel->text(), projectDone);

    // The layers stay, without their pictures, and what could be opened was.
    const std::vector<Layer>& stream = window.scenes[0][0].layers;
    QCOMPARE(stream.size(), std::size_t(2));
    QCOMPARE(stream[1].uri, missingVideo);
    QVERIFY(!stream[1].media);
    const std::vector<Layer>& hall = window.scenes[1][0].layers;
    QCOMPARE(hall.size(), std::size_t(2));
    QVERIFY(!hall[0].image);
    QVERIFY(hall[1].image);
    // And the studio goes on drawing them.
    const QImage before = window.canvas->frame;
    QTRY_VERIFY(window.canvas->frame.cacheKey() != before.cacheKey());
}

void tst_Project::refusedFilesChangeNothing_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("recording");
    QTest::addColumn<QString>("message");
    // Each asks for the vertical format, which must not be applied either.
    const QString version = QStringLiteral("Versión de proyecto inválida");
    const QByteArray good = R"({"version":3,"gain":10,"vertical":true,"scenes":[{"name":"Otra"}]})";
    QTest::newRow("damaged") << QByteArray(R"({"version":3,"gain":100,"vertical":true,"scenes":[{"name":)")
                             << false << version;
    QTest::newRow("oversized") << QByteArray(R"({"version":3,"gain":100,"vertical":true})") +
                                      QByteArray(4194304, ' ')
                               << false << QStringLiteral("Proyecto inválido");
    QTest::newRow("wrong version") << QByteArray(R"({"version":4,"gain":100,"vertical":true})") << false
                                   << version;
    QTest::newRow("no gain") << QByteArray(R"({"version":3,"vertical":true,"scenes":[{"name":"Otra"}]})")
                             << false << QStringLiteral("Opciones de proyecto inválidas");
    // Generated past the bounds: a scene list too long, a scene too full.
    QByteArray longList = R"({"version":3,"gain":100,"vertical":true,"scenes":[)";
    for (std::size_t scene = 0; scene <= maxScenesPerList; ++scene)
        longList += R"({"name":"Escena"},)";
    longList.chop(1);
    QTest::newRow("too many scenes") << longList + "]}" << false << QStringLiteral("Proyecto inválido");
    QByteArray fullScene = R"({"version":3,"gain":100,"vertical":true,"hall":[{"name":"Sala","layers":[)";
    for (std::size_t layer = 0; layer <= maxLayersPerScene; ++layer)
        fullScene += R"({"kind":"text","text":"Bienvenidos","size":400},)";
    fullScene.chop(1);
    QTest::newRow("too many layers") << fullScene + "]}]}" << false << QStringLiteral("Proyecto inválido");
    QTest::newRow("while recording") << good << true
                                     << QStringLiteral("Detén salidas antes de abrir/guardar proyecto");
}

// Through the buttons, as the operator meets them: the file dialog, then the failure's warning.
// While an output runs, no file dialog opens at all, for saving either.
void tst_Project::refusedFilesChangeNothing()
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

    ModalWatch watch;
    QStringList buttons{QStringLiteral("Abrir proyecto")};
    if (recording)
        buttons << QStringLiteral("Guardar proyecto");
    for (const QString& button : buttons) {
        if (!recording)
            watch.chooseFile(path);
        watch.pressOk();
        buttonNamed(window, button)->click();
        QVERIFY2(watch.done(), qPrintable(watch.unexpected.join(u'\n')));
        QCOMPARE(watch.seen.last().text, message);
        QCOMPARE(window.statusLabel->text(), message);
    }
    QCOMPARE(stateOf(window), before);
    QVERIFY(showsPicture(window.programMonitor->image));
    QVERIFY(!recording || window.recording->running);
}

void tst_Project::sourceOnlyProgramShowsIsStoppedOnAWorker()
{
    const QString path = folder + QStringLiteral("/plain.tavrin");
    QVERIFY(writeFile(path, R"({"version":3,"gain":100,"scenes":[{"name":"Otra"}]})"));
    StudioWindow window(false);
    window.addVideoLayer(videoUri);
    window.take();
    // The operator removes the video from the scene: Program alone still holds its source.
    window.scene().layers.pop_back();
    window.refreshLayerList();
    const std::weak_ptr<Media> onAir = window.program.layers.back().media;
    QCOMPARE(onAir.use_count(), 1L);
    // Playing, so that stopping it passes from PAUSED to READY.
    QTRY_VERIFY_WITH_TIMEOUT(onAir.lock()->frameCount > 0, 10000);
    const auto teardown = std::make_shared<Teardown>();
    Teardown::watch(onAir.lock()->bus.get(), teardown);

    window.openProject(path);
    QVERIFY(window.program.layers.empty());
    QTRY_VERIFY_WITH_TIMEOUT(teardown->seen, 10000);
    QVERIFY(!teardown->onGuiThread);
    QTRY_VERIFY(onAir.expired());
    // A project without Hall scenes gets the hall's default one.
    QCOMPARE(scenesJson(window.scenes[1]), QJsonArray{window.defaultScene(1).toJson()});
}

QTEST_MAIN(tst_Project)
#include "tst_project.moc"
