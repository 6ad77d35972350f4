#pragma once

#include <QString>

// The session bus a child test process gets, for the secret store's cases.
enum class ChildBus {
    None,    // no bus at all
    Nowhere, // an address where nothing listens
    Empty,   // a private D-Bus session with no Secret Service on it
    Keyring, // a private D-Bus session with a freshly unlocked gnome-keyring
};

struct ChildOutcome
{
    bool passed = false;
    QString errors; // its standard error
    QString report; // everything it printed, for a failure message
};

// Runs the current test case (function and data row) again in a child process of this test executable, with
// home and data folders of its own under `outputFolder`, no display, and `variable` set to `peer`.
ChildOutcome runCaseInChild(const QString& outputFolder, const char* variable, const QString& peer, ChildBus bus);
