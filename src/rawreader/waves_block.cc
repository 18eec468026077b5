// Event blocks: the time part (points, the time-point dictionary, runs), the value part (value
// text by the signals' type) and the source part, refilling the listed signals' stores through
// the direct stores; and, in a filtered parse, passing over the blocks of signals not kept. Raw
// reader layer; one thread at a time.
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "format/index_lists.h"
#include "format/numbers.h"
#include "format/records.h"
#include "format/strings.h"
#include "format/value_text.h"
#include "format/vocabulary.h"
#include "foundation/little_endian.h"
#include "foundation/platform.h"
#include "rawreader/raw_reader.h"
#include "store/store_access.h"

namespace Tarvel {

// A run record's pattern fills one of the reader's pattern arrays.
static_assert(Format::kMaxRunLength == static_cast<int>(kMaxPatternLength), "run patterns and cursor patterns differ");

namespace {

int64 WrapAdd(int64 a, int64 b) { return static_cast<int64>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b)); }

// Most entries a dictionary may hold: slots beyond it are malformed input, not a reason to
// allocate without end.
constexpr std::int32_t kMaxPointSlots = 1 << 20;
constexpr std::uint64_t kMaxEvents = 0x7FFFFFFF;

std::int64_t SourceEntries(const KEventsStore& store) {
    const KEventsStoreBody* body = StoreAccess::Body(store);
    return body->sources ? body->sources->Count() : 0;
}

}  // namespace

// The time part of one block going into one store: the block's steps count from time 0, so the
// first one is made relative to the store's last event; the absolute time is kept.
class KBlockSteps {
public:
    KBlockSteps(KEventsStore* store, int64 offset) {
        OpenDirectSteps(StoreAccess::BodySlot(*store), &m_state);
        // The refill's running time is the store's last time; the block's first step is taken
        // from time 0, so it starts from `offset` (the signal's last event) instead.
        m_state.time = offset;
        m_countBefore = m_state.count;
    }
    ~KBlockSteps() { CloseDirectSteps(m_state); }
    KBlockSteps(const KBlockSteps&) = delete;
    KBlockSteps& operator=(const KBlockSteps&) = delete;

    bool Step(const TimeDelta& step) {
        if (Events() >= kMaxEvents) return false;
        const int64 difference = m_first ? WrapAdd(step.difference, -m_state.time) : step.difference;
        m_first = false;
        AppendDirectStep(m_state, difference, step.delta);
        return true;
    }

    bool Repeat(unsigned length, std::uint64_t count, const TimeDelta* pattern) {
        if (count == 0) return true;
        if (m_first) {  // the first repetition carries the offset: played step by step
            for (unsigned i = 0; i < length; ++i) {
                if (!Step(pattern[i])) return false;
            }
            if (--count == 0) return true;
        }
        if (count > (kMaxEvents - Events()) / length) return false;
        std::pair<int64, int> steps[kMaxPatternLength];
        for (unsigned i = 0; i < length; ++i) steps[i] = {pattern[i].difference, static_cast<int>(pattern[i].delta)};
        return AppendDirectRepeat(m_state, static_cast<int>(length), static_cast<int64>(count), steps);
    }

    void End() { m_state.body->endTime = m_state.time; }
    // Absolute time of the block's last step.
    int64 Time() const { return m_state.time; }

private:
    std::uint64_t Events() const { return static_cast<std::uint32_t>(m_state.count - m_countBefore); }

    DirectStepsState m_state;  // the refill of the store's time steps; its time is absolute
    int m_countBefore = 0;     // events of the store before the block
    bool m_first = true;       // the next step is the block's first
};

