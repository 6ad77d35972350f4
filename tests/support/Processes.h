#pragma once

#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <algorithm>
#include <cmath>
#include <deque>
#include <numeric>
#include <vector>

// The session bus a child test process gets, for the secret store's cases.
enum class ChildBus {
    None,    // no bus at all
    Nowhere, // an address where nothing listens
    Keyring, // a private D-Bus session with a freshly unlocked gnome-keyring
};

struct ChildOutcome
{
    bool passed = false;
    QString errors; // its standard error
    QString report; // everything it printed, for a failure message
};

// Runs the current test case (function and data row) again in a child process of this test executable, with
// home and data folders of its own under `outputFolder`, no display, and `variable` set to `peer`.
ChildOutcome runCaseInChild(const QString& outputFolder, const char* variable, const QString& peer, ChildBus bus);

// Runs a command to its end (bounded to a minute) and returns what it printed, both channels.
QString runTool(const QString& program, const QStringList& arguments, int* exitCode = nullptr);

struct ProbedStream
{
    QString rate;
    int frames = -1;
};
// What ffprobe finds in a recording, decoding every frame: codec name -> frame rate and count.
QMap<QString, ProbedStream> probeStreams(const QString& file);
QString describeStreams(const QMap<QString, ProbedStream>& streams);
double probeDuration(const QString& file); // in seconds; 0 when it can't be read
QString playThrough(const QString& file);  // decodes it all; empty when it plays to the end without a complaint
// The mean loudness of the file's audio in dB, as ffmpeg's volumedetect reads it; -1000 when it can't be read.
double meanVolumeDb(const QString& file);

// The test's own PulseAudio server, run in a private folder, with one null sink named "studio" whose monitor
// ("Monitor of Null Output") is an audio input fed by what plays into the sink.
class SoundServer
{
public:
    explicit SoundServer(const QString& folder) : dir(folder) {}
    ~SoundServer() { stopPlaying(); stop(); }

    // Points this process's PulseAudio clients at `folder`; call it before GStreamer loads its plug-in.
    static void useFolder(const QString& folder);
    bool clearFolder(); // stops a server left over from an interrupted run and makes the folder anew, private
    QString start(); // with its null sink; empty when it runs, else what went wrong
    void stop();     // if start() was called; safe to repeat

    bool play(const QString& wavFile); // paplay into the sink
    void stopPlaying();
    QByteArray playerOutput() { return player.readAll(); }

private:
    QString dir;
    bool started = false;
    QProcess player;
};

// Speech by espeak-ng in `voice` from SSML (pauses of known length can be written in) as the studio's audio blocks
// carry it: 48 kHz interleaved stereo floats at half of full scale, the same on every run; empty when it fails.
std::vector<float> spokenStereo(const QString& voice, const QString& ssml);

// The largest magnitude among float samples, as a peak meter reads it; 0 for none.
inline float peakOf(const std::deque<float>& samples)
{
    return std::accumulate(samples.begin(), samples.end(), 0.0f,
                           [](float peak, float sample) { return std::max(peak, std::abs(sample)); });
}
