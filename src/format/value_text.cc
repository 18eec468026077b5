// Value text: the float form and reading. Format layer; see the header.
#include "format/value_text.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tarvel::Format {
namespace {

#if defined(__SIZEOF_INT128__)
__extension__ typedef unsigned __int128 Wide;

constexpr std::uint64_t kPowers[] = {1ull, 10ull, 100ull, 1000ull, 10000ull, 100000ull, 1000000ull, 10000000ull,
                                     100000000ull, 1000000000ull, 10000000000ull, 100000000000ull, 1000000000000ull,
                                     10000000000000ull, 100000000000000ull, 1000000000000000ull};

// m * 2^e2 * 10^k as its integer part and whether rounding it to an integer, halves to even,
// goes up; exact. REQUIRES: the operands stay within 128 bits, which the magnitudes
// FastSixDigits takes guarantee.
std::uint64_t ScaledFloor(std::uint64_t m, int e2, int k, bool* up) {
    Wide q, r, divisor;
    if (k >= 0) {
        const Wide n = Wide{m} * kPowers[k];
        if (e2 >= 0) {
            *up = false;
            return static_cast<std::uint64_t>(n << e2);
        }
        q = n >> -e2;
        r = n & ((Wide{1} << -e2) - 1);
        divisor = Wide{1} << -e2;
    } else {
        Wide n = m;
        divisor = kPowers[-k];
        if (e2 >= 0) n <<= e2; else divisor <<= -e2;
        q = n / divisor;
        r = n % divisor;
    }
    *up = 2 * r > divisor || (2 * r == divisor && (q & 1) != 0);
    return static_cast<std::uint64_t>(q);
}

// printf's "%g" of a finite, non-zero double of magnitude 1e-5 to 1e20, computed exactly with
// integers; 0 for any other value (the caller then asks the library). The six significant
// digits are the value times 10^(5 - X) rounded half to even, X its decimal exponent.
std::size_t FastSixDigits(double value, char* out) {
    std::uint64_t raw;
    std::memcpy(&raw, &value, sizeof raw);
    const int biased = static_cast<int>((raw >> 52) & 0x7FF);
    const double magnitude = std::fabs(value);
    if (biased == 0 || biased == 0x7FF || !(magnitude >= 1e-5 && magnitude < 1e20)) return 0;
    const std::uint64_t m = (raw & ((std::uint64_t{1} << 52) - 1)) | (std::uint64_t{1} << 52);
    const int e2 = biased - 1075;
    // floor(log10(2^E)) for the binary exponent E; the decimal exponent is it or one more, which
    // the loop below finds.
    int x = ((biased - 1023) * 1233) >> 12;
    std::uint64_t digits = 0;
    bool up = false;
    for (int tries = 0;; ++tries) {  // the exponent whose scaled value has six digits before rounding
        if (tries == 3 || 5 - x < -15 || 5 - x > 15) return 0;
        digits = ScaledFloor(m, e2, 5 - x, &up);
        if (digits >= 1000000) {
            ++x;
        } else if (digits < 100000) {
            --x;
        } else {
            break;
        }
    }
    digits += up;
    if (digits == 1000000) {  // rounded up to the next power of ten
        digits = 100000;
        ++x;
    }
    char d[6];
    for (int i = 5; i >= 0; --i, digits /= 10) d[i] = static_cast<char>('0' + digits % 10);
    int n = 6;  // significant digits left once trailing zeros go
    while (n > 1 && d[n - 1] == '0') --n;
    char* p = out;
    if (value < 0) *p++ = '-';
    if (x < -4 || x >= 6) {
        *p++ = d[0];
        if (n > 1) {
            *p++ = '.';
            for (int i = 1; i < n; ++i) *p++ = d[i];
        }
        *p++ = 'e';
        *p++ = x < 0 ? '-' : '+';
        const int e = x < 0 ? -x : x;
        if (e >= 10) *p++ = static_cast<char>('0' + e / 10);
        else *p++ = '0';
        *p++ = static_cast<char>('0' + e % 10);
    } else if (x >= 0) {
        for (int i = 0; i <= x; ++i) *p++ = d[i];
        if (n > x + 1) {
            *p++ = '.';
            for (int i = x + 1; i < n; ++i) *p++ = d[i];
        }
    } else {
        *p++ = '0';
        *p++ = '.';
        for (int i = 0; i < -x - 1; ++i) *p++ = '0';
        for (int i = 0; i < n; ++i) *p++ = d[i];
    }
    return static_cast<std::size_t>(p - out);
}
#else
std::size_t FastSixDigits(double, char*) { return 0; }  // no 128-bit integers: the library formats
#endif

}  // namespace

std::string_view FloatText(const unsigned char* bytes, char (&out)[40]) noexcept {
    const std::uint64_t raw = LittleEndian::Load<std::uint64_t>(bytes);
    double value;
    std::memcpy(&value, &raw, sizeof value);
    if (std::isnan(value)) return kNotANumber;
    // As printf's "%g" in the C locale (six significant digits): computed here for the common
    // magnitudes, otherwise by to_chars with a precision, which is defined to match it.
    if (const std::size_t n = FastSixDigits(value, out)) return std::string_view(out, n);
    const std::to_chars_result r = std::to_chars(out, out + sizeof out, value, std::chars_format::general, 6);
    return std::string_view(out, static_cast<std::size_t>(r.ptr - out));
}

bool ReadStdLogicText(KLexer& lexer, int& c, unsigned char* bytes) noexcept {
    const int code = c == kStdLogicInvalid ? kStdLogicInvalidCode : StdLogicCode(static_cast<char>(c));
    if (code < 0 || c == KLexer::kEnd) return lexer.Fail(c, "std_logic value (one of UX01ZWLH-) expected");
    LittleEndian::Store<std::uint32_t>(bytes, static_cast<std::uint32_t>(code));
    c = lexer.Next();
    return true;
}

bool ReadValueText(KLexer& lexer, int& c, const TypeHandle& type, unsigned char* bytes, String& scratch) {
    switch (type.Kind()) {
        case kTypeInteger: {
            std::int32_t value = 0;
            if (!ReadInteger(lexer, c, value)) return false;
            LittleEndian::Store<std::uint32_t>(bytes, static_cast<std::uint32_t>(value));
            return true;
        }
        case kTypePhysical:
        case kTypeLongInteger: {
            std::int64_t value = 0;
            if (!ReadWide(lexer, c, value)) return false;
            LittleEndian::Store<std::uint64_t>(bytes, static_cast<std::uint64_t>(value));
            return true;
        }
        case kTypeFloat: {
            if (!ReadString(lexer, c, scratch)) return false;
            char* end = nullptr;
            const double value = std::strtod(scratch.c_str(), &end);
            if (end == scratch.c_str() || *end != '\0') return lexer.FailAfterToken(c, "'%s' is no real number");
            std::uint64_t raw;
            std::memcpy(&raw, &value, sizeof raw);
            LittleEndian::Store<std::uint64_t>(bytes, raw);
            return true;
        }
        case kTypeEnumeration:
            if (!ReadString(lexer, c, scratch)) return false;
            return type.TextToValue(scratch.c_str(), bytes, 8) || lexer.FailAfterToken(c, kNotALiteral);
        default: return lexer.Fail(c, "values of a signal whose type has none");
    }
}

}  // namespace Tarvel::Format
