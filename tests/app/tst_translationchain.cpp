#include "Compositor.h"
#include "MediaProbe.h"
#include "Output.h"
#include "Picture.h"
#include "SoundServer.h"
#include "StandInHttpServer.h"
#include "StudioWindow.h"
#include "TestHome.h"

#include <QCheckBox>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QScopeGuard>
#include <QTest>
#include <QtEndian>

#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace {

using Request = StandInHttpServer::Request;
const QString runtimeFolder = QStringLiteral(VELMORA_TEST_OUTPUT "/runtime");

// Set before the application object and GStreamer exist, for the sound server's client library.
const bool environment = [] {
    SoundServer::useFolder(runtimeFolder);
    return useTestHome(VELMORA_TEST_OUTPUT "/home");
}();

// The AI service: the n-th phrase heard is "frase n", its translation "Phrase n", and its voice
// twenty seconds of a tone at half of full scale (24 kHz mono 16-bit).
StandInHttpServer::Response serviceAnswer(const Request& request, int& heard)
{
    if (request.target.endsWith("audio/transcriptions"))
        return {200, StandInHttpServer::json({{"text", QStringLiteral("frase %1").arg(++heard)}})};
    if (request.target.endsWith("responses")) {
        const QString input = QJsonDocument::fromJson(request.body).object().value("input").toString();
        const QJsonObject text{{"type", "output_text"}, {"text", "Phrase " + input.section("New text: frase ", 1)}};
        return {200, StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", QJsonArray{text}}}}}})};
    }
    if (!request.target.endsWith("audio/speech"))
        return {200, "{}"};
    QByteArray pcm(24000 * 20 * 2, Qt::Uninitialized);
    for (int i = 0; i < pcm.size() / 2; ++i)
        qToLittleEndian(qint16(16384 * std::sin(2 * M_PI * 440 * i / 24000.0)), pcm.data() + 2 * i);
    return {200, pcm};
}

} // namespace

// The whole road of a sermon in the real window: spoken Spanish played into a sound server whose
// monitor is the voice input, phrases sent to a stand-in AI service, captions on the Hall picture,
// and the synthetic voice in a real recording.
class tst_TranslationChain : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void speechToCaptionsAndVoice()
    {
        QVERIFY(environment);
        QCoreApplication::setOrganizationName(u"Lorvane"_s);
        QCoreApplication::setApplicationName(u"TavrinStudio"_s);
        SoundServer soundServer{runtimeFolder};
        QVERIFY(soundServer.clearFolder());
        const QString failure = soundServer.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        gst_init(nullptr, nullptr);
        // Three sentences with pauses of 1.5 s between them, at the sound server's rate.
        const QString speech = QStringLiteral(VELMORA_TEST_OUTPUT "/speech.wav");
        int exitCode = -1;
        const QString command = uR"(espeak-ng -v es -m --stdout "$0" | sox - -r 48000 -c 2 "$1" pad 1 2)"_s;
        const QString said = runTool("sh", {"-c", command,
                                            "<speak>Buenos días, hermanos y hermanas.<break time=\"1500ms\"/>Abramos"
                                            " juntos la Biblia.<break time=\"1500ms\"/>Hoy leemos el evangelio de Juan."
                                            "</speak>", speech}, &exitCode);
        QVERIFY2(exitCode == 0, qPrintable(said));

        StandInHttpServer service;
        QVERIFY(service.listen());
        int heard = 0;
        service.answer = [&heard](const Request& request) { return serviceAnswer(request, heard); };
        QSettings().clear();
        QSettings().setValue(u"onboarding_complete"_s, true);
        QSettings().setValue(u"openai_endpoint"_s, service.endpoint());

        StudioWindow window(false);
        window.audioCombo->setCurrentIndex(window.audioCombo->findText(u"Monitor of Null Output"_s));
        window.connectSources();
        QVERIFY(window.capture);
        window.aiKeyField->setText(u"sk-chain-secret"_s);
        window.voiceCheck->setChecked(true);
        QVERIFY(soundServer.play(speech));
        const auto stopPlayer = qScopeGuard([&soundServer] { soundServer.stopPlaying(); });
        window.translateButton->click();
        QVERIFY(window.translation.running);

        // Each phrase reaches the hall picture as its own line, in the order spoken.
        Compositor reference;
        const QStringList expected{"Phrase 1", "Phrase 2", "Phrase 3"};
        for (qsizetype count = 1; count <= expected.size(); ++count) {
            const QStringList phrases = expected.mid(0, count);
            const QImage picture = reference.compose(window.hallProgram, QString(), false, window.hallWidth,
                                                     window.hallHeight, true, false,
                                                     {true, phrases.join(u'\n'), phrases, "\n"}, nullptr);
            QTRY_VERIFY_WITH_TIMEOUT(window.hallMonitor->image == picture, 20000);
        }
        QCOMPARE(window.heardLabel->text(), u"Escuchado: frase 3"_s);

        // Every caption was spoken, in PCM.
        const auto voiced = [&service] {
            QStringList inputs;
            for (const Request& request : service.requests) {
                const QJsonObject body = QJsonDocument::fromJson(request.body).object();
                if (request.target.endsWith("audio/speech") && body.value("response_format") == "pcm"_L1)
                    inputs << body.value("input").toString();
            }
            return inputs;
        };
        QTRY_COMPARE(voiced(), expected);

        // The room falls silent; the last phrase's voice goes on into the recording.
        soundServer.stopPlaying();
        QTRY_VERIFY(!window.voiceAudio.empty());
        const QString path = QStringLiteral(VELMORA_TEST_OUTPUT "/voice.webm");
        QFile::remove(path);
        window.startRecording(path);
        QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 60, 20000);
        window.recordButton->click();
        QTRY_VERIFY_WITH_TIMEOUT(!window.recording, 20000);
        // A tone at half of full scale is about -9 dB; silence would be below -90 dB.
        const double loudness = meanVolumeDb(path);
        QVERIFY2(loudness > -20.0, qPrintable(QString::number(loudness)));
    }
};

QTEST_MAIN(tst_TranslationChain)
#include "tst_translationchain.moc"
