#include "StudioWindow.h"

#include "AudioCapture.h"
#include "Canvas.h"
#include "Media.h"
#include "Output.h"
#include "Picture.h"
#include "SecretStore.h"
#include "i18n.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QMessageBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QApplication>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QScrollArea>
#include <QShortcut>
#include <QTabWidget>
#include <QVBoxLayout>
#include <thread>

StudioWindow::StudioWindow(bool smoke)
    : smoke(smoke), settings(QStringLiteral("Lorvane"), QStringLiteral("TavrinStudio"))
{
    setWindowTitle(T("Velmora · Lorvane"));
    resize(1320, 920);
    setWindowIcon(QIcon(QStringLiteral(":/logo.png")));

    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);
    column->setContentsMargins(20, 14, 20, 14);
    column->setSpacing(12);
    setCentralWidget(central);

    buildHeaderRow(column);
    buildToolRow(column);
    buildMainRow(column);
    buildTakeRow(column);
    buildTabs(column);
    bindTranslation();

    statusLabel = new QLabel(T("Elige cámara y audio, pulsa Conectar fuentes y luego AL AIRE."), central);
    statusLabel->setWordWrap(true);
    column->addWidget(statusLabel);

    sourceLanguage = settings.value(QStringLiteral("source_language")).toString();
    const QString aiKey = readSecretFile(QStringLiteral("openai"));
    if (!aiKey.isEmpty()) {
        aiKeyField->setText(aiKey);
        keySaveCheck->setChecked(true);
    }
    apiBibleKeyField->setText(readSecretFile(QStringLiteral("apibible")));
    refreshDevices();
    camera = std::make_shared<Media>(width, height, nullptr, std::string(), true, false);
    epochUs = g_get_monotonic_time();
    frameClock = FrameClock(epochUs);

    scenes[0] = {defaultScene(0)};
    scenes[1] = {defaultScene(1)};
    hallProgram = defaultScene(1);
    refreshSceneList();
    canvas->select(0);

    connect(formatCombo, &QComboBox::currentIndexChanged, this,
            [this](int index) { runGuarded([this, index] { formatChosen(index); }); });
    auto* space = new QShortcut(QKeySequence(Qt::Key_Space), this);
    connect(space, &QShortcut::activated, this, &StudioWindow::spacePressed);
    auto* toSpanish = new QShortcut(QKeySequence(Qt::Key_F1), this);
    connect(toSpanish, &QShortcut::activated, this, [this] { directionChosen(QStringLiteral("Spanish")); });
    auto* toEnglish = new QShortcut(QKeySequence(Qt::Key_F2), this);
    connect(toEnglish, &QShortcut::activated, this, [this] { directionChosen(QStringLiteral("English")); });
    connect(qApp, &QGuiApplication::screenRemoved, this, &StudioWindow::screenRemoved);

    tickTimer.setTimerType(Qt::PreciseTimer);
    tickTimer.setInterval(5);
    connect(&tickTimer, &QTimer::timeout, this, &StudioWindow::tick);
    tickTimer.start();
    recoverRecording();
    // From the event loop, so that the wizard opens over a window that is already shown.
    if (!smoke && !settings.value(QStringLiteral("onboarding_complete")).toBool())
        QTimer::singleShot(0, this, &StudioWindow::onboarding);
}

StudioWindow::~StudioWindow()
{
    tickTimer.stop();
    translation.stop();
    hallWindow->onHide = nullptr;
    hallWindow->hide();
    hallWindow.reset();
    videoDevices.clear();
    audioDevices.clear();
    for (auto& busScenes : scenes)
        busScenes.clear();
    program = {};
    hallProgram = {};
    for (auto& teardown : retired)
        teardown.wait();
    retired.clear();
}

void StudioWindow::buildHeaderRow(QVBoxLayout* column)
{
    auto* row = new QHBoxLayout;
    auto* logo = new QLabel;
    logo->setPixmap(
        QPixmap(QStringLiteral(":/logo.png")).scaled(58, 58, Qt::KeepAspectRatio, Qt::SmoothTransformation));
    row->addWidget(logo);
    row->addWidget(new QLabel(QStringLiteral("<span style='font-size:24px;font-weight:700'>Velmora</span><br>"
                                             "<span style='color:#95abc5'>") +
                              T("Producir · compartir · traducir") + QStringLiteral("</span>")));
    row->addStretch();
    languageCombo = new QComboBox;
    languageCombo->addItems({QStringLiteral("ES"), QStringLiteral("EN")});
    languageCombo->setCurrentIndex(tavrin_i18n::language() == QLatin1String("en") ? 1 : 0);
    languageCombo->setToolTip(T("Idioma"));
    connect(languageCombo, &QComboBox::currentIndexChanged, this, &StudioWindow::languageChosen);
    row->addWidget(languageCombo);
    column->addLayout(row);
}

void StudioWindow::buildToolRow(QVBoxLayout* column)
{
    auto* row = new QHBoxLayout;
    formatCombo = new QComboBox;
    formatCombo->addItems({T("Horizontal · 1920 × 1080"), T("Vertical · 1080 × 1920")});
    formatCombo->setToolTip(T("Horizontal o vertical"));
    row->addWidget(formatCombo);
    QPushButton* openProject = button(T("Abrir proyecto"));
    action(openProject, [this] { project(false); });
    row->addWidget(openProject);
    QPushButton* saveProject = button(T("Guardar proyecto"));
    action(saveProject, [this] { project(true); });
    row->addWidget(saveProject);
    QPushButton* credits = button(T("Créditos"));
    action(credits, [this] { about(); });
    row->addWidget(credits);
    row->addStretch();
    column->addLayout(row);
}

