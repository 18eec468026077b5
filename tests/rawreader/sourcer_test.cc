// Tests of KSourcer: translation, repeated entries, deep copies against shared tables, and copy
// on write after a table was handed out.
#include <gtest/gtest.h>

#include <string>

#include <tarvel/sourcer.h>

#include "rawreader/sourcer_access.h"

namespace Tarvel {
namespace {

using Access = KSourcerAccess;

// "file:line", or "-" when the point does not translate (and the outputs stayed as they were).
std::string Where(const KSourcer& sourcer, int point) {
    const char* file = "-";
    int line = 0;
    return sourcer.Translate(point, &file, &line) ? std::string(file) + ":" + std::to_string(line)
                                                  : std::string(file) + (line == 0 ? "" : "?");
}

TEST(Sourcer, TranslatesPointsWhoseFileIsKnownAndRepeatsReplace) {
    KSourcer sourcer;
    EXPECT_EQ(Where(sourcer, 1) + " " + std::to_string(sourcer.GetSourcePointsCount()), "- 0");
    Access::EnterPoint(sourcer, 1, 7, 10);
    EXPECT_EQ(Where(sourcer, 1), "-");  // no "$SEF" for file 7 yet
    Access::EnterFile(sourcer, 7, "a.vhd");
    EXPECT_EQ(Where(sourcer, 1) + " " + Where(sourcer, 2), "a.vhd:10 -");
    Access::EnterFile(sourcer, 7, "b.vhd");
    Access::EnterPoint(sourcer, 1, 7, 20);
    EXPECT_EQ(Where(sourcer, 1) + " " + std::to_string(sourcer.GetSourcePointsCount()), "b.vhd:20 1");
}

TEST(Sourcer, CopiesAreDeepAssignmentsShareAndHandedOutTablesNeverChange) {
    KSourcer reader;
    Access::EnterFile(reader, 1, "top.vhd");
    Access::EnterPoint(reader, 1, 1, 5);
    KSourcer deep(reader);
    KSourcer shared;
    shared = reader;
    EXPECT_EQ(Access::ShareCount(deep) * 10 + Access::ShareCount(reader), 12u);
    const char* name = nullptr;
    ASSERT_TRUE(shared.Translate(1, &name, nullptr));
    // The reader reads on: it makes its table private first, so the one handed out stays as it was.
    Access::EnterFile(reader, 1, "renamed.vhd");
    Access::EnterPoint(reader, 2, 1, 6);
    Access::EnterPoint(deep, 3, 1, 9);
    EXPECT_EQ(std::string(name), "top.vhd");  // a pointer taken earlier is still valid
    EXPECT_EQ(Where(shared, 1) + " " + Where(deep, 1) + " " + Where(reader, 1), "top.vhd:5 top.vhd:5 renamed.vhd:5");
    EXPECT_EQ(Where(shared, 2) + Where(reader, 3) + std::to_string(shared.GetSourcePointsCount()), "--1");
    KSourcer& alias = shared;
    shared = alias;
    EXPECT_EQ(Where(shared, 1) + " " + std::to_string(Access::ShareCount(shared)), "top.vhd:5 1");
}

}  // namespace
}  // namespace Tarvel
