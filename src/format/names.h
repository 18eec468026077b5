// The name field of signal and bus declarations, writing and reading side by side: a name is
// compressed against the name written before it (one previous name per file, updated by every
// name field in file order) as "keepFront keepBack middle", or written whole as a string.
// Format layer; thread-safe as its arguments are.
#ifndef TARVEL_FORMAT_NAMES_H
#define TARVEL_FORMAT_NAMES_H

#include <cstddef>
#include <string_view>

#include "foundation/memory.h"
#include "format/lexer.h"
#include "format/numbers.h"
#include "format/strings.h"

namespace Tarvel::Format {

// ---- Writing ----------------------------------------------------------------------------------

// How a name is written after `previous`: the common prefix `front` and suffix `back` that are
// kept (when their sum exceeds the name, the smaller one, or the suffix on a tie, becomes 0),
// the middle between them, and whether "front back middle" is shorter than the whole name.
struct NameCompression {
    std::size_t front;
    std::size_t back;
    std::string_view middle;  // a view of the name
    bool compressed;
};
NameCompression CompressName(std::string_view name, std::string_view previous) noexcept;

// Writes `name` compressed against `previous`, which then becomes `name`. May throw
// std::bad_alloc while `previous` grows.
template <class Sink>
bool PutName(Sink& out, std::string_view name, String& previous) {
    const NameCompression form = CompressName(name, previous);
    const NumberText front = DecimalText(static_cast<std::int64_t>(form.front));
    const NumberText back = DecimalText(static_cast<std::int64_t>(form.back));
    previous.assign(name);  // `form.middle` views the caller's text, not this copy
    if (!form.compressed) return PutString(out, name);
    return out.Write(front.View()) && out.Put(kFieldSeparator) && out.Write(back.View()) &&
           out.Put(kFieldSeparator) && PutString(out, form.middle);
}

// ---- Reading ----------------------------------------------------------------------------------

// Reads a name compressed against `name`, the previous name, which it replaces on success
// (unchanged on failure). A digit starts the compressed form "A B S": the first A characters of
// the previous name, then the string S, then its last B characters (the two parts are taken
// independently and may overlap); A or B negative or larger than the previous name fails.
// Anything else is a string holding the whole name. `scratch` is working space whose buffer is
// kept between calls, so that a run of declarations allocates only while names grow.
bool ReadName(KLexer& lexer, int& c, String& name, String& scratch);

}  // namespace Tarvel::Format

#endif  // TARVEL_FORMAT_NAMES_H
