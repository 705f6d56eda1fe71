// VideoFormat: H.264 (ISO/IEC 14496-10, 7.3.2) and H.265 (23008-2, 7.3.2), and the boxes for them (14496-15).

#include "media_relay/mp4/VideoFormat.h"

#include <algorithm>
#include <cstdio>

#include "media_relay/mp4/BitReader.h"
#include "media_relay/mp4/Box.h"

namespace relay {

namespace {

constexpr size_t kMaxSets = 2048;  // bytes of all parameter sets; a client gets them before its first frame
constexpr size_t kMaxListed = 31;  // of one kind: their number has five bits
constexpr uint32_t kMaxSide = 16384;  // pixels

/// Sequence parameter sets of these profiles say how colours are stored.
bool saysColours(unsigned profile) {
    for (const unsigned one : {100U, 110U, 122U, 244U, 44U, 83U, 86U, 118U, 128U, 138U, 139U, 134U, 135U}) {
        if (profile == one) {
            return true;
        }
    }
    return false;
}

struct Colours {
    uint32_t format = 1;
    uint32_t lumaBits = 0;  // above eight
    uint32_t chromaBits = 0;
};

void skipScalingLists(BitReader& reader, unsigned lists) {
    for (unsigned list = 0; list < lists; ++list) {
        if (!reader.flag()) {
            continue;
        }
        const unsigned size = list < 6 ? 16 : 64;
        int32_t last = 8;
        int32_t next = 8;
        for (unsigned i = 0; i < size && reader.isGood(); ++i) {
            if (next != 0) {
                const uint32_t code = reader.number();
                const auto half = static_cast<int32_t>(code / 2);
                next = (last + ((code & 1) != 0 ? half + 1 : -half) + 256) & 0xFF;
            }
            last = next != 0 ? next : last;
        }
    }
}

/// What a sequence parameter set of H.264 says of size and colours.
bool readH264(const ByteString& set, VideoFormat& format, Colours& colours) {
    const ByteString plain = withoutEmulation(set.data(), set.size());
    BitReader reader(plain);
    reader.skip(8);
    const unsigned profile = reader.bits(8);
    reader.skip(16);
    reader.number();
    if (saysColours(profile)) {
        colours.format = reader.number();
        if (colours.format == 3) {
            reader.skip(1);
        }
        colours.lumaBits = reader.number();
        colours.chromaBits = reader.number();
        reader.skip(1);
        if (reader.flag()) {
            skipScalingLists(reader, colours.format == 3 ? 12 : 8);
        }
    }
    reader.number();
    const uint32_t order = reader.number();
    if (order == 0) {
        reader.number();
    } else if (order == 1) {
        reader.skip(1);
        reader.number();
        reader.number();
        const uint32_t cycle = std::min<uint32_t>(reader.number(), 255);
        for (uint32_t i = 0; i < cycle; ++i) {
            reader.number();
        }
    }
    reader.number();
    reader.skip(1);
    const uint32_t width = reader.number();
    const uint32_t height = reader.number();
    const bool frames = reader.flag();
    reader.skip(frames ? 1 : 2);
    uint32_t crop[4] = {};
    if (reader.flag()) {
        for (uint32_t& side : crop) {
            side = reader.number();
        }
    }
    const uint32_t stepX = colours.format == 1 || colours.format == 2 ? 2 : 1;
    const uint32_t stepY = (colours.format == 1 ? 2 : 1) * (frames ? 1 : 2);
    const bool small = width < kMaxSide / 16 && height < kMaxSide / 16 && crop[0] < kMaxSide &&
                       crop[1] < kMaxSide && crop[2] < kMaxSide && crop[3] < kMaxSide;
    if (!reader.isGood() || !small || colours.format > 3 || colours.lumaBits > 6 || colours.chromaBits > 6) {
        return false;
    }
    const uint32_t wide = (width + 1) * 16;
    const uint32_t high = (height + 1) * 16 * (frames ? 1 : 2);
    const uint32_t lostX = (crop[0] + crop[1]) * stepX;
    const uint32_t lostY = (crop[2] + crop[3]) * stepY;
    format.width = wide > lostX ? wide - lostX : 0;
    format.height = high > lostY ? high - lostY : 0;
    return format.width > 0 && format.height > 0;
}

/// Of H.265: profile, tier and level as they stand there, too.
bool readH265(const ByteString& set, VideoFormat& format, Colours& colours, ByteString& profile,
              unsigned& layers, bool& nested) {
    const ByteString plain = withoutEmulation(set.data(), set.size());
    BitReader reader(plain);
    reader.skip(16 + 4);
    const unsigned more = reader.bits(3);
    layers = more + 1;
    nested = reader.flag();
    for (int i = 0; i < 12; ++i) {
        profile.push_back(static_cast<uint8_t>(reader.bits(8)));
    }
    bool has[8][2] = {};
    for (unsigned i = 0; i < more; ++i) {
        has[i][0] = reader.flag();
        has[i][1] = reader.flag();
    }
    reader.skip(more > 0 ? (8 - more) * 2 : 0);
    for (unsigned i = 0; i < more; ++i) {
        reader.skip((has[i][0] ? 88 : 0) + (has[i][1] ? 8 : 0));
    }
    reader.number();
    colours.format = reader.number();
    if (colours.format == 3) {
        reader.skip(1);
    }
    const uint32_t width = reader.number();
    const uint32_t height = reader.number();
    uint32_t crop[4] = {};
    if (reader.flag()) {
        for (uint32_t& side : crop) {
            side = reader.number();
        }
    }
    colours.lumaBits = reader.number();
    colours.chromaBits = reader.number();
    const bool small = width <= kMaxSide && height <= kMaxSide && crop[0] < kMaxSide && crop[1] < kMaxSide &&
                       crop[2] < kMaxSide && crop[3] < kMaxSide;
    if (!reader.isGood() || !small || colours.format > 3 || colours.lumaBits > 7 || colours.chromaBits > 7) {
        return false;
    }
    const uint32_t lostX = (crop[0] + crop[1]) * (colours.format == 1 || colours.format == 2 ? 2 : 1);
    const uint32_t lostY = (crop[2] + crop[3]) * (colours.format == 1 ? 2 : 1);
    format.width = width > lostX ? width - lostX : 0;
    format.height = height > lostY ? height - lostY : 0;
    return format.width > 0 && format.height > 0;
}

/// "hvc1.1.6.L93.B0": profile, its compatibility with the bits turned round, tier and level, constraints.
std::string nameH265(const ByteString& profile) {
    uint32_t compatible = 0;
    for (unsigned bit = 0; bit < 32; ++bit) {
        compatible |= (profile[1 + bit / 8] >> (7 - bit % 8) & 1U) << bit;
    }
    const char* const spaces[] = {"", "A", "B", "C"};
    char text[64];
    std::snprintf(text, sizeof text, "hvc1.%s%u.%X.%c%u", spaces[profile[0] >> 6], profile[0] & 0x1FU,
                  compatible, (profile[0] & 0x20) != 0 ? 'H' : 'L', static_cast<unsigned>(profile[11]));
    std::string name = text;
    size_t last = 10;
    while (last > 4 && profile[last] == 0) {
        --last;
    }
    for (size_t i = 5; i <= last; ++i) {
        std::snprintf(text, sizeof text, ".%X", static_cast<unsigned>(profile[i]));
        name += text;
    }
    return name;
}

}  // namespace

std::vector<NalUnit> cutNalUnits(const std::vector<uint8_t>& bytes) {
    std::vector<NalUnit> units;
    size_t begin = 0;  // of the unit under way; 0: there is none
    for (size_t i = 2; i <= bytes.size(); ++i) {
        const bool over = i == bytes.size();
        if (!over && (bytes[i] != 1 || bytes[i - 1] != 0 || bytes[i - 2] != 0)) {
            continue;
        }
        if (begin != 0) {
            size_t end = over ? i : i - 2;
            while (end > begin && bytes[end - 1] == 0) {  // zeros belong to what follows, or are filling
                --end;
            }
            if (end > begin) {
                units.push_back({bytes.data() + begin, end - begin});
            }
        }
        begin = i + 1;
    }
    return units;
}

ParameterSets::Kind ParameterSets::kindOf(const NalUnit& unit) const {
    if (m_codec == Codec::H264) {
        const unsigned type = unit.bytes[0] & 0x1FU;
        return type == 7                 ? Kind::Sequence
               : type == 8               ? Kind::Picture
               : type >= 9 && type <= 12 ? Kind::Filling
                                         : Kind::Other;
    }
    const unsigned type = unit.bytes[0] >> 1 & 0x3FU;
    return type == 32                 ? Kind::Video
           : type == 33               ? Kind::Sequence
           : type == 34               ? Kind::Picture
           : type >= 35 && type <= 38 ? Kind::Filling
                                      : Kind::Other;
}

void ParameterSets::remember(Kind kind, const NalUnit& unit) {
    const size_t head = m_codec == Codec::H264 ? 1 : 2;
    const ByteString plain = withoutEmulation(unit.bytes, std::min<size_t>(unit.size, 64));
    BitReader reader(plain);
    uint32_t id = 0;  // a stream has one set of the sequence at a time: another one takes its place
    if (kind == Kind::Picture) {
        reader.skip(static_cast<unsigned>(head) * 8);
        id = reader.number();
    }
    if (m_sets.size() > kMaxListed) {  // of nonsense
        m_sets.clear();
    }
    ByteString set(unit.bytes, unit.bytes + unit.size);
    ByteString& place = m_sets[{kind, id}];
    if (kind == Kind::Sequence && !place.empty() && place != set) {
        for (auto at = m_sets.begin(); at != m_sets.end();) {  // those for pictures belonged to it
            at = at->first.first == Kind::Picture ? m_sets.erase(at) : std::next(at);
        }
    }
    place = std::move(set);
}

void ParameterSets::take(const std::vector<uint8_t>& picture, bool key, ByteString& sample) {
    BoxWriter writer(sample);
    for (const NalUnit& unit : cutNalUnits(picture)) {
        const Kind kind = kindOf(unit);
        const bool set = kind != Kind::Filling && kind != Kind::Other;
        if (set && unit.size > (kind == Kind::Picture ? 1U : 3U) && unit.size <= kMaxSets) {
            remember(kind, unit);
        }
        if (kind == Kind::Other || (set && !key)) {
            writer.u32(unit.size);
            sample.insert(sample.end(), unit.bytes, unit.bytes + unit.size);
        }
    }
}

void ParameterSets::makeH264(VideoFormat& format) const {
    const ByteString& first = m_sets.at({Kind::Sequence, 0});
    Colours colours;
    if (!readH264(first, format, colours)) {
        return;
    }
    char text[16];
    std::snprintf(text, sizeof text, "avc1.%02x%02x%02x", static_cast<unsigned>(first[1]),
                  static_cast<unsigned>(first[2]), static_cast<unsigned>(first[3]));
    BoxWriter box(format.configuration);
    const size_t begin = box.begin("avcC");
    box.u8(1).u8(first[1]).u8(first[2]).u8(first[3]).u8(0xFF);  // lengths have four bytes
    box.u8(0xE1).u16(static_cast<unsigned>(first.size())).raw(first);
    box.u8(static_cast<unsigned>(m_sets.size() - 1));
    for (const auto& [key, set] : m_sets) {
        if (key.first == Kind::Picture) {
            box.u16(static_cast<unsigned>(set.size())).raw(set);
        }
    }
    if (saysColours(first[1])) {
        box.u8(0xFC | colours.format).u8(0xF8 | colours.lumaBits).u8(0xF8 | colours.chromaBits).u8(0);
    }
    box.end(begin);
    format.name = text;
}

void ParameterSets::makeH265(VideoFormat& format) const {
    Colours colours;
    ByteString profile;
    unsigned layers = 1;
    bool nested = false;
    if (!readH265(m_sets.at({Kind::Sequence, 0}), format, colours, profile, layers, nested)) {
        return;
    }
    BoxWriter box(format.configuration);
    const size_t begin = box.begin("hvcC");
    box.u8(1).raw(profile).u16(0xF000).u8(0xFC);  // neither segmentation nor parallelism is told
    box.u8(0xFC | colours.format).u8(0xF8 | colours.lumaBits).u8(0xF8 | colours.chromaBits).u16(0);
    box.u8(layers << 3 | (nested ? 4U : 0U) | 3U);  // lengths have four bytes
    box.u8(3);
    for (const Kind kind : {Kind::Video, Kind::Sequence, Kind::Picture}) {
        const auto isOne = [&](const auto& entry) { return entry.first.first == kind; };
        box.u8(0x80U | (32U + static_cast<unsigned>(kind)));  // all of them are here
        box.u16(static_cast<unsigned>(std::count_if(m_sets.begin(), m_sets.end(), isOne)));
        for (const auto& entry : m_sets) {
            if (isOne(entry)) {
                box.u16(static_cast<unsigned>(entry.second.size())).raw(entry.second);
            }
        }
    }
    box.end(begin);
    format.name = nameH265(profile);
}

bool ParameterSets::makeFormat(VideoFormat& format) const {
    format = VideoFormat();
    format.codec = m_codec;
    size_t bytes = 0;
    size_t kinds[3] = {};
    for (const auto& [key, set] : m_sets) {
        bytes += set.size();
        ++kinds[static_cast<size_t>(key.first)];
    }
    const bool h265 = m_codec == Codec::H265;
    if (kinds[1] == 0 || kinds[2] == 0 || (h265 && kinds[0] == 0) || bytes > kMaxSets ||
        m_sets.size() > kMaxListed) {
        return false;
    }
    h265 ? makeH265(format) : makeH264(format);
    return !format.name.empty();
}

}  // namespace relay
