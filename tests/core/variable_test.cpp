// The dynamic value: kind names, printed forms, truth, equality, ordering, key strings,
// array storage and promotion, numeric conversions, and their messages.
#include "core/table.h"
#include "core/variable.h"

#include "tests/core/test_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cmath>
#include <stdexcept>
#include <cctype>
#include <string>
#include <string_view>

namespace korvel {
namespace {

using testing_support::caseName;

Variable arrayOf(std::vector<Variable> items) { return Variable::makeArray(std::move(items)); }

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "<no error>";
}

// --- kind names -------------------------------------------------------------------------

struct KindNameCase {
    int number;
    const char* name;
};
class KindNames : public ::testing::TestWithParam<KindNameCase> {};
TEST_P(KindNames, NameEveryKindByItsNumber) {
    EXPECT_STREQ(typeName(static_cast<VarType>(GetParam().number)), GetParam().name) << GetParam().number;
}
INSTANTIATE_TEST_SUITE_P(Table, KindNames, ::testing::Values(
    KindNameCase{0, "not"}, KindNameCase{1, "int"}, KindNameCase{2, "float"}, KindNameCase{3, "string"},
    KindNameCase{4, "raw"}, KindNameCase{5, "bool"}, KindNameCase{6, "pointer"}, KindNameCase{7, "array"},
    KindNameCase{8, "multivalue"}, KindNameCase{9, "table"}, KindNameCase{10, "function"},
    KindNameCase{11, "unknown"}, KindNameCase{200, "unknown"}));

TEST(VariableKinds, FactoriesMakeTheirKind) {
    EXPECT_EQ(Variable().type(), VarType::Nil);
    EXPECT_EQ(Variable(std::int32_t{3}).type(), VarType::Int);
    EXPECT_EQ(Variable(1.5f).type(), VarType::Float);
    EXPECT_EQ(Variable("s").type(), VarType::String);
    EXPECT_EQ(Variable(true).type(), VarType::Bool);
    EXPECT_EQ(Variable::makeRaw({1, 2}).type(), VarType::Raw);
    EXPECT_EQ(Variable::fromPointer(nullptr).type(), VarType::Pointer);
    EXPECT_EQ(Variable::makeArray().type(), VarType::Array);
    EXPECT_EQ(Variable::makeTable().type(), VarType::Table);
    EXPECT_EQ(Variable::makeMulti(std::vector<Variable>{1, 2}).type(), VarType::MultiValue);
    EXPECT_TRUE(Variable::makeArray().arrayItems().empty());
    EXPECT_EQ(Variable::makeTable().table().size(), 0u);
}

// --- printed forms ----------------------------------------------------------------------

struct PrintCase {
    const char* name;
    Variable value;
    const char* printed;
};
class PrintedForm : public ::testing::TestWithParam<PrintCase> {};
TEST_P(PrintedForm, MatchesTheRule) { EXPECT_EQ(GetParam().value.toString(), GetParam().printed) << GetParam().name; }
INSTANTIATE_TEST_SUITE_P(Scalars, PrintedForm, ::testing::Values(
    PrintCase{"nil", Variable(), "not"},
    PrintCase{"zero", Variable(std::int32_t{0}), "0"},
    PrintCase{"negative int", Variable(std::int32_t{-17}), "-17"},
    PrintCase{"int max", Variable(std::int32_t{INT_MAX}), "2147483647"},
    PrintCase{"int min", Variable(std::int32_t{INT_MIN}), "-2147483648"},
    PrintCase{"float half", Variable(1.5f), "1.500000"},
    PrintCase{"integral float", Variable(2.0f), "2.000000"},
    PrintCase{"negative float", Variable(-0.125f), "-0.125000"},
    PrintCase{"float rounds at six places", Variable(0.1234567f), "0.123457"},
    PrintCase{"tiny float", Variable(1e-7f), "0.000000"},
    PrintCase{"large float", Variable(1e10f), "10000000000.000000"},
    PrintCase{"string", Variable("a b"), "a b"},
    PrintCase{"empty string", Variable(""), ""},
    PrintCase{"true", Variable(true), "true"},
    PrintCase{"false", Variable(false), "false"},
    PrintCase{"pointer", Variable::fromPointer(reinterpret_cast<void*>(0xABCDEFu)), "$ABCDEF"},
    PrintCase{"small pointer", Variable::fromPointer(reinterpret_cast<void*>(0x1fu)), "$1F"},
    PrintCase{"multivalue", Variable::makeMulti(std::vector<Variable>{1}), "[multivalue]"}),
    [](const ::testing::TestParamInfo<PrintCase>& info) { return caseName(info, &PrintCase::name); });
INSTANTIATE_TEST_SUITE_P(Containers, PrintedForm, ::testing::Values(
    PrintCase{"empty array", Variable::makeArray(), "[]"},
    PrintCase{"array of ints", arrayOf({1, 2}), "[1, 2]"},
    PrintCase{"mixed array", arrayOf({Variable(), "x", 2.5f, false}), "[not, x, 2.500000, false]"},
    PrintCase{"nested array", arrayOf({arrayOf({1}), arrayOf({})}), "[[1], []]"},
    PrintCase{"empty table", Variable::makeTable(), "{}"}),
    [](const ::testing::TestParamInfo<PrintCase>& info) { return caseName(info, &PrintCase::name); });

TEST(PrintedForm, TablePrintsEntriesInInsertionOrder) {
    Variable t = Variable::makeTable();
    t.table().set("z", 1);
    t.table().set("a", arrayOf({1, 2}));
    Variable inner = Variable::makeTable();
    inner.table().set("k", "v");
    t.table().set("m", inner);
    t.table().set("z", 3);
    EXPECT_EQ(t.toString(), "{z: 3, a: [1, 2], m: {k: v}}");
}

TEST(PrintedForm, RemovedTableKeysAreNotPrinted) {
    Variable t = Variable::makeTable();
    t.table().set("a", 1);
    t.table().set("b", 2);
    t.table().set("c", 3);
    EXPECT_TRUE(t.table().erase("b"));
    EXPECT_EQ(t.toString(), "{a: 1, c: 3}");
    EXPECT_EQ(t.table().size(), 2u);
}

TEST(PrintedForm, ContainerHoldingItselfPrintsFinitely) {
    Variable t = Variable::makeTable();
    t.table().set("self", t);
    std::string text = t.toString();
    EXPECT_FALSE(text.empty());
    EXPECT_LT(text.size(), 1u << 20);
    EXPECT_EQ(text.rfind("{self: ", 0), 0u);

    Variable a = Variable::makeArray();
    a.arrayItems().push_back(a);
    EXPECT_LT(a.toString().size(), 1u << 20);
    EXPECT_EQ(a.toString().front(), '[');
    // Break the cycles so the test leaks nothing.
    t.table().clear();
    a.arrayItems().clear();
}

// --- truth --------------------------------------------------------------------------------

TEST(Truth, OnlyNilAndFalseAreFalse) {
    EXPECT_FALSE(isTruthy(Variable()));
    EXPECT_FALSE(isTruthy(Variable(false)));
    EXPECT_TRUE(isTruthy(Variable(true)));
    EXPECT_TRUE(isTruthy(Variable(std::int32_t{0})));
    EXPECT_TRUE(isTruthy(Variable(0.0f)));
    EXPECT_TRUE(isTruthy(Variable("")));
    EXPECT_TRUE(isTruthy(Variable::makeArray()));
    EXPECT_TRUE(isTruthy(Variable::makeTable()));
    EXPECT_TRUE(isTruthy(Variable::fromPointer(nullptr)));
    EXPECT_TRUE(isTruthy(Variable::makeRaw({})));
}

// --- equality and ordering ----------------------------------------------------------------

struct PairCase {
    const char* name;
    Variable left;
    Variable right;
    bool equal;
};
class Equality : public ::testing::TestWithParam<PairCase> {};
TEST_P(Equality, FollowsTheKindRules) {
    EXPECT_EQ(variablesEqual(GetParam().left, GetParam().right), GetParam().equal) << GetParam().name;
    EXPECT_EQ(variablesEqual(GetParam().right, GetParam().left), GetParam().equal) << GetParam().name << " (swapped)";
}
Variable sharedTable = Variable::makeTable();
INSTANTIATE_TEST_SUITE_P(Cases, Equality, ::testing::Values(
    PairCase{"true equals 1", Variable(true), Variable(std::int32_t{1}), true},
    PairCase{"false equals 0.0", Variable(false), Variable(0.0f), true},
    PairCase{"true is not 2", Variable(true), Variable(std::int32_t{2}), false},
    PairCase{"int equals float", Variable(std::int32_t{1}), Variable(1.0f), true},
    PairCase{"int differs from float", Variable(std::int32_t{1}), Variable(1.5f), false},
    PairCase{"int beyond float precision", Variable(std::int32_t{16777217}), Variable(16777216.0f), false},
    PairCase{"int max is not 2^31", Variable(std::int32_t{INT_MAX}), Variable(2147483648.0f), false},
    PairCase{"int min equals -2^31", Variable(std::int32_t{INT_MIN}), Variable(-2147483648.0f), true},
    PairCase{"string 1 is not int 1", Variable("1"), Variable(std::int32_t{1}), false},
    PairCase{"nil equals nil", Variable(), Variable(), true},
    PairCase{"nil is not false", Variable(), Variable(false), false},
    PairCase{"nil is not 0", Variable(), Variable(std::int32_t{0}), false},
    PairCase{"same bytes", Variable("abc"), Variable("abc"), true},
    PairCase{"prefix", Variable("ab"), Variable("abc"), false},
    PairCase{"embedded zero byte", Variable(std::string("a\0b", 3)), Variable(std::string("a\0c", 3)), false},
    PairCase{"raw same bytes", Variable::makeRaw({1, 2}), Variable::makeRaw({1, 2}), true},
    PairCase{"raw differs", Variable::makeRaw({1, 2}), Variable::makeRaw({1, 3}), false},
    PairCase{"raw is not string", Variable::makeRaw({'a'}), Variable("a"), false},
    PairCase{"same pointer", Variable::fromPointer(reinterpret_cast<void*>(16)),
             Variable::fromPointer(reinterpret_cast<void*>(16)), true},
    PairCase{"different pointers", Variable::fromPointer(reinterpret_cast<void*>(16)),
             Variable::fromPointer(reinterpret_cast<void*>(32)), false},
    PairCase{"distinct equal-looking tables", Variable::makeTable(), Variable::makeTable(), false},
    PairCase{"distinct equal-looking arrays", arrayOf({1}), arrayOf({1}), false},
    PairCase{"a table equals itself", sharedTable, sharedTable, true}),
    [](const ::testing::TestParamInfo<PairCase>& info) { return caseName(info, &PairCase::name); });

struct OrderCase {
    const char* name;
    Variable left;
    Variable right;
    int order;
};
class Ordering : public ::testing::TestWithParam<OrderCase> {};
TEST_P(Ordering, GivesThreeWayResult) {
    EXPECT_EQ(compareVariables(GetParam().left, GetParam().right), GetParam().order) << GetParam().name;
    EXPECT_EQ(compareVariables(GetParam().right, GetParam().left), -GetParam().order) << GetParam().name << " (swapped)";
}
INSTANTIATE_TEST_SUITE_P(Cases, Ordering, ::testing::Values(
    OrderCase{"ints", Variable(std::int32_t{1}), Variable(std::int32_t{2}), -1},
    OrderCase{"equal ints", Variable(std::int32_t{5}), Variable(std::int32_t{5}), 0},
    OrderCase{"int and float", Variable(std::int32_t{2}), Variable(1.5f), 1},
    OrderCase{"int equals float", Variable(std::int32_t{2}), Variable(2.0f), 0},
    OrderCase{"int beyond float precision", Variable(std::int32_t{16777217}), Variable(16777216.0f), 1},
    OrderCase{"int max below 2^31", Variable(std::int32_t{INT_MAX}), Variable(2147483648.0f), -1},
    OrderCase{"extreme ints", Variable(std::int32_t{INT_MIN}), Variable(std::int32_t{INT_MAX}), -1},
    OrderCase{"bools", Variable(false), Variable(true), -1},
    OrderCase{"bool and int", Variable(true), Variable(std::int32_t{0}), 1},
    OrderCase{"prefix first", Variable("ab"), Variable("abc"), -1},
    OrderCase{"bytewise", Variable("abd"), Variable("abc"), 1},
    OrderCase{"upper before lower", Variable("Z"), Variable("a"), -1},
    OrderCase{"unsigned bytes", Variable("\xC3\xA9"), Variable("z"), 1},
    OrderCase{"empty first", Variable(""), Variable("a"), -1},
    OrderCase{"equal strings", Variable("same"), Variable("same"), 0}),
    [](const ::testing::TestParamInfo<OrderCase>& info) { return caseName(info, &OrderCase::name); });

struct CompareFailure {
    const char* name;
    Variable left;
    Variable right;
    const char* message;
};
class OrderingFailure : public ::testing::TestWithParam<CompareFailure> {};
TEST_P(OrderingFailure, NamesBothKindsLeftFirst) {
    EXPECT_EQ(messageOf([&] { compareVariables(GetParam().left, GetParam().right); }), GetParam().message)
        << GetParam().name;
}
INSTANTIATE_TEST_SUITE_P(Cases, OrderingFailure, ::testing::Values(
    CompareFailure{"table with int", Variable::makeTable(), Variable(std::int32_t{1}), "Cannot compare table with int"},
    CompareFailure{"int with table", Variable(std::int32_t{1}), Variable::makeTable(), "Cannot compare int with table"},
    CompareFailure{"string with int", Variable("1"), Variable(std::int32_t{1}), "Cannot compare string with int"},
    CompareFailure{"nil with nil", Variable(), Variable(), "Cannot compare not with not"},
    CompareFailure{"arrays", Variable::makeArray(), Variable::makeArray(), "Cannot compare array with array"},
    CompareFailure{"bool with string", Variable(true), Variable("t"), "Cannot compare bool with string"},
    CompareFailure{"pointers", Variable::fromPointer(nullptr), Variable::fromPointer(nullptr),
                   "Cannot compare pointer with pointer"}),
    [](const ::testing::TestParamInfo<CompareFailure>& info) { return caseName(info, &CompareFailure::name); });

// --- array storage, key strings, promotion ------------------------------------------------

struct StorageCase {
    const char* name;
    Variable key;
    bool array;
};
class ArrayStorage : public ::testing::TestWithParam<StorageCase> {};
TEST_P(ArrayStorage, PrefersArrayOnlyForPositiveIntegralKeys) {
    EXPECT_EQ(prefersArrayStorage(GetParam().key), GetParam().array) << GetParam().name;
}
INSTANTIATE_TEST_SUITE_P(Keys, ArrayStorage, ::testing::Values(
    StorageCase{"one", Variable(std::int32_t{1}), true},
    StorageCase{"int max", Variable(std::int32_t{INT_MAX}), true},
    StorageCase{"zero", Variable(std::int32_t{0}), false},
    StorageCase{"negative", Variable(std::int32_t{-1}), false},
    StorageCase{"int min", Variable(std::int32_t{INT_MIN}), false},
    StorageCase{"integral float", Variable(3.0f), true},
    StorageCase{"float one", Variable(1.0f), true},
    StorageCase{"fractional float", Variable(1.5f), false},
    StorageCase{"float just below one", Variable(0.999f), false},
    StorageCase{"float zero", Variable(0.0f), false},
    StorageCase{"float 2^31", Variable(2147483648.0f), true},
    StorageCase{"float beyond 2^31", Variable(4294967296.0f), false},
    StorageCase{"float infinity", Variable(INFINITY), false},
    StorageCase{"float nan", Variable(NAN), false},
    StorageCase{"numeric string", Variable("1"), false},
    StorageCase{"true", Variable(true), false},
    StorageCase{"nil", Variable(), false}),
    [](const ::testing::TestParamInfo<StorageCase>& info) { return caseName(info, &StorageCase::name); });

struct KeyCase {
    const char* name;
    Variable key;
    const char* text;
};
class KeyStrings : public ::testing::TestWithParam<KeyCase> {};
TEST_P(KeyStrings, TurnKeysIntoText) { EXPECT_EQ(keyToString(GetParam().key), GetParam().text) << GetParam().name; }
INSTANTIATE_TEST_SUITE_P(Keys, KeyStrings, ::testing::Values(
    KeyCase{"int", Variable(std::int32_t{42}), "42"},
    KeyCase{"negative int", Variable(std::int32_t{-3}), "-3"},
    KeyCase{"float", Variable(1.5f), "1.500000"},
    KeyCase{"string", Variable("name"), "name"},
    KeyCase{"empty string", Variable(""), ""},
    KeyCase{"true", Variable(true), "true"},
    KeyCase{"false", Variable(false), "false"}),
    [](const ::testing::TestParamInfo<KeyCase>& info) { return caseName(info, &KeyCase::name); });

class BadKeys : public ::testing::TestWithParam<Variable> {};
TEST_P(BadKeys, AreRejected) {
    EXPECT_EQ(messageOf([&] { keyToString(GetParam()); }), "Table key must be string, number, or bool")
        << typeName(GetParam().type());
}
INSTANTIATE_TEST_SUITE_P(Kinds, BadKeys, ::testing::Values(
    Variable(), Variable::makeArray(), Variable::makeTable(), Variable::fromPointer(nullptr),
    Variable::makeRaw({1}), Variable::makeMulti(std::vector<Variable>{})));

TEST(Promotion, KeysElementsByDecimalPosition) {
    Variable v = arrayOf({"a", Variable(), 3});
    promoteArrayVariableToTable(v);
    ASSERT_EQ(v.type(), VarType::Table);
    EXPECT_EQ(v.toString(), "{1: a, 2: not, 3: 3}");
    ASSERT_NE(v.table().find("1"), nullptr);
    EXPECT_EQ(v.table().find("1")->asString(), "a");
    ASSERT_NE(v.table().find("2"), nullptr);
    EXPECT_TRUE(v.table().find("2")->isNil());
    EXPECT_EQ(v.table().find("3")->asInt(), 3);
    EXPECT_EQ(v.table().find("0"), nullptr);
}

TEST(Promotion, LeavesOtherHoldersWithTheOldArray) {
    Variable v = arrayOf({1, 2});
    Variable other = v;
    promoteArrayVariableToTable(v);
    EXPECT_EQ(v.type(), VarType::Table);
    ASSERT_EQ(other.type(), VarType::Array);
    EXPECT_EQ(other.toString(), "[1, 2]");
    v.table().set("1", 9);
    EXPECT_EQ(other.arrayItems()[0].asInt(), 1);
}

TEST(Promotion, EmptyArrayBecomesEmptyTable) {
    Variable v = Variable::makeArray();
    promoteArrayVariableToTable(v);
    EXPECT_EQ(v.type(), VarType::Table);
    EXPECT_EQ(v.table().size(), 0u);
}

// --- sharing --------------------------------------------------------------------------

TEST(Sharing, CopiesOfContainersSeeEachOthersChanges) {
    Variable a = arrayOf({1});
    Variable b = a;
    b.arrayItems().push_back(2);
    EXPECT_EQ(a.toString(), "[1, 2]");
    EXPECT_TRUE(variablesEqual(a, b));

    Variable t = Variable::makeTable();
    Variable u = t;
    u.table().set("k", "v");
    EXPECT_EQ(t.toString(), "{k: v}");
}

TEST(Sharing, CopiesOfStringsAreIndependent) {
    Variable s("ab");
    Variable copy = s;
    s.mutableString() += "c";
    EXPECT_EQ(s.asString(), "abc");
    EXPECT_EQ(copy.asString(), "ab");
}

// --- lifetime ---------------------------------------------------------------------------

// Lives in static storage like a host's process-wide interpreter: constructed before main,
// destroyed after it returns.
Variable gHeldUntilExit;

TEST(VariableLifetimeDeathTest, NestedContainerInStaticStorageIsFreedCleanlyAtExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // Freeing nested containers once during the run, as any script does.
            { Variable dropped = arrayOf({arrayOf({arrayOf({1})}), arrayOf({2})}); }
            gHeldUntilExit = arrayOf({arrayOf({1}), Variable::makeTable()});
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

// --- numeric conversions ------------------------------------------------------------------

TEST(NumericConversion, NumbersAndBoolsConvert) {
    EXPECT_EQ(toDouble(Variable(std::int32_t{-7})), -7.0);
    EXPECT_EQ(toDouble(Variable(2.5f)), 2.5);
    EXPECT_EQ(toDouble(Variable(true)), 1.0);
    EXPECT_EQ(toDouble(Variable(false)), 0.0);
    EXPECT_EQ(toInt(Variable(std::int32_t{INT_MIN})), INT_MIN);
    EXPECT_EQ(toInt(Variable(true)), 1);
    EXPECT_EQ(toInt(Variable(false)), 0);
    EXPECT_EQ(toInt(Variable(3.0f)), 3);
}

class NonNumeric : public ::testing::TestWithParam<Variable> {};
TEST_P(NonNumeric, FailToConvert) {
    EXPECT_EQ(messageOf([&] { toDouble(GetParam()); }), "Expected a numeric value") << typeName(GetParam().type());
    EXPECT_EQ(messageOf([&] { toInt(GetParam()); }), "Expected a numeric value") << typeName(GetParam().type());
}
INSTANTIATE_TEST_SUITE_P(Kinds, NonNumeric, ::testing::Values(
    Variable(), Variable("1"), Variable::makeArray(), Variable::makeTable(), Variable::fromPointer(nullptr),
    Variable::makeRaw({1})));

}  // namespace
}  // namespace korvel
