// libFuzzer target for the type-information library: CheckTypeInfo, construction and every
// query of Sorvat::KTypeInfo, recursing into element and field types. Fuzz harness; one thread.
//
// Input: a type string, optionally followed by a NUL and extra bytes. The extra bytes serve as
// value bytes for GetValueString_OldFormatLen and as text for GetBytes_OldFormat. Every buffer
// handed to the library is allocated at its exact size, so that the sanitizer sees any read
// past a terminating NUL or past a value's last byte.
#include <sorvat/typeinfo.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Sorvat::KRange;
using Sorvat::KTypeInfo;

// A broken invariant is a bug of the library: stop with a crash that libFuzzer records.
#define FUZZ_CHECK(condition)                  \
    do {                                       \
        if (!(condition)) __builtin_trap();    \
    } while (false)

struct Input {
    std::string typeText;             // up to the first NUL
    std::vector<unsigned char> extra;  // after it
};

// A heap copy of `text` with its NUL and nothing after it.
std::unique_ptr<char[]> ExactCString(const std::string& text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

std::string ValueText(const KTypeInfo& info, const unsigned char* value) {
    char buffer[128];
    return info.GetValueString_OldFormatLen(buffer, sizeof buffer, value, 0, 0) ? std::string(buffer) : std::string();
}

// Non-scalar types have no value text and take no value from text.
void CheckNoValueText(const KTypeInfo& info, const Input& input) {
    unsigned char value[16] = {};
    char buffer[16];
    FUZZ_CHECK(!info.GetValueString_OldFormatLen(buffer, sizeof buffer, value, 0, 0) && buffer[0] == '\0');
    FUZZ_CHECK(!info.GetBytes_OldFormat(ExactCString(std::string(input.extra.begin(), input.extra.end())).get(),
                                        value, sizeof value));
    FUZZ_CHECK(!info.IsCharValue(value));
}

// Text of the value made of the extra bytes; when there is one, it must read back, and the
// buffer that holds exactly the text and its NUL must be enough while one byte less is not.
void CheckValueText(const KTypeInfo& info, const Input& input) {
    const auto size = std::size_t(info.GetSimpleSize_OldFormat());
    FUZZ_CHECK(size == 4 || size == 8);
    std::vector<unsigned char> value(size);
    std::copy_n(input.extra.begin(), std::min(size, input.extra.size()), value.begin());
    char buffer[128];
    const bool ok = info.GetValueString_OldFormatLen(buffer, sizeof buffer, value.data(), 0, 0);
    FUZZ_CHECK(!info.IsCharValue(value.data()) || (ok && std::strlen(buffer) == 1));
    FUZZ_CHECK(ok || info.GetKind() == Sorvat::kKindEnumeration);
    if (!ok) return;
    const std::string text(buffer);
    auto exact = std::make_unique<char[]>(text.size() + 1);
    FUZZ_CHECK(info.GetValueString_OldFormatLen(exact.get(), int(text.size()) + 1, value.data(), 0, 0));
    FUZZ_CHECK(!info.GetValueString_OldFormatLen(exact.get(), int(text.size()), value.data(), 0, 0));
    std::vector<unsigned char> bytes(size);
    const bool readBack = info.GetBytes_OldFormat(ExactCString(text).get(), bytes.data(), int(size));
    FUZZ_CHECK(readBack || info.GetKind() != Sorvat::kKindEnumeration);
    FUZZ_CHECK(!readBack || ValueText(info, bytes.data()) == text);
}

// The extra bytes read as text; a value they name must have a text that names the same value.
void CheckTextToBytes(const KTypeInfo& info, const Input& input) {
    const auto text = ExactCString(std::string(input.extra.begin(), input.extra.end()));
    const auto size = std::size_t(info.GetSimpleSize_OldFormat());
    std::vector<unsigned char> bytes(size);
    FUZZ_CHECK(!info.GetBytes_OldFormat(text.get(), bytes.data(), int(size) - 1));
    if (!info.GetBytes_OldFormat(text.get(), bytes.data(), int(size))) return;
    // The value must have a text; it may be empty (an identifier literal of length 0).
    char buffer[128];
    FUZZ_CHECK(info.GetValueString_OldFormatLen(buffer, sizeof buffer, bytes.data(), 0, 0));
    const std::string shown(buffer);
    if (info.GetKind() == Sorvat::kKindEnumeration) return;  // "'c'" and duplicates name one value twice
    std::vector<unsigned char> again(size);
    FUZZ_CHECK(info.GetBytes_OldFormat(shown.c_str(), again.data(), int(size)));
    FUZZ_CHECK(again == bytes);
}

void CheckArray(const KTypeInfo& info) {
    const int dimensions = info.GetNbOfDimensions();
    FUZZ_CHECK((dimensions > 0) == (info.GetKind() == Sorvat::kKindArray));
    if (dimensions == 0) return;
    std::vector<KRange> ranges(static_cast<std::size_t>(dimensions));
    FUZZ_CHECK(info.GetArrayDimensionRanges(ranges.data(), dimensions) == dimensions);
    FUZZ_CHECK(info.GetArrayDimensionRanges(nullptr, 0) == dimensions);
    std::int64_t elements = 1;
    for (const KRange& range : ranges) {
        const std::uint64_t length = (range.left >= range.right ? std::uint64_t(range.left) - std::uint64_t(range.right)
                                                                : std::uint64_t(range.right) - std::uint64_t(range.left)) + 1;
        FUZZ_CHECK(length != 0 && length <= std::uint64_t(INT64_MAX));
        FUZZ_CHECK(!__builtin_mul_overflow(elements, std::int64_t(length), &elements));
    }
    FUZZ_CHECK(elements == info.GetNbOfElements());
    std::int64_t size = 0;
    FUZZ_CHECK(!__builtin_mul_overflow(info.GetElementType().GetSimpleSize_OldFormat(), elements, &size));
    FUZZ_CHECK(size == info.GetSimpleSize_OldFormat());
}

void CheckRecord(const KTypeInfo& info) {
    std::int64_t total = 0;
    for (int field = 0; field < info.GetNbOfFields(); ++field) {
        FUZZ_CHECK(info.GetFieldName(field) != nullptr);
        total += info.GetFieldType(field).GetSimpleSize_OldFormat();
    }
    FUZZ_CHECK(info.GetKind() != Sorvat::kKindRecord || total == info.GetSimpleSize_OldFormat());
    FUZZ_CHECK(std::strcmp(info.GetFieldName(info.GetNbOfFields()), "") == 0);
    FUZZ_CHECK(!info.GetFieldType(-1).IsValid());
}

// Names of the first, middle and last children, and of the indices just outside.
void CheckChildNames(const KTypeInfo& info) {
    const std::int64_t count = info.GetNbOfChildren();
    // A field name is part of the string; an index list takes at most 21 bytes per dimension.
    std::vector<char> name(std::strlen(info.GetTypeInfoString()) + 22 * std::size_t(info.GetNbOfDimensions()) + 3);
    for (std::int64_t child : {std::int64_t(-1), std::int64_t(0), count / 2, count - 1, count}) {
        const bool inRange = child >= 0 && child < count;
        FUZZ_CHECK(info.GetChildName(child, name.data(), int(name.size())) == inRange);
        FUZZ_CHECK(info.GetChildType(child).IsValid() == inRange);
        if (inRange) FUZZ_CHECK(!info.GetChildName(child, name.data(), int(std::strlen(name.data()))));
    }
}

void Exercise(const KTypeInfo& info, const Input& input, int depth) {
    FUZZ_CHECK(info.IsValid() && depth <= KTypeInfo::kMaxNesting);
    FUZZ_CHECK(info.GetKind() >= 0 && info.GetKind() <= 9 && info.GetSimpleSize_OldFormat() >= 0);
    // The part of the string that a nested type covers is a whole type of its own.
    FUZZ_CHECK(std::strcmp(KTypeInfo(info.GetTypeInfoString()).GetTypeInfoString(), info.GetTypeInfoString()) == 0);
    FUZZ_CHECK(!info.IsStdLogicConversionAllowed() || info.GetKind() == Sorvat::kKindEnumeration);
    FUZZ_CHECK((info.GetNbOfLiterals() > 0) == (info.GetKind() == Sorvat::kKindEnumeration));
    if (info.IsScalar()) {
        CheckValueText(info, input);
        CheckTextToBytes(info, input);
    } else {
        CheckNoValueText(info, input);
    }
    CheckArray(info);
    CheckRecord(info);
    CheckChildNames(info);
    if (info.GetKind() == Sorvat::kKindArray) Exercise(info.GetElementType(), input, depth + 1);
    for (int field = 0; field < info.GetNbOfFields(); ++field) Exercise(info.GetFieldType(field), input, depth + 1);
}

void ExerciseInvalid(const KTypeInfo& info, const Input& input) {
    FUZZ_CHECK(!info.IsValid() && info.GetKind() == 0 && info.GetSimpleSize_OldFormat() == 0);
    FUZZ_CHECK(info.GetNbOfChildren() == 0 && info.GetNbOfDimensions() == 0 && info.GetNbOfFields() == 0);
    FUZZ_CHECK(std::strcmp(info.GetTypeInfoString(), "") == 0);
    CheckNoValueText(info, input);
    CheckChildNames(info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* begin = reinterpret_cast<const char*>(data);
    const char* nul = std::find(begin, begin + size, '\0');
    Input input;
    input.typeText.assign(begin, nul);
    if (nul != begin + size) input.extra.assign(data + (nul - begin) + 1, data + size);

    const auto text = ExactCString(input.typeText);
    const bool wellFormed = KTypeInfo::CheckTypeInfo(text.get());
    const KTypeInfo info(text.get());
    FUZZ_CHECK(info.IsValid() == wellFormed);
    if (wellFormed) {
        FUZZ_CHECK(input.typeText == info.GetTypeInfoString());
        const KTypeInfo copy = info;  // copies share the description
        Exercise(copy, input, 1);
    } else {
        ExerciseInvalid(info, input);
    }
    return 0;
}