void StudioWindow::buildMainRow(QVBoxLayout* column)
{
    auto* row = new QHBoxLayout;
    auto* previewColumn = new QVBoxLayout;
    auto* busRow = new QHBoxLayout;
    busRow->addWidget(new QLabel(T("PREPARACIÓN para:")));
    busButtons = {button(T("Redes (YouTube/Facebook)")), button(T("Pantallas de sala"))};
    for (int bus = 0; bus < 2; ++bus) {
        busButtons[bus]->setCheckable(true);
        busButtons[bus]->setChecked(bus == 0);
        connect(busButtons[bus], &QPushButton::clicked, this, [this, bus] { busChosen(bus); });
        busRow->addWidget(busButtons[bus]);
    }
    busRow->addStretch();
    previewColumn->addLayout(busRow);
    canvas = new Canvas;
    canvas->changed = [this] { refreshProps(); };
    canvas->selectionChanged = [this] { refreshLayerList(); };
    canvas->activated = [this] { tabs->setCurrentIndex(1); };
    previewColumn->addWidget(canvas, 1);
    row->addLayout(previewColumn, 3);

    auto* programColumn = new QVBoxLayout;
    programColumn->addWidget(new QLabel(T("PROGRAMA REDES · lo que sale a YouTube/Facebook")));
    programMonitor = new Picture;
    programColumn->addWidget(programMonitor, 1);
    programColumn->addWidget(new QLabel(T("PANTALLAS DE SALA · lo que ve la congregación")));
    hallMonitor = new Picture;
    programColumn->addWidget(hallMonitor, 1);
    row->addLayout(programColumn, 2);
    column->addLayout(row, 3);

    hallWindow = std::make_unique<Picture>();
    hallWindow->setWindowTitle(T("Velmora · Programa"));
    // A picture on the projector must not keep the studio running once the main window is closed.
    hallWindow->setAttribute(Qt::WA_QuitOnClose, false);
    hallWindow->onHide = [this] { hallButton->setText(T("Pantallas de sala en el monitor elegido")); };
}

void StudioWindow::buildTakeRow(QVBoxLayout* column)
{
    auto* row = new QHBoxLayout;
    sceneCombo = new QComboBox;
    sceneCombo->setMinimumWidth(150);
    sceneCombo->setToolTip(T("Escena en Preparación"));
    connect(sceneCombo, &QComboBox::currentIndexChanged, this, &StudioWindow::sceneChosen);
    row->addWidget(sceneCombo);
    overlayField = new QLineEdit;
    overlayField->setPlaceholderText(T("Título, versículo o cinta inferior..."));
    overlayField->setMaxLength(500);
    row->addWidget(overlayField, 1);
    bandCheck = new QCheckBox(T("Banda"));
    row->addWidget(bandCheck);
    fadeCheck = new QCheckBox(T("Fundido 0.4 s"));
    fadeCheck->setChecked(true);
    connect(fadeCheck, &QCheckBox::toggled, this, [this](bool on) { fadeEnabled = on; });
    row->addWidget(fadeCheck);
    takeButton = button(T("AL AIRE  →"));
    takeButton->setObjectName(QStringLiteral("take"));
    takeButton->setMinimumWidth(150);
    connect(takeButton, &QPushButton::clicked, this, &StudioWindow::take);
    row->addWidget(takeButton);
    offAirButton = button(T("Fuera del aire"));
    offAirButton->setObjectName(QStringLiteral("offair"));
    offAirButton->setToolTip(T("Manda pantalla negra al Programa"));
    connect(offAirButton, &QPushButton::clicked, this, &StudioWindow::offAir);
    row->addWidget(offAirButton);
    column->addLayout(row);
}

void StudioWindow::buildTabs(QVBoxLayout* column)
{
    tabs = new QTabWidget;
    tabs->setMinimumHeight(250);
    tabs->setMaximumHeight(330);
    tabs->addTab(buildSourcesTab(), T("Fuentes y pantallas"));
    tabs->addTab(buildSceneTab(), T("Escena y fuentes"));
    tabs->addTab(buildAudioTab(), T("Audio"));
    tabs->addTab(buildStreamTab(), T("Transmitir y grabar"));
    auto* translationScroll = new QScrollArea;
    translationScroll->setFrameShape(QFrame::NoFrame);
    translationScroll->setWidgetResizable(true);
    translationScroll->setWidget(buildTranslationTab());
    tabs->addTab(translationScroll, T("Traducción IA y Biblia"));
    column->addWidget(tabs);
}

void StudioWindow::closeEvent(QCloseEvent* event)
{
    if (!smoke && outputsRunning()) {
        const auto answer = QMessageBox::question(this, T("Cerrar"), T("Hay salidas activas. ¿Detenerlas y cerrar?"),
                                                  QMessageBox::Yes | QMessageBox::No);
        if (answer != QMessageBox::Yes) {
            event->ignore();
            return;
        }
    }
    tickTimer.stop();
    translation.stop();
    // The recording's end of stream is what makes the file playable: give it up to 5 s to write
    // its last part. Streams are simply stopped by the destructor.
    if (recording) {
        recording->finish();
        const std::int64_t deadlineUs = g_get_monotonic_time() + 5000000;
        while (recording->running && g_get_monotonic_time() < deadlineUs) {
            recording->poll();
            QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (recording->ended)
            rememberRecording(QString());
    }
    event->accept();
}
