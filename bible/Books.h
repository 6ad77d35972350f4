#pragma once

#include <array>

namespace bible {

// One row of the book table. `aliases` is lower case without accents, separated by "|";
// `code` is the book's code at API.Bible.
struct Book
{
    const char* english;
    const char* spanish;
    const char* aliases;
    const char* code;
};

// The 66 books in canonical Protestant order; a Ref's `book` indexes this table.
const std::array<Book, 66>& books();

} // namespace bible
