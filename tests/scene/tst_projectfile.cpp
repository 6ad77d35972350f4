#include "ProjectFile.h"
#include "i18n.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTest>
#include <functional>
#include <stdexcept>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#endif

class tst_ProjectFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void roundTripKeepsEverything();
    void writtenDocumentHasNineKeys();
    void versionOne_data();
    void versionOne();
    void versionTwoAndThreeLists_data();
    void versionTwoAndThreeLists();
    void missingOptionsTakeDefaults();
    void refused_data();
    void refused();
    void titleIsCut();
    void indexClamp_data();
    void indexClamp();
    void fileRoundTrip();
    void readFileLimits_data();
    void readFileLimits();
    void saveIntoMissingFolderFails();
    void failedSaveKeepsFormerFile();

private:
    QString outputPath(const QString& name) const { return QDir(outputDir).filePath(name); }
    QString outputDir;
};

// The message of the runtime_error thrown by call, or an empty string when nothing is thrown.
static QString thrownMessage(const std::function<void()>& call)
{
    try {
        call();
    } catch (const std::runtime_error& error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

static QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

static QJsonArray scenesJson(const std::vector<SceneDef>& scenes)
{
    QJsonArray array;
    for (const SceneDef& scene : scenes)
        array.append(scene.toJson());
    return array;
}

static void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    QCOMPARE(file.write(bytes), bytes.size());
}

static QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

static ProjectData sampleProject()
{
    Layer camera;
    camera.name = QStringLiteral("Cámara principal");
    camera.opacity = 0.5;

    Layer text;
    text.kind = Layer::Kind::Text;
    text.name = QStringLiteral("Bienvenida");
    text.text = QStringLiteral("Bienvenidos «hermanos»");
    text.rect = QRectF(0.1, 0.7, 0.8, 0.2);
    text.size = 72;
    text.color = QColor(10, 20, 30);

    Layer image;
    image.kind = Layer::Kind::Image;
    image.name = QStringLiteral("logo.png");
    image.path = QStringLiteral("/srv/iglesia/logo.png");
    image.visible = false;

    Layer video;
    video.kind = Layer::Kind::Video;
    video.name = QStringLiteral("Video");
    video.uri = QStringLiteral("rtsp://10.0.0.5/stream");
    video.sound = false;

    Layer verse;
    verse.kind = Layer::Kind::Verse;
    verse.text = QStringLiteral("Porque de tal manera amó Dios al mundo");
    verse.reference = QStringLiteral("Juan 3:16");

    ProjectData project;
    project.vertical = true;
    project.current = 1;
    project.currentHall = 0;
    project.scenes = {SceneDef{QStringLiteral("Culto"), {camera, text}}, SceneDef{QStringLiteral("Anuncios"), {image, video}}};
    project.hall = {SceneDef{QStringLiteral("Sala"), {verse}}};
    project.band = true;
    project.title = QStringLiteral("Servicio dominical");
    project.gain = 150;
    return project;
}

void tst_ProjectFile::initTestCase()
{
    outputDir = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(outputDir));
}

void tst_ProjectFile::roundTripKeepsEverything()
{
    const ProjectData written = sampleProject();
    const ProjectData read = readProject(writeProject(written));

    QCOMPARE(read.vertical, written.vertical);
    QCOMPARE(read.current, written.current);
    QCOMPARE(read.currentHall, written.currentHall);
    QCOMPARE(read.band, written.band);
    QCOMPARE(read.title, written.title);
    QCOMPARE(read.gain, written.gain);
    QCOMPARE(scenesJson(read.scenes), scenesJson(written.scenes));
    QCOMPARE(scenesJson(read.hall), scenesJson(written.hall));
    QCOMPARE(read.scenes.at(1).layers.at(1).uri, QStringLiteral("rtsp://10.0.0.5/stream"));
    QCOMPARE(read.hall.at(0).layers.at(0).reference, QStringLiteral("Juan 3:16"));

    // The opposite values of every option survive too.
    ProjectData other = written;
    other.vertical = false;
    other.band = false;
    other.current = 0;
    other.currentHall = 3;
    other.gain = 0;
    other.title.clear();
    const ProjectData readOther = readProject(writeProject(other));
    QCOMPARE(readOther.vertical, false);
    QCOMPARE(readOther.band, false);
    QCOMPARE(readOther.currentHall, 3);
    QCOMPARE(readOther.gain, 0);
    QCOMPARE(readOther.title, QString());
}

