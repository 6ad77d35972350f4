#include "LiveTranscriber.h"

#include "i18n.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QUrl>

#include <algorithm>

namespace {

constexpr double voicedEnergy = 4e-05;
constexpr std::size_t audioPieceSamples = 2400; // 100 ms at 24 kHz
constexpr std::int32_t pauseSilence = 10800;    // 0.45 s
constexpr std::int32_t pauseVoice = 19200;      // 0.8 s
constexpr std::int32_t sentenceLength = 48000;  // 2 s
constexpr std::int32_t sentenceSilence = 3600;  // 0.15 s
constexpr std::int32_t turnLimit = 168000;      // 7 s
constexpr std::int32_t idleLimit = 72000;       // 3 s
constexpr std::int32_t commitVoice = 12000;     // 0.5 s

quint8 randomByte()
{
    return quint8(QRandomGenerator::global()->generate() >> 24);
}

QString environmentOr(const char* name, const char* fallback)
{
    const QString value = qEnvironmentVariable(name);
    return value.isEmpty() ? QString::fromLatin1(fallback) : value;
}

} // namespace

LiveTranscriber::LiveTranscriber(QObject* parent) : QObject(parent)
{
    nowMs = [] { return QDateTime::currentMSecsSinceEpoch(); };
    connect(&socket, &QSslSocket::encrypted, this, &LiveTranscriber::sendHandshake);
    connect(&socket, &QSslSocket::readyRead, this, &LiveTranscriber::onReadyRead);
    connect(&socket, &QSslSocket::errorOccurred, this, [this] {
        if (key.isEmpty())
            return;
        status(T("Conexión en vivo falló: ") + socket.errorString());
        tearDown();
    });
    connect(&socket, &QSslSocket::disconnected, this, [this] {
        if (key.isEmpty() || !(upgraded || ready))
            return;
        status(T("Conexión en vivo perdida."));
        tearDown();
    });
}

// The socket is destroyed after the members its handlers read, and closing it signals: it is cut
// off from them first.
LiveTranscriber::~LiveTranscriber()
{
    QObject::disconnect(&socket, nullptr, this, nullptr);
    socket.abort();
}

void LiveTranscriber::start(const QString& sessionKey, const QString& sourceLanguage,
                            const QString& transcriptionPrompt)
{
    stop();
    key = sessionKey;
    language = sourceLanguage;
    prompt = transcriptionPrompt;
    turnMode = qEnvironmentVariable("VELMORA_LIVE_MODEL") == QLatin1String("gpt-4o-transcribe") ? 1 : 0;
    inbox.clear();
    fragments.clear();
    outgoing.clear();
    partialText.clear();
    const QUrl address(endpoint);
    socket.connectToHostEncrypted(address.host(), quint16(address.port(443)), QIODevice::ReadWrite,
                                  QAbstractSocket::AnyIPProtocol);
}

void LiveTranscriber::stop()
{
    key.clear();
    upgraded = false;
    ready = false;
    if (socket.state() != QAbstractSocket::UnconnectedState)
        socket.abort();
    outgoing.clear();
    partialText.clear();
    voicedCount = 0;
    silentRun = 0;
    samplesSinceCommit = 0;
    speechSeen = false;
}

void LiveTranscriber::tearDown()
{
    const bool wasUp = upgraded || socket.state() != QAbstractSocket::UnconnectedState;
    upgraded = false;
    ready = false;
    socket.abort();
    inbox.clear();
    fragments.clear();
    if (wasUp)
        unavailable();
}

void LiveTranscriber::sendHandshake()
{
    QByteArray nonce;
    for (int i = 0; i < 16; ++i)
        nonce.append(char(randomByte()));
    socket.write("GET /v1/realtime?intent=transcription HTTP/1.1\r\nHost: " + QUrl(endpoint).host().toUtf8() +
                 "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " + nonce.toBase64() +
                 "\r\nSec-WebSocket-Version: 13\r\nAuthorization: Bearer " + key.toUtf8() + "\r\n\r\n");
}

void LiveTranscriber::sendFrame(quint8 first, const QByteArray& payload)
{
    QByteArray frame;
    frame.append(char(first));
    const auto length = quint64(payload.size());
    if (length <= 125) {
        frame.append(char(0x80 | length));
    } else if (length <= 65535) {
        frame.append(char(0xfe));
        frame.append(char(length >> 8));
        frame.append(char(length & 0xff));
    } else {
        frame.append(char(0xff));
        for (int shift = 56; shift >= 0; shift -= 8)
            frame.append(char((length >> shift) & 0xff));
    }
    quint8 mask[4];
    for (quint8& byte : mask) {
        byte = randomByte();
        frame.append(char(byte));
    }
    const qsizetype start = frame.size();
    frame.append(payload);
    for (qsizetype i = 0; i < payload.size(); ++i)
        frame[start + i] = char(frame[start + i] ^ char(mask[i & 3]));
    socket.write(frame);
}

