// MediaModel: CMediaBuffer and its senders written the plain way, with values in place of shared lists, as a
// reference for the real ones.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace Orvex::Testing {

struct ModelFrame {
    std::vector<int> packets;  // numbers
    std::vector<std::string> bytes;
    int64_t len = 0;
    int64_t sent = 0;
    int mark = 0;
    int channel = 0;
    int level = 1;
    int valid = 0;
    int age = -1;
    int key_mask = 0;
    int info = -1;  // number of the information packet
    int arg = 0;
    int count = 0;
    int steps = 0;
    bool gone = false;
};

using ModelFramePtr = std::shared_ptr<ModelFrame>;

struct ModelSender {
    // The socket.
    std::size_t room = ~std::size_t{0};
    bool broken = false;
    std::string wire;
    int writes = 0;

    uint64_t total = 0;
    ModelFramePtr frame;
    std::size_t index = 0;
    std::size_t offset = 0;
    uint64_t left = 0;
    std::string other;
    unsigned blocks = 0;
    unsigned mask = 255;
    unsigned lost = 0;
    bool listed = false;
    bool failed = false;
    bool wants_message = false;
    int messages = 0;
    bool keeper = false;                              // frames are kept for it: here it has always caught up
    bool joined = false;                              // as a keeper
    std::vector<std::tuple<int, int, int>> finished;  // information packet or -1, its number, length

    long write(const std::vector<std::string>& pieces, std::size_t from, std::size_t skip) {
        ++writes;
        std::size_t taken = 0;
        std::size_t wanted = 0;
        for (std::size_t i = from; i < pieces.size(); ++i, skip = 0) {
            const std::size_t part = std::min(pieces[i].size() - skip, room);
            wire.append(pieces[i], skip, part);
            room -= room == ~std::size_t{0} ? 0 : part;
            taken += part;
            wanted += pieces[i].size() - skip;
        }
        if (taken == 0 && (wanted != 0 || broken)) {
            return broken ? -1 : 0;
        }
        return static_cast<long>(taken);
    }
    bool at_boundary() const { return index == 0 && offset == 0; }
};

class MediaModel {
public:
    std::vector<ModelFramePtr> frames{std::make_shared<ModelFrame>()};
    ModelFramePtr current = frames[0];
    std::vector<ModelSender*> listed;  // the newest first
    uint64_t byte_total = 0;
    uint64_t byte_discard = 0;
    bool send_ready = true;
    bool has_sender = false;
    int min_level[8] = {10, 10, 10, 10, 10, 10, 10, 10};
    int valid_num = 0;
    int completed_level = 0;
    std::vector<int> released;

    MediaModel() { current->sent = -1; }

    void put(int number, const std::string& bytes, int mark, int channel, int level) {
        send_ready = false;
        if (frames.empty()) {
            begin();
        }
        ModelFrame& f = *current;
        f.packets.push_back(number);
        f.bytes.push_back(bytes);
        f.len += static_cast<int64_t>(bytes.size());
        f.mark = mark;
        f.channel = channel;
        f.level = std::min(std::max(level, 1), 10);
        byte_total += bytes.size();
        if (mark == 1) {
            f.sent = 0;
            f.valid = 1;
            f.age = -1;
            complete(f);
        }
        if (send_ready) {
            step(true, !bytes.empty());
        }
    }

    void put_info(int number, int arg) {
        if (frames.empty()) {
            begin();
        }
        if (current->info >= 0) {
            released.push_back(current->info);
        }
        current->info = number;
        current->arg = arg;
    }

    void do_send() {
        if (send_ready) {
            step(false, true);
        }
    }

    void add(ModelSender& s) {
        if (s.listed) {
            return;
        }
        s.listed = true;
        s.failed = false;
        listed.insert(listed.begin(), &s);
        has_sender = true;
    }

    void del(ModelSender& s) {
        s.listed = false;
        listed.erase(std::remove(listed.begin(), listed.end(), &s), listed.end());
        if (!listed.empty() || !has_sender) {
            return;
        }
        has_sender = false;
        drop_complete();
    }

    void clear() {
        for (ModelSender* s : listed) {
            s->listed = false;
        }
        listed.clear();
        while (!frames.empty()) {
            drop_head();
        }
        current = nullptr;
        byte_total = 0;
        byte_discard = 0;
    }

    // The result, and the bytes after `copied`.
    int tail(ModelSender& s, int len, std::string* copied) {
        if (s.frame == nullptr || s.offset == 0) {
            return 0;
        }
        ModelFramePtr f = s.frame;
        const std::string rest = f->bytes[s.index].substr(s.offset);
        if (static_cast<int>(rest.size()) > len) {
            return -1;
        }
        *copied = rest;
        ++s.index;
        s.left -= rest.size();
        s.offset = 0;
        s.total += rest.size();
        f->sent += static_cast<int64_t>(rest.size());
        if (s.left == 0) {
            f->sent -= f->len;
            s.index = 0;
            s.finished.emplace_back(f->gone ? -1 : f->info, f->arg, static_cast<int>(f->len));
            s.frame = next_wanted(s, after(f));
            s.left = s.frame ? static_cast<uint64_t>(s.frame->len) : 0;
        }
        return static_cast<int>(rest.size());
    }

