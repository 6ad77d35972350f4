#pragma once

class QImage;
namespace tavrin {
struct Frame;
}

// The picture as tightly packed RGBA bytes, for the outputs.
tavrin::Frame frameFromImage(const QImage& picture);
