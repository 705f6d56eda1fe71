// CNFile against an array of bytes: random writes, reads, seeks and closes, on real files and on devices that
// delay, give short counts and fail.
#include <Reticor/NFile.h>

#include <unistd.h>

#include "support/SeededRandom.h"
#include "support/file/FileWorld.h"

namespace Orvex::Reticor {
namespace {

using Testing::BLOCK;
using Testing::FileFixture;
using Testing::MemoryDevice;
using Testing::SeededRandom;
using Testing::TempFolder;

constexpr int FILES = 12;
constexpr int STEPS = 60;

// A device that tells when it was closed.
template <typename Device>
class Watched : public Device {
public:
    explicit Watched(std::shared_ptr<std::atomic<bool>> closed) : m_closed(std::move(closed)) {}
    void Close() override {
        const std::shared_ptr<std::atomic<bool>> closed = m_closed;
        Device::Close();
        *closed = true;
    }

private:
    const std::shared_ptr<std::atomic<bool>> m_closed;
};

class NFileModel : public FileFixture {
protected:
    // What the file must be like.
    struct Model {
        std::string bytes;
        std::size_t position = 0;

        void write(const std::string& data, std::size_t n) {
            if (n == 0) {
                return;
            }
            bytes.resize(std::max(bytes.size(), position + n));
            bytes.replace(position, n, data, 0, n);
            position += n;
        }
    };

    std::size_t someLength() {
        switch (random.between(0, 3)) {
            case 0:
                return random.between<std::size_t>(1, 20);
            case 1:
                return random.between<std::size_t>(1, 5000);
            case 2:
                return random.between<std::size_t>(1, 3 * BLOCK);
            default:
                return BLOCK;
        }
    }

    void writeSome(CNFile& file, Model& model) {
        const std::string data = Testing::pattern(someLength(), random.between(1u, 1000000u));
        std::size_t done = 0;
        while (done < data.size()) {
            const int before = client->rooms();
            const int n = file.Write(data.data() + done, static_cast<unsigned>(data.size() - done));
            model.write(data.substr(done, static_cast<std::size_t>(n)), static_cast<std::size_t>(n));
            done += static_cast<std::size_t>(n);
            if (done < data.size()) {
                if (random.oneIn(4)) {
                    return;  // message 6 will come while something else is done
                }
                ASSERT_TRUE(Testing::eventually([&] { return client->rooms() > before; }));
            }
        }
    }

    void readSome(CNFile& file, Model& model) {
        const std::size_t len = someLength();
        bool eof = false;
        const bool patient = !random.oneIn(4);
        for (std::size_t done = 0; done < len && !eof;) {
            const int before = client->loads();
            std::string got(len - done, '?');
            const int n = file.Read(got.data(), static_cast<unsigned>(got.size()), eof);
            got.resize(static_cast<std::size_t>(n));
            ASSERT_LE(model.position + got.size(), std::max(model.bytes.size(), model.position));
            ASSERT_TRUE(got == model.bytes.substr(std::min(model.position, model.bytes.size()), got.size()))
                << got.size() << " bytes at " << model.position;
            model.position += got.size();
            done += got.size();
            if (eof) {
                ASSERT_GE(model.position, model.bytes.size()) << "the end of the file is not here";
            } else if (done < len) {
                if (!patient) {
                    return;
                }
                ASSERT_TRUE(Testing::eventually([&] { return client->loads() > before; }));
            }
        }
    }

    void seekSomewhere(CNFile& file, Model& model) {
        const auto size = static_cast<long long>(model.bytes.size());
        const long long target = random.oneIn(3) ? static_cast<long long>(model.position)
                                                 : random.between(0LL, size + (random.oneIn(4) ? 300000 : 0));
        const long long place = std::max(0LL, target + random.between(-3000LL, 3000LL));
        const bool relative = random.oneIn(2);
        ASSERT_EQ(
            0, relative ? file.Seek(place - static_cast<long long>(model.position), 1) : file.Seek(place, 0));
        model.position = static_cast<std::size_t>(place);
    }

    void run(CNFile& file, Model& model) {
        file.SetBufferSize(BLOCK, random.between(1u, 8u));
        file.SetReadAhead(reads_ahead);
        for (int i = 0; i < STEPS && !HasFatalFailure(); ++i) {
            switch (random.between(0, 4)) {
                case 0:
                case 1:
                    writeSome(file, model);
                    break;
                case 2:
                case 3:
                    readSome(file, model);
                    break;
                default:
                    if (reads_ahead && random.oneIn(8)) {
                        file.SetReadAhead(random.oneIn(2));
                    }
                    seekSomewhere(file, model);
            }
        }
    }

