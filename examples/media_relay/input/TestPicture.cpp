// TestPicture: pixels by hand, JPEG by libjpeg-turbo.

#include "media_relay/input/TestPicture.h"

#include <turbojpeg.h>
#include <algorithm>
#include <array>
#include <cstdio>

namespace relay {

namespace {

constexpr int kQuality = 80;
constexpr unsigned kLetterWidth = 5;
constexpr unsigned kLetterHeight = 7;
constexpr unsigned kBars = 8;
constexpr uint64_t kSecond_us = 1000000;

struct Letter {
    char letter;
    std::array<uint8_t, kLetterHeight> rows;  // the five low bits of each are its pixels
};

constexpr std::array<Letter, 21> kLetters{{
    {'0', {14, 17, 19, 21, 25, 17, 14}}, {'1', {4, 12, 4, 4, 4, 4, 14}},
    {'2', {14, 17, 1, 2, 4, 8, 31}},     {'3', {31, 2, 4, 2, 1, 17, 14}},
    {'4', {2, 6, 10, 18, 31, 2, 2}},     {'5', {31, 16, 30, 1, 1, 17, 14}},
    {'6', {6, 8, 16, 30, 17, 17, 14}},   {'7', {31, 1, 2, 4, 8, 8, 8}},
    {'8', {14, 17, 17, 14, 17, 17, 14}}, {'9', {14, 17, 17, 15, 1, 2, 12}},
    {':', {0, 12, 12, 0, 12, 12, 0}},    {'.', {0, 0, 0, 0, 0, 12, 12}},
    {'f', {6, 9, 8, 28, 8, 8, 8}},       {'r', {0, 0, 22, 25, 16, 16, 16}},
    {'a', {0, 0, 14, 1, 15, 17, 15}},    {'m', {0, 0, 26, 21, 21, 21, 21}},
    {'e', {0, 0, 14, 17, 31, 16, 14}},   {'l', {12, 4, 4, 4, 4, 4, 14}},
    {'i', {4, 0, 12, 4, 4, 4, 14}},      {'v', {0, 0, 17, 17, 17, 10, 4}},
    {' ', {0, 0, 0, 0, 0, 0, 0}},
}};

constexpr std::array<std::array<uint8_t, 3>, kBars> kBarColours{{{191, 191, 191},
                                                                 {191, 191, 0},
                                                                 {0, 191, 191},
                                                                 {0, 191, 0},
                                                                 {191, 0, 191},
                                                                 {191, 0, 0},
                                                                 {0, 0, 191},
                                                                 {32, 32, 32}}};

const uint8_t* rowsOf(char wanted) {
    for (const Letter& letter : kLetters) {
        if (letter.letter == wanted) {
            return letter.rows.data();
        }
    }
    return kLetters.back().rows.data();
}

/// Where something is that runs to and fro on 0 to `length`.
unsigned bounce(uint64_t step, unsigned length) {
    const uint64_t place = step % (2 * uint64_t{length});
    return static_cast<unsigned>(place < length ? place : 2 * uint64_t{length} - place);
}

std::string timeOfDay(uint64_t time_us) {
    const uint64_t seconds = time_us / kSecond_us;
    char text[32];
    std::snprintf(text, sizeof text, "%02u:%02u:%02u.%03u", static_cast<unsigned>(seconds / 3600 % 24),
                  static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60),
                  static_cast<unsigned>(time_us % kSecond_us / 1000));
    return text;
}

}  // namespace

TestPicture::TestPicture(unsigned width, unsigned height)
    : m_width(width),
      m_height(height),
      m_pixels(size_t{width} * height * 3),
      m_compressor(tjInitCompress()) {}

TestPicture::~TestPicture() {
    if (m_compressor != nullptr) {
        tjDestroy(m_compressor);
    }
}

std::vector<uint8_t> TestPicture::jpeg(uint64_t number, uint64_t time_us, unsigned fps) {
    drawBackground(number);
    drawBall(number, fps);
    const unsigned scale = std::max(1U, m_height / 60);
    const unsigned margin = m_height / 16;
    drawText(margin, margin, scale, timeOfDay(time_us));
    drawText(margin, m_height - margin - scale * kLetterHeight, scale, "frame " + std::to_string(number));
    return compress(kQuality);
}

