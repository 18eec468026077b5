// The import's writer calls, handed to a second thread in batches: the VCD is parsed on the
// calling thread while the writer codes and writes the values of the batches before, so that
// the import takes about the longer of the two instead of their sum. Tool layer. One thread
// makes the calls; the writer is used by the pipe's thread only, from construction to Finish.
#ifndef TARVEL_TOOLS_TARVEL_VCD_WRITER_PIPE_H
#define TARVEL_TOOLS_TARVEL_VCD_WRITER_PIPE_H

#include <tarvel/tarvel.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace TarvelTool {

class VcdWriterPipe {
public:
    // Words (8 bytes) per batch, and batches under way at most. A call takes one word (a value
    // of at most 32 bits, a delta, a flush, a commit) or two (an 8-byte value, a time).
    static constexpr std::size_t kBatchWords = std::size_t{1} << 15;
    static constexpr std::size_t kBatches = 4;

    // Starts the thread. REQUIRES: nothing else uses `writer` until Finish returns.
    explicit VcdWriterPipe(Tarvel::ITarvelWrite& writer);
    // Finishes, when Finish was not called.
    ~VcdWriterPipe();
    VcdWriterPipe(const VcdWriterPipe&) = delete;
    VcdWriterPipe& operator=(const VcdWriterPipe&) = delete;

    // The writer's calls of the same names, made later on the pipe's thread. StoreValue takes a
    // 4-byte value (std_logic codes, enumerations, 32-bit integers) as a number; StoreWideValue
    // an 8-byte one (reals, 64-bit integers). REQUIRES: handle >= 0.
    void StoreValue(int handle, std::uint32_t value) { Put(handle, value); }
    void StoreWideValue(int handle, std::uint64_t value) { Put(kStoreWide, static_cast<std::uint32_t>(handle), value); }
    void SetTime(Tarvel::int64 time) { Put(kSetTime, 0, static_cast<std::uint64_t>(time)); }
    void SetDelta(unsigned delta) { Put(kSetDelta, delta); }
    void Flush() { Put(kFlush, 0); }
    // Commit, then Resume; sent to the thread at once, so that readers see the commit soon.
    void CommitAndResume() {
        Put(kCommit, 0);
        Send();
    }

    // True once a call of the writer answered false (the calls after it were not made). Known
    // at the latest when the batch holding the call is done.
    bool Failed() const { return m_failed.load(std::memory_order_relaxed); }
    // Makes the calls still waiting and ends the thread; afterwards the caller may use the
    // writer again. True when every call answered true.
    bool Finish();

private:
    // A word: the operation (a handle for StoreValue) in the high 32 bits, a 32-bit argument
    // in the low ones; kStoreWide and kSetTime are followed by a word with the 64-bit argument.
    enum Operation : std::int32_t { kSetTime = -1, kSetDelta = -2, kFlush = -3, kCommit = -4, kStoreWide = -5 };
    static std::uint64_t Word(std::int32_t what, std::uint32_t argument) {
        return static_cast<std::uint64_t>(static_cast<std::uint32_t>(what)) << 32 | argument;
    }

    void Put(std::int32_t what, std::uint32_t argument) {
        if (m_batch.size() + 1 > kBatchWords) Send();
        m_batch.push_back(Word(what, argument));
    }
    void Put(std::int32_t what, std::uint32_t argument, std::uint64_t wide) {
        if (m_batch.size() + 2 > kBatchWords) Send();  // both words in one batch
        m_batch.push_back(Word(what, argument));
        m_batch.push_back(wide);
    }
    // Queues the batch being filled and takes a free one (waiting for one when all are used).
    void Send();
    void Run();
    // Makes the calls of a batch; false at the first that fails.
    bool Make(const std::vector<std::uint64_t>& batch);

    Tarvel::ITarvelWrite& m_writer;
    std::vector<std::uint64_t> m_batch;                 // being filled by the caller
    std::mutex m_mutex;                                 // guards the two lists and m_done
    std::condition_variable m_changed;                  // a batch was queued or freed, or m_done set
    std::deque<std::vector<std::uint64_t>> m_queued;    // full batches, oldest first
    std::vector<std::vector<std::uint64_t>> m_free;     // emptied batches for the caller
    std::size_t m_made = 1;                             // batches in existence (at most kBatches)
    bool m_done = false;                                // no more batches will come
    std::atomic<bool> m_failed{false};
    std::thread m_thread;
};

}  // namespace TarvelTool

#endif  // TARVEL_TOOLS_TARVEL_VCD_WRITER_PIPE_H
