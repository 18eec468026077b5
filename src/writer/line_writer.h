// The line writer: every field form and every line kind of the waveform file, written through a
// KOutputStream. Writer layer (file format); the writer object drives it, the event-block writers
// and the value-text writer use its field members. One line writer belongs to one writer and is
// used from one thread at a time.
//
// Semantics. Fields are written without separators; line members put exactly one space between
// fields and end the line with CR LF. The state that spans lines lives here: the previous
// relative integer and the previous name (one each for the whole file, updated in the order
// lines are written), the last declaration time of an untimed file, the resolution written, the
// end time written last, the bus declared last, and the time-point dictionary.
//
// Failures. Every member returns false after the failure has been reported through the
// IErrorReport (stream failures by the stream; "Unknown mode %d" and "Double index in range"
// here). A line that fails part way is left as it is.
//
// Costs. Field members format into small stack buffers and append to the stream: no allocation,
// except the previous name's buffer growing to the longest name, and the time-point dictionary
// warming up.
#ifndef TARVEL_WRITER_LINE_WRITER_H
#define TARVEL_WRITER_LINE_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "foundation/memory.h"
#include "writer/error_report.h"
#include "writer/output_stream.h"
#include "writer/time_point_dictionary.h"

namespace Tarvel {

// The fields of a signal or bus declaration line, in the order they are written. Which values go
// into `extra` and `trailing` is the writer object's decision.
struct DeclarationFields {
    int mode = 0;               // port mode number (-1 only for buses)
    std::int32_t handle = 0;    // written as a relative integer
    std::int32_t typeIndex = 0; // plain integer
    bool hasExtra = false;      // write `extra` after the type index
    std::int32_t extra = 0;
    std::string_view name;      // written in the compressed name form
    bool shortForm = false;     // stop after the name
    std::int32_t trailing[2] = {0, 0};  // two plain integers after the name (long form)
    std::int64_t time = 0;      // untimed files: written after them when it differs from the
                                // time of the long-form declaration written before
};

// One step of a time-delta run: (time difference, delta).
using TimeStep = std::pair<std::int64_t, int>;

class KLineWriter {
public:
    // `stream` and `reporter` must outlive the line writer. `timed`: the file is a timed file.
    KLineWriter(KOutputStream& stream, IErrorReport& reporter, bool timed) noexcept;

    KOutputStream& Stream() noexcept { return m_stream; }
    // Time of the long-form declaration written last (0 before any).
    std::int64_t LastDeclarationTime() const noexcept { return m_lastDeclarationTime; }
    bool IsTimed() const noexcept { return m_timed; }

    // ---- Fields ----
    bool PutText(std::string_view text) { return m_stream.Write(text); }
    bool PutChar(char c) { return m_stream.Put(c); }
    bool PutSpace() { return m_stream.Put(' '); }
    bool EndLine();
    // Plain integer (32-bit) and wide integer (64-bit), decimal.
    bool PutInteger(std::int32_t value);
    bool PutWide(std::int64_t value);
    // Relative integer: v in full, or "+" and the difference to the previous relative value
    // when that is shorter; v becomes the previous relative value.
    bool PutRelative(std::int32_t value);
    // Event time: "0", the thousands followed by "k" for a non-zero multiple of 1000, or in full.
    bool PutEventTime(std::int64_t time);
    // String: bare when it is an identifier, otherwise quoted with '"' and '\' escaped.
    bool PutString(std::string_view text);
    // Name compressed against the previous name ("keepFront keepBack middle", or the string);
    // `name` becomes the previous name. May throw std::bad_alloc while the name buffer grows.
    bool PutName(std::string_view name);
    // Index list: " " before each item; items are relative integers, "first-last" for runs of 3
    // or more consecutive values (rising or falling), "first-last/step" for runs of 3 or more
    // evenly spaced values. An empty list writes nothing.
    bool PutIndexList(const std::int32_t* values, std::size_t count);
    // A time point: "T step" (delta 0) or "D step delta", as the dictionary says preceded by
    // "=slot " or replaced by "*slot".
    bool PutTimePoint(std::int64_t step, int delta);

