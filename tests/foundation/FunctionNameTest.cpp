// Function names in log lines, from what the compilers call them.
#include <Infra/Log.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

// Every kind of function says its own name; both compilers must come to the same.
namespace Sample {

std::string plain(int) {
    return INFRA_FUNCTION;
}
int (*returnsFunction(std::string& name))(int) {
    name = INFRA_FUNCTION;
    return nullptr;
}
int (&returnsArray(std::string& name))[3] {
    static int array[3];
    name = INFRA_FUNCTION;
    return array;
}
struct Plain;
int (Plain::*returnsMember(std::string& name))(int) {
    name = INFRA_FUNCTION;
    return nullptr;
}
int Plain::*returnsField(std::string& name) {
    name = INFRA_FUNCTION;
    return nullptr;
}
template <typename T>
auto returnsWhatItAdds(T number, std::string& name) -> decltype((number + 1) * (number + 2)) {
    name = INFRA_FUNCTION;
    return number;
}
decltype(auto) returnsAuto() {
    return std::string(INFRA_FUNCTION);
}
template <typename T>
std::string templated(T) {
    return INFRA_FUNCTION;
}

struct Plain {
    std::string name;
    Plain() : name(INFRA_FUNCTION) {}
    explicit Plain(int) {}
    std::string member() { return INFRA_FUNCTION; }
    std::string constant() const { return INFRA_FUNCTION; }
    static std::string ofClass() { return INFRA_FUNCTION; }
    virtual std::string overridden() noexcept { return INFRA_FUNCTION; }
    virtual ~Plain() = default;
    std::string onRvalue() && { return INFRA_FUNCTION; }
    const char* const* pointers(std::string& out) {
        out = INFRA_FUNCTION;
        return nullptr;
    }
    unsigned long long number(std::string& out) const {
        out = INFRA_FUNCTION;
        return 0;
    }
    std::function<void(int)> argumentsInResult(std::string& out, void (*)(int)) {
        out = INFRA_FUNCTION;
        return {};
    }

    std::string operator()(int) { return INFRA_FUNCTION; }
    std::string operator<(const Plain&) const { return INFRA_FUNCTION; }
    std::string operator<<(int) const { return INFRA_FUNCTION; }
    std::string operator[](int) { return INFRA_FUNCTION; }
    Plain& operator=(const std::string&) {
        name = INFRA_FUNCTION;
        return *this;
    }
    Plain* operator->() {
        name = INFRA_FUNCTION;
        return this;
    }
    explicit operator bool() {
        name = INFRA_FUNCTION;
        return true;
    }

    std::string inLambda() {
        name = INFRA_FUNCTION;
        return [this]() -> std::string { return name.empty() ? "" : INFRA_FUNCTION; }();
    }
    std::string afterLambda() const {
        const auto add = [](int a) { return a + 1; };
        return add(1) == 2 ? INFRA_FUNCTION : "";
    }
    std::string inLocalClass() const {
        struct Local {
            std::string member() { return INFRA_FUNCTION; }
        };
        return Local().member();
    }
};

struct Dying {
    std::string& name;
    explicit Dying(std::string& out) : name(out) {}
    ~Dying() { name = INFRA_FUNCTION; }
};

template <typename T>
struct Templated {
    std::string member(T) { return INFRA_FUNCTION; }
    template <typename U>
    std::string both(U) {
        return INFRA_FUNCTION;
    }
};

namespace {
std::string unnamed() {
    return INFRA_FUNCTION;
}
}  // namespace

}  // namespace Sample

