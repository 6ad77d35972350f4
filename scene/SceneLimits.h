#pragma once

#include "SceneDef.h"

#include <cstddef>
#include <stdexcept>
#include <vector>

// How much a scene list may hold, so that no project can stall the tick.
//
// The scenes on the air are drawn three times a frame (Preview, Stream program, Hall program) on the
// GUI thread. The costliest layer is a text layer in the starting box of text with the largest type
// the panel allows (400): measured on the studio's two-core machine at 1920 x 1080, the three
// pictures with 32 such layers each took 27 ms, nearly the whole 33 ms frame, and with 16 they took
// 12 ms, which leaves the rest of the frame stage and the encoders their share.
//
// Scenes off the air cost no drawing, but every tick walks all their layers to poll their sources:
// 100 scenes of 16 layers on each bus keep that walk far below a millisecond, and a service uses a
// few dozen scenes at most.
inline constexpr std::size_t maxLayersPerScene = 16;
inline constexpr std::size_t maxScenesPerList = 100;

// Throws when one more layer would not fit in the scene.
inline void requireLayerRoom(const SceneDef& scene)
{
    if (scene.layers.size() >= maxLayersPerScene)
        throw std::runtime_error("Esta escena ya tiene el máximo de capas.");
}

// Throws when one more scene would not fit in the list.
inline void requireSceneRoom(const std::vector<SceneDef>& scenes)
{
    if (scenes.size() >= maxScenesPerList)
        throw std::runtime_error("Esta lista ya tiene el máximo de escenas.");
}
