// The type-string field of type lines ("I index text"), writing and reading side by side: the
// type-information text as a string (always quoted, since it holds "#"), which a reader accepts
// only when the type service finds it well formed. Format layer; thread-safe as its arguments
// are. The std_logic texts and their test are the type layer's (typeinfo/type_service.h).
#ifndef TARVEL_FORMAT_TYPE_STRINGS_H
#define TARVEL_FORMAT_TYPE_STRINGS_H

#include <string_view>

#include "foundation/memory.h"
#include "format/lexer.h"
#include "format/strings.h"

namespace Tarvel::Format {

template <class Sink>
bool PutTypeString(Sink& out, std::string_view typeInfo) {
    return PutString(out, typeInfo);
}

// A string that the type service accepts as a type-information string. May throw
// std::bad_alloc while `text` grows.
bool ReadTypeString(KLexer& lexer, int& c, String& text);

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_TYPE_STRINGS_H