void tst_ProjectFile::writtenDocumentHasNineKeys()
{
    const QByteArray bytes = writeProject(sampleProject());
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    QCOMPARE(error.error, QJsonParseError::NoError);
    QVERIFY(document.isObject());

    const QJsonObject root = document.object();
    const QStringList keys = root.keys();
    const QSet<QString> expected{"version", "vertical", "current", "currentHall", "scenes", "hall", "band", "title", "gain"};
    QCOMPARE(QSet<QString>(keys.begin(), keys.end()), expected);
    QVERIFY(root.value("version").isDouble());
    QCOMPARE(root.value("version").toInt(), 3);
    QCOMPARE(root.value("scenes").toArray().size(), 2);
    QCOMPARE(root.value("hall").toArray().size(), 1);
    QCOMPARE(root.value("scenes").toArray().at(0).toObject().keys(), QStringList({"layers", "name"}));

    // Indented, so a volunteer can read and diff it.
    QVERIFY(bytes.contains("\n    \"version\": 3"));
}

void tst_ProjectFile::versionOne_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QList<int>>("kinds");
    QTest::addColumn<QRectF>("imageRect");

    const QRectF corner(0.8, 0.03, 0.17, 0.17);
    const QRectF full(0, 0, 1, 1);
    const int camera = int(Layer::Kind::Camera);
    const int image = int(Layer::Kind::Image);
    const int video = int(Layer::Kind::Video);
    const QByteArray both = R"("image":"/home/ana/fotos/logo.png","media":"file:///home/ana/intro.mp4")";

    QTest::newRow("scene 0 with image and media")
        << QByteArray(R"({"version":1,"gain":100,"scene":0,)" + both + "}") << QList<int>{camera, image, video} << corner;
    QTest::newRow("scene 1 with image and media")
        << QByteArray(R"({"version":1,"gain":100,"scene":1,)" + both + "}") << QList<int>{image, video} << corner;
    QTest::newRow("scene 2 with image and media")
        << QByteArray(R"({"version":1,"gain":100,"scene":2,)" + both + "}") << QList<int>{image, video} << full;
    QTest::newRow("missing scene is 0")
        << QByteArray(R"({"version":1,"gain":100,)" + both + "}") << QList<int>{camera, image, video} << corner;
    QTest::newRow("scene 0 alone") << QByteArray(R"({"version":1,"gain":100})") << QList<int>{camera} << QRectF();
    QTest::newRow("scene 1 alone is empty") << QByteArray(R"({"version":1,"gain":100,"scene":1,"image":"","media":""})")
                                            << QList<int>{} << QRectF();
    QTest::newRow("scene 2 with media only")
        << QByteArray(R"({"version":1,"gain":100,"scene":2,"media":"file:///home/ana/intro.mp4"})") << QList<int>{video}
        << QRectF();
}

