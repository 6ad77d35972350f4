#include "Layer.h"
#include "SceneDef.h"
#include "i18n.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QTest>

class tst_Layer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fromJson_data();
    void fromJson();
    void keySetsAndRoundTrip_data();
    void keySetsAndRoundTrip();
    void badColourStaysInvalid();
    void labels();
    void sceneFromJson_data();
    void sceneFromJson();
};

static QJsonObject parse(const char* json)
{
    return QJsonDocument::fromJson(json).object();
}

void tst_Layer::fromJson_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<double>("opacity");
    QTest::addColumn<int>("size");

    const QRectF full(0, 0, 1, 1);
    QTest::newRow("empty object gives defaults") << QByteArray("{}") << 0 << full << 1.0 << 56;
    QTest::newRow("capitalised word is unknown") << QByteArray(R"({"kind":"Camera"})") << 0 << full << 1.0 << 56;
    QTest::newRow("upper-case word is unknown") << QByteArray(R"({"kind":"IMAGE"})") << 0 << full << 1.0 << 56;
    QTest::newRow("subtitle word") << QByteArray(R"({"kind":"subtitle"})") << 7 << full << 1.0 << 56;
    QTest::newRow("thin width resets whole box")
        << QByteArray(R"({"kind":"text","x":0.3,"y":0.4,"w":0.01,"h":0.5})") << 2 << full << 1.0 << 56;
    QTest::newRow("thin height resets whole box")
        << QByteArray(R"({"kind":"text","x":0.3,"y":0.4,"w":0.5,"h":0.005})") << 2 << full << 1.0 << 56;
    QTest::newRow("just above the limit is kept")
        << QByteArray(R"({"kind":"color","x":0.3,"y":0.4,"w":0.0101,"h":0.5})") << 5
        << QRectF(0.3, 0.4, 0.0101, 0.5) << 1.0 << 56;
    QTest::newRow("box beyond the output is taken as stored")
        << QByteArray(R"({"x":-2,"y":5,"w":3,"h":0.2})") << 0 << QRectF(-2, 5, 3, 0.2) << 1.0 << 56;
    QTest::newRow("opacity above one") << QByteArray(R"({"opacity":3})") << 0 << full << 1.0 << 56;
    QTest::newRow("opacity below zero") << QByteArray(R"({"opacity":-1})") << 0 << full << 0.0 << 56;
    QTest::newRow("opacity as text keeps default") << QByteArray(R"({"opacity":"x"})") << 0 << full << 1.0 << 56;
    QTest::newRow("size too small") << QByteArray(R"({"kind":"text","size":2})") << 2 << full << 1.0 << 8;
    QTest::newRow("size too large") << QByteArray(R"({"kind":"text","size":9999})") << 2 << full << 1.0 << 400;
    QTest::newRow("missing size on subtitle") << QByteArray(R"({"kind":"subtitle"})") << 7 << full << 1.0 << 56;
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
    QVERIFY(!layer.image);
    QVERIFY(!layer.media);
}

void tst_Layer::keySetsAndRoundTrip_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QStringList>("extraKeys");

    const QStringList textKeys{"text", "reference", "font", "size", "bold", "color", "background", "align", "shadow"};
    QTest::newRow("camera") << 0 << QStringList{};
    QTest::newRow("image") << 1 << QStringList{"path"};
    QTest::newRow("text") << 2 << textKeys;
    QTest::newRow("video") << 3 << QStringList{"uri", "sound"};
    QTest::newRow("screen") << 4 << QStringList{};
    QTest::newRow("color") << 5 << QStringList{"fill"};
    QTest::newRow("verse") << 6 << textKeys;
    QTest::newRow("subtitle") << 7 << textKeys;
}

