// velmora-soak: runs the studio headless at 1920 x 1080 with the recording and N streams to a local
// RTMP server, then checks with ffprobe what arrived. Its last line:
//   soak streams=<N> expected=<frames> recorded=<frames> received_min=<frames> frame_stage_p99_ms=<ms>
// Usage: velmora-soak [--streams N] [--seconds S]   (N from 0 to 4, S default 60)
#include "Processes.h"
#include "RtmpServer.h"
#include "Startup.h"
#include "StudioWindow.h"

#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QSettings>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

namespace {

struct SoakRun
{
    int streams = 1;
    int seconds = 60;
    QString folder;
    std::unique_ptr<RtmpServer> server;
    StudioWindow* window = nullptr;
    std::vector<double> stageMs;
    bool measuring = false;
    int exitCode = 0;
};

QString streamKey(int row)
{
    return QStringLiteral("soak-stream-%1").arg(row);
}

void fail(SoakRun& run, const QString& why)
{
    std::fprintf(stderr, "soak: %s\n", qPrintable(why));
    run.exitCode = 1;
    QCoreApplication::exit(1);
}

// Waits, without blocking the studio, until `done` holds, then runs `next`.
void whenReady(std::function<bool()> done, std::function<void()> next, int limitMs, SoakRun& run, const char* what)
{
    auto* poller = new QTimer;
    auto started = std::make_shared<QElapsedTimer>();
    started->start();
    QObject::connect(poller, &QTimer::timeout, [=, &run] {
        if (done()) {
            poller->deleteLater();
            next();
        } else if (started->elapsed() > limitMs) {
            poller->deleteLater();
            fail(run, QString::fromLatin1(what));
        }
    });
    poller->start(50);
}

void finish(SoakRun& run)
{
    run.server->stop();
    // Every frame stage while measuring pushed one picture to each output.
    const int expected = int(run.stageMs.size());
    const int recorded = probeStreams(run.folder + QStringLiteral("/program.webm")).value(QStringLiteral("vp8")).frames;
    int receivedMin = run.streams > 0 ? std::numeric_limits<int>::max() : 0;
    for (int row = 0; row < run.streams; ++row)
        receivedMin = std::min(receivedMin, probeStreams(run.server->recording(streamKey(row))).value(QStringLiteral("h264")).frames);
    std::sort(run.stageMs.begin(), run.stageMs.end());
    const double p99 = run.stageMs.empty() ? 0.0 : run.stageMs[std::min(run.stageMs.size() - 1, run.stageMs.size() * 99 / 100)];
    std::printf("soak streams=%d expected=%d recorded=%d received_min=%d frame_stage_p99_ms=%.2f\n", run.streams,
                expected, recorded, receivedMin, p99);
    std::fflush(stdout);
    QCoreApplication::quit();
}

void stop(SoakRun& run)
{
    run.measuring = false;
    for (int row = 0; row < run.streams; ++row)
        run.window->destination(std::size_t(row));
    run.window->findChild<QPushButton*>(QStringLiteral("record"))->click();
    whenReady([&run] { return run.window->findChild<QPushButton*>(QStringLiteral("record"))->text().startsWith(u'●'); },
              [&run] { finish(run); }, 30000, run, "the recording did not finish");
}

void startOutputs(SoakRun& run)
{
    StudioWindow& window = *run.window;
    for (int row = 0; row < run.streams; ++row) {
        window.findChild<QLineEdit*>(QStringLiteral("server-%1").arg(row))
            ->setText(QStringLiteral("rtmp://127.0.0.1:%1/app").arg(run.server->port()));
        window.findChild<QLineEdit*>(QStringLiteral("key-%1").arg(row))->setText(streamKey(row));
        window.destination(std::size_t(row));
    }
    window.startRecording(run.folder + QStringLiteral("/program.webm"));
    run.measuring = true;
    QTimer::singleShot(run.seconds * 1000, [&run] { stop(run); });
}

// As an operator does: sources connected and Program on the air first, the outputs a moment later.
// Started in one handler, the sources' start-up would hold the GUI thread, and the frames caught up
// after it would meet the encoders in a burst, before they have coded a single frame.
void start(SoakRun& run)
{
    StudioWindow& window = *run.window;
    window.findChild<QComboBox*>(QStringLiteral("audio"))->setCurrentIndex(1); // the test tone
    window.connectSources();
    window.take();
    window.onFrameStage = [&run](double ms) {
        if (run.measuring)
            run.stageMs.push_back(ms);
    };
    QTimer::singleShot(1000, [&run] { startOutputs(run); });
}

} // namespace

int main(int argc, char** argv)
{
    SoakRun run;
    for (int i = 1; i + 1 < argc; ++i) {
        if (qstrcmp(argv[i], "--streams") == 0)
            run.streams = std::clamp(atoi(argv[i + 1]), 0, 4);
        if (qstrcmp(argv[i], "--seconds") == 0)
            run.seconds = std::max(1, atoi(argv[i + 1]));
    }
    QTemporaryDir home;
    home.setAutoRemove(false); // the recording and what the server received stay for a look
    run.folder = home.path();
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + QStringLiteral("/config")).toUtf8());
    qputenv("XDG_DATA_HOME", (home.path() + QStringLiteral("/data")).toUtf8());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");

    const int code = velmora::runStudio(argc, argv, [&run] {
        run.server = std::make_unique<RtmpServer>(run.folder + QStringLiteral("/rtmp"));
        QSettings().setValue(QStringLiteral("onboarding_complete"), true);
        auto window = std::make_unique<StudioWindow>(false);
        run.window = window.get();
        if (!run.server->ok())
            QTimer::singleShot(0, [&run] { fail(run, run.server->errorString()); });
        else
            QTimer::singleShot(1000, [&run] { start(run); });
        return window;
    });
    std::fprintf(stderr, "soak: files kept in %s\n", qPrintable(run.folder));
    return code != 0 ? code : run.exitCode;
}
