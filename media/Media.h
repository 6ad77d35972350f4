#pragma once

#include "Frame.h"
#include "GstPtr.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

// One running source pipeline: a camera, a screen, a file or network address, or a test pattern,
// delivering finished RGBA pictures at the studio's canvas size and 48 kHz stereo float audio.
// Everything but padAdded runs on the GUI thread; poll never waits.
class Media
{
public:
    // Throws std::runtime_error with a Spanish text (shown through T by the caller).
    Media(int width, int height, GstDevice* device, const std::string& uri, bool test, bool screen);
    ~Media();
    Media(const Media&) = delete;
    Media& operator=(const Media&) = delete;

    void poll();
    static void padAdded(GstElement* element, GstPad* pad, void* self);

    gstptr::Element pipeline;
    GstElement* videoSink = nullptr;
    GstElement* videoConvert = nullptr;
    GstElement* source = nullptr;
    gstptr::Bus bus;
    GstElement* audioConvert = nullptr;
    GstElement* audioSink = nullptr;
    std::int64_t lastFrameUs = 0;
    std::function<void(const std::vector<float>&)> onAudio;
    std::deque<float> audioRing;
    tavrin::Frame latest;
    bool running = true;
    bool ended = false;
    bool isDevice = false;
    std::string error;
    std::string diagnostics;
    std::uint32_t frameCount = 0;

    // The monotonic clock in microseconds; tests move it by hand to reach the frame time-outs.
    std::function<std::int64_t()> clock = [] { return std::int64_t(g_get_monotonic_time()); };
};

namespace tavrin {

struct CaptureSize
{
    int width = 0;
    int height = 0;
};

// The capture size a device should be asked for, from its caps and the canvas size: shape weighs
// ten times area. Entries with ranges are passed over; {0, 0} means none fits.
CaptureSize chooseCaptureSize(const GstCaps* deviceCaps, int canvasWidth, int canvasHeight);

} // namespace tavrin
