// Test helper of the Python module's tests: prints the merged event pass of the reader facade
// (CreateStreamRead2) over a file, one event per line: "HANDLE TIME DELTA VALUE", HANDLE the
// facade's (the signal's place in declaration order, from 0), the value as
// a hexadecimal number of the store's little-endian bytes. The tests compare tarvel's
// File.events() with it. Exit 1 when the file does not read.
//
// Usage: python_event_order FILE
#include <tarvel/reader.h>

#include <cinttypes>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: python_event_order FILE\n");
        return 2;
    }
    Tarvel::ITarvelRead* reader = Tarvel::CreateStreamRead2(argv[1]);
    if (!reader) return 1;
    for (int handle = reader->NextEvent(); handle != -1; handle = reader->NextEvent()) {
        unsigned char bytes[8] = {};
        reader->GetEventValue(bytes);
        std::uint64_t value = 0;
        for (int i = 7; i >= 0; --i) value = value << 8 | bytes[i];
        std::printf("%d %" PRId64 " %d %" PRIx64 "\n", handle, *reader->GetEventTime(), reader->GetEventDelta(), value);
    }
    reader->Release();
    return std::fflush(stdout) == 0 ? 0 : 1;
}
