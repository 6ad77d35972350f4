#include "RtmpServer.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <unistd.h>

// The nginx helper must leave no process behind, whatever state its server is in and however the
// process that owns it ends.
class tst_RtmpServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothingOutlivesTheServer_data();
    void nothingOutlivesTheServer();
};

namespace {

const char* holderVariable = "VELMORA_RTMP_HOLDER";

// Members of a process group that have not ended, as /proc lists them (a zombie has ended).
int livingMembers(qint64 group)
{
    int count = 0;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile stat(QStringLiteral("/proc/") + entry + QStringLiteral("/stat"));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray text = stat.readAll();
        // "pid (name) state ppid pgrp ...": the name may hold blanks, so fields count from its end.
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 2 && fields[2].toLongLong() == group && fields[0] != "Z")
            ++count;
    }
    return count;
}

} // namespace

void tst_RtmpServer::nothingOutlivesTheServer_data()
{
    QTest::addColumn<QString>("end");
    QTest::newRow("stopped") << QStringLiteral("stop");
    QTest::newRow("frozen with SIGSTOP, then stopped") << QStringLiteral("freeze");
    QTest::newRow("owner killed with SIGKILL") << QStringLiteral("kill owner");
    // As Ctrl-C or timeout(1) end a run: a signal to the owner's whole process group.
    QTest::newRow("owner's group terminated") << QStringLiteral("terminate group");
}

void tst_RtmpServer::nothingOutlivesTheServer()
{
    QFETCH(QString, end);
    const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT "/") + QString::fromUtf8(QTest::currentDataTag());
    QDir(folder).removeRecursively();
    qint64 group = 0;
    if (end != QLatin1String("stop") && end != QLatin1String("freeze")) {
        // This very program, holding a server until it is killed, in a group of its own.
        QProcess owner;
        owner.setChildProcessModifier([] { ::setpgid(0, 0); });
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QString::fromLatin1(holderVariable), folder);
        owner.setProcessEnvironment(environment);
        owner.start(QCoreApplication::applicationFilePath(), {});
        QTRY_VERIFY_WITH_TIMEOUT(owner.canReadLine() || owner.state() == QProcess::NotRunning, 30000);
        group = owner.readLine().trimmed().toLongLong();
        QVERIFY2(group > 0, owner.readAllStandardError().constData());
        QTRY_VERIFY(livingMembers(group) >= 2); // master and worker
        if (end == QLatin1String("kill owner"))
            ::kill(pid_t(owner.processId()), SIGKILL);
        else
            ::kill(-pid_t(owner.processId()), SIGTERM);
        QVERIFY(owner.waitForFinished());
        QTRY_COMPARE(livingMembers(group), 0);
        return;
    }
    RtmpServer server(folder);
    QVERIFY2(server.ok(), qPrintable(server.errorString()));
    group = server.processGroup();
    QTRY_VERIFY(livingMembers(group) >= 2);
    if (end == QLatin1String("freeze"))
        ::kill(-pid_t(group), SIGSTOP);
    server.stop();
    QCOMPARE(livingMembers(group), 0);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsSet(holderVariable)) {
        RtmpServer server(qEnvironmentVariable(holderVariable));
        std::printf("%lld\n", server.processGroup());
        std::fflush(stdout);
        return server.ok() ? app.exec() : 1;
    }
    tst_RtmpServer test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_rtmpserver.moc"
