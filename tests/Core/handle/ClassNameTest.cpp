// class_name: of which class a handler is, for people.
#include "Core/handle/ClassName.h"

#include <gtest/gtest.h>

#include <string>

#include "support/PoolFixture.h"
#include "support/socket/Allocations.h"

namespace Orvex::Testing {

// Tells its name from inside of its base's constructor and destructor.
struct NameTeller : TestHandler {
    explicit NameTeller(std::string* at_the_end)
        : m_at_the_end(at_the_end), in_base(Reticor::class_name(*this)) {}
    ~NameTeller() override { *m_at_the_end = Reticor::class_name(*this); }

private:
    std::string* m_at_the_end;

public:
    const std::string in_base;
};

struct DerivedTeller final : NameTeller {
    using NameTeller::NameTeller;
};

template <int NUMBER, class Kind>
struct TemplateHandler : TestHandler {};

namespace {

using Reticor::class_name;

class ClassNameCases : public PoolFixture {};

struct HiddenHandler : TestHandler {};

TEST_F(ClassNameCases, IsThatOfTheMostDerivedClass) {
    auto* const plain = new TestHandler;
    auto* const hidden = new HiddenHandler;
    auto* const complex = new TemplateHandler<7, std::pair<int, char>>;
    const Reticor::CNetHandler& seen_as_base = *hidden;
    EXPECT_EQ("Orvex::Testing::TestHandler", class_name(*plain));
    EXPECT_EQ("Orvex::Testing::(anonymous namespace)::HiddenHandler", class_name(seen_as_base));
    EXPECT_EQ("Orvex::Testing::TemplateHandler<7, std::pair<int, char> >", class_name(*complex));
    closeAndWait(plain);
    closeAndWait(hidden);
    closeAndWait(complex);
}

TEST_F(ClassNameCases, OfAClassInsideOfAFunctionNamesTheFunctionToo) {
    struct Local : TestHandler {};
    auto* const local = new Local;
    EXPECT_NE(std::string::npos, class_name(*local).find("::Local"));
    EXPECT_NE(std::string::npos, class_name(*local).find("TestBody()"));
    closeAndWait(local);
}

TEST_F(ClassNameCases, FollowsTheObjectAsItIsMadeAndEnded) {
    std::string at_the_end;
    auto* const handler = new DerivedTeller(&at_the_end);
    EXPECT_EQ("Orvex::Testing::NameTeller", handler->in_base);
    EXPECT_EQ("Orvex::Testing::DerivedTeller", class_name(*handler));
    closeAndWait(handler);
    EXPECT_EQ("Orvex::Testing::NameTeller", at_the_end);
}

TEST_F(ClassNameCases, IsEmptyWithoutMemory) {
    auto* const handler = new TestHandler;
    std::string name = "was there before";
    {
        const NoMemory no_memory;
        name = class_name(*handler);
    }
    EXPECT_EQ("", name);
    EXPECT_EQ("Orvex::Testing::TestHandler", class_name(*handler));
    closeAndWait(handler);
}

}  // namespace
}  // namespace Orvex::Testing
