// The stages of a telnet client's input beside their model, with random bytes in random pieces.
#include "support/debug/TelnetModel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/SeededRandom.h"

namespace {

using namespace Orvex::Testing;

// Bytes that the stages tell apart, more often than others.
uint8_t interestingByte(SeededRandom& random) {
    static const std::vector<int> bytes = {0xFF, 0xFF, 0xF0, 0xFA, 0xFB, 0xFD, 0x1B, '[', '1', ';', 'A', 0x08,
                                           0x7F, 0x0D, 0x0A, 0,    ' ',  '-',  '7',  'x', 'b', 'y', 'e'};
    const int choice = random.between(0, 40);
    return static_cast<uint8_t>(choice < static_cast<int>(bytes.size()) ? bytes[static_cast<size_t>(choice)]
                                                                        : random.between(0, 255));
}

TEST(TelnetModel, StagesAgreeWithIt) {
    SeededRandom random;
    for (int round = 0; round < 1000; ++round) {
        std::vector<uint8_t> input(static_cast<size_t>(random.between(0, 600)));
        for (uint8_t& byte : input) {
            byte = interestingByte(random);
        }
        ASSERT_EQ("", driveTelnet(input.data(), input.size())) << "round " << round;
    }
}

TEST(TelnetModel, PrintableBytesAloneFillLines) {
    SeededRandom random;
    for (int round = 0; round < 300; ++round) {
        std::vector<uint8_t> input(static_cast<size_t>(random.between(0, 3000)));
        for (uint8_t& byte : input) {
            byte = static_cast<uint8_t>(random.between(0, 150) == 0 ? 0x0D : random.between(0x20, 0x7E));
        }
        ASSERT_EQ("", driveTelnet(input.data(), input.size())) << "round " << round;
    }
}

}  // namespace
