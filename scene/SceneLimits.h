#pragma once

#include "SceneDef.h"

#include <cstddef>
#include <stdexcept>
#include <vector>

// How much a scene list may hold, so that no project can stall the tick.
//
// The scenes on the air are drawn three times a frame (Preview, Stream program, Hall program) on the
// GUI thread, and a layer costs what it covers. The costliest is a layer that fills the picture, a
// text box or an image: measured on the studio's two-core machine at 1920 x 1080, with two compilers
// running beside it, the three pictures with 8 such layers each took 15 ms, half the 33 ms frame, which
// leaves the rest of the frame stage and the encoders their share; 12 took 27 ms and 16 took 30 ms.
//
// Scenes off the air cost no drawing, but every tick walks all their layers to poll their sources:
// 100 scenes of 8 layers on each bus is a walk of 1,600 layers, a small fraction of a millisecond, and
// a service uses a few dozen scenes at most.
inline constexpr std::size_t maxLayersPerScene = 8;
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
