// The import's writer calls on a second thread. Tool layer.
#include "vcd_writer_pipe.h"

namespace TarvelTool {

VcdWriterPipe::VcdWriterPipe(Tarvel::ITarvelWrite& writer) : m_writer(writer), m_thread([this] { Run(); }) {
    m_batch.reserve(kBatchWords);
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
        m_batch = std::vector<std::uint64_t>();
        m_batch.reserve(kBatchWords);
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
        std::vector<std::uint64_t> batch;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return !m_queued.empty() || m_done; });
            if (m_queued.empty()) return;
            batch = std::move(m_queued.front());
            m_queued.pop_front();
        }
        if (!Failed() && !Make(batch)) m_failed.store(true, std::memory_order_relaxed);
        batch.clear();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_free.push_back(std::move(batch));
        m_changed.notify_all();
    }
}

bool VcdWriterPipe::Make(const std::vector<std::uint64_t>& batch) {
    unsigned char data[8];
    auto put = [&data](std::uint64_t value) {
        for (int i = 0; i < 8; ++i) data[i] = static_cast<unsigned char>(value >> (8 * i));
    };
    for (std::size_t at = 0; at < batch.size(); ++at) {
        const std::int32_t what = static_cast<std::int32_t>(static_cast<std::uint32_t>(batch[at] >> 32));
        const std::uint32_t argument = static_cast<std::uint32_t>(batch[at]);
        bool ok;
        if (what >= 0) {
            put(argument);
            ok = m_writer.StoreValue(what, data);
        } else {
            switch (what) {
                case kStoreWide: put(batch[++at]); ok = m_writer.StoreValue(static_cast<int>(argument), data); break;
                case kSetTime: ok = m_writer.SetTime(static_cast<Tarvel::int64>(batch[++at])); break;
                case kSetDelta: ok = m_writer.SetDelta(argument); break;
                case kFlush: ok = m_writer.Flush(); break;
                default: ok = m_writer.Commit() && m_writer.Resume(); break;
            }
        }
        if (!ok) return false;
    }
    return true;
}

}  // namespace TarvelTool
