// What streams of pictures have in common in the tests: their pace, their groups, their channels.
#pragma once

#include <cstdint>

namespace Orvex::Testing {

constexpr int64_t FRAME_US = 40000;
constexpr int GROUP = 10;  // frames from key frame to key frame
constexpr int PICTURE = 0;
constexpr int SOUND = 1;

}  // namespace Orvex::Testing
