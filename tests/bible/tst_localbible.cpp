#include "Local.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

#include <array>
#include <numeric>

class tst_LocalBible : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void identity_data();
    void identity();
    void versification_data();
    void versification();
    void bothBiblesShareTheVersification();
    void knownVerses_data();
    void knownVerses();
    void plainTextOnly_data();
    void plainTextOnly();
    void loadedOnceAndShared();
    void absentResourceIsNotValid();
    void sixtyFiveBooksAreNotValid();
    void damagedFileIsNotValid();

private:
    QString outputDir;
};

// Chapters per book in the standard (KJV) versification, Genesis to Revelation.
static constexpr std::array<int, 66> chaptersPerBook{
    50, 40, 27, 36, 34, 24, 21, 4, 31, 24, 22, 25, 29, 36, 10, 13, 10, 42, 150, 31, 12, 8,
    66, 52, 5, 48, 12, 14, 3, 9, 1, 4, 7, 3, 3, 3, 2, 14, 4,
    28, 16, 24, 21, 28, 16, 16, 13, 6, 6, 4, 4, 5, 3, 6, 4, 3, 1, 13, 5, 5, 3, 5, 1, 1, 1, 22};
static_assert(std::accumulate(chaptersPerBook.begin(), chaptersPerBook.end(), 0) == 1189);

static const bible::Local& bibleFor(const QString& language)
{
    return language == QLatin1String("es") ? bible::spanish() : bible::english();
}

static QString verseAt(const bible::Local& bible, int book, int chapter, int verse)
{
    return bible.books.at(book).toArray().at(chapter - 1).toArray().at(verse - 1).toString();
}

static QByteArray qz(const QJsonObject& document)
{
    return qCompress(QJsonDocument(document).toJson(QJsonDocument::Compact));
}

void tst_LocalBible::initTestCase()
{
    outputDir = QStringLiteral(VELMORA_TEST_OUTPUT);
    QVERIFY(QDir().mkpath(outputDir));
}

void tst_LocalBible::identity_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("name");

    QTest::newRow("English") << "en" << "KJV" << "King James Version";
    QTest::newRow("Spanish") << "es" << "RV1909" << "Reina-Valera 1909";
}

void tst_LocalBible::identity()
{
    QFETCH(QString, language);
    QFETCH(QString, id);
    QFETCH(QString, name);

    const bible::Local& bible = bibleFor(language);
    QVERIFY(bible.valid);
    QCOMPARE(bible.id, id);
    QCOMPARE(bible.name, name);
    QCOMPARE(bible.language, language);
}

void tst_LocalBible::versification_data()
{
    identity_data();
}

void tst_LocalBible::versification()
{
    QFETCH(QString, language);
    const bible::Local& bible = bibleFor(language);

    QCOMPARE(bible.books.size(), 66);
    int chapters = 0;
    int verses = 0;
    int longest = 0;
    QString longestAt;
    for (int b = 0; b < 66; ++b) {
        const QJsonArray book = bible.books.at(b).toArray();
        QVERIFY2(book.size() == chaptersPerBook[std::size_t(b)],
                 qPrintable(QStringLiteral("book %1 has %2 chapters").arg(b).arg(book.size())));
        chapters += int(book.size());
        for (int c = 0; c < book.size(); ++c) {
            const qsizetype count = book.at(c).toArray().size();
            QVERIFY2(count > 0, qPrintable(QStringLiteral("book %1 chapter %2 is empty").arg(b).arg(c + 1)));
            verses += int(count);
            if (count > longest) {
                longest = int(count);
                longestAt = QStringLiteral("%1 %2").arg(b).arg(c + 1);
            }
        }
    }
    QCOMPARE(chapters, 1189);
    QCOMPARE(verses, 31102);
    QCOMPARE(longest, 176);
    QCOMPARE(longestAt, QStringLiteral("18 119")); // Psalm 119

    // Chapters whose length the Hebrew numbering changes: the built-in text must keep KJV's.
    const struct { int book, chapter, verses; } kjv[] = {
        {0, 31, 55}, {3, 12, 16}, {3, 13, 33}, {3, 29, 40}, {3, 30, 16}, {8, 23, 29}, {8, 24, 22},
        {17, 38, 41}, {17, 39, 30}, {17, 40, 24}, {17, 41, 34}, {27, 11, 12}, {27, 12, 14},
        {31, 1, 17}, {31, 2, 10}, {38, 4, 6}, {43, 19, 41}, {46, 13, 14}, {63, 1, 14}, {65, 12, 17},
    };
    for (const auto& chapter : kjv) {
        const qsizetype count = bible.books.at(chapter.book).toArray().at(chapter.chapter - 1).toArray().size();
        QVERIFY2(count == chapter.verses, qPrintable(QStringLiteral("book %1 chapter %2 has %3 verses")
                                                          .arg(chapter.book).arg(chapter.chapter).arg(count)));
    }
}

