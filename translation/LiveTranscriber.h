#pragma once

#include "Audio.h"

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QSslSocket>
#include <QString>

#include <cstdint>
#include <functional>
#include <vector>

// The realtime route to the AI service: the sermon's audio streamed over a WebSocket of our own
// on a TLS socket, text back while the preacher speaks. It decides locally when a turn ends and
// hands finished turns to `turn`; when the link fails it says `unavailable` and the caller cuts
// phrases itself. Lives on the GUI thread.
class LiveTranscriber : public QObject
{
public:
    // Our bound on one message from the service, whole or in fragments, and on the answer's header
    // block. Its events are a few kilobytes; anything near these is not the service, and the link is
    // closed rather than let the inbox grow.
    static constexpr qsizetype maxMessageBytes = 1 << 20;
    static constexpr qsizetype maxHeaderBytes = 16 * 1024;

    explicit LiveTranscriber(QObject* parent = nullptr);
    ~LiveTranscriber() override;

    std::function<void(const QString&)> status = [](const QString&) {};
    std::function<void(const QString&)> partial = [](const QString&) {};
    std::function<void(const QString&, qint64)> turn = [](const QString&, qint64) {};
    std::function<void()> unavailable = [] {};

    // Milliseconds since the epoch.
    std::function<qint64()> nowMs;
    // The AI service's API address; the link goes to its host and port (443 unless it names one).
    QString endpoint;

    // Ends any previous session and opens the link for `key`, with the source language (may be
    // empty) and the transcription prompt.
    void start(const QString& sessionKey, const QString& sourceLanguage, const QString& transcriptionPrompt);
    void stop();
    void feed(const tavrin::AudioBlock& block);
    void sendJson(const QJsonObject& object);
    void onReadyRead();
    // What arrived from the service: the upgrade answer, then frames, in any splits.
    void receive(const QByteArray& bytes);
    void handle(const QByteArray& message);
    void configure();

    QSslSocket socket;
    QByteArray inbox;
    QByteArray fragments;
    bool upgraded = false;
    bool ready = false;
    std::int32_t turnMode = 0;
    QString key;
    QString language;
    QString prompt;
    std::vector<std::int16_t> outgoing;
    std::int32_t decimationCount = 0;
    double decimationSum = 0.0;
    double peak = 0.05;
    double gain = 1.0;
    std::int32_t voicedCount = 0;
    std::int32_t silentRun = 0;
    std::int32_t samplesSinceCommit = 0;
    bool speechSeen = false;
    QString partialText;
    qint64 firstVoice = 0;
    qint64 lastVoice = 0;

private:
    void sendHandshake();
    void sendFrame(quint8 first, const QByteArray& payload);
    void sendAudio();
    void endTurnIfDue();
    // Parses one frame off the front of `inbox`; false when it is not whole yet or the link ended.
    bool parseFrame();
    void tearDown();
};
