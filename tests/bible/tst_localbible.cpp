#include "Local.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

#include <array>

class tst_LocalBible : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void builtIn_data();
    void builtIn();
    void knownVerses_data();
    void knownVerses();
    void damagedDocument_data();
    void damagedDocument();
};

// Chapters per book in the standard (KJV) versification, Genesis to Revelation.
static constexpr std::array<int, 66> chaptersPerBook{
    50, 40, 27, 36, 34, 24, 21, 4, 31, 24, 22, 25, 29, 36, 10, 13, 10, 42, 150, 31, 12, 8,
    66, 52, 5, 48, 12, 14, 3, 9, 1, 4, 7, 3, 3, 3, 2, 14, 4,
    28, 16, 24, 21, 28, 16, 16, 13, 6, 6, 4, 4, 5, 3, 6, 4, 3, 1, 13, 5, 5, 3, 5, 1, 1, 1, 22};

static const bible::Local& bibleFor(const QString& language)
{
    return language == QLatin1String("es") ? bible::spanish() : bible::english();
}

void tst_LocalBible::builtIn_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("name");

    QTest::newRow("English") << "en" << "KJV" << "King James Version";
    QTest::newRow("Spanish") << "es" << "RV1909" << "Reina-Valera 1909";
}

// Both Bibles carry the KJV versification, verse for verse, and plain text only: whatever the
// source modules carried around the words (tags, Strong's numbers, pilcrows, USFM markers, verse
// numbers, doubled or edge blanks) is gone.
void tst_LocalBible::builtIn()
{
    QFETCH(QString, language);
    QFETCH(QString, id);
    QFETCH(QString, name);

    const bible::Local& bible = bibleFor(language);
    QVERIFY(bible.valid);
    QCOMPARE(bible.id, id);
    QCOMPARE(bible.name, name);
    QCOMPARE(bible.language, language);

    static const QRegularExpression forbidden(QStringLiteral("[<>¶\\\\{}&\\d]|\\s\\s|^\\s|\\s$|\\s[,.;:?!]"));
    int verses = 0;
    for (int b = 0; b < 66; ++b) {
        const QJsonArray book = bible.books.at(b).toArray();
        const QJsonArray kjvBook = bible::english().books.at(b).toArray();
        QVERIFY2(book.size() == chaptersPerBook[std::size_t(b)], qPrintable(QStringLiteral("book %1").arg(b)));
        for (int c = 0; c < book.size(); ++c) {
            const QJsonArray chapter = book.at(c).toArray();
            QVERIFY2(!chapter.isEmpty() && chapter.size() == kjvBook.at(c).toArray().size(),
                     qPrintable(QStringLiteral("book %1 chapter %2").arg(b).arg(c + 1)));
            for (const QJsonValue& verse : chapter) {
                const QString text = verse.toString();
                QVERIFY2(!text.isEmpty(), "empty verse");
                const QRegularExpressionMatch hit = forbidden.match(text);
                QVERIFY2(!hit.hasMatch(), qPrintable(QStringLiteral("'%1' in: %2").arg(hit.captured(), text)));
                ++verses;
            }
        }
    }
    QCOMPARE(verses, 31102);

    // Chapters whose length the Hebrew numbering changes keep KJV's.
    const struct { int book, chapter, verses; } kjv[] = {
        {0, 31, 55}, {3, 12, 16}, {3, 13, 33}, {8, 23, 29}, {17, 38, 41}, {17, 39, 30}, {17, 40, 24},
        {17, 41, 34}, {18, 119, 176}, {31, 1, 17}, {31, 2, 10}, {43, 19, 41}, {46, 13, 14}, {65, 12, 17},
    };
    for (const auto& [book, chapter, count] : kjv)
        QCOMPARE(bible.books.at(book).toArray().at(chapter - 1).toArray().size(), count);
}

void tst_LocalBible::knownVerses_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<int>("book");
    QTest::addColumn<int>("chapter");
    QTest::addColumn<int>("verse");
    QTest::addColumn<QString>("text");

    QTest::newRow("Genesis 1:1") << "en" << 0 << 1 << 1 << "In the beginning God created the heaven and the earth.";
    QTest::newRow("Génesis 1:1") << "es" << 0 << 1 << 1 << "EN el principio crió Dios los cielos y la tierra.";
    QTest::newRow("Psalm 3:1 long title gone") << "en" << 18 << 3 << 1
        << "LORD, how are they increased that trouble me! many are they that rise up against me.";
    QTest::newRow("Génesis 19:12 pronoun joined to its verb") << "es" << 0 << 19 << 12
        << "Y dijeron los varones á Lot: ¿Tienes aquí alguno más? Yernos, y tus hijos y tus hijas, y todo lo "
           "que tienes en la ciudad, sácalo de este lugar:";
    QTest::newRow("Romans 16:27 without subscription") << "en" << 44 << 16 << 27
        << "To God only wise, be glory through Jesus Christ for ever. Amen.";
    // Verses the Spanish source numbers the Hebrew way, laid back onto KJV numbering.
    QTest::newRow("Job 40:6") << "es" << 17 << 40 << 6 << "Entonces respondió Jehová á Job desde la oscuridad, y dijo:";
}

void tst_LocalBible::knownVerses()
{
    QFETCH(QString, language);
    QFETCH(int, book);
    QFETCH(int, chapter);
    QFETCH(int, verse);
    QFETCH(QString, text);

    const QJsonArray verses = bibleFor(language).books.at(book).toArray().at(chapter - 1).toArray();
    QCOMPARE(verses.at(verse - 1).toString(), text);
}

void tst_LocalBible::damagedDocument_data()
{
    QTest::addColumn<QByteArray>("contents"); // empty: no file at all
    QTest::addColumn<int>("books");
    QTest::addColumn<bool>("valid");

    QJsonArray books = bible::english().books;
    books.removeLast();
    const QJsonObject document{{QStringLiteral("id"), QStringLiteral("KJV")}, {QStringLiteral("books"), books}};
    QFile original(QStringLiteral(":/bible-es-rv1909.qz"));
    QVERIFY(original.open(QIODevice::ReadOnly));

    QTest::newRow("absent") << QByteArray() << 0 << false;
    QTest::newRow("cut-off download") << original.read(4096) << 0 << false;
    QTest::newRow("65 books") << qCompress(QJsonDocument(document).toJson()) << 65 << false;
}

// A missing or damaged document leaves the Bible empty and not valid, and never throws.
void tst_LocalBible::damagedDocument()
{
    QFETCH(QByteArray, contents);
    QFETCH(int, books);
    QFETCH(bool, valid);

    const QString path = QStringLiteral(VELMORA_TEST_OUTPUT "/bible-damaged.qz");
    QFile::remove(path);
    if (!contents.isEmpty()) {
        QVERIFY(QDir().mkpath(QStringLiteral(VELMORA_TEST_OUTPUT)));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(contents), contents.size());
    }
    const bible::Local bible(path);
    QCOMPARE(bible.valid, valid);
    QCOMPARE(bible.books.size(), books);
}

QTEST_GUILESS_MAIN(tst_LocalBible)
#include "tst_localbible.moc"
