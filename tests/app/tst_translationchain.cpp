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
#include <QTest>
#include <QtEndian>

#include <cmath>

using namespace Qt::Literals::StringLiterals;
using Request = StandInHttpServer::Request;

namespace {
const QString runtimeFolder = QStringLiteral(VELMORA_TEST_OUTPUT "/runtime");
const bool environment = [] { // before the application object and GStreamer, for the sound server's client
    SoundServer::useFolder(runtimeFolder);
    return useTestHome(VELMORA_TEST_OUTPUT "/home");
}();
} // namespace

// A sermon in the real window: espeak Spanish played into a sound server whose monitor is the voice input,
// a stand-in AI service ("frase n" -> "Phrase n", a 440 Hz voice), captions on the Hall picture, the voice
// in a real recording.
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
        const QString speech = QStringLiteral(VELMORA_TEST_OUTPUT "/speech.wav");
        int exitCode = -1;
        const QString say = u"espeak-ng -v es -m --stdout \"$0\" | sox - -r 48000 -c 2 \"$1\" pad 1 2"_s;
        const QString said = runTool("sh", {"-c", say,
                                            "<speak>Buenos días, hermanos.<break time=\"1500ms\"/>Abramos la Biblia."
                                            "<break time=\"1500ms\"/>Hoy leemos a Juan.</speak>", speech}, &exitCode);
        QVERIFY2(exitCode == 0, qPrintable(said));

        StandInHttpServer service;
        QVERIFY(service.listen());
        int heard = 0;
        QStringList voiced; // the inputs asked to be spoken in PCM
        service.answer = [&](const Request& request) -> StandInHttpServer::Response {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            if (request.target.endsWith("audio/transcriptions"))
                return {200, StandInHttpServer::json({{"text", u"frase %1"_s.arg(++heard)}})};
            if (request.target.endsWith("responses")) {
                const QString text = "Phrase " + body.value("input").toString().section("New text: frase ", 1);
                const QJsonObject output{{"type", "output_text"}, {"text", text}};
                const QJsonArray content{QJsonObject{{"content", QJsonArray{output}}}};
                return {200, StandInHttpServer::json({{"output", content}})};
            }
            if (!request.target.endsWith("audio/speech"))
                return {200, "{}"};
            if (body.value("response_format") == "pcm"_L1)
                voiced << body.value("input").toString();
            QByteArray pcm(24000 * 20 * 2, Qt::Uninitialized); // 20 s at half of full scale, 24 kHz mono
            for (int i = 0; i < pcm.size() / 2; ++i)
                qToLittleEndian(qint16(16384 * std::sin(2 * M_PI * 440 * i / 24000.0)), pcm.data() + 2 * i);
            return {200, pcm};
        };
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
        window.translateButton->click();
        QVERIFY(window.translation.running);

        // Each phrase its own line on the Hall picture, in the order spoken, and each one voiced.
        const QStringList expected{"Phrase 1", "Phrase 2", "Phrase 3"};
        QTRY_COMPARE_WITH_TIMEOUT(window.captions, expected, 30000);
        const QImage picture = Compositor().compose(window.hallProgram, QString(), false, window.hallWidth,
                                                    window.hallHeight, true, false,
                                                    {true, expected.join(u'\n'), expected, "\n"}, nullptr);
        QTRY_VERIFY(window.hallMonitor->image == picture);
        QCOMPARE(window.heardLabel->text(), u"Escuchado: frase 3"_s);
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
        const double loudness = meanVolumeDb(path);
        QVERIFY2(loudness > -20.0, qPrintable(QString::number(loudness)));
    }
};

QTEST_MAIN(tst_TranslationChain)
#include "tst_translationchain.moc"