namespace Orvex::Infra {
namespace {

TEST(FunctionName, PlainFunctions) {
    EXPECT_EQ("Sample::plain", Sample::plain(1));
    EXPECT_EQ("Sample::returnsAuto", Sample::returnsAuto());
    EXPECT_EQ("Sample::(anonymous namespace)::unnamed", Sample::unnamed());
    std::string name;
    Sample::returnsFunction(name);
    EXPECT_EQ("Sample::returnsFunction", name);
    Sample::returnsArray(name);
    EXPECT_EQ("Sample::returnsArray", name);
}

// What they print of such a result looks like the arguments of a function.
TEST(FunctionName, ResultsWithParenthesesAreNotTakenForArguments) {
    std::string name;
    Sample::returnsMember(name);
    EXPECT_EQ("Sample::returnsMember", name);
    Sample::returnsField(name);
    EXPECT_EQ("Sample::returnsField", name);
    Sample::returnsWhatItAdds(1, name);
    EXPECT_EQ("Sample::returnsWhatItAdds", name);
}

TEST(FunctionName, MemberFunctions) {
    Sample::Plain plain;
    EXPECT_EQ("Sample::Plain::Plain", plain.name);
    EXPECT_EQ("Sample::Plain::member", plain.member());
    EXPECT_EQ("Sample::Plain::constant", plain.constant());
    EXPECT_EQ("Sample::Plain::ofClass", Sample::Plain::ofClass());
    EXPECT_EQ("Sample::Plain::overridden", plain.overridden());
    EXPECT_EQ("Sample::Plain::onRvalue", Sample::Plain().onRvalue());
    std::string name;
    plain.pointers(name);
    EXPECT_EQ("Sample::Plain::pointers", name);
    plain.number(name);
    EXPECT_EQ("Sample::Plain::number", name);
    plain.argumentsInResult(name, nullptr);
    EXPECT_EQ("Sample::Plain::argumentsInResult", name);
    { const Sample::Dying dying(name); }
    EXPECT_EQ("Sample::Dying::~Dying", name);
}

TEST(FunctionName, Operators) {
    Sample::Plain plain;
    EXPECT_EQ("Sample::Plain::operator()", plain(1));
    EXPECT_EQ("Sample::Plain::operator<", plain < plain);
    EXPECT_EQ("Sample::Plain::operator<<", plain << 1);
    EXPECT_EQ("Sample::Plain::operator[]", plain[1]);
    plain = std::string();
    EXPECT_EQ("Sample::Plain::operator=", plain.name);
    plain.operator->();
    EXPECT_EQ("Sample::Plain::operator->", plain.name);
    EXPECT_TRUE(static_cast<bool>(plain));
    EXPECT_EQ("Sample::Plain::operator bool", plain.name);
}

TEST(FunctionName, TemplatesWithoutTheirArguments) {
    EXPECT_EQ("Sample::templated", Sample::templated(1));
    EXPECT_EQ("Sample::templated", Sample::templated(std::string()));
    EXPECT_EQ("Sample::Templated::member", Sample::Templated<int>().member(1));
    EXPECT_EQ("Sample::Templated::both", Sample::Templated<std::function<void(int)>>().both(1));
}

TEST(FunctionName, LambdasAreNamedForTheFunctionAroundThem) {
    Sample::Plain plain;
    EXPECT_EQ("Sample::Plain::inLambda", plain.inLambda());
    EXPECT_EQ("Sample::Plain::inLambda", plain.name);
    EXPECT_EQ("Sample::Plain::afterLambda", plain.afterLambda());
    EXPECT_EQ("Sample::Plain::inLocalClass::Local::member", plain.inLocalClass());
}

// Texts as the compilers print them, so that each compiler's tests hold the other's too.
TEST(FunctionName, TextsOfBothCompilers) {
    const auto name = [](const char* pretty) { return std::string(Detail::FunctionName(pretty).text()); };
    EXPECT_EQ("Orvex::Reticor::CSock::Close", name("int Orvex::Reticor::CSock::Close()"));
    EXPECT_EQ("Orvex::A::f", name("static const Orvex::A *Orvex::A::f(void (*)(int))"));
    EXPECT_EQ("Orvex::A::operator=", name("A<T> &Orvex::A<int>::operator=(int) [T = int]"));
    EXPECT_EQ("Orvex::A::operator<<", name("bool Orvex::A<T>::operator<<(A<T>, T) const [with T = int]"));
    EXPECT_EQ("Orvex::A::operator new[]", name("static void* Orvex::A::operator new[](size_t)"));
    EXPECT_EQ("Orvex::A::operator delete[]", name("static void Orvex::A::operator delete [](void*)"));
    EXPECT_EQ("Orvex::A::operator,", name("void Orvex::A::operator,(int)"));
    EXPECT_EQ("Orvex::A::operator->*", name("Orvex::A *Orvex::A::operator->*(int)"));
    EXPECT_EQ("Orvex::operator\"\"_u",
              name("long unsigned int Orvex::operator\"\"_u(long long unsigned int)"));
    EXPECT_EQ("Orvex::A::operator int*", name("Orvex::A::operator int*() volatile"));
    EXPECT_EQ("f", name("decltype ((a + 1)) f(T) [with T = int; decltype ((a + 1)) = int]"));
    EXPECT_EQ("Orvex::A::f", name("int (P::* Orvex::A::f(int) const)(int)"));
    EXPECT_EQ("Orvex::A::f", name("int (P::*Orvex::A::f(std::string &))(int)"));
    EXPECT_EQ("Orvex::A::f", name("auto Orvex::A::f()::(anonymous class)::operator()(int)::(anonymous "
                                  "class)::operator()() const"));
    EXPECT_EQ("Orvex::A::f", name("Orvex::A::f() const::<lambda(auto:1)>::<lambda()>"));
    EXPECT_EQ("S::g", name("std::enable_if_t<(sizeof (T) > 2), int> S::g(T) [with T = int]"));
    EXPECT_EQ("Orvex::A::operator std::function<void(int)>",
              name("Orvex::A::operator std::function<void(int)>()"));
    EXPECT_EQ("Orvex::A::g", name("Orvex::A<int>::g() const::<lambda(int)> mutable"));
    EXPECT_EQ("Orvex::A::g", name("auto Orvex::A<int>::g()::(anonymous class)::operator()(int) [T = int]"));
    EXPECT_EQ("(anonymous namespace)::f", name("{anonymous}::R<void(*)()> {anonymous}::f()"));
    EXPECT_EQ("(anonymous namespace)::operators", name("int (anonymous namespace)::operators()"));
    EXPECT_EQ("main", name("int main(int, char**)"));
    EXPECT_EQ("", name(""));
    EXPECT_EQ("", name(nullptr));
}

TEST(FunctionName, NamesBeyondTheBufferAreCut) {
    const std::string longest(1000, 'x');
    const std::string name = Detail::FunctionName((longest + "()").c_str()).text();
    EXPECT_EQ(longest.substr(0, 255), name);
}

}  // namespace
}  // namespace Orvex::Infra
