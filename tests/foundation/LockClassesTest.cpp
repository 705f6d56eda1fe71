// The classes of locks: their words, and that a class costs a lock nothing.
#if defined(__clang__)
// Here a lock is entered in a way that the analysis cannot follow.
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif
#include <Infra/LockClasses.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <type_traits>

#include <Infra/Mutex.h>

namespace Orvex::Infra {
namespace {

TEST(LockClasses, EachHasAWordOfItsOwn) {
    std::set<std::string> words;
    size_t count = 0;
#define INFRA_LOCK_CLASS(name, lock, guards)               \
    words.insert(lock_class_word(LockClass::name));        \
    EXPECT_STREQ(#name, lock_class_word(LockClass::name)); \
    ++count;
    INFRA_LOCK_CLASSES(INFRA_LOCK_CLASS)
#undef INFRA_LOCK_CLASS
    EXPECT_EQ(count, words.size());
}

TEST(LockClasses, ALockWithoutOneIsAProducts) {
    EXPECT_STREQ("a product's lock", lock_class_word(UNNAMED_LOCK));
    EXPECT_STREQ("a product's lock", lock_class_word(LockClass{60000}));
}

TEST(LockClasses, AClassChangesNeitherSizeNorUse) {
    static_assert(sizeof(CMutex) == 16);
    static_assert(alignof(CReadWriteMutex) == 128);
    static_assert(sizeof(CReadWriteMutex) == 128 * (CReadWriteMutex::SLOT_COUNT + 1));
    static_assert(!std::is_copy_constructible_v<CMutex> && !std::is_copy_assignable_v<CMutex>);
    static_assert(!std::is_copy_constructible_v<CReadWriteMutex>);
    CMutex mutex{LockClass::LOG};
    EXPECT_TRUE(mutex.tryEnter());
    EXPECT_TRUE(mutex.leave());
    CReadWriteMutex lock{LockClass::SOCKET_TREE};
    EXPECT_TRUE(lock.enterWriting());
    EXPECT_TRUE(lock.leave());
}

}  // namespace
}  // namespace Orvex::Infra
