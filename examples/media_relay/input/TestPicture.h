// TestPicture: draws a moving picture with a clock and a frame counter, and compresses it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace relay {

/// Every picture differs from the one before: a ball and a band of bars move, the clock runs, the counter
/// counts. One thread at a time.
class TestPicture {
public:
    /// Even numbers, in pixels.
    TestPicture(unsigned width, unsigned height);
    ~TestPicture();
    TestPicture(const TestPicture&) = delete;
    TestPicture& operator=(const TestPicture&) = delete;

    /// Picture `number`, which is shown at `time_us` of the day, as JPEG. Empty if it cannot be compressed.
    std::vector<uint8_t> jpeg(uint64_t number, uint64_t time_us, unsigned fps);
    /// The same picture in a low quality.
    std::vector<uint8_t> lowJpeg() { return compress(kLowQuality); }

private:
    static constexpr int kLowQuality = 10;

    std::vector<uint8_t> compress(int quality);

    struct Colour {
        uint8_t red, green, blue;
    };

    void drawBackground(uint64_t number);
    void drawBall(uint64_t number, unsigned fps);
    void drawText(unsigned x, unsigned y, unsigned scale, const std::string& text);
    void drawLetter(unsigned x, unsigned y, unsigned scale, const uint8_t* rows);
    void fill(unsigned x, unsigned y, unsigned width, unsigned height, Colour colour);

    const unsigned m_width;
    const unsigned m_height;
    std::vector<uint8_t> m_pixels;  // red, green, blue
    void* m_compressor;             // the library's own
};

}  // namespace relay