void LiveTranscriber::sendJson(const QJsonObject& object)
{
    if (!upgraded)
        return;
    sendFrame(0x81, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

void LiveTranscriber::configure()
{
    QJsonObject transcription;
    QJsonValue turnDetection = QJsonValue::Null;
    if (turnMode == 0) {
        transcription[QStringLiteral("model")] = QStringLiteral("gpt-live-transcribe");
        transcription[QStringLiteral("prompt")] = prompt;
        if (!language.isEmpty())
            transcription[QStringLiteral("languages")] = QJsonArray{language};
        transcription[QStringLiteral("delay")] = environmentOr("VELMORA_LIVE_DELAY", "low");
    } else {
        transcription[QStringLiteral("model")] = QStringLiteral("gpt-4o-transcribe");
        turnDetection = QJsonObject{{QStringLiteral("type"), QStringLiteral("server_vad")},
                                    {QStringLiteral("threshold"), 0.5},
                                    {QStringLiteral("prefix_padding_ms"), 300},
                                    {QStringLiteral("silence_duration_ms"), 450}};
    }
    if (!language.isEmpty())
        transcription[QStringLiteral("language")] = language;
    const QJsonObject input{
        {QStringLiteral("format"), QJsonObject{{QStringLiteral("type"), QStringLiteral("audio/pcm")},
                                               {QStringLiteral("rate"), 24000}}},
        {QStringLiteral("transcription"), transcription},
        {QStringLiteral("noise_reduction"),
         QJsonObject{{QStringLiteral("type"), environmentOr("VELMORA_LIVE_NR", "near_field")}}},
        {QStringLiteral("turn_detection"), turnDetection}};
    sendJson({{QStringLiteral("type"), QStringLiteral("session.update")},
              {QStringLiteral("session"),
               QJsonObject{{QStringLiteral("type"), QStringLiteral("transcription")},
                           {QStringLiteral("audio"), QJsonObject{{QStringLiteral("input"), input}}}}}});
}

void LiveTranscriber::onReadyRead()
{
    receive(socket.readAll());
}

void LiveTranscriber::receive(const QByteArray& bytes)
{
    if (key.isEmpty())
        return;
    inbox.append(bytes);
    if (!upgraded) {
        const qsizetype end = inbox.indexOf("\r\n\r\n");
        if (end < 0) {
            if (inbox.size() > maxHeaderBytes) {
                status(T("Modo en vivo rechazado: ") + QString::fromUtf8(inbox.left(120)));
                tearDown();
            }
            return;
        }
        const QByteArray head = inbox.left(end);
        inbox.remove(0, end + 4);
        if (!head.startsWith("HTTP/1.1 101")) {
            status(T("Modo en vivo rechazado: ") + QString::fromUtf8(head.left(120)));
            tearDown();
            return;
        }
        upgraded = true;
        configure();
    }
    while (upgraded && inbox.size() >= 2 && parseFrame()) {
    }
}

bool LiveTranscriber::parseFrame()
{
    const auto b0 = quint8(inbox[0]);
    const auto b1 = quint8(inbox[1]);
    quint64 length = b1 & 0x7f;
    qsizetype header = 2;
    if (length == 126) {
        if (inbox.size() < 4)
            return false;
        length = (quint64(quint8(inbox[2])) << 8) | quint8(inbox[3]);
        header = 4;
    } else if (length == 127) {
        if (inbox.size() < 10)
            return false;
        length = 0;
        for (int i = 2; i < 10; ++i)
            length = (length << 8) | quint8(inbox[i]);
        header = 10;
    }
    // Compared one by one: a length near 2^64 would wrap around in the sum.
    if (length > quint64(maxMessageBytes) || length + quint64(fragments.size()) > quint64(maxMessageBytes)) {
        status(T("Conexión en vivo cerrada: mensaje demasiado grande."));
        tearDown();
        return false;
    }
    const bool masked = (b1 & 0x80) != 0;
    const qsizetype maskAt = header;
    const qsizetype payloadAt = header + (masked ? 4 : 0);
    if (inbox.size() < payloadAt + qsizetype(length))
        return false;
    QByteArray payload = inbox.mid(payloadAt, qsizetype(length));
    if (masked)
        for (qsizetype i = 0; i < payload.size(); ++i)
            payload[i] = char(payload[i] ^ inbox[maskAt + (i & 3)]);
    inbox.remove(0, payloadAt + qsizetype(length));

    switch (b0 & 0x0f) {
    case 9:
        sendFrame(0x8a, payload);
        return true;
    case 8:
        status(T("Conexión en vivo cerrada por el servidor."));
        tearDown();
        return false;
    case 0:
    case 1:
        fragments.append(payload);
        if (b0 & 0x80)
            handle(std::exchange(fragments, {}));
        // A handler may have ended the link.
        return upgraded;
    default:
        return true;
    }
}

void LiveTranscriber::handle(const QByteArray& message)
{
    const QJsonObject event = QJsonDocument::fromJson(message).object();
    const QString type = event.value(QLatin1String("type")).toString();
    if (type == QLatin1String("session.updated") || type == QLatin1String("transcription_session.updated")) {
        ready = true;
        status(turnMode == 0 ? T("Modo en vivo activo (texto mientras se habla).") : T("Modo en vivo activo (por turnos)."));
    } else if (type == QLatin1String("error")) {
        const QString message =
            event.value(QLatin1String("error")).toObject().value(QLatin1String("message")).toString();
        if (!ready && turnMode == 0) {
            turnMode = 1;
            status(T("Modelo en vivo no disponible (") + message.left(80) + T("); se intenta por turnos."));
            configure();
            return;
        }
        status(T("Error en vivo: ") + message.left(160));
        if (!ready)
            tearDown();
    } else if (type == QLatin1String("conversation.item.input_audio_transcription.delta")) {
        partialText += event.value(QLatin1String("delta")).toString();
        partial(partialText);
    } else if (type == QLatin1String("conversation.item.input_audio_transcription.completed")) {
        const QString text = event.value(QLatin1String("transcript")).toString().trimmed();
        partialText.clear();
        if (!text.isEmpty())
            turn(text, lastVoice != 0 ? lastVoice : nowMs());
    } else if (type == QLatin1String("input_audio_buffer.speech_stopped")) {
        lastVoice = nowMs();
    }
}

void LiveTranscriber::sendAudio()
{
    QByteArray bytes;
    bytes.reserve(qsizetype(outgoing.size() * 2));
    for (const std::int16_t sample : outgoing) {
        bytes.append(char(sample & 0xff));
        bytes.append(char((sample >> 8) & 0xff));
    }
    outgoing.clear();
    sendJson({{QStringLiteral("type"), QStringLiteral("input_audio_buffer.append")},
              {QStringLiteral("audio"), QString::fromLatin1(bytes.toBase64())}});
}

void LiveTranscriber::feed(const tavrin::AudioBlock& block)
{
    if (!ready)
        return;
    const qint64 now = nowMs();
    const std::vector<float>& samples = block.samples;
    for (std::size_t i = 0; i + 1 < samples.size(); i += 2) {
        decimationSum += std::clamp((double(samples[i]) + double(samples[i + 1])) * 0.5, -1.0, 1.0);
        if (++decimationCount < 2)
            continue;
        const double x = decimationSum * 0.5;
        decimationSum = 0.0;
        decimationCount = 0;
        peak = std::max(std::abs(x), peak * 0.99996);
        const double target = std::clamp(0.5 / std::max(0.01, peak), 1.0, 12.0);
        gain += (target - gain) * 0.0005;
        outgoing.push_back(std::int16_t(std::clamp(gain * x, -1.0, 1.0) * 32767.0));
        ++samplesSinceCommit;
        if (x * x > voicedEnergy) {
            ++voicedCount;
            silentRun = 0;
            speechSeen = true;
            lastVoice = now;
            if (firstVoice == 0)
                firstVoice = now;
        } else {
            ++silentRun;
        }
    }
    if (outgoing.size() >= audioPieceSamples)
        sendAudio();
    if (turnMode == 0)
        endTurnIfDue();
}

// The local decision that a turn has ended: a pause after enough voice, a finished sentence, or
// seven seconds without either.
void LiveTranscriber::endTurnIfDue()
{
    const bool pause = speechSeen && silentRun >= pauseSilence && voicedCount >= pauseVoice;
    const QString said = partialText.trimmed();
    const bool sentence = speechSeen && samplesSinceCommit >= sentenceLength && !said.isEmpty() &&
                          QStringLiteral(".?!").contains(said.back()) && silentRun >= sentenceSilence;
    const bool limit = samplesSinceCommit >= turnLimit;
    if (!pause && !sentence && !limit) {
        if (!speechSeen && samplesSinceCommit >= idleLimit)
            samplesSinceCommit = 0;
        return;
    }
    sendAudio();
    if (voicedCount >= commitVoice) {
        if (ready && samplesSinceCommit >= commitVoice) {
            sendJson({{QStringLiteral("type"), QStringLiteral("input_audio_buffer.commit")}});
            samplesSinceCommit = 0;
            voicedCount = 0;
            firstVoice = 0;
        }
    } else {
        samplesSinceCommit = 0;
        voicedCount = 0;
    }
    speechSeen = false;
    silentRun = 0;
}
