// Relaxed reads and writes of plain fields.
#include <Infra/Atomic.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

namespace Orvex::Infra {
namespace {

struct Record {
    uint32_t flags = 0;
    int64_t count = 0;
    Record* next = nullptr;
};

TEST(Atomic, FieldsKeepTheirTypeAndValue) {
    Record record;
    relaxedStore(record.flags, 1024);
    relaxedStore(record.count, -7);
    relaxedStore(record.next, &record);
    EXPECT_EQ(1024u, relaxedLoad(record.flags));
    EXPECT_EQ(-7, relaxedLoad(record.count));
    EXPECT_EQ(&record, relaxedLoad(record.next));
    relaxedStore(record.next, nullptr);
    EXPECT_EQ(nullptr, record.next);
}

// A loop on a plain field would never see the change, or be a race to TSan.
TEST(Atomic, AnotherThreadSeesAStore) {
    Record record;
    std::thread writer([&] { relaxedStore(record.flags, 1u); });
    while (relaxedLoad(record.flags) == 0) {
        std::this_thread::yield();
    }
    writer.join();
}

}  // namespace
}  // namespace Orvex::Infra
