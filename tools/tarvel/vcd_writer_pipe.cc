// The import's writer calls on a second thread. Tool layer.
#include "vcd_writer_pipe.h"

namespace TarvelTool {

VcdWriterPipe::VcdWriterPipe(Tarvel::ITarvelWrite& writer) : m_writer(writer), m_thread([this] { Run(); }) {
    m_batch.reserve(kBatchCalls);
}

VcdWriterPipe::~VcdWriterPipe() {
    if (m_thread.joinable()) Finish();
}

void VcdWriterPipe::Send() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_queued.push_back(std::move(m_batch));
    m_changed.notify_all();
    if (m_free.empty() && m_made < kBatches) {
        ++m_made;
        m_batch = std::vector<Call>();
        m_batch.reserve(kBatchCalls);
        return;
    }
    m_changed.wait(lock, [this] { return !m_free.empty(); });
    m_batch = std::move(m_free.back());
    m_free.pop_back();
}

bool VcdWriterPipe::Finish() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queued.push_back(std::move(m_batch));
        m_done = true;
        m_changed.notify_all();
    }
    m_thread.join();
    m_batch.clear();
    return !Failed();
}

void VcdWriterPipe::Run() {
    while (true) {
        std::vector<Call> batch;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return !m_queued.empty() || m_done; });
            if (m_queued.empty()) return;
            batch = std::move(m_queued.front());
            m_queued.pop_front();
        }
        if (!Failed()) {
            for (const Call& call : batch) {
                if (!Make(call)) {
                    m_failed.store(true, std::memory_order_relaxed);
                    break;
                }
            }
        }
        batch.clear();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_free.push_back(std::move(batch));
        m_changed.notify_all();
    }
}

bool VcdWriterPipe::Make(const Call& call) {
    switch (call.what) {
        case kSetTime: return m_writer.SetTime(static_cast<Tarvel::int64>(call.value));
        case kSetDelta: return m_writer.SetDelta(static_cast<unsigned>(call.value));
        case kFlush: return m_writer.Flush();
        case kCommit: return m_writer.Commit() && m_writer.Resume();
        default: {
            unsigned char data[8];
            for (int i = 0; i < 8; ++i) data[i] = static_cast<unsigned char>(call.value >> (8 * i));
            return m_writer.StoreValue(static_cast<int>(call.what), data);
        }
    }
}

}  // namespace TarvelTool
