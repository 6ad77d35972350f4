#include "Books.h"
#include "Reference.h"

#include <QSet>
#include <QStringList>
#include <QTest>

class tst_Reference : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parse_data();
    void parse();
    void formatRef_data();
    void formatRef();
    void everyNameOfTheTableFindsItsBook();
    void tableRows();
};

// Book indices, so the table below reads as references.
enum : qint32 {
    Genesis = 0, Exodus = 1, Judges = 6, Kings2 = 11, Psalms = 18, Song = 21, Isaiah = 22,
    Zephaniah = 35, Matthew = 39, John = 42, Acts = 43, Romans = 44, Corinthians1 = 45, Philippians = 49, Hebrews = 57,
    Peter1 = 59, John1 = 61, John3 = 63, Revelation = 65,
};

void tst_Reference::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("book");
    QTest::addColumn<int>("chapter");
    QTest::addColumn<int>("verse");
    QTest::addColumn<int>("endVerse");

    // Spanish and English names, whole or abbreviated, with and without accents.
    QTest::newRow("Génesis with accent") << "Génesis 1:1" << int(Genesis) << 1 << 1 << 1;
    QTest::newRow("GENESIS upper case, dot") << "GENESIS 1.1" << int(Genesis) << 1 << 1 << 1;
    QTest::newRow("gn comma") << "gn 1,1" << int(Genesis) << 1 << 1 << 1;
    QTest::newRow("Gen") << "Gen 1:1" << int(Genesis) << 1 << 1 << 1;
    QTest::newRow("Éxodo capital accent") << "Éxodo 20:3" << int(Exodus) << 20 << 3 << 3;
    QTest::newRow("exodo no accent") << "exodo 20:3" << int(Exodus) << 20 << 3 << 3;
    QTest::newRow("Juan") << "Juan 3:16" << int(John) << 3 << 16 << 16;
    QTest::newRow("jn") << "jn 3:16" << int(John) << 3 << 16 << 16;
    QTest::newRow("John") << "John 3:16" << int(John) << 3 << 16 << 16;
    QTest::newRow("JUAN shouted") << "JUAN 3:16" << int(John) << 3 << 16 << 16;
    QTest::newRow("Isaías") << "Isaías 53:5" << int(Isaiah) << 53 << 5 << 5;
    QTest::newRow("Is is not a Roman one") << "Is 53:5" << int(Isaiah) << 53 << 5 << 5;
    QTest::newRow("Filipenses") << "Filipenses 4:13" << int(Philippians) << 4 << 13 << 13;
    QTest::newRow("Phil by prefix") << "Phil 4:13" << int(Philippians) << 4 << 13 << 13;
    QTest::newRow("Hebreos") << "Hebreos 11:1" << int(Hebrews) << 11 << 1 << 1;
    QTest::newRow("Apocalipsis") << "Apocalipsis 21:4" << int(Revelation) << 21 << 4 << 4;
    QTest::newRow("Rev") << "Rev 21:4" << int(Revelation) << 21 << 4 << 4;
    QTest::newRow("Mat") << "Mat 5:3" << int(Matthew) << 5 << 3 << 3;
    QTest::newRow("Cantar de los cantares") << "Cantar de los Cantares 2:4" << int(Song) << 2 << 4 << 4;
    QTest::newRow("Song of Solomon") << "Song of Solomon 2:4" << int(Song) << 2 << 4 << 4;

    // Numbered books, by alias, by prefix, glued to the chapter, and through the Roman prefix.
    QTest::newRow("1 Juan") << "1 Juan 4:8" << int(John1) << 4 << 8 << 8;
    QTest::newRow("1juan") << "1juan 4:8" << int(John1) << 4 << 8 << 8;
    QTest::newRow("i juan") << "i juan 4:8" << int(John1) << 4 << 8 << 8;
    QTest::newRow("I Juan upper") << "I Juan 1:9" << int(John1) << 1 << 9 << 9;
    QTest::newRow("1 John") << "1 John 1:9" << int(John1) << 1 << 9 << 9;
    QTest::newRow("III Juan") << "III Juan 1:4" << int(John3) << 1 << 4 << 4;
    QTest::newRow("II Reyes whole chapter") << "II Reyes 2" << int(Kings2) << 2 << 0 << 0;
    QTest::newRow("ii reyes verse") << "ii reyes 2:11" << int(Kings2) << 2 << 11 << 11;
    QTest::newRow("2 Kings") << "2 Kings 2:11" << int(Kings2) << 2 << 11 << 11;
    QTest::newRow("1 Co range") << "1 Co 13:4-7" << int(Corinthians1) << 13 << 4 << 7;
    QTest::newRow("1co glued") << "1co13" << int(Corinthians1) << 13 << 0 << 0;
    QTest::newRow("1 Corintios") << "1 Corintios 13:13" << int(Corinthians1) << 13 << 13 << 13;
    QTest::newRow("I Corintios") << "I Corintios 13:13" << int(Corinthians1) << 13 << 13 << 13;
    QTest::newRow("1 Pedro") << "1 Pedro 5:7" << int(Peter1) << 5 << 7 << 7;
    QTest::newRow("1p") << "1p 5:7" << int(Peter1) << 5 << 7 << 7;

    // Whole chapters and ranges.
    QTest::newRow("Salmos 23") << "Salmos 23" << int(Psalms) << 23 << 0 << 0;
    QTest::newRow("Salmo 23") << "Salmo 23" << int(Psalms) << 23 << 0 << 0;
    QTest::newRow("Psalm 119 long") << "Psalm 119:105" << int(Psalms) << 119 << 105 << 105;
    QTest::newRow("en dash range") << QStringLiteral("Salmos 23:1\u20133") << int(Psalms) << 23 << 1 << 3;
    QTest::newRow("hyphen range with blanks") << "Romanos 8 : 28 - 30" << int(Romans) << 8 << 28 << 30;
    QTest::newRow("reversed range passes") << "Rom 8:28-20" << int(Romans) << 8 << 28 << 20;
    QTest::newRow("extra blanks") << "   juan    3:16   " << int(John) << 3 << 16 << 16;
    QTest::newRow("tab and blanks") << "\tsalmos\t 23 " << int(Psalms) << 23 << 0 << 0;
    QTest::newRow("no blank before chapter") << "Juan3:16" << int(John) << 3 << 16 << 16;
    QTest::newRow("chapter overflows an int") << "Juan 99999999999:1" << int(John) << 0 << 1 << 1;

    // Prefixes: the longest candidate that begins with the name, and exact beats prefix.
    QTest::newRow("ju resolves by the longest candidate") << "ju 1:1" << int(Judges) << 1 << 1 << 1;
    QTest::newRow("jua is an alias of John") << "jua 1:1" << int(John) << 1 << 1 << 1;
    QTest::newRow("he exact beats the earlier hechos") << "he 11:1" << int(Hebrews) << 11 << 1 << 1;
    QTest::newRow("hech is Acts") << "Hech 2:38" << int(Acts) << 2 << 38 << 38;
    QTest::newRow("ze ties, the first book met wins") << "ze 1:1" << int(Zephaniah) << 1 << 1 << 1;

    // Failures.
    QTest::newRow("one letter never matches by prefix") << "j 3:16" << -1 << 0 << 0 << 0;
    QTest::newRow("no chapter") << "Genesis" << -1 << 0 << 0 << 0;
    QTest::newRow("dangling hyphen") << "Romanos 8:28-" << -1 << 0 << 0 << 0;
    QTest::newRow("unknown book") << "Hezequias 3:1" << -1 << 0 << 0 << 0;
    QTest::newRow("unknown English") << "Maccabees 1:1" << -1 << 0 << 0 << 0;
    QTest::newRow("garbage") << "#$%&/ 3:16" << -1 << 0 << 0 << 0;
    QTest::newRow("digits only") << "3:16" << -1 << 0 << 0 << 0;
    QTest::newRow("empty") << "" << -1 << 0 << 0 << 0;
    QTest::newRow("blanks") << "    " << -1 << 0 << 0 << 0;
    QTest::newRow("two separators") << "Juan 3:16:17" << -1 << 0 << 0 << 0;
    QTest::newRow("four i's are not Roman") << "iiii juan 1:1" << -1 << 0 << 0 << 0;
}

