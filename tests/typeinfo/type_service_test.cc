// Tests of Tarvel::TypeHandle, the waveform library's wrapper of the type service. Type layer
// tests; single-threaded.
#include "typeinfo/type_service.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Tarvel::TypeHandle;

TEST(TypeServiceTest, StdLogicIsExactlyOneOfTwoSpellings) {
    EXPECT_TRUE(TypeHandle(Tarvel::kStdLogicTypeString).IsStdLogic());
    EXPECT_TRUE(TypeHandle(Tarvel::kStdLogicSubtypeString).IsStdLogic());
    for (const char* text : {"e#10#std_ulogicc9 UX01ZWLH-", "e#9#std_logicc9 UX01ZWLH-x", "e#9#STD_LOGICc9 UX01ZWLH-",
                             "e#9#std_logicc4 UX01", "e#3#bitc2 01"}) {
        EXPECT_FALSE(Tarvel::IsStdLogicTypeString(text)) << text;
        EXPECT_FALSE(TypeHandle(text).IsStdLogic()) << text;
    }
    EXPECT_FALSE(Tarvel::IsStdLogicTypeString(nullptr));
    EXPECT_FALSE(TypeHandle().IsStdLogic());
}

TEST(TypeServiceTest, ValueTextIsNotLimitedByAFixedBuffer) {
    const std::string literal(300, 'Q');
    const std::string type = "e#4#longn1#300#" + literal;
    const TypeHandle handle(type.c_str());
    ASSERT_TRUE(handle.IsValid());
    const unsigned char zero[4] = {};
    const unsigned char one[4] = {1, 0, 0, 0};
    std::string text = "stale";
    ASSERT_TRUE(handle.ValueText(zero, text));
    EXPECT_EQ(text, literal);
    EXPECT_FALSE(handle.ValueText(one, text));
    EXPECT_EQ(text, "");

    const unsigned char minusOne[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    ASSERT_TRUE(TypeHandle("l#0#").ValueText(minusOne, text));  // the shortest type string
    EXPECT_EQ(text, "-1");
}

TEST(TypeServiceTest, ChildrenOfNestedTypes) {
    const TypeHandle handle("r#6#packet2#4#addri#7#integer#4#dataa#0#[7d0]a#0#[1t2]e#3#bitc2 01");
    ASSERT_EQ(handle.ChildCount(), 2);
    EXPECT_EQ(handle.ChildName(0), "addr");
    EXPECT_EQ(handle.ChildName(2), "");
    const TypeHandle data = handle.ChildType(1);
    EXPECT_EQ(data.ChildName(7), "(0)");
    EXPECT_EQ(data.ChildType(7).ChildName(1), "(2)");
    EXPECT_EQ(data.ChildType(7).ChildType(1).Kind(), Tarvel::kTypeEnumeration);
    EXPECT_EQ(handle.ValueSize(), 4 + 8 * 2 * 4);
}

}  // namespace
