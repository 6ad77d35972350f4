#include "Layer.h"
#include "ProjectFile.h"
#include "SceneLimits.h"
#include "i18n.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <csignal>
#include <functional>
#include <sys/resource.h>

// Layers are written out member by member; those left out keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using Kind = Layer::Kind;

const QString outputDir = QStringLiteral(VELMORA_TEST_OUTPUT);
QString outputPath(const QString& name) { return QDir(outputDir).filePath(name); }

// The message of the runtime_error thrown by call; empty when nothing is thrown.
QString thrownMessage(const std::function<void()>& call)
{
    try { call(); } catch (const std::runtime_error& error) { return QString::fromUtf8(error.what()); }
    return {};
}

QByteArray json(const std::vector<SceneDef>& scenes)
{
    QJsonArray array;
    for (const SceneDef& scene : scenes)
        array.append(scene.toJson());
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size());
}

// Every option away from its default, and layers of several kinds.
ProjectData sampleProject()
{
    const Layer text{.kind = Kind::Text, .name = "Bienvenida", .rect = {0.1, 0.7, 0.8, 0.2}, .text = "«hermanos»"};
    const Layer video{.kind = Kind::Video, .name = "Video", .visible = false, .uri = "rtsp://10.0.0.5/stream"};
    return ProjectData{.vertical = true, .current = 5, .currentHall = 1,
                       .scenes = {SceneDef{"Culto", {{.kind = Kind::Camera}, text}}, {"Anuncios", {video}}},
                       .hall = {SceneDef{"Sala", {{.kind = Kind::Verse, .name = "Juan 3:16"}}}},
                       .band = true, .title = QStringLiteral("Servicio dominical"), .gain = 150};
}

// Every key of every kind, away from its default.
const QByteArray everyKey = R"({"name":"Capa ñ","visible":false,"opacity":0.25,"x":-0.2,"y":0.1,"w":0.5,)"
    R"("h":1.5,"cover":true,"path":"/tmp/foto.png","text":"Línea 1\nLínea 2","reference":"Juan 3:16",)"
    R"("font":"DejaVu Sans","size":72,"bold":false,"color":"#800a141e","background":"#00000000","align":33,)"
    R"("shadow":false,"uri":"rtsp://cam/1","sound":false,"fill":"#4d010203"})";

} // namespace

class tst_ProjectFile : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(QDir().mkpath(outputDir)); }

    void layerFromJson_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QRectF>("rect");
        QTest::addColumn<double>("opacity");
        QTest::addColumn<int>("size");
        const QRectF full(0, 0, 1, 1);
        QTest::newRow("subtitle word") << QByteArray(R"({"kind":"subtitle"})") << 7 << full << 1.0 << 56;
        // A box too thin to see or grab comes back full.
        QTest::newRow("thin width") << QByteArray(R"({"x":0.3,"y":0.4,"w":0.01,"h":0.5})") << 0 << full << 1.0 << 56;
        QTest::newRow("just wide enough") << QByteArray(R"({"x":0.3,"y":0.4,"w":0.0101,"h":0.5})") << 0
                                          << QRectF(0.3, 0.4, 0.0101, 0.5) << 1.0 << 56;
        QTest::newRow("opacity above one") << QByteArray(R"({"opacity":3})") << 0 << full << 1.0 << 56;
        QTest::newRow("size too small") << QByteArray(R"({"kind":"text","size":2})") << 2 << full << 1.0 << 8;
    }

    void layerFromJson()
    {
        QFETCH(QByteArray, json);
        const Layer layer = Layer::fromJson(QJsonDocument::fromJson(json).object());
        QTEST(int(layer.kind), "kind");
        QTEST(layer.rect, "rect");
        QTEST(layer.opacity, "opacity");
        QTEST(layer.size, "size");
    }

    void layerKeys_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QStringList>("ownKeys");
        const QStringList text{"text", "reference", "font", "size", "bold", "color", "background", "align", "shadow"};
        QTest::newRow("camera") << "camera" << QStringList{};
        QTest::newRow("video") << "video" << QStringList{"uri", "sound"};
        for (const char* kind : {"text", "verse", "subtitle"})
            QTest::newRow(kind) << kind << text;
    }

    // A kind keeps what is its own, as it was.
    void layerKeys()
    {
        QFETCH(QString, kind);
        QFETCH(QStringList, ownKeys);
        QJsonObject all = QJsonDocument::fromJson(everyKey).object();
        all.insert("kind", kind);
        QJsonObject own;
        for (const QString& key : QStringList{"kind", "name", "visible", "opacity", "x", "y", "w", "h", "cover"} +
                                      ownKeys)
            own.insert(key, all.value(key));
        QCOMPARE(Layer::fromJson(all).toJson(), own);
    }

    void roundTrip()
    {
        const QString path = outputPath("roundtrip.tavrin");
        QFile::remove(path);
        writeProjectFile(path, writeProject(sampleProject()));
        const QByteArray bytes = readProjectFile(path);
        QCOMPARE(writeProject(readProject(bytes)), bytes); // nothing was lost on the way
        // A title is cut at 500 characters; the current index is clamped to the final list.
        const auto titled = [](const QString& title) {
            return readProject(QJsonDocument(QJsonObject{{"version", 3}, {"gain", 100}, {"title", title}}).toJson());
        };
        const QString exact(500, QChar(u'ñ'));
        QCOMPARE(titled(exact).title, exact);
        QCOMPARE(titled(exact + "abc").title, exact);
        QCOMPARE(QList<int>({clampedIndex(99, 2), clampedIndex(-3, 2), clampedIndex(1, 2), clampedIndex(4, 0)}),
                 QList<int>({1, 0, 1, 0}));
    }

    void reading_data();

    void reading()
    {
        QFETCH(QByteArray, document);
        const QString path = outputPath("read.tavrin");
        QFile::remove(path);
        if (!document.isNull())
            writeBytes(path, document);
        ProjectData project;
        QTEST(thrownMessage([&] { project = readProject(readProjectFile(path)); }), "message");
        QFETCH(QByteArray, lists);
        if (!lists.isNull())
            QCOMPARE(json(project.scenes) + json(project.hall), lists);
    }

    void failedSaveLosesNothing_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("cutOff"); // the file may grow only so far, as on a full disk
        QTest::newRow("into a plain file") << QStringLiteral("plain-file/proyecto.tavrin") << false;
        QTest::newRow("cut off part way") << QStringLiteral("former.tavrin") << true;
    }

    void failedSaveLosesNothing()
    {
        QFETCH(QString, target);
        QFETCH(bool, cutOff);
        const QByteArray former = writeProject(sampleProject());
        writeBytes(outputPath("former.tavrin"), former);
        writeBytes(outputPath("plain-file"), "not a folder");
        ProjectData big = sampleProject();
        big.scenes.resize(400, big.scenes.front());
        // Larger than the process may write, so that the save fails part way, even as root.
        rlimit saved{};
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
        const rlimit limited{rlim_t(former.size() * 2), saved.rlim_max};
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        if (cutOff)
            QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
        const QString message = thrownMessage([&] { writeProjectFile(outputPath(target), writeProject(big)); });
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);
        QCOMPARE(message, QStringLiteral("No se pudo guardar proyecto"));
        QCOMPARE(readProjectFile(outputPath("former.tavrin")), former);
        QCOMPARE(QDir(outputDir).entryList({"former.tavrin*"}, QDir::Files | QDir::Hidden).size(), 1);
    }
};

