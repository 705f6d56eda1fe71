// PlaylistRules: what RFC 8216 and its second edition ask of a media playlist, and when it is loaded again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Orvex::Testing {

struct ListedPart {
    std::string uri;
    double duration_s = 0;
    bool independent = false;
};

struct ListedSegment {
    uint64_t number = 0;
    std::string uri;  // empty: it is under way, and only its parts are there
    double duration_s = 0;
    bool jump = false;
    std::string map;
    int64_t wall_ms = -1;  // since 1970; -1: not said
    std::vector<ListedPart> parts;
};

struct Playlist {
    double target_s = 0;
    double part_target_s = 0;
    double hold_back_s = 0;
    uint64_t sequence = 0;
    uint64_t jumps_before = 0;
    bool independent = false;
    bool blocks = false;
    bool is_over = false;
    std::string hint;
    std::vector<ListedSegment> segments;
};

/// The playlists of one stream, in the order in which a client loads them.
class PlaylistRules {
public:
    /// By `loose_s` the time of day may be off from one segment to the next.
    explicit PlaylistRules(double loose_s = 0.7) : m_loose_s(loose_s) {}

    /// Reads a playlist; the result is each rule that it breaks, empty if none.
    std::vector<std::string> check(const std::string& text);

    /// The last one.
    const Playlist& last() const { return m_last; }

private:
    void read(const std::string& text);
    void readTag(const std::string& line);
    void readHead(const std::string& tag, const std::string& value);
    void readSegmentTag(const std::string& tag, const std::string& value);
    void readUri(const std::string& line);
    ListedSegment& current();
    void judge();
    void judgeParts(const ListedSegment& segment, double after_s);
    void judgeAgain(const Playlist& before);
    void judgeSame(const ListedSegment& before, const ListedSegment& now);
    void must(bool holds, const std::string& rule);

    const double m_loose_s;
    Playlist m_last;
    bool m_is_first = true;
    std::vector<std::string> m_broken;
    std::vector<std::string> m_tags;  // of this playlist's head, as they came
    bool m_has_current = false;
    std::string m_map;
};

}  // namespace Orvex::Testing