// While a block is read into the store that all its listed signals share, the signals after the
// first hold the empty store; on leaving the scope (normally, by a failure or by an exception)
// each takes the first signal's store and last time again.
class KSharedBlockGuard {
public:
    KSharedBlockGuard(Vector<SignalEntry>& signals, const Vector<std::size_t>& entries) : m_signals(signals), m_entries(entries) {
        for (std::size_t i = 1; i < m_entries.size(); ++i) {
            if (m_entries[i] != m_entries[0]) m_signals[m_entries[i]].store = KEventsStore();
        }
    }
    ~KSharedBlockGuard() {
        const SignalEntry& first = m_signals[m_entries[0]];
        for (std::size_t i = 1; i < m_entries.size(); ++i) {
            m_signals[m_entries[i]].store = first.store;
            m_signals[m_entries[i]].lastTime = first.lastTime;
        }
    }
    KSharedBlockGuard(const KSharedBlockGuard&) = delete;
    KSharedBlockGuard& operator=(const KSharedBlockGuard&) = delete;

private:
    Vector<SignalEntry>& m_signals;
    const Vector<std::size_t>& m_entries;
};

// Forwards a store's emission into a KBlockSteps (appending one signal's block to another).
class KStepsForwarder final : public ITimeDeltaWriter {
public:
    explicit KStepsForwarder(KBlockSteps& steps) : m_steps(steps) {}
    bool pushTimeDelta(const int64& difference, int delta) override {
        return m_steps.Step(TimeDelta{difference, static_cast<std::uint32_t>(delta) & 0xFFFF});
    }
    bool pushRepeat(int length, const int64& count, const std::pair<int64, int>* steps) override {
        if (length < 1 || length > static_cast<int>(kMaxPatternLength) || count < 0) return false;
        TimeDelta pattern[kMaxPatternLength];
        for (int i = 0; i < length; ++i) pattern[i] = TimeDelta{steps[i].first, static_cast<std::uint32_t>(steps[i].second) & 0xFFFF};
        return m_steps.Repeat(static_cast<unsigned>(length), static_cast<std::uint64_t>(count), pattern);
    }
    bool pushEnd(const int64&) override { return true; }

private:
    KBlockSteps& m_steps;
};

void KRawTarvelRead::SizeStore(SignalEntry& entry) {
    if (entry.store.GetSize() != 0 || !entry.store.empty()) return;
    if (Format::HasValueText(entry.type)) entry.store.SetSize(static_cast<int>(entry.type.ValueSize()));
}

bool KRawTarvelRead::ExpectKeyword(int& c, std::string_view word) {
    c = m_lexer.Next();
    if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "$VALUES expected");
    if (m_word != word) return m_lexer.FailAfterToken(c, "$VALUES expected, not '%s'");
    return m_lexer.EndOfLine(c);
}

bool KRawTarvelRead::TooManyEvents() { return m_lexer.FailAt(m_lexer.Position(), "more events than one signal can hold"); }

bool KRawTarvelRead::BlockFailed() { return m_lexer.RefineEndFault("file ends inside a block"); }

