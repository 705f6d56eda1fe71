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
    int64_t number = 0;   // among all
    uint64_t begin = 0;   // bytes of all before it
};

using KeeperFramePtr = std::shared_ptr<KeeperFrame>;

// Where clients that come begin.
struct KeeperStart {
    KeeperFramePtr key;
    KeeperFramePtr from;
};

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
    // The start cache; without bytes there is none.
    uint64_t start_us = 0;
    uint64_t start_bytes = 0;
    KeeperStart starts[8];
    std::vector<KeeperFramePtr> kept;
    KeeperFramePtr offered;
    int64_t frames = 0;
    uint64_t bytes = 0;

    unsigned predicting(unsigned mask) const {
        unsigned found = 0;
        for (unsigned i = 0; i < 8; ++i) {
            found |= channels[i].seen && !channels[i].two_keys ? mask & 1U << i : 0;
        }
        return found;
    }
    unsigned first_channels(unsigned mask) const { return predicting(mask) != 0 ? predicting(mask) : mask; }
    KeeperFramePtr oldest_start(unsigned mask) const {
        KeeperFramePtr found;
        for (unsigned i = 0; i < 8; ++i) {
            const KeeperFramePtr& from = starts[i].from;
            if ((mask & 1U << i) != 0 && from && (!found || from->number < found->number)) {
                found = from;
            }
        }
        return found;
    }
    KeeperFramePtr first_held() const {
        const KeeperFramePtr found = oldest_start(first_channels(255));
        return found ? found : oldest_start(255);
    }
    void forget_older_starts() {
        const KeeperFramePtr first = first_held();
        for (KeeperStart& start : starts) {
            if (!first || (start.from && start.from->number < first->number)) {
                start = KeeperStart();
            }
        }
    }
    void keep(const KeeperFramePtr& f) {
        f->number = frames++;
        f->begin = bytes;
        bytes += f->bytes.size();
        enter(*f);
        kept.push_back(f);
        if (start_bytes == 0) {
            return;
        }
        if (f->key) {
            const unsigned own = 1U << f->channel;
            starts[f->channel] = {f, f};
            for (unsigned i = 0; i < 8 && predicting(own) != 0; ++i) {
                const KeeperFramePtr& last = starts[i].key;
                if ((1U << i & (own | predicting(255))) == 0 && last &&
                    last->number < starts[f->channel].from->number && f->made_us - last->made_us <= 1000000) {
                    starts[f->channel].from = last;
                }
            }
        }
        forget_older_starts();
    }
    void trim_starts() {
        for (KeeperFramePtr first = first_held();
             first && (now_us > first->made_us + start_us || bytes - first->begin > start_bytes);
             first = first_held()) {
            for (KeeperStart& start : starts) {
                start = start.from == first ? KeeperStart() : start;
            }
            forget_older_starts();
        }
    }
    KeeperFramePtr start(unsigned mask, bool at_key) const {
        if (!at_key) {
            return oldest_start(first_channels(mask));
        }
        const bool begins = offered && (first_channels(mask) & 1U << offered->channel) != 0;
        return begins && starts[offered->channel].key == offered ? starts[offered->channel].from
                                                                 : KeeperFramePtr();
    }

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
    bool at_key = false;  // begins at the next key frame

    bool waits_for_start = false;
    bool starts = false;  // has begun with the cache, and not caught up
    int64_t newest = 0;
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

    void add(const KeeperStream& stream) {
        listed = true;
        if (stream.start_bytes == 0) {
            return;
        }
        joined = false;
        waits_for_start = true;
        starts = false;
        for (Course& c : course) {
            c.waits = true;
        }
        if (begun()) {
            end_rest(stream.now_us);
        }
        if (!begun() && start(stream)) {
            turn(stream);
        }
    }
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
        joined = joined || (may_join && !waits_for_start);
        if (joined) {
            queue.push_back(f);
        }
    }

    void turn(const KeeperStream& stream) {
        if (waits_for_start && begun()) {
            end_rest(stream.now_us);
            return;
        }
        if (!joined && !start(stream)) {
            return;
        }
        frames_turn(stream);
        starts = starts && !queue.empty();
    }

    void frames_turn(const KeeperStream& stream) {
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
    bool start(const KeeperStream& stream) {
        const KeeperFramePtr from = waits_for_start ? stream.start(mask, at_key) : KeeperFramePtr();
        if (!from) {
            return false;
        }
        for (Course& c : course) {
            c = Course();
            c.waits = true;
        }
        queue.assign(std::find(stream.kept.begin(), stream.kept.end(), from), stream.kept.end());
        waits_for_start = false;
        joined = true;
        starts = true;
        newest = stream.frames;
        return true;
    }

    void end_rest(uint64_t now_us) {
        if (write(now_us)) {
            other_gone();
        }
    }

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
        const bool starting = starts && (!f.key || f.number < newest || stream.follows(f.channel, mask));
        const bool above_hard = hard_us != 0 && age_us > hard_us && !starting;
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
