// Tests of Sorvat::KTypeInfo parsing and queries: the grammar's examples, refused strings,
// std_logic conversion and character literals. Type-information library tests; single-threaded.
#include <sorvat/typeinfo.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using Sorvat::KRange;
using Sorvat::KTypeInfo;

const char kStdLogic[] = "e#9#std_logicc9 UX01ZWLH-";
const char kVector[] = "a#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
const char kPacket[] = "r#6#packet2#4#addri#7#integer#4#dataa#16#std_logic_vector[7d0]e#9#std_logicc9 UX01ZWLH-";
// Like VHDL's CHARACTER: identifiers and character literals in one enumeration.
const char kCharacter[] = "e#9#charactern2#3#NUL#3#SOHc3 a'#n1#3#DEL";

struct Example {
    const char* text;
    const char* name;
    int kind;
    std::int64_t size;
    bool scalar;
    int literals;
    std::int64_t elements;
    int fields;
};

const Example kExamples[] = {
    {kStdLogic, "std_logic", 1, 4, true, 9, 0, 0},
    {"c#9#std_logicc9 UX01ZWLH-", "std_logic", 1, 4, true, 9, 0, 0},
    {"e#3#bitc2 01", "bit", 1, 4, true, 2, 0, 0},
    {"e#7#booleann2#5#FALSE#4#TRUE", "boolean", 1, 4, true, 2, 0, 0},
    {"e#5#staten3#4#IDLE#4#LOAD#3#RUN", "state", 1, 4, true, 3, 0, 0},
    {"i#7#integer", "integer", 2, 4, true, 0, 0, 0},
    {"i#7#natural[0t2147483647]", "natural", 2, 4, true, 0, 0, 0},
    {"f#4#real", "real", 3, 8, true, 0, 0, 0},
    {"p#4#time#2#fs", "time", 6, 8, true, 0, 0, 0},
    {"l#6#bigint", "bigint", 9, 8, true, 0, 0, 0},
    {kVector, "std_logic_vector", 4, 32, false, 0, 8, 0},
    {kPacket, "packet", 5, 36, false, 0, 0, 2},
    {"x#3#ptr", "ptr", 7, 0, false, 0, 0, 0},
    {"y#4#text", "text", 8, 0, false, 0, 0, 0},
    {"u#0#", "", 0, 0, false, 0, 0, 0},
    {"a#6#matrix[0t1][3d1]i#1#i", "matrix", 4, 24, false, 0, 6, 0},
    {"r#5#empty0", "empty", 5, 0, false, 0, 0, 0},
    {kCharacter, "character", 1, 4, true, 6, 0, 0},
};

TEST(KTypeInfoTest, ExamplesAnswerTheirProperties) {
    for (const Example& e : kExamples) {
        SCOPED_TRACE(e.text);
        ASSERT_TRUE(KTypeInfo::CheckTypeInfo(e.text));
        const KTypeInfo info(e.text);
        ASSERT_TRUE(info.IsValid());
        EXPECT_STREQ(info.GetTypeInfoString(), e.text);
        EXPECT_STREQ(info.GetTypeName(), e.name);
        EXPECT_EQ(info.GetKind(), e.kind);
        EXPECT_EQ(info.GetSimpleSize_OldFormat(), e.size);
        EXPECT_EQ(info.IsScalar(), e.scalar);
        EXPECT_EQ(info.GetNbOfLiterals(), e.literals);
        EXPECT_EQ(info.GetNbOfElements(), e.elements);
        EXPECT_EQ(info.GetNbOfFields(), e.fields);
        EXPECT_EQ(info.GetNbOfChildren(), e.elements + e.fields);
        const unsigned char zero[8] = {};
        char text[64];
        EXPECT_EQ(info.GetValueString_OldFormatLen(text, sizeof text, zero, 0, 0), e.scalar);
    }
}

std::string ChildName(const KTypeInfo& info, std::int64_t child) {
    char name[16] = "x";
    return info.GetChildName(child, name, sizeof name) ? name : "<" + std::string(name) + ">";
}