// "$WAVES list": one block for all listed signals. Signals that hold the same events so far
// share the block's store; others get the block appended to what they have. A filtered parse
// reads the block for the listed signals it keeps, and passes over a block without any.
bool KRawTarvelRead::ParseWaves(int& c) {
    // Every listed signal must be declared: a list longer than the signals is damage.
    if (!Format::ReadIndexList(m_lexer, c, m_list, SignalBound()) || !m_lexer.EndOfLine(c)) return false;
    if (m_list.empty()) return m_lexer.FailAt(m_lexer.SavedPosition(), "$WAVES lists no signal");
    // Entry indexes, not pointers: the entries stay where they are while a block is read.
    Vector<std::size_t>& entries = m_blockEntries;
    entries.clear();
    for (std::int32_t handle : m_list) {
        const SignalEntry* entry = Find(handle);
        if (!entry || entry->ancestorOnly) {
            if (!m_selection) return m_lexer.FailAt(m_lexer.SavedPosition(), "$WAVES lists a signal that is not declared");
            continue;
        }
        entries.push_back(static_cast<std::size_t>(entry - m_signals.data()));
    }
    if (entries.empty()) return SkipBlock(c);
    SignalEntry* first = &m_signals[entries[0]];
    bool shared = true;
    for (std::size_t index : entries) {
        const SignalEntry& entry = m_signals[index];
        shared = shared && entry.store == first->store && entry.lastTime == first->lastTime;
    }
    if (shared) {
        // The other listed signals let go of the store while the block is appended to it, so
        // that the first signal holds its body alone and the direct stores append in place;
        // were they to keep it, every block would copy the whole store (a cost that grows with
        // the file). They take it back afterwards, also when the block fails or memory runs out:
        // then every listed signal holds the events read up to the failure.
        KSharedBlockGuard guard(m_signals, entries);
        return ParseBlockInto(c, *first, *first) || BlockFailed();
    }
    SignalEntry block;
    block.type = first->type;
    block.typeId = first->typeId;
    if (!ParseBlockInto(c, block, *first)) return BlockFailed();
    for (std::size_t index : entries) {
        SignalEntry& entry = m_signals[index];
        SizeStore(entry);
        const std::uint32_t before = entry.store.count();
        {
            KBlockSteps steps(&entry.store, entry.lastTime);
            KStepsForwarder forward(steps);
            if (!block.store.WriteTimeDelta(&forward)) return TooManyEvents();
            steps.End();
            entry.lastTime = steps.Time();
        }
        if (block.store.GetSize() != 0) {
            KDirectValueStore values(&entry.store);
            if (!block.store.WriteValue(&values)) return TooManyEvents();
        }
        if (block.store.Sources()) {
            KDirectSourceStore sources(&entry.store);
            const std::int64_t missing = static_cast<std::int64_t>(before) - SourceEntries(entry.store);
            const int zero = 0;
            if (missing > 0 && !sources.pushRepeatedSource(1, missing, &zero)) return TooManyEvents();
            if (!block.store.WriteSource(&sources)) return TooManyEvents();
        }
    }
    return true;
}

bool KRawTarvelRead::ParseBlockInto(int& c, SignalEntry& entry, const SignalEntry& typed) {
    SizeStore(entry);
    const std::uint32_t before = entry.store.count();
    {
        KBlockSteps steps(&entry.store, entry.store.empty() ? 0 : entry.lastTime);
        if (!ParseTimePart(c, steps)) return false;
        steps.End();
        entry.lastTime = steps.Time();
    }
    if (!ParseValuePart(c, entry.store, typed)) return false;
    if (m_word == Format::kEnd) return true;
    return ParseSourcePart(c, entry.store, before);
}

// The number of decimal digits at the start of the 8 bytes at `p`, and their value in *value;
// bytes of 0x80 and above count as non-digits. Branch-free, so the varying lengths of numbers
// cost no mispredicted jumps. REQUIRES: 8 bytes readable at `p`.
TARVEL_ALWAYS_INLINE unsigned LeadingDigits(const unsigned char* p, std::uint64_t* value) {
    const std::uint64_t word = LittleEndian::Load<std::uint64_t>(p);
    constexpr std::uint64_t kHigh = 0x8080808080808080ull;
    const std::uint64_t belowZero = ~((word | kHigh) - 0x3030303030303030ull);
    const std::uint64_t aboveNine = (word & ~kHigh) + 0x4646464646464646ull;
    const std::uint64_t nonDigit = (belowZero | aboveNine | word) & kHigh;
    const unsigned digits = nonDigit == 0 ? 8 : static_cast<unsigned>(__builtin_ctzll(nonDigit)) / 8;
    if (digits == 0) {
        *value = 0;
        return 0;
    }
    // The digits' values moved to the top bytes (leading zeros below), then combined in pairs,
    // fours and eights.
    std::uint64_t v = (word - 0x3030303030303030ull) << (8 * (8 - digits));
    v = (v * 10 + (v >> 8)) & 0x00FF00FF00FF00FFull;
    v = (v * 100 + (v >> 16)) & 0x0000FFFF0000FFFFull;
    v = (v * 10000 + (v >> 32)) & 0x00000000FFFFFFFFull;
    *value = v;
    return digits;
}

