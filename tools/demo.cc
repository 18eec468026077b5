// The demo job: fills events stores with a clock, the bits of a counter and random values,
// then prints their event counts, memory per event and a walk of their first events.
// Command-line tool; single-threaded.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "store/store_access.h"
#include "tarvel/tarvel.h"

namespace {

using Tarvel::KEventsStore;
using Tarvel::int64;

struct Signal {
    const char* name;
    KEventsStore store;
};

void PushU32(KEventsStore& store, int64 time, unsigned value) {
    unsigned char bytes[4] = {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
                              static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    store.push_back(time, 0, bytes);
}

void Report(const Signal& s, int show) {
    const double bytes = static_cast<double>(Tarvel::BodyMemoryBytes(*Tarvel::StoreAccess::Body(s.store)));
    std::printf("%-12s %10u events  %8.3f bytes/event  first events:", s.name, s.store.count(),
                s.store.count() ? bytes / s.store.count() : 0.0);
    Tarvel::KEventData data;
    bool ok = s.store.GetFirstEvent(&data);
    for (int i = 0; ok && i < show; ++i, ok = s.store.GetNextEvent(&data)) {
        unsigned char value[4] = {};
        data.GetValue(value, 4);
        std::printf(" %lld:%u", static_cast<long long>(data.GetTime()), value[0] | value[1] << 8 | value[2] << 16 | value[3] << 24);
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    const int cycles = argc > 1 ? std::atoi(argv[1]) : 1000000;
    std::vector<Signal> signals;
    signals.push_back({"clock", {}});
    for (int bit = 0; bit < 4; ++bit) signals.push_back({bit == 0 ? "counter[0]" : bit == 1 ? "counter[1]" : bit == 2 ? "counter[2]" : "counter[3]", {}});
    signals.push_back({"random8", {}});
    signals.push_back({"random32", {}});
    for (Signal& s : signals) s.store.SetSize(s.name[1] == 'a' && s.name[6] == '3' ? 4 : 1);
    std::mt19937 rng(42);
    for (int c = 0; c < cycles; ++c) {
        const int64 time = int64{c} * 10;
        PushU32(signals[0].store, time, 3);
        PushU32(signals[0].store, time + 5, 2);
        for (int bit = 0; bit < 4; ++bit) {
            if (((c >> bit) & 1) != (((c - 1) >> bit) & 1) || c == 0) PushU32(signals[1 + bit].store, time, 2 + ((c >> bit) & 1));
        }
        if (rng() % 4 == 0) PushU32(signals[5].store, time, rng() % 9);
        PushU32(signals[6].store, time, static_cast<unsigned>(rng()));
    }
    for (Signal& s : signals) s.store.push_end(int64{cycles} * 10, 0);
    std::printf("tarvel events-store demo: %d clock cycles\n", cycles);
    for (const Signal& s : signals) Report(s, 6);
    return 0;
}
