#include "Local.h"
#include "Passage.h"
#include "Reference.h"

#include <QDir>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>

#include <stdexcept>

class tst_Passage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void lookup_data();
    void lookup();
    void rejected_data();
    void rejected();
    void wholeChapterNumbersEveryVerse();
    void rangeIsNumberedFromItsFirstVerse();
    void bibleThatDidNotLoad();
    void badReferenceIsReportedBeforeTheBible();
    void builtInFollowsTheVerseLanguage_data();
    void builtInFollowsTheVerseLanguage();
    void verseLanguageFor_data();
    void verseLanguageFor();
};

static const bible::Local& bibleFor(const QString& language)
{
    return language == QLatin1String("en") ? bible::english() : bible::spanish();
}

static QString failureOf(const QString& text, const QString& language)
{
    try {
        bible::passageText(bible::parse(text), bibleFor(language), language);
    } catch (const std::runtime_error& error) {
        return QString::fromUtf8(error.what());
    }
    return QString();
}

void tst_Passage::initTestCase()
{
    QVERIFY(QDir().mkpath(QStringLiteral(VELMORA_TEST_OUTPUT)));
}

void tst_Passage::lookup_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("language");
    // A range or chapter is checked by its two ends; one verse (no end given) must be the whole text.
    QTest::addColumn<QString>("start");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("reference");
    QTest::addColumn<QString>("name");

    QTest::newRow("Salmos 23 whole psalm, numbered") << "Salmos 23" << "es" << "1 JEHOVÁ es mi pastor; nada me faltará. 2 "
        << " 6 Ciertamente el bien y la misericordia me seguirán todos los días de mi vida: y en la casa de Jehová "
           "moraré por largos días."
        << "Salmos 23 · RV1909" << "Salmos 23";
    QTest::newRow("Juan 3:16 one verse, bare") << "Juan 3:16" << "es"
        << "Porque de tal manera amó Dios al mundo, que ha dado á su Hijo unigénito, para que todo aquel que en él "
           "cree, no se pierda, mas tenga vida eterna."
        << "" << "Juan 3:16 · RV1909" << "Juan 3:16";
    QTest::newRow("Juan 3:16-999 stops at 36") << "Juan 3:16-999" << "es" << "16 Porque de tal manera amó Dios"
        << " 36 El que cree en el Hijo, tiene vida eterna; mas el que es incrédulo al Hijo, no verá la vida, sino que "
           "la ira de Dios está sobre él."
        << "Juan 3:16-999 · RV1909" << "Juan 3:16-999";
    QTest::newRow("Juan 3:36-999 is the last verse alone") << "Juan 3:36-999" << "es"
        << "El que cree en el Hijo, tiene vida eterna; mas el que es incrédulo al Hijo, no verá la vida, sino que la ira "
           "de Dios está sobre él."
        << "" << "Juan 3:36-999 · RV1909" << "Juan 3:36-999";
    QTest::newRow("1 Co 13:4-7 numbered range") << "1 Co 13:4-7" << "es" << "4 La caridad es sufrida"
        << " 7 Todo lo sufre, todo lo cree, todo lo espera, todo lo soporta." << "1 Corintios 13:4-7 · RV1909"
        << "1 Corintios 13:4-7";
    QTest::newRow("Juan 3:16-16 is one verse") << "Juan 3:16-16" << "es"
        << "Porque de tal manera amó Dios al mundo, que ha dado á su Hijo unigénito, para que todo aquel que en él "
           "cree, no se pierda, mas tenga vida eterna."
        << ""
        << "Juan 3:16 · RV1909" << "Juan 3:16";
    QTest::newRow("John 3:16 in English, KJV") << "John 3:16" << "en"
        << "For God so loved the world, that he gave his only begotten Son, that whosoever believeth in him should "
           "not perish, but have everlasting life."
        << "" << "John 3:16 · KJV" << "John 3:16";
    QTest::newRow("Spanish name, English Bible") << "Juan 3:16" << "en"
        << "For God so loved the world, that he gave his only begotten Son, that whosoever believeth in him should "
           "not perish, but have everlasting life."
        << ""
        << "John 3:16 · KJV" << "John 3:16";
    QTest::newRow("Revelation 22:21 last verse of all") << "Rev 22:21" << "en"
        << "The grace of our Lord Jesus Christ be with you all. Amen." << "" << "Revelation 22:21 · KJV"
        << "Revelation 22:21";
}

void tst_Passage::lookup()
{
    QFETCH(QString, typed);
    QFETCH(QString, language);
    QFETCH(QString, start);
    QFETCH(QString, end);
    QFETCH(QString, reference);
    QFETCH(QString, name);

    const bible::Passage passage = bible::passageText(bible::parse(typed), bibleFor(language), language);
    if (end.isEmpty()) {
        QCOMPARE(passage.text, start);
    } else {
        QVERIFY2(passage.text.startsWith(start), qPrintable(passage.text.left(200)));
        QVERIFY2(passage.text.endsWith(end), qPrintable(passage.text.right(200)));
    }
    QCOMPARE(passage.reference, reference);
    QCOMPARE(passage.name, name);
    QVERIFY(!passage.text.contains(QLatin1String("  ")));
}

