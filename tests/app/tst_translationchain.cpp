#include "Output.h"
#include "Peers.h"
#include "Picture.h"
#include "Processes.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>

using namespace Qt::Literals::StringLiterals;

const QString runtimeFolder = QStringLiteral(VELMORA_TEST_OUTPUT "/runtime");
const bool environment = [] { // before the application object and GStreamer, for the sound server's client
    SoundServer::useFolder(runtimeFolder);
    return useTestHome(VELMORA_TEST_OUTPUT "/home");
}();

// A sermon in the real window: espeak Spanish played into a sound server whose monitor is the voice input,
// a stand-in AI service ("frase n" -> "Phrase n", voiced as a 440 Hz tone), captions on the Hall picture,
// the voice in a real recording.
class tst_TranslationChain : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void speechToCaptionsAndVoice()
    {
        QCoreApplication::setOrganizationName(u"Lorvane"_s);
        QCoreApplication::setApplicationName(u"TavrinStudio"_s);
        SoundServer soundServer{runtimeFolder};
        QVERIFY(environment && soundServer.clearFolder() && soundServer.start().isEmpty());
        gst_init(nullptr, nullptr);
        const QString speech = QStringLiteral(VELMORA_TEST_OUTPUT "/speech.wav");
        int exitCode = -1;
        const QString say = u"espeak-ng -v es -m --stdout \"$0\" | sox - -r 48000 -c 2 \"$1\" pad 1 2"_s;
        const QString ssml = u"<speak>Buenos días, hermanos.<break time=\"1500ms\"/>Abramos la Biblia."
                             "<break time=\"1500ms\"/>Hoy leemos a Juan.</speak>"_s;
        const QString said = runTool("sh", {"-c", say, ssml, speech}, &exitCode);
        QVERIFY2(exitCode == 0, qPrintable(said));

        StandInHttpServer service;
        QVERIFY(service.listen());
        int heard = 0;
        QStringList voiced; // the inputs asked to be spoken in PCM
        service.answer = [&](const StandInHttpServer::Request& request) -> StandInHttpServer::Response {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            if (request.target.endsWith("audio/transcriptions"))
                return {200, StandInHttpServer::json({{"text", u"frase %1"_s.arg(++heard)}})};
            if (request.target.endsWith("responses")) {
                const QString text = "Phrase " + body.value("input").toString().section("New text: frase ", 1);
                const QJsonArray content{QJsonObject{{"type", "output_text"}, {"text", text}}};
                return {200, StandInHttpServer::json({{"output", QJsonArray{QJsonObject{{"content", content}}}}})};
            }
            if (body.value("response_format") == "pcm"_L1)
                voiced << body.value("input").toString();
            QByteArray pcm(24000 * 20 * 2, Qt::Uninitialized); // 20 s at half of full scale, 24 kHz mono
            for (int i = 0; i < pcm.size() / 2; ++i)
                qToLittleEndian(qint16(16384 * std::sin(2 * M_PI * 440 * i / 24000.0)), pcm.data() + 2 * i);
            return {200, request.target.endsWith("audio/speech") ? pcm : "{}"};
        };
        QSettings().clear();
        QSettings().setValue(u"onboarding_complete"_s, true);
        QSettings().setValue(u"openai_endpoint"_s, service.endpoint());
        StudioWindow window(false);
        window.audioCombo->setCurrentIndex(window.audioCombo->findText(u"Monitor of Null Output"_s));
        window.connectSources();
        window.aiKeyField->setText(u"sk-chain-secret"_s);
        window.voiceCheck->setChecked(true);
        QVERIFY(window.capture && soundServer.play(speech));
        window.translateButton->click();

        // Each phrase its own line on the Hall picture, in the order spoken, and each one voiced.
        const QStringList expected{"Phrase 1", "Phrase 2", "Phrase 3"};
        QTRY_COMPARE_WITH_TIMEOUT(window.captions, expected, 30000);
        const QImage picture = Compositor().compose(window.hallProgram, QString(), false, window.hallWidth,
                                                    window.hallHeight, true, false,
                                                    {true, expected.join('\n'), expected, "\n"}, nullptr);
        QTRY_VERIFY(window.hallMonitor->image == picture);
        QTRY_COMPARE(voiced, expected);

        // The room falls silent; the last phrase's voice goes on into the recording (silence is below -90 dB).
        soundServer.stopPlaying();
        QTRY_VERIFY(!window.voiceAudio.empty());
        const QString path = QStringLiteral(VELMORA_TEST_OUTPUT "/voice.webm");
        QFile::remove(path);
        window.startRecording(path);
        QTRY_VERIFY_WITH_TIMEOUT(window.recording->videoFrames >= 60, 20000);
        window.recordButton->click();
        QTRY_VERIFY_WITH_TIMEOUT(!window.recording, 20000);
        QVERIFY2(meanVolumeDb(path) > -20.0, qPrintable(QString::number(meanVolumeDb(path))));
    }
};

QTEST_MAIN(tst_TranslationChain)
#include "tst_translationchain.moc"