// The two most common time lines, "*k" and "T step" (with CR LF or LF), read in place from the
// lexer's buffer. Returns false when the line is of another form or not wholly in the buffer;
// nothing is consumed then.
TARVEL_ALWAYS_INLINE bool KRawTarvelRead::ReadShortPoint(TimeDelta* point) {
    const unsigned char* p = m_lexer.Cursor();
    if (m_lexer.BufferEnd() - p < 32) return false;
    const unsigned char lead = p[0];
    if (lead == Format::kPointKnown) {
        std::uint64_t slot = 0;
        const unsigned digits = LeadingDigits(p + 1, &slot);
        if (digits == 0 || digits == 8 || slot >= m_points.size()) return false;
        p += 1 + digits;
        *point = m_points[slot];
    } else if (lead == Format::kPointDeltaZero && p[1] == ' ') {
        std::uint64_t step = 0;
        const unsigned digits = LeadingDigits(p + 2, &step);
        if (digits == 0 || digits == 8) return false;  // no number, or one the general path reads
        p += 2 + digits;
        if (*p == Format::kThousandsSuffix) {
            step *= 1000;
            ++p;
        }
        *point = TimeDelta{static_cast<int64>(step), 0};
    } else {
        return false;
    }
    if (*p == '\r') ++p;
    if (*p != '\n') return false;
    m_lexer.Consume(p + 1);
    return true;
}

bool KRawTarvelRead::ParseTimePart(int& c, KBlockSteps& steps) {
    for (;;) {
        TimeDelta shortPoint;
        if (ReadShortPoint(&shortPoint)) {
            if (!steps.Step(shortPoint)) return TooManyEvents();
            continue;
        }
        c = m_lexer.Next();
        switch (c) {
            case Format::kPointDeltaZero:
            case Format::kPointWithDelta:
            case Format::kPointTaken:
            case Format::kPointKnown: {
                TimeDelta point;
                if (!ParsePoint(c, &point) || !m_lexer.EndOfLine(c)) return false;
                if (!steps.Step(point)) return TooManyEvents();
                break;
            }
            case Format::kRunLead: {
                c = m_lexer.Next();
                int length = 0;
                int64 count = 0;
                if (!Format::ReadRunHeader(m_lexer, c, length, count)) return false;
                TimeDelta pattern[kMaxPatternLength];
                for (int i = 0; i < length; ++i) {
                    if (!m_lexer.SkipBlanks(c)) return m_lexer.Fail(c, "time point expected");
                    if (!ParsePoint(c, &pattern[i])) return false;
                }
                if (!m_lexer.EndOfLine(c)) return false;
                if (!steps.Repeat(static_cast<unsigned>(length), static_cast<std::uint64_t>(count), pattern)) return TooManyEvents();
                break;
            }
            case Format::kCommentLead:
                if (!SkipLine(c)) return false;
                break;
            case Format::kKeywordLead: return ExpectKeyword(c, Format::kValues);
            default: return m_lexer.Fail(c, "time point expected, not '%s'");
        }
    }
}

// One time point: "T step", "D step delta", "=k " and a point (taken into slot k), or "*k".
bool KRawTarvelRead::ParsePoint(int& c, TimeDelta* point) {
    if (c == Format::kPointKnown || c == Format::kPointTaken) {
        const bool taken = c == Format::kPointTaken;
        c = m_lexer.Next();
        // Slot numbers are small: a plain digit loop (no sign, no blanks) with a length limit.
        if (!KLexer::IsDigit(c)) return m_lexer.Fail(c, "time-point slot number expected");
        std::int32_t slot = 0;
        do {
            slot = slot * 10 + (c - '0');
            if (slot >= kMaxPointSlots) return m_lexer.Fail(c, "time-point slot number too large");
            c = m_lexer.Next();
        } while (KLexer::IsDigit(c));
        if (!taken) {
            if (static_cast<std::size_t>(slot) >= m_points.size()) return m_lexer.FailAfterToken(c, "time-point slot '%s' is not defined");
            *point = m_points[static_cast<std::size_t>(slot)];
            return true;
        }
        if (!m_lexer.SkipBlanks(c) || (c != Format::kPointDeltaZero && c != Format::kPointWithDelta)) {
            return m_lexer.Fail(c, "time point expected after the slot");
        }
        if (!ParsePoint(c, point)) return false;
        if (static_cast<std::size_t>(slot) >= m_points.size()) m_points.resize(static_cast<std::size_t>(slot) + 1);
        m_points[static_cast<std::size_t>(slot)] = *point;
        return true;
    }
    const bool withDelta = c == Format::kPointWithDelta;
    if (!withDelta && c != Format::kPointDeltaZero) return m_lexer.Fail(c, "time point expected, not '%s'");
    c = m_lexer.Next();
    int64 step = 0;
    std::int32_t delta = 0;
    if (!Format::ReadWide(m_lexer, c, step)) return false;
    if (withDelta && !Format::ReadInteger(m_lexer, c, delta)) return false;
    *point = TimeDelta{step, static_cast<std::uint32_t>(delta) & 0xFFFF};
    return true;
}

