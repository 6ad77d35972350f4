#pragma once

#include "Audio.h"
#include "GstPtr.h"

#include <cstdint>
#include <functional>
#include <string>

// The pipeline of the studio's main audio input: a capture device, or a quiet test tone when there
// is none. Delivers 48 kHz stereo float blocks with gain and mute applied and keeps the levels of the
// newest one. A failure or a silent input stops it for good: `running` goes false, `error` says why
// and the device is already let go. Everything runs on the GUI thread; poll never waits.
class AudioCapture
{
public:
    // A null device means the test tone. Throws std::runtime_error with a Spanish text.
    explicit AudioCapture(GstDevice* device);
    ~AudioCapture();
    AudioCapture(const AudioCapture&) = delete;
    AudioCapture& operator=(const AudioCapture&) = delete;

    // Once per tick. Hands at most 8 blocks to onBlock. Throws std::runtime_error for a block that
    // cannot be processed (an invalid gain); the capture goes on.
    void poll(const tavrin::AudioState& state);

    gstptr::Element pipeline;
    GstElement* sink = nullptr;
    gstptr::Bus bus;
    std::int64_t lastBufferUs = 0;
    std::function<void(const tavrin::AudioBlock&)> onBlock;
    bool running = false;
    std::string error;
    tavrin::AudioLevels input;
    tavrin::AudioLevels output;
    std::uint64_t blockCount = 0;

    // The monotonic clock in microseconds; tests move it by hand to reach the silence time-outs.
    std::function<std::int64_t()> clock = [] { return std::int64_t(g_get_monotonic_time()); };

private:
    void stop(const std::string& reason);
};
