// The string field: reading (writing is the template in the header). Format layer.
#include "format/strings.h"

namespace Tarvel::Format {
namespace {

// Stop tests of the scans; lambdas (not function pointers) so that the scans inline them.
constexpr auto kEndsBareString = [](unsigned char c) noexcept { return KLexer::IsSpace(c) || c == '='; };
constexpr auto kEndsQuotedSpan = [](unsigned char c) noexcept { return c == kQuote || c == kEscape; };

constexpr const char* kEndsInsideQuotes = "file ends inside a quoted string";
constexpr const char* kStringExpected = "name or text expected";

bool ReadQuoted(KLexer& lexer, int& c, String& text) {
    for (;;) {
        c = lexer.AppendUntil(text, kEndsQuotedSpan);
        if (c == kQuote) break;
        if (c == KLexer::kEnd) return lexer.FailAtEnd(kEndsInsideQuotes);
        c = lexer.Next();  // the character after a backslash, taken as it is
        if (c == KLexer::kEnd) return lexer.FailAtEnd(kEndsInsideQuotes);
        text.push_back(static_cast<char>(c));
    }
    c = lexer.Next();
    return true;
}

bool ReadCharacterLiteral(KLexer& lexer, int& c, String& text) {
    const int character = lexer.Next();
    if (character == KLexer::kEnd) {
        c = KLexer::kEnd;
        return lexer.FailAtEnd(KLexer::kEndsInsideLine);
    }
    c = lexer.Next();
    if (c != kCharacterQuote) return lexer.Fail(c, "character literal not closed: ' expected");
    const char literal[3] = {kCharacterQuote, static_cast<char>(character), kCharacterQuote};
    text.append(literal, 3);
    c = lexer.Next();
    return true;
}

}  // namespace

bool ReadString(KLexer& lexer, int& c, String& text) {
    text.clear();
    if (!lexer.SkipBlanks(c)) return lexer.Fail(c, kStringExpected);
    if (c == kQuote) return ReadQuoted(lexer, c, text);
    if (c == kCharacterQuote) return ReadCharacterLiteral(lexer, c, text);
    if (kEndsBareString(static_cast<unsigned char>(c))) return lexer.Fail(c, kStringExpected);
    text.push_back(static_cast<char>(c));
    c = lexer.AppendUntil(text, kEndsBareString);
    return true;
}

}  // namespace Tarvel::Format