namespace {

constexpr std::uint64_t kPowersOfTen[9] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};

// Per byte: its std_logic code when it is one of UX01ZWLH-, else -1.
constexpr std::array<std::int8_t, 256> MakeStdLogicCodes() {
    std::array<std::int8_t, 256> codes{};
    for (std::size_t i = 0; i < codes.size(); ++i) codes[i] = static_cast<std::int8_t>(Format::StdLogicCode(static_cast<char>(i)));
    return codes;
}
constexpr std::array<std::int8_t, 256> kStdLogicCodes = MakeStdLogicCodes();

}  // namespace

// The most common value lines, read in place from the lexer's buffer into `words` (at most
// `room`): a std_logic character, an integer ("-"? up to 15 digits) or a real number (digits,
// ".", "e", signs), each alone on its line with CR LF or LF. Stops at the first line of another
// form, of another type, or not wholly in the buffer; that line is left for the general path,
// which reads every form (and reports faults).
int KRawTarvelRead::ReadShortValues(const SignalEntry& typed, std::uint64_t* words, int room) {
    const unsigned char* p = m_lexer.Cursor();
    const unsigned char* const end = m_lexer.BufferEnd();
    int n = 0;
    if (typed.typeId == m_stdLogic && m_stdLogic >= 0) {
        while (n < room && end - p >= 4) {
            const int code = kStdLogicCodes[p[0]];
            const unsigned char* q = p + 1 + (p[1] == '\r');
            if (code < 0 || *q != '\n') break;
            words[n++] = static_cast<std::uint64_t>(code);
            p = q + 1;
        }
    } else if (typed.type.Kind() == kTypeInteger || typed.type.Kind() == kTypeLongInteger || typed.type.Kind() == kTypePhysical) {
        while (n < room && end - p >= 32) {
            const unsigned char* q = p;
            const bool negative = *q == '-';
            q += negative;
            std::uint64_t value = 0;
            unsigned digits = LeadingDigits(q, &value);
            if (digits == 0) break;
            if (digits == 8) {
                std::uint64_t low = 0;
                const unsigned more = LeadingDigits(q + 8, &low);
                if (more == 8) break;  // 16 digits or more: the general path wraps them around
                value = value * kPowersOfTen[more] + low;
                digits += more;
            }
            q += digits;
            q += *q == '\r';
            if (*q != '\n') break;
            words[n++] = negative ? 0 - value : value;
            p = q + 1;
        }
    } else if (typed.type.Kind() == kTypeFloat) {
        while (n < room && end - p >= 64) {
            const unsigned char* q = p;
            while (q < p + 40 && (KLexer::IsDigit(*q) || *q == '.' || *q == 'e' || *q == '-' || *q == '+')) ++q;
            const unsigned char* const token = q;
            q += *q == '\r';
            if (*q != '\n' || token == p || *p == '+') break;
            double value = 0;
            const auto read = std::from_chars(reinterpret_cast<const char*>(p), reinterpret_cast<const char*>(token), value);
            if (read.ec != std::errc() || read.ptr != reinterpret_cast<const char*>(token)) break;
            std::uint64_t raw;
            std::memcpy(&raw, &value, sizeof raw);
            words[n++] = raw;
            p = q + 1;
        }
    }
    m_lexer.Consume(p);
    return n;
}

