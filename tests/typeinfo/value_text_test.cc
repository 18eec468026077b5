// Tests of value text <-> value bytes through Sorvat::KTypeInfo (GetValueString_OldFormatLen,
// GetBytes_OldFormat). Type-information library tests; single-threaded.
#include <sorvat/typeinfo.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Sorvat::KTypeInfo;

std::vector<unsigned char> Code(std::uint32_t position) {
    return {static_cast<unsigned char>(position), static_cast<unsigned char>(position >> 8),
            static_cast<unsigned char>(position >> 16), static_cast<unsigned char>(position >> 24)};
}

const char* const kEnumerations[] = {
    "e#9#std_logicc9 UX01ZWLH-", "c#9#std_logicc9 UX01ZWLH-", "e#3#bitc2 01", "e#7#booleann2#5#FALSE#4#TRUE",
    "e#5#staten3#4#IDLE#4#LOAD#3#RUN", "e#9#charactern2#3#NUL#3#SOHc3 a'#n1#3#DEL",
};

TEST(ValueTextTest, EveryLiteralRoundTripsWithAnExactBuffer) {
    for (const char* text : kEnumerations) {
        const KTypeInfo info(text);
        for (int position = 0; position < info.GetNbOfLiterals(); ++position) {
            SCOPED_TRACE(std::string(text) + " position " + std::to_string(position));
            char literal[64];
            ASSERT_TRUE(info.GetValueString_OldFormatLen(literal, sizeof literal, Code(position).data(), 0, 0));
            const int length = int(std::strlen(literal));
            char exact[64];
            EXPECT_TRUE(info.GetValueString_OldFormatLen(exact, length + 1, Code(position).data(), 0, 0));
            EXPECT_FALSE(info.GetValueString_OldFormatLen(exact, length, Code(position).data(), 0, 0));
            EXPECT_STREQ(exact, "");
            unsigned char bytes[4] = {};
            ASSERT_TRUE(info.GetBytes_OldFormat(literal, bytes, sizeof bytes));
            EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4), Code(position));
        }
    }
}

TEST(ValueTextTest, CodesOutsideTheLiteralsAreRefused) {
    for (const char* text : kEnumerations) {
        const KTypeInfo info(text);
        for (std::uint32_t code : {std::uint32_t(info.GetNbOfLiterals()), 0x100u, 0xffffffffu}) {
            char buffer[64] = "x";
            EXPECT_FALSE(info.GetValueString_OldFormatLen(buffer, sizeof buffer, Code(code).data(), 0, 0))
                << text << " code " << code;
            EXPECT_STREQ(buffer, "");
        }
    }
}

TEST(ValueTextTest, TextsThatNameNoLiteralAreRefused) {
    const KTypeInfo stdLogic("e#9#std_logicc9 UX01ZWLH-");
    unsigned char bytes[4] = {9, 9, 9, 9};
    for (const char* text : {"", "u", "0 ", "01", "'0", "''", "TRUE"}) {
        EXPECT_FALSE(stdLogic.GetBytes_OldFormat(text, bytes, sizeof bytes)) << text;
    }
    EXPECT_FALSE(stdLogic.GetBytes_OldFormat("1", bytes, 3));
    EXPECT_FALSE(stdLogic.GetBytes_OldFormat(nullptr, bytes, sizeof bytes));
    EXPECT_EQ(bytes[0], 9);  // refusals leave the buffer alone
    ASSERT_TRUE(stdLogic.GetBytes_OldFormat("'1'", bytes, sizeof bytes));  // quoted character literal
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4), Code(3));
    EXPECT_FALSE(KTypeInfo("e#7#booleann2#5#FALSE#4#TRUE").GetBytes_OldFormat("true", bytes, sizeof bytes));
}

struct NumberCase {
    const char* type;
    const char* text;
    bool accepted;
    std::vector<unsigned char> bytes;  // of an accepted text; empty: only the round trip is checked
};

TEST(ValueTextTest, NumbersAreLittleEndianAndChecked) {
    const NumberCase cases[] = {
        {"i#7#integer", "-2", true, {0xfe, 0xff, 0xff, 0xff}},
        {"i#7#integer", "258", true, {0x02, 0x01, 0, 0}},
        {"i#7#integer", "-2147483648", true, {0, 0, 0, 0x80}},
        {"i#7#integer", "2147483648", false, {}},
        {"i#7#natural[0t2147483647]", "-1", false, {}},
        {"i#4#byte[255d0]", "255", true, {0xff, 0, 0, 0}},
        {"i#4#byte[255d0]", "256", false, {}},
        {"i#7#integer", "+1", false, {}},
        {"i#7#integer", " 1", false, {}},
        {"i#7#integer", "1x", false, {}},
        {"l#6#bigint", "-9223372036854775808", true, {0, 0, 0, 0, 0, 0, 0, 0x80}},
        {"p#4#time#2#fs", "1000", true, {0xe8, 0x03, 0, 0, 0, 0, 0, 0}},
        {"f#4#real", "1", true, {0, 0, 0, 0, 0, 0, 0xf0, 0x3f}},
        {"f#4#real", "-2.5", true, {0, 0, 0, 0, 0, 0, 0x04, 0xc0}},
        {"f#4#real", "1e999", false, {}},
        {"f#4#real", "x", false, {}},
        {"f#4#real", "0.1", true, {}},  // text of a double reads back to the same double
        {"f#4#real", "1e-310", true, {}},
        {"f#4#real", "-0", true, {}},
        {"f#4#real", "inf", true, {}},
        {"f#4#real", "nan", true, {}},
        {"a#1#v[0t1]i#1#i", "0", false, {}},
        {"x#3#ptr", "0", false, {}},
    };
    for (const NumberCase& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " <- " + c.text);
        const KTypeInfo info(c.type);
        unsigned char bytes[8] = {};
        ASSERT_EQ(info.GetBytes_OldFormat(c.text, bytes, sizeof bytes), c.accepted);
        if (!c.accepted) continue;
        if (!c.bytes.empty()) {
            EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + c.bytes.size()), c.bytes);
        }
        char text[64];
        ASSERT_TRUE(info.GetValueString_OldFormatLen(text, sizeof text, bytes, 0, 0));
        unsigned char again[8] = {};
        ASSERT_TRUE(info.GetBytes_OldFormat(text, again, sizeof again));
        EXPECT_EQ(std::memcmp(bytes, again, sizeof bytes), 0) << text;
    }
}

}  // namespace
