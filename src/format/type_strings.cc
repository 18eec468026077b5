// The type-string field: reading. Format layer.
#include "format/type_strings.h"

#include "typeinfo/type_service.h"

namespace Tarvel::Format {

bool ReadTypeString(KLexer& lexer, int& c, String& text) {
    return ReadString(lexer, c, text) && TypeHandle::IsWellFormed(text.c_str());
}

}  // namespace Tarvel::Format
