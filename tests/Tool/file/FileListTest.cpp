// FileList: every file is given to the end once, as long as its pool knows it.
#include "Tool/file/FileList.h"

#include "Core/pool/ThreadPool.h"
#include "support/Rounds.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

// Three files, whose own places in the list have been seen, so that the case's places are all there is.
class FileListOfThree : public Testing::StillFileFixture {
protected:
    void SetUp() override {
        StillFileFixture::SetUp();
        for (int i = 0; i < 3; ++i) {
            files.push_back(open(newDevice()));
            disks.push_back(disk);
        }
        int seen = 0;
        while (seen < 10 && next() != nullptr) {
            ++seen;
        }
        ASSERT_EQ(3, seen);
    }
    void TearDown() override {
        for (CNFile* file : files) {
            file->Close();
        }
        drain();
        for (const auto& life : disks) {
            EXPECT_EVENTUALLY(life->closes == 1);
        }
        StillFileFixture::TearDown();
    }
    static CThreadPool& pool() { return *PoolTable::Get(0); }
    // The file that comes next; null if none does. Its pin is dropped.
    static CNetHandler* next() { return FileList::next_to_end(pool()).get(); }

    // A place that the case enters, and that leaves with it.
    struct Place : FileList {
        explicit Place(CNFile& file) : FileList(file) { enter(); }
        ~Place() { leave(); }
    };

    std::vector<CNFile*> files;
    std::vector<std::shared_ptr<Testing::DeviceLife>> disks;
};

TEST_F(FileListOfThree, AnEmptyListHasNobodyToEnd) {
    EXPECT_EQ(nullptr, next());
}

TEST_F(FileListOfThree, EachIsGivenOnceTheLastOneFirst) {
    const Place first(*files[0]), second(*files[1]), third(*files[2]);
    EXPECT_EQ(files[2], next());
    EXPECT_EQ(files[1], next());
    EXPECT_EQ(files[0], next());
    EXPECT_EQ(nullptr, next());
    EXPECT_EQ(nullptr, next());
}

TEST_F(FileListOfThree, OneThatHasLeftIsNotGivenWhereverItStood) {
    for (size_t gone = 0; gone < 3; ++gone) {
        std::vector<std::unique_ptr<Place>> places;
        for (CNFile* file : files) {
            places.push_back(std::make_unique<Place>(*file));
        }
        places[gone].reset();
        for (size_t i = 3; i-- > 0;) {
            if (i != gone) {
                EXPECT_EQ(files[i], next()) << "without " << gone;
            }
        }
        EXPECT_EQ(nullptr, next());
    }
}

TEST_F(FileListOfThree, OneThatEntersMeanwhileIsGivenToo) {
    const Place first(*files[0]);
    EXPECT_EQ(files[0], next());
    const Place second(*files[1]);
    EXPECT_EQ(files[1], next());
    EXPECT_EQ(nullptr, next());
}

TEST_F(FileListOfThree, AFileThatAnotherPoolKnowsIsPassedOver) {
    const int index = CNetThread::CreatePrivatePool(1, false);
    ASSERT_GT(index, 0);
    const Place first(*files[0]), second(*files[1]);
    EXPECT_EQ(nullptr, FileList::next_to_end(*PoolTable::Get(index)).get());
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(index));
}

TEST_F(FileListOfThree, AFileThatThePoolKnowsNoLongerIsPassedOver) {
    const Place first(*files[0]), second(*files[1]), third(*files[2]);
    files[1]->AddRef();
    { const HandlerPin its_own = pool().DetachObject(files[1]->GetID()); }
    EXPECT_EQ(files[2], next());
    EXPECT_EQ(files[0], next());
    EXPECT_EQ(nullptr, next());
    files[1]->CNetHandler::Close();
    // handle_close closes the device.
    files[1]->DecRef();
    EXPECT_EQ(1, disks[1]->closes);
    files.erase(files.begin() + 1);
}

TEST_F(FileListOfThree, WhatIsGivenStaysAsLongAsItsPin) {
    const Place place(*files[0]);
    HandlerPin pin = FileList::next_to_end(pool());
    ASSERT_EQ(files[0], pin.get());
    { const HandlerPin its_own = pool().DetachObject(files[0]->GetID()); }
    files[0]->CNetHandler::Close();
    EXPECT_EQ(0, disks[0]->closes);
    pin = HandlerPin();
    EXPECT_EQ(1, disks[0]->closes);
    files.erase(files.begin());
}

TEST_F(FileListOfThree, PlacesComeAndGoOnManyThreads) {
    constexpr int COUNT = 3;
    const Place first(*files[0]);
    std::atomic<int> ready{0};
    std::atomic<int> over{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < COUNT; ++i) {
        threads.emplace_back([&] {
            ++ready;
            while (ready < COUNT) {
                std::this_thread::yield();
            }
            for (Testing::Rounds rounds(50000); rounds.next();) {
                const Place one(*files[1]);
                const Place other(*files[2]);
            }
            ++over;
        });
    }
    int found = 0;
    while (over < COUNT) {
        found += next() == files[0] ? 1 : 0;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < 10; ++i) {
        found += next() == files[0] ? 1 : 0;
    }
    EXPECT_EQ(1, found) << "once among all the others";
}

}  // namespace
}  // namespace Orvex::Reticor
