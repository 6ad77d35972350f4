#include "Canvas.h"
#include "Media.h"
#include "StudioTestSetup.h"
#include "StudioWindow.h"

#include <QTest>
#include <QtWidgets>
#include <csignal>
#include <sys/prctl.h>

namespace {

// Clicks a button or "+ Fuente" entry and answers its dialog (a null name cancels); returns what the dialog showed.
QStringList press(StudioWindow& window, const QString& control, const QString& name = {},
                  QMessageBox::StandardButton button = QMessageBox::Ok)
{
    QStringList seen;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            seen << box->windowTitle() << box->text();
            (box->button(button) ? box->button(button) : box->buttons().constFirst())->click();
        } else if (auto* dialog = qobject_cast<QInputDialog*>(QApplication::activeModalWidget())) {
            seen << dialog->windowTitle() << dialog->labelText() << dialog->textValue();
            dialog->setTextValue(name);
            name.isNull() ? dialog->reject() : dialog->accept();
        }
    });
    watch.start(5);
    for (QPushButton* each : window.findChildren<QPushButton*>())
        if (each->text() == control)
            return each->click(), seen;
    for (QAction* entry : window.findChildren<QAction*>()) // the "+ Fuente" entries too
        if (entry->text() == control)
            return entry->trigger(), seen;
    qFatal("no control \"%s\"", qPrintable(control));
}

QStringList rows(const QListWidget* list)
{
    QStringList texts;
    for (int row = 0; row < list->count(); ++row)
        texts << list->item(row)->text();
    return texts;
}

// A layer; a video one has a source of its own, to see when the scene lets it go.
Layer named(const QString& name, Layer::Kind kind = Layer::Kind::Color)
{
    Layer layer = Layer::fromJson({{"kind", kind == Layer::Kind::Video ? "video" : "color"}, {"name", name}});
    if (kind == Layer::Kind::Video)
        layer.media = std::make_shared<Media>(64, 36, nullptr, std::string(), true, false);
    return layer;
}

} // namespace

