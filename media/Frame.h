#pragma once

#include <cstdint>
#include <vector>

namespace tavrin {

// One RGBA picture, 4 bytes a pixel, rows packed without padding.
struct Frame
{
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::vector<std::uint8_t> pixels;

    Frame() = default;
    // Opaque black; both sides must lie in 1..8192, else std::runtime_error "Tamaño de cuadro inválido".
    Frame(int width, int height);

    bool empty() const { return width <= 0 || height <= 0 || pixels.empty(); }
};

} // namespace tavrin