void tst_LocalBible::bothBiblesShareTheVersification()
{
    const bible::Local& en = bible::english();
    const bible::Local& es = bible::spanish();
    for (int b = 0; b < 66; ++b) {
        const QJsonArray enBook = en.books.at(b).toArray();
        const QJsonArray esBook = es.books.at(b).toArray();
        QCOMPARE(esBook.size(), enBook.size());
        for (int c = 0; c < enBook.size(); ++c)
            QCOMPARE(esBook.at(c).toArray().size(), enBook.at(c).toArray().size());
    }
}

void tst_LocalBible::knownVerses_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<int>("book");
    QTest::addColumn<int>("chapter");
    QTest::addColumn<int>("verse");
    QTest::addColumn<QString>("text");

    QTest::newRow("John 3:16") << "en" << 42 << 3 << 16
        << "For God so loved the world, that he gave his only begotten Son, that whosoever believeth in him "
           "should not perish, but have everlasting life.";
    QTest::newRow("Juan 3:16") << "es" << 42 << 3 << 16
        << "Porque de tal manera amó Dios al mundo, que ha dado á su Hijo unigénito, para que todo aquel que "
           "en él cree, no se pierda, mas tenga vida eterna.";
    QTest::newRow("Genesis 1:1") << "en" << 0 << 1 << 1 << "In the beginning God created the heaven and the earth.";
    QTest::newRow("Génesis 1:1") << "es" << 0 << 1 << 1 << "EN el principio crió Dios los cielos y la tierra.";
    QTest::newRow("Psalm 23:1 without its title") << "en" << 18 << 23 << 1 << "The LORD is my shepherd; I shall not want.";
    QTest::newRow("Salmos 23:1 without its title") << "es" << 18 << 23 << 1 << "JEHOVÁ es mi pastor; nada me faltará.";
    QTest::newRow("Psalm 3:1 long title gone") << "en" << 18 << 3 << 1
        << "LORD, how are they increased that trouble me! many are they that rise up against me.";
    QTest::newRow("Salmos 3:1 long title gone") << "es" << 18 << 3 << 1
        << "¡OH Jehová, cuánto se han multiplicado mis enemigos! muchos se levantan contra mí.";
    QTest::newRow("Salmos 25:1 keeps its first word") << "es" << 18 << 25 << 1 << "A TI, oh Jehová, levantaré mi alma.";
    QTest::newRow("Salmos 119:9 without BETH") << "es" << 18 << 119 << 9
        << "¿Con qué limpiará el joven su camino? Con guardar tu palabra.";
    QTest::newRow("Psalm 119:176 last of the longest") << "en" << 18 << 119 << 176
        << "I have gone astray like a lost sheep; seek thy servant; for I do not forget thy commandments.";
    QTest::newRow("Matthew 1:1 no Strong's") << "es" << 39 << 1 << 1
        << "LIBRO de la generación de Jesucristo, hijo de David, hijo de Abraham.";
    QTest::newRow("Exodus 6:3 no USFM marker") << "en" << 1 << 6 << 3
        << "And I appeared unto Abraham, unto Isaac, and unto Jacob, by the name of God Almighty, but by my "
           "name JEHOVAH was I not known to them.";
    QTest::newRow("Génesis 19:12 pronoun joined to its verb") << "es" << 0 << 19 << 12
        << "Y dijeron los varones á Lot: ¿Tienes aquí alguno más? Yernos, y tus hijos y tus hijas, y todo lo "
           "que tienes en la ciudad, sácalo de este lugar:";
    QTest::newRow("Romans 16:27 without subscription") << "en" << 44 << 16 << 27
        << "To God only wise, be glory through Jesus Christ for ever. Amen.";
    QTest::newRow("Romanos 16:27 without subscription") << "es" << 44 << 16 << 27
        << "Al solo Dios sabio, sea gloria por Jesucristo para siempre. Amén.";
    // Verses the Spanish source numbers the Hebrew way, laid back onto KJV numbering.
    QTest::newRow("Números 12:16") << "es" << 3 << 12 << 16
        << "Y después movió el pueblo de Haseroth, y asentaron el campo en el desierto de Parán.";
    QTest::newRow("Job 38:39") << "es" << 17 << 38 << 39
        << "¿Cazarás tú la presa para el león? ¿y saciarás el hambre de los leoncillos,";
    QTest::newRow("Job 40:6") << "es" << 17 << 40 << 6 << "Entonces respondió Jehová á Job desde la oscuridad, y dijo:";
    QTest::newRow("Jonás 1:17") << "es" << 31 << 1 << 17
        << "Mas Jehová había prevenido un gran pez que tragase á Jonás: y estuvo Jonás en el vientre del pez "
           "tres días y tres noches.";
    QTest::newRow("2 Corintios 13:14") << "es" << 46 << 13 << 14
        << "La gracia del Señor Jesucristo, y el amor de Dios, y la participación del Espíritu Santo sea con "
           "vosotros todos. Amén.";
    QTest::newRow("Revelation 22:21 last verse") << "en" << 65 << 22 << 21
        << "The grace of our Lord Jesus Christ be with you all. Amen.";
}

