// What values are made of: counted strings, interfaces, delegates, sets, variants, owned objects.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "kds/platform/Ansistring.h"
#include "kds/platform/Delegate.h"
#include "kds/platform/Interface.h"
#include "kds/platform/Object.h"
#include "kds/platform/Sets.h"
#include "kds/platform/Variant.h"

namespace kds {
namespace {

TEST(TAnsiStringTest, SharesOneBlockAndCountsIt) {
    TAnsiString first("brass");
    TAnsiString second = first;
    EXPECT_TRUE(first.SameInstance(second));
    EXPECT_EQ(first.RefCount(), 2);

    first = std::as_const(first);
    second = std::move(second);
    EXPECT_EQ(first.RefCount(), 2);
    EXPECT_EQ(second.View(), "brass");
    second = TAnsiString("brass");

    EXPECT_EQ(first.RefCount(), 1);
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first.SameInstance(second));
}

TEST(TAnsiStringTest, TravelsThroughASlotWithoutCounting) {
    TAnsiString text(std::string_view("a\0b", 3));
    void* const slot = text.Detach();
    EXPECT_TRUE(text.Empty());
    EXPECT_EQ(TAnsiString::RefCount(slot), 1);

    TAnsiString back = TAnsiString::Attach(slot);

    EXPECT_EQ(back.View(), std::string_view("a\0b", 3));
    EXPECT_EQ(back.View().data()[3], '\0');
    EXPECT_EQ(TAnsiString().View().data()[0], '\0');
    EXPECT_EQ(TAnsiString("").RefCount(), 0);
}

struct TCounted : IInterface {
    explicit TCounted(int* alive) : Alive(alive) { ++*Alive; }
    ~TCounted() override { --*Alive; }
    TIntf<TCounted> Next;
    int* Alive;
};

TEST(TIntfTest, DeletesWithTheLastReference) {
    int alive = 0;
    auto first = MakeIntf<TCounted>(&alive);
    TIntf<IInterface> base = first;
    EXPECT_EQ(first->References(), 2);
    base = nullptr;
    first = std::as_const(first);
    first->Next = MakeIntf<TCounted>(&alive);
    EXPECT_EQ(alive, 2);

    first = first->Next;  // which its old object holds

    EXPECT_EQ(first->References(), 1);
    EXPECT_EQ(alive, 1);
    first = nullptr;
    EXPECT_EQ(alive, 0);
}

struct TAdder {
    int Sum = 0;
    int Add(int value) { return Sum += value; }
    int Subtract(int value) { return Sum -= value; }
    int Peek(int value) const { return Sum + value; }
};
int Twice(int value) { return 2 * value; }
int Take(std::unique_ptr<int> value) { return *value; }

TEST(TDelegateTest, IsEqualWhenObjectAndRoutineAre) {
    using TRoutine = TDelegate<int(int)>;
    static_assert(std::is_trivially_copyable_v<TRoutine> && sizeof(TRoutine) == 2 * sizeof(void*));
    TAdder one, other;
    const auto add = TRoutine::Bind<&TAdder::Add>(&one);

    EXPECT_EQ(add, TRoutine::Bind<&TAdder::Add>(&one));
    EXPECT_NE(add, TRoutine::Bind<&TAdder::Add>(&other));
    EXPECT_NE(add, TRoutine::Bind<&TAdder::Subtract>(&one));
    EXPECT_NE(add, TRoutine());
    EXPECT_FALSE(TRoutine());
    EXPECT_EQ(add(3), 3);
    EXPECT_EQ(TRoutine::Bind<&TAdder::Peek>(&std::as_const(one))(1), 4);
    EXPECT_EQ(TRoutine::Bind<&Twice>()(4), 8);
    const auto local = [&](int value) { return one.Sum * value; };
    EXPECT_EQ(TRoutine::BindCall(&local)(5), 15);
    EXPECT_EQ(TDelegate<int(std::unique_ptr<int>)>::Bind<&Take>()(std::make_unique<int>(6)), 6);
}

TEST(TVariantTest, MakesEachTypeItsOwnKind) {
    EXPECT_EQ(TVariant().Type(), varEmpty);
    EXPECT_EQ(TVariant(Null).Type(), varNull);
    EXPECT_EQ(TVariant(std::int8_t{1}).Type(), varShortInt);
    EXPECT_EQ(TVariant(1).Type(), varInteger);
    EXPECT_EQ(TVariant(1L).Type(), varInt64);
    EXPECT_EQ(TVariant(1LL).Type(), varInt64);
    EXPECT_EQ(TVariant(1u).Type(), varCardinal);
    EXPECT_EQ(TVariant(1ull).Type(), varUInt64);
    EXPECT_EQ(TVariant(TCurrency{1}).Type(), varCurrency);
    EXPECT_EQ(TVariant(u"text").Type(), varString);
    EXPECT_EQ(TVariant("text").Type(), varAnsiString);
    EXPECT_EQ(TVariant(std::string_view("text")).Type(), varAnsiString);
    EXPECT_EQ(TVariant(TIntf<IInterface>()).Type(), varInterface);
    EXPECT_EQ(TVariant(TExtended{1}).Type(), varExtended);
    EXPECT_EQ(TVariant(TDecimalParts{1, 2}).Type(), varFixed);
    static_assert(!std::is_constructible_v<TVariant, void*>);
    static_assert(!std::is_constructible_v<TVariant, int*>);
    static_assert(!std::is_constructible_v<TVariant, char16_t>);
    static_assert(!std::is_constructible_v<TVariant, std::nullptr_t>);
}

TEST(TVariantTest, ComparesKindThenValue) {
    EXPECT_NE(TVariant(1), TVariant(1.0));
    EXPECT_NE(TVariant(), TVariant(Null));
    EXPECT_EQ(TVariant("text"), TVariant(TAnsiString("text")));
    EXPECT_NE(TVariant("text"), TVariant(u"text"));
}

struct TRefusing final : TObject {
    explicit TRefusing(int* alive) : Alive(alive) { ++*Alive; }
    ~TRefusing() override { --*Alive; }
    void BeforeDestruction() override {
        if (Refuses) throw std::runtime_error("still needed");
    }
    bool Refuses = true;
    int* Alive;
};

TEST(TObjectTest, LivesOnWhenItsEndIsRefusedUnlessForced) {
    int alive = 0;
    TOwned<TRefusing> kept = MakeOwned<TRefusing>(&alive);

    EXPECT_THROW(kept->Free(), std::runtime_error);
    EXPECT_EQ(alive, 1);
    kept.reset();

    EXPECT_EQ(alive, 0);
}

TEST(TSetTest, KeepsOrdinalsAsBits) {
    enum class TSide : std::uint8_t { Left, Right, Last = 31 };
    TSet<TSide> sides{TSide::Right, TSide::Last};
    EXPECT_EQ(sides.Bits(), 0x80000002u);
    sides.Set(TSide::Right, false);
    sides.Include(TSide::Left);
    EXPECT_EQ(sides.Bits(), 0x80000001u);
    EXPECT_TRUE(sides.HasAll({TSide::Left}));
    EXPECT_FALSE(sides.HasAll({TSide::Left, TSide::Right}));
    EXPECT_TRUE(sides.HasAny({TSide::Left, TSide::Right}));
}

}  // namespace
}  // namespace kds
