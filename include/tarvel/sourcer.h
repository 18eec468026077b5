// KSourcer: the source table of a waveform file, which turns the source point number stored with
// an event into a source file name and a line number. Public header of the raw reader; compiles
// as C++17 and later. Thread safety: see below.
//
// Semantics. A KSourcer is one pointer to a shared table: a map from file index to file name and
// a map from source point number to (file index, line). A reader fills its own table from the
// file's "$SEF" and "$SEL" lines and hands it out through IRawTarvelRead::GetSourcer(); callers
// keep copies of it.
//
//  - Copying by construction makes a deep copy: a new table of the caller's own.
//  - Copying by assignment shares the table: both objects refer to one table, and it lives until
//    the last object referring to it is destroyed or assigned another table.
//  - A table that an object has handed out (its share count above 1) never changes again: when
//    the reader enters another file or point, it first makes a private copy for itself. So a
//    KSourcer assigned from a reader keeps answering as the file stood at that moment.
//
// Ownership and lifetime. File-name pointers returned by Translate point into the table. They
// stay valid while some KSourcer refers to that table and the table does not change, that is:
// for a table held by a KSourcer of your own, as long as you keep it (without assigning to it);
// for the reader's own table (the reference GetSourcer() returns), until the reader reads on
// (Continue) or is deleted.
//
// Costs. Assignment and destruction: one atomic count operation (plus freeing the maps when the
// last reference goes). Copy construction copies both maps. Translate: two ordered-map lookups.
//
// Thread safety. Objects sharing one table may be copied, assigned and destroyed on different
// threads at the same time (the count is atomic), and const members may be called concurrently.
// One object must not be changed (assigned) on one thread while another thread uses it.
// Constructors may throw std::bad_alloc when memory is exhausted; no other member throws.
#ifndef TARVEL_SOURCER_H
#define TARVEL_SOURCER_H

#include <tarvel/config.h>

namespace Tarvel {

class TARVEL_API KSourcer {
public:
    // An empty table of its own: translates nothing, counts 0 points.
    KSourcer();
    // A deep copy of `other`'s table; later changes to either do not reach the other.
    KSourcer(const KSourcer& other);
    // Shares `other`'s table (the old table is released). Safe for self-assignment.
    KSourcer& operator=(const KSourcer& other) noexcept;
    // Releases the table; the last reference frees it.
    ~KSourcer();

    // Looks `sourcePoint` up and then its file index. When both are known, stores the file name
    // (a pointer into the table, see Lifetime above) and the line, and returns true; otherwise
    // returns false and leaves both outputs unchanged. Either output may be null when not wanted.
    bool Translate(int sourcePoint, const char** fileName, int* line) const;

    // The number of source points in the table.
    unsigned int GetSourcePointsCount() const;

private:
    friend class KSourcerAccess;  // the reader's entry points (not exported)
    struct Table;
    Table* m_table;  // never null
};

}  // namespace Tarvel

#endif  // TARVEL_SOURCER_H