void tst_Layer::keySetsAndRoundTrip()
{
    QFETCH(int, kind);
    QFETCH(QStringList, extraKeys);

    Layer layer;
    layer.kind = Layer::Kind(kind);
    layer.name = QStringLiteral("Capa ñ");
    layer.visible = false;
    layer.opacity = 0.25;
    layer.rect = QRectF(-0.2, 0.1, 0.5, 1.5);
    layer.path = QStringLiteral("/tmp/foto.png");
    layer.text = QStringLiteral("Línea 1\nLínea 2");
    layer.reference = QStringLiteral("Juan 3:16 · RV1909");
    layer.font = QStringLiteral("DejaVu Sans");
    layer.size = 72;
    layer.bold = false;
    layer.color = QColor(10, 20, 30, 128);
    layer.background = QColor(0, 0, 0, 0);
    layer.align = int(Qt::AlignLeft | Qt::AlignTop);
    layer.shadow = false;
    layer.uri = QStringLiteral("rtsp://cam/1");
    layer.sound = false;
    layer.cover = true;
    layer.fill = QColor(1, 2, 3, 77);

    const QJsonObject json = layer.toJson();
    QStringList expected{"kind", "name", "visible", "opacity", "x", "y", "w", "h", "cover"};
    expected += extraKeys;
    expected.sort();
    QStringList keys = json.keys();
    keys.sort();
    QCOMPARE(keys, expected);

    const Layer back = Layer::fromJson(json);
    QCOMPARE(back.kind, layer.kind);
    QCOMPARE(back.name, layer.name);
    QCOMPARE(back.visible, layer.visible);
    QCOMPARE(back.opacity, layer.opacity);
    QCOMPARE(back.rect, layer.rect);
    QCOMPARE(back.cover, layer.cover);
    const Layer defaults;
    const bool textKind = extraKeys.contains("text");
    QCOMPARE(back.text, textKind ? layer.text : defaults.text);
    QCOMPARE(back.reference, textKind ? layer.reference : defaults.reference);
    QCOMPARE(back.font, textKind ? layer.font : defaults.font);
    QCOMPARE(back.size, textKind ? layer.size : defaults.size);
    QCOMPARE(back.bold, textKind ? layer.bold : defaults.bold);
    QCOMPARE(back.color, textKind ? layer.color : defaults.color);
    QCOMPARE(back.background, textKind ? layer.background : defaults.background);
    QCOMPARE(back.align, textKind ? layer.align : defaults.align);
    QCOMPARE(back.shadow, textKind ? layer.shadow : defaults.shadow);
    QCOMPARE(back.path, extraKeys.contains("path") ? layer.path : defaults.path);
    QCOMPARE(back.uri, extraKeys.contains("uri") ? layer.uri : defaults.uri);
    QCOMPARE(back.sound, extraKeys.contains("sound") ? layer.sound : defaults.sound);
    QCOMPARE(back.fill, extraKeys.contains("fill") ? layer.fill : defaults.fill);
    if (textKind)
        QCOMPARE(json.value("color").toString(), QStringLiteral("#800a141e"));
}

void tst_Layer::badColourStaysInvalid()
{
    const Layer layer = Layer::fromJson(parse(R"({"kind":"text","color":"not a colour","fill":"#zz"})"));
    QVERIFY(!layer.color.isValid());
    QVERIFY(!layer.fill.isValid());
    QCOMPARE(layer.background, QColor(0, 0, 0, 150));
}

void tst_Layer::labels()
{
    tavrin_i18n::language() = QStringLiteral("es");
    QCOMPARE(Layer::label(Layer::Kind::Verse), QStringLiteral("Versículo"));
    QCOMPARE(Layer::label(Layer::Kind::Subtitle), QStringLiteral("Subtítulos (IA)"));
    QCOMPARE(Layer::label(Layer::Kind(8)), QString());
    tavrin_i18n::language() = QStringLiteral("en");
    QCOMPARE(Layer::label(Layer::Kind::Subtitle), QStringLiteral("Subtitles (AI)"));
    QCOMPARE(Layer::label(Layer::Kind::Camera), QStringLiteral("Camera"));
    tavrin_i18n::language() = QStringLiteral("es");
    QCOMPARE(Layer().toJson().value("kind").toString(), QStringLiteral("camera"));
    Layer outOfRange;
    outOfRange.kind = Layer::Kind(42);
    QCOMPARE(outOfRange.toJson().value("kind").toString(), QStringLiteral("camera"));
}

void tst_Layer::sceneFromJson_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QList<int>>("kinds");

    QTest::newRow("no layers key") << QByteArray(R"({"name":"Culto"})") << "Culto" << QList<int>{};
    QTest::newRow("layers of wrong type") << QByteArray(R"({"name":"A","layers":{"kind":"text"}})") << "A"
                                          << QList<int>{};
    QTest::newRow("layers in order")
        << QByteArray(R"({"name":"B","layers":[{"kind":"color"},{"kind":"verse"},3]})") << "B"
        << QList<int>{5, 6, 0};
}

void tst_Layer::sceneFromJson()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, name);
    QFETCH(QList<int>, kinds);

    const SceneDef scene = SceneDef::fromJson(QJsonDocument::fromJson(json).object());
    QCOMPARE(scene.name, name);
    QList<int> read;
    for (const Layer& layer : scene.layers)
        read.append(int(layer.kind));
    QCOMPARE(read, kinds);
    const SceneDef again = SceneDef::fromJson(scene.toJson());
    QCOMPARE(again.layers.size(), scene.layers.size());
}

QTEST_GUILESS_MAIN(tst_Layer)
#include "tst_layer.moc"