bool KRawTarvelRead::ParseValuePart(int& c, KEventsStore& store, const SignalEntry& typed) {
    KDirectValueStore values(&store);
    unsigned char bytes[kMaxPatternLength][8];
    std::uint64_t words[256];
    for (;;) {
        for (int n; (n = ReadShortValues(typed, words, 256)) > 0;) AppendDirectValues(store, words, static_cast<std::size_t>(n));
        c = m_lexer.Next();
        if (c == Format::kKeywordLead) {
            c = m_lexer.Next();
            if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "$SOURCES or $END expected");
            if (m_word != Format::kSources && m_word != Format::kEnd) return m_lexer.FailAfterToken(c, "$SOURCES or $END expected, not '%s'");
            return m_lexer.EndOfLine(c);
        }
        if (c == Format::kCommentLead) {
            if (!SkipLine(c)) return false;
            continue;
        }
        if (c == Format::kRunLead || c == Format::kCountLead) {
            const int lead = c;
            c = m_lexer.Next();
            if (c == ' ' || c == '\t') {
                if (lead == Format::kCountLead) {
                    std::int32_t count = 0;
                    if (!Format::ReadCountRecord(m_lexer, c, count)) return false;
                    values.pushCount(count);
                    continue;
                }
                int length = 0;
                int64 count = 0;
                if (!Format::ReadRunHeader(m_lexer, c, length, count)) return false;
                const unsigned char* pointers[kMaxPatternLength];
                for (int i = 0; i < length; ++i) {
                    if (!m_lexer.SkipBlanks(c)) return m_lexer.Fail(c, "value expected");
                    if (!ParseValue(c, typed, bytes[i])) return false;
                    pointers[i] = bytes[i];
                }
                if (!m_lexer.EndOfLine(c)) return false;
                if (!values.pushRepeatedValue(length, count, pointers)) return TooManyEvents();
                continue;
            }
            // A value whose text starts with the letter of a record (an identifier literal).
            m_text.assign(1, static_cast<char>(lead));
            while (c != KLexer::kEnd && !KLexer::IsSpace(c)) {
                m_text.push_back(static_cast<char>(c));
                c = m_lexer.Next();
            }
            if (typed.type.Kind() != kTypeEnumeration || !typed.type.TextToValue(m_text.c_str(), bytes[0], 8)) {
                return m_lexer.FailAfterToken(c, Format::kNotALiteral);
            }
        } else if (!ParseValue(c, typed, bytes[0])) {
            return false;
        }
        if (!m_lexer.EndOfLine(c)) return false;
        values.pushValue(bytes[0]);
    }
}

// The value text at `c`, by the signal's type, into `bytes` (4 or 8 bytes, little-endian).
bool KRawTarvelRead::ParseValue(int& c, const SignalEntry& typed, unsigned char* bytes) {
    if (typed.typeId == m_stdLogic && m_stdLogic >= 0) return Format::ReadStdLogicText(m_lexer, c, bytes);
    return Format::ReadValueText(m_lexer, c, typed.type, bytes, m_text);
}

