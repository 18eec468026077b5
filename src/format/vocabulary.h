// The waveform file's vocabulary, shared by the writer, the readers and the tools: header and
// keyword words, the first characters of line kinds, port-mode words in both directions, the
// std_logic value characters, the rule that decides whether a string is written bare or quoted,
// and the writer's messages about the file. Format layer; constants and pure functions only:
// thread-safe.
//
// Keep every word of the file here, so that the code that writes a field and the code that
// reads it use one table and cannot drift apart. The fields themselves are in the other files of
// src/format/; docs/format.md describes the file line by line.
#ifndef TARVEL_FORMAT_VOCABULARY_H
#define TARVEL_FORMAT_VOCABULARY_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tarvel/writer.h"
#include "typeinfo/type_service.h"

namespace Tarvel::Format {

// ---- Line structure -----------------------------------------------------------------------

// Every line the writer produces ends with these two bytes; a reader accepts a bare LF too.
inline constexpr std::string_view kLineEnd = "\r\n";
// The one separator the writer puts between fields; a reader accepts runs of space, tab, CR.
inline constexpr char kFieldSeparator = ' ';

// First characters of line kinds.
inline constexpr char kKeywordLead = '$';
inline constexpr char kTypeLead = 'I';
inline constexpr char kScalarElementLead = 'S';
inline constexpr char kPropertyLead = 'P';
inline constexpr char kRunLead = 'R';
inline constexpr char kCountLead = 'V';
inline constexpr char kCommitMark = ':';  // the first byte of an overwritten terminator
inline constexpr char kCommentLead = ';';  // never written; the reader skips the line

// Time points inside an event block.
inline constexpr char kPointDeltaZero = 'T';  // "T step"
inline constexpr char kPointWithDelta = 'D';  // "D step delta"
inline constexpr char kPointTaken = '=';      // "=slot " before a point the dictionary takes
inline constexpr char kPointKnown = '*';      // "*slot" in place of a point already taken

// Field syntax.
inline constexpr char kRelativePrefix = '+';  // relative integer given as a difference
inline constexpr char kRangeSeparator = '-';  // "first-last" in index lists
inline constexpr char kStepSeparator = '/';   // "first-last/step"
inline constexpr char kThousandsSuffix = 'k';  // event times: the number times 1000
inline constexpr std::int64_t kThousand = 1000;
inline constexpr char kQuote = '"';
inline constexpr char kEscape = '\\';
inline constexpr char kCharacterQuote = '\'';  // a character literal: 'c'
inline constexpr std::string_view kNotANumber = "NaN";  // the value text of a NaN

// ---- Header and keyword lines --------------------------------------------------------------

// The header lines the writer produces.
inline constexpr std::string_view kHeaderUntimed = "$WAVE4";
inline constexpr std::string_view kHeaderTimed = "$WAVE4TIMED";

// Header words (after "$") the reader accepts, in the order it compares them.
struct HeaderWord {
    std::string_view word;
    int version;  // 1: oldest layout, 2: second and third generation, 4: current
    bool timed;
};
inline constexpr HeaderWord kHeaderWords[] = {
    {"WAVE2", 2, false}, {"WAVE3", 2, false}, {"WAVE2TIMED", 2, true}, {"WAVE3TIMED", 2, true},
    {"WAVE4", 4, false}, {"WAVE4TIMED", 4, true}, {"WAVE", 1, false},
};

// Keyword words, as they follow the "$".
inline constexpr std::string_view kResolution = "RESOLUTION";
inline constexpr std::string_view kBus = "BUS";
inline constexpr std::string_view kElementList = "SC";        // sub-elements of the last bus
inline constexpr std::string_view kElementListOfBus = "SCBUS";  // sub-elements of a named bus
inline constexpr std::string_view kElementEnd = "ENDSC";
inline constexpr std::string_view kChild = "CHILD";
inline constexpr std::string_view kSourceFile = "SEF";
inline constexpr std::string_view kSourceLine = "SEL";
inline constexpr std::string_view kWaves = "WAVES";
inline constexpr std::string_view kValues = "VALUES";
inline constexpr std::string_view kSources = "SOURCES";
inline constexpr std::string_view kEnd = "END";
inline constexpr std::string_view kEndTime = "ENDTIME";
inline constexpr std::string_view kTerminatorWord = "ENDWAVE";

// Words of the oldest layout ("$WAVE"), which stand at the start of a line without a "$".
inline constexpr std::string_view kOldSignal = "SIGNAL";  // a declaration, mode 6
inline constexpr std::string_view kOldEvents = "EVENTS";  // the events of one signal follow

// The terminator line as written, line end included. Its length is the room a commit mark
// leaves behind when the writer goes on over it.
inline constexpr std::string_view kTerminatorLine = "$ENDWAVE\r\n";

// Resolution a reader assumes when the file has no "$RESOLUTION" line.
inline constexpr std::int64_t kDefaultResolution = 1000;

// ---- Port modes ----------------------------------------------------------------------------

inline constexpr int kModeNone = 0;
inline constexpr int kModeIn = 1;
inline constexpr int kModeOut = 2;
inline constexpr int kModeInOut = 3;
inline constexpr int kModeBuffer = 4;
inline constexpr int kModeLinkage = 5;
inline constexpr int kModeSignal = 6;
inline constexpr int kModeVariable = 7;
inline constexpr int kModeVirtualBus = -1;  // only on bus lines

// The mode numbers are those of the public interface.
static_assert(kModeNone == kPortNone && kModeIn == kPortIn && kModeOut == kPortOut && kModeInOut == kPortInOut &&
                  kModeBuffer == kPortBuffer && kModeLinkage == kPortLinkage && kModeSignal == kPortSignal &&
                  kModeVariable == kPortVariable && kModeVirtualBus == kPortVirtualBus,
              "port modes of the file and of ITarvelWrite differ");

struct ModeWord {
    std::string_view word;
    int mode;
};

// Writer: the word for `mode`, or an empty view when the mode has no word in that position
// (the declaration is then refused with "Unknown mode %d"). "VBUS" exists only on bus lines.
constexpr std::string_view ModeWordFor(int mode, bool onBusLine) noexcept {
    constexpr std::string_view kWords[] = {"NOMODE", "IN",      "OUT", "INOUT",
                                           "BUFFER", "LINKAGE", "S",   "VARIABLE"};
    if (mode >= kModeNone && mode <= kModeVariable) return kWords[mode];
    if (mode == kModeVirtualBus && onBusLine) return "VBUS";
    return {};
}

// Reader: the words accepted after "$" (signal lines) or after "$BUS " (bus lines), compared
// exactly, in this order. "SIGNAL" is the long form of "S". "VBUS" only on version-4 bus lines.
inline constexpr ModeWord kReaderModeWords[] = {
    {"NOMODE", kModeNone}, {"INOUT", kModeInOut},     {"IN", kModeIn},
    {"OUT", kModeOut},     {"BUFFER", kModeBuffer},   {"LINKAGE", kModeLinkage},
    {"S", kModeSignal},    {"SIGNAL", kModeSignal},   {"VARIABLE", kModeVariable},
    {"VBUS", kModeVirtualBus},
};

// Reader: the mode for `word`; false when it is no mode word in that position.
constexpr bool ModeFromWord(std::string_view word, bool onVersion4BusLine, int* mode) noexcept {
    for (const ModeWord& entry : kReaderModeWords) {
        if (entry.word != word) continue;
        if (entry.mode == kModeVirtualBus && !onVersion4BusLine) return false;
        *mode = entry.mode;
        return true;
    }
    return false;
}

// ---- std_logic -----------------------------------------------------------------------------

// The nine std_logic values 0..8, one character each (the type service's); a larger code is
// written as '?', which reads back as code 9. The std_logic type texts and their test are the
// type layer's (kStdLogicTypeString, IsStdLogicTypeString).
inline constexpr std::string_view kStdLogicChars = Sorvat::kStdLogicCharacters;
inline constexpr char kStdLogicInvalid = '?';
inline constexpr int kStdLogicInvalidCode = 9;

constexpr char StdLogicChar(std::uint32_t code) noexcept {
    return code < kStdLogicChars.size() ? kStdLogicChars[code] : kStdLogicInvalid;
}

// The code of a std_logic character, or -1.
constexpr int StdLogicCode(char c) noexcept {
    const std::size_t at = kStdLogicChars.find(c);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// ---- Strings -------------------------------------------------------------------------------

// Letters, digits and underscore as the C locale's isalpha/isalnum see them (bytes of 0x80 and
// above are neither), without calling the locale-dependent functions.
constexpr bool IsIdentifierStart(char c) noexcept {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
constexpr bool IsIdentifierChar(char c) noexcept {
    return IsIdentifierStart(c) || (c >= '0' && c <= '9');
}

// True when `text` is written bare: not empty, an identifier start, then identifier characters.
// Anything else is written between double quotes with a backslash before every '"' and '\'.
// A bare string never starts with a digit or a sign, which tells it apart from a number.
constexpr bool IsBareIdentifier(std::string_view text) noexcept {
    if (text.empty() || !IsIdentifierStart(text.front())) return false;
    for (char c : text.substr(1)) {
        if (!IsIdentifierChar(c)) return false;
    }
    return true;
}

// True for the characters that take a backslash inside a quoted string.
constexpr bool NeedsEscape(char c) noexcept { return c == kQuote || c == kEscape; }

// ---- Messages ------------------------------------------------------------------------------

inline constexpr char kMessageCannotWrite[] = "Cannot write to output file";
inline constexpr char kMessageCannotOpen[] = "Cannot open output file";
inline constexpr char kMessageCannotWriteDisk[] = "Cannot write to disk";
inline constexpr char kMessagePreviousTell[] = "Previous ftell failed";
inline constexpr char kMessageUnknownMode[] = "Unknown mode %d";
inline constexpr char kMessageDoubleIndex[] = "Double index in range";

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_VOCABULARY_H
