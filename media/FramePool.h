#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace tavrin {
struct Frame;
}

// Pictures for the outputs, reused once every output has let go of them. A 1080p picture is 8 MB:
// allocating, clearing and faulting in a fresh one on every frame took about a quarter of the GUI
// thread's time. The pool keeps at most `capacity` frames; when all are still held by encoders, a frame
// outside the pool is handed out, so nothing ever waits.
class FramePool
{
public:
    explicit FramePool(std::size_t capacity = 4);

    // A frame that nobody else holds, to be filled by the caller; its bytes are those of an old picture.
    std::shared_ptr<tavrin::Frame> acquire();

private:
    std::vector<std::shared_ptr<tavrin::Frame>> frames;
    std::size_t capacity;
};
