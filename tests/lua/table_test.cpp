// The table's two parts, seen from the inside: where keys land, the cached length, traversal
// under change, and the sorted key order.
#include "table_internal.h"

#include <gtest/gtest.h>

namespace korvel::lua {
namespace {

Value key(std::int64_t integer) { return Value::integer(integer); }

Value named(const char* prefix, int index) {
    std::string text(prefix);
    text += std::to_string(index);
    return Value::string(text);
}

TEST(TableParts, KeysMigrateIntoTheArrayWhenTheGapCloses) {
    Table table;
    table.setInteger(3, key(30));
    table.setInteger(2, key(20));
    EXPECT_EQ(table.sequenceLength(), 0);
    EXPECT_EQ(table.arrayPart().size(), 0u);
    table.setInteger(1, key(10));
    EXPECT_EQ(table.arrayPart().size(), 3u);   // 2 and 3 moved over from the hash part
    EXPECT_EQ(table.sequenceLength(), 3);
    EXPECT_EQ(table.entryCount(), 3u);
}

TEST(TableParts, RemovingTheLastElementShrinksTheSequence) {
    Table table;
    for (int i = 1; i <= 5; ++i) table.append(key(i));
    table.setInteger(5, Value());
    table.setInteger(4, Value());
    EXPECT_EQ(table.sequenceLength(), 3);
    table.setInteger(2, Value());
    EXPECT_EQ(table.sequenceLength(), 1);   // a hole ends the sequence
    EXPECT_EQ(table.entryCount(), 2u);
}

TEST(TableParts, FloatKeysNormaliseOnlyNearIntegers) {
    struct KeyCase {
        double number;
        bool accepted;
        std::int64_t integer;
    };
    const KeyCase cases[] = {
        {1.0, true, 1}, {-3.0, true, -3}, {1.0000000000000002, true, 1}, {2.0000000000000004, false, 0}, {0.5, false, 0},
        {1e300, false, 0}, {9223372036854775808.0, false, 0}, {-9223372036854775808.0, false, 0},
    };
    for (const KeyCase& c : cases) {
        Value normalised;
        bool accepted = tryMakeKeyFromValue(Value::number(c.number), normalised);
        EXPECT_EQ(accepted, c.accepted) << c.number;
        if (accepted) {
            EXPECT_EQ(normalised.kind(), Kind::Integer) << c.number;
            EXPECT_EQ(normalised.asInteger(), c.integer) << c.number;
        }
    }
    Value normalised;
    EXPECT_FALSE(tryMakeKeyFromValue(Value(), normalised));
    EXPECT_FALSE(tryMakeKeyFromValue(Value::number(0.0 / 0.0 + 1.0 / 0.0), normalised));
}

TEST(IntegralRule, AcceptsOnlyFloatsWithinTheToleranceOfAnInteger) {
    struct RuleCase {
        double number;
        bool integral;
        std::int64_t integer;
    };
    const RuleCase cases[] = {
        {3.0, true, 3}, {-0.0, true, 0}, {1e-17, true, 0}, {-1e-17, true, 0}, {0.5, false, 0}, {-0.5, false, 0},
        {0.9999999999999999, true, 1}, {1.0000000000000002, true, 1}, {1.0000000000000004, false, 0},
        {2251799813685247.5, false, 0}, {2251799813685248.0, true, 2251799813685248}, {4503599627370497.0, true, 4503599627370497},
        {9007199254740993.0, true, 9007199254740992}, {-9007199254740992.0, true, -9007199254740992},
        {9.2e18, true, 9200000000000000000}, {9223372036854775808.0, false, 0}, {1.0 / 0.0, false, 0},
        {-1.0 / 0.0, false, 0}, {0.0 / 0.0, false, 0},
    };
    for (const RuleCase& c : cases) {
        std::int64_t integer = -1;
        EXPECT_EQ(floatToIntegral(c.number, integer), c.integral) << c.number;
        if (c.integral) {
            EXPECT_EQ(integer, c.integer) << c.number;
        }
    }
}

TEST(TableTraversal, VisitsEachLiveEntryOnceWhileEntriesAreRemoved) {
    Table table;
    for (int i = 0; i < 100; ++i) table.set(named("k", i), key(i));
    std::size_t position = 0;
    Value k, v;
    int visited = 0;
    while (table.nextEntry(position, k, v)) {
        table.set(k, Value());
        ++visited;
    }
    EXPECT_EQ(visited, 100);
    EXPECT_EQ(table.entryCount(), 0u);
    // The emptied table grows again from scratch.
    for (int i = 0; i < 1000; ++i) table.set(named("n", i), key(i));
    EXPECT_EQ(table.entryCount(), 1000u);
    EXPECT_EQ(table.get(Value::string("n999")).asInteger(), 999);
}

TEST(TableTraversal, SortedKeysOrderKindsThenValues) {
    Table table;
    table.set(Value::string("b"), key(1));
    table.set(Value::string("ab"), key(1));
    table.set(Value::string("a"), key(1));
    table.set(Value::boolean(true), key(1));
    table.set(Value::boolean(false), key(1));
    table.setInteger(10, key(1));
    table.setInteger(-2, key(1));
    table.setInteger(1, key(1));
    const std::vector<Value>& keys = table.sortedKeys();
    std::vector<std::string> text;
    for (const Value& k : keys) text.push_back(k.toString());
    EXPECT_EQ(text, (std::vector<std::string>{"-2", "1", "10", "a", "ab", "b", "false", "true"}));
}

TEST(TableLength, CacheFollowsEveryChange) {
    Table table;
    for (int i = 1; i <= 4; ++i) table.append(key(i));
    EXPECT_EQ(table.sequenceLength(), 4);
    table.setInteger(6, key(6));
    EXPECT_EQ(table.sequenceLength(), 4);
    table.setInteger(5, key(5));
    EXPECT_EQ(table.sequenceLength(), 6);
    table.clear();
    EXPECT_EQ(table.sequenceLength(), 0);
    EXPECT_EQ(table.entryCount(), 0u);
}

TEST(FieldHints, StayCorrectWhenTablesDiffer) {
    Value name = Value::string("x");
    Table first, second;
    first.set(name, key(1));
    second.set(Value::string("pad"), key(0));
    second.set(name, key(2));
    std::uint32_t hint = ~std::uint32_t{0};
    EXPECT_EQ(first.findStringCached(name.asString(), hint)->asInteger(), 1);
    EXPECT_EQ(second.findStringCached(name.asString(), hint)->asInteger(), 2);
    EXPECT_EQ(first.findStringCached(name.asString(), hint)->asInteger(), 1);
    Value other = Value::string("x");   // same text, another object
    EXPECT_EQ(second.findStringCached(other.asString(), hint)->asInteger(), 2);
}

} // namespace
} // namespace korvel::lua
