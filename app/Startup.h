#pragma once

#include <QLocale>
#include <QString>
#include <functional>
#include <memory>

class QWidget;

namespace velmora {

// "es" or "en": the stored choice when it is one of the two, otherwise Spanish systems get "es".
QString chooseLanguage(const QString& stored, QLocale::Language systemLanguage);

// Puts the application folder first in PATH and, when a GStreamer tree lies beside the executable,
// points GStreamer at it alone, so that a tree of the machine or another product cannot interfere.
void prepareEnvironment(const QString& applicationDir);

// The one global stylesheet of the studio.
QString styleSheet();

using WindowFactory = std::function<std::unique_ptr<QWidget>()>;

// Everything from the application object to gst_deinit: identity, language, environment,
// GStreamer and its log hook, the stylesheet, and the window made by the factory and run.
// A std::exception that escapes the window becomes one critical box and exit code 1.
int runStudio(int argc, char** argv, const WindowFactory& makeWindow);

} // namespace velmora

int qMain(int argc, char** argv);