    template <typename Device>
    void runOnRealFiles() {
        TempFolder folder;
        for (int i = 0; i < FILES && !HasFatalFailure(); ++i) {
            const std::string path = folder.file(std::to_string(i));
            Model model;
            model.bytes = Testing::pattern(random.between<std::size_t>(0, 400000), static_cast<unsigned>(i));
            Testing::putContent(path, model.bytes);
            const auto is_closed = std::make_shared<std::atomic<bool>>(false);
            CNFile* const file = open(new Watched<Device>(is_closed), path.c_str(), "r+");
            run(*file, model);
            file->Close();
            ASSERT_EVENTUALLY(is_closed->load());
            EXPECT_TRUE(model.bytes == Testing::contentOf(path)) << "file " << i;
        }
        EXPECT_EQ(0, client->errors());
    }

    void runOnAnUnreliableDevice();

    SeededRandom random;
    bool reads_ahead = false;
};

TEST_F(NFileModel, OnTheDefaultDevice) {
    runOnRealFiles<CDefaultStorDev>();
}

TEST_F(NFileModel, OnThePosixDevice) {
    runOnRealFiles<CPosixStorDev>();
}

TEST_F(NFileModel, OnThePosixDeviceReadingAhead) {
    reads_ahead = true;
    runOnRealFiles<CPosixStorDev>();
}

TEST_F(NFileModel, OnADeviceThatDelaysGivesShortCountsAndFails) {
    runOnAnUnreliableDevice();
}

TEST_F(NFileModel, OnADeviceThatDelaysGivesShortCountsAndFailsReadingAhead) {
    reads_ahead = true;
    runOnAnUnreliableDevice();
}

void NFileModel::runOnAnUnreliableDevice() {
    for (int i = 0; i < FILES && !HasFatalFailure(); ++i) {
        MemoryDevice* const device = newDevice();
        auto dice = std::make_shared<SeededRandom>(random.fork());
        std::atomic<int> failures{0};
        device->on_write = [&failures, dice](unsigned len) {
            if (dice->oneIn(10)) {
                ::usleep(dice->between(1u, 2000u));
            }
            if (dice->oneIn(8)) {
                ++failures;
                return dice->oneIn(2) ? -1 : 0;
            }
            return dice->oneIn(3) ? static_cast<int>(dice->between(1u, len)) : MemoryDevice::LET_BE;
        };
        device->on_read = [dice](unsigned len) {
            if (dice->oneIn(10)) {
                ::usleep(dice->between(1u, 2000u));
            }
            return dice->oneIn(3) ? static_cast<int>(dice->between(1u, len)) : MemoryDevice::LET_BE;
        };
        Model model;
        model.bytes = Testing::pattern(random.between<std::size_t>(0, 400000), static_cast<unsigned>(i));
        disk->bytes = model.bytes;
        const int errors = client->errors();
        CNFile* const file = open(device);
        run(*file, model);
        EXPECT_TRUE(model.bytes == closed(file)) << "file " << i;
        EXPECT_EVENTUALLY(client->errors() - errors == failures) << "a message for each failure";
        EXPECT_EQ(1, disk->most_inside);
    }
}

// One thread that writes and reads, one that seeks to where it is, one that closes: what was accepted before
// the end is on the disk.
TEST_F(NFileModel, CloseFromAnotherThreadLosesNothingThatWasAccepted) {
    for (int i = 0; i < 40; ++i) {
        CNFile* const file = open(newDevice());
        file->AddRef();
        const std::string data = Testing::pattern(10 * BLOCK);
        std::atomic<std::size_t> taken{0};
        std::thread writer([&] {
            while (!NFileProbe::over(*file) && taken < data.size()) {
                const std::size_t most = std::min<std::size_t>(5000, data.size() - taken);
                taken +=
                    static_cast<std::size_t>(file->Write(data.data() + taken, static_cast<unsigned>(most)));
            }
        });
        ::usleep(random.between(0u, 300u));
        file->Close();
        writer.join();
        ASSERT_EVENTUALLY(disk->closes == 1);
        EXPECT_TRUE(data.substr(0, taken) == disk->content());
        file->DecRef();
    }
}

}  // namespace
}  // namespace Orvex::Reticor
