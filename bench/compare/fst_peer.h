// The FST peer of the comparison harness: a thin wrapper over the FST format's C API (writer with
// LZ4, block-iterating reader), compiled only when the build found that API's sources.
#ifndef TARVEL_BENCH_COMPARE_FST_PEER_H
#define TARVEL_BENCH_COMPARE_FST_PEER_H

#include <cstdint>

namespace compare {

class FstPeerWriter {
public:
    enum class VarKind { kBit, kInt32, kReal, kVector };
    // False when the file cannot be created.
    bool Create(const char* path, int timescaleExponent);
    void Scope(const char* name);
    void Upscope();
    // Declares a var (alias: the handle of the var it shares values with, or 0); answers its
    // handle (1, 2, ...).
    std::uint32_t Declare(const char* name, VarKind kind, std::uint32_t width, std::uint32_t alias = 0);
    void Time(std::uint64_t time);
    // A bit (0/1) or a number of `bits` bits.
    void Number(std::uint32_t handle, std::uint32_t bits, std::uint32_t value);
    // A bit or vector as characters (exactly its width of them), or a double's 8 bytes.
    void Raw(std::uint32_t handle, const void* value);
    void Close();

private:
    void* m_ctx = nullptr;
};

// Reads every value change of the file through the block iterator (reals as doubles), or only
// those of `onlyHandle` when it is not 0. Answers false when the file cannot be opened; counts
// the changes and folds their first value byte into *checksum.
bool FstPeerRead(const char* path, std::uint32_t onlyHandle, std::uint64_t* changes, std::uint64_t* checksum);

}  // namespace compare

#endif  // TARVEL_BENCH_COMPARE_FST_PEER_H
