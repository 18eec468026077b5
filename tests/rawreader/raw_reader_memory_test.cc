// Exhausted memory while a file is parsed: every allocation failing in turn gives a null reader,
// leaves nothing behind (LeakSanitizer checks), and a later parse with memory works again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "foundation/memory.h"
#include "foundation/platform.h"
#include "tarvel/tarvel.h"

namespace Tarvel {
namespace {

int GetSignalCount(IRawTarvelRead* reader) {
    int count = 0;
    for (auto it = reader->BeginSignals(); it != reader->EndSignals(); ++it) ++count;
    return count;
}

int g_countdown = -1;
void* FailingAllocate(std::size_t size) { return --g_countdown == 0 ? nullptr : std::malloc(size); }
void* FailingReallocate(void* block, std::size_t size) { return --g_countdown == 0 ? nullptr : std::realloc(block, size); }
void PlainFree(void* block) { std::free(block); }

// A small file with a bus, elements, properties, sources and several blocks.
std::string WriteSample() {
    const std::string path = (std::filesystem::temp_directory_path() / "tarvel_reader_memory.twf").string();
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str());
    const char* bit = "e#9#std_logicc9 UX01ZWLH-";
    w->SetTypeInfo(1, bit);
    w->StoreSignal(1, 1, -1, 0, "clk", 0);
    w->SetTypeInfo(2, "a#16#std_logic_vector[1d0]e#9#std_logicc9 UX01ZWLH-");
    w->StoreBus(2, 2, 0, -1, 0, "bus", 0);
    w->SetTypeInfo(3, bit);
    w->StoreSignal(3, 2, 2, 0, "bus", 0);
    w->SetTypeInfo(4, "i#7#integer");
    w->StoreSignal(4, 6, -1, 0, "count", 0);
    w->StoreProperty(0, 4, "Comment", "a counter");
    for (int t = 0; t < 300; ++t) {
        w->SetTime(t * 10);
        const unsigned v = 2 + (t & 1), n = static_cast<unsigned>(t * t);
        w->StoreValue(1, reinterpret_cast<const unsigned char*>(&v));
        if (t % 3 == 0) w->StoreValue(3, reinterpret_cast<const unsigned char*>(&v));
        w->StoreValue(4, reinterpret_cast<const unsigned char*>(&n));
        if (t % 100 == 99) w->Flush();
    }
    w->Commit();
    w->Release();
    return path;
}

TEST(RawReaderMemory, EveryFailingAllocationGivesANullReaderWithoutLeaks) {
    const std::string path = WriteSample();
    const Platform::HeapHooks failing{FailingAllocate, FailingReallocate, PlainFree};
    int failures = 0;
    for (int n = 1; n < 5000; ++n) {
        g_countdown = n;
        Platform::SetHeapHooks(&failing);
        IRawTarvelRead* reader = CreateRawTarvelRead(path.c_str());
        Platform::SetHeapHooks(nullptr);
        const bool failed = IsOutOfMemory();
        PrepareOutOfMemoryBuffer();
        if (!failed) {
            ASSERT_NE(reader, nullptr) << "allocation " << n;
            EXPECT_EQ(GetSignalCount(reader), 4);
            DeleteRawTarvelRead(reader);
            EXPECT_GT(failures, 20);
            std::remove(path.c_str());
            return;
        }
        EXPECT_EQ(reader, nullptr) << "allocation " << n;
        DeleteRawTarvelRead(reader);
        ++failures;
    }
    ADD_FAILURE() << "the parse never succeeded";
}

}  // namespace
}  // namespace Tarvel
