// The lexer: buffer refills, line ends, words and positions. Format layer. Single-threaded: one
// lexer per reader.
#include "format/lexer.h"

#include "foundation/platform_file.h"
#include "format/vocabulary.h"

namespace Tarvel {
namespace {

// Stop test of the word scan; a lambda (not a function pointer) so that the scan inlines it.
constexpr auto kEndsWord = [](unsigned char c) noexcept { return KLexer::IsSpace(c); };

}  // namespace

KLexer::KLexer() noexcept : next_(buffer_), end_(buffer_) {}

KLexer::~KLexer() { Close(); }

// ---- File and buffer ---------------------------------------------------------------------------

bool KLexer::Open(const char* fileName) noexcept {
    Close();
    file_ = Platform::OpenInputFile(fileName);
    next_ = end_ = buffer_;
    endPosition_ = 0;
    hasSaved_ = false;
    lastRelative_ = 0;
    return file_ != nullptr;
}

void KLexer::Close() noexcept {
    if (file_ != nullptr) Platform::CloseInput(file_);
    file_ = nullptr;
    next_ = end_ = buffer_;
}

bool KLexer::Refill() noexcept {
    const std::size_t size = file_ != nullptr ? Platform::ReadInput(buffer_, kBufferSize, file_) : 0;
    next_ = buffer_;
    end_ = buffer_ + size;
    endPosition_ += static_cast<std::int64_t>(size);
    return size != 0;
}

int KLexer::NextSlow() noexcept {
    if (!Refill()) return kEnd;
    return *next_++;
}

bool KLexer::RestorePosition() noexcept {
    if (!hasSaved_) return true;
    next_ = end_ = buffer_;
    if (file_ == nullptr || !Platform::SeekInput(file_, savedPosition_)) return false;
    endPosition_ = savedPosition_;
    hasSaved_ = false;
    return true;
}

// ---- Line structure ----------------------------------------------------------------------------

bool KLexer::EndOfLineAfterBlanks(int& c) noexcept {
    while (c != '\n') {
        if (!IsSpace(c)) return false;  // kEnd included
        c = Next();
    }
    return true;
}

bool KLexer::EndOfLineOrFile(int& c) noexcept { return EndOfLine(c) || c == kEnd; }

bool KLexer::Expect(int& c, int wanted) noexcept {
    while (c != '\n' && IsSpace(c)) c = Next();
    return c == wanted;
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
