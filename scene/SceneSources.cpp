#include "SceneSources.h"

#include <algorithm>

void collectSources(const SceneDef& scene, std::vector<Media*>& sources)
{
    for (const Layer& layer : scene.layers) {
        Media* source = layer.media.get();
        if (source && std::find(sources.begin(), sources.end(), source) == sources.end())
            sources.push_back(source);
    }
}