void tst_ProjectFile::versionOne()
{
    QFETCH(QByteArray, document);
    QFETCH(QList<int>, kinds);
    QFETCH(QRectF, imageRect);

    const ProjectData project = readProject(document);
    QCOMPARE(project.scenes.size(), std::size_t(1));
    QVERIFY(project.hall.empty());
    const SceneDef& scene = project.scenes.front();
    QCOMPARE(scene.name, T("Escena 1"));
    QCOMPARE(scene.layers.size(), std::size_t(kinds.size()));

    for (std::size_t i = 0; i < scene.layers.size(); ++i) {
        const Layer& layer = scene.layers[i];
        QCOMPARE(int(layer.kind), kinds.at(qsizetype(i)));
        switch (layer.kind) {
        case Layer::Kind::Camera:
            QCOMPARE(layer.name, T("Cámara"));
            QCOMPARE(layer.rect, QRectF(0, 0, 1, 1));
            break;
        case Layer::Kind::Image:
            QCOMPARE(layer.name, QStringLiteral("logo.png"));
            QCOMPARE(layer.path, QStringLiteral("/home/ana/fotos/logo.png"));
            QCOMPARE(layer.rect, imageRect);
            QVERIFY(!layer.image);
            break;
        case Layer::Kind::Video:
            QCOMPARE(layer.name, T("Video"));
            QCOMPARE(layer.uri, QStringLiteral("file:///home/ana/intro.mp4"));
            QVERIFY(!layer.media);
            break;
        default:
            QFAIL("unexpected layer kind");
        }
    }
}

void tst_ProjectFile::versionTwoAndThreeLists_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QStringList>("scenes");
    QTest::addColumn<QStringList>("hall");

    QTest::newRow("version 2 with both lists")
        << QByteArray(R"({"version":2,"gain":80,"scenes":[{"name":"A","layers":[{"kind":"text","text":"Hola"}]},{"name":"B"}],)"
                      R"("hall":[{"name":"H","layers":[]}]})")
        << QStringList{"A", "B"} << QStringList{"H"};
    QTest::newRow("version 2 without hall") << QByteArray(R"({"version":2,"gain":80,"scenes":[{"name":"A"}]})")
                                            << QStringList{"A"} << QStringList{};
    QTest::newRow("empty scenes") << QByteArray(R"({"version":3,"gain":80,"scenes":[],"hall":[{"name":"H"}]})")
                                  << QStringList{} << QStringList{"H"};
    QTest::newRow("no lists at all") << QByteArray(R"({"version":3,"gain":80})") << QStringList{} << QStringList{};
    QTest::newRow("version 2 ignores the version 1 keys")
        << QByteArray(R"({"version":2,"gain":80,"scene":0,"image":"/a.png","media":"file:///b.mp4"})") << QStringList{}
        << QStringList{};
}

void tst_ProjectFile::versionTwoAndThreeLists()
{
    QFETCH(QByteArray, document);
    QFETCH(QStringList, scenes);
    QFETCH(QStringList, hall);

    const ProjectData project = readProject(document);
    QStringList sceneNames;
    for (const SceneDef& scene : project.scenes)
        sceneNames << scene.name;
    QStringList hallNames;
    for (const SceneDef& scene : project.hall)
        hallNames << scene.name;
    QCOMPARE(sceneNames, scenes);
    QCOMPARE(hallNames, hall);
    if (!project.scenes.empty() && project.scenes.front().name == "A" && hall == QStringList{"H"}) {
        QCOMPARE(project.scenes.front().layers.size(), std::size_t(1));
        QCOMPARE(project.scenes.front().layers.front().text, QStringLiteral("Hola"));
    }
}

void tst_ProjectFile::missingOptionsTakeDefaults()
{
    const ProjectData project = readProject(R"({"version":3,"gain":0})");
    QCOMPARE(project.vertical, false);
    QCOMPARE(project.current, 0);
    QCOMPARE(project.currentHall, 0);
    QCOMPARE(project.band, false);
    QCOMPARE(project.title, QString());
    QCOMPARE(project.gain, 0);

    QCOMPARE(readProject(R"({"version":3,"gain":200})").gain, 200);
}

