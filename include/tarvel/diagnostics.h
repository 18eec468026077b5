// Why a waveform file does not read, and where its read ends: DiagnoseTarvelFile. Public header;
// compiles as C++17 and later. Meant for tools (`tarvel check`, and any program that wants to
// tell its user more than "cannot read"): the readers themselves stay silent and answer null for
// a file they cannot read.
//
// Semantics. DiagnoseTarvelFile reads the file exactly as CreateRawTarvelRead does (the same
// parser, up to the same place) and reports the outcome: for a readable file, where the read
// ended (at the terminator, or at a commit mark where a writer resumed after its last commit);
// for an unreadable one, the place and the reason of the fault the parser stopped at. A file
// reads or not through both functions alike.
//
// Costs. As much as opening a raw reader (a whole parse, the events included), plus, for an
// unreadable file, one more pass over the bytes before the fault to count its lines. Nothing is
// kept: the reader is deleted before the function returns.
//
// Failures and threads. No exception leaves the function; nothing is printed. It may be called
// from any thread for distinct diagnoses.
#ifndef TARVEL_DIAGNOSTICS_H
#define TARVEL_DIAGNOSTICS_H

#include <tarvel/config.h>

namespace Tarvel {

// The outcome of DiagnoseTarvelFile.
struct TarvelDiagnosis {
    // True when CreateRawTarvelRead opens the file.
    bool readable;
    // The layout its header names: 4 ("$WAVE4", "$WAVE4TIMED"), 2 ("$WAVE2", "$WAVE3" and their
    // TIMED forms), 1 ("$WAVE"); 0 when no header was recognised.
    int version;
    // The header is a TIMED one.
    bool timed;
    // Readable files: true when the read ended at the terminator "$ENDWAVE" (the file stands as
    // its writer committed it last, and nothing was written after that commit), false when it
    // ended at a commit mark (a writer resumed after its last commit: it is still writing, or it
    // ended without committing again, and the file reads as of that commit). False otherwise.
    bool atTerminator;
    // Readable files: the place of the line where the read ended (the terminator or the commit
    // mark). Unreadable files: the place of the fault: the first byte that does not fit, the
    // start of a token that does not fit, or the end of the file when it ends too early. A byte
    // offset from 0, and its line and column, both from 1 (a column counts bytes); line and
    // column are 0 when the file cannot be opened.
    int64 offset;
    int64 line;
    int64 column;
    // Unreadable files: the reason, a short phrase without the place ("unknown keyword '$FOO'",
    // "number expected", "resolution must be above 0", "file ends inside a block", "cannot open
    // the file"); words quoted from the file are cut after 40 bytes, bytes outside printable
    // ASCII shown as \xNN. Readable files: "". NUL-terminated.
    char reason[160];
};

// Reads `fileName` as CreateRawTarvelRead does and fills *diagnosis (see above). Returns
// diagnosis->readable. REQUIRES: `diagnosis` is not null. A null `fileName` is a file that cannot
// be opened.
TARVEL_API bool DiagnoseTarvelFile(const char* fileName, TarvelDiagnosis* diagnosis);

}  // namespace Tarvel

#endif  // TARVEL_DIAGNOSTICS_H
