// Playlist: tag by tag.

#include "media_relay/hls/Playlist.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace relay {

namespace {

constexpr unsigned HOLD_BACK_PARTS =
    3;  // a player stays so many parts from the end: one under way, one to play
constexpr uint64_t LISTED_PARTS_TARGETS = 3;  // parts of segments older than that are of no use

/// Ticks as seconds. Rounded down, what is listed is never longer than the target that is rounded up.
std::string seconds(uint64_t ticks, bool up = false) {
    const uint64_t parts = (ticks * 100000 + (up ? kVideoScale - 1 : 0)) / kVideoScale;
    char text[32];
    std::snprintf(text, sizeof text, "%ju.%05ju", static_cast<uintmax_t>(parts / 100000),
                  static_cast<uintmax_t>(parts % 100000));
    return text;
}

std::string dateTime(int64_t wall_us) {
    const auto whole = static_cast<time_t>(wall_us / 1000000);
    tm parts{};
    gmtime_r(&whole, &parts);
    char date[32];
    char text[48];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text, sizeof text, "%s.%03dZ", date, static_cast<int>(wall_us / 1000 % 1000));
    return text;
}

class Writer {
public:
    Writer(const Window& window, const std::string& folder) : m_window(window), m_folder(folder) {}

    std::string write() {
        writeHead();
        const auto& segments = m_window.segments();
        uint64_t after = m_window.underWay() != nullptr ? m_window.underWay()->duration : 0;
        for (const Segment& segment : segments) {
            after += segment.duration;
        }
        for (size_t i = 0; i < segments.size(); ++i) {
            after -= segments[i].duration;
            if (i >= m_window.firstListed()) {
                writeSegment(segments[i], after < LISTED_PARTS_TARGETS * m_window.target_s() * kVideoScale);
            }
        }
        if (m_window.isOver()) {
            return m_text + "#EXT-X-ENDLIST\n";
        }
        writeUnderWay();
        return m_text;
    }

private:
    void writeHead() {
        const auto& segments = m_window.segments();
        const auto listed = segments.begin() + static_cast<ptrdiff_t>(m_window.firstListed());
        const std::string hold = seconds(m_window.partTarget() * HOLD_BACK_PARTS, true);
        m_text = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:" + std::to_string(m_window.target_s()) +
                 "\n#EXT-X-SERVER-CONTROL:CAN-BLOCK-RELOAD=YES,PART-HOLD-BACK=" + hold +
                 "\n#EXT-X-PART-INF:PART-TARGET=" + seconds(m_window.partTarget(), true) +
                 "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(listed->number) + "\n";
        if (m_window.jumpsBefore() != 0) {
            m_text += "#EXT-X-DISCONTINUITY-SEQUENCE:" + std::to_string(m_window.jumpsBefore()) + "\n";
        }
        if (std::all_of(listed, segments.end(), [](const Segment& segment) { return segment.key; }) &&
            (m_window.underWay() == nullptr || m_window.underWay()->key)) {
            m_text += "#EXT-X-INDEPENDENT-SEGMENTS\n";
        }
    }

    void writeSegment(const Segment& segment, bool with_parts) {
        writeBegin(segment);
        if (with_parts) {
            writeParts(segment);
        }
        m_text += "#EXTINF:" + seconds(segment.duration) + ",\n" + path(segmentName(segment.number)) + "\n";
    }

    void writeBegin(const Segment& segment) {
        if (segment.jump) {
            m_text += "#EXT-X-DISCONTINUITY\n";
        }
        if (m_init != segment.init) {
            m_text += "#EXT-X-MAP:URI=\"" + path(initName(segment.initNumber)) + "\"\n";
            m_init = segment.init;
        }
        m_text += "#EXT-X-PROGRAM-DATE-TIME:" + dateTime(segment.wall_us) + "\n";
    }

    void writeParts(const Segment& segment) {
        for (size_t i = 0; i < segment.parts.size() && !segment.inOnePiece; ++i) {
            const Part& part = segment.parts[i];
            m_text += "#EXT-X-PART:DURATION=" + seconds(part.duration) + ",URI=\"" +
                      path(partName(segment.number, i)) + "\"" + (part.key ? ",INDEPENDENT=YES" : "") + "\n";
        }
    }

    void writeUnderWay() {
        const Segment* const open = m_window.underWay();
        const size_t parts = open != nullptr && !open->inOnePiece ? open->parts.size() : 0;
        if (parts != 0) {
            writeBegin(*open);
            writeParts(*open);
        }
        m_text +=
            "#EXT-X-PRELOAD-HINT:TYPE=PART,URI=\"" + path(partName(m_window.nextNumber(), parts)) + "\"\n";
    }

    std::string path(const std::string& name) const { return m_folder + "/" + name; }

    const Window& m_window;
    const std::string& m_folder;
    std::string m_text;
    SharedBytes m_init;
};

}  // namespace

std::string initName(uint64_t number) {
    return "init" + std::to_string(number) + ".mp4";
}

std::string segmentName(uint64_t number) {
    return std::to_string(number) + ".m4s";
}

std::string partName(uint64_t number, size_t part) {
    return std::to_string(number) + "." + std::to_string(part) + ".m4s";
}

std::string makePlaylist(const Window& window, const std::string& folder) {
    return Writer(window, folder).write();
}

}  // namespace relay