void tst_ProjectFile::refused_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QString>("message");

    const QString version = QStringLiteral("Versión de proyecto inválida");
    const QString options = QStringLiteral("Opciones de proyecto inválidas");

    QTest::newRow("version 0") << QByteArray(R"({"version":0,"gain":100})") << version;
    QTest::newRow("version 4") << QByteArray(R"({"version":4,"gain":100})") << version;
    QTest::newRow("version as text") << QByteArray(R"({"version":"3","gain":100})") << version;
    QTest::newRow("version fractional") << QByteArray(R"({"version":2.5,"gain":100})") << version;
    QTest::newRow("version missing") << QByteArray(R"({"gain":100})") << version;
    QTest::newRow("not JSON") << QByteArray("Esto no es un proyecto") << version;
    QTest::newRow("cut-off JSON") << QByteArray(R"({"version":3,"gain":100)") << version;
    QTest::newRow("array document") << QByteArray(R"([{"version":3,"gain":100}])") << version;
    QTest::newRow("empty file") << QByteArray() << version;
    QTest::newRow("bad version wins over missing gain") << QByteArray(R"({"version":7})") << version;
    QTest::newRow("gain missing") << QByteArray(R"({"version":3,"vertical":false,"current":0,"currentHall":0,)"
                                                R"("scenes":[],"hall":[],"band":false,"title":""})")
                                  << options;
    QTest::newRow("gain missing in version 1") << QByteArray(R"({"version":1,"scene":0})") << options;
    QTest::newRow("gain 201") << QByteArray(R"({"version":3,"gain":201})") << options;
    QTest::newRow("gain -1") << QByteArray(R"({"version":3,"gain":-1})") << options;
    QTest::newRow("gain as text") << QByteArray(R"({"version":3,"gain":"100"})") << options;
}

void tst_ProjectFile::refused()
{
    QFETCH(QByteArray, document);
    QFETCH(QString, message);
    QCOMPARE(thrownMessage([&] { readProject(document); }), message);
}

void tst_ProjectFile::titleIsCut()
{
    QString title;
    for (int i = 0; i < 600; ++i)
        title.append(QChar(u'a' + i % 26));
    const ProjectData project = readProject(json({{"version", 3}, {"gain", 100}, {"title", title}}));
    QCOMPARE(project.title.size(), 500);
    QCOMPARE(project.title, title.left(500));

    const QString exact(500, QChar(u'ñ'));
    QCOMPARE(readProject(json({{"version", 3}, {"gain", 100}, {"title", exact}})).title, exact);
}

void tst_ProjectFile::indexClamp_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<int>("sceneCount");
    QTest::addColumn<int>("expected");

    QTest::newRow("99 with two scenes") << 99 << 2 << 1;
    QTest::newRow("-3 with two scenes") << -3 << 2 << 0;
    QTest::newRow("in range") << 1 << 2 << 1;
    QTest::newRow("one scene") << 5 << 1 << 0;
    QTest::newRow("no scenes") << 4 << 0 << 0;
}

void tst_ProjectFile::indexClamp()
{
    QFETCH(int, stored);
    QFETCH(int, sceneCount);
    QFETCH(int, expected);

    QJsonArray scenes;
    for (int i = 0; i < sceneCount; ++i)
        scenes.append(QJsonObject{{"name", QStringLiteral("S%1").arg(i)}});
    const ProjectData project = readProject(json(
        {{"version", 3}, {"gain", 100}, {"current", stored}, {"currentHall", stored}, {"scenes", scenes}, {"hall", scenes}}));
    // Stored values come back as they are; the clamp applies to the final lists.
    QCOMPARE(project.current, stored);
    QCOMPARE(clampedIndex(project.current, project.scenes.size()), expected);
    QCOMPARE(clampedIndex(project.currentHall, project.hall.size()), expected);
}

void tst_ProjectFile::fileRoundTrip()
{
    const QString path = outputPath("roundtrip.tavrin");
    QFile::remove(path);
    const ProjectData written = sampleProject();
    writeProjectFile(path, writeProject(written));
    const ProjectData read = readProject(readProjectFile(path));
    QCOMPARE(scenesJson(read.scenes), scenesJson(written.scenes));
    QCOMPARE(scenesJson(read.hall), scenesJson(written.hall));
    QCOMPARE(read.title, written.title);

    // Saving again replaces the file and leaves nothing beside it.
    ProjectData changed = written;
    changed.title = QStringLiteral("Segundo servicio");
    writeProjectFile(path, writeProject(changed));
    QCOMPARE(readProject(readProjectFile(path)).title, changed.title);
    const QStringList leftovers = QDir(outputDir).entryList({"roundtrip.tavrin*"}, QDir::Files | QDir::Hidden);
    QCOMPARE(leftovers, QStringList{"roundtrip.tavrin"});
}

