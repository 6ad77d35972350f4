#pragma once

#include <QColor>
#include <QString>
#include <cstdint>

namespace tavrin {
struct Frame;
}

// A cheap fingerprint of a frame's lower right corner: it tells a live picture (or snow) from a
// frozen one between two diagnostic lines. 0 without a frame.
std::uint32_t cornerFingerprint(const tavrin::Frame& frame);

struct CameraHealth
{
    std::uint32_t frameCount = 0;
    quintptr instance = 0; // tells one camera source from the next
    int layerCount = 0;
    const tavrin::Frame* latest = nullptr;
    QColor previewCentre;
    bool active = false;
};

// The periodic "DIAG" line of the log.
QString diagnosticLine(const CameraHealth& health);
