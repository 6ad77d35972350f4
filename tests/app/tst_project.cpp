#include "Canvas.h"
#include "Destination.h"
#include "Media.h"
#include "Output.h"
#include "Picture.h"
#include "GstTestRun.h"
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
#include <QTest>
#include <QTimer>
#include <QUrl>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

// What a modal window showed when it was answered.
struct Seen
{
    QString kind; // class name, so a wrong kind of dialog shows in the failure
    QString title;
    QString text;
    QStringList filters;
    QString directory;
    QStringList selected;
};

// Answers modal windows the way the operator would, in the order they are expected. One that comes
// unasked is recorded and closed, so a stray dialog fails the test instead of hanging it.
class ModalWatch : public QObject
{
public:
    using Answer = std::function<void(QWidget*)>;

    ModalWatch()
    {
        timer.setInterval(10);
        connect(&timer, &QTimer::timeout, this, [this] { look(); });
        timer.start();
    }

    void expect(Answer answer) { answers.push_back(std::move(answer)); }
    bool allAnswered() const { return answers.empty(); }

    QStringList unexpected;

private:
    void look()
    {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal || modal == lastAnswered)
            return;
        lastAnswered = modal;
        if (answers.empty()) {
            const auto* box = qobject_cast<QMessageBox*>(modal);
            unexpected.append(QString::fromLatin1(modal->metaObject()->className()) + u' ' +
                              modal->windowTitle() + u' ' + (box ? box->text() : QString()));
            modal->close();
            return;
        }
        Answer answer = std::move(answers.front());
        answers.pop_front();
        answer(modal);
    }

    QTimer timer;
    std::deque<Answer> answers;
    QPointer<QWidget> lastAnswered;
};

// Picks `path` in a file dialog, or cancels it when `path` is empty.
ModalWatch::Answer chooseFile(const QString& path, Seen* seen)
{
    return [path, seen](QWidget* modal) {
        seen->kind = QString::fromLatin1(modal->metaObject()->className());
        seen->title = modal->windowTitle();
        auto* dialog = qobject_cast<QFileDialog*>(modal);
        if (!dialog) {
            modal->close();
            return;
        }
        seen->filters = dialog->nameFilters();
        seen->directory = dialog->directory().absolutePath();
        seen->selected = dialog->selectedFiles();
        if (path.isEmpty()) {
            dialog->reject();
            return;
        }
        // Typed into the name field, as the operator does: selectFile leaves a focused field alone.
        auto* name = dialog->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        if (!name) {
            dialog->reject();
            return;
        }
        name->setText(path);
        static_cast<QDialog*>(dialog)->accept(); // QFileDialog::accept checks the choice, as OK does
    };
}

ModalWatch::Answer pressOk(Seen* seen)
{
    return [seen](QWidget* modal) {
        seen->kind = QString::fromLatin1(modal->metaObject()->className());
        seen->title = modal->windowTitle();
        auto* box = qobject_cast<QMessageBox*>(modal);
        if (!box || !box->button(QMessageBox::Ok)) {
            modal->close();
            return;
        }
        seen->text = box->text();
        box->button(QMessageBox::Ok)->click();
    };
}

QPushButton* buttonNamed(const StudioWindow& window, const QString& text)
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return each;
    return nullptr;
}

QJsonArray scenesJson(const std::vector<SceneDef>& list)
{
    QJsonArray array;
    for (const SceneDef& each : list)
        array.append(each.toJson());
    return array;
}

QColor centreOf(const QImage& image)
{
    return image.isNull() ? QColor() : image.pixelColor(image.width() / 2, image.height() / 2);
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
    if (image.isNull())
        return false;
    for (int y = 0; y < 18; ++y)
        for (int x = 0; x < 32; ++x)
            if (image.pixelColor((2 * x + 1) * image.width() / 64, (2 * y + 1) * image.height() / 36) !=
                Qt::black)
                return false;
    return true;
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

// The camera's test pattern has reached the picture: its centre is a bar, not black.
bool showsPicture(const QImage& image)
{
    return !image.isNull() && centreOf(image) != QColor(Qt::black);
}

const QString projectDone =
    QStringLiteral("Proyecto guardado/abierto. Programa comienza en negro; claves no se incluyen.");

} // namespace

