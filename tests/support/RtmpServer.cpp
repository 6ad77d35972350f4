#include "RtmpServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

const QString modules = QStringLiteral("/usr/lib/nginx/modules/");

// nginx takes double-quoted strings; the folders here come from the build tree.
QString quoted(QString path)
{
    return u'"' + path.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\"")) + u'"';
}

// A test authority of its own, and a server certificate that names the loopback both ways, so that
// clients keep full verification, host name included.
const char* const serverExtensions =
    "basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n"
    "extendedKeyUsage=serverAuth\nsubjectAltName=IP:127.0.0.1,DNS:localhost\n"
    "subjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid,issuer\n";
const char* const certificateCommands[] = {
    "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout test-ca.key -out test-ca.crt"
    " -days 30 -subj /CN=velmora-test-ca -addext basicConstraints=critical,CA:TRUE"
    " -addext keyUsage=critical,keyCertSign,cRLSign",
    "req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout server.key -out server.csr -subj "
    "/CN=localhost",
    "x509 -req -in server.csr -CA test-ca.crt -CAkey test-ca.key -CAcreateserial -out server.crt -days 30"
    " -extfile server.ext"};

bool writeText(const QString& path, const QString& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text.toUtf8()) >= 0;
}

} // namespace

RtmpServer::RtmpServer(const QString& folder, bool tls) : dir(QDir(folder).absolutePath()), tls(tls)
{
    running = start();
}

RtmpServer::~RtmpServer()
{
    stop();
}

quint16 RtmpServer::freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

bool RtmpServer::publishEnded(const QString& key) const
{
    return QFileInfo::exists(dir + u'/' + key + QStringLiteral(".ended"));
}

