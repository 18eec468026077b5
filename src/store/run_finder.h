// The pattern search shared by the coders of the store: it holds back the newest items, finds
// a pattern of 1 to 4 items that repeats, and hands the coder either literal items or a run
// (pattern, repetition count). Store layer; not thread-safe (owned by one coder).
//
// A run starts once the newest items repeat a pattern of length L at least kMinRepeats times
// and cover at least MinItems items; it then grows at the cost of one compare per item until an
// item breaks it. Literal items leave in batches when the window is full, so the per-item cost
// on literal data is a few compares and one store.
#ifndef TARVEL_STORE_RUN_FINDER_H
#define TARVEL_STORE_RUN_FINDER_H

#include <cassert>
#include <cstdint>

#include "tarvel/config.h"

namespace Tarvel {

inline constexpr unsigned kMaxRunPattern = 4;

// Sink: void Literals(const T* items, unsigned count); void Run(const T* pattern, unsigned
// length, std::uint64_t repetitions). Batch is the number of literal items handed over at once
// when the window is full.
template <class T, unsigned MinItems, unsigned Batch>
class RunFinder {
public:
    // Smallest multiple of L that is at least max(2L, MinItems): the tail that starts a run.
    static constexpr unsigned MinTail(unsigned length) {
        const unsigned need = MinItems > 2 * length ? MinItems : 2 * length;
        return (need + length - 1) / length * length;
    }
    static constexpr unsigned kKeep = MinTail(3) > MinTail(4) ? MinTail(3) : MinTail(4);
    static constexpr unsigned kCapacity = Batch + kKeep;
    // Most literal items a single Push or Flush can hand over in one Literals call.
    static constexpr unsigned kMaxLiteralBatch = kCapacity;

    // True when nothing is held back.
    bool Idle() const { return !m_inRun && m_count == 0; }
    // Items held back (not yet handed to the sink).
    std::uint64_t Held() const { return m_inRun ? m_repetitions * m_length + m_position : m_count; }

    template <class Sink>
    void Push(const T& item, Sink& sink) {
        if (m_inRun) {
            if (item == m_pattern[m_position]) {
                if (++m_position == m_length) {
                    m_position = 0;
                    ++m_repetitions;
                }
                return;
            }
            BreakRun(item, sink);
            return;
        }
        PushLiteral(item, sink);
    }

    // Hands over everything held back; the finder is idle afterwards.
    template <class Sink>
    void Flush(Sink& sink) {
        if (m_inRun) {
            sink.Run(m_pattern, m_length, m_repetitions);
            if (m_position > 0) sink.Literals(m_pattern, m_position);
            m_inRun = false;
            m_position = 0;
        } else if (m_count > 0) {
            sink.Literals(m_items, m_count);
        }
        Reset();
    }

    // The held-back item at `offset` from the first one held. REQUIRES: offset < Held().
    const T& HeldItem(std::uint64_t offset) const {
        assert(offset < Held());
        if (!m_inRun) return m_items[offset];
        const std::uint64_t inRun = m_repetitions * m_length;
        return offset < inRun ? m_pattern[offset % m_length] : m_pattern[offset - inRun];
    }

    // Visits what is held back in order, as the sink would receive it at Flush.
    template <class Sink>
    void Peek(Sink& sink) const {
        if (m_inRun) {
            sink.Run(m_pattern, m_length, m_repetitions);
            if (m_position > 0) sink.Literals(m_pattern, m_position);
        } else if (m_count > 0) {
            sink.Literals(m_items, m_count);
        }
    }

private:
    void Reset() {
        m_count = 0;
        for (unsigned& m : m_matches) m = 0;
    }

    template <class Sink>
    void BreakRun(const T& item, Sink& sink) {
        sink.Run(m_pattern, m_length, m_repetitions);
        m_inRun = false;
        T partial[kMaxRunPattern];
        const unsigned played = m_position;
        for (unsigned i = 0; i < played; ++i) partial[i] = m_pattern[i];
        m_position = 0;
        Reset();
        for (unsigned i = 0; i < played; ++i) PushLiteral(partial[i], sink);
        if (m_inRun) {
            Push(item, sink);
        } else {
            PushLiteral(item, sink);
        }
    }

    template <class Sink>
    void PushLiteral(const T& item, Sink& sink) {
        const unsigned n = m_count;
        // Irregular data: the item repeats none of the last four, so no period goes on.
        if (n >= kMaxRunPattern && item != m_items[n - 1] && item != m_items[n - 2] && item != m_items[n - 3] &&
            item != m_items[n - 4]) {
            for (unsigned& m : m_matches) m = 0;
            m_items[m_count++] = item;
            if (m_count == kCapacity) ShiftWindow(sink);
            return;
        }
        for (unsigned length = 1; length <= kMaxRunPattern; ++length) {
            unsigned& m = m_matches[length - 1];
            m = (n >= length && item == m_items[n - length]) ? m + 1 : 0;
        }
        m_items[m_count++] = item;
        for (unsigned length = 1; length <= kMaxRunPattern; ++length) {
            if (m_matches[length - 1] + length >= MinTail(length)) {
                StartRun(length, sink);
                return;
            }
        }
        if (m_count == kCapacity) ShiftWindow(sink);
    }

    // Hands the oldest Batch items over and keeps the newest kKeep for the search.
    template <class Sink>
    void ShiftWindow(Sink& sink) {
        sink.Literals(m_items, Batch);
        for (unsigned i = 0; i < kKeep; ++i) m_items[i] = m_items[Batch + i];
        m_count = kKeep;
    }

    template <class Sink>
    void StartRun(unsigned length, Sink& sink) {
        const unsigned tail = MinTail(length);
        const unsigned start = m_count - tail;
        if (start > 0) sink.Literals(m_items, start);
        for (unsigned i = 0; i < length; ++i) m_pattern[i] = m_items[start + i];
        m_length = length;
        m_repetitions = tail / length;
        m_position = 0;
        m_inRun = true;
        Reset();
    }

    // The fields every Push reads come first, so that a push touches the header's cache line and
    // the one or two lines of the newest items (the state of many stores is far out of cache).
    bool m_inRun = false;            // a run is being grown
    unsigned m_count = 0;            // literal items held
    unsigned m_length = 0;           // pattern length
    unsigned m_position = 0;         // items of the next repetition seen so far
    unsigned m_matches[kMaxRunPattern] = {};  // per L: newest items equal to the item L before
    std::uint64_t m_repetitions = 0; // whole repetitions of the run so far
    T m_pattern[kMaxRunPattern];     // the run's pattern
    T m_items[kCapacity];            // literal items held back, oldest first
};

}  // namespace Tarvel

#endif  // TARVEL_STORE_RUN_FINDER_H
