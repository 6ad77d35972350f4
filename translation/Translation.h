#pragma once

#include "Audio.h"
#include "LiveTranscriber.h"

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QNetworkAccessManager>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

class QNetworkReply;
class QNetworkRequest;

// Turns the sermon's audio into an ordered stream of translated captions. Audio is cut into
// phrases at pauses (or handed to the live link when it is up), each phrase is transcribed and
// translated by the AI service, and finished texts leave through `caption` strictly in the order
// in which they were spoken. Lives on the GUI thread; never throws but for `start`.
class Translation : public QObject
{
public:
    struct Segment
    {
        std::int32_t id = 0;
        QByteArray wav; // a complete 16 kHz mono WAV file
    };

    // Phrases waiting for a request slot beyond this are dropped.
    static constexpr int maxWaitingSegments = 5;
    static constexpr int maxRequestsInFlight = 3;
    static constexpr qint64 sessionLimitMs = 10800000; // three hours
    static constexpr qint64 slowSegmentMs = 7000;
    // 30 s of the service's 24 kHz 16-bit speech; a longer body is not played.
    static constexpr qsizetype maxSpeechBytes = 1440000;

    // `endpoint` is the AI service's API address ending in "/v1/"; empty means the studio's setting.
    explicit Translation(const QString& endpoint = QString(), QObject* parent = nullptr);
    ~Translation() override;

    std::function<void(const QString&)> statusChanged = [](const QString&) {};
    std::function<void(const QString&)> caption = [](const QString&) {};
    std::function<void(const QByteArray&)> voiceAudio = [](const QByteArray&) {};
    std::function<void(const QString&)> heard = [](const QString&) {};

    // Milliseconds since the epoch; replaceable so that hours of a service can be run in minutes.
    std::function<qint64()> nowMs;

    void start(const QString& key, const QString& target, bool voice, const QString& source);
    void stop();
    void feed(const tavrin::AudioBlock& block);
    void pump();
    void flush();

    void request(const Segment& segment);
    void transcribeThenTranslate(const Segment& segment);
    void translate(int id, const QString& text);
    void json(const QString& path, const QJsonObject& body, int timeoutMs, const QString& label,
              std::function<void(QByteArray)> onOk, std::function<void(int)> onFail);
    QString describe(QNetworkReply* reply, const QByteArray& body, const QString& label);

    QString endpoint() const { return base; }

    QNetworkAccessManager net;
    double decimationSum = 0.0;
    std::int32_t decimationCount = 0;
    std::int32_t generation = 0;
    QString apiKey;
    QString targetLanguage = QStringLiteral("English");
    QString sourceLanguage;
    QString previousOriginal;
    QString previousTranslation;
    qint64 sessionStart = 0;
    std::deque<Segment> segments;
    std::int32_t nextId = 0;
    std::int32_t nextShow = 0;
    std::int32_t inFlight = 0;
    QMap<std::int32_t, QString> ready;
    QMap<std::int32_t, qint64> cutTimes;
    std::vector<std::int16_t> pcm;
    std::vector<double> frames;
    double frameEnergy = 0.0;
    std::int32_t silentRun = 0;
    std::int32_t voicedCount = 0;
    bool inSpeech = false;
    double phraseEnergy = 0.0;
    // The direct audio request; nothing turns it on, so transcription then translation is the
    // route in force. Kept switchable for tests and for a service that offers it again.
    bool audioRoute = false;
    QStringList recent;
    LiveTranscriber live;
    bool running = false;
    bool voice = false;
    bool chunkOnly = false;

private:
    enum class CutKind { Pause, Quietest };
    void abortReplies();
    void dropPhrase();
    void addSample(double mono);
    void cut(CutKind kind);
    void handleCut(std::vector<std::int16_t> first, std::vector<std::int16_t> rest, bool speech);
    void finishNumber(int id, const QString& text);
    void speak(const QString& text);
    QNetworkRequest serviceRequest(const QString& path, int timeoutMs) const;

    QString base;
    QTimer flushTimer;
};