void tst_Reference::parse()
{
    QFETCH(QString, text);
    QFETCH(int, book);
    QFETCH(int, chapter);
    QFETCH(int, verse);
    QFETCH(int, endVerse);

    const bible::Ref ref = bible::parse(text);
    QCOMPARE(ref.book, book);
    QCOMPARE(ref.chapter, chapter);
    QCOMPARE(ref.verse, verse);
    QCOMPARE(ref.endVerse, endVerse);
}

void tst_Reference::formatRef_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("expected");

    QTest::newRow("es range") << "1 Co 13:4-7" << "es" << "1 Corintios 13:4-7";
    QTest::newRow("en range") << "1 Co 13:4-7" << "en" << "1 Corinthians 13:4-7";
    QTest::newRow("es whole chapter") << "Salmo 23" << "es" << "Salmos 23";
    QTest::newRow("en whole chapter") << "Salmo 23" << "en" << "Psalms 23";
    QTest::newRow("es accents come back") << "genesis 1:1" << "es" << "Génesis 1:1";
    QTest::newRow("en from Spanish typing") << "Génesis 1:1" << "en" << "Genesis 1:1";
    QTest::newRow("es one verse has no range") << "jn 3:16" << "es" << "Juan 3:16";
    QTest::newRow("es reversed end is dropped") << "Rom 8:28-20" << "es" << "Romanos 8:28";
    QTest::newRow("es equal end is dropped") << "Rom 8:28-28" << "es" << "Romanos 8:28";
    QTest::newRow("es en dash written as hyphen") << QStringLiteral("Salmos 23:1\u20133") << "es" << "Salmos 23:1-3";
    QTest::newRow("es Roman prefix") << "II Reyes 2" << "es" << "2 Reyes 2";
    QTest::newRow("only exactly es is Spanish") << "Juan 3:16" << "ES" << "John 3:16";
    QTest::newRow("empty language is English") << "Juan 3:16" << "" << "John 3:16";
    QTest::newRow("es no reference") << "Genesis" << "es" << "";
    QTest::newRow("en no reference") << "j 3:16" << "en" << "";
}

