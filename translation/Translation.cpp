#include "Translation.h"

#include "Api.h"
#include "TranslationText.h"
#include "i18n.h"

#include <QDateTime>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <algorithm>
#include <cmath>

namespace {

constexpr double voicedEnergy = 4e-05; // about -44 dBFS
constexpr std::size_t frameSamples = 160; // 10 ms at 16 kHz
constexpr std::int32_t shortPause = 5600;   // 0.35 s
constexpr std::int32_t longPause = 11200;   // 0.7 s
constexpr std::size_t longPhrase = 48000;   // 3 s
constexpr std::size_t shortPhrase = 19200;  // 1.2 s
constexpr std::size_t fullPhrase = 80000;   // 5 s
constexpr std::size_t silenceFlush = 32000; // 2 s
constexpr std::size_t searchFrames = 150;   // the last 1.5 s
constexpr std::size_t quietWindow = 6;      // 60 ms

double energyOf(std::int16_t sample)
{
    const double x = sample / 32767.0;
    return x * x;
}

} // namespace

Translation::Translation(const QString& endpoint, QObject* parent)
    : QObject(parent), base(endpoint.isEmpty() ? bible::aiServiceEndpoint() : endpoint)
{
    nowMs = [] { return QDateTime::currentMSecsSinceEpoch(); };
    live.nowMs = [this] { return nowMs(); };
    live.endpoint = base;
    flushTimer.setInterval(500);
    connect(&flushTimer, &QTimer::timeout, this, &Translation::flush);
    flushTimer.start();
}

// Replies still under way are children of `net` and go with it; aborting them first keeps their
// handlers from running on a half-destroyed object.
Translation::~Translation()
{
    ++generation;
    running = false;
    abortReplies();
}

void Translation::abortReplies()
{
    for (QNetworkReply* reply : net.findChildren<QNetworkReply*>())
        reply->abort();
}

// Lets go of the phrase under way and of everything measured of it.
void Translation::dropPhrase()
{
    pcm.clear();
    frames.clear();
    phraseEnergy = 0.0;
    frameEnergy = 0.0;
    silentRun = 0;
    voicedCount = 0;
}

void Translation::start(const QString& key, const QString& target, bool withVoice, const QString& source)
{
    const QString trimmed = key.trimmed();
    if (trimmed.isEmpty())
        throw std::runtime_error("Ingresa tu API key");
    stop();
    apiKey = trimmed;
    targetLanguage = target;
    sourceLanguage = source;
    voice = withVoice;
    running = true;
    sessionStart = nowMs();
    statusChanged(T("IA activa; conectando modo en vivo..."));

    live.status = [this](const QString& text) { statusChanged(text); };
    live.partial = [this](const QString& text) { heard(QStringLiteral("… ") + text); };
    live.unavailable = [this] { statusChanged(T("Modo en vivo no disponible; se usa modo por trozos.")); };
    live.turn = [this](const QString& text, qint64 when) {
        if (!running)
            return;
        const std::int32_t id = nextId++;
        cutTimes[id] = when;
        ++inFlight;
        translate(id, text);
    };

    // Only warms the TLS connection to the service, so that the first phrase does not pay for it.
    QNetworkRequest warmUp(QUrl(base + QStringLiteral("models/gpt-4.1-mini")));
    warmUp.setRawHeader("Authorization", "Bearer " + apiKey.toUtf8());
    warmUp.setTransferTimeout(8000);
    QNetworkReply* reply = net.get(warmUp);
    connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);

    if (!chunkOnly)
        live.start(apiKey, sourceLanguage, translation_text::liveTranscriptionPrompt(sourceLanguage));
}

void Translation::stop()
{
    ++generation;
    running = false;
    live.stop();
    segments.clear();
    ready.clear();
    cutTimes.clear();
    recent.clear();
    dropPhrase();
    decimationSum = 0.0;
    decimationCount = 0;
    inFlight = 0;
    nextId = 0;
    nextShow = 0;
    inSpeech = false;
    audioRoute = false;
    previousOriginal.clear();
    previousTranslation.clear();
    abortReplies();
}

void Translation::feed(const tavrin::AudioBlock& block)
{
    if (!running)
        return;
    if (nowMs() - sessionStart > sessionLimitMs) {
        stop();
        statusChanged(T("IA pausada tras 3 horas; inicia otra sesion si corresponde."));
        return;
    }
    if (live.ready) {
        live.feed(block);
        return;
    }
    const std::vector<float>& samples = block.samples;
    if (samples.size() <= 1)
        return;
    for (std::size_t i = 0; i + 1 < samples.size(); i += 2) {
        const float pair = samples[i] + samples[i + 1];
        const double mono = std::clamp(double(pair) * 0.5, -1.0, 1.0);
        decimationSum += mono;
        if (++decimationCount < 3)
            continue;
        const double x = decimationSum / 3.0;
        decimationSum = 0.0;
        decimationCount = 0;
        addSample(x);
    }
}

