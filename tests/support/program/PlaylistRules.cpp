// PlaylistRules: one rule a line, as far as possible.

#include "support/program/PlaylistRules.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <set>
#include <sstream>

namespace Orvex::Testing {

namespace {

constexpr double ROUNDED_S = 0.0002;  // what five decimals of some parts may add up to

/// The value of an attribute, without its quotes; empty if there is none.
std::string attributeOf(const std::string& list, const std::string& name) {
    size_t at = 0;
    while (at < list.size()) {
        const size_t equals = list.find('=', at);
        if (equals == std::string::npos) {
            return "";
        }
        const bool quoted = list.compare(equals + 1, 1, "\"") == 0;
        const size_t begin = equals + (quoted ? 2 : 1);
        const size_t end = std::min(list.find(quoted ? '"' : ',', begin), list.size());
        if (list.compare(at, equals - at, name) == 0) {
            return list.substr(begin, end - begin);
        }
        at = end + (quoted ? 2 : 1);
    }
    return "";
}

/// Milliseconds since 1970; -1 if it is not such a time.
int64_t wallOf(const std::string& text) {
    tm parts{};
    const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr || rest[0] != '.' || std::string(rest).size() != 5 || rest[4] != 'Z') {
        return -1;
    }
    return timegm(&parts) * int64_t{1000} + std::atoi(rest + 1);
}

double lengthOf(const Playlist& playlist) {
    double length = 0;
    for (const ListedSegment& segment : playlist.segments) {
        length += segment.duration_s;
    }
    return length;
}

const std::set<std::string> HEAD_TAGS{
    "VERSION",        "TARGETDURATION",         "SERVER-CONTROL",      "PART-INF",
    "MEDIA-SEQUENCE", "DISCONTINUITY-SEQUENCE", "INDEPENDENT-SEGMENTS"};

}  // namespace

std::vector<std::string> PlaylistRules::check(const std::string& text) {
    const Playlist before = m_last;
    m_last = Playlist();
    m_broken.clear();
    m_tags.clear();
    m_map.clear();
    m_has_current = false;
    read(text);
    judge();
    if (!m_is_first) {
        judgeAgain(before);
    }
    m_is_first = false;
    return m_broken;
}

void PlaylistRules::must(bool holds, const std::string& rule) {
    if (!holds) {
        m_broken.push_back(rule);
    }
}

void PlaylistRules::read(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    must(line == "#EXTM3U", "the first line is #EXTM3U");
    must(!text.empty() && text.back() == '\n', "the last line ends");
    while (std::getline(lines, line)) {
        must(!line.empty() && line.back() != '\r', "each line says something: " + line);
        must(!m_last.is_over, "nothing stands after the end: " + line);
        if (line.compare(0, 1, "#") == 0) {
            readTag(line);
        } else {
            readUri(line);
        }
    }
}

void PlaylistRules::readTag(const std::string& line) {
    const size_t colon = std::min(line.find(':'), line.size());
    const std::string value = line.substr(std::min(colon + 1, line.size()));
    if (line.compare(0, colon, "#EXTINF") == 0) {
        must(value.back() == ',', "the length of a segment ends with a comma");
        current().duration_s = std::atof(value.c_str());
        return;
    }
    must(line.compare(0, 7, "#EXT-X-") == 0, "a tag of this kind exists: " + line);
    const std::string tag = line.substr(7, colon - 7);
    if (HEAD_TAGS.count(tag) != 0) {
        must(m_last.segments.empty(), tag + " stands before the first segment");
        must(std::count(m_tags.begin(), m_tags.end(), tag) == 0, tag + " is there once");
        m_tags.push_back(tag);
        readHead(tag, value);
    } else {
        readSegmentTag(tag, value);
    }
}

void PlaylistRules::readHead(const std::string& tag, const std::string& value) {
    if (tag == "VERSION") {
        must(std::atoi(value.c_str()) >= 6, "a map needs version 6");
    } else if (tag == "TARGETDURATION") {
        must(value.find_first_not_of("0123456789") == std::string::npos, "the target is a whole number");
        m_last.target_s = std::atof(value.c_str());
    } else if (tag == "SERVER-CONTROL") {
        m_last.blocks = attributeOf(value, "CAN-BLOCK-RELOAD") == "YES";
        m_last.hold_back_s = std::atof(attributeOf(value, "PART-HOLD-BACK").c_str());
    } else if (tag == "PART-INF") {
        m_last.part_target_s = std::atof(attributeOf(value, "PART-TARGET").c_str());
    } else if (tag == "MEDIA-SEQUENCE") {
        m_last.sequence = std::strtoull(value.c_str(), nullptr, 10);
    } else if (tag == "DISCONTINUITY-SEQUENCE") {
        m_last.jumps_before = std::strtoull(value.c_str(), nullptr, 10);
    } else {
        m_last.independent = true;
    }
}

void PlaylistRules::readSegmentTag(const std::string& tag, const std::string& value) {
    if (tag == "ENDLIST") {
        m_last.is_over = true;
    } else if (tag == "PRELOAD-HINT") {
        must(m_last.hint.empty(), "one part is hinted at");
        must(attributeOf(value, "TYPE") == "PART", "the hint is of a part");
        m_last.hint = attributeOf(value, "URI");
    } else if (tag == "PART") {
        current().parts.push_back({attributeOf(value, "URI"),
                                   std::atof(attributeOf(value, "DURATION").c_str()),
                                   attributeOf(value, "INDEPENDENT") == "YES"});
    } else if (tag == "MAP") {
        must(current().jump || m_map.empty(), "the map changes at a discontinuity");
        m_map = current().map = attributeOf(value, "URI");
    } else if (tag == "DISCONTINUITY") {
        current().jump = true;
    } else if (tag == "PROGRAM-DATE-TIME") {
        current().wall_ms = wallOf(value);
        must(current().wall_ms >= 0, "a time of day: " + value);
    } else {
        must(false, "this tag is known: " + tag);
    }
}