bool KRawTarvelRead::ParseSourcePart(int& c, KEventsStore& store, std::uint32_t eventsBefore) {
    KDirectSourceStore sources(&store);
    const std::int64_t missing = static_cast<std::int64_t>(eventsBefore) - SourceEntries(store);
    const int zero = 0;
    if (missing > 0 && !sources.pushRepeatedSource(1, missing, &zero)) return TooManyEvents();
    for (;;) {
        c = m_lexer.Next();
        if (c == Format::kKeywordLead) {
            c = m_lexer.Next();
            if (!m_lexer.ReadWord(c, m_word)) return m_lexer.Fail(c, "$END expected");
            if (m_word != Format::kEnd) return m_lexer.FailAfterToken(c, "$END expected, not '%s'");
            return m_lexer.EndOfLine(c);
        }
        if (c == Format::kCommentLead) {
            if (!SkipLine(c)) return false;
            continue;
        }
        if (c == Format::kCountLead) {
            c = m_lexer.Next();
            std::int32_t count = 0;  // a hint only
            if (!Format::ReadCountRecord(m_lexer, c, count)) return false;
            continue;
        }
        if (c == Format::kRunLead) {
            c = m_lexer.Next();
            int length = 0;
            int64 count = 0;
            int pattern[Format::kMaxRunLength];
            if (!Format::ReadRunHeader(m_lexer, c, length, count)) return false;
            for (int i = 0; i < length; ++i) {
                if (!Format::ReadInteger(m_lexer, c, pattern[i])) return false;
            }
            if (!m_lexer.EndOfLine(c)) return false;
            if (!sources.pushRepeatedSource(length, count, pattern)) return TooManyEvents();
            continue;
        }
        std::int32_t source = 0;
        if (!Format::ReadInteger(m_lexer, c, source) || !m_lexer.EndOfLine(c)) return false;
        sources.pushSource(source);
    }
}

}  // namespace Tarvel

