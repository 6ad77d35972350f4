#pragma once

class QImage;
namespace tavrin {
struct Frame;
}

// The picture as tightly packed RGBA bytes, for the outputs.
tavrin::Frame frameFromImage(const QImage& picture);
// The same into a frame whose storage is reused when it already has the size.
void frameFromImage(const QImage& picture, tavrin::Frame& frame);
