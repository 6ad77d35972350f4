#include "MediaProbe.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QProcess>
#include <QSettings>
#include <QTest>

#include <csignal>
#include <cstdio>

// A recording cut off by a crash of the studio is found and repaired at the next start.
class tst_RecordingRecovery : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void killedRecordingIsRepairedAtTheNextStart();
};

namespace {

const char* recordVariable = "VELMORA_RECORD_UNTIL_KILLED";
const QString repairedPrefix = QStringLiteral("Grabación interrumpida reparada: ");

QSettings studioSettings()
{
    return QSettings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"));
}

// The child's part: the studio with its Program on air, recording until it is killed.
int recordUntilKilled(StudioWindow& window, const QString& path)
{
    window.take();
    window.startRecording(path);
    std::printf("recording\n");
    std::fflush(stdout);
    return QApplication::exec();
}

} // namespace

void tst_RecordingRecovery::initTestCase()
{
    // No first-run wizard in either process.
    studioSettings().setValue(QStringLiteral("onboarding_complete"), true);
}

void tst_RecordingRecovery::killedRecordingIsRepairedAtTheNextStart()
{
    const QString path = QStringLiteral(VELMORA_TEST_OUTPUT "/service.webm");
    const QString repaired = QStringLiteral(VELMORA_TEST_OUTPUT "/service-reparada.webm");
    QFile::remove(path);
    QFile::remove(repaired);

    QProcess studio;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(recordVariable), path);
    studio.setProcessEnvironment(environment);
    studio.start(QCoreApplication::applicationFilePath(), {});
    QTRY_VERIFY_WITH_TIMEOUT(studio.canReadLine() || studio.state() == QProcess::NotRunning, 30000);
    QCOMPARE(studio.readLine(), QByteArray("recording\n"));
    QElapsedTimer wall;
    wall.start();
    // A few seconds of picture and sound on disk, then the crash.
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(path).size() > 1500000, 60000);
    ::kill(pid_t(studio.processId()), SIGKILL);
    const double wallSeconds = double(wall.elapsed()) / 1000.0;
    QVERIFY(studio.waitForFinished());
    const QByteArray original = [&] { QFile file(path); file.open(QIODevice::ReadOnly); return file.readAll(); }();
    QCOMPARE(studioSettings().value(QStringLiteral("unfinished_recording")).toString(), path);
    QCOMPARE(probeDuration(path), 0.0);

    StudioWindow window(false);
    const auto statusLine = [&window] {
        for (const QLabel* label : window.findChildren<QLabel*>())
            if (label->text().startsWith(repairedPrefix))
                return label->text();
        return QString();
    };
    QTRY_VERIFY_WITH_TIMEOUT(!statusLine().isEmpty(), 60000);
    QCOMPARE(statusLine(), repairedPrefix + repaired);
    QVERIFY(!studioSettings().contains(QStringLiteral("unfinished_recording")));

    // The copy has its length and a seek index: the Cues element, whose ID the head's seek table also
    // names, so the ID appears twice; in the cut-off original only the seek table names it.
    const double seconds = probeDuration(repaired);
    qInfo("repaired duration %.2f s, wall-clock time recorded %.2f s", seconds, wallSeconds);
    QVERIFY2(seconds > wallSeconds / 2 && seconds <= wallSeconds + 0.5, qPrintable(QString::number(seconds)));
    const QByteArray cues = QByteArray::fromHex("1c53bb6b");
    QFile copy(repaired);
    QVERIFY(copy.open(QIODevice::ReadOnly));
    QCOMPARE(copy.readAll().count(cues), 2);
    QCOMPARE(original.count(cues), 1);
    QFile after(path);
    QVERIFY(after.open(QIODevice::ReadOnly));
    QCOMPARE(after.readAll(), original);
    const QString complaints = playThrough(repaired);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints));
}

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    gst_init(nullptr, nullptr);
    if (qEnvironmentVariableIsSet(recordVariable)) {
        StudioWindow window(false);
        return recordUntilKilled(window, qEnvironmentVariable(recordVariable));
    }
    tst_RecordingRecovery test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_recordingrecovery.moc"