    // All senders that ever stood on a frame of this buffer.
    std::vector<ModelSender*> everybody;
    bool keepers_begin_with_cache = false;  // and need nothing of the list before either

private:
    bool keepers_only = false;

    void begin() {
        current = std::make_shared<ModelFrame>();
        frames.push_back(current);
    }

    void complete(ModelFrame& f) {
        completed_level = f.level;
        int& least = min_level[f.channel];
        least = std::min(least, f.level);
        if (least == f.level) {
            f.key_mask = 1 << f.channel;
        }
        if (has_sender) {
            send_ready = true;
        } else {
            drop_complete();
        }
    }

    void drop_complete() {
        while (!frames.empty() && frames[0]->mark != 0) {
            drop_head();
        }
        current = frames.empty() ? nullptr : frames[0];
        byte_total = current ? static_cast<uint64_t>(current->len) : 0;
        byte_discard = 0;
    }

    void drop_head() {
        ModelFramePtr f = frames[0];
        frames.erase(frames.begin());
        let_go(f);
    }

    // Whoever is in the middle of it ends it all the same, the others know it no more.
    void let_go(const ModelFramePtr& f) {
        f->gone = true;
        for (ModelSender* s : everybody) {
            if (s->frame != f) {
                continue;
            }
            if (s->at_boundary() || (s->failed && s->offset == 0)) {
                s->frame = nullptr;
                s->index = 0;
                s->left = 0;
            } else if (s->failed) {
                s->frame = std::make_shared<ModelFrame>(*f);
                s->frame->bytes.resize(s->index + 1);
                s->left = s->frame->bytes[s->index].size() - s->offset;
            }
        }
        released.insert(released.end(), f->packets.begin(), f->packets.end());
        if (f->info >= 0) {
            released.push_back(f->info);
        }
    }

    bool held(const ModelFramePtr& f) const {
        return std::any_of(listed.begin(), listed.end(),
                           [&f](const ModelSender* s) { return s->frame == f; });
    }

    ModelFramePtr after(const ModelFramePtr& f) const {
        const auto it = std::find(frames.begin(), frames.end(), f);
        return it == frames.end() || it + 1 == frames.end() ? nullptr : *(it + 1);
    }

    bool wanted(ModelSender& s, const ModelFramePtr& f) const {
        const unsigned bit = 1U << f->channel;
        if ((s.lost & bit) != 0) {
            if ((static_cast<unsigned>(f->key_mask) & bit) == 0) {
                return false;
            }
            s.lost &= ~bit;
        }
        return (s.mask & bit) != 0;
    }

    ModelFramePtr next_wanted(ModelSender& s, ModelFramePtr f) const {
        while (f && f->len >= 1 && (f->valid != 0 || f->age != -1)) {
            if (f->valid != 0 && wanted(s, f)) {
                return f;
            }
            s.lost |= f->valid == 0 ? 1U << f->channel : 0;
            s.total += static_cast<uint64_t>(f->len);
            f = f->gone ? nullptr : after(f);
        }
        return nullptr;
    }

    void tell(ModelSender& s) const {
        s.messages += s.wants_message ? 1 : 0;
        s.wants_message = false;
    }

    // Negative: failed; otherwise the bytes that still wait.
    int send_other(ModelSender& s) const {
        if (s.other.empty()) {
            return 0;
        }
        const long n = s.write({s.other}, 0, 0);
        if (n == 0) {
            ++s.blocks;
            return static_cast<int>(s.other.size());
        }
        if (n < 0) {
            tell(s);
            return -1;
        }
        s.other.erase(0, static_cast<std::size_t>(n));
        s.blocks = 0;
        return static_cast<int>(s.other.size());
    }

    void take(ModelSender& s, const ModelFramePtr& f) const {
        s.frame = f;
        s.left = static_cast<uint64_t>(f->len);
        ++f->count;
    }

    bool send(ModelSender& s) const {
        if (s.at_boundary()) {
            const int other = send_other(s);
            if (other != 0) {
                return other > 0;
            }
            const ModelFramePtr before = s.frame;
            if (before || current->len == 0) {
                s.frame = next_wanted(s, before);
                if (!s.frame) {
                    return true;
                }
                s.frame->count += s.frame != before ? 1 : 0;
                s.left = static_cast<uint64_t>(s.frame->len);
            } else {
                const ModelFramePtr f = wanted(s, current) ? current : next_wanted(s, current);
                if (!f) {
                    return true;
                }
                take(s, f);
            }
        }
        return write_on(s);
    }

