#include "Output.h"
#include "Processes.h"
#include "RtmpServer.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QLineEdit>
#include <QProcess>
#include <QScopeGuard>
#include <QTcpSocket>
#include <QTest>

// tools/relay: the studio's "Otro RTMP" row sends to relay.sh's nginx, which sends on to two platforms.
class tst_Relay : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        prepareStudioTest();
    }
    void fanOut_data()
    {
        QTest::addColumn<bool>("relayKey"); // the studio sends under the relay's key, or another one
        QTest::addColumn<bool>("trusted");
        QTest::newRow("both platforms receive") << true << true;
        QTest::newRow("RTMPS platform of an unknown authority") << true << false;
        QTest::newRow("another key reaches no platform") << false << true;
    }
    void fanOut()
    {
        QFETCH(bool, relayKey);
        QFETCH(bool, trusted);
        const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT "/") + QString::fromUtf8(QTest::currentDataTag());
        QDir(folder).removeRecursively();
        RtmpServer plain(folder + "/plain"), secure(folder + "/secure", true);
        QVERIFY2(plain.ok() && secure.ok(), qPrintable(plain.errorString() + secure.errorString()));
        // nginx checks a certificate by host name, and the test's names localhost.
        const QStringList keys{"relay-key-of-the-church", "plain-platform-key", "secure-platform-key"};
        QFile list(folder + "/destinations.txt");
        QVERIFY(list.open(QIODevice::WriteOnly) && list.write(QStringLiteral("relay %1\n%2\n%3\n").arg(keys[0],
                plain.url(keys[1]), secure.tlsUrl(keys[2], "localhost")).toUtf8()) > 0 && list.flush());
        const quint16 port = RtmpServer::freePort();
        qputenv("RELAY_PORT", QByteArray::number(port));
        qputenv("RELAY_LEG_PORT", QByteArray::number(RtmpServer::freePort()));
        qputenv("RELAY_FOLDER", QFile::encodeName(folder + "/relay"));
        // Unknown: the platform's own certificate stands where its authority should.
        qputenv("RELAY_CA_FILE", QFile::encodeName(trusted ? secure.caCertificate() : secure.folder() + "/server.crt"));
        QProcess relay;
        relay.setProcessChannelMode(QProcess::MergedChannels);
        relay.start(QStringLiteral(VELMORA_SOURCE_DIR "/tools/relay/relay.sh"), {list.fileName()});
        const auto stopRelay = qScopeGuard([&relay] { relay.terminate(), relay.waitForFinished(10000); });
        QTcpSocket probe;
        QTRY_VERIFY_WITH_TIMEOUT(relay.state() == QProcess::NotRunning || (probe.connectToHost(QHostAddress::LocalHost,
                                 port), probe.waitForConnected(100)), 20000);
        QVERIFY2(relay.state() == QProcess::Running, relay.readAll().constData());
        StudioWindow window(false);
        Destination& row = window.destinations[3];
        row.server->setText(QStringLiteral("rtmp://127.0.0.1:%1/relay").arg(port));
        row.key->setText(relayKey ? keys[0] : QStringLiteral("a-guess-at-the-key"));
        row.button->click();
        const bool secureReached = relayKey && trusted;
        QTRY_VERIFY2_WITH_TIMEOUT(row.output && row.output->videoFrames >= 120 &&
                                      (!relayKey || QFileInfo(plain.recording(keys[1])).size() > 100000) &&
                                      (!secureReached || QFileInfo(secure.recording(keys[2])).size() > 100000),
                                  qPrintable(plain.log() + secure.log()), 30000);
        row.button->click();
        QTRY_VERIFY_WITH_TIMEOUT((!relayKey || plain.publishEnded(keys[1])) &&
                                 (!secureReached || secure.publishEnded(keys[2])), 20000);
        plain.stop();
        secure.stop();
        QFile log(folder + "/relay/error.log");
        QVERIFY(trusted || (log.open(QIODevice::ReadOnly) && log.readAll().contains("SSL certificate verify error")));
        // Platforms start at a key frame and a busy machine forwards slowly: a second of pictures is the proof.
        for (const auto& [file, reached] : {std::pair(plain.recording(keys[1]), relayKey),
                                            std::pair(secure.recording(keys[2]), secureReached)}) {
            const auto streams = probeStreams(file);
            QVERIFY2(reached ? streams.value("h264").frames >= 30 && streams.value("aac").frames > 0
                             : !QFileInfo::exists(file), qPrintable(file + describeStreams(streams)));
        }
        const QByteArray printed = relay.readAll();
        QVERIFY2(std::none_of(keys.begin(), keys.end(), [&](const QString& k) { return printed.contains(k.toUtf8()); }),
                 printed.constData());
    }
};

QTEST_MAIN(tst_Relay)
#include "tst_relay.moc"
