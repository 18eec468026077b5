// The FST peer over the FST format's C API (see fst_peer.h).
#include "fst_peer.h"

#include <fstapi.h>

namespace compare {

bool FstPeerWriter::Create(const char* path, int timescaleExponent) {
    m_ctx = fstWriterCreate(path, 1);
    if (!m_ctx) return false;
    fstWriterSetPackType(m_ctx, FST_WR_PT_LZ4);
    fstWriterSetTimescale(m_ctx, timescaleExponent);
    return true;
}

void FstPeerWriter::Scope(const char* name) { fstWriterSetScope(m_ctx, FST_ST_VCD_MODULE, name, nullptr); }

void FstPeerWriter::Upscope() { fstWriterSetUpscope(m_ctx); }

std::uint32_t FstPeerWriter::Declare(const char* name, VarKind kind, std::uint32_t width, std::uint32_t alias) {
    const fstVarType type = kind == VarKind::kReal    ? FST_VT_VCD_REAL
                            : kind == VarKind::kInt32 ? FST_VT_VCD_INTEGER
                                                      : FST_VT_VCD_WIRE;
    if (kind == VarKind::kReal) width = 64;
    return fstWriterCreateVar(m_ctx, type, FST_VD_IMPLICIT, width, name, alias);
}

void FstPeerWriter::Time(std::uint64_t time) { fstWriterEmitTimeChange(m_ctx, time); }

void FstPeerWriter::Number(std::uint32_t handle, std::uint32_t bits, std::uint32_t value) {
    fstWriterEmitValueChange32(m_ctx, handle, bits, value);
}

void FstPeerWriter::Raw(std::uint32_t handle, const void* value) { fstWriterEmitValueChange(m_ctx, handle, value); }

void FstPeerWriter::Close() {
    if (m_ctx) fstWriterClose(m_ctx);
    m_ctx = nullptr;
}

namespace {

struct Tally {
    std::uint64_t changes = 0;
    std::uint64_t checksum = 0;
};

void OnChange(void* user, std::uint64_t time, fstHandle, const unsigned char* value) {
    Tally* t = static_cast<Tally*>(user);
    ++t->changes;
    t->checksum += time ^ value[0];
}

void OnChangeVarlen(void* user, std::uint64_t time, fstHandle handle, const unsigned char* value, std::uint32_t) {
    OnChange(user, time, handle, value);
}

}  // namespace

bool FstPeerRead(const char* path, std::uint32_t onlyHandle, std::uint64_t* changes, std::uint64_t* checksum) {
    void* ctx = fstReaderOpen(path);
    if (!ctx) return false;
    if (onlyHandle) {
        fstReaderClrFacProcessMaskAll(ctx);
        fstReaderSetFacProcessMask(ctx, onlyHandle);
    } else {
        fstReaderSetFacProcessMaskAll(ctx);
    }
    fstReaderIterBlocksSetNativeDoublesOnCallback(ctx, 1);
    Tally tally;
    fstReaderIterBlocks2(ctx, OnChange, OnChangeVarlen, &tally, nullptr);
    fstReaderClose(ctx);
    *changes = tally.changes;
    *checksum = tally.checksum;
    return true;
}

}  // namespace compare
