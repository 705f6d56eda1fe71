// Function objects: kinds, calls, copies and the complaint about an empty one.
#include <Infra/Function.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <type_traits>

namespace Orvex::Infra {
namespace {

struct Counter {
    int value = 0;
    int none() { return ++value; }
    int one(int a) { return value += a; }
    int two(int a, int b) { return value += a * b; }
    int three(int a, int b, int c) { return value += a + b + c; }
    int four(int a, int b, int c, int d) { return value += a + b + c + d; }
    int five(int a, int b, int c, int d, int e) { return value += a + b + c + d + e; }
    int six(int a, int b, int c, int d, int e, int f) { return value += a + b + c + d + e + f; }
    int read() const { return value; }
    int quiet() noexcept { return -value; }
    virtual int who() { return 1; }
    virtual ~Counter() = default;
};

struct Other {
    virtual int second() { return other; }
    virtual ~Other() = default;
    int other = 55;
};

struct Derived : Other, Counter {
    int who() override { return 2; }
    int second() override { return other + 1; }
};

int plainSum(int a, int b) {
    return a + b;
}
int g_plain_calls = 0;
void plainCount() {
    ++g_plain_calls;
}

TEST(Function, CallsMemberFunctionsWithEveryNumberOfArguments) {
    Counter counter;
    EXPECT_EQ(1, TFunction0<int>(&Counter::none, &counter)());
    EXPECT_EQ(3, (TFunction1<int, int>(&Counter::one, &counter)(2)));
    EXPECT_EQ(9, (TFunction2<int, int, int>(&Counter::two, &counter)(2, 3)));
    EXPECT_EQ(15, (TFunction3<int, int, int, int>(&Counter::three, &counter)(1, 2, 3)));
    EXPECT_EQ(19, (TFunction4<int, int, int, int, int>(&Counter::four, &counter)(1, 1, 1, 1)));
    EXPECT_EQ(24, (TFunction5<int, int, int, int, int, int>(&Counter::five, &counter)(1, 1, 1, 1, 1)));
    EXPECT_EQ(30, (TFunction6<int, int, int, int, int, int, int>(&Counter::six, &counter)(1, 1, 1, 1, 1, 1)));
}

TEST(Function, CallsConstAndNoexceptMemberFunctions) {
    Counter counter;
    counter.value = 4;
    const Counter& constant = counter;
    EXPECT_EQ(4, TFunction0<int>(&Counter::read, &constant)());
    EXPECT_EQ(-4, TFunction0<int>(&Counter::quiet, &counter)());
}

TEST(Function, CallsTheOverrideAndFindsTheRightBase) {
    Derived derived;
    EXPECT_EQ(2, TFunction0<int>(&Counter::who, &derived)());
    EXPECT_EQ(56, TFunction0<int>(&Other::second, &derived)());
    EXPECT_EQ(1, TFunction0<int>(&Derived::none, &derived)());
    EXPECT_EQ(1, derived.value);
}

TEST(Function, CallsPlainFunctions) {
    const TFunction2<int, int, int> sum(&plainSum);
    EXPECT_EQ(7, sum(3, 4));
    const TFunction0<void> count = plainCount;
    g_plain_calls = 0;
    count();
    EXPECT_EQ(1, g_plain_calls);
}

TEST(Function, KindsTellWhatIsHeld) {
    Counter counter;
    const TFunction0<int> none;
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(0u, none.kind());
    EXPECT_EQ(nullptr, none.object());
    EXPECT_EQ(nullptr, none.typeName());

    const TFunction0<int> member(&Counter::none, &counter);
    EXPECT_FALSE(member.empty());
    EXPECT_EQ(1u, member.kind());
    EXPECT_EQ(&counter, member.object());
    EXPECT_STREQ(typeid(Counter).name(), member.typeName());

    const TFunction2<int, int, int> plain(&plainSum);
    EXPECT_FALSE(plain.empty());
    EXPECT_EQ(2u, plain.kind());
    EXPECT_EQ(nullptr, plain.typeName());

    int (*const missing)(int, int) = nullptr;
    EXPECT_TRUE((TFunction2<int, int, int>(missing).empty()));
}

TEST(Function, IsAValueOfOneSize) {
    using Largest = TFunction6<std::string, int, int, int, int, int, int>;
    static_assert(std::is_trivially_copyable_v<Largest>);
    static_assert(sizeof(TFunction0<void>) == sizeof(Largest));
    Counter counter;
    TFunction0<int> first(&Counter::none, &counter);
    TFunction0<int> second;
    second = first;
    EXPECT_EQ(1, second());
    EXPECT_EQ(2, first());
    second = TFunction0<int>();
    EXPECT_TRUE(second.empty());
}

struct Taker {
    int sum = 0;
    void byReference(int& out) { out = 9; }
    void byMove(std::unique_ptr<int> value) { sum += *value; }
    std::string text(const std::string& a, std::string b) { return a + b; }
};

TEST(Function, ArgumentsArriveAsDeclared) {
    Taker taker;
    int out = 0;
    TFunction1<void, int&>(&Taker::byReference, &taker)(out);
    EXPECT_EQ(9, out);
    TFunction1<void, std::unique_ptr<int>>(&Taker::byMove, &taker)(std::make_unique<int>(5));
    EXPECT_EQ(5, taker.sum);
    EXPECT_EQ("ab",
              (TFunction2<std::string, const std::string&, std::string>(&Taker::text, &taker)("a", "b")));
}

TEST(Function, KindsFromSixteenOnAreMembersThatSayTheirKind) {
    Counter counter;
    TFunction0<int> function(&Counter::none, &counter);
    Detail::setCurrentFunctionReuse(0);
    testing::internal::CaptureStdout();
    for (const uint32_t kind : {16u, 17u, 4000000000u}) {
        function.setKind(kind);
        function();
        EXPECT_EQ(kind, Detail::currentFunctionReuse());
    }
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(3, counter.value);
}

TEST(Function, KindsOneAndTwoSayNothing) {
    Counter counter;
    Detail::setCurrentFunctionReuse(0);
    testing::internal::CaptureStdout();
    TFunction0<int>(&Counter::none, &counter)();
    TFunction2<int, int, int>{&plainSum}(1, 2);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0u, Detail::currentFunctionReuse());
}

TEST(Function, OtherKindsComplainAndAreCalledAsMembersAllTheSame) {
    Counter counter;
    TFunction0<int> function(&Counter::none, &counter);
    for (const uint32_t kind : {0u, 3u, 15u}) {
        function.setKind(kind);
        testing::internal::CaptureStdout();
        function();
        EXPECT_EQ("FUNCTION_FUNCTION::operator() invalid function type : " + std::to_string(kind) +
                      ", typeid : " + typeid(Counter).name() + "\n",
                  testing::internal::GetCapturedStdout());
    }
    EXPECT_EQ(3, counter.value);
}

// The complaint must be out before the call that ends the process, also through a pipe, which is not
// line-buffered.
TEST(FunctionDeath, CallOfAnEmptyOneComplainsAndEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            const TFunction0<void> function;
            function();
        },
        "FUNCTION_FUNCTION::operator\\(\\) invalid function type : 0, typeid : \\(null\\)\n");
}

}  // namespace
}  // namespace Orvex::Infra
