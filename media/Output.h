#pragma once

#include "GstPtr.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavrin {
struct Frame;
}

// One running encoder pipeline: a live stream over RTMP(S), or a recording to a file. It is fed raw
// RGBA pictures and 48 kHz stereo float audio through two appsrc elements, on the GUI thread, and
// nothing in it waits: the sources are leaky and never block, and the bus is popped without a wait.
// Destroying it takes the pipeline to NULL, which may block on a network close, so owners release it
// on a worker thread.
class Output
{
public:
    // Throws std::runtime_error with a Spanish text (shown through T by the caller). With `stream`
    // the target is the whole RTMP address with the key, otherwise a file path.
    Output(int width, int height, bool stream, const std::string& target, int bitrate, bool flvToFile);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // A floating element of that factory, without a name; a missing factory throws
    // "Componente no disponible: " + factory.
    static GstElement* make(const char* factory);
    // The same, owned: a full reference until a bin holds its own. Every element of the encoders and
    // of a recording's repair is made this way, so that one missing plug-in is named and nothing else
    // is started.
    static gstptr::Element element(const char* factory);

    // One pace step: one picture and one audio block (3200 floats, padded with silence or cut to
    // that length), stamped with the time elapsed on the studio clock since the first push. A failure
    // marks the output as not running and sets `error`; nothing is thrown.
    void push(const std::shared_ptr<const tavrin::Frame>& frame, const std::vector<float>& audio, std::uint64_t studioClockNs);
    // Takes at most one end-of-stream or error message off the bus, without waiting.
    void poll();
    // Sends end of stream on both sources once; `ended` is set by a later poll when the file is closed.
    void finish();

    gstptr::Element pipeline;
    GstElement* videoSource = nullptr;
    GstElement* audioSource = nullptr;
    gstptr::Bus bus;
    std::uint64_t videoPts = 0;
    std::uint64_t audioPts = 0;
    std::int32_t width = 0;
    std::int32_t height = 0;
    bool finishing = false;
    std::uint64_t startNs = ~std::uint64_t(0);
    bool running = false;
    bool ended = false;
    std::string error;
    std::uint64_t videoFrames = 0;
    std::uint64_t audioFrames = 0;
};