TEST(KTypeInfoTest, ArrayDimensionsElementTypeAndChildNames) {
    const KTypeInfo vector(kVector);
    KRange range;
    ASSERT_EQ(vector.GetArrayDimensionRanges(&range, 1), 1);
    EXPECT_EQ(std::make_tuple(range.left, range.right, range.direction),
              std::make_tuple(std::int64_t(7), std::int64_t(0), Sorvat::KDirection::kDownto));
    EXPECT_STREQ(vector.GetElementType().GetTypeInfoString(), kStdLogic);
    EXPECT_EQ(ChildName(vector, 0) + ChildName(vector, 7) + ChildName(vector, 8), "(7)(0)<>");
    EXPECT_FALSE(vector.GetChildType(8).IsValid());

    // Two dimensions: the last one varies fastest.
    const KTypeInfo matrix("a#6#matrix[0t1][3d1]i#1#i");
    KRange ranges[3];
    ASSERT_EQ(matrix.GetArrayDimensionRanges(ranges, 3), 2);
    EXPECT_EQ(ranges[1].direction, Sorvat::KDirection::kDownto);
    std::string names;
    for (int child = 0; child < 6; ++child) names += ChildName(matrix, child);
    EXPECT_EQ(names, "(0,3)(0,2)(0,1)(1,3)(1,2)(1,1)");
    char name[5];
    EXPECT_FALSE(matrix.GetChildName(0, name, sizeof name));  // "(0,3)" needs 6 bytes with its NUL
}

TEST(KTypeInfoTest, RecordFieldsAndNestedTypes) {
    const KTypeInfo packet(kPacket);
    EXPECT_EQ(std::string(packet.GetFieldName(0)) + packet.GetFieldName(1) + packet.GetFieldName(2), "addrdata");
    EXPECT_STREQ(packet.GetFieldType(0).GetTypeInfoString(), "i#7#integer");
    EXPECT_STREQ(packet.GetFieldType(1).GetTypeInfoString(), kVector);
    EXPECT_EQ(ChildName(packet, 1), "data");

    // A nested type keeps the whole description alive after its parents are gone.
    KTypeInfo element;
    {
        const KTypeInfo copy = KTypeInfo(kPacket);
        element = copy.GetFieldType(1).GetElementType();
    }
    EXPECT_STREQ(element.GetTypeInfoString(), kStdLogic);
}

TEST(KTypeInfoTest, PhysicalUnitIsToldFromTheNextFieldName) {
    const KTypeInfo withUnit("r#1#r2#1#tp#4#time#2#fs#1#ui#7#integer");
    const KTypeInfo withoutUnit("r#1#r2#1#tp#4#time#1#ui#7#integer");
    for (const KTypeInfo* info : {&withUnit, &withoutUnit}) {
        ASSERT_TRUE(info->IsValid());
        EXPECT_EQ(info->GetNbOfFields(), 2);
        EXPECT_STREQ(info->GetFieldName(1), "u");
        EXPECT_EQ(info->GetSimpleSize_OldFormat(), 12);
    }
    EXPECT_STREQ(withUnit.GetFieldType(0).GetTypeInfoString(), "p#4#time#2#fs");
    EXPECT_STREQ(withoutUnit.GetFieldType(0).GetTypeInfoString(), "p#4#time");
}

std::string Nested(int levels) {
    std::string text;
    for (int i = 0; i < levels - 1; ++i) text += "a#0#[0t1]";
    return text + "i#0#";
}

