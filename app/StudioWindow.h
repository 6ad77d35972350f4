#pragma once

#include "SceneDef.h"

#include <QMainWindow>
#include <QPushButton>
#include <QSettings>
#include <QTimer>
#include <array>
#include <functional>
#include <vector>

class Picture;
class QComboBox;
class QLabel;
class QProgressBar;
class QTabWidget;
class QVBoxLayout;

// The studio's one main window and the owner of everything: scenes, both Programs, pipelines,
// settings and widgets. Handlers of its widgets work directly on its members.
class StudioWindow : public QMainWindow
{
public:
    explicit StudioWindow(bool smoke);
    ~StudioWindow() override;

    void notify(const QString& text);
    static void logLine(const QString& text);
    static QString logPath();

    QPushButton* button(const QString& text);
    // Runs a button's handler under a guard: a failure reaches the status line and a warning box,
    // never the event loop.
    template <typename Handler> void action(QPushButton* target, Handler handler);
    void meter(QProgressBar* bar, int value);

    SceneDef defaultScene(int bus) const;
    SceneDef& scene();
    void about();

    friend class tst_StudioWindow;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void runGuarded(const std::function<void()>& handler);
    void buildHeaderRow(QVBoxLayout* column);
    void buildToolRow(QVBoxLayout* column);
    void buildMainRow(QVBoxLayout* column);
    void buildTabs(QVBoxLayout* column);
    void languageChosen(int index);

    int width = 1920;
    int height = 1080;
    std::array<std::vector<SceneDef>, 2> scenes;
    std::array<int, 2> current{0, 0};
    int editTarget = 0;
    SceneDef program;
    SceneDef hallProgram;
    QString programOverlay;
    bool programBand = false;
    int hallWidth = 1920;
    int hallHeight = 1080;

    Picture* hallMonitor = nullptr;
    Picture* programMonitor = nullptr;
    Picture* hallWindow = nullptr;
    QComboBox* languageCombo = nullptr;
    QComboBox* formatCombo = nullptr;
    QTabWidget* tabs = nullptr;
    QLabel* statusLabel = nullptr;

    QTimer tickTimer;
    bool smoke = false;
    QSettings settings;
};

template <typename Handler> void StudioWindow::action(QPushButton* target, Handler handler)
{
    connect(target, &QPushButton::clicked, this, [this, handler] { runGuarded(handler); });
}