void tst_Passage::rejected_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("error");

    const QString unknown = QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
    const QString missing = QStringLiteral("Esa cita no existe en la Biblia");
    QTest::newRow("xyz") << "xyz" << "es" << unknown;
    QTest::newRow("empty") << "" << "es" << unknown;
    QTest::newRow("book without chapter") << "Genesis" << "en" << unknown;
    QTest::newRow("chapter 0") << "Juan 0:1" << "es" << unknown;
    QTest::newRow("Juan 99:1") << "Juan 99:1" << "es" << missing;
    QTest::newRow("Juan 99 whole chapter") << "Juan 99" << "es" << missing;
    QTest::newRow("Juan 3:37 past the end") << "Juan 3:37" << "es" << missing;
    QTest::newRow("Juan 3:37-40 starts past the end") << "Juan 3:37-40" << "es" << missing;
    QTest::newRow("Rom 8:28-20 runs backwards") << "Rom 8:28-20" << "es" << missing;
    QTest::newRow("Abdías 2 has one chapter") << "Abdías 2" << "es" << missing;
    QTest::newRow("Psalm 151 in English") << "Psalm 151" << "en" << missing;
}

void tst_Passage::rejected()
{
    QFETCH(QString, typed);
    QFETCH(QString, language);
    QFETCH(QString, error);
    QCOMPARE(failureOf(typed, language), error);
}

// Every verse of the chapter, in order, each after its own number.
void tst_Passage::wholeChapterNumbersEveryVerse()
{
    const bible::Local& bible = bible::spanish();
    const QJsonArray verses = bible.books.at(18).toArray().at(118).toArray();
    QCOMPARE(verses.size(), 176);

    const QString text = bible::passageText(bible::parse(QStringLiteral("Salmos 119")), bible, QStringLiteral("es")).text;
    QString expected;
    for (int n = 1; n <= 176; ++n)
        expected += (n > 1 ? QStringLiteral(" ") : QString()) + QString::number(n) + u' ' + verses.at(n - 1).toString();
    QCOMPARE(text, expected);
}

void tst_Passage::rangeIsNumberedFromItsFirstVerse()
{
    bible::Ref ref;
    ref.book = 42;
    ref.chapter = 3;
    ref.verse = 16;
    ref.endVerse = 18;
    const QString text = bible::passageText(ref, bible::english(), QStringLiteral("en")).text;
    static const QRegularExpression number(QStringLiteral("(?:^| )(\\d+) "));
    QStringList numbers;
    for (auto match = number.globalMatch(text); match.hasNext();)
        numbers << match.next().captured(1);
    QCOMPARE(numbers, QStringList({QStringLiteral("16"), QStringLiteral("17"), QStringLiteral("18")}));
}

void tst_Passage::bibleThatDidNotLoad()
{
    const bible::Local absent(QStringLiteral(":/bible-xx-none.qz"));
    QVERIFY(!absent.valid);
    try {
        bible::passageText(bible::parse(QStringLiteral("Juan 3:16")), absent, QStringLiteral("es"));
        QFAIL("no error");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QString::fromUtf8(error.what()), QStringLiteral("Biblia incluida no disponible"));
    }
}

// The operator's typing mistake is named even when the Bible is missing too.
void tst_Passage::badReferenceIsReportedBeforeTheBible()
{
    const bible::Local absent(QStringLiteral(":/bible-xx-none.qz"));
    try {
        bible::passageText(bible::parse(QStringLiteral("xyz")), absent, QStringLiteral("es"));
        QFAIL("no error");
    } catch (const std::runtime_error& error) {
        QCOMPARE(QString::fromUtf8(error.what()), QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23"));
    }
}

void tst_Passage::builtInFollowsTheVerseLanguage_data()
{
    QTest::addColumn<QString>("verseLanguage");
    QTest::addColumn<QString>("reference");

    QTest::newRow("en") << "en" << "John 3:16 · KJV";
    QTest::newRow("es") << "es" << "Juan 3:16 · RV1909";
    QTest::newRow("api starts from Spanish") << "api" << "Juan 3:16 · RV1909";
    QTest::newRow("other: starts from Spanish") << "other:français" << "Juan 3:16 · RV1909";
}

void tst_Passage::builtInFollowsTheVerseLanguage()
{
    QFETCH(QString, verseLanguage);
    QFETCH(QString, reference);
    QCOMPARE(bible::builtInPassage(bible::parse(QStringLiteral("jn 3:16")), verseLanguage).reference, reference);
}

void tst_Passage::verseLanguageFor_data()
{
    QTest::addColumn<QString>("choice");
    QTest::addColumn<QString>("translation");
    QTest::addColumn<QString>("language");

    QTest::newRow("auto English") << "auto" << "English" << "en";
    QTest::newRow("auto Español") << "auto" << "Español" << "es";
    QTest::newRow("auto Spanish") << "auto" << "Spanish" << "es";
    QTest::newRow("auto Inglés") << "auto" << "Inglés" << "en";
    QTest::newRow("auto english (US) by prefix") << "auto" << "english (US)" << "en";
    QTest::newRow("auto trimmed") << "auto" << "  English " << "en";
    QTest::newRow("auto Français") << "auto" << "Français" << "other:français";
    QTest::newRow("auto Portuguese") << "auto" << "Portuguese" << "other:portuguese";
    QTest::newRow("empty choice is auto") << "" << "English" << "en";
    QTest::newRow("api") << "api" << "English" << "api";
    QTest::newRow("es over English subtitles") << "es" << "English" << "es";
    QTest::newRow("en over Spanish subtitles") << "en" << "Español" << "en";
}

void tst_Passage::verseLanguageFor()
{
    QFETCH(QString, choice);
    QFETCH(QString, translation);
    QFETCH(QString, language);
    QCOMPARE(bible::verseLanguageFor(choice, translation), language);
}

QTEST_GUILESS_MAIN(tst_Passage)
#include "tst_passage.moc"
