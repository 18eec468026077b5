// The type-string field: reading. Format layer.
#include "format/type_strings.h"

#include "typeinfo/type_service.h"

namespace Tarvel::Format {

bool ReadTypeString(KLexer& lexer, int& c, String& text) {
    if (!lexer.SkipBlanks(c)) return lexer.Fail(c, "type string expected");
    const std::int64_t start = lexer.Position() - 1;  // of `c`; type lines are few
    if (!ReadString(lexer, c, text)) return false;
    return TypeHandle::IsWellFormed(text.c_str()) || lexer.FailAt(start, "malformed type string");
}

}  // namespace Tarvel::Format
