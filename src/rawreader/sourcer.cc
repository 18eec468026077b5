// KSourcer, the shared source table, and the reader's entry points into it. Raw reader layer.
// The share count is atomic, so objects sharing a table may be copied and dropped on any thread;
// only a table whose count is 1 is ever changed.
#include <tarvel/sourcer.h>

#include <atomic>
#include <utility>

#include "foundation/memory.h"
#include "rawreader/sourcer_access.h"

namespace Tarvel {

struct KSourcer::Table {
    std::atomic<std::uint32_t> count{1};                           // objects referring to it
    Map<std::int32_t, String> files;                               // file index -> file name
    Map<std::int32_t, std::pair<std::int32_t, std::int32_t>> points;  // point -> (file, line)

    Table() = default;
    Table(const Table& other) : files(other.files), points(other.points) {}

    // Drops one reference; the last one frees the table. acq_rel: the last holder must see every
    // change made before the others let go.
    void Release() noexcept {
        if (count.fetch_sub(1, std::memory_order_acq_rel) == 1) DestroyObject(this);
    }
};

KSourcer::KSourcer() : m_table(NewObject<Table>()) {}

KSourcer::KSourcer(const KSourcer& other) : m_table(NewObject<Table>(*other.m_table)) {}

KSourcer& KSourcer::operator=(const KSourcer& other) noexcept {
    // Raising the other's count first keeps the table alive when both are the same.
    Table* shared = other.m_table;
    shared->count.fetch_add(1, std::memory_order_relaxed);
    m_table->Release();
    m_table = shared;
    return *this;
}

KSourcer::~KSourcer() { m_table->Release(); }

bool KSourcer::Translate(int sourcePoint, const char** fileName, int* line) const {
    const auto point = m_table->points.find(sourcePoint);
    if (point == m_table->points.end()) return false;
    const auto file = m_table->files.find(point->second.first);
    if (file == m_table->files.end()) return false;
    if (fileName != nullptr) *fileName = file->second.c_str();
    if (line != nullptr) *line = point->second.second;
    return true;
}

unsigned int KSourcer::GetSourcePointsCount() const {
    return static_cast<unsigned int>(m_table->points.size());
}

// ---- The reader's entry points -----------------------------------------------------------------

void KSourcerAccess::MakePrivate(KSourcer& sourcer) {
    if (sourcer.m_table->count.load(std::memory_order_acquire) == 1) return;
    KSourcer::Table* copy = NewObject<KSourcer::Table>(*sourcer.m_table);
    sourcer.m_table->Release();
    sourcer.m_table = copy;
}

void KSourcerAccess::EnterFile(KSourcer& sourcer, std::int32_t fileIndex, std::string_view fileName) {
    MakePrivate(sourcer);
    String name(fileName);  // made first, so that a failure leaves the map as it was
    sourcer.m_table->files.insert_or_assign(fileIndex, std::move(name));
}

void KSourcerAccess::EnterPoint(KSourcer& sourcer, std::int32_t sourcePoint, std::int32_t fileIndex,
                                std::int32_t line) {
    MakePrivate(sourcer);
    sourcer.m_table->points.insert_or_assign(sourcePoint, std::make_pair(fileIndex, line));
}

std::uint32_t KSourcerAccess::ShareCount(const KSourcer& sourcer) noexcept {
    return sourcer.m_table->count.load(std::memory_order_acquire);
}

std::size_t KSourcerAccess::FileCount(const KSourcer& sourcer) noexcept {
    return sourcer.m_table->files.size();
}

}  // namespace Tarvel
