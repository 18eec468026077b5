// Exhausted memory in the listing's records, which the standard allocators make: each of their
// requests failing in turn, the listing keeps the records made before, each complete, and nothing
// leaks (LeakSanitizer checks). The library's own allocation path is the out-of-memory sweep's.
// This executable replaces the global operator new to fail on request; single-threaded.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

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

TEST(FilteredReaderMemory, EachFailingStandardAllocationOfTheListingKeepsTheRecordsMadeBefore) {
    ScratchFolder folder;
    const std::string path = folder.File("sample.twf");
    Listing whole;
    for (std::uint64_t seed = 1; whole.size() < 12; ++seed) {  // a design with scopes, buses, blocks
        DeleteRawTarvelPreRead(&whole);
        WriteDesign(seed, path);
        CreateRawTarvelPreRead(path.c_str(), &whole);
    }
    const int all = RecordsOf(whole, whole);
    bool listed = false;
    for (int n = 1; n < 20000 && !listed; ++n) {
        Listing part;
        g_newCountdown = n;
        CreateRawTarvelPreRead(path.c_str(), &part);
        listed = g_newCountdown != 0;  // no request failed
        g_newCountdown = 0;
        const int records = RecordsOf(part, whole);
        EXPECT_TRUE(records >= 0 && (listed ? records == all : records <= all)) << "allocation " << n;
        DeleteRawTarvelPreRead(&part);
    }
    EXPECT_TRUE(listed);
    DeleteRawTarvelPreRead(&whole);
}

}  // namespace
}  // namespace Tarvel::Testing