void tst_ProjectFile::reading_data()
{
    QTest::addColumn<QByteArray>("document"); // null: no file
    QTest::addColumn<QString>("message");     // empty: read
    QTest::addColumn<QByteArray>("lists");     // the scenes and hall read; null: not checked
    const auto row = [](const char* name, const QByteArray& document, const QString& message,
                        const QByteArray& lists = {}) { QTest::newRow(name) << document << message << lists; };
    const QString file = QStringLiteral("Proyecto inválido");
    const QString version = QStringLiteral("Versión de proyecto inválida");
    const QString options = QStringLiteral("Opciones de proyecto inválidas");
    const auto padded = [](qsizetype size) {
        QByteArray bytes(R"({"version":3,"gain":100})");
        return bytes.append(QByteArray(size - bytes.size(), ' '));
    };
    row("no file", QByteArray(), file);
    row("exactly 4 MiB", padded(4194304), QString());
    row("one byte more", padded(4194305), file);
    row("not JSON", QByteArray("Esto no es un proyecto"), version);
    row("version 0", QByteArray(R"({"version":0,"gain":100})"), version);
    row("bad version wins over missing gain", QByteArray(R"({"version":7})"), version);
    row("gain -1", QByteArray(R"({"version":3,"gain":-1})"), options);
    row("gain 201", QByteArray(R"({"version":3,"gain":201})"), options);
    row("gain 0", QByteArray(R"({"version":3,"gain":0})"), QString());
    row("gain 200, version 1", QByteArray(R"({"version":1,"gain":200})"), QString());
    // Version 1 held one stream scene: a layout number, an image and a media address.
    const auto one = [](const QByteArray& keys) { return R"({"version":1,"gain":100)" + keys + "}"; };
    const QByteArray both = R"(,"image":"/home/ana/fotos/logo.png","media":"file:///home/ana/intro.mp4")";
    const Layer camera{.kind = Kind::Camera, .name = T("Cámara")};
    const Layer logo{.kind = Kind::Image, .name = "logo.png", .rect = {0.8, 0.03, 0.17, 0.17},
                     .path = "/home/ana/fotos/logo.png"};
    const Layer picture{.kind = Kind::Image, .name = "logo.png", .path = "/home/ana/fotos/logo.png"};
    const Layer video{.kind = Kind::Video, .name = T("Video"), .uri = "file:///home/ana/intro.mp4"};
    const auto first = [](std::vector<Layer> layers) {
        return json({{T("Escena 1"), std::move(layers)}}) + json({});
    };
    row("1: camera, logo and video", one(R"(,"scene":0)" + both), {}, first({camera, logo, video}));
    row("1: full-screen picture and video", one(R"(,"scene":2)" + both), {}, first({picture, video}));
    row("1: nothing", one(R"(,"scene":1,"image":"","media":"")"), {}, first({}));
    row("2: version 1 keys ignored", R"({"version":2,"gain":80,"scene":0,"image":"/a.png","hall":[{"name":"H"}]})",
        {}, json({}) + json({{"H", {}}}));
    // Generated projects at the bounds and one past them, in either list.
    const auto project = [](const char* list, std::size_t sceneCount, std::size_t layerCount) {
        const SceneDef scene{"Culto", std::vector<Layer>(layerCount, Layer{.kind = Kind::Text, .name = "T"})};
        return R"({"version":3,"gain":100,")" + QByteArray(list) + "\":" +
               json(std::vector<SceneDef>(sceneCount, scene)) + '}';
    };
    row("scenes at the bound", project("scenes", maxScenesPerList, 1), QString());
    row("one scene more", project("scenes", maxScenesPerList + 1, 1), file);
    row("layers at the bound", project("hall", 2, maxLayersPerScene), QString());
    row("one layer more", project("scenes", 2, maxLayersPerScene + 1), file);
}

QTEST_GUILESS_MAIN(tst_ProjectFile)
#include "tst_projectfile.moc"
