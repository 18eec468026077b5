// The writer object's life: factories, opening, the one failure reporter, reference counting and
// release, and the current time and delta. Declarations, values and flushing have files of their
// own (writer_declarations.cc, writer_values.cc, writer_flush.cc). Writer layer; one thread at a
// time (see the public header).
#include "writer/tarvel_write.h"

#include <cstdarg>
#include <cstdio>
#include <new>

#include "foundation/platform_file.h"

namespace Tarvel {
namespace {

ITarvelWrite* Create(const char* fileName, bool timed, const ISourceCallback* callback) {
    KTarvelWrite* writer = nullptr;
    try {
        writer = NewObject<KTarvelWrite>(fileName, timed, callback);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (!writer->Open()) {
        DestroyObject(writer);
        return nullptr;
    }
    return writer;
}

}  // namespace

HandleTable::~HandleTable() { Clear(); }

void HandleTable::Clear() noexcept {
    for (HandleEntry* page : m_pages) {
        if (!page) continue;
        for (int i = 0; i < kPageSize; ++i) page[i].~HandleEntry();
        Free(page);
    }
    Vector<HandleEntry*>().swap(m_pages);
}

HandleEntry& HandleTable::Make(int handle) {
    const std::size_t page = static_cast<std::size_t>(handle) >> kPageBits;
    if (page >= m_pages.size()) m_pages.resize(page + 1, nullptr);
    if (!m_pages[page]) {
        HandleEntry* entries = static_cast<HandleEntry*>(Allocate(sizeof(HandleEntry) * kPageSize));
        for (int i = 0; i < kPageSize; ++i) new (&entries[i]) HandleEntry();
        m_pages[page] = entries;
    }
    HandleEntry& entry = m_pages[page][handle & (kPageSize - 1)];
    entry.present = true;
    return entry;
}

KTarvelWrite::KTarvelWrite(const char* fileName, bool timed, const ISourceCallback* callback)
    : m_fileName(fileName ? fileName : ""),
      m_logName(m_fileName + ".log"),
      m_timed(timed),
      m_stream(*this),
      m_lines(m_stream, *this, timed),
      m_types(*this),
      m_callback(callback) {}

KTarvelWrite::~KTarvelWrite() = default;

bool KTarvelWrite::Open() {
    if (!m_stream.Open(m_fileName.c_str())) return false;
    return m_lines.WriteHeader() && m_stream.IsOpen();
}

// ---- Failures ---------------------------------------------------------------------------------

bool KTarvelWrite::Error(const char* format, ...) {
    if (m_failed) return false;
    m_failed = true;
    m_stage.Refuse();  // the staged fast path of StoreValue now finds no room and asks Guard
    m_stream.Close();
    if (format && *format) {
        std::va_list args;
        va_start(args, format);
        WriteLog(format, args);
        va_end(args);
    }
    return false;
}

// Writes the formatted message to the log, replacing an earlier log. A message longer than the
// stack buffer is formatted again on the heap, or cut when no memory is left.
void KTarvelWrite::WriteLog(const char* format, std::va_list args) noexcept {
    char text[512];
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(text, sizeof text, format, args);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof text) {
        Platform::WriteTextFile(m_logName.c_str(), text, static_cast<std::size_t>(length));
    } else if (length > 0) {
        try {
            String whole(static_cast<std::size_t>(length) + 1, '\0');
            std::vsnprintf(whole.data(), whole.size(), format, again);
            Platform::WriteTextFile(m_logName.c_str(), whole.data(), static_cast<std::size_t>(length));
        } catch (const std::bad_alloc&) {
            Platform::WriteTextFile(m_logName.c_str(), text, sizeof text - 1);
        }
    }
    va_end(again);
}

bool KTarvelWrite::WriteTypeLine(std::int32_t typeIndex, const char* typeInfo) {
    return m_lines.WriteTypeLine(typeIndex, typeInfo);
}

// ---- Life cycle -------------------------------------------------------------------------------

bool KTarvelWrite::AddRef() {
    ++m_references;
    return true;
}

bool KTarvelWrite::Release() {
    if (m_references > 1) {
        --m_references;
        return true;
    }
    m_references = 0;
    // The last release flushes and closes; it does not commit. A file that was never committed
    // therefore has no terminator (readers refuse it), and what was written after the last
    // commit stays behind that commit's mark: readers see the file as it was committed.
    const bool flushed = Flush();
    const bool closed = m_stream.Close();
    if (flushed && closed) {
        KTarvelWrite* self = this;
        DestroyObject(self);
        return true;
    }
    // The writer could not finish its file and stays (a later Release tries again); what it
    // holds beyond the object itself is given back now.
    GiveBackMemory();
    return false;
}

void KTarvelWrite::GiveBackMemory() noexcept {
    m_stage.FreeBuffers();
    m_handles.Clear();
    Vector<std::int32_t>().swap(m_changed);
    Map<std::int32_t, BusInfo>().swap(m_buses);
    Vector<std::pair<std::int32_t, std::int32_t>>().swap(m_pendingElements);
    Vector<std::pair<std::int32_t, int64>>().swap(m_pendingEnds);
    Vector<PendingProperty>().swap(m_pendingProperties);
    Map<String, std::size_t>().swap(m_pendingPropertyIndex);
    HashMap<int, int>().swap(m_sourceNumbers);
    Map<String, int>().swap(m_fileNumbers);
    m_pendingBus = -1;
    m_dirty = false;
}

bool KTarvelWrite::Begin() { return true; }

const char* KTarvelWrite::GetFileName() { return m_fileName.c_str(); }
// ---- Time -------------------------------------------------------------------------------------

bool KTarvelWrite::MoveTime(const int64& offset) {
    return Guard([&]() noexcept {
        if (offset < 0) return Error("Negative offset in MoveTime");
        if (offset > 0) {
            m_time += offset;
            m_delta = 0;
        }
        return true;
    });
}

bool KTarvelWrite::SetTime(const int64& time) {
    return Guard([&]() noexcept {
        if (time < m_time) return Error("SetTime tries to move back in time");
        if (time > m_time) {
            m_time = time;
            m_delta = 0;
        }
        return true;
    });
}

const int64& KTarvelWrite::GetTime() { return m_time; }

bool KTarvelWrite::SetDelta(unsigned delta) {
    return Guard([&]() noexcept {
        if (delta < m_delta) return Error("SetDelta tries to move back in time");
        m_delta = delta;
        return true;
    });
}

unsigned KTarvelWrite::GetDelta() { return m_delta; }
// ---- Factories --------------------------------------------------------------------------------

ITarvelWrite* CreateStreamWrite(const char* fileName) { return Create(fileName, false, nullptr); }

ITarvelWrite* CreateStreamWriteTimed(const char* fileName) { return Create(fileName, true, nullptr); }

ITarvelWrite* CreateStreamWriteTimed(const char* fileName, const ISourceCallback* callback) {
    return Create(fileName, true, callback);
}

}  // namespace Tarvel