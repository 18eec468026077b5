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

KSourcer::KSourcer() : table_(NewObject<Table>()) {}

KSourcer::KSourcer(const KSourcer& other) : table_(NewObject<Table>(*other.table_)) {}

KSourcer& KSourcer::operator=(const KSourcer& other) noexcept {
    // Raising the other's count first keeps the table alive when both are the same.
    Table* shared = other.table_;
    shared->count.fetch_add(1, std::memory_order_relaxed);
    table_->Release();
    table_ = shared;
    return *this;
}

KSourcer::~KSourcer() { table_->Release(); }

bool KSourcer::Translate(int sourcePoint, const char** fileName, int* line) const {
    const auto point = table_->points.find(sourcePoint);
    if (point == table_->points.end()) return false;
    const auto file = table_->files.find(point->second.first);
    if (file == table_->files.end()) return false;
    if (fileName != nullptr) *fileName = file->second.c_str();
    if (line != nullptr) *line = point->second.second;
    return true;
}

unsigned int KSourcer::GetSourcePointsCount() const {
    return static_cast<unsigned int>(table_->points.size());
}

// ---- The reader's entry points -----------------------------------------------------------------

void KSourcerAccess::MakePrivate(KSourcer& sourcer) {
    if (sourcer.table_->count.load(std::memory_order_acquire) == 1) return;
    KSourcer::Table* copy = NewObject<KSourcer::Table>(*sourcer.table_);
    sourcer.table_->Release();
    sourcer.table_ = copy;
}

void KSourcerAccess::EnterFile(KSourcer& sourcer, std::int32_t fileIndex, std::string_view fileName) {
    MakePrivate(sourcer);
    String name(fileName);  // made first, so that a failure leaves the map as it was
    sourcer.table_->files.insert_or_assign(fileIndex, std::move(name));
}

void KSourcerAccess::EnterPoint(KSourcer& sourcer, std::int32_t sourcePoint, std::int32_t fileIndex,
                                std::int32_t line) {
    MakePrivate(sourcer);
    sourcer.table_->points.insert_or_assign(sourcePoint, std::make_pair(fileIndex, line));
}

std::uint32_t KSourcerAccess::ShareCount(const KSourcer& sourcer) noexcept {
    return sourcer.table_->count.load(std::memory_order_acquire);
}

std::size_t KSourcerAccess::FileCount(const KSourcer& sourcer) noexcept {
    return sourcer.table_->files.size();
}

}  // namespace Tarvel
