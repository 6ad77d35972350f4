#pragma once

#include <QProcess>
#include <QString>

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
