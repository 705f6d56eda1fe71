// FunctionName by functions that are made up part by part, so that their names are known; and by any bytes.
#include <Infra/FunctionName.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/SeededRandom.h"

namespace Orvex::Infra {
namespace {

using namespace Testing;

// A part as a compiler prints it, and what of it is in the name.
struct Part {
    std::string printed;
    std::string named;
};

const std::string& one_of(SeededRandom& random, const std::vector<std::string>& choice) {
    return choice[random.between<size_t>(0, choice.size() - 1)];
}

class FunctionMaker {
public:
    explicit FunctionMaker(SeededRandom& random) : m_random(random) {}

    Part make() {
        Part name = scope();
        const Part last = final_name();
        name.printed += last.printed;
        name.named += last.named;
        std::string printed = one_of(m_random, {"", "static ", "virtual ", "constexpr "}) + result();
        printed += name.printed + arguments() + tail();
        return {printed, name.named};
    }

private:
    std::string word() {
        return one_of(m_random, {"Orvex", "A", "CNetSock", "operators", "my_operator", "x1", "decltypes",
                                 "operator_", "lambda", "anonymous"});
    }
    std::string template_arguments() {
        return one_of(m_random,
                      {"<int>", "<A<B<int> > >", "<A<B<int>>>", "<void (*)(int)>", "<T>", "<{anonymous}::X>",
                       "<(anonymous namespace)::X>", "<std::function<void(const char*)> >", "<int [3]>"});
    }
    Part scope() {
        Part all;
        for (int depth = m_random.between(0, 3); depth > 0; --depth) {
            if (m_random.oneIn(5)) {
                all.printed += one_of(m_random, {"{anonymous}::", "(anonymous namespace)::"});
                all.named += "(anonymous namespace)::";
                continue;
            }
            const std::string name = word();
            all.printed += name + (m_random.oneIn(3) ? template_arguments() : "") + "::";
            all.named += name + "::";
        }
        return all;
    }
    Part final_name() {
        if (m_random.oneIn(3)) {
            const std::string op =
                one_of(m_random, {"operator()", "operator[]", "operator<", "operator<<", "operator->",
                                  "operator->*", "operator=", "operator==", "operator>", "operator,",
                                  "operator bool", "operator new", "operator new[]", "operator const char*",
                                  "operator&&", "operator!", "operator std::vector<int>"});
            return {op, op};
        }
        const std::string name = (m_random.oneIn(6) ? "~" : "") + word();
        return {name, name};
    }
    std::string result() {
        return one_of(m_random,
                      {"", "int ", "void ", "const char* ", "const char *", "unsigned long long ",
                       "std::vector<A<int>, B>& ", "decltype(auto) ", "decltype (a + b) ",
                       "static_type<(A)1> ", "Orvex::Reticor::CSock *", "A::B&& ", "<dependent type> "});
    }
    std::string arguments() {
        return one_of(m_random, {"()", "(int)", "(void (*)(int))", "(const A<B(int)>&, ...)", "(A::B *, int)",
                                 "(std::function<void(int, A<int>)>)"});
    }
    std::string tail() {
        return one_of(m_random, {"", " const", " volatile", " &", " &&", " const &", " [with T = int]",
                                 " const [with T = A<int>; U = void (*)(int)]", " [T = A<int>]"});
    }

    SeededRandom& m_random;
};

TEST(FunctionNameModel, EveryKindOfFunctionHasItsQualifiedName) {
    SeededRandom random;
    FunctionMaker maker(random);
    for (int i = 0; i < 20000; ++i) {
        const Part function = maker.make();
        ASSERT_EQ(function.named, Detail::FunctionName(function.printed.c_str()).text()) << function.printed;
    }
}

// A lambda, whatever it is called and however deep, has the name of the function around it.
TEST(FunctionNameModel, LambdasOfEveryFunctionHaveItsName) {
    SeededRandom random;
    FunctionMaker maker(random);
    for (int i = 0; i < 5000; ++i) {
        const Part function = maker.make();
        if (function.printed.back() == ']' && function.printed.find(" [") != std::string::npos) {
            continue;  // What templates stand for comes at the very end.
        }
        std::string printed = function.printed;
        for (int depth = random.between(1, 3); depth > 0; --depth) {
            printed += random.oneIn(2) ? "::<lambda(int)>" : "::(anonymous class)::operator()(int) const";
        }
        ASSERT_EQ(function.named, Detail::FunctionName(printed.c_str()).text()) << printed;
    }
}

// Whatever stands there: it ends, within its room.
TEST(FunctionNameModel, AnyBytesGiveATextOfBoundedLength) {
    SeededRandom random;
    const std::vector<std::string> pieces = {
        "operator",    "(",          ")",        "<", ">", " ",     "::", "*",    "&",
        "{anonymous}", "(anonymous", "decltype", "[", "]", "const", "x",  "\xff", ","};
    for (int i = 0; i < 20000; ++i) {
        std::string printed;
        for (int count = random.between(0, 60); count > 0; --count) {
            printed += random.oneIn(10) ? std::string(1, static_cast<char>(random.between(1, 255)))
                                        : one_of(random, pieces);
        }
        const Detail::FunctionName name(printed.c_str());
        ASSERT_LE(std::strlen(name.text()), 255u);
        // Nothing comes that was not there, but the words for a namespace without a name.
        ASSERT_LE(std::strlen(name.text()), printed.size() + 30 * 11) << printed;
    }
}

TEST(FunctionNameModel, ACopyHasTheTextOfItsOwn) {
    auto* const first = new Detail::FunctionName("int Orvex::f()");
    const Detail::FunctionName copy(*first);
    delete first;
    EXPECT_STREQ("Orvex::f", copy.text());
}

}  // namespace
}  // namespace Orvex::Infra
