// KeeperModel: senders that step ahead when they are late, the plain way: each has a queue of its own.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace Orvex::Testing {

struct KeeperFrame {
    std::string bytes;
    int channel = 0;
    int level = 1;
    bool key = false;
    bool disposable = false;
    uint64_t made_us = 0;
    int64_t ordinal = 0;  // on its channel, from 1 on
    int64_t needed = 0;   // frames of its channel before it that others need
};

using KeeperFramePtr = std::shared_ptr<KeeperFrame>;

// What is known of the stream.
struct KeeperStream {
    struct Channel {
        int64_t newest_key = 0;
        uint64_t newest_key_us = 0;
        uint64_t group_us = 0;
        int64_t needed = 0;
        bool seen = false;
        bool last_key = false;
        bool two_keys = false;
    };
    Channel channels[8];
    int disposable_level = 0;
    uint64_t keep_us = 0;
    uint64_t now_us = 0;

    void enter(KeeperFrame& f) {
        Channel& c = channels[f.channel];
        f.made_us = now_us;
        f.disposable = !f.key && disposable_level != 0 && f.level >= disposable_level;
        f.needed = c.needed;
        c.needed += f.disposable ? 0 : 1;
        c.two_keys = f.key && c.seen && c.last_key;
        c.last_key = f.key;
        c.seen = true;
        if (f.key) {
            c.group_us = c.newest_key != 0 ? now_us - c.newest_key_us : 0;
            c.newest_key = f.ordinal;
            c.newest_key_us = now_us;
        }
    }
    bool follows(int channel, unsigned mask) const {
        bool predicts = false;
        for (int i = 0; i < 8; ++i) {
            predicts = predicts ||
                       (i != channel && (mask >> i & 1U) != 0 && channels[i].seen && !channels[i].two_keys);
        }
        return channels[channel].two_keys && predicts;
    }
};

struct KeeperSender {
    struct Course {
        int64_t last = 0;     // ordinal of the last frame begun; 0: none
        int64_t passed = 0;   // frames passed since then
        int64_t needed = -1;  // -1: not known
        int left_level = 0;
        bool waits = false;
        uint64_t key_took_us = 0;
        uint64_t key_made_us = 0;
    };

    // Settings.
    uint64_t limit_us = 0;
    uint64_t hard_us = 0;
    unsigned mask = 255;

    bool joined = false;
    bool listed = false;
    bool cut = false;
    std::size_t room = ~std::size_t{0};
    std::string other;
    std::string wire;
    std::deque<KeeperFramePtr> queue;
    std::size_t written = 0;  // bytes of the first one
    uint64_t begun_us = 0;
    Course course[8];
    int left_out = 0;
    int delivered = 0;

    bool begun() const { return written != 0; }

    void add() { listed = true; }
    void del() {
        listed = false;
        begun() ? queue.resize(1) : queue.clear();
        cut = begun();
        for (Course& c : course) {
            const bool waits = c.waits;
            c = Course();
            c.waits = waits;
        }
    }

    // A frame is offered. `may_join`: it is a key frame.
    void offer(const KeeperFramePtr& f, bool may_join) {
        joined = joined || may_join;
        if (joined) {
            queue.push_back(f);
        }
    }

    void turn(const KeeperStream& stream) {
        if (!joined) {
            return;
        }
        if (!begun() && !other_gone()) {
            return;
        }
        while (begun() || choose(stream)) {
            if (!write(stream.now_us)) {
                return;
            }
            choose(stream);
            if (!other_gone()) {
                return;
            }
        }
    }

