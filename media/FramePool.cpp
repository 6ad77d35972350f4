#include "FramePool.h"

#include "Frame.h"

#include <atomic>

FramePool::FramePool(std::size_t capacity) : capacity(capacity)
{
    frames.reserve(capacity);
}

std::shared_ptr<tavrin::Frame> FramePool::acquire()
{
    for (const auto& frame : frames) {
        // Only this thread makes new references, so a count of one stays one. The encoders drop theirs
        // on their own threads: the fence orders their last reads of the pixels before our writes.
        if (frame.use_count() == 1) {
            std::atomic_thread_fence(std::memory_order_acquire);
            return frame;
        }
    }
    auto fresh = std::make_shared<tavrin::Frame>();
    if (frames.size() < capacity)
        frames.push_back(fresh);
    return fresh;
}