void tst_ProjectFile::readFileLimits_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("exactly the limit") << QStringLiteral("limit.tavrin") << qint64(4194304) << true;
    QTest::newRow("one byte over") << QStringLiteral("over.tavrin") << qint64(4194305) << false;
    QTest::newRow("missing file") << QStringLiteral("missing.tavrin") << qint64(-1) << false;
}

void tst_ProjectFile::readFileLimits()
{
    QFETCH(QString, name);
    QFETCH(qint64, size);
    QFETCH(bool, accepted);

    const QString path = outputPath(name);
    QFile::remove(path);
    if (size >= 0) {
        // A valid project padded with blanks, so only the size decides.
        QByteArray bytes = writeProject(sampleProject());
        QVERIFY(bytes.size() < size);
        bytes.append(QByteArray(size - bytes.size(), ' '));
        writeBytes(path, bytes);
        QCOMPARE(QFileInfo(path).size(), size);
    }

    QByteArray read;
    const QString message = thrownMessage([&] { read = readProjectFile(path); });
    if (accepted) {
        QCOMPARE(message, QString());
        QCOMPARE(qint64(read.size()), size);
        QCOMPARE(readProject(read).title, sampleProject().title);
    } else {
        QCOMPARE(message, QStringLiteral("Proyecto inválido"));
    }
}

void tst_ProjectFile::saveIntoMissingFolderFails()
{
    const QString notAFolder = outputPath("plain-file");
    writeBytes(notAFolder, "not a folder");
    const QString path = notAFolder + "/proyecto.tavrin";
    QCOMPARE(thrownMessage([&] { writeProjectFile(path, writeProject(sampleProject())); }),
             QStringLiteral("No se pudo guardar proyecto"));

    const QString missing = outputPath("no-such-folder/proyecto.tavrin");
    QDir(outputPath("no-such-folder")).removeRecursively();
    QCOMPARE(thrownMessage([&] { writeProjectFile(missing, writeProject(sampleProject())); }),
             QStringLiteral("No se pudo guardar proyecto"));
    QVERIFY(!QFileInfo::exists(outputPath("no-such-folder")));
    QCOMPARE(fileBytes(notAFolder), QByteArray("not a folder"));
}

void tst_ProjectFile::failedSaveKeepsFormerFile()
{
#ifndef Q_OS_UNIX
    QSKIP("needs a file size limit to make the write fail");
#else
    const QString path = outputPath("former.tavrin");
    const QByteArray former = writeProject(sampleProject());
    writeBytes(path, former);

    // A project larger than the process may write makes the save fail part way, even as root.
    ProjectData big = sampleProject();
    big.scenes.resize(400, big.scenes.front());
    const QByteArray bytes = writeProject(big);
    QVERIFY(bytes.size() > former.size() * 4);

    rlimit saved{};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limited = saved;
    limited.rlim_cur = rlim_t(former.size() * 2);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const QString message = thrownMessage([&] { writeProjectFile(path, bytes); });
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previousHandler);

    QCOMPARE(message, QStringLiteral("No se pudo guardar proyecto"));
    QCOMPARE(fileBytes(path), former);
    const QStringList leftovers = QDir(outputDir).entryList({"former.tavrin*"}, QDir::Files | QDir::Hidden);
    QCOMPARE(leftovers, QStringList{"former.tavrin"});
#endif
}

QTEST_GUILESS_MAIN(tst_ProjectFile)
#include "tst_projectfile.moc"
