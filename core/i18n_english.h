#pragma once

#include <span>
#include <utility>

namespace tavrin_i18n {

// The rows of the English table: Spanish key first, English text second, both UTF-8.
std::span<const std::pair<const char*, const char*>> englishPairs();

} // namespace tavrin_i18n
