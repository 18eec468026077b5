// The lexer: buffer refills, line ends, words and positions. Format layer. Single-threaded: one
// lexer per reader.
#include "format/lexer.h"

#include "foundation/platform_file.h"
#include "format/vocabulary.h"

namespace Tarvel {
namespace {

// Stop test of the word scan; a lambda (not a function pointer) so that the scan inlines it.
constexpr auto kEndsWord = [](unsigned char c) noexcept { return KLexer::IsSpace(c); };

constexpr const char* kNoLineEnd = "unexpected '%s' where the line should end";

}  // namespace

KLexer::KLexer() noexcept : m_next(m_buffer), m_end(m_buffer) {}

KLexer::~KLexer() { Close(); }

// ---- File and buffer ---------------------------------------------------------------------------

bool KLexer::Open(const char* fileName) noexcept {
    Close();
    m_file = Platform::OpenInputFile(fileName);
    m_next = m_end = m_buffer;
    m_endPosition = 0;
    m_hasSaved = false;
    m_lastRelative = 0;
    return m_file != nullptr;
}

void KLexer::Close() noexcept {
    if (m_file != nullptr) Platform::CloseInput(m_file);
    m_file = nullptr;
    m_next = m_end = m_buffer;
}

bool KLexer::Refill() noexcept {
    const std::size_t size = m_file != nullptr ? Platform::ReadInput(m_buffer, kBufferSize, m_file) : 0;
    m_next = m_buffer;
    m_end = m_buffer + size;
    m_endPosition += static_cast<std::int64_t>(size);
    return size != 0;
}

int KLexer::NextSlow() noexcept {
    if (!Refill()) return kEnd;
    return *m_next++;
}

bool KLexer::RestorePosition() noexcept {
    if (!m_hasSaved) return true;
    m_next = m_end = m_buffer;
    if (m_file == nullptr || !Platform::SeekInput(m_file, m_savedPosition)) return false;
    m_endPosition = m_savedPosition;
    m_hasSaved = false;
    return true;
}

// ---- Line structure ----------------------------------------------------------------------------

bool KLexer::EndOfLineAfterBlanks(int& c) noexcept {
    while (c != '\n') {
        if (!IsSpace(c)) return Fail(c, kNoLineEnd);  // kEnd included
        c = Next();
    }
    return true;
}

bool KLexer::EndOfLineOrFile(int& c) noexcept {
    if (c == '\r') c = Next();
    while (c != '\n' && c != kEnd) {
        if (!IsSpace(c)) return Fail(c, kNoLineEnd);
        c = Next();
    }
    return true;
}

bool KLexer::Expect(int& c, int wanted) noexcept {
    while (c != '\n' && IsSpace(c)) c = Next();
    return c == wanted;
}

// ---- Faults (failure paths only) ---------------------------------------------------------------

bool KLexer::Fail(int c, const char* reason) noexcept {
    if (c == kEnd) return FailAtEnd(kEndsInsideLine);
    return FailAt(Position() - 1, reason);
}

bool KLexer::FailAfterToken(int c, const char* reason) noexcept {
    if (c == kEnd) return FailAtEnd(kEndsInsideLine);  // the token may be cut: the fault is the end
    FailAt(Position() - 1, reason);
    m_fault.afterToken = true;
    return false;
}

bool KLexer::FailAt(std::int64_t position, const char* reason) noexcept {
    m_fault = Fault{reason, position, false, false};
    return false;
}

bool KLexer::FailAtEnd(const char* reason) noexcept {
    m_fault = Fault{reason, Position(), false, true};
    return false;
}

bool KLexer::RefineEndFault(const char* reason) noexcept {
    if (m_fault.atEnd && m_fault.reason == kEndsInsideLine) m_fault.reason = reason;
    return false;
}

// ---- Words -------------------------------------------------------------------------

bool KLexer::ReadWord(int& c, String& word) {
    word.clear();
    if (c == kEnd || IsSpace(c)) return false;
    word.push_back(static_cast<char>(c));
    c = AppendUntil(word, kEndsWord);
    return true;
}

}  // namespace Tarvel
