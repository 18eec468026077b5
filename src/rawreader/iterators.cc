// The exported iterators of IRawTarvelRead: signal iterators share a counted cursor until one
// advances (then it takes a copy), property iterators own theirs. Raw reader layer; an iterator
// belongs to the thread that uses its reader.
#include "rawreader/raw_reader.h"

namespace Tarvel {
namespace {

void Release(SignalCursor*& cursor) {
    if (cursor && --cursor->count == 0) DestroyObject(cursor);
    cursor = nullptr;
}

}  // namespace

using SignalIterator = IRawTarvelRead::SignalIterator;
using PropertyIterator = IRawTarvelRead::PropertyIterator;

SignalIterator::SignalIterator() : m_cursor(nullptr) {}

SignalIterator::SignalIterator(const SignalIterator& other) : m_cursor(other.m_cursor) {
    if (m_cursor) ++m_cursor->count;
}

SignalIterator& SignalIterator::operator=(const SignalIterator& other) {
    if (other.m_cursor) ++other.m_cursor->count;
    Release(m_cursor);
    m_cursor = other.m_cursor;
    return *this;
}

SignalIterator::~SignalIterator() { Release(m_cursor); }

bool SignalIterator::operator==(const SignalIterator& other) const {
    if (!m_cursor || !other.m_cursor) return m_cursor == other.m_cursor;
    return m_cursor->reader == other.m_cursor->reader && m_cursor->index == other.m_cursor->index;
}

bool SignalIterator::operator<(const SignalIterator& other) const {
    if (!m_cursor) return false;
    if (!other.m_cursor) return true;
    if (m_cursor->reader != other.m_cursor->reader) return std::less<const void*>()(m_cursor->reader, other.m_cursor->reader);
    return m_cursor->index < other.m_cursor->index;
}

int SignalIterator::operator*() const { return GetSignalHandle(); }

int SignalIterator::GetSignalHandle() const {
    return m_cursor ? m_cursor->reader->HandleAt(static_cast<std::size_t>(m_cursor->index)) : -1;
}

int SignalIterator::GetSignalNr() const { return m_cursor ? m_cursor->index : -1; }

SignalIterator& SignalIterator::operator++() {
    if (!m_cursor) return *this;
    if (m_cursor->count > 1) {  // shared: advance a copy of our own
        SignalCursor* copy = NewObject<SignalCursor>(*m_cursor);
        copy->count = 1;
        --m_cursor->count;
        m_cursor = copy;
    }
    if (static_cast<std::size_t>(++m_cursor->index) >= m_cursor->reader->SignalCount()) Release(m_cursor);
    return *this;
}

SignalIterator SignalIterator::operator++(int) {
    SignalIterator old(*this);
    ++*this;
    return old;
}

SignalIterator& SignalIterator::operator+=(int steps) {
    for (int i = 0; i < steps && m_cursor; ++i) ++*this;
    return *this;
}

int SignalIterator::operator-(const SignalIterator& other) const {
    const KRawTarvelRead* reader = m_cursor ? m_cursor->reader : other.m_cursor ? other.m_cursor->reader : nullptr;
    if (!reader) return 0;
    const int end = static_cast<int>(reader->SignalCount());
    return (m_cursor ? m_cursor->index : end) - (other.m_cursor ? other.m_cursor->index : end);
}

PropertyIterator::PropertyIterator() : m_cursor(nullptr) {}

PropertyIterator::PropertyIterator(const PropertyIterator& other)
    : m_cursor(other.m_cursor ? NewObject<PropertyCursor>(*other.m_cursor) : nullptr) {}

PropertyIterator& PropertyIterator::operator=(const PropertyIterator& other) {
    if (this == &other) return *this;
    PropertyCursor* copy = other.m_cursor ? NewObject<PropertyCursor>(*other.m_cursor) : nullptr;
    DestroyObject(m_cursor);
    m_cursor = copy;
    return *this;
}

PropertyIterator::~PropertyIterator() { DestroyObject(m_cursor); }

bool PropertyIterator::operator==(const PropertyIterator& other) const {
    if (!m_cursor || !other.m_cursor) return m_cursor == other.m_cursor;
    return m_cursor->reader == other.m_cursor->reader && m_cursor->record == other.m_cursor->record &&
           m_cursor->signal == other.m_cursor->signal;
}

bool PropertyIterator::operator<(const PropertyIterator& other) const {
    if (!m_cursor) return false;
    if (!other.m_cursor) return true;
    if (m_cursor->reader != other.m_cursor->reader) return std::less<const void*>()(m_cursor->reader, other.m_cursor->reader);
    if (m_cursor->record != other.m_cursor->record) return m_cursor->record < other.m_cursor->record;
    return m_cursor->signal < other.m_cursor->signal;
}

const Property& PropertyIterator::operator*() const { return m_cursor->current; }

const Property* PropertyIterator::operator->() const { return &m_cursor->current; }

// Steps to the next signal of the line, then to the next line; iteration ends at a line
// without signals (see SeatProperty).
PropertyIterator& PropertyIterator::operator++() {
    if (!m_cursor) return *this;
    ++m_cursor->signal;
    if (!m_cursor->reader->SeatProperty(*m_cursor)) {
        DestroyObject(m_cursor);
        m_cursor = nullptr;
    }
    return *this;
}

PropertyIterator PropertyIterator::operator++(int) {
    PropertyIterator old(*this);
    ++*this;
    return old;
}

}  // namespace Tarvel