    // Frames that are too old go, but for those that are begun.
    void trim(const std::vector<KeeperFramePtr>& kept) {
        const auto stays = [&kept](const KeeperFramePtr& f) {
            return std::find(kept.begin(), kept.end(), f) != kept.end();
        };
        if (!begun() && !queue.empty() && !stays(queue.front())) {
            queue.clear();
        }
        std::deque<KeeperFramePtr> left;
        for (const KeeperFramePtr& f : queue) {
            if (stays(f) || (begun() && f == queue.front())) {
                left.push_back(f);
            }
        }
        queue.swap(left);
    }

private:
    std::size_t take(const std::string& bytes, std::size_t from) {
        const std::size_t part = std::min(bytes.size() - from, room);
        wire.append(bytes, from, part);
        room -= room == ~std::size_t{0} ? 0 : part;
        return part;
    }

    bool other_gone() {
        other.erase(0, take(other, 0));
        return other.empty();
    }

    // True if that was the rest of it.
    bool write(uint64_t now_us) {
        const KeeperFramePtr f = queue.front();
        const std::size_t part = take(f->bytes, written);
        Course& c = course[f->channel];
        if (part != 0 && written == 0) {
            begun_us = now_us;
            c.last = f->ordinal;
            c.passed = 0;
            c.needed = f->needed + (f->disposable ? 0 : 1);
            c.left_level = f->level <= c.left_level ? 0 : c.left_level;
        }
        written += part;
        if (written != f->bytes.size()) {
            return false;
        }
        if (f->key && !cut) {
            c.key_took_us = now_us - begun_us;
            c.key_made_us = f->made_us;
        }
        ++delivered;
        written = 0;
        queue.pop_front();
        if (cut) {
            queue.clear();
            cut = false;
        }
        return true;
    }

    // Goes to the next frame that is for it.
    bool choose(const KeeperStream& stream) {
        while (!queue.empty()) {
            if (wants(*queue.front(), stream)) {
                return true;
            }
            queue.pop_front();
        }
        return false;
    }

    bool wants(const KeeperFrame& f, const KeeperStream& stream) {
        Course& c = course[f.channel];
        if ((mask >> f.channel & 1U) == 0) {
            c.waits = c.waits && !f.key;
            c.last = 0;
            c.needed = -1;
            return false;
        }
        const uint64_t age_us = stream.now_us - f.made_us;
        const bool above_hard = hard_us != 0 && age_us > hard_us;
        const bool newer = stream.channels[f.channel].newest_key > f.ordinal;
        if (stream.follows(f.channel, mask)) {
            c.waits = false;
            c.passed += above_hard ? 1 : 0;
            return !above_hard;
        }
        const bool any_gap = f.ordinal != c.last + 1 + c.passed;
        const bool gap = c.needed < 0 ? any_gap : f.needed != c.needed;
        if (!gap && !c.waits && f.disposable && leaves_out(f, c, stream, age_us, any_gap)) {
            c.left_level = c.left_level == 0 ? f.level : std::min(c.left_level, f.level);
            ++c.passed;
            ++left_out;
            return false;
        }
        if (age_us > limit_us && !gap && !c.waits && newer) {
            c.waits = true;
            ++c.passed;
            return false;
        }
        if (above_hard && !f.key) {
            c.waits = true;
            ++c.passed;
            return false;
        }
        c.waits = c.waits || gap;
        if (c.waits && (!f.key || newer)) {
            ++c.passed;
            return false;
        }
        c.waits = false;
        return true;
    }

    bool leaves_out(const KeeperFrame& f, const Course& c, const KeeperStream& stream, uint64_t age_us,
                    bool any_gap) const {
        if ((c.left_level != 0 && f.level > c.left_level) || (any_gap && f.level > stream.disposable_level)) {
            return true;
        }
        const double half = static_cast<double>(limit_us / 2);
        const double key = static_cast<double>(c.key_took_us + c.key_took_us / 4);
        const double group = static_cast<double>(stream.channels[f.channel].group_us);
        const double since = static_cast<double>(f.made_us - c.key_made_us);
        const double allowed =
            key > half && since < group ? half + (key - half) * (group - since) / group : half;
        return static_cast<double>(age_us) > allowed;
    }
};

}  // namespace Orvex::Testing