// One 16 kHz sample: the energy gate, the 10 ms frames, and the decision whether to cut.
void Translation::addSample(double x)
{
    pcm.push_back(std::int16_t(x * 32767.0));
    const double energy = x * x;
    phraseEnergy += energy;
    frameEnergy += energy;
    if (energy > voicedEnergy) {
        ++voicedCount;
        inSpeech = true;
        silentRun = 0;
    } else {
        ++silentRun;
    }
    const std::size_t n = pcm.size();
    if (n % frameSamples == 0) {
        frames.push_back(frameEnergy / double(frameSamples));
        frameEnergy = 0.0;
    }
    if (inSpeech) {
        if ((silentRun >= shortPause && n >= longPhrase) || (silentRun >= longPause && n >= shortPhrase))
            cut(CutKind::Pause);
        else if (silentRun < shortPause && n >= fullPhrase)
            cut(CutKind::Quietest);
    } else if (n >= fullPhrase) {
        cut(CutKind::Quietest);
    } else if (n >= silenceFlush) {
        dropPhrase();
    }
}

void Translation::cut(CutKind kind)
{
    std::size_t firstLength = pcm.size();
    if (kind == CutKind::Quietest) {
        // Only the last 1.5 s may be chosen: the quietest 60 ms there, cut in its middle.
        const std::size_t count = frames.size();
        const std::size_t from = count >= searchFrames ? count - searchFrames : 0;
        double best = 1e9;
        std::size_t spot = count;
        for (std::size_t s = from; s + quietWindow <= count; ++s) {
            double sum = 0.0;
            for (std::size_t k = s; k < s + quietWindow; ++k)
                sum += frames[k];
            if (sum < best) {
                best = sum;
                spot = s + 3;
            }
        }
        if (spot < count)
            firstLength = spot * frameSamples;
    }
    std::vector<std::int16_t> first(pcm.begin(), pcm.begin() + std::ptrdiff_t(firstLength));
    std::vector<std::int16_t> rest(pcm.begin() + std::ptrdiff_t(firstLength), pcm.end());
    handleCut(std::move(first), std::move(rest), inSpeech);
    if (kind == CutKind::Pause) {
        inSpeech = false;
        silentRun = 0;
    } else {
        inSpeech = voicedCount > 0;
    }
}

void Translation::handleCut(std::vector<std::int16_t> first, std::vector<std::int16_t> rest, bool speech)
{
    if (!first.empty() && speech) {
        double sum = 0.0;
        std::size_t voiced = 0;
        for (const std::int16_t sample : first) {
            const double energy = energyOf(sample);
            sum += energy;
            if (energy > voicedEnergy)
                ++voiced;
        }
        // A click or a cough: too little of the piece is voice to be worth a request.
        const bool worthSending = sum / double(first.size()) > 2e-05 && 5 * voiced >= first.size();
        if (worthSending) {
            if (segments.size() > std::size_t(maxWaitingSegments)) {
                statusChanged(T("IA con retraso; se omite un segmento."));
            } else {
                cutTimes[nextId] = nowMs();
                segments.push_back({nextId, translation_text::wavFile(first)});
                ++nextId;
                pump();
            }
        }
    }
    pcm = std::move(rest);
    phraseEnergy = 0.0;
    voicedCount = 0;
    frames.clear();
    frameEnergy = 0.0;
    double frameSum = 0.0;
    for (std::size_t i = 0; i < pcm.size(); ++i) {
        const double energy = energyOf(pcm[i]);
        phraseEnergy += energy;
        if (energy > voicedEnergy)
            ++voicedCount;
        frameSum += energy;
        // A last partial frame's energy is dropped on purpose: the next samples start a new frame.
        if ((i + 1) % frameSamples == 0) {
            frames.push_back(frameSum / double(frameSamples));
            frameSum = 0.0;
        }
    }
}

void Translation::pump()
{
    while (inFlight < maxRequestsInFlight && !segments.empty()) {
        const Segment segment = segments.front();
        segments.pop_front();
        ++inFlight;
        request(segment);
    }
}

void Translation::flush()
{
    if (running && !ready.isEmpty() && !ready.contains(nextShow) && cutTimes.contains(nextShow) &&
        nowMs() - cutTimes.value(nextShow) > slowSegmentMs) {
        cutTimes.remove(nextShow);
        ++nextShow;
        statusChanged(T("Se omitió un segmento lento para no detener la pantalla."));
    }
    while (ready.contains(nextShow)) {
        const QString text = ready.take(nextShow).trimmed();
        const qint64 cutAt = cutTimes.take(nextShow);
        ++nextShow;
        if (text.isEmpty())
            continue;
        caption(text);
        const double delay = cutAt != 0 ? double(nowMs() - cutAt) / 1000.0 : 0.0;
        statusChanged(T("Subtítulo actualizado · ") + QString::number(delay, 'f', 1) +
                      T(" s después de la frase"));
        if (voice)
            speak(text);
    }
}
