// The string field, writing and reading side by side: a non-empty identifier (a letter or "_",
// then letters, digits or "_" of the C locale) is written bare; anything else between double
// quotes with a backslash before every '"' and '\'. A reader also takes a character literal in
// single quotes. Format layer; thread-safe as its arguments are.
#ifndef TARVEL_FORMAT_STRINGS_H
#define TARVEL_FORMAT_STRINGS_H

#include <cstddef>
#include <string_view>

#include "foundation/memory.h"
#include "format/lexer.h"
#include "format/vocabulary.h"

namespace Tarvel::Format {

// ---- Writing ----------------------------------------------------------------------------------

// Writes `text` bare or quoted (see above) to `out` (see format/numbers.h for a Sink).
template <class Sink>
bool PutString(Sink& out, std::string_view text) {
    if (IsBareIdentifier(text)) return out.Write(text);
    if (!out.Put(kQuote)) return false;
    std::size_t start = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (!NeedsEscape(text[at])) continue;
        if (!out.Write(text.substr(start, at - start)) || !out.Put(kEscape)) return false;
        start = at;  // the escaped character goes out with the next span
    }
    return out.Write(text.substr(start)) && out.Put(kQuote);
}

// ---- Reading ----------------------------------------------------------------------------------

// Skips blanks, clears `text`, then reads one of
//   "..."  a quoted string; a backslash takes the next character literally; the end of the file
//          inside fails; `text` gets the characters without quotes and backslashes;
//   'x'    one character between single quotes; `text` gets all three characters, quotes
//          included, so that a value reader can tell a character literal from an identifier;
//   bare   characters up to whitespace, "=" or the end of the file; must not be empty.
// May throw std::bad_alloc while `text` grows.
bool ReadString(KLexer& lexer, int& c, String& text);

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_STRINGS_H
