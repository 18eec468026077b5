// Example (docs/guide.md): follows a file while it grows. A writer stores a counter in rounds
// and commits after each; a reader opened after the first commit calls Continue and sees each
// round once it is committed, not when it is only flushed. Last, the writer resumes, writes and
// is released without a commit: readers keep the file as it was last committed. Writer and
// reader share one process here; they may as well be two. Uses the public headers only.
//
// Usage: follow_growing_file <file>
#include <tarvel/tarvel.h>

#include <cstdint>
#include <cstdio>

namespace {

using Tarvel::int64;
using Tarvel::IRawTarvelRead;
using Tarvel::ITarvelWrite;

enum Handle : int { kTop = 1, kCount = 2 };

// Stores `cycles` more values of the counter, one per 10 ns.
bool Round(ITarvelWrite& w, int* next, int cycles) {
    bool ok = true;
    for (int end = *next + cycles; ok && *next < end; ++*next) {
        const unsigned char value[4] = {static_cast<unsigned char>(*next), 0, 0, 0};  // little-endian
        ok = w.SetTime(int64{*next} * 10000) && w.StoreValue(kCount, value);
    }
    return ok;
}

// What the reader holds now. Store pointers may move when the reader reads on: fetch them anew.
void Show(IRawTarvelRead& r, const char* moment) {
    std::printf("%-38s %u values of count, end time %lld\n", moment, r.GetSignalData(kCount)->count(),
                static_cast<long long>(r.GetEndTime()));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: follow_growing_file <file>\n");
        return 2;
    }
    const char* path = argv[1];
    ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path);
    int next = 0;
    bool ok = w && w->StoreSignal(kTop, Tarvel::kPortNone, -1, 0, "top", 0) && w->SetTypeInfo(kCount, "i#7#integer") &&
              w->StoreSignal(kCount, Tarvel::kPortOut, kTop, 0, "count", 0) && Round(*w, &next, 5) && w->Flush();
    if (!ok) return 1;
    IRawTarvelRead* r = Tarvel::CreateRawTarvelRead(path);
    std::printf("flushed, never committed: %s\n", r ? "readable" : "no reader opens the file");
    if (r) return 1;  // cannot be: a file never committed has no terminator
    r = w->Commit() ? Tarvel::CreateRawTarvelRead(path) : nullptr;
    if (!r) return 1;
    Show(*r, "opened after commit 1:");
    for (int round = 2; ok && round <= 3; ++round) {
        // After a commit, Resume before anything more goes into the file.
        ok = w->Resume() && Round(*w, &next, 5) && w->Flush() && r->Continue();
        if (ok) Show(*r, "round flushed, Continue:");
        ok = ok && w->Commit() && r->Continue();
        if (ok) Show(*r, round == 2 ? "round committed (commit 2), Continue:" : "round committed (commit 3), Continue:");
    }
    // The last Release flushes and closes but does not commit.
    ok = ok && w->Resume() && Round(*w, &next, 5) && w->Release() && r->Continue();
    if (ok) Show(*r, "released without commit, Continue:");
    Tarvel::DeleteRawTarvelRead(r);
    IRawTarvelRead* again = ok ? Tarvel::CreateRawTarvelRead(path) : nullptr;
    if (again) Show(*again, "a new reader:");
    Tarvel::DeleteRawTarvelRead(again);
    return again ? 0 : 1;
}