void tst_LocalBible::knownVerses()
{
    QFETCH(QString, language);
    QFETCH(int, book);
    QFETCH(int, chapter);
    QFETCH(int, verse);
    QFETCH(QString, text);

    QCOMPARE(verseAt(bibleFor(language), book, chapter, verse), text);
}

void tst_LocalBible::plainTextOnly_data()
{
    identity_data();
}

// Whatever the source modules carried around the words must be gone from every verse: tags,
// Strong's numbers, pilcrows, USFM markers, verse numbers, doubled or edge blanks.
void tst_LocalBible::plainTextOnly()
{
    QFETCH(QString, language);
    const bible::Local& bible = bibleFor(language);
    static const QRegularExpression forbidden(QStringLiteral("[<>¶\\\\{}&\\d]|\\s\\s|^\\s|\\s$|\\s[,.;:?!]"));

    int checked = 0;
    for (const QJsonValue& book : bible.books) {
        for (const QJsonValue& chapter : book.toArray()) {
            for (const QJsonValue& verse : chapter.toArray()) {
                QVERIFY(verse.isString());
                const QString text = verse.toString();
                QVERIFY2(!text.isEmpty(), "empty verse");
                const QRegularExpressionMatch hit = forbidden.match(text);
                QVERIFY2(!hit.hasMatch(), qPrintable(QStringLiteral("'%1' in: %2").arg(hit.captured(), text)));
                ++checked;
            }
        }
    }
    QCOMPARE(checked, 31102);
}

void tst_LocalBible::loadedOnceAndShared()
{
    QCOMPARE(&bible::english(), &bible::english());
    QCOMPARE(&bible::spanish(), &bible::spanish());
    QVERIFY(&bible::english() != &bible::spanish());
}

void tst_LocalBible::absentResourceIsNotValid()
{
    const bible::Local bible(QStringLiteral(":/bible-xx-none.qz"));
    QVERIFY(!bible.valid);
    QVERIFY(bible.books.isEmpty());
    QVERIFY(bible.id.isEmpty());
}

void tst_LocalBible::sixtyFiveBooksAreNotValid()
{
    QJsonArray books = bible::english().books;
    books.removeLast();
    QCOMPARE(books.size(), 65);
    const QString path = outputDir + QStringLiteral("/bible-65-books.qz");
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(qz({{QStringLiteral("id"), QStringLiteral("KJV")},
                   {QStringLiteral("name"), QStringLiteral("King James Version")},
                   {QStringLiteral("lang"), QStringLiteral("en")},
                   {QStringLiteral("books"), books}}));
    file.close();

    const bible::Local short65(path);
    QVERIFY(!short65.valid);
    QCOMPARE(short65.books.size(), 65);
    QCOMPARE(short65.id, QStringLiteral("KJV"));

    // The same document with the 66th book back is valid: the count alone decides.
    books.append(bible::english().books.last());
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(qz({{QStringLiteral("id"), QStringLiteral("KJV")}, {QStringLiteral("books"), books}}));
    file.close();
    QVERIFY(bible::Local(path).valid);
}

void tst_LocalBible::damagedFileIsNotValid()
{
    const QString path = outputDir + QStringLiteral("/bible-damaged.qz");
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QFile original(QStringLiteral(":/bible-es-rv1909.qz"));
    QVERIFY(original.open(QIODevice::ReadOnly));
    file.write(original.read(4096)); // a cut-off download: header and the start of the stream
    file.close();

    const bible::Local bible(path);
    QVERIFY(!bible.valid);
    QVERIFY(bible.books.isEmpty());
}

QTEST_GUILESS_MAIN(tst_LocalBible)
#include "tst_localbible.moc"