    bool write_on(ModelSender& s) const {
        for (;;) {
            const ModelFramePtr f = s.frame;
            if (s.index >= f->bytes.size()) {
                return true;
            }
            const long n = s.write(f->bytes, s.index, s.offset);
            if (n == 0) {
                ++s.blocks;
                return true;
            }
            if (n < 0) {
                tell(s);
                f->sent += static_cast<int64_t>(s.left) - f->len;
                return false;
            }
            s.blocks = 0;
            s.total += static_cast<uint64_t>(n);
            f->sent += n;
            s.left -= static_cast<uint64_t>(n);
            if (s.left != 0) {
                advance(s, static_cast<std::size_t>(n));
                return true;
            }
            f->sent -= f->len;
            --f->count;
            s.index = 0;
            s.offset = 0;
            s.finished.emplace_back(f->gone ? -1 : f->info, f->arg, static_cast<int>(f->len));
            s.frame = next_wanted(s, after(f));
            if (s.frame) {
                take(s, s.frame);
            }
            const int other = send_other(s);
            if (other != 0 || !s.frame) {
                return other >= 0;
            }
        }
    }

    static void advance(ModelSender& s, std::size_t n) {
        std::size_t first = s.frame->bytes[s.index].size() - s.offset;
        if (n < first) {
            s.offset += n;
            return;
        }
        s.offset = 0;
        while (n >= first) {
            n -= first;
            first = s.frame->bytes[++s.index].size();
        }
        s.offset = n;
    }

    void step(bool has_packet, bool ages) {
        if (!current) {
            begin();
        }
        offer();
        if (ages) {
            age_frames();
        }
        if (!current || has_packet) {
            begin();
        }
        count_valid();
        expire_hollow();
        std::vector<ModelFramePtr> before;
        before.swap(frames);
        for (const ModelFramePtr& f : before) {
            if (f->valid != 0 || f == current) {
                frames.push_back(f);
            } else {
                byte_discard += static_cast<uint64_t>(f->len);
                let_go(f);
            }
        }
    }

    bool joins(ModelSender& s) {
        if (s.keeper) {
            const bool key = current->valid != 0 && current->len > 0 && current->key_mask != 0;
            s.joined = s.joined || key || keepers_begin_with_cache;
            return s.joined;
        }
        if (s.total != 0) {
            return true;
        }
        if (current->level > min_level[current->channel]) {
            s.frame = nullptr;
            s.left = 0;
            return false;
        }
        s.total = byte_total - static_cast<uint64_t>(current->len);
        take(s, current);
        s.index = 0;
        s.offset = 0;
        return true;
    }

    void offer() {
        keepers_only = !listed.empty() && std::all_of(listed.begin(), listed.end(),
                                                      [](const ModelSender* s) { return s->keeper; });
        uint64_t should = byte_discard;
        uint64_t least = byte_total;
        const std::vector<ModelSender*> walk = listed;
        for (ModelSender* s : walk) {
            if (!joins(*s)) {
                continue;
            }
            if (s->keeper) {
                s->total = byte_total;
            } else if (!send(*s)) {
                s->failed = true;
                del(*s);
                if (!has_sender) {
                    return;
                }
                continue;
            }
            if (s->total <= least) {
                least = s->total;
                should = s->total;
            }
        }
        uint64_t discard = should > byte_discard ? should - byte_discard : 0;
        while (!frames.empty() && frames[0]->len >= 1 && discard != 0 &&
               discard >= static_cast<uint64_t>(frames[0]->len) && !held(frames[0])) {
            discard -= static_cast<uint64_t>(frames[0]->len);
            byte_discard += static_cast<uint64_t>(frames[0]->len);
            drop_head();
        }
        if (frames.empty()) {
            current = nullptr;
        }
    }

    void age_frames() {
        for (const ModelFramePtr& f : frames) {
            if (f->len < 1) {
                return;
            }
            f->age += f->valid == 1 ? 1 : 0;
            if (f->level > 10 - f->age / 10 && (f->count == 0 || keepers_only) && !held(f)) {
                f->valid = 0;
                f->age = -100;
            }
        }
    }

    void count_valid() {
        valid_num = 0;
        for (const ModelFramePtr& f : frames) {
            if (f->len < 1) {
                return;
            }
            valid_num += f->valid == 1 || f->sent > 0 ? 1 : 0;
        }
    }

    void expire_hollow() {
        for (const ModelFramePtr& f : frames) {
            if (f->valid != 0 && f->len < 1 && f != current) {
                if (++f->steps >= (11 - f->level) * 10 && !held(f)) {
                    f->valid = 0;
                    f->age = -100;
                }
            }
        }
    }
};

}  // namespace Orvex::Testing
