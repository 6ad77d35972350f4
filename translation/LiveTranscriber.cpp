#include "LiveTranscriber.h"

LiveTranscriber::LiveTranscriber(QObject* parent) : QObject(parent) {}

void LiveTranscriber::start(const QString& sessionKey, const QString& sourceLanguage,
                                     const QString& transcriptionPrompt)
{
    stop();
    key = sessionKey;
    language = sourceLanguage;
    prompt = transcriptionPrompt;
}

void LiveTranscriber::stop()
{
    key.clear();
    ready = false;
}

void LiveTranscriber::feed(const tavrin::AudioBlock&) {}