// Project open and save on a real window: the file one studio writes, another opens, with real
// pictures and a real video behind its layers.
class tst_Project : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void savedProjectOpensTheSameInAnotherStudio();
    void olderVersionsOpen_data();
    void olderVersionsOpen();
    void missingFilesAreNamedInOneWarning();
    void refusedFilesChangeNothing_data();
    void refusedFilesChangeNothing();
    void runningOutputRefusesOpenAndSave();
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
    gst_init(nullptr, nullptr);
    folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(folder));

    picturePath = folder + QStringLiteral("/logo.png");
    QImage picture(64, 32, QImage::Format_RGB32);
    picture.fill(QColor(10, 200, 30));
    QVERIFY(picture.save(picturePath));

    const QString videoPath = folder + QStringLiteral("/clip.webm");
    QFile::remove(videoPath);
    const QByteArray description =
        "videotestsrc num-buffers=30 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
        "vp8enc deadline=1 ! webmmux ! filesink location=\"" +
        QFile::encodeName(videoPath) + '"';
    QVERIFY(runToEnd(description));
    videoUri = QUrl::fromLocalFile(videoPath).toString();
}

QByteArray tst_Project::stateOf(StudioWindow& window)
{
    QJsonArray media;
    auto addMedia = [&media](const std::vector<SceneDef>& list) {
        for (const SceneDef& each : list)
            for (const Layer& layer : each.layers)
                media.append(QString::asprintf("%p %p", static_cast<void*>(layer.media.get()),
                                               static_cast<void*>(layer.image.get())));
    };
    addMedia(window.scenes[0]);
    addMedia(window.scenes[1]);
    addMedia({window.program, window.hallProgram});
    const QJsonObject state{
        {QStringLiteral("stream"), scenesJson(window.scenes[0])},
        {QStringLiteral("hall"), scenesJson(window.scenes[1])},
        {QStringLiteral("program"), window.program.toJson()},
        {QStringLiteral("hallProgram"), window.hallProgram.toJson()},
        {QStringLiteral("current"), QJsonArray{window.current[0], window.current[1]}},
        {QStringLiteral("format"), window.formatCombo->currentIndex()},
        {QStringLiteral("size"), QJsonArray{window.width, window.height}},
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
    const QStringList keys{QStringLiteral("clave-youtube-7f3a9"), QStringLiteral("FB-1234-clave-5678"),
                           QStringLiteral("apibible-9c1e77d2")};

    QJsonArray savedStream;
    QJsonArray savedHall;
    {
        StudioWindow author(false);
        author.formatCombo->setCurrentIndex(1);
        QCOMPARE(author.height, 1920);

        // Stream bus: the default scene gets a picture and the video, as the operator adds them.
        author.addImageLayer(picturePath);
        author.addVideoLayer(videoUri);
        SceneDef sermon;
        sermon.name = QStringLiteral("Predicación");
        Layer verse;
        verse.kind = Layer::Kind::Verse;
        verse.name = QStringLiteral("Versículo");
        verse.reference = QStringLiteral("Juan 3:16");
        verse.text = QStringLiteral("Porque de tal manera amó Dios al mundo…");
        verse.rect = QRectF(0.05, 0.6, 0.9, 0.3);
        Layer subtitles;
        subtitles.kind = Layer::Kind::Subtitle;
        subtitles.name = QStringLiteral("Subtítulos");
        subtitles.size = 40;
        subtitles.align = int(Qt::AlignLeft | Qt::AlignBottom);
        Layer colour;
        colour.kind = Layer::Kind::Color;
        colour.name = QStringLiteral("Fondo");
        colour.fill = QColor(120, 20, 60, 200);
        colour.opacity = 0.75;
        sermon.layers = {colour, verse, subtitles};
        author.scenes[0].push_back(sermon);
        author.current[0] = 1;

        // Hall bus: a second scene with text and the same picture.
        author.busChosen(1);
        SceneDef welcome;
        welcome.name = QStringLiteral("Bienvenida");
        Layer text;
        text.kind = Layer::Kind::Text;
        text.name = QStringLiteral("Saludo");
        text.text = QStringLiteral("¡Bienvenidos!");
        text.font = QStringLiteral("DejaVu Sans");
        text.bold = false;
        text.color = QColor(255, 220, 0);
        welcome.layers = {text};
        author.scenes[1].push_back(welcome);
        author.current[1] = 1;
        author.refreshSceneList();
        author.addImageLayer(picturePath);
        author.busChosen(0);

        author.bandCheck->setChecked(true);
        author.overlayField->setText(QStringLiteral("Culto de domingo"));
        author.gainSlider->setValue(150);
        author.destinations[0].server->setText(QStringLiteral("rtmp://127.0.0.1/live"));
        author.destinations[0].key->setText(keys[0]);
        author.destinations[1].key->setText(keys[1]);
        author.apiBibleKeyField->setText(keys[2]);
        savedStream = scenesJson(author.scenes[0]);
        savedHall = scenesJson(author.scenes[1]);

        ModalWatch watch;
        Seen dialog;
        watch.expect(chooseFile(path, &dialog));
        QPushButton* pressed = buttonNamed(author, QStringLiteral("Guardar proyecto"));
        QVERIFY(pressed);
        pressed->click();
        QVERIFY2(watch.allAnswered() && watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
        QCOMPARE(dialog.kind, QStringLiteral("QFileDialog"));
        QCOMPARE(dialog.title, QStringLiteral("Guardar proyecto"));
        QCOMPARE(dialog.filters, QStringList{QStringLiteral("Velmora (*.tavrin)")});
        QCOMPARE(author.statusLabel->text(), projectDone);
    }

    QVERIFY(QFile::exists(path));
    QVERIFY(!QFile::exists(path + QStringLiteral(".tavrin")));
    const QByteArray written = readFile(path);
    for (const QString& key : keys)
        QVERIFY2(!written.contains(key.toUtf8()), qPrintable(key));

    StudioWindow reader(false);
    reader.fadeCheck->setChecked(false);
    reader.scene().layers[0].kind = Layer::Kind::Color;
    reader.scene().layers[0].fill = QColor(200, 0, 0);
    reader.overlayField->setText(QStringLiteral("Anuncios"));
    reader.bandCheck->setChecked(true);
    reader.take();
    QTRY_COMPARE(centreOf(reader.programMonitor->image), QColor(200, 0, 0));
    QVERIFY(!allBlack(reader.programMonitor->image));
    QVERIFY(!reader.hallProgram.layers.empty());

    ModalWatch watch;
    Seen dialog;
    watch.expect(chooseFile(path, &dialog));
    QPushButton* pressed = buttonNamed(reader, QStringLiteral("Abrir proyecto"));
    QVERIFY(pressed);
    pressed->click();
    QVERIFY2(watch.allAnswered() && watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(dialog.kind, QStringLiteral("QFileDialog"));
    QCOMPARE(dialog.title, QStringLiteral("Abrir proyecto"));
    QCOMPARE(dialog.filters, QStringList{QStringLiteral("Velmora (*.tavrin)")});
    QCOMPARE(reader.statusLabel->text(), projectDone);

    QCOMPARE(scenesJson(reader.scenes[0]), savedStream);
    QCOMPARE(scenesJson(reader.scenes[1]), savedHall);
    QCOMPARE(reader.current[0], 1);
    QCOMPARE(reader.current[1], 1);
    QCOMPARE(reader.sceneCombo->count(), 2);
    QCOMPARE(reader.sceneCombo->currentText(), QStringLiteral("Predicación"));
    QCOMPARE(reader.formatCombo->currentIndex(), 1);
    QCOMPARE(reader.width, 1080);
    QCOMPARE(reader.height, 1920);
    QVERIFY(reader.bandCheck->isChecked());
    QCOMPARE(reader.overlayField->text(), QStringLiteral("Culto de domingo"));
    QCOMPARE(reader.gainSlider->value(), 150);
    QCOMPARE(reader.audioState.gain, 1.5);

    // Pictures are decoded again from their files and the video runs again from its address.
    const Layer& picture = reader.scenes[0][0].layers[1];
    QCOMPARE(picture.kind, Layer::Kind::Image);
    QVERIFY(picture.image);
    QCOMPARE(picture.image->width, 64);
    QCOMPARE(picture.image->height, 32);
    QCOMPARE(picture.image->pixels[0], std::uint8_t(10));
    QCOMPARE(picture.image->pixels[1], std::uint8_t(200));
    QVERIFY(reader.scenes[1][1].layers.back().image);
    const Layer& video = reader.scenes[0][0].layers[2];
    QCOMPARE(video.kind, Layer::Kind::Video);
    QVERIFY(video.media);
    QTRY_VERIFY_WITH_TIMEOUT(video.media->frameCount > 0, 10000);
    QCOMPARE(video.media->latest.width, 1080); // opened at the project's vertical size
    QCOMPARE(video.media->latest.height, 1920);

    // Whatever either Program showed before, both start black.
    QVERIFY(reader.program.layers.empty());
    QVERIFY(reader.hallProgram.layers.empty());
    // Black all over: the lower third frozen at the last take went too, though the title box and
    // "Banda" now hold the project's.
    QTRY_VERIFY(allBlack(reader.programMonitor->image));
    QTRY_VERIFY(allBlack(reader.hallMonitor->image));

    // The opened file is where the next save starts; cancelling it ends quietly.
    Seen again;
    watch.expect(chooseFile(QString(), &again));
    reader.project(true);
    QVERIFY(watch.allAnswered());
    QCOMPARE(again.title, QStringLiteral("Guardar proyecto"));
    QCOMPARE(again.selected, QStringList{path});
    QCOMPARE(readFile(path), written);
    QCOMPARE(reader.statusLabel->text(), projectDone);
    QVERIFY2(watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
}

void tst_Project::olderVersionsOpen_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("sceneName");
    QTest::addColumn<QList<int>>("kinds");

    const QByteArray picture = picturePath.toUtf8();
    const QByteArray video = videoUri.toUtf8();
    const int camera = int(Layer::Kind::Camera);
    const int image = int(Layer::Kind::Image);
    const int clip = int(Layer::Kind::Video);
    QTest::newRow("version 1") << QByteArray(R"({"version":1,"gain":90,"scene":0,"image":")" + picture +
                                             R"(","media":")" + video + R"("})")
                               << QStringLiteral("Escena 1") << QList<int>{camera, image, clip};
    QTest::newRow("version 2 without hall")
        << QByteArray(R"({"version":2,"gain":90,"scenes":[{"name":"Culto","layers":[)"
                      R"({"kind":"image","name":"Logo","path":")" +
                      picture + R"("},{"kind":"video","name":"Clip","uri":")" + video + R"("}]}]})")
        << QStringLiteral("Culto") << QList<int>{image, clip};
}