namespace Tarvel {

// ---- Blocks of signals not kept -----------------------------------------------------------------
//
// A block none of whose signals a filtered parse keeps is passed over line by line without a
// store: the time part for the points it takes into the time-point dictionary ("=k", also
// inside run records), which later blocks may use; the value and source parts for their
// structure only. Lines are skipped whole where nothing in them can hold a line feed; a value
// that starts with a quote (a quoted string or a character literal) is read as a string.
//
// Speed: nearly every line of such a block is a time point ("*k", "T step") or a plain value,
// a handful of bytes. Those are passed over in place in the lexer's buffer, eight bytes at a
// time, until a line of another kind; the other kinds take the general path.

namespace {

constexpr std::uint64_t kOnes = 0x0101010101010101ull;
constexpr std::uint64_t kLows = 0x7F7F7F7F7F7F7F7Full;
constexpr std::uint64_t kHighs = 0x8080808080808080ull;

// The high bit of every byte of `word` that equals `ch`; exact (no borrow crosses bytes).
TARVEL_ALWAYS_INLINE std::uint64_t BytesEqual(std::uint64_t word, unsigned char ch) {
    const std::uint64_t x = word ^ (kOnes * ch);
    return ~(((x & kLows) + kLows) | x | kLows);
}

// Per part of a block: the high bit of every byte that, standing first on a line, makes a line
// the general path must read (`lf` holds the line feeds of `word`): in the time part anything
// but a point without a dictionary entry; in the value part a keyword line, a run record, a
// quoted value or an empty line; in the source part a keyword line or an empty line.
constexpr auto kTimePartStops = [](std::uint64_t word, std::uint64_t) {
    return ~(BytesEqual(word, Format::kPointKnown) | BytesEqual(word, Format::kPointDeltaZero) |
             BytesEqual(word, Format::kPointWithDelta)) &
           kHighs;
};
constexpr auto kValuePartStops = [](std::uint64_t word, std::uint64_t lf) {
    return BytesEqual(word, Format::kKeywordLead) | BytesEqual(word, Format::kRunLead) | BytesEqual(word, Format::kQuote) |
           BytesEqual(word, Format::kCharacterQuote) | lf;
};
constexpr auto kSourcePartStops = [](std::uint64_t word, std::uint64_t lf) { return BytesEqual(word, Format::kKeywordLead) | lf; };

}  // namespace

// Passes over whole lines in the lexer's buffer up to the first line that starts with a byte
// `stops` marks, or that may not lie wholly in the buffer. REQUIRES: the lexer stands at the
// start of a line. The words are examined independently of where lines end, so the work per
// byte does not wait on the line before.
template <class Stops>
TARVEL_ALWAYS_INLINE void KRawTarvelRead::SkipPlainLines(Stops stops) {
    const unsigned char* p = m_lexer.Cursor();
    const unsigned char* const end = m_lexer.BufferEnd();
    const unsigned char* start = p;  // every line before this one is whole and passed over
    std::uint64_t carry = 0x80;      // byte 0 of the word at p starts a line
    for (; end - p >= 8; p += 8) {
        const std::uint64_t word = LittleEndian::Load<std::uint64_t>(p);
        const std::uint64_t lf = BytesEqual(word, '\n');
        if ((lf | carry) == 0) continue;  // inside a long line
        const std::uint64_t stop = ((lf << 8) | carry) & stops(word, lf);
        if (stop != 0) {
            start = p + __builtin_ctzll(stop) / 8;
            break;
        }
        if (lf != 0) start = p + (63 - __builtin_clzll(lf)) / 8 + 1;
        carry = lf >> 56;
    }
    m_lexer.Consume(start);
}

bool KRawTarvelRead::SkipBlock(int& c) {
    if (!SkipTimePart(c) || !SkipValuePart(c)) return false;
    return m_word == Format::kEnd || SkipSourcePart(c);
}

bool KRawTarvelRead::SkipTimePart(int& c) {
    for (;;) {
        SkipPlainLines(kTimePartStops);
        c = m_lexer.Next();
        switch (c) {
            case Format::kPointDeltaZero:
            case Format::kPointWithDelta:
            case Format::kPointKnown:
            case Format::kCommentLead:
                if (!m_lexer.SkipLine(c)) return false;
                break;
            case Format::kPointTaken: {
                TimeDelta point;
                if (!ParsePoint(c, &point) || !m_lexer.EndOfLine(c)) return false;
                break;
            }
            case Format::kRunLead: {
                c = m_lexer.Next();
                int length = 0;
                int64 count = 0;
                if (!Format::ReadRunHeader(m_lexer, c, length, count)) return false;
                for (int i = 0; i < length; ++i) {
                    TimeDelta point;
                    if (!m_lexer.SkipBlanks(c) || !ParsePoint(c, &point)) return false;
                }
                if (!m_lexer.EndOfLine(c)) return false;
                break;
            }
            case Format::kKeywordLead: return ExpectKeyword(c, Format::kValues);
            default: return false;
        }
    }
}

// Leaves the closing word ("SOURCES" or "END") in m_word.
bool KRawTarvelRead::SkipValuePart(int& c) {
    for (;;) {
        SkipPlainLines(kValuePartStops);
        c = m_lexer.Next();
        switch (c) {
            case Format::kKeywordLead:
                c = m_lexer.Next();
                if (!m_lexer.ReadWord(c, m_word) || !m_lexer.EndOfLine(c)) return false;
                return m_word == Format::kSources || m_word == Format::kEnd;
            case Format::kQuote:
            case Format::kCharacterQuote:
                if (!Format::ReadString(m_lexer, c, m_text) || !m_lexer.EndOfLine(c)) return false;
                break;
            case Format::kRunLead: {
                c = m_lexer.Next();
                if (c != ' ' && c != '\t') {  // a value whose text starts with the letter
                    if (!m_lexer.SkipLine(c)) return false;
                    break;
                }
                int length = 0;
                int64 count = 0;
                if (!Format::ReadRunHeader(m_lexer, c, length, count)) return false;
                for (int i = 0; i < length; ++i) {
                    if (!Format::ReadString(m_lexer, c, m_text)) return false;
                }
                if (!m_lexer.EndOfLine(c)) return false;
                break;
            }
            default:  // a bare value, a count record, a comment
                if (!m_lexer.SkipLine(c)) return false;
                break;
        }
    }
}

bool KRawTarvelRead::SkipSourcePart(int& c) {
    for (;;) {
        SkipPlainLines(kSourcePartStops);
        c = m_lexer.Next();
        if (c == Format::kKeywordLead) {
            c = m_lexer.Next();
            return m_lexer.ReadWord(c, m_word) && m_word == Format::kEnd && m_lexer.EndOfLine(c);
        }
        if (!m_lexer.SkipLine(c)) return false;  // numbers only
    }
}

}  // namespace Tarvel
