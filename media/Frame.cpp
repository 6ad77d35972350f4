#include "Frame.h"

#include <stdexcept>

namespace tavrin {

Frame::Frame(int width, int height) : width(width), height(height)
{
    if (width < 1 || width > 8192 || height < 1 || height > 8192)
        throw std::runtime_error("Tamaño de cuadro inválido");
    pixels.assign(std::size_t(width) * std::size_t(height) * 4, 0);
    for (std::size_t alpha = 3; alpha < pixels.size(); alpha += 4)
        pixels[alpha] = 255;
}

} // namespace tavrin
