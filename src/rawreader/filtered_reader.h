// KRawFilteredTarvelRead: the reader of CreateFilteredRawTarvelRead, a KRawTarvelRead whose
// parse keeps only the selected signals (with the parts of selected buses and the parents of
// what it keeps). It owns the copy of the selection that its parses, Continue included, go by.
// Raw reader layer; one thread at a time.
#ifndef TARVEL_RAWREADER_FILTERED_READER_H
#define TARVEL_RAWREADER_FILTERED_READER_H

#include "rawreader/raw_reader.h"
#include "rawreader/selection.h"

namespace Tarvel {

class KRawFilteredTarvelRead final : public KRawTarvelRead {
public:
    KRawFilteredTarvelRead() { SetSelection(&m_selection); }
    KRawFilteredTarvelRead(const KRawFilteredTarvelRead&) = delete;
    KRawFilteredTarvelRead& operator=(const KRawFilteredTarvelRead&) = delete;

    // Takes the names of `selection` (null: none). REQUIRES: before Open. May throw
    // std::bad_alloc.
    void Select(const std::map<int, std::vector<char*>*>* selection) { m_selection.CopyNames(selection); }

    // The clean-up that DeleteRawTarvelRead hands a filtered reader to: closes the file and
    // destroys the reader.
    static void Delete(KRawFilteredTarvelRead* reader) noexcept {
        reader->CloseFile();
        DestroyObject(reader);
    }

private:
    KSelection m_selection;  // what the parses keep, and the declarations they set aside
};

}  // namespace Tarvel

#endif  // TARVEL_RAWREADER_FILTERED_READER_H