// The tab "Escena y fuentes" on a real window: scene buttons, "+ Fuente" and the source list.
class tst_SceneTab : public QObject
{
    Q_OBJECT
    QProcess xvfb; // a display of its own for the screen capture

private Q_SLOTS:
    void initTestCase()
    {
        prepareStudioTest();
        xvfb.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); }); // ends with this test, even a crash
        xvfb.start(QStringLiteral("Xvfb"), {"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "320x240x24"});
        QVERIFY(xvfb.waitForReadyRead(10000));
        qputenv("DISPLAY", ':' + xvfb.readAllStandardOutput().trimmed());
    }

    // New, renamed, duplicated (sharing sources), chosen and deleted scenes; the last one stays.
    void sceneButtonsSourceMenuAndList()
    {
        StudioWindow window(false);
        window.show();
        QCOMPARE(press(window, "+ Escena"), (QStringList{"Nueva escena", "Nombre", "Escena 2"}));
        press(window, "+ Escena", QStringLiteral(""));
        press(window, "+ Escena", QStringLiteral("Ofrenda"));
        QCOMPARE(rows(window.sceneList), (QStringList{"Escena 1", "Ofrenda"}));
        QVERIFY(window.sceneCombo->currentText() == "Ofrenda" && window.canvas->scene == &window.scenes[0][1]);
        window.scene().layers = {named(QStringLiteral("Logo")), named(QStringLiteral("Clip"), Layer::Kind::Video)};
        QCOMPARE(press(window, "Renombrar", QStringLiteral("Ofrenda 2")).last(), QStringLiteral("Ofrenda"));
        press(window, "Duplicar");
        QCOMPARE(rows(window.sceneList), (QStringList{"Escena 1", "Ofrenda 2", "Ofrenda 2 copia"}));
        QVERIFY(window.scenes[0][2].layers.at(1).media == window.scenes[0][1].layers[1].media); // shared
        QTest::mouseClick(window.sceneList->viewport(), Qt::LeftButton, {},
                          window.sceneList->visualItemRect(window.sceneList->item(1)).center());
        QVERIFY(window.current[0] == 1 && window.sceneCombo->currentIndex() == 1);
        QCOMPARE(rows(window.layerList), (QStringList{"Clip", "Logo"}));
        for (auto answer : {QMessageBox::No, QMessageBox::Yes})
            QCOMPARE(press(window, "Eliminar escena", {}, answer),
                     (QStringList{"Eliminar escena", "¿Eliminar la escena Ofrenda 2?"}));
        QCOMPARE(rows(window.sceneList), (QStringList{"Escena 1", "Ofrenda 2 copia"}));
        window.scenes[0].pop_back();
        window.refreshSceneList();
        QCOMPARE(press(window, "Eliminar escena"), (QStringList{"Velmora", "Debe quedar al menos una escena"}));
        QCOMPARE(window.sceneList->count(), 1);

        // Each "+ Fuente" entry adds its kind on top, selected; full lists and a second subtitle source are refused.
        window.scene().layers.resize(1);
        const QString full = QStringLiteral("Esta escena ya tiene el máximo de capas.");
        const QString twice = QStringLiteral("Esta escena ya tiene una fuente de subtítulos.");
        const char* subtitles = "Subtítulos (IA): posición y estilo";
        using K = Layer::Kind;
        using Entry = std::tuple<const char*, K, QString>;
        for (const auto& [entry, kind, refused] :
             {Entry{"Cámara / capturadora", K::Camera, {}}, Entry{"Color sólido", K::Color, {}},
              Entry{"Versículo bíblico", K::Verse, {}}, Entry{subtitles, K::Subtitle, {}},
              Entry{subtitles, K::Subtitle, twice},
              Entry{"Captura de pantalla", K::Screen, {}}, Entry{"Texto", K::Text, {}}, Entry{"Texto", K::Text, {}},
              Entry{"Texto", K::Text, full}, Entry{"Captura de pantalla", K::Screen, full}}) {
            const std::size_t before = window.scene().layers.size();
            QCOMPARE(press(window, QString::fromUtf8(entry)).value(1), refused);
            QCOMPARE(window.scene().layers.size(), before + refused.isEmpty());
            if (!refused.isEmpty())
                continue;
            const Layer& made = window.scene().layers.back();
            QVERIFY(made.kind == kind && made.name == Layer::label(kind) + u' ' + QString::number(before + 1));
            QVERIFY(window.canvas->selected == int(before) && window.layerList->currentRow() == 0);
            if (kind == K::Screen)
                QVERIFY(window.statusLabel->text().startsWith(QStringLiteral("Captura de pantalla añadida.")));
        }

        // The source list: front on top; check marks write `visible`, a stale row nothing. Then ▲/▼/Eliminar.
        window.scene().layers = {named("A"), named("B"), named("C", Layer::Kind::Video)};
        window.scene().layers[1].visible = false;
        window.canvas->select(0);
        QListWidget* list = window.layerList;
        QCOMPARE(rows(list), (QStringList{"C", "B", "A"}));
        QVERIFY(list->currentRow() == 2 && list->item(1)->checkState() == Qt::Unchecked);
        list->item(0)->setCheckState(Qt::Unchecked);
        list->item(1)->setCheckState(Qt::Checked);
        (new QListWidgetItem(QStringLiteral("D"), list))->setData(Qt::UserRole, std::numeric_limits<int>::max());
        const std::vector<Layer>& layers = window.scene().layers;
        QVERIFY(layers[0].visible && layers[1].visible && !layers[2].visible);
        QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(1)).center());
        QCOMPARE(window.canvas->selected, 1);
        const std::weak_ptr<Media> source = window.scene().layers[2].media;
        const QStringList presses{"▲", "▼", "Eliminar", "select", "▲", "▼", "▼", "▼", "▲", "Eliminar"};
        const QStringList after{"ABC -1", "ABC -1", "ABC -1", "ABC 2", "ABC 2",
                                "ACB 1",  "CAB 0",  "CAB 0",  "ACB 1", "AB -1"};
        window.canvas->select(-1);
        for (int i = 0; i < presses.size(); ++i) {
            if (presses[i] == QLatin1String("select"))
                window.canvas->select(2);
            else
                press(window, presses[i]);
            QString state;
            for (const Layer& each : window.scene().layers)
                state += each.name;
            QCOMPARE(state + u' ' + QString::number(window.canvas->selected), after[i]);
            if (window.canvas->selected >= 0) // the list follows, front on top
                QCOMPARE(list->currentItem()->text(), window.selectedLayer()->name);
        }
        QTRY_VERIFY(source.expired()); // the removed video's pipeline was let go
    }
};

QTEST_MAIN(tst_SceneTab)
#include "tst_scenetab.moc"
