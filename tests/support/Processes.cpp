#include "Processes.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>

ChildOutcome runCaseInChild(const QString& outputFolder, const char* variable, const QString& peer, ChildBus bus)
{
    const QString tag = QString::fromUtf8(QTest::currentDataTag());
    const QString caseName = QString::fromLatin1(QTest::currentTestFunction()) + (tag.isEmpty() ? "" : u':' + tag);
    const QString folder = outputFolder + u'/' + QString(caseName).replace(QRegularExpression("[^A-Za-z0-9_-]"), "_");
    QDir(folder).removeRecursively();
    QDir().mkpath(folder + "/HOME");
    const QTemporaryDir runtime; // it holds sockets, whose paths must stay short
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
        environment.insert(QLatin1String(name), folder + u'/' + QLatin1String(name));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    environment.insert(QString::fromLatin1(variable), peer);
    // No display: nothing may fall back to an X11 bus or a graphical unlock prompt.
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"})
        environment.remove(QLatin1String(name));
    if (bus == ChildBus::Nowhere)
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), "unix:path=" + runtime.path() + "/no-bus");
    const QString self = QCoreApplication::applicationFilePath();
    QProcess process; // a child that hangs is killed with it
    process.setProcessEnvironment(environment);
    if (bus == ChildBus::Keyring)
        process.start(QStringLiteral("dbus-run-session"),
                      {"--", "sh", "-c",
                       "printf %s test-password | gnome-keyring-daemon --unlock --components=secrets >/dev/null "
                       "|| { echo 'gnome-keyring-daemon did not start' >&2; exit 97; }; exec \"$0\" \"$1\"",
                       self, caseName});
    else
        process.start(self, {caseName});
    if (!process.waitForStarted(10000) || !process.waitForFinished(60000))
        return {false, {}, caseName + " did not start or finish in 60 s (tools/deps.sh test installs dbus-run-session "
                                      "and gnome-keyring-daemon)"};
    const QString errors = QString::fromUtf8(process.readAllStandardError());
    return {process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0, errors,
            QStringLiteral("%1 under \"%2\" gave:\n%3\n%4")
                .arg(caseName, peer, QString::fromUtf8(process.readAllStandardOutput()), errors)};
}

// Runs ffprobe or ffmpeg with the words of `text` and the file (whose path may hold blanks) in place of %1.
static QString ff(const char* text, const QString& file, int* exitCode = nullptr)
{
    QStringList words = QString::fromLatin1(text).split(u' ');
    words.replace(words.indexOf(QStringLiteral("%1")), file);
    return runTool(words.takeFirst(), words, exitCode);
}

QString runTool(const QString& program, const QStringList& arguments, int* exitCode)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(5000);
    }
    if (exitCode)
        *exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return QString::fromLocal8Bit(process.readAll()).trimmed();
}

QMap<QString, ProbedStream> probeStreams(const QString& file)
{
    QMap<QString, ProbedStream> streams;
    const QString text = ff("ffprobe -v error -count_frames -show_entries "
                            "stream=codec_name,nb_read_frames,avg_frame_rate -of csv=p=0 %1", file);
    for (const QString& line : text.split(u'\n', Qt::SkipEmptyParts))
        if (const QStringList fields = line.trimmed().split(u','); fields.size() == 3)
            streams.insert(fields[0], {fields[1], fields[2].toInt()});
    return streams;
}

QString describeStreams(const QMap<QString, ProbedStream>& streams)
{
    QStringList parts;
    for (auto it = streams.cbegin(); it != streams.cend(); ++it)
        parts << QStringLiteral("%1 %2 %3").arg(it.key(), it->rate).arg(it->frames);
    return parts.join(QStringLiteral("; "));
}

double probeDuration(const QString& file)
{
    return ff("ffprobe -v error -show_entries format=duration -of csv=p=0 %1", file).toDouble();
}

QString playThrough(const QString& file)
{
    int exitCode = -1;
    const QString complaints = ff("ffmpeg -v error -i %1 -f null -", file, &exitCode);
    return exitCode == 0 ? complaints : QStringLiteral("exit %1: %2").arg(exitCode).arg(complaints);
}

double meanVolumeDb(const QString& file)
{
    const QString report = ff("ffmpeg -nostats -i %1 -map 0:a -af volumedetect -f null -", file);
    const auto mean = QRegularExpression(QStringLiteral("mean_volume: (-?[0-9.]+) dB")).match(report);
    return mean.hasMatch() ? mean.captured(1).toDouble() : -1000.0;
}

// Runs pulseaudio for the server in `folder`, in English (device names included); what it said when it failed.
static QString pulseaudio(const QString& folder, const QStringList& arguments)
{
    int exitCode = -1;
    const QStringList command{"LC_ALL=C", "XDG_RUNTIME_DIR=" + folder, "pulseaudio"};
    const QString said = runTool(QStringLiteral("env"), command + arguments, &exitCode);
    return exitCode == 0 ? QString() : QStringLiteral("pulseaudio failed: ") + said;
}

void SoundServer::useFolder(const QString& folder)
{
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(folder));
    qputenv("PULSE_SERVER", "unix:" + QFile::encodeName(folder) + "/pulse/native");
}

bool SoundServer::clearFolder()
{
    pulseaudio(dir, {QStringLiteral("--kill")});
    QDir(dir).removeRecursively();
    return QDir().mkpath(dir) && QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

QString SoundServer::start()
{
    started = true;
    return pulseaudio(dir, QStringLiteral("--daemonize=yes --exit-idle-time=-1 -n --load=module-native-protocol-unix")
                                   .split(u' ')
                               << QStringLiteral("--load=module-null-sink sink_name=studio"));
}

void SoundServer::stop()
{
    if (std::exchange(started, false))
        pulseaudio(dir, {QStringLiteral("--kill")});
}

bool SoundServer::play(const QString& wavFile)
{
    stopPlaying();
    player.setProcessChannelMode(QProcess::MergedChannels);
    player.start(QStringLiteral("paplay"), {QStringLiteral("--device=studio"), wavFile});
    return player.waitForStarted();
}

void SoundServer::stopPlaying()
{
    player.kill();
    player.waitForFinished();
}

std::vector<float> spokenStereo(const QString& voice, const QString& ssml)
{
    QProcess speech;
    speech.start(QStringLiteral("sh"), {"-c", "espeak-ng -m -v \"$0\" --stdout \"$1\" | sox -R -D -v 0.5 -t wav - "
                                              "-r 48000 -c 2 -e floating-point -b 32 -t raw -", voice, ssml});
    const bool done = speech.waitForFinished(-1) && speech.exitStatus() == QProcess::NormalExit && !speech.exitCode();
    const QByteArray bytes = speech.readAllStandardOutput();
    std::vector<float> samples(done ? std::size_t(bytes.size()) / sizeof(float) : 0);
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return samples;
}
