// The self-test entry: everything the studio's start does, with the window in self-test mode.
#include "Startup.h"
#include "StudioWindow.h"

int main(int argc, char** argv)
{
    return velmora::runStudio(argc, argv, [] { return std::make_unique<StudioWindow>(true); });
}