void tst_Project::olderVersionsOpen()
{
    QFETCH(QByteArray, document);
    QFETCH(QString, sceneName);
    QFETCH(QList<int>, kinds);

    const QString path = folder + QStringLiteral("/older.tavrin");
    QVERIFY(writeFile(path, document));
    StudioWindow window(false);
    window.take();
    ModalWatch watch;
    window.openProject(path);
    QVERIFY2(watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(window.statusLabel->text(), projectDone);

    QCOMPARE(window.scenes[0].size(), std::size_t(1));
    const SceneDef& stream = window.scenes[0][0];
    QCOMPARE(stream.name, sceneName);
    QList<int> found;
    for (const Layer& layer : stream.layers) {
        found.append(int(layer.kind));
        if (layer.kind == Layer::Kind::Image)
            QVERIFY(layer.image && layer.image->width == 64);
        if (layer.kind == Layer::Kind::Video)
            QVERIFY(layer.media);
    }
    QCOMPARE(found, kinds);
    // Neither version has Hall scenes: the Hall bus gets its default one.
    QCOMPARE(scenesJson(window.scenes[1]), QJsonArray{window.defaultScene(1).toJson()});
    QCOMPARE(window.gainSlider->value(), 90);
    QVERIFY(window.program.layers.empty());
    QVERIFY(window.hallProgram.layers.empty());
}

void tst_Project::missingFilesAreNamedInOneWarning()
{
    const QString gone = folder + QStringLiteral("/gone");
    QDir(gone).removeRecursively();
    const QString missingPicture = gone + QStringLiteral("/logo.png");
    const QString missingVideo = QUrl::fromLocalFile(gone + QStringLiteral("/clip.webm")).toString();
    const QJsonObject document{
        {QStringLiteral("version"), 3},
        {QStringLiteral("gain"), 100},
        {QStringLiteral("scenes"),
         QJsonArray{QJsonObject{{QStringLiteral("name"), QStringLiteral("Culto")},
                                {QStringLiteral("layers"),
                                 QJsonArray{QJsonObject{{QStringLiteral("kind"), QStringLiteral("text")},
                                                        {QStringLiteral("name"), QStringLiteral("Título")},
                                                        {QStringLiteral("text"), QStringLiteral("Hola")}},
                                            QJsonObject{{QStringLiteral("kind"), QStringLiteral("video")},
                                                        {QStringLiteral("name"), QStringLiteral("Clip")},
                                                        {QStringLiteral("uri"), missingVideo}}}}}}},
        {QStringLiteral("hall"),
         QJsonArray{QJsonObject{{QStringLiteral("name"), QStringLiteral("Sala")},
                                {QStringLiteral("layers"),
                                 QJsonArray{QJsonObject{{QStringLiteral("kind"), QStringLiteral("image")},
                                                        {QStringLiteral("name"), QStringLiteral("Logo")},
                                                        {QStringLiteral("path"), missingPicture}},
                                            QJsonObject{{QStringLiteral("kind"), QStringLiteral("image")},
                                                        {QStringLiteral("name"), QStringLiteral("Bueno")},
                                                        {QStringLiteral("path"), picturePath}}}}}}},
    };
    const QString path = folder + QStringLiteral("/missing.tavrin");
    QVERIFY(writeFile(path, QJsonDocument(document).toJson()));

    StudioWindow window(false);
    ModalWatch watch;
    Seen warning;
    watch.expect(pressOk(&warning));
    window.openProject(path);
    QVERIFY(watch.allAnswered());
    QVERIFY2(watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(warning.kind, QStringLiteral("QMessageBox"));
    QCOMPARE(warning.title, QStringLiteral("Abrir proyecto"));
    const QStringList lines = warning.text.split(u'\n');
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines[0], QStringLiteral("Clip: No se pudo iniciar fuente"));
    QCOMPARE(lines[1], QStringLiteral("Logo: Imagen inválida o demasiado grande"));
    QCOMPARE(window.statusLabel->text(), projectDone);

    // The layers stay, without their pictures, and what could be opened was.
    const std::vector<Layer>& stream = window.scenes[0][0].layers;
    QCOMPARE(stream.size(), std::size_t(2));
    QCOMPARE(stream[1].uri, missingVideo);
    QVERIFY(!stream[1].media);
    const std::vector<Layer>& hall = window.scenes[1][0].layers;
    QCOMPARE(hall.size(), std::size_t(2));
    QCOMPARE(hall[0].path, missingPicture);
    QVERIFY(!hall[0].image);
    QVERIFY(hall[1].image);
    // And the studio goes on drawing them.
    const QImage before = window.canvas->frame;
    QTRY_VERIFY(window.canvas->frame.cacheKey() != before.cacheKey());
}

void tst_Project::refusedFilesChangeNothing_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("message");

    // Each asks for the vertical format, which must not be applied either.
    const QString invalid = QStringLiteral("Proyecto inválido");
    const QString version = QStringLiteral("Versión de proyecto inválida");
    const QString options = QStringLiteral("Opciones de proyecto inválidas");
    QTest::newRow("damaged") << QByteArray(R"({"version":3,"gain":100,"vertical":true,"scenes":[{"name":)")
                             << version;
    QTest::newRow("oversized") << QByteArray(R"({"version":3,"gain":100,"vertical":true})") +
                                      QByteArray(4194304, ' ')
                               << invalid;
    QTest::newRow("wrong version") << QByteArray(R"({"version":4,"gain":100,"vertical":true})") << version;
    QTest::newRow("no gain") << QByteArray(R"({"version":3,"vertical":true,"scenes":[{"name":"Otra"}]})")
                             << options;
}

