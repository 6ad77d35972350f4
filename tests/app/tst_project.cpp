#include "Canvas.h"
#include "GstSupport.h"
#include "Media.h"
#include "Output.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>

namespace {

// Runs `act`, answering file dialogs with the next of `files` (none: cancel) and boxes with OK.
QStringList answering(const std::function<void()>& act, QStringList files = {})
{
    QStringList seen;
    QPointer<QWidget> answered; // each dialog once
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] {
        QWidget* modal = QApplication::activeModalWidget();
        if (!modal || modal == answered)
            return;
        answered = modal;
        if (auto* box = qobject_cast<QMessageBox*>(modal)) {
            seen << box->windowTitle() + QStringLiteral(": ") + box->text();
            return box->button(QMessageBox::Ok)->click();
        }
        seen << modal->windowTitle();
        auto* name = modal->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        if (files.isEmpty() || !name)
            return static_cast<QDialog*>(modal)->reject();
        name->setText(files.takeFirst());
        static_cast<QDialog*>(modal)->accept();
    });
    timer.start(10);
    act();
    return seen;
}

QStringList press(const StudioWindow& window, const QString& text, const QStringList& files = {})
{
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == text)
            return answering([each] { each->click(); }, files);
    qFatal("no button \"%s\"", qPrintable(text));
}

} // namespace

// Project open and save on real windows, with real pictures and a real video behind the layers.
class tst_Project : public QObject
{
    Q_OBJECT
    QString folder = QStringLiteral(VELMORA_TEST_OUTPUT);
    QString picturePath = folder + QStringLiteral("/logo.png");
    QString videoUri;
    static QByteArray scenesJson(const StudioWindow& window)
    {
        QJsonArray array;
        for (const auto& list : window.scenes)
            for (const SceneDef& each : list)
                array.append(each.toJson());
        return QJsonDocument(array).toJson(QJsonDocument::Compact);
    }

private Q_SLOTS:
    void initTestCase()
    {
        prepareStudioTest();
        QVERIFY(QDir().mkpath(folder));
        QImage picture(64, 32, QImage::Format_RGB32);
        picture.fill(QColor(10, 200, 30));
        QVERIFY(picture.save(picturePath));
        const QString videoPath = folder + QStringLiteral("/clip.webm");
        QVERIFY(runToEnd("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=180,framerate=30/1 ! "
                         "vp8enc deadline=1 ! webmmux ! filesink location=\"" + QFile::encodeName(videoPath) + '"'));
        videoUri = QUrl::fromLocalFile(videoPath).toString();
    }

    // Saved without keys or an added extension; another studio opens it the same.
    void saveAndOpen()
    {
        const QString path = folder + QStringLiteral("/culto");
        QFile::remove(path);
        QByteArray saved;
        {
            StudioWindow author(false);
            author.formatCombo->setCurrentIndex(1);
            author.addImageLayer(picturePath);
            author.addVideoLayer(videoUri);
            author.bandCheck->setChecked(true);
            author.gainSlider->setValue(150);
            author.destinations[0].key->setText(QStringLiteral("clave-youtube-7f3a9"));
            saved = scenesJson(author);
            QCOMPARE(press(author, QStringLiteral("Guardar proyecto"), {path}), QStringList{"Guardar proyecto"});
        }
        QVERIFY(!QFile::exists(path + QStringLiteral(".tavrin")));
        QFile written(path);
        QVERIFY(written.open(QIODevice::ReadOnly) && !written.readAll().contains("clave-youtube-7f3a9"));
        StudioWindow reader(false);
        press(reader, QStringLiteral("Abrir proyecto"), {path});
        QVERIFY(reader.statusLabel->text().startsWith(QStringLiteral("Proyecto guardado/abierto.")));
        QCOMPARE(scenesJson(reader), saved);
        QVERIFY(reader.formatCombo->currentIndex() == 1 && reader.bandCheck->isChecked());
        QCOMPARE(reader.audioState.gain, 1.5);
        const Layer& picture = reader.scenes[0][0].layers[1];
        QVERIFY(picture.image && picture.image->pixels[1] == 200);
        const Layer& video = reader.scenes[0][0].layers[2];
        QTRY_VERIFY_WITH_TIMEOUT(video.media && video.media->frameCount > 0, 10000);
        QCOMPARE(QSize(video.media->latest.width, video.media->latest.height), QSize(1080, 1920));
        // Missing files are named in one warning; no dialog while recording.
        const QString gone = QUrl::fromLocalFile(folder + QStringLiteral("/gone")).toString();
        QFile rewritten(path);
        QVERIFY(rewritten.open(QIODevice::WriteOnly | QIODevice::Truncate));
        rewritten.write(QStringLiteral(R"({"version":3,"gain":100,"scenes":[{"name":"Culto","layers":[
            {"kind":"video","name":"Clip","uri":"%1/clip.webm"},{"kind":"image","name":"Logo","path":"/gone/logo.png"},
            {"kind":"image","name":"Bueno","path":"%2"}]}]})").arg(gone, picturePath).toUtf8());
        rewritten.close();
        QCOMPARE(answering([&] { reader.openProject(path); }),
                 QStringList{"Abrir proyecto: Clip: No se pudo iniciar fuente\n"
                             "Logo: Imagen inválida o demasiado grande"});
        const std::vector<Layer>& layers = reader.scenes[0][0].layers;
        QVERIFY(layers.size() == 3 && !layers[0].media && !layers[1].image && layers[2].image);
        QCOMPARE(reader.scenes[1].front().toJson(), reader.defaultScene(1).toJson());
        reader.startRecording(folder + QStringLiteral("/while-project.webm"));
        const QStringList busy{QStringLiteral("Velmora: Detén salidas antes de abrir/guardar proyecto")};
        QCOMPARE(press(reader, QStringLiteral("Abrir proyecto")), busy);
        QCOMPARE(press(reader, QStringLiteral("Guardar proyecto")), busy);
        QVERIFY(reader.recording->running);
    }
};

QTEST_MAIN(tst_Project)
#include "tst_project.moc"