TEST(KTypeInfoTest, MalformedStringsAreRefused) {
    const std::vector<std::string> refused = {
        "", "e", "e#9#std_logicc9 UX01ZWLH-x", "e#9#std_logicc9 UX01ZWLH", "e#10#std_logicc9 UX01ZWLH-",
        "e#9std_logicc9 UX01ZWLH-", "e#-3#bitc2 01", "e#+3#bitc2 01", "e##bitc2 01", "e#3#bit",
        "e#3#bitc0 ", "e#3#bitc2 0", "e#3#bitc201", "e#3#bitn1#4#abc", "q#1#q", "E#3#bitc2 01",
        "i#1#i[0t2147483648]", "i#1#i[0x1]", "i#1#i[0t1", "i#1#i[-t1]", "l#1#l[0t9223372036854775808]",
        "a#1#a[7d0]", "a#1#ai#1#i", "r#1#r2#1#xi#1#i", "r#1#r1i#1#i", "r#1#r",
        "e#3#bitc99999999999 01", "a#1#a[0t4294967295][0t4294967295]e#3#bitc2 01",
        "a#1#a[0t1073741823][0t1073741823]a#1#a[0t1073741823]i#1#i", "f#4#real[0t1]",
        "a#1#a[-9223372036854775808t9223372036854775807]i#1#i", Nested(KTypeInfo::kMaxNesting + 1),
    };
    for (const std::string& text : refused) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(KTypeInfo::CheckTypeInfo(text.c_str()));
        EXPECT_FALSE(KTypeInfo(text.c_str()).IsValid());
    }
    EXPECT_FALSE(KTypeInfo::CheckTypeInfo(nullptr));
    EXPECT_TRUE(KTypeInfo::CheckTypeInfo(Nested(KTypeInfo::kMaxNesting).c_str()));
}

TEST(KTypeInfoTest, InvalidObjectsAnswerSafely) {
    for (const KTypeInfo& info : {KTypeInfo(), KTypeInfo(nullptr), KTypeInfo("e#3#bit")}) {
        unsigned char value[8] = {};
        char buffer[8] = "x";
        KRange range;
        EXPECT_STREQ(info.GetTypeInfoString(), "");
        EXPECT_EQ(info.GetKind() + info.GetSimpleSize_OldFormat() + info.GetNbOfChildren(), 0);
        EXPECT_FALSE(info.IsScalar() || info.IsStdLogicConversionAllowed() || info.IsCharValue(value));
        EXPECT_FALSE(info.GetValueString_OldFormatLen(buffer, sizeof buffer, value, 0, 0));
        EXPECT_STREQ(buffer, "");
        EXPECT_FALSE(info.GetBytes_OldFormat("0", value, sizeof value) || info.GetChildName(0, buffer, 8));
        EXPECT_EQ(info.GetArrayDimensionRanges(&range, 1), 0);
        EXPECT_STREQ(info.GetFieldName(0), "");
    }
}

TEST(KTypeInfoTest, StdLogicConversionNeedsOnlyStdLogicCharacters) {
    const std::pair<const char*, bool> cases[] = {
        {kStdLogic, true},
        {"e#3#bitc2 01", true},
        {"e#4#fourc4 01XZ", true},
        {"e#7#booleann2#5#FALSE#4#TRUE", false},
        {"e#4#charc2 0a", false},           // 'a' is no std_logic character
        {"e#5#mixedc2 01n1#1#U", false},    // an identifier among character literals
        {kCharacter, false},
        {"i#7#integer", false},
        {kVector, false},
    };
    for (const auto& [text, allowed] : cases) {
        EXPECT_EQ(KTypeInfo(text).IsStdLogicConversionAllowed(), allowed) << text;
    }
}

TEST(KTypeInfoTest, IsCharValueTellsCharacterLiteralsFromIdentifiers) {
    const KTypeInfo character(kCharacter);
    const bool expected[] = {false, false, true, true, true, false, false};  // position 6 is past the end
    for (unsigned char position = 0; position < 7; ++position) {
        const unsigned char value[4] = {position, 0, 0, 0};
        EXPECT_EQ(character.IsCharValue(value), expected[position]) << int(position);
    }
    const unsigned char far[4] = {2, 0, 0, 1};  // little-endian: 0x01000002, not 2
    EXPECT_FALSE(character.IsCharValue(far));
    EXPECT_FALSE(character.IsCharValue(nullptr));
    const unsigned char zero[4] = {};
    EXPECT_FALSE(KTypeInfo("i#7#integer").IsCharValue(zero));
}

}  // namespace
