#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

class QProcess;

// The test's own PulseAudio server, run in a private folder, with one null sink named "studio"
// whose monitor ("Monitor of Null Output") is an audio input fed by what plays into the sink.
// The destructor stops the player and, if start() was called, the server.
class SoundServer
{
public:
    explicit SoundServer(const QString& folder);
    ~SoundServer();
    SoundServer(const SoundServer&) = delete;
    SoundServer& operator=(const SoundServer&) = delete;

    // Points PulseAudio clients of this process at the server in `folder`. The client library reads
    // this when it first connects: call it before GStreamer loads its plug-in.
    static void useFolder(const QString& folder);
    // Stops a server left over from an interrupted run (it would hold the folder's socket) and makes
    // the folder anew, private to us. False when the folder cannot be made.
    bool clearFolder();
    // Starts the server with its null sink; empty when it runs, else what went wrong.
    QString start();
    // Stops the server if start() was called; safe to repeat.
    void stop();

    // Starts paplay playing `wavFile` into the sink; false when it does not start.
    bool play(const QString& wavFile);
    void stopPlaying();
    // What the player said, for failure messages.
    QByteArray playerOutput() const;

private:
    QString dir;
    bool started = false;
    std::unique_ptr<QProcess> player;
};
