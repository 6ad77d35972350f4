#include "StudioWindow.h"

#include "Picture.h"
#include "i18n.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QScrollArea>
#include <QTabWidget>
#include <QVBoxLayout>

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
    buildTabs(column);

    statusLabel = new QLabel(T("Elige cámara y audio, pulsa Conectar fuentes y luego AL AIRE."), central);
    statusLabel->setWordWrap(true);
    column->addWidget(statusLabel);

    scenes[0] = {defaultScene(0)};
    scenes[1] = {defaultScene(1)};
    hallProgram = defaultScene(1);
}

StudioWindow::~StudioWindow()
{
    tickTimer.stop();
    if (hallWindow) {
        hallWindow->onHide = nullptr;
        hallWindow->hide();
        delete hallWindow;
    }
    for (auto& busScenes : scenes)
        busScenes.clear();
    program = {};
    hallProgram = {};
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

    hallWindow = new Picture;
    hallWindow->setWindowTitle(T("Velmora · Programa"));
}

void StudioWindow::buildTabs(QVBoxLayout* column)
{
    tabs = new QTabWidget;
    tabs->setMinimumHeight(250);
    tabs->setMaximumHeight(330);
    tabs->addTab(new QWidget, T("Fuentes y pantallas"));
    tabs->addTab(new QWidget, T("Escena y fuentes"));
    tabs->addTab(new QWidget, T("Audio"));
    tabs->addTab(new QWidget, T("Transmitir y grabar"));
    auto* translationScroll = new QScrollArea;
    translationScroll->setFrameShape(QFrame::NoFrame);
    translationScroll->setWidgetResizable(true);
    translationScroll->setWidget(new QWidget);
    tabs->addTab(translationScroll, T("Traducción IA y Biblia"));
    column->addWidget(tabs);
}

void StudioWindow::closeEvent(QCloseEvent* event)
{
    tickTimer.stop();
    event->accept();
}
