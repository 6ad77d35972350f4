#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

class QJsonObject;

// The texts and forms of the AI service's requests and answers, kept apart from the network so
// that each can be checked on its own.
namespace translation_text {

// A phrase as a complete 16 kHz mono 16-bit PCM WAV file.
QByteArray wavFile(const std::vector<std::int16_t>& samples);

// The key of the repetition filter: lower case, only letters, digits and single blanks.
QString repetitionKey(const QString& text);

// What the translator is told, with the target language as the operator wrote it.
QString interpreterInstructions(const QString& targetLanguage);

// The rolling context before "New text: "; empty at the start of a session.
QString translationContext(const QString& previousOriginal, const QString& previousTranslation);

// The end of `text` when it is longer than `limit` characters.
QString keepLast(const QString& text, qsizetype limit);

// Prompts that tell the transcriber what it hears, by source language ("es", "en", other).
QString transcriptionPrompt(const QString& sourceLanguage);
QString liveTranscriptionPrompt(const QString& sourceLanguage);

// The joined "output_text" pieces of a "responses" answer; empty for anything else.
QString responseText(const QByteArray& body);

// The operator's words for a failed request, from its HTTP status (0: no answer) and body.
QString failureMessage(int status, const QByteArray& body);
// Whether that failure ends the session: the key or the credit will not work for the next phrase either.
bool isFatalFailure(int status, const QByteArray& body);

} // namespace translation_text
