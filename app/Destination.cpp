#include "Destination.h"

#include "Output.h"

Destination::Destination() = default;
Destination::~Destination() = default;
Destination::Destination(Destination&&) noexcept = default;
Destination& Destination::operator=(Destination&&) noexcept = default;
