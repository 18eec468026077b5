// Exhausted memory in the filtered reader and the listing: every allocation of the library's
// allocation path failing in turn, and every allocation of the standard allocators (which make
// the listing's records) failing in turn. The filtered factory gives null, the listing keeps
// the complete records made before the failure, and nothing leaks (LeakSanitizer checks). This
// executable replaces the global operator new to fail on request; single-threaded.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "foundation/memory.h"
#include "foundation/platform.h"
#include "format/lexer_test_support.h"
#include "rawreader/random_design.h"
#include "rawreader/selection_support.h"

// GCC takes a replaced operator delete's free() for a mismatch with the operator new it inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {

int g_newCountdown = 0;  // while above 0: the allocation that brings it to 0 fails

}  // namespace

// Every form that pairs with the plain operator delete is replaced, so that all of them meet.
void* operator new(std::size_t size) {
    if (g_newCountdown > 0 && --g_newCountdown == 0) throw std::bad_alloc();
    if (void* block = std::malloc(size == 0 ? 1 : size)) return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return operator new(size, std::nothrow); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

namespace Tarvel::Testing {
namespace {

int g_countdown = 0;
void* FailingAllocate(std::size_t size) { return --g_countdown == 0 ? nullptr : std::malloc(size); }
void* FailingReallocate(void* block, std::size_t size) { return --g_countdown == 0 ? nullptr : std::realloc(block, size); }
void PlainFree(void* block) { std::free(block); }
const Platform::HeapHooks kFailing{FailingAllocate, FailingReallocate, PlainFree};

// True when every record of `part` is complete and each handle's records begin the whole
// listing's records of that handle.
bool IsPartOf(const Listing& part, const Listing& whole) {
    for (const auto& [handle, records] : part) {
        const auto all = whole.find(handle);
        if (!records || records->empty() || all == whole.end() || records->size() > all->second->size()) return false;
        for (std::size_t i = 0; i < records->size(); ++i) {
            const SIGINFO* info = (*records)[i];
            if (!info || info->flag != 1 || !info->name || std::string(info->name) != (*all->second)[i]->name) return false;
        }
    }
    return true;
}

// A design with scopes, buses, elements and blocks (the first seed of a size that makes both
// loops below cover every kind of allocation without running long).
std::string WriteSample(const ScratchFolder& folder) {
    const std::string path = folder.File("sample.twf");
    for (std::uint64_t seed = 1;; ++seed) {
        WriteDesign(seed, path);
        Listing listing;
        CreateRawTarvelPreRead(path.c_str(), &listing);
        const std::size_t size = ReadBytes(path).size(), declared = listing.size();
        DeleteRawTarvelPreRead(&listing);
        if (declared >= 12 && size > 3000 && size < 8000) return path;
    }
}

TEST(FilteredReaderMemory, EveryFailingLibraryAllocationGivesNullOrAPartialListingWithoutLeaks) {
    ScratchFolder folder;
    const std::string path = WriteSample(folder);
    Listing whole;
    CreateRawTarvelPreRead(path.c_str(), &whole);
    Selection selection;  // every other declaration, by its name
    bool pick = true;
    for (const auto& [handle, records] : whole) {
        if ((pick = !pick)) selection.Add(handle, {(*records)[0]->name});
    }
    IRawTarvelRead* unhindered = CreateFilteredRawTarvelRead(path.c_str(), &selection.map);
    ASSERT_NE(unhindered, nullptr);
    const std::string expected = Dump(*unhindered);
    DeleteRawTarvelRead(unhindered);

    bool readerDone = false, listingDone = false;
    for (int n = 1; n < 20000 && !(readerDone && listingDone); ++n) {
        g_countdown = n;
        Platform::SetHeapHooks(&kFailing);
        IRawTarvelRead* reader = readerDone ? nullptr : CreateFilteredRawTarvelRead(path.c_str(), &selection.map);
        const bool readerFailed = IsOutOfMemory();
        PrepareOutOfMemoryBuffer();
        g_countdown = n;
        Listing part;
        if (!listingDone) CreateRawTarvelPreRead(path.c_str(), &part);
        const bool listingFailed = IsOutOfMemory();
        Platform::SetHeapHooks(nullptr);
        PrepareOutOfMemoryBuffer();
        if (!readerDone) {
            ASSERT_EQ(reader != nullptr, !readerFailed) << "allocation " << n;
            EXPECT_EQ(reader ? Dump(*reader) : expected, expected);
            DeleteRawTarvelRead(reader);
            readerDone = !readerFailed;
        }
        if (!listingDone) {
            EXPECT_TRUE(IsPartOf(part, whole)) << "allocation " << n;
            listingDone = !listingFailed;
            EXPECT_TRUE(!listingDone || part.size() == whole.size());
        }
        DeleteRawTarvelPreRead(&part);
    }
    EXPECT_TRUE(readerDone && listingDone);
    DeleteRawTarvelPreRead(&whole);
}

// The listing's vectors, records, names and map nodes come from the standard allocators: each
// failing in turn leaves the records made before it, complete, and no record half made.
TEST(FilteredReaderMemory, EveryFailingStandardAllocationLeavesTheRecordsMadeBefore) {
    ScratchFolder folder;
    const std::string path = WriteSample(folder);
    Listing whole;
    CreateRawTarvelPreRead(path.c_str(), &whole);
    int failures = 0;
    for (int n = 1; n < 20000; ++n) {
        Listing part;
        g_newCountdown = n;
        CreateRawTarvelPreRead(path.c_str(), &part);
        const bool failed = g_newCountdown == 0;
        g_newCountdown = 0;
        EXPECT_TRUE(IsPartOf(part, whole)) << "allocation " << n;
        const std::size_t listed = part.size();
        DeleteRawTarvelPreRead(&part);
        if (!failed) {
            EXPECT_EQ(listed, whole.size());
            EXPECT_GT(failures, 3 * static_cast<int>(whole.size()));  // a name, a record, a vector, a node each
            break;
        }
        ++failures;
    }
    DeleteRawTarvelPreRead(&whole);
}

}  // namespace
}  // namespace Tarvel::Testing