void PlaylistRules::readUri(const std::string& line) {
    must(m_has_current && current().duration_s > 0, "each segment has a length: " + line);
    current().uri = line;
    m_has_current = false;
}

ListedSegment& PlaylistRules::current() {
    if (!m_has_current) {
        m_has_current = true;
        ListedSegment segment;
        segment.number = m_last.sequence + m_last.segments.size();
        segment.map = m_map;
        m_last.segments.push_back(segment);
    }
    return m_last.segments.back();
}

void PlaylistRules::judge() {
    for (const char* const tag :
         {"VERSION", "TARGETDURATION", "MEDIA-SEQUENCE", "PART-INF", "SERVER-CONTROL"}) {
        must(std::count(m_tags.begin(), m_tags.end(), tag) == 1, std::string("there is ") + tag);
    }
    must(m_last.hold_back_s >= 3 * m_last.part_target_s - ROUNDED_S, "players stay three parts from the end");
    must(m_last.is_over == m_last.hint.empty(), "the next part is hinted at while there is one");
    must(!m_last.segments.empty(), "something is listed");
    std::set<std::string> uris{m_last.hint};
    double after_s = lengthOf(m_last);
    const ListedSegment* before = nullptr;
    for (const ListedSegment& segment : m_last.segments) {
        const std::string name = std::to_string(segment.number) + ": ";
        after_s -= segment.duration_s;
        must(!segment.uri.empty() || &segment == &m_last.segments.back(),
             name + "only the last is under way");
        must(std::round(segment.duration_s) <= m_last.target_s, name + "not longer than the target");
        must(!segment.map.empty(), name + "it has a map");
        must(segment.uri.empty() || uris.insert(segment.uri).second, name + "its path is its own");
        for (const ListedPart& part : segment.parts) {
            must(uris.insert(part.uri).second, name + "the path of each part is its own: " + part.uri);
        }
        const bool follows =
            before != nullptr && !segment.jump && before->wall_ms >= 0 && segment.wall_ms >= 0;
        const double step_s = follows ? static_cast<double>(segment.wall_ms - before->wall_ms) / 1000 : 0;
        must(!follows || std::abs(step_s - before->duration_s) < m_loose_s, name + "its time of day goes on");
        must(segment.wall_ms >= 0, name + "its time of day is said");
        judgeParts(segment, after_s);
        before = &segment;
    }
}

void PlaylistRules::judgeParts(const ListedSegment& segment, double after_s) {
    const std::string name = std::to_string(segment.number) + ": ";
    double sum_s = 0;
    for (const ListedPart& part : segment.parts) {
        const bool last = &part == &segment.parts.back();
        sum_s += part.duration_s;
        must(part.duration_s <= m_last.part_target_s,
             name + "no part is longer than its target: " + part.uri);
        must(last || part.duration_s >= 0.85 * m_last.part_target_s,
             name + "no part but the last is much shorter than its target: " + part.uri);
    }
    must(segment.parts.empty() || segment.uri.empty() || std::abs(sum_s - segment.duration_s) < ROUNDED_S,
         name + "its parts are as long as it is");
    must(segment.parts.empty() || after_s <= 3 * m_last.target_s, name + "parts are not listed for long");
    must(!m_last.independent || segment.parts.empty() || segment.parts.front().independent,
         name + "it begins with a key picture");
}

void PlaylistRules::judgeAgain(const Playlist& before) {
    must(before.target_s == m_last.target_s, "the target stays");
    must(before.part_target_s == m_last.part_target_s, "the target of parts stays");
    must(before.sequence <= m_last.sequence, "segments are not listed again");
    must(!before.is_over || m_last.is_over, "what is over stays over");
    uint64_t jumps = before.jumps_before;
    for (const ListedSegment& segment : before.segments) {
        if (segment.number < m_last.sequence) {
            jumps += segment.jump ? 1 : 0;
            continue;
        }
        const size_t at = static_cast<size_t>(segment.number - m_last.sequence);
        must(at < m_last.segments.size(), std::to_string(segment.number) + ": it is still listed");
        if (at < m_last.segments.size()) {
            judgeSame(segment, m_last.segments[at]);
        }
    }
    const bool moved = before.sequence < m_last.sequence;
    const bool overlaps = m_last.sequence <= before.sequence + before.segments.size();
    must(!overlaps || jumps == m_last.jumps_before, "discontinuities are counted when they go");
    must(!moved || lengthOf(m_last) >= 3 * m_last.target_s,
         "three targets are listed before one segment goes");
}

void PlaylistRules::judgeSame(const ListedSegment& before, const ListedSegment& now) {
    const std::string name = std::to_string(now.number) + ": ";
    must(before.uri.empty() || before.uri == now.uri, name + "its path stays");
    must(before.uri.empty() || before.duration_s == now.duration_s, name + "its length stays");
    must(before.wall_ms == now.wall_ms && before.jump == now.jump, name + "its times stay");
    must(before.map == now.map || now.number == m_last.sequence, name + "its map stays");
    must(now.parts.size() >= before.parts.size() || now.parts.empty(), name + "its parts stay");
    for (size_t i = 0; i < std::min(before.parts.size(), now.parts.size()); ++i) {
        must(before.parts[i].uri == now.parts[i].uri && before.parts[i].duration_s == now.parts[i].duration_s,
             name + "a part stays as it is: " + now.parts[i].uri);
    }
}

}  // namespace Orvex::Testing
