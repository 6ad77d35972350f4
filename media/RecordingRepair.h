#pragma once

#include <string>

// Finishes a WebM recording that was cut off, the studio having died while it wrote: such a file
// plays whole, but has no duration and no seek index, so players show a wrong length and cannot
// seek. Demuxes and remuxes it into "<name>-reparada.webm" beside it, first under a temporary name
// that the copy takes only once it reads back with a duration. The original is only ever read.
// Returns the repaired file's path. Blocks for as long as the copy takes, so it runs on a worker.
// Throws std::runtime_error with a Spanish text on failure.
std::string repairRecording(const std::string& path);
