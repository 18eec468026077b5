// The writer's staging log against its stores: the same calls give the same file whether values
// are staged and written straight from the log, staged and handed to the stores in small runs
// (a log that fills up many times per flush interval), or never staged.
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "format_test_support.h"
#include "tarvel/tarvel.h"
#include "writer/tarvel_write.h"

namespace Tarvel::Testing {
namespace {

const char* const kTypes[] = {
    "e#9#std_logicc9 UX01ZWLH-",
    "i#7#integer",
    "f#4#real",
    "r#6#packet2#4#addri#7#integer#4#dataa#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-",
};

// One writer call of a random script.
struct Call {
    enum Kind { kTime, kDelta, kValue, kFlush, kCommit } kind;
    std::int64_t number;   // time, delta or value
    int handle;
    int source;
};

std::vector<Call> MakeScript(std::uint64_t seed, int handles) {
    std::mt19937_64 rng(seed);
    std::vector<Call> calls;
    std::int64_t time = 0;
    unsigned delta = 0;
    std::vector<std::int64_t> last(static_cast<std::size_t>(handles), 0);
    for (int i = 0; i < 6000; ++i) {
        const unsigned pick = static_cast<unsigned>(rng() % 1000);
        if (pick < 60) {
            // Small steps, round thousands, and now and then a step beyond 32 bits.
            const std::int64_t step = pick < 3 ? std::int64_t{5} << 33 : pick < 20 ? 1000 * static_cast<std::int64_t>(rng() % 4)
                                                                        : static_cast<std::int64_t>(rng() % 700);
            time += step;
            if (step != 0) delta = 0;  // the same time keeps the delta
            calls.push_back({Call::kTime, time, 0, 0});
        } else if (pick < 75) {
            delta += pick < 62 ? 70000u : 1u + static_cast<unsigned>(rng() % 3);  // deltas above 16 bits too
            calls.push_back({Call::kDelta, delta, 0, 0});
        } else if (pick < 78) {
            calls.push_back({pick == 77 ? Call::kCommit : Call::kFlush, 0, 0, 0});
        } else {
            const int handle = static_cast<int>(rng() % static_cast<std::uint64_t>(handles));
            std::int64_t& value = last[static_cast<std::size_t>(handle)];
            switch (handle % 4) {
                case 0: value = handle % 8 == 0 ? 2 + (value == 2) : static_cast<std::int64_t>(rng() % 9); break;
                case 1: value = handle % 3 == 0 ? value + 1 : static_cast<std::int64_t>(rng() % 5) - 2; break;
                case 2: value = static_cast<std::int64_t>(rng()); break;  // all 64 bits of a real
                default: value = static_cast<std::int64_t>(rng()); break;
            }
            const int source = handle % 5 == 1 && rng() % 3 == 0 ? 1 + static_cast<int>(rng() % 60) : 0;
            calls.push_back({Call::kValue, value, handle, source});
        }
    }
    return calls;
}

std::string Write(const std::string& path, const std::vector<Call>& calls, int handles, std::uint32_t stageLimit) {
    Sources sources;
    ITarvelWrite* w = CreateStreamWriteTimed(path.c_str(), &sources);
    EXPECT_NE(w, nullptr);
    if (!w) return {};
    static_cast<KTarvelWrite*>(w)->SetStageLimit(stageLimit);
    for (int h = 0; h < handles; ++h) {
        EXPECT_TRUE(w->SetTypeInfo(h, kTypes[h % 4]));
        EXPECT_TRUE(w->StoreSignal(h, 1, -1, 0, ("s" + std::to_string(h)).c_str(), 0));
    }
    for (const Call& call : calls) {
        bool ok = true;
        switch (call.kind) {
            case Call::kTime: ok = w->SetTime(call.number); break;
            case Call::kDelta: ok = w->SetDelta(static_cast<unsigned>(call.number)); break;
            case Call::kFlush: ok = w->Flush(); break;
            case Call::kCommit: ok = w->Commit() && w->Resume(); break;
            case Call::kValue: {
                // Exactly the value's bytes: a record's are all zero.
                std::vector<unsigned char> bytes(static_cast<std::size_t>(w->GetValueSize(call.handle)));
                std::memcpy(bytes.data(), &call.number, bytes.size() < 8 ? bytes.size() : 8);
                ok = w->StoreValueWithSource(call.handle, bytes.data(), call.source);
                break;
            }
        }
        EXPECT_TRUE(ok) << "call kind " << call.kind << ": " << ReadBytes(path + ".log");
        if (!ok) break;
    }
    EXPECT_TRUE(w->Release());
    return ReadBytes(path);
}

TEST(Staging, StagedUnstagedAndOftenDrainedWritersWriteTheSameBytes) {
    ScratchFolder folder;
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const int handles = seed % 3 == 0 ? 3 : 40;
        const std::vector<Call> calls = MakeScript(seed, handles);
        const std::string staged = Write(folder.File("staged.twf"), calls, handles, EventStage::kCapacity);
        const std::string direct = Write(folder.File("direct.twf"), calls, handles, 0);
        const std::string drained = Write(folder.File("drained.twf"), calls, handles, 1 + static_cast<std::uint32_t>(seed % 7));
        ASSERT_GT(staged.size(), 1000u);
        EXPECT_TRUE(staged == direct) << "seed " << seed << ": staged and direct files differ";
        EXPECT_TRUE(staged == drained) << "seed " << seed << ": staged and drained files differ";
    }
}

}  // namespace
}  // namespace Tarvel::Testing
