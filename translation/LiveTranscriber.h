#pragma once

#include "Audio.h"

#include <QObject>
#include <QString>

#include <functional>

// The realtime route to the AI service: audio streamed over a WebSocket, text back while the
// preacher speaks. Until the link is built this object never becomes ready, so `Translation`
// always cuts phrases itself; every call is harmless at any time.
class LiveTranscriber : public QObject
{
public:
    explicit LiveTranscriber(QObject* parent = nullptr);

    std::function<void(const QString&)> status = [](const QString&) {};
    std::function<void(const QString&)> partial = [](const QString&) {};
    std::function<void(const QString&, qint64)> turn = [](const QString&, qint64) {};
    std::function<void()> unavailable = [] {};

    bool ready = false;

    // Opens a session for `key` with the source `language` (may be empty) and a transcription prompt.
    void start(const QString& key, const QString& language, const QString& prompt);
    void stop();
    void feed(const tavrin::AudioBlock& block);

private:
    QString key;
    QString language;
    QString prompt;
};
