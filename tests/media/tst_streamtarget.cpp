#include "StreamTarget.h"

#include <QTest>
#include <stdexcept>

class tst_StreamTarget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void target_data();
    void target();
    void keyNeverReachesTheLog_data();
    void keyNeverReachesTheLog();
};

void tst_StreamTarget::target_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected"); // empty: refused with `refusal`
    QTest::addColumn<QString>("refusal");

    const QString badServer = QStringLiteral("Servidor RTMP/RTMPS inválido. Separa la clave del servidor.");
    const QString badKey = QStringLiteral("Clave de transmisión inválida");
    QTest::newRow("youtube preset") << "rtmps://a.rtmps.youtube.com/live2" << "abcd-1234"
                                    << "rtmps://a.rtmps.youtube.com/live2/abcd-1234" << "";
    QTest::newRow("trailing slash gives one slash") << "rtmp://127.0.0.1:1935/app/" << "k" << "rtmp://127.0.0.1:1935/app/k" << "";
    QTest::newRow("blanks around both are trimmed") << "  rtmp://host/app  " << "  key  " << "rtmp://host/app/key" << "";
    QTest::newRow("no path") << "rtmp://host" << "key" << "rtmp://host/key" << "";
    QTest::newRow("key in the query") << "rtmp://host/app?key=abc" << "k" << "" << badServer;
    QTest::newRow("user part") << "rtmp://user@host/app" << "k" << "" << badServer;
    QTest::newRow("fragment") << "rtmp://host/app#k" << "k" << "" << badServer;
    QTest::newRow("no host, as row 3 starts") << "rtmp://" << "k" << "" << badServer;
    QTest::newRow("another scheme") << "srt://host/app" << "k" << "" << badServer;
    QTest::newRow("rtmp2 is not rtmp") << "RTMP2://host/app" << "k" << "" << badServer;
    QTest::newRow("empty server") << "" << "k" << "" << badServer;
    QTest::newRow("empty key") << "rtmp://host/app" << "   " << "" << badKey;
    QTest::newRow("key with a blank") << "rtmp://host/app" << "ab cd" << "" << badKey;
    QTest::newRow("key with a question mark") << "rtmp://host/app" << "ab?cd" << "" << badKey;
    QTest::newRow("key with a hash") << "rtmp://host/app" << "ab#cd" << "" << badKey;
}

void tst_StreamTarget::target()
{
    QFETCH(QString, server);
    QFETCH(QString, key);
    QFETCH(QString, expected);
    QFETCH(QString, refusal);

    try {
        QCOMPARE(tavrin::streamTarget(server, key), expected);
        QVERIFY(refusal.isEmpty());
    } catch (const std::runtime_error& error) {
        QCOMPARE(QString::fromUtf8(error.what()), refusal);
    }
}

void tst_StreamTarget::keyNeverReachesTheLog_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("expected");

    QTest::newRow("four characters show whole")
        << "abcd" << "Salida YouTube: servidor=rtmp://h/%3app clave: 4 caracteres, empieza \"abcd\"";
    QTest::newRow("five or more show four")
        << "abcd-efgh-ijkl" << "Salida YouTube: servidor=rtmp://h/%3app clave: 14 caracteres, empieza \"abcd\"";
}

void tst_StreamTarget::keyNeverReachesTheLog()
{
    QFETCH(QString, key);
    QFETCH(QString, expected);

    const QString line = tavrin::keyLogLine(QStringLiteral("YouTube"), QStringLiteral("rtmp://h/%3app"), key);
    QCOMPARE(line, expected);
    if (key.size() >= 5)
        QVERIFY(!line.contains(key));
}

QTEST_APPLESS_MAIN(tst_StreamTarget)
#include "tst_streamtarget.moc"