void tst_Reference::formatRef()
{
    QFETCH(QString, typed);
    QFETCH(QString, language);
    QFETCH(QString, expected);

    QCOMPARE(bible::formatRef(bible::parse(typed), language), expected);
}

// Every alias and both names of every row, typed with a chapter, must find that row: a typo or
// an alias shared by two books would send a reference to the wrong book.
void tst_Reference::everyNameOfTheTableFindsItsBook()
{
    const auto& table = bible::books();
    for (int i = 0; i < int(table.size()); ++i) {
        const auto& book = table[std::size_t(i)];
        QStringList names = QString::fromUtf8(book.aliases).split(u'|');
        names << QString::fromUtf8(book.spanish) << QString::fromUtf8(book.english);
        for (const QString& name : names) {
            QVERIFY2(name == name.trimmed() && !name.isEmpty(), qPrintable(name));
            const bible::Ref ref = bible::parse(name + QStringLiteral(" 2:3"));
            QVERIFY2(ref.book == i, qPrintable(name + QStringLiteral(" -> ") + QString::number(ref.book)));
        }
        const QString alias = QString::fromUtf8(book.aliases);
        QCOMPARE(bible::normalise(alias), alias);
    }
}

void tst_Reference::tableRows()
{
    const auto& table = bible::books();
    QSet<QString> codes;
    for (const auto& book : table) {
        const QString code = QString::fromUtf8(book.code);
        QCOMPARE(code.size(), 3);
        QVERIFY2(!codes.contains(code), qPrintable(code));
        codes.insert(code);
    }
    // The codes the online service knows, where they differ from the obvious abbreviation.
    QCOMPARE(QString::fromUtf8(table[21].code), QStringLiteral("SNG"));
    QCOMPARE(QString::fromUtf8(table[25].code), QStringLiteral("EZK"));
    QCOMPARE(QString::fromUtf8(table[28].code), QStringLiteral("JOL"));
    QCOMPARE(QString::fromUtf8(table[33].code), QStringLiteral("NAM"));
    QCOMPARE(QString::fromUtf8(table[40].code), QStringLiteral("MRK"));
    QCOMPARE(QString::fromUtf8(table[42].code), QStringLiteral("JHN"));
    QCOMPARE(QString::fromUtf8(table[49].code), QStringLiteral("PHP"));
    QCOMPARE(QString::fromUtf8(table[56].code), QStringLiteral("PHM"));
    QCOMPARE(QString::fromUtf8(table[64].code), QStringLiteral("JUD"));
    QCOMPARE(QString::fromUtf8(table[0].spanish), QStringLiteral("Génesis"));
    QCOMPARE(QString::fromUtf8(table[65].english), QStringLiteral("Revelation"));
}

QTEST_APPLESS_MAIN(tst_Reference)
#include "tst_reference.moc"