QString RtmpServer::log() const
{
    QFile file(dir + QStringLiteral("/error.log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

// Runs openssl in the folder to its end, bounded; false with `failure` set when it fails.
bool RtmpServer::run(const QStringList& arguments)
{
    QProcess process;
    process.setWorkingDirectory(dir);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("openssl"), arguments);
    if (process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
        process.exitCode() == 0)
        return true;
    process.kill();
    failure =
        QStringLiteral("openssl %1 failed: %2 %3")
            .arg(arguments.join(u' '), process.errorString(), QString::fromLocal8Bit(process.readAll()));
    return false;
}

bool RtmpServer::start()
{
    // Not every PATH holds the sbin folders.
    QString program = QStandardPaths::findExecutable(QStringLiteral("nginx"));
    if (program.isEmpty())
        program = QStandardPaths::findExecutable(
            QStringLiteral("nginx"), {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/local/sbin")});
    const QString rtmpModule = modules + QStringLiteral("ngx_rtmp_module.so");
    const QString streamModule = modules + QStringLiteral("ngx_stream_module.so");
    if (!QDir().mkpath(dir))
        failure = QStringLiteral("cannot create ") + dir;
    else if (program.isEmpty())
        failure = QStringLiteral("nginx not found (packages nginx-light libnginx-mod-rtmp)");
    else if (!QFileInfo::exists(rtmpModule) || (tls && !QFileInfo::exists(streamModule)))
        failure =
            QStringLiteral("nginx module missing: ") + (tls ? streamModule + u' ' : QString()) + rtmpModule;
    else if (tls && !writeText(dir + QStringLiteral("/server.ext"), QString::fromLatin1(serverExtensions)))
        failure = QStringLiteral("cannot write in ") + dir;
    if (!failure.isEmpty())
        return false;
    for (const char* command : certificateCommands)
        if (tls && !run(QString::fromLatin1(command).split(u' ')))
            return false;

    // A port picked as free can be taken before nginx binds it; then nginx exits and we try again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        rtmpPort = freePort();
        rtmpsPort = tls ? freePort() : 0;
        if (rtmpPort == 0 || (tls && (rtmpsPort == 0 || rtmpsPort == rtmpPort))) {
            failure = QStringLiteral("no free loopback port");
            continue;
        }
        QFile::remove(dir + QStringLiteral("/error.log"));
        // Started as root, the workers would otherwise run as www-data and could not write the records.
        QString config =
            QStringLiteral("load_module %1;\n%2%3daemon off;\nworker_processes 1;\npid %4;\nerror_log %5;\n"
                           "events { worker_connections 64; }\n")
                .arg(quoted(rtmpModule),
                     tls ? QStringLiteral("load_module %1;\n").arg(quoted(streamModule)) : "",
                     ::geteuid() == 0 ? "user root;\n" : "", quoted(dir + QStringLiteral("/nginx.pid")),
                     quoted(dir + QStringLiteral("/error.log")));
        config += QStringLiteral("rtmp { server { listen 127.0.0.1:%1; application app {\n"
                                 "  live on; record all; record_path %2; record_unique off;\n"
                                 "  exec_publish_done /usr/bin/touch %3; } } }\n")
                      .arg(rtmpPort)
                      .arg(quoted(dir), quoted(dir + QStringLiteral("/$name.ended")));
        if (tls)
            config += QStringLiteral("stream { server { listen 127.0.0.1:%1 ssl; ssl_certificate %2;\n"
                                     "  ssl_certificate_key %3; proxy_pass 127.0.0.1:%4; } }\n")
                          .arg(rtmpsPort)
                          .arg(quoted(dir + QStringLiteral("/server.crt")),
                               quoted(dir + QStringLiteral("/server.key")))
                          .arg(rtmpPort);
        if (!writeText(dir + QStringLiteral("/nginx.conf"), config)) {
            failure = QStringLiteral("cannot write in ") + dir;
            return false;
        }
        nginx = std::make_unique<QProcess>();
        nginx->setProcessChannelMode(QProcess::MergedChannels);
        nginx->setWorkingDirectory(dir);
        // Its own group, led by the master: the workers and what they start can be ended together.
        nginx->setChildProcessModifier([] { ::setpgid(0, 0); });
        nginx->start(program,
                     {QStringLiteral("-c"), dir + QStringLiteral("/nginx.conf"), QStringLiteral("-p"),
                      dir + u'/', QStringLiteral("-e"), dir + QStringLiteral("/error.log")});
        if (!nginx->waitForStarted(20000)) {
            failure = QStringLiteral("nginx could not start: ") + nginx->errorString();
            nginx.reset();
            return false;
        }
        group = nginx->processId();
        guardGroup();
        if (waitUntilAccepting())
            return true;
        stop();
    }
    return false;
}

bool RtmpServer::waitUntilAccepting()
{
    const QDeadlineTimer deadline(20000);
    QList<quint16> pending{rtmpPort};
    if (tls)
        pending << rtmpsPort;
    while (!pending.isEmpty()) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, pending.first());
        if (probe.waitForConnected(200)) {
            pending.removeFirst();
            continue;
        }
        // Between probes, a bounded wait that ends at once if nginx gave up (a port taken, a bad
        // configuration).
        if (nginx->state() == QProcess::NotRunning || nginx->waitForFinished(100))
            failure = QStringLiteral("nginx exited: ") + QString::fromLocal8Bit(nginx->readAll()) + log();
        else if (deadline.hasExpired())
            failure = QStringLiteral("nginx did not accept connections in time: ") + log();
        else
            continue;
        return false;
    }
    return true;
}

// A forked child that blocks on a pipe only this process writes to. When the pipe closes, because
// this process died (a crash, SIGKILL, a failed test's abort), it ends nginx's whole group. It leaves
// this process's group first, or what ends the group (Ctrl-C, timeout(1)) would end it too. Between
// fork and exit it makes only async-signal-safe calls.
void RtmpServer::guardGroup()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return;
    const pid_t target = pid_t(group);
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        ::close(ends[1]);
        char byte;
        while (::read(ends[0], &byte, 1) < 0 && errno == EINTR) {
        }
        ::kill(-target, SIGCONT);
        ::kill(-target, SIGKILL);
        ::_exit(0);
    }
    ::close(ends[0]);
    if (child < 0) {
        ::close(ends[1]);
        return;
    }
    watchdog = child;
    lifeline = ends[1];
}

void RtmpServer::stop()
{
    running = false;
    if (!nginx)
        return;
    if (nginx->state() != QProcess::NotRunning) {
        // Graceful quit first, so that a recording holds everything the client sent; a frozen server is
        // woken for it. Then harder, each step bounded.
        ::kill(-pid_t(group), SIGCONT);
        ::kill(pid_t(group), SIGQUIT);
        if (!nginx->waitForFinished(5000)) {
            nginx->kill();
            nginx->waitForFinished(3000);
        }
    }
    // SIGKILL ends even a frozen worker; they need no grace once the master has gone.
    if (group > 0)
        ::kill(-pid_t(std::exchange(group, 0)), SIGKILL);
    if (watchdog > 0) {
        // Another server's watchdog may hold this one's pipe open too: end it directly.
        ::close(std::exchange(lifeline, -1));
        ::kill(pid_t(watchdog), SIGKILL);
        ::waitpid(pid_t(std::exchange(watchdog, 0)), nullptr, 0);
    }
    nginx.reset();
}
