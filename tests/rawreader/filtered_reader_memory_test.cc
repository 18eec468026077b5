// Exhausted memory in the filtered reader and the listing: each allocation of the library's
// allocation path, and each of the standard allocators (which make the listing's records),
// failing in turn. The filtered factory gives null, the listing keeps the records made before,
// each complete, and nothing leaks (LeakSanitizer checks). This executable replaces the global
// operator new to fail on request; single-threaded.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "foundation/memory.h"
#include "foundation/test_heap.h"
#include "format/lexer_test_support.h"
#include "rawreader/random_design.h"

// GCC takes a replaced operator delete's free() for a mismatch with the operator new it inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {
int g_newCountdown = 0;  // while above 0: the allocation that brings it to 0 fails
}  // namespace

// Every form of the pair new/delete is replaced, so that each block meets its own.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return g_newCountdown > 0 && --g_newCountdown == 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void* operator new(std::size_t size) {
    void* block = operator new(size, std::nothrow);
    return block ? block : throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

namespace Tarvel::Testing {
namespace {

using Listing = std::unordered_map<int, std::vector<SIGINFO*>*>;

// The number of records of `part` when each is complete and each handle's records begin the
// whole listing's; -1 otherwise.
int RecordsOf(const Listing& part, const Listing& whole) {
    int records = 0;
    for (const auto& [handle, infos] : part) {
        if (!infos || infos->empty() || !whole.count(handle) || infos->size() > whole.at(handle)->size()) return -1;
        for (std::size_t i = 0; i < infos->size(); ++i, ++records) {
            const SIGINFO* info = (*infos)[i];
            if (!info || info->flag != 1 || !info->name || std::string(info->name) != (*whole.at(handle))[i]->name) return -1;
        }
    }
    return records;
}

TEST(FilteredReaderMemory, EachFailingAllocationGivesNullOrTheRecordsMadeBeforeWithoutLeaks) {
    ScratchFolder folder;
    const std::string path = folder.File("sample.twf");
    Listing whole;
    for (std::uint64_t seed = 1; whole.size() < 12; ++seed) {  // a design with scopes, buses, blocks
        DeleteRawTarvelPreRead(&whole);
        WriteDesign(seed, path);
        CreateRawTarvelPreRead(path.c_str(), &whole);
    }
    const int all = RecordsOf(whole, whole);
    std::map<int, std::vector<char*>*> selection;  // every other declaration, by its name
    std::vector<std::vector<char*>> names;
    names.reserve(whole.size());
    for (const auto& [handle, infos] : whole) {
        names.push_back({(*infos)[0]->name});
        if (names.size() % 2) selection[handle] = &names.back();
    }
    Reader unhindered(CreateFilteredRawTarvelRead(path.c_str(), &selection), DeleteRawTarvelRead);
    ASSERT_NE(unhindered, nullptr);
    const std::string expected = Dump(*unhindered);

    bool readerDone = false, listedOnLibrary = false, listedOnStandard = false;
    for (int n = 1; n < 20000 && !(readerDone && listedOnLibrary && listedOnStandard); ++n) {
        Reader reader(nullptr, DeleteRawTarvelRead);
        {
            TestHeap heap(static_cast<std::uint64_t>(n));
            if (!readerDone) reader.reset(CreateFilteredRawTarvelRead(path.c_str(), &selection));
        }
        const bool readerFailed = IsOutOfMemory();
        PrepareOutOfMemoryBuffer();
        Listing onLibrary, onStandard;
        {
            TestHeap heap(static_cast<std::uint64_t>(n));
            if (!listedOnLibrary) CreateRawTarvelPreRead(path.c_str(), &onLibrary);
        }
        const bool libraryFailed = IsOutOfMemory();
        PrepareOutOfMemoryBuffer();
        g_newCountdown = listedOnStandard ? 0 : n;
        if (!listedOnStandard) CreateRawTarvelPreRead(path.c_str(), &onStandard);
        const bool standardFailed = g_newCountdown == 0 && !listedOnStandard;
        g_newCountdown = 0;
        if (!readerDone) {
            ASSERT_EQ(reader != nullptr, !readerFailed) << "allocation " << n;
            EXPECT_EQ(reader ? Dump(*reader) : expected, expected) << "allocation " << n;
        }
        for (const auto& [listing, failed] : {std::pair{&onLibrary, libraryFailed}, std::pair{&onStandard, standardFailed}}) {
            const int records = RecordsOf(*listing, whole);
            EXPECT_TRUE(records >= 0 && (failed ? records <= all : records == all || listing->empty())) << "allocation " << n;
            DeleteRawTarvelPreRead(listing);
        }
        readerDone = readerDone || !readerFailed;
        listedOnLibrary = listedOnLibrary || !libraryFailed;
        listedOnStandard = listedOnStandard || !standardFailed;
    }
    EXPECT_TRUE(readerDone && listedOnLibrary && listedOnStandard);
    DeleteRawTarvelPreRead(&whole);
}

}  // namespace
}  // namespace Tarvel::Testing