    // ---- Header and declaration lines ----
    bool WriteHeader();                                   // "$WAVE4" or "$WAVE4TIMED"
    // "$RESOLUTION r" the first time; later: true without writing for the same value, false
    // without writing (and without a report) for another.
    bool WriteResolution(std::int64_t resolution);
    bool WriteTypeLine(std::int32_t typeIndex, std::string_view typeInfo);  // I index "info"
    bool WriteSignalDeclaration(const DeclarationFields& fields);           // $MODE ...
    bool WriteBusDeclaration(const DeclarationFields& fields);              // $BUS MODE ...
    bool WriteScalarElement(std::int32_t handle, std::int32_t value);       // S handle value
    // "$SC list" when `bus` is the bus declared last, otherwise "$SCBUS bus list".
    bool WriteElementList(std::int32_t bus, const std::int32_t* handles, std::size_t count);
    bool WriteElementEnd(std::int32_t handle, std::int64_t time);           // $ENDSC handle time
    // Forgets the bus declared last (after its element lines have been written).
    void ForgetLastBus() noexcept { m_hasLastBus = false; }
    bool WriteChild(std::int32_t first, std::int32_t second, std::int32_t third);
    // P time list name value
    bool WriteProperty(std::int64_t time, const std::int32_t* handles, std::size_t count,
                       std::string_view name, std::string_view value);
    bool WriteSourceFile(std::int32_t fileNumber, std::string_view fileName);  // $SEF
    bool WriteSourceLine(std::int32_t source, std::int32_t fileNumber, std::int32_t line);  // $SEL

    // ---- Event blocks ----
    bool WriteWavesLine(const std::int32_t* handles, std::size_t count);  // $WAVES list
    bool WriteValuesLine();   // $VALUES
    bool WriteSourcesLine();  // $SOURCES
    bool WriteEndLine();      // $END
    bool WriteTimePointLine(std::int64_t step, int delta);
    bool WriteTimeRun(int length, std::int64_t count, const TimeStep* steps);
    bool WriteCountLine(std::int32_t count);  // V count
    // "R length count": the caller puts each item after PutSpace, then EndLine.
    bool BeginRun(int length, std::int64_t count);
    bool WriteSourceItemLine(std::int32_t source);
    bool WriteSourceRun(int length, std::int64_t count, const std::int32_t* sources);

    // ---- End of a commit ----
    bool WriteEndTime(std::int64_t time);  // $ENDTIME time; remembers the time
    std::int64_t LastEndTime() const noexcept { return m_lastEndTime; }
    // The commit protocol: in a timed file first the end-time line when `currentTime` differs
    // from the end time written last, then KOutputStream::Commit.
    bool Commit(std::int64_t currentTime, FlushCallback flush);

private:
    bool PutKeyword(std::string_view word);  // "$" and the word
    bool WriteKeywordLine(std::string_view word);
    bool PutDeclarationFields(const DeclarationFields& fields);
    bool PutItem(std::int32_t first, std::int64_t last, std::int64_t step);
    // Room for "=slot ", "D ", a step with suffix, " ", a delta and a line end.
    static constexpr std::size_t kSlotRoom = 8;
    static constexpr std::size_t kPointRoom = kSlotRoom + 2 + 24 + 1 + 12 + 2;
    std::string_view FormatTimePoint(std::int64_t step, int delta, char* out);
    void KeepPointText(std::int64_t step, std::string_view text) noexcept;

    // The settled text of the points (step, 0) with small steps, which make most of the points
    // of event blocks: "*slot" or the point in full, or length 0 while not settled.
    struct PointText {
        char text[15];
        std::uint8_t length;
    };
    static_assert(sizeof(PointText) == 16, "copied as one block");
    static constexpr std::int64_t kKeptSteps = 4096;

    KOutputStream& m_stream;
    IErrorReport& m_reporter;
    const bool m_timed;                        // timed file: declarations carry no time
    std::int32_t m_previousRelative = 0;       // the previous relative integer of the file
    String m_previousName;                     // the previous name of a declaration line
    std::int64_t m_lastDeclarationTime = 0;    // time of the long-form declaration written last
    bool m_resolutionWritten = false;          // a "$RESOLUTION" line exists
    std::int64_t m_resolution = 0;             // ...with this value
    std::int64_t m_lastEndTime = 0;            // the end time written last
    bool m_hasLastBus = false;                 // m_lastBus holds the bus declared last
    std::int32_t m_lastBus = 0;
    KTimePointDictionary m_dictionary;         // time points of all event blocks of the file
    PointText m_pointTexts[kKeptSteps] = {};   // indexed by step
};

}  // namespace Tarvel

#endif  // TARVEL_WRITER_LINE_WRITER_H