std::vector<uint8_t> TestPicture::compress(int quality) {
    const int width = static_cast<int>(m_width);
    const int height = static_cast<int>(m_height);
    unsigned long size = tjBufSize(width, height, TJSAMP_420);
    std::vector<uint8_t> bytes(size);
    uint8_t* room = bytes.data();
    if (m_compressor == nullptr || tjCompress2(m_compressor, m_pixels.data(), width, 0, height, TJPF_RGB,
                                               &room, &size, TJSAMP_420, quality, TJFLAG_NOREALLOC) != 0) {
        return {};
    }
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)};
}

/// Colour bars that move to the left, above a field that changes its shade.
void TestPicture::drawBackground(uint64_t number) {
    const unsigned barsEnd = m_height * 2 / 3;
    const auto shift = static_cast<unsigned>(number * 2 % m_width);
    uint8_t* const first = m_pixels.data();
    for (unsigned x = 0; x < m_width; ++x) {
        const unsigned bar = (x + shift) % m_width * kBars / m_width;
        std::copy(kBarColours[bar].begin(), kBarColours[bar].end(), first + size_t{x} * 3);
    }
    const size_t row = size_t{m_width} * 3;
    for (unsigned y = 1; y < barsEnd; ++y) {
        std::copy(first, first + row, first + y * row);
    }
    for (unsigned y = barsEnd; y < m_height; ++y) {
        const auto shade = static_cast<uint8_t>(bounce(number + y, 160));
        std::fill(first + y * row, first + (y + 1) * row, shade);
    }
}

void TestPicture::drawBall(uint64_t number, unsigned fps) {
    const unsigned radius = m_height / 10;
    const uint64_t step = number * m_width / (3 * uint64_t{fps});  // across in three seconds
    const unsigned centreX = radius + bounce(step, m_width - 2 * radius);
    const unsigned centreY = radius + bounce(step * 3 / 4, m_height - 2 * radius);
    for (unsigned y = 0; y < 2 * radius; ++y) {
        for (unsigned x = 0; x < 2 * radius; ++x) {
            const int fromX = static_cast<int>(x) - static_cast<int>(radius);
            const int fromY = static_cast<int>(y) - static_cast<int>(radius);
            if (fromX * fromX + fromY * fromY < static_cast<int>(radius * radius)) {
                fill(centreX - radius + x, centreY - radius + y, 1, 1, {255, 240, 200});
            }
        }
    }
}

void TestPicture::drawText(unsigned x, unsigned y, unsigned scale, const std::string& text) {
    const unsigned step = (kLetterWidth + 1) * scale;
    fill(x - scale, y - scale, static_cast<unsigned>(text.size()) * step + scale, (kLetterHeight + 2) * scale,
         {0, 0, 0});
    for (const char letter : text) {
        drawLetter(x, y, scale, rowsOf(letter));
        x += step;
    }
}

void TestPicture::drawLetter(unsigned x, unsigned y, unsigned scale, const uint8_t* rows) {
    for (unsigned row = 0; row < kLetterHeight; ++row) {
        for (unsigned column = 0; column < kLetterWidth; ++column) {
            if ((rows[row] >> (kLetterWidth - 1 - column) & 1) != 0) {
                fill(x + column * scale, y + row * scale, scale, scale, {255, 255, 255});
            }
        }
    }
}

/// Cut at the picture's edges.
void TestPicture::fill(unsigned x, unsigned y, unsigned width, unsigned height, Colour colour) {
    const unsigned endX = std::min(x + width, m_width);
    const unsigned endY = std::min(y + height, m_height);
    for (unsigned row = y; row < endY; ++row) {
        uint8_t* pixel = m_pixels.data() + (size_t{row} * m_width + x) * 3;
        for (unsigned column = x; column < endX; ++column) {
            *pixel++ = colour.red;
            *pixel++ = colour.green;
            *pixel++ = colour.blue;
        }
    }
}

}  // namespace relay
