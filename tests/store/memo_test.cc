// Copy on write and the memo of shared modifications: equal modifications share one body
// again, different ones do not, and bodies only a memo still holds are freed.
#include <gtest/gtest.h>

#include "store/events_store_body.h"
#include "store/store_test_util.h"

namespace TarvelTest {
namespace {

using Tarvel::KEventsStore;

KEventsStore MakeStore(int events) {
    KEventsStore store;
    store.SetSize(4);
    for (int i = 0; i < events; ++i) Push(store, {i * 3, 0, static_cast<std::uint64_t>(i * 7), 0}, 4);
    return store;
}

TEST(Memo, EqualModificationsOfCopiesShareOneBodyAndDifferentOnesDoNot) {
    KEventsStore base = MakeStore(100);
    KEventsStore b = base, c = base, d = base;
    EXPECT_TRUE(b == base);
    Push(b, {1000, 0, 5, 0}, 4);
    EXPECT_FALSE(b == base);
    Push(c, {1000, 0, 5, 0}, 4);
    EXPECT_TRUE(b == c);
    EXPECT_EQ(b.GetNr(), c.GetNr());
    Push(d, {1000, 0, 6, 0}, 4);  // another value
    EXPECT_FALSE(d == b);
    EXPECT_NE(d.GetNr(), b.GetNr());
    // The shared result is itself shared now: the next equal step meets again.
    b.push_end(2000, 0);
    c.push_end(2000, 0);
    EXPECT_TRUE(b == c);
    EXPECT_EQ(Collect(b), Collect(c));
    // A modification of a body held alone is done in place, and the base is untouched.
    EXPECT_EQ(base.count(), 100u);
    const int nr = d.GetNr();
    Push(d, {1001, 0, 6, 0}, 4);
    EXPECT_EQ(d.GetNr(), nr);
}

TEST(Memo, FreshStoresSizedAlikeShareTheirBody) {
    KEventsStore a, b;
    a.SetSize(8);
    b.SetSize(8);
    EXPECT_TRUE(a == b);
    a.SetBus();
    EXPECT_FALSE(a == b);
}

TEST(Memo, ModifyingTheOriginInPlaceForgetsWhatItsMemoKnew) {
    KEventsStore base = MakeStore(10);
    {
        KEventsStore other = base;
        Push(other, {500, 0, 1, 0}, 4);  // base's memo: "push 500/1" -> other's body
        KEventsStore keep = other;      // keeps that result alive outside the memo
        Push(base, {400, 0, 9, 0}, 4);  // base held alone: changed in place
        Push(base, {500, 0, 1, 0}, 4);  // must not jump to the memo's stale result
        EXPECT_FALSE(base == keep);
        EXPECT_EQ(base.count(), 12u);
    }
}

TEST(Memo, ReleasingTheLastOutsideHandleFreesTheMemoHeldBody) {
    KEventsStore base = MakeStore(10);
    const std::size_t before = Tarvel::LiveBodies();
    {
        KEventsStore b = base;
        Push(b, {100, 0, 1, 0}, 4);  // new body, held by b and by base's memo
        EXPECT_EQ(Tarvel::LiveBodies(), before + 1);
        KEventsStore c = base;
        Push(c, {100, 0, 1, 0}, 4);  // shares b's body
        EXPECT_EQ(Tarvel::LiveBodies(), before + 1);
    }
    EXPECT_EQ(Tarvel::LiveBodies(), before);
    {
        KEventsStore b = base;
        Push(b, {100, 0, 1, 0}, 4);
        base = KEventsStore();  // the origin goes first: its memo lets go of b's body
        EXPECT_EQ(b.count(), 11u);
    }
    EXPECT_LE(Tarvel::LiveBodies(), before);
}

TEST(Memo, SwapAndOrderingFollowTheBodies) {
    KEventsStore a = MakeStore(3), b = MakeStore(4);
    const KEventsStore a0 = a;
    a.swap(&b);
    EXPECT_TRUE(b == a0);
    EXPECT_EQ(a.count(), 4u);
    EXPECT_NE(a < b, b < a);
}

}  // namespace
}  // namespace TarvelTest
