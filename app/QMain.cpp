#include "Startup.h"
#include "StudioWindow.h"

int qMain(int argc, char** argv)
{
    return velmora::runStudio(argc, argv, [] { return std::make_unique<StudioWindow>(false); });
}
