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
    void bookTable();
};

// Book indices, so the table below reads as references.
enum : qint32 {
    Genesis = 0, Judges = 6, Kings2 = 11, Psalms = 18, Isaiah = 22, Zephaniah = 35, John = 42, Romans = 44,
    Corinthians1 = 45, Hebrews = 57, John1 = 61, John3 = 63,
};

void tst_Reference::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("book");
    QTest::addColumn<int>("chapter");
    QTest::addColumn<int>("verse");
    QTest::addColumn<int>("endVerse");

    // Names alone are covered by the whole table below; these rows are about how people type them.
    QTest::newRow("GÉNESIS upper case, accent, dot") << "GÉNESIS 1.1" << int(Genesis) << 1 << 1 << 1;
    QTest::newRow("gn comma") << "gn 1,1" << int(Genesis) << 1 << 1 << 1;
    QTest::newRow("Is is not a Roman one") << "Is 53:5" << int(Isaiah) << 53 << 5 << 5;
    QTest::newRow("I Juan Roman") << "I Juan 1:9" << int(John1) << 1 << 9 << 9;
    QTest::newRow("III Juan") << "III Juan 1:4" << int(John3) << 1 << 4 << 4;
    QTest::newRow("ii reyes whole chapter") << "ii reyes 2" << int(Kings2) << 2 << 0 << 0;
    QTest::newRow("1 Co range") << "1 Co 13:4-7" << int(Corinthians1) << 13 << 4 << 7;
    QTest::newRow("1co glued to the chapter") << "1co13" << int(Corinthians1) << 13 << 0 << 0;
    QTest::newRow("en dash range") << QStringLiteral("Salmos 23:1\u20133") << int(Psalms) << 23 << 1 << 3;
    QTest::newRow("hyphen range with blanks") << "Romanos 8 : 28 - 30" << int(Romans) << 8 << 28 << 30;
    QTest::newRow("reversed range passes") << "Rom 8:28-20" << int(Romans) << 8 << 28 << 20;
    QTest::newRow("tabs and blanks") << "\tjuan    3:16 " << int(John) << 3 << 16 << 16;
    QTest::newRow("no blank before chapter") << "Juan3:16" << int(John) << 3 << 16 << 16;
    QTest::newRow("chapter overflows an int") << "Juan 99999999999:1" << int(John) << 0 << 1 << 1;
    QTest::newRow("ju resolves by the longest candidate") << "ju 1:1" << int(Judges) << 1 << 1 << 1;
    QTest::newRow("he exact beats the earlier hechos") << "he 11:1" << int(Hebrews) << 11 << 1 << 1;
    QTest::newRow("ze ties, the first book met wins") << "ze 1:1" << int(Zephaniah) << 1 << 1 << 1;

    QTest::newRow("one letter never matches by prefix") << "j 3:16" << -1 << 0 << 0 << 0;
    QTest::newRow("no chapter") << "Genesis" << -1 << 0 << 0 << 0;
    QTest::newRow("dangling hyphen") << "Romanos 8:28-" << -1 << 0 << 0 << 0;
    QTest::newRow("unknown book") << "Maccabees 1:1" << -1 << 0 << 0 << 0;
    QTest::newRow("digits only") << "3:16" << -1 << 0 << 0 << 0;
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
    QCOMPARE((QList<int>{ref.book, ref.chapter, ref.verse, ref.endVerse}), (QList<int>{book, chapter, verse, endVerse}));
}

void tst_Reference::formatRef_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("expected");

    QTest::newRow("range, en dash as hyphen") << QStringLiteral("1 Co 13:4\u20137") << "1 Corintios 13:4-7";
    QTest::newRow("whole chapter") << "Salmo 23" << "Salmos 23";
    QTest::newRow("reversed end is dropped") << "Rom 8:28-20" << "Romanos 8:28";
    QTest::newRow("no reference") << "Genesis" << "";
}

void tst_Reference::formatRef()
{
    QFETCH(QString, typed);
    QFETCH(QString, expected);
    QCOMPARE(bible::formatRef(bible::parse(typed), QStringLiteral("es")), expected);
}

// Every alias and both names of every row, typed with a chapter, must find that row (a typo or an
// alias shared by two books would send a reference to the wrong book), and be written back.
void tst_Reference::bookTable()
{
    const auto& table = bible::books();
    QSet<QByteArray> codes;
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
        const bible::Ref ref{i, 2, 3, 3};
        QCOMPARE(bible::formatRef(ref, QStringLiteral("es")), QString::fromUtf8(book.spanish) + QStringLiteral(" 2:3"));
        // Only exactly "es" is Spanish.
        QCOMPARE(bible::formatRef(ref, QStringLiteral("ES")), QString::fromUtf8(book.english) + QStringLiteral(" 2:3"));
        // The online service's code: three letters, one book each.
        QCOMPARE(qstrlen(book.code), 3u);
        QVERIFY2(!codes.contains(book.code), book.code);
        codes.insert(book.code);
    }
    QByteArray unusual; // codes that are not the obvious abbreviation
    for (int i : {21, 25, 28, 33, 40, 42, 49, 56, 64})
        unusual += QByteArray(table[std::size_t(i)].code) + ' ';
    QCOMPARE(unusual, QByteArray("SNG EZK JOL NAM MRK JHN PHP PHM JUD "));
}

QTEST_APPLESS_MAIN(tst_Reference)
#include "tst_reference.moc"
