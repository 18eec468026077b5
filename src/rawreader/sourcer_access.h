// The reader's side of KSourcer: entering source files and source points while a file is parsed.
// Raw reader layer, not exported. The same thread rules as KSourcer: one object is changed by one
// thread, while other objects sharing its table may be copied and dropped anywhere.
//
// Both entry points first make the object's table private when it is shared (count above 1), so
// that copies already handed out never change; that copy, and a new map entry, may throw
// std::bad_alloc, which leaves the object as it was.
#ifndef TARVEL_RAWREADER_SOURCER_ACCESS_H
#define TARVEL_RAWREADER_SOURCER_ACCESS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <tarvel/sourcer.h>

namespace Tarvel {

class KSourcerAccess {
public:
    // "$SEF": names the file `fileIndex`. A repeated index takes the later name.
    static void EnterFile(KSourcer& sourcer, std::int32_t fileIndex, std::string_view fileName);
    // "$SEL": source point `sourcePoint` is line `line` of file `fileIndex`. A repeated point
    // number takes the later file and line (the same rule as for files). The file need not be
    // known yet; the point translates once it is.
    static void EnterPoint(KSourcer& sourcer, std::int32_t sourcePoint, std::int32_t fileIndex,
                           std::int32_t line);
    // Number of KSourcer objects sharing the table of `sourcer` (for tests).
    static std::uint32_t ShareCount(const KSourcer& sourcer) noexcept;
    // Number of files in the table.
    static std::size_t FileCount(const KSourcer& sourcer) noexcept;

private:
    static void MakePrivate(KSourcer& sourcer);
};

}  // namespace Tarvel

#endif  // TARVEL_RAWREADER_SOURCER_ACCESS_H
