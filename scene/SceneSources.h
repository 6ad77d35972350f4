#pragma once

#include "SceneDef.h"

#include <vector>

class Media;

// Appends the sources of `scene` that `sources` does not hold yet, in layer order, so that a source
// shared by several scenes and a Program is serviced once a tick.
void collectSources(const SceneDef& scene, std::vector<Media*>& sources);