void tst_Project::refusedFilesChangeNothing()
{
    QFETCH(QByteArray, document);
    QFETCH(QString, message);

    const QString path = folder + QStringLiteral("/refused.tavrin");
    QVERIFY(writeFile(path, document));
    StudioWindow window(false);
    window.fadeCheck->setChecked(false);
    window.take();
    QTRY_VERIFY(showsPicture(window.programMonitor->image));
    const QByteArray before = stateOf(window);

    // Through the button, as the operator meets it: the dialog, then the failure's warning.
    ModalWatch watch;
    Seen dialog;
    Seen warning;
    watch.expect(chooseFile(path, &dialog));
    watch.expect(pressOk(&warning));
    QPushButton* pressed = buttonNamed(window, QStringLiteral("Abrir proyecto"));
    QVERIFY(pressed);
    pressed->click();
    QVERIFY(watch.allAnswered());
    QVERIFY2(watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(warning.kind, QStringLiteral("QMessageBox"));
    QCOMPARE(warning.text, message);
    QCOMPARE(window.statusLabel->text(), message);
    QCOMPARE(stateOf(window), before);
    QVERIFY(showsPicture(window.programMonitor->image));
}

void tst_Project::runningOutputRefusesOpenAndSave()
{
    const QString path = folder + QStringLiteral("/while-recording.tavrin");
    QVERIFY(writeFile(path, R"({"version":3,"gain":10,"vertical":true,"scenes":[{"name":"Otra"}]})"));
    const QString saveTarget = folder + QStringLiteral("/not-saved.tavrin");
    QFile::remove(saveTarget);

    StudioWindow window(false);
    window.startRecording(folder + QStringLiteral("/while-project.webm"));
    QVERIFY(window.recording);
    const QByteArray before = stateOf(window);
    const QByteArray refusal("Detén salidas antes de abrir/guardar proyecto");

    // No dialog may open: the watch would record it.
    ModalWatch watch;
    const std::vector<std::function<void()>> attempts{
        [&] { window.project(true); }, [&] { window.project(false); }, [&] { window.openProject(path); }};
    for (const auto& attempt : attempts) {
        try {
            attempt();
            QFAIL("a project must not be opened or saved while an output runs");
        } catch (const std::runtime_error& error) {
            QCOMPARE(QByteArray(error.what()), refusal);
        }
    }
    QVERIFY2(watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));

    Seen warning;
    watch.expect(pressOk(&warning));
    QPushButton* pressed = buttonNamed(window, QStringLiteral("Guardar proyecto"));
    QVERIFY(pressed);
    pressed->click();
    QVERIFY(watch.allAnswered());
    QVERIFY2(watch.unexpected.isEmpty(), qPrintable(watch.unexpected.join(u'\n')));
    QCOMPARE(warning.text, QString::fromUtf8(refusal));
    QCOMPARE(window.statusLabel->text(), QString::fromUtf8(refusal));
    QVERIFY(!QFile::exists(saveTarget));
    QCOMPARE(stateOf(window), before);
    QVERIFY(window.recording && window.recording->running);
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
    QCOMPARE(window.program.layers.size(), std::size_t(2));
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
}

QTEST_MAIN(tst_Project)
#include "tst_project.moc"
