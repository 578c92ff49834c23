#include "kds/platform/Errors.h"

#include <gtest/gtest.h>

#include <limits>
#include <type_traits>

namespace kds {
namespace {

TEST(FormatTest, PrintsItsDirectives) {
    EXPECT_EQ(Format(u"%s.%s has %d", {u"Zones", std::u16string(u"Name"), 3}), u"Zones.Name has 3");
    EXPECT_EQ(Format(u"%.2d:%.4d:%.2d", {7, -7, 123}), u"07:-0007:123");
    EXPECT_EQ(Format(u"%d", {std::numeric_limits<std::int64_t>::min()}), u"-9223372036854775808");
    EXPECT_EQ(Format(u"%g and %g", {0.1, -std::numeric_limits<double>::infinity()}),
              u"0.1 and -INF");
    EXPECT_EQ(Format(u"%s|%d%%", {u'x', 5}), u"x|5%");
}

TEST(FormatTest, SurvivesAnyPattern) {
    EXPECT_EQ(Format(u"%s, %s, %d", {u"one"}), u"one, , ");
    EXPECT_EQ(Format(u"%d %s %g", {u"text", 7, 8}), u"text 7 8");
    EXPECT_EQ(Format(u"%.3d %.3d", {u"text", 0.5}), u"text 0.5");
    EXPECT_EQ(Format(u"%[a;b] %x %n %.s %.2s %.999d %", {1, 2}), u"%[a;b] %x %n %.s %.2s %.999d %");
    for (const char16_t* const open : {u"%", u"%.", u"%.2"}) EXPECT_EQ(Format(open, {}), open);
    // An argument's text is never read as a pattern.
    EXPECT_EQ(Format(u"%s%s", {u"%s", u"%d"}), u"%s%d");
}

TEST(ExceptionTest, KeepsItsTextInEveryCopy) {
    static_assert(std::is_nothrow_copy_constructible_v<EKdsError>);
    EKdsError first(u"\u0421\u0442\u043E\u043F");

    const EKdsError copy(first);
    const EKdsError moved(std::move(first));

    EXPECT_EQ(copy.Message(), u"\u0421\u0442\u043E\u043F");
    EXPECT_EQ(copy.what(), moved.what()) << "one text for all copies";
    EXPECT_STREQ(moved.what(), "\xD0\xA1\xD1\x82\xD0\xBE\xD0\xBF");
    EXPECT_STREQ(first.what(), "");  // NOLINT(bugprone-use-after-move): a logger may still ask
}

TEST(TFirstErrorTest, RunsEveryStepAndRaisesTheFirst) {
    TFirstError first;
    int steps = 0;
    for (const char16_t* const text : {u"", u"second", u"third"}) {
        first.Run([&] {
            ++steps;
            if (*text != 0) throw EListError(text);
        });
    }

    EXPECT_EQ(steps, 3);
    try {
        first.Rethrow();
        ADD_FAILURE() << "nothing was raised";
    } catch (const EListError& error) {
        EXPECT_EQ(error.Message(), u"second");
    }
    EXPECT_FALSE(first.Any());
    first.Rethrow();  // nothing is left
}

}  // namespace
}  // namespace kds
