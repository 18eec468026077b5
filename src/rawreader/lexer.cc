// The raw reader's lexer: buffer refills, positions and the field forms of the waveform file.
// Raw reader layer. Single-threaded: one lexer per reader.
#include "rawreader/lexer.h"

#include "foundation/platform_file.h"
#include "writer/file_format.h"

namespace Tarvel {
namespace {

constexpr char kCharacterQuote = '\'';

bool CanStartNumber(int c) noexcept {
    return KLexer::IsDigit(c) || c == '-' || c == Format::kRelativePrefix;
}

// Stop tests of the string scans; lambdas (not function pointers) so that the scans inline them.
constexpr auto kEndsWord = [](unsigned char c) noexcept { return KLexer::IsSpace(c); };
constexpr auto kEndsBareString = [](unsigned char c) noexcept { return KLexer::IsSpace(c) || c == '='; };
constexpr auto kEndsQuotedSpan = [](unsigned char c) noexcept { return c == Format::kQuote || c == Format::kEscape; };

// Appends a to b in steps of `step` (counting down when a >= b); 64-bit so that no step past
// either end of the 32-bit range can overflow.
void PushRange(Vector<std::int32_t>& list, std::int64_t first, std::int64_t last, std::int64_t step) {
    if (first >= last) {
        for (std::int64_t value = first; value >= last; value -= step) list.push_back(static_cast<std::int32_t>(value));
    } else {
        for (std::int64_t value = first; value <= last; value += step) list.push_back(static_cast<std::int32_t>(value));
    }
}

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

// ---- Numbers -----------------------------------------------------------------------------------

template <class Unsigned>
inline Unsigned KLexer::ReadDigits(int& c) noexcept {
    Unsigned value = 0;
    int current = c;  // a local copy, so that the loop keeps it in a register
    do {
        value = static_cast<Unsigned>(value * 10u + static_cast<unsigned>(current - '0'));
        current = Next();
    } while (IsDigit(current));
    c = current;
    return value;
}

inline bool KLexer::ReadSignedDigits(int& c, std::int32_t& value) noexcept {
    const bool negative = c == '-';
    if (negative) c = Next();
    if (!IsDigit(c)) return false;
    const std::uint32_t magnitude = ReadDigits<std::uint32_t>(c);
    value = static_cast<std::int32_t>(negative ? 0u - magnitude : magnitude);
    return true;
}

bool KLexer::ReadInteger(int& c, std::int32_t& value) noexcept {
    return SkipBlanks(c) && ReadSignedDigits(c, value);
}

bool KLexer::ReadRelative(int& c, std::int32_t& value) noexcept {
    if (!SkipBlanks(c)) return false;
    const bool difference = c == Format::kRelativePrefix;
    if (difference) c = Next();
    std::int32_t number = 0;
    if (!ReadSignedDigits(c, number)) return false;
    if (difference) {
        number = static_cast<std::int32_t>(static_cast<std::uint32_t>(lastRelative_) +
                                           static_cast<std::uint32_t>(number));
    }
    value = lastRelative_ = number;
    return true;
}

bool KLexer::ReadWide(int& c, std::int64_t& value) noexcept {
    if (!SkipBlanks(c)) return false;
    const bool negative = c == '-';
    if (negative) c = Next();
    if (!IsDigit(c)) return false;
    std::uint64_t magnitude = ReadDigits<std::uint64_t>(c);
    if (c == Format::kThousandsSuffix) {
        magnitude *= static_cast<std::uint64_t>(Format::kThousand);
        c = Next();
    }
    value = static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
    return true;
}

bool KLexer::ReadIndexList(int& c, Vector<std::int32_t>& list, std::size_t limit) {
    list.clear();
    while (SkipBlanks(c) && CanStartNumber(c)) {
        std::int32_t first = 0;
        if (!ReadRelative(c, first)) return false;
        if (c != Format::kRangeSeparator) {
            if (list.size() >= limit) return false;
            list.push_back(first);
            continue;
        }
        c = Next();
        std::int32_t last = 0;
        std::int32_t step = 1;
        if (!ReadRelative(c, last)) return false;
        if (c == Format::kStepSeparator) {
            c = Next();
            if (!ReadInteger(c, step) || step < 1) return false;
        }
        const std::uint64_t span = static_cast<std::uint64_t>(first >= last ? std::int64_t{first} - last : std::int64_t{last} - first);
        if (span / static_cast<std::uint64_t>(step) + 1 > limit - list.size()) return false;
        PushRange(list, first, last, step);
    }
    return true;
}

// ---- Words and strings -------------------------------------------------------------------------

template <class Stop>
int KLexer::AppendUntil(String& out, Stop stop) {
    for (;;) {
        const unsigned char* at = next_;
        while (at != end_ && !stop(*at)) ++at;
        // May throw std::bad_alloc; the buffer is then still where it was.
        out.append(reinterpret_cast<const char*>(next_), static_cast<std::size_t>(at - next_));
        if (at != end_) {
            next_ = at + 1;
            return *at;
        }
        next_ = at;
        if (!Refill()) return kEnd;
    }
}

bool KLexer::ReadWord(int& c, String& word) {
    word.clear();
    if (c == kEnd || IsSpace(c)) return false;
    word.push_back(static_cast<char>(c));
    c = AppendUntil(word, kEndsWord);
    return true;
}

bool KLexer::ReadQuoted(int& c, String& text) {
    for (;;) {
        c = AppendUntil(text, kEndsQuotedSpan);
        if (c == Format::kQuote) break;
        if (c == kEnd) return false;
        c = Next();  // the character after a backslash, taken as it is
        if (c == kEnd) return false;
        text.push_back(static_cast<char>(c));
    }
    c = Next();
    return true;
}

bool KLexer::ReadCharacterLiteral(int& c, String& text) {
    const int character = Next();
    if (character == kEnd) {
        c = kEnd;
        return false;
    }
    c = Next();
    if (c != kCharacterQuote) return false;
    const char literal[3] = {kCharacterQuote, static_cast<char>(character), kCharacterQuote};
    text.append(literal, 3);
    c = Next();
    return true;
}

bool KLexer::ReadString(int& c, String& text) {
    text.clear();
    if (!SkipBlanks(c)) return false;
    if (c == Format::kQuote) return ReadQuoted(c, text);
    if (c == kCharacterQuote) return ReadCharacterLiteral(c, text);
    if (kEndsBareString(static_cast<unsigned char>(c))) return false;
    text.push_back(static_cast<char>(c));
    c = AppendUntil(text, kEndsBareString);
    return true;
}

// ---- Names -------------------------------------------------------------------------------------

bool ReadName(KLexer& lexer, int& c, String& name, String& scratch) {
    if (!lexer.SkipBlanks(c)) return false;
    if (!KLexer::IsDigit(c)) {
        if (!lexer.ReadString(c, scratch)) return false;
        name.swap(scratch);
        return true;
    }
    std::int32_t keepFront = 0;
    std::int32_t keepBack = 0;
    if (!lexer.ReadInteger(c, keepFront) || !lexer.ReadInteger(c, keepBack)) return false;
    const auto size = static_cast<std::int64_t>(name.size());
    if (keepFront < 0 || keepBack < 0 || keepFront > size || keepBack > size) return false;
    if (!lexer.ReadString(c, scratch)) return false;
    const auto front = static_cast<std::size_t>(keepFront);
    const auto back = static_cast<std::size_t>(keepBack);
    scratch.insert(0, name, 0, front);
    scratch.append(name, name.size() - back, back);
    name.swap(scratch);
    return true;
}

}  // namespace Tarvel
