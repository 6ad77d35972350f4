#include "Local.h"
#include "Passage.h"
#include "Reference.h"

#include <QJsonArray>
#include <QStringList>
#include <QTest>

#include <stdexcept>

class tst_Passage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lookup_data();
    void lookup();
    void verseLanguage_data();
    void verseLanguage();
};

static const bible::Local& bibleFor(const QString& language)
{
    static const bible::Local absent(QStringLiteral(":/bible-xx-none.qz"));
    if (language == QLatin1String("none"))
        return absent;
    return language == QLatin1String("en") ? bible::english() : bible::spanish();
}

void tst_Passage::lookup_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("language"); // of the Bible: "es", "en", or "none" for one that did not load
    QTest::addColumn<int>("first");        // the verses shown, of the chapter named; 0 for an error
    QTest::addColumn<int>("last");
    QTest::addColumn<QString>("outcome"); // the reference shown, or the error message

    QTest::newRow("whole psalm, the longest chapter") << "Salmos 119" << "es" << 1 << 176 << "Salmos 119 · RV1909";
    QTest::newRow("one verse comes bare") << "Juan 3:16" << "es" << 16 << 16 << "Juan 3:16 · RV1909";
    QTest::newRow("range stops at the chapter end") << "Juan 3:16-999" << "es" << 16 << 36 << "Juan 3:16-999 · RV1909";
    QTest::newRow("last verse to past the end") << "Juan 3:36-999" << "es" << 36 << 36 << "Juan 3:36-999 · RV1909";
    QTest::newRow("range of one is one verse") << "Juan 3:16-16" << "es" << 16 << 16 << "Juan 3:16 · RV1909";
    QTest::newRow("Spanish name, English Bible") << "Juan 3:16-18" << "en" << 16 << 18 << "John 3:16-18 · KJV";
    QTest::newRow("last verse of all") << "Rev 22:21" << "en" << 21 << 21 << "Revelation 22:21 · KJV";

    const QString unknown = QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
    const QString missing = QStringLiteral("Esa cita no existe en la Biblia");
    QTest::newRow("book without chapter") << "Genesis" << "en" << 0 << 0 << unknown;
    QTest::newRow("chapter 0") << "Juan 0:1" << "es" << 0 << 0 << unknown;
    QTest::newRow("no such chapter") << "Juan 99" << "es" << 0 << 0 << missing;
    QTest::newRow("verse past the end") << "Juan 3:37-40" << "es" << 0 << 0 << missing;
    QTest::newRow("range runs backwards") << "Rom 8:28-20" << "es" << 0 << 0 << missing;
    QTest::newRow("Abdías 2 has one chapter") << "Abdías 2" << "es" << 0 << 0 << missing;
    QTest::newRow("Bible did not load") << "Juan 3:16" << "none" << 0 << 0 << "Biblia incluida no disponible";
    // The operator's typing mistake is named even when the Bible is missing too.
    QTest::newRow("bad reference, no Bible") << "xyz" << "none" << 0 << 0 << unknown;
}

// A range or a chapter numbers each verse, single blanks between; one verse comes without its number.
void tst_Passage::lookup()
{
    QFETCH(QString, typed);
    QFETCH(QString, language);
    QFETCH(int, first);
    QFETCH(int, last);
    QFETCH(QString, outcome);

    const bible::Ref ref = bible::parse(typed);
    const bible::Local& bible = bibleFor(language);
    bible::Passage passage;
    try {
        passage = bible::passageText(ref, bible, language);
    } catch (const std::runtime_error& error) {
        QCOMPARE(QString::fromUtf8(error.what()), outcome);
        QCOMPARE(first, 0);
        return;
    }
    QVERIFY(first > 0);
    const QJsonArray verses = bible.books.at(ref.book).toArray().at(ref.chapter - 1).toArray();
    QStringList expected;
    for (int n = first; n <= last; ++n)
        expected << (first == last ? QString() : QString::number(n) + u' ') + verses.at(n - 1).toString();
    QCOMPARE(passage.text, expected.join(u' '));
    QCOMPARE(passage.reference, outcome);
    QCOMPARE(passage.name, outcome.section(QStringLiteral(" · "), 0, 0));
}

// The language verses are shown in, and the built-in Bible that serves it: the online Bible and
// the translation start from the Spanish text.
void tst_Passage::verseLanguage_data()
{
    QTest::addColumn<QString>("choice");
    QTest::addColumn<QString>("translation");
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("reference");

    const QString es = QStringLiteral("Juan 3:16 · RV1909");
    const QString en = QStringLiteral("John 3:16 · KJV");
    QTest::newRow("auto Español") << "auto" << "Español" << "es" << es;
    QTest::newRow("auto Inglés") << "auto" << "Inglés" << "en" << en;
    QTest::newRow("auto trimmed, by prefix") << "auto" << "  english (US) " << "en" << en;
    QTest::newRow("auto Français") << "auto" << "Français" << "other:français" << es;
    QTest::newRow("empty choice is auto") << "" << "Spanish" << "es" << es;
    QTest::newRow("api") << "api" << "English" << "api" << es;
    QTest::newRow("en over Spanish subtitles") << "en" << "Español" << "en" << en;
}

void tst_Passage::verseLanguage()
{
    QFETCH(QString, choice);
    QFETCH(QString, translation);
    QFETCH(QString, language);
    QFETCH(QString, reference);

    QCOMPARE(bible::verseLanguageFor(choice, translation), language);
    QCOMPARE(bible::builtInPassage(bible::parse(QStringLiteral("jn 3:16")), language).reference, reference);
}

QTEST_GUILESS_MAIN(tst_Passage)
#include "tst_passage.moc"
