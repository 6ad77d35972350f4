#include "Layer.h"
#include "i18n.h"

#include <QJsonDocument>
#include <QTest>

class tst_Layer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fromJson_data();
    void fromJson();
    void badColourStaysInvalid();
    void labels();
    void keysAndRoundTrip_data();
    void keysAndRoundTrip();
};

void tst_Layer::fromJson_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<double>("opacity");
    QTest::addColumn<int>("size");

    const QRectF full(0, 0, 1, 1);
    QTest::newRow("empty object gives defaults") << QByteArray("{}") << 0 << full << 1.0 << 56;
    QTest::newRow("kind words are lower case") << QByteArray(R"({"kind":"Image"})") << 0 << full << 1.0 << 56;
    QTest::newRow("subtitle word") << QByteArray(R"({"kind":"subtitle"})") << 7 << full << 1.0 << 56;
    // A box too thin to see or grab comes back full.
    QTest::newRow("thin width") << QByteArray(R"({"x":0.3,"y":0.4,"w":0.01,"h":0.5})") << 0 << full << 1.0
                                << 56;
    QTest::newRow("thin height") << QByteArray(R"({"x":0.3,"y":0.4,"w":0.5,"h":0.005})") << 0 << full << 1.0
                                 << 56;
    QTest::newRow("just wide enough") << QByteArray(R"({"x":0.3,"y":0.4,"w":0.0101,"h":0.5})") << 0
                                      << QRectF(0.3, 0.4, 0.0101, 0.5) << 1.0 << 56;
    QTest::newRow("box beyond the output as stored")
        << QByteArray(R"({"x":-2,"y":5,"w":3,"h":0.2})") << 0 << QRectF(-2, 5, 3, 0.2) << 1.0 << 56;
    QTest::newRow("opacity above one") << QByteArray(R"({"opacity":3})") << 0 << full << 1.0 << 56;
    QTest::newRow("opacity below zero") << QByteArray(R"({"opacity":-1})") << 0 << full << 0.0 << 56;
    QTest::newRow("opacity as text") << QByteArray(R"({"opacity":"x"})") << 0 << full << 1.0 << 56;
    QTest::newRow("size too small") << QByteArray(R"({"kind":"text","size":2})") << 2 << full << 1.0 << 8;
    QTest::newRow("size too large") << QByteArray(R"({"kind":"text","size":9999})") << 2 << full << 1.0
                                    << 400;
}

void tst_Layer::fromJson()
{
    QFETCH(QByteArray, json);
    QFETCH(int, kind);
    QFETCH(QRectF, rect);
    QFETCH(double, opacity);
    QFETCH(int, size);

    const Layer layer = Layer::fromJson(QJsonDocument::fromJson(json).object());
    QCOMPARE(int(layer.kind), kind);
    QCOMPARE(layer.rect, rect);
    QCOMPARE(layer.opacity, opacity);
    QCOMPARE(layer.size, size);
}

void tst_Layer::badColourStaysInvalid()
{
    // Where the file was damaged, and only there.
    const Layer layer = Layer::fromJson(QJsonDocument::fromJson(R"({"color":"no","fill":"#zz"})").object());
    QVERIFY(!layer.color.isValid());
    QVERIFY(!layer.fill.isValid());
    QCOMPARE(layer.background, QColor(0, 0, 0, 150));
}

void tst_Layer::labels()
{
    tavrin_i18n::language() = QStringLiteral("es");
    QCOMPARE(Layer::label(Layer::Kind::Verse), QStringLiteral("Versículo"));
    QCOMPARE(Layer::label(Layer::Kind::Subtitle), QStringLiteral("Subtítulos (IA)"));
    tavrin_i18n::language() = QStringLiteral("en");
    QCOMPARE(Layer::label(Layer::Kind::Subtitle), QStringLiteral("Subtitles (AI)"));
    tavrin_i18n::language() = QStringLiteral("es");
}

void tst_Layer::keysAndRoundTrip_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("ownKeys");

    const QStringList text{"text",  "reference",  "font",  "size",  "bold",
                           "color", "background", "align", "shadow"};
    QTest::newRow("camera") << "camera" << QStringList{};
    QTest::newRow("image") << "image" << QStringList{"path"};
    QTest::newRow("text") << "text" << text;
    QTest::newRow("video") << "video" << QStringList{"uri", "sound"};
    QTest::newRow("screen") << "screen" << QStringList{};
    QTest::newRow("color") << "color" << QStringList{"fill"};
    QTest::newRow("verse") << "verse" << text;
    QTest::newRow("subtitle") << "subtitle" << text;
}

void tst_Layer::keysAndRoundTrip()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, ownKeys);

    // Every key of every kind, away from its default: a kind keeps what is its own, as it was.
    QJsonObject all = QJsonDocument::fromJson(R"({"name":"Capa ñ","visible":false,"opacity":0.25,"x":-0.2,
        "y":0.1,"w":0.5,"h":1.5,"cover":true,"path":"/tmp/foto.png","text":"Línea 1\nLínea 2",
        "reference":"Juan 3:16","font":"DejaVu Sans","size":72,"bold":false,"color":"#800a141e",
        "background":"#00000000","align":33,"shadow":false,"uri":"rtsp://cam/1","sound":false,
        "fill":"#4d010203"})")
                          .object();
    all.insert("kind", kind);
    QJsonObject own;
    for (const QString& key :
         QStringList{"kind", "name", "visible", "opacity", "x", "y", "w", "h", "cover"} + ownKeys)
        own.insert(key, all.value(key));
    QCOMPARE(Layer::fromJson(all).toJson(), own);
}

QTEST_GUILESS_MAIN(tst_Layer)
#include "tst_layer.moc"
