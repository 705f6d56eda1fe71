// VideoFormat: what a decoder must know before the first picture: parameter sets, size, and the name of both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "media_relay/mpegts/TsSections.h"

namespace relay {

/// A unit of a picture's bytes, without its start code. A view.
struct NalUnit {
    const uint8_t* bytes;
    size_t size;  // 1 at least
};

/// Cuts the bytes of a picture at their start codes (ISO/IEC 14496-10, annex B).
std::vector<NalUnit> cutNalUnits(const std::vector<uint8_t>& bytes);

using ByteString = std::vector<uint8_t>;

/// Made from parameter sets alone.
struct VideoFormat {
    Codec codec = Codec::Other;
    unsigned width = 0;
    unsigned height = 0;
    std::string name;          // as a browser knows it, "avc1.64001f"
    ByteString configuration;  // the whole avcC or hvcC box
};

/// The parameter sets that a stream has sent within its pictures, and what of a picture is left without them.
class ParameterSets {
public:
    explicit ParameterSets(Codec codec = Codec::Other) : m_codec(codec) {}

    /// Takes the parameter sets out of a picture and appends the rest of it to `sample`, each unit with its
    /// length in front. Of a picture that is not `key` sets are remembered, and stay where they are: what
    /// is said once and for all was said at the key frame before.
    void take(const std::vector<uint8_t>& picture, bool key, ByteString& sample);

    /// False as long as they are not complete, or not sound, or too long.
    bool makeFormat(VideoFormat& format) const;

private:
    enum class Kind { Video, Sequence, Picture, Filling, Other };  // in the order in which they are listed

    Kind kindOf(const NalUnit& unit) const;
    void remember(Kind kind, const NalUnit& unit);
    void makeH264(VideoFormat& format) const;
    void makeH265(VideoFormat& format) const;

    Codec m_codec;
    std::map<std::pair<Kind, uint32_t>, ByteString> m_sets;  // by the number that they have
};

}  // namespace relay
