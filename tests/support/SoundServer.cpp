#include "SoundServer.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>

#include <utility>

namespace {

// Runs pulseaudio for the server in `folder` to its end, bounded, with English texts (device names
// included) whatever the test's language; what it printed when it failed, else empty.
QString pulseaudio(const QString& folder, const QStringList& arguments)
{
    QProcess tool;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), folder);
    tool.setProcessEnvironment(environment);
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(QStringLiteral("pulseaudio"), arguments);
    const bool done =
        tool.waitForFinished(30000) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    return done ? QString() : QStringLiteral("pulseaudio failed: ") + QString::fromLocal8Bit(tool.readAll());
}

} // namespace

SoundServer::SoundServer(const QString& folder) : dir(folder) {}

SoundServer::~SoundServer()
{
    stopPlaying();
    stop();
}

void SoundServer::useFolder(const QString& folder)
{
    const QByteArray runtime = QFile::encodeName(folder);
    qputenv("XDG_RUNTIME_DIR", runtime);
    qputenv("PULSE_SERVER", "unix:" + runtime + "/pulse/native");
}

bool SoundServer::clearFolder()
{
    pulseaudio(dir, {QStringLiteral("--kill")});
    QDir(dir).removeRecursively();
    return QDir().mkpath(dir) &&
           QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString SoundServer::start()
{
    started = true;
    return pulseaudio(dir, {QStringLiteral("--daemonize=yes"), QStringLiteral("--exit-idle-time=-1"),
                            QStringLiteral("-n"), QStringLiteral("--load=module-native-protocol-unix"),
                            QStringLiteral("--load=module-null-sink sink_name=studio")});
}

void SoundServer::stop()
{
    if (std::exchange(started, false))
        pulseaudio(dir, {QStringLiteral("--kill")});
}

bool SoundServer::play(const QString& wavFile)
{
    stopPlaying();
    player = std::make_unique<QProcess>();
    player->setProcessChannelMode(QProcess::MergedChannels);
    player->start(QStringLiteral("paplay"), {QStringLiteral("--device=studio"), wavFile});
    return player->waitForStarted();
}

void SoundServer::stopPlaying()
{
    if (!player)
        return;
    player->kill();
    player->waitForFinished();
    player.reset();
}

QByteArray SoundServer::playerOutput() const
{
    return player ? player->readAll() : QByteArray();
}
