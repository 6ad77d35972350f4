#pragma once

#include "Api.h"
#include "Audio.h"
#include "Compositor.h"
#include "Destination.h"
#include "FrameClock.h"
#include "FramePool.h"
#include "GstPtr.h"
#include "SceneDef.h"
#include "Translation.h"

#include <QMainWindow>
#include <QPushButton>
#include <QSettings>
#include <QTimer>
#include <array>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <vector>

class AudioCapture;
class Canvas;
class Media;
class Output;
class Picture;
class PropertyPanel;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QMenu;
class QProgressBar;
class QSlider;
class QTabWidget;
class QVBoxLayout;
namespace tavrin {
struct Frame;
}

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
    // The first-run wizard; onboarding_complete is written only when it is finished.
    void onboarding();

    void tick();
    void take();
    void offAir();
    QImage compose(SceneDef scene, const QString& title, bool band, int width, int height, bool hall, bool preview);

    std::shared_ptr<Media> openMedia(const QString& address);
    std::shared_ptr<tavrin::Frame> decodeImage(const QString& path);
    // Stopping a pipeline may block, so the last reference is dropped on a worker.
    template <typename Owner> void retireMedia(Owner object);
    // Lets go of every source a scene holds, on workers: a scene being replaced may hold the last
    // reference to a pipeline, whose stop must not block the GUI thread.
    void retireSources(SceneDef& scene);

    void refreshDevices();
    void connectSources();

    // Starts the row if it has no output, else stops it. Throws for a bad entry.
    void destination(std::size_t index);
    void retire(std::unique_ptr<Output> output);
    void lockFormat();
    void startRecording(const QString& path);

    // Called at the end of each frame stage with its duration, for measurements; may be empty.
    std::function<void(double milliseconds)> onFrameStage;

    Layer* selectedLayer();
    void addLayer(Layer layer);
    void addImageLayer(const QString& path);
    void addVideoLayer(const QString& address);
    void addScreenLayer();
    void refreshSceneList();
    void refreshLayerList();
    void refreshProps();

    void project(bool save);
    // Everything an open does after the dialog; throws before anything changes when the file is refused.
    void openProject(const QString& path);
    void lookupVerse(int layerIndex, const QString& text);
    QString verseLanguage();

    // Fits a finished phrase into the subtitle box with the phrases before it.
    void addCaption(const QString& text);
    // The text between phrases on the screens, from the setting "caption_separator".
    QString captionSeparator() const;

    friend class tst_StudioWindow;
    friend class tst_Take;
    friend class tst_Outputs;
    friend class tst_Relay;
    friend class tst_SceneTab;
    friend class tst_HallScreens;
    friend class tst_Project;
    friend class tst_Devices;
    friend class tst_VerseLookup;
    friend class tst_TranslationPanel;
    friend class tst_TranslationChain;
    friend class tst_FirstRun;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void runGuarded(const std::function<void()>& handler);
    void buildHeaderRow(QVBoxLayout* column);
    void buildToolRow(QVBoxLayout* column);
    void buildMainRow(QVBoxLayout* column);
    void buildTakeRow(QVBoxLayout* column);
    void buildTabs(QVBoxLayout* column);
    QWidget* buildSourcesTab();
    QWidget* buildAudioTab();
    QWidget* buildStreamTab();
    QWidget* buildSceneTab();
    QMenu* buildSourceMenu(QWidget* parent);
    void askNetworkSource();
    void askImageLayer();
    void askVideoLayer();
    QString chooseImageFile();
    // A new layer of `kind` in that kind's starting box.
    static Layer layerOfKind(Layer::Kind kind);
    void moveSelectedLayer(int step);
    void removeSelectedLayer();
    void changeSelectedImage();
    void restartSelectedVideo();
    void newSceneRequested();
    void renameSceneRequested();
    void duplicateScene();
    void deleteSceneRequested();
    void refreshLayerNames();
    void showQuickVerse();
    QWidget* buildTranslationTab();
    QWidget* buildTranslationPanel();
    void bindTranslation();
    void translatePressed();
    void startTranslation(const QString& key);
    void stopTranslation();
    // The button back to its idle text, and the screens and the voice emptied.
    void showSessionEnded();
    // The key field, or the stored key when the field is empty.
    QString aiKey() const;
    void clearCaptions();
    void directionChosen(const QString& target);
    void testAiKey();
    void storeAiKey(const QString& key);
    CaptionView captionView() const;
    void listOnlineBibles();
    void hallScreensPressed();
    void screenRemoved();
    void languageChosen(int index);
    void formatChosen(int index);
    void busChosen(int bus);
    void sceneChosen(int index);
    void spacePressed();

    void pollSources();
    void reopenCamera();
    void pollAudio();
    std::vector<float> mixAudio();
    void pushOutputs(const QImage& streamProgram, const std::vector<float>& audio, std::int64_t frameUs);
    bool outputsRunning() const;
    void startSelectedDestinations();
    void stopStreams();
    void saveStreamKeys();
    void recordPressed();
    // The running recording's path is kept in the settings until it ends, so that a recording cut
    // off by a crash is found and repaired, off the GUI thread, at the next start.
    void rememberRecording(const QString& path);
    void recoverRecording();
    void reapRetired();
    void frameStage(std::int64_t nowUs);
    void writeDiagnostics(const QImage& preview);
    void smokeStep(const QImage& streamProgram, const QImage& preview);

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
    std::unique_ptr<Picture> hallWindow; // the one widget without a parent
    Canvas* canvas = nullptr;
    QComboBox* languageCombo = nullptr;
    QComboBox* formatCombo = nullptr;
    QComboBox* sceneCombo = nullptr;
    QLineEdit* overlayField = nullptr;
    QCheckBox* bandCheck = nullptr;
    QCheckBox* fadeCheck = nullptr;
    QPushButton* takeButton = nullptr;
    QPushButton* offAirButton = nullptr;
    std::array<QPushButton*, 2> busButtons{};
    QListWidget* sceneList = nullptr;
    QListWidget* layerList = nullptr;
    PropertyPanel* propertyPanel = nullptr;
    QLineEdit* quickVerseField = nullptr;
    QComboBox* screenCombo = nullptr;
    QPushButton* hallButton = nullptr;
    QCheckBox* keySaveCheck = nullptr;
    QComboBox* bibleCombo = nullptr;
    QLineEdit* apiBibleKeyField = nullptr;
    QComboBox* onlineBibleCombo = nullptr;
    QComboBox* cameraCombo = nullptr;
    QComboBox* audioCombo = nullptr;
    QSlider* gainSlider = nullptr;
    QSlider* originalSlider = nullptr;
    QSlider* voiceSlider = nullptr;
    QPushButton* muteButton = nullptr;
    QPushButton* recordButton = nullptr;
    QProgressBar* inputMeter = nullptr;
    QProgressBar* processedMeter = nullptr;
    QTabWidget* tabs = nullptr;
    QLabel* statusLabel = nullptr;
    QLineEdit* aiKeyField = nullptr;
    QComboBox* targetCombo = nullptr;
    QCheckBox* showCaptionsCheck = nullptr;
    QCheckBox* voiceCheck = nullptr;
    QPushButton* translateButton = nullptr;
    QLabel* aiStatusLabel = nullptr;
    QLabel* heardLabel = nullptr;
    QCheckBox* liveModeCheck = nullptr;
    QComboBox* separatorCombo = nullptr;

    std::shared_ptr<Media> camera;
    int cameraIndex = -1;
    std::int64_t cameraReopenAtUs = 0;
    std::unique_ptr<AudioCapture> capture;
    std::vector<gstptr::Device> videoDevices;
    std::vector<gstptr::Device> audioDevices;
    std::array<Destination, 4> destinations;
    std::unique_ptr<Output> recording;
    FramePool outputFrames; // the Stream program as the outputs take it, reused frame to frame
    std::vector<std::future<void>> retired;
    tavrin::AudioState audioState;
    std::deque<float> programAudio;
    std::deque<float> voiceAudio;
    QString captionText;
    QStringList captions;
    std::int64_t lastCaptionMs = 0;
    Translation translation;

    QTimer tickTimer;
    std::int64_t epochUs = 0;
    FrameClock frameClock;
    int smokeFrames = 0;
    bool smoke = false;
    bool cameraFirstFrameLogged = false;
    int lastDiagFrame = 0;
    double fadeProgress = 1.0;
    QImage fadeFrom;
    std::int64_t fadeStartUs = 0;
    bool fadeEnabled = true;
    Compositor compositor;
    QString projectPath; // where the last project was saved or opened
    QSettings settings;
    bible::Api bibleApi;
    QString sourceLanguage;
};

template <typename Handler> void StudioWindow::action(QPushButton* target, Handler handler)
{
    connect(target, &QPushButton::clicked, this, [this, handler] { runGuarded(handler); });
}

template <typename Owner> void StudioWindow::retireMedia(Owner object)
{
    if (!object)
        return;
    retired.push_back(std::async(std::launch::async, [owned = std::move(object)]() mutable { owned = {}; }));
}
