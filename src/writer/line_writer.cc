// Field forms and line kinds of the waveform file. Writer layer (file format). Single-threaded:
// one line writer per writer.
#include "writer/line_writer.h"

#include <charconv>
#include <cstring>

#include "format/index_lists.h"
#include "format/names.h"
#include "format/numbers.h"
#include "format/records.h"
#include "format/strings.h"
#include "format/type_strings.h"
#include "format/vocabulary.h"

namespace Tarvel {

KLineWriter::KLineWriter(KOutputStream& stream, IErrorReport& reporter, bool timed) noexcept
    : m_stream(stream), m_reporter(reporter), m_timed(timed) {}

// ---- Fields ------------------------------------------------------------------------------------

bool KLineWriter::EndLine() { return m_stream.Write(Format::kLineEnd); }

bool KLineWriter::PutInteger(std::int32_t value) { return Format::PutInteger(m_stream, value); }

bool KLineWriter::PutWide(std::int64_t value) { return Format::PutWide(m_stream, value); }

bool KLineWriter::PutRelative(std::int32_t value) { return Format::PutRelative(m_stream, value, m_previousRelative); }

bool KLineWriter::PutEventTime(std::int64_t time) { return Format::PutEventTime(m_stream, time); }

bool KLineWriter::PutString(std::string_view text) { return Format::PutString(m_stream, text); }

bool KLineWriter::PutName(std::string_view name) { return Format::PutName(m_stream, name, m_previousName); }

bool KLineWriter::PutIndexList(const std::int32_t* values, std::size_t count) {
    switch (Format::PutIndexList(m_stream, values, count, m_previousRelative)) {
        case Format::ListWritten::kDone: return true;
        case Format::ListWritten::kDoubleIndex: return m_reporter.Error(Format::kMessageDoubleIndex);
        case Format::ListWritten::kWriteFailed: break;
    }
    return false;
}

// Formats the time point (step, delta) in its dictionary form into `out` (kPointRoom bytes) and
// returns where the text lies there; its end leaves at least two bytes of `out` free. One call
// per event of a block: the point is assembled here and goes to the stream in one write.
std::string_view KLineWriter::FormatTimePoint(std::int64_t step, int delta, char* out) {
    // The point in full: "T step" or "D step delta", built after room for "=slot ".
    char* const limit = out + kPointRoom - 2;
    char* const full = out + kSlotRoom;
    char* end = full;
    *end++ = delta == 0 ? Format::kPointDeltaZero : Format::kPointWithDelta;
    *end++ = ' ';
    end = Format::PutEventTimeText(step, end, limit);
    if (delta != 0) {
        *end++ = ' ';
        end = std::to_chars(end, limit, delta).ptr;
    }
    const std::size_t fullLength = static_cast<std::size_t>(end - full);
    const KTimePointDictionary::Use use = m_dictionary.Lookup(step, delta, fullLength);
    const bool keep = use.settled && delta == 0 && step >= 0 && step < kKeptSteps;
    if (use.slot < 0) {
        if (keep) KeepPointText(step, {full, fullLength});
        return {full, fullLength};
    }
    char* at = out;
    *at++ = use.taken ? Format::kPointTaken : Format::kPointKnown;
    at = std::to_chars(at, full, use.slot).ptr;
    if (keep) {
        // From now on the point is "*slot".
        out[0] = Format::kPointKnown;
        KeepPointText(step, {out, static_cast<std::size_t>(at - out)});
        out[0] = use.taken ? Format::kPointTaken : Format::kPointKnown;
    }
    if (!use.taken) return {out, static_cast<std::size_t>(at - out)};
    *at++ = ' ';
    std::memmove(at, full, fullLength);
    return {out, static_cast<std::size_t>(at - out) + fullLength};
}

void KLineWriter::KeepPointText(std::int64_t step, std::string_view text) noexcept {
    PointText& kept = m_pointTexts[step];
    if (text.size() > sizeof(kept.text)) return;
    std::memcpy(kept.text, text.data(), text.size());
    kept.length = static_cast<std::uint8_t>(text.size());
}

bool KLineWriter::PutTimePoint(std::int64_t step, int delta) {
    if (delta == 0 && step >= 0 && step < kKeptSteps && m_pointTexts[step].length != 0) {
        return m_stream.Write(m_pointTexts[step].text, m_pointTexts[step].length);
    }
    char text[kPointRoom];
    return m_stream.Write(FormatTimePoint(step, delta, text));
}

// ---- Header and declarations -----------------------------------------------------------------

bool KLineWriter::PutKeyword(std::string_view word) {
    return m_stream.Put(Format::kKeywordLead) && m_stream.Write(word);
}

bool KLineWriter::WriteKeywordLine(std::string_view word) { return PutKeyword(word) && EndLine(); }

bool KLineWriter::WriteHeader() {
    return m_stream.Write(m_timed ? Format::kHeaderTimed : Format::kHeaderUntimed) && EndLine();
}

bool KLineWriter::WriteResolution(std::int64_t resolution) {
    if (m_resolutionWritten) return resolution == m_resolution;
    m_resolutionWritten = true;
    m_resolution = resolution;
    return PutKeyword(Format::kResolution) && PutSpace() && PutWide(resolution) && EndLine();
}

bool KLineWriter::WriteTypeLine(std::int32_t typeIndex, std::string_view typeInfo) {
    return m_stream.Put(Format::kTypeLead) && PutSpace() && PutInteger(typeIndex) && PutSpace() &&
           Format::PutTypeString(m_stream, typeInfo) && EndLine();
}

bool KLineWriter::PutDeclarationFields(const DeclarationFields& fields) {
    if (!PutSpace() || !PutRelative(fields.handle)) return false;
    if (!PutSpace() || !PutInteger(fields.typeIndex)) return false;
    if (fields.hasExtra && !(PutSpace() && PutInteger(fields.extra))) return false;
    if (!PutSpace() || !PutName(fields.name)) return false;
    if (!fields.shortForm) {
        if (!PutSpace() || !PutInteger(fields.trailing[0]) || !PutSpace() || !PutInteger(fields.trailing[1])) {
            return false;
        }
        const bool writeTime = !m_timed && fields.time != m_lastDeclarationTime;
        m_lastDeclarationTime = fields.time;
        if (writeTime && !(PutSpace() && PutWide(fields.time))) return false;
    }
    return EndLine();
}

bool KLineWriter::WriteSignalDeclaration(const DeclarationFields& fields) {
    const std::string_view word = Format::ModeWordFor(fields.mode, false);
    if (word.empty()) return m_reporter.Error(Format::kMessageUnknownMode, fields.mode);
    return PutKeyword(word) && PutDeclarationFields(fields);
}

bool KLineWriter::WriteBusDeclaration(const DeclarationFields& fields) {
    const std::string_view word = Format::ModeWordFor(fields.mode, true);
    if (word.empty()) return m_reporter.Error(Format::kMessageUnknownMode, fields.mode);
    m_hasLastBus = true;
    m_lastBus = fields.handle;
    return PutKeyword(Format::kBus) && PutSpace() && m_stream.Write(word) && PutDeclarationFields(fields);
}

bool KLineWriter::WriteScalarElement(std::int32_t handle, std::int32_t value) {
    return m_stream.Put(Format::kScalarElementLead) && PutSpace() && PutRelative(handle) && PutSpace() &&
           PutInteger(value) && EndLine();
}

bool KLineWriter::WriteElementList(std::int32_t bus, const std::int32_t* handles, std::size_t count) {
    if (m_hasLastBus && bus == m_lastBus) {
        return PutKeyword(Format::kElementList) && PutIndexList(handles, count) && EndLine();
    }
    return PutKeyword(Format::kElementListOfBus) && PutSpace() && PutRelative(bus) &&
           PutIndexList(handles, count) && EndLine();
}

bool KLineWriter::WriteElementEnd(std::int32_t handle, std::int64_t time) {
    return PutKeyword(Format::kElementEnd) && PutSpace() && PutInteger(handle) && PutSpace() &&
           PutWide(time) && EndLine();
}

bool KLineWriter::WriteChild(std::int32_t first, std::int32_t second, std::int32_t third) {
    return PutKeyword(Format::kChild) && PutSpace() && PutRelative(first) && PutSpace() &&
           PutRelative(second) && PutSpace() && PutRelative(third) && EndLine();
}

bool KLineWriter::WriteProperty(std::int64_t time, const std::int32_t* handles, std::size_t count,
                                std::string_view name, std::string_view value) {
    return m_stream.Put(Format::kPropertyLead) && PutSpace() && PutWide(time) &&
           PutIndexList(handles, count) && PutSpace() && PutString(name) && PutSpace() &&
           PutString(value) && EndLine();
}

bool KLineWriter::WriteSourceFile(std::int32_t fileNumber, std::string_view fileName) {
    return PutKeyword(Format::kSourceFile) && PutSpace() && PutInteger(fileNumber) && PutSpace() &&
           PutString(fileName) && EndLine();
}

bool KLineWriter::WriteSourceLine(std::int32_t source, std::int32_t fileNumber, std::int32_t line) {
    return PutKeyword(Format::kSourceLine) && PutSpace() && PutInteger(source) && PutSpace() &&
           PutInteger(fileNumber) && PutSpace() && PutInteger(line) && EndLine();
}

// ---- Event blocks ------------------------------------------------------------------------------

bool KLineWriter::WriteWavesLine(const std::int32_t* handles, std::size_t count) {
    return PutKeyword(Format::kWaves) && PutIndexList(handles, count) && EndLine();
}

bool KLineWriter::WriteValuesLine() { return WriteKeywordLine(Format::kValues); }

bool KLineWriter::WriteSourcesLine() { return WriteKeywordLine(Format::kSources); }

bool KLineWriter::WriteEndLine() { return WriteKeywordLine(Format::kEnd); }

bool KLineWriter::WriteTimePointLine(std::int64_t step, int delta) {
    if (delta == 0 && step >= 0 && step < kKeptSteps) {
        const PointText& kept = m_pointTexts[step];
        if (kept.length != 0) {
            if (char* at = m_stream.Reserve(sizeof(PointText) + 2)) {
                std::memcpy(at, &kept, sizeof(PointText));
                at[kept.length] = Format::kLineEnd[0];
                at[kept.length + 1] = Format::kLineEnd[1];
                m_stream.Advance(kept.length + 2u);
                return true;
            }
        }
    }
    char text[kPointRoom];
    const std::string_view point = FormatTimePoint(step, delta, text);
    // The line end goes behind the point in the same buffer: one write per line.
    char* end = text + (point.data() - text) + point.size();
    end[0] = Format::kLineEnd[0];
    end[1] = Format::kLineEnd[1];
    return m_stream.Write(point.data(), point.size() + 2);
}

bool KLineWriter::BeginRun(int length, std::int64_t count) { return Format::PutRunHeader(m_stream, length, count); }

bool KLineWriter::WriteTimeRun(int length, std::int64_t count, const TimeStep* steps) {
    if (!BeginRun(length, count)) return false;
    for (int at = 0; at < length; ++at) {
        if (!PutSpace() || !PutTimePoint(steps[at].first, steps[at].second)) return false;
    }
    return EndLine();
}

bool KLineWriter::WriteCountLine(std::int32_t count) { return Format::PutCountRecord(m_stream, count) && EndLine(); }

bool KLineWriter::WriteSourceItemLine(std::int32_t source) { return PutInteger(source) && EndLine(); }

bool KLineWriter::WriteSourceRun(int length, std::int64_t count, const std::int32_t* sources) {
    if (!BeginRun(length, count)) return false;
    for (int at = 0; at < length; ++at) {
        if (!PutSpace() || !PutInteger(sources[at])) return false;
    }
    return EndLine();
}

// ---- End of a commit ---------------------------------------------------------------------------

bool KLineWriter::WriteEndTime(std::int64_t time) {
    m_lastEndTime = time;
    return PutKeyword(Format::kEndTime) && PutSpace() && PutWide(time) && EndLine();
}

bool KLineWriter::Commit(std::int64_t currentTime, FlushCallback flush) {
    if (m_timed && currentTime != m_lastEndTime && !WriteEndTime(currentTime)) return false;
    return m_stream.Commit(flush);
}

}  // namespace Tarvel
