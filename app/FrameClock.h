#pragma once

#include <cstdint>

// Paces the frame stage at 30 frames a second on a timer that fires every 5 ms. Frames missed by up
// to a quarter of a second are caught up one per firing, so output timestamps stay regular across
// a short stall; beyond that the clock jumps and the time is lost on purpose.
class FrameClock
{
public:
    static constexpr std::int64_t periodUs = 33333;
    static constexpr std::int64_t slipLimitUs = 250000;

    explicit FrameClock(std::int64_t startUs = 0) : nextFrameUs(startUs) {}

    bool due(std::int64_t nowUs) const { return nowUs >= nextFrameUs; }

    // Takes the frame that is due and returns its time.
    std::int64_t advance(std::int64_t nowUs)
    {
        std::int64_t frameUs = nextFrameUs;
        if (nowUs - (frameUs + periodUs) > slipLimitUs)
            frameUs = nowUs;
        nextFrameUs = frameUs + periodUs;
        return frameUs;
    }

    std::int64_t nextFrameUs;
};
