#include "SoundServer.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>

namespace {

constexpr int toolTimeoutMs = 30000;

// Runs one sound server tool for the server in `folder` to its end, with English texts (device names
// included) whatever the test's language.
bool runTool(const QString& folder, const QString& program, const QStringList& arguments,
             QString* output = nullptr)
{
    QProcess tool;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), folder);
    tool.setProcessEnvironment(environment);
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(program, arguments);
    const bool finished = tool.waitForFinished(toolTimeoutMs);
    if (output)
        *output = QString::fromLocal8Bit(tool.readAll());
    return finished && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
}

// Stops the server that runs with `folder`, if any.
void killServer(const QString& folder)
{
    runTool(folder, QStringLiteral("pulseaudio"), {QStringLiteral("--kill")});
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
    killServer(dir);
    QDir(dir).removeRecursively();
    return QDir().mkpath(dir) &&
           QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString SoundServer::start()
{
    started = true;
    QString output;
    if (!runTool(dir, QStringLiteral("pulseaudio"),
                 {QStringLiteral("--daemonize=yes"), QStringLiteral("--exit-idle-time=-1"),
                  QStringLiteral("-n"), QStringLiteral("--load=module-native-protocol-unix"),
                  QStringLiteral("--load=module-null-sink sink_name=studio")},
                 &output))
        return QStringLiteral("pulseaudio did not start: ") + output;
    return {};
}

void SoundServer::stop()
{
    if (!started)
        return;
    started = false;
    killServer(dir);
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
