// Remuxer: times, formats, and when a fragment is whole.

#include "media_relay/mp4/Remuxer.h"

#include <algorithm>
#include <utility>

namespace relay {

namespace {

constexpr int64_t kSecond = kVideoScale;
constexpr int64_t kPatience = 3 * kSecond;  // for the first sound, while pictures are held
constexpr size_t kMaxHeld = 16 << 20;       // bytes of them
constexpr int64_t kLongestPicture = 10 * kSecond;
constexpr int64_t kSoundAlone_per_s = 2;  // sound for which no picture comes goes so often

/// Sound may be off by a fiftieth of a second before it is moved: stamps are rounded, by some to whole
/// milliseconds.
constexpr int64_t kLoose_per_s = 50;

std::string nameOf(const StreamEntry& entry) {
    return entry.codec == Codec::Mpeg2 ? "MPEG-2 pictures" : "pictures of this kind";
}

bool isPlayable(const StreamEntry& entry) {
    switch (entry.codec) {
        case Codec::H264:
        case Codec::H265:
        case Codec::Aac:
            return true;
        case Codec::Opus:
            return entry.channels == 1 || entry.channels == 2;
        default:
            return false;
    }
}

const StreamEntry* firstOf(const ProgramMap& map, StreamKind kind, bool playable) {
    for (const StreamEntry& entry : map.streams) {
        if (entry.kind == kind && (!playable || isPlayable(entry))) {
            return &entry;
        }
    }
    return nullptr;
}

bool isSame(const StreamEntry& a, const StreamEntry& b) {
    return a.pid == b.pid && a.codec == b.codec && a.channels == b.channels;
}

}  // namespace

std::string Remuxer::refusal(const ProgramMap& map) {
    const StreamEntry* const pictures = firstOf(map, StreamKind::Video, false);
    if (firstOf(map, StreamKind::Video, true) != nullptr) {
        return "";
    }
    if (pictures != nullptr) {
        return "No browser plays " + nameOf(*pictures) + ".";
    }
    return firstOf(map, StreamKind::Audio, true) != nullptr
               ? ""
               : "The stream holds neither pictures nor sound that a browser plays.";
}

void Remuxer::begin(const ProgramMap& map) {
    const StreamEntry* const video = firstOf(map, StreamKind::Video, true);
    const StreamEntry* const sound = firstOf(map, StreamKind::Audio, true);
    const bool refused = !refusal(map).empty();
    const StreamEntry newVideo = video != nullptr && !refused ? *video : StreamEntry();
    const StreamEntry newSound = sound != nullptr && !refused ? *sound : StreamEntry();
    if (isSame(newVideo, m_videoEntry) && isSame(newSound, m_soundEntry)) {
        return;
    }
    flush();
    m_videoEntry = newVideo;
    m_soundEntry = newSound;
    m_sets = ParameterSets(newVideo.codec);
    m_cutter = SoundCutter(newSound.codec, newSound.channels);
    m_hasInit = false;
    m_open = false;
    m_pictures.samples.clear();
    m_pictureBytes = 0;
    m_sounds.samples.clear();
    m_soundRuns = false;
}

void Remuxer::put(const AccessUnit& unit) {
    if (m_videoEntry.codec != Codec::Other && unit.pid == m_videoEntry.pid) {
        putPicture(unit);
    } else if (m_soundEntry.codec != Codec::Other && unit.pid == m_soundEntry.pid) {
        putSound(unit);
    }
}

void Remuxer::putPicture(const AccessUnit& unit) {
    PesHead head;
    std::vector<uint8_t> bytes;
    if (!readPesUnit(unit.packets, head, bytes) || !head.hasStamp) {
        return;
    }
    Sample sample;
    sample.key = unit.key;
    sample.disposable = unit.disposable;
    m_sets.take(bytes, unit.key, sample.bytes);
    const int64_t time = m_timeline.put(Timeline::VIDEO, head.decoded, m_lastStep);
    const bool goesOn = !m_open || time > m_lastPicture;  // there is no place for one before the last
    if (time < 0 || !goesOn || sample.bytes.empty() || !openAt(unit.key)) {
        return;
    }
    m_lastPicture = time;
    const int64_t step = unit.hasNext ? stampDistance(head.decoded, unit.next) : 0;
    m_lastStep = step > 0 && step < kLongestPicture ? static_cast<uint32_t>(step) : m_lastStep;
    sample.duration = m_lastStep;
    const int64_t offset = stampDistance(head.decoded, head.presented);
    sample.offset = static_cast<int32_t>(std::clamp(offset, -kLongestPicture, kLongestPicture));
    if (m_pictures.samples.empty()) {
        m_pictures.decoded = static_cast<uint64_t>(time);
    }
    m_pictureBytes += sample.bytes.size();
    m_pictures.samples.push_back(std::move(sample));
    emit();
}

/// Whether a picture has its place: at a key frame formats may change, before the first one there is none.
bool Remuxer::openAt(bool key) {
    if (!key) {
        return m_open;
    }
    VideoFormat video;
    if (!m_sets.makeFormat(video)) {
        return m_open;
    }
    if (!m_hasInit) {  // what was held since the key frame before has waited long enough
        m_pictures.samples.clear();
        m_pictureBytes = 0;
    }
    const bool changed = video.configuration != m_video.configuration ||
                         (m_cutter.hasFormat() && !(m_cutter.format() == m_sound));
    if (m_hasInit && changed) {
        flush();
        m_hasInit = false;
    }
    m_video = std::move(video);
    m_open = true;
    return true;
}

void Remuxer::putSound(const AccessUnit& unit) {
    PesHead head;
    std::vector<uint8_t> bytes;
    std::vector<SoundFrame> frames;
    size_t before = 0;
    if (!readPesUnit(unit.packets, head, bytes)) {
        return;
    }
    m_cutter.put(bytes, frames, before);
    if (frames.empty()) {
        return;
    }
    const bool alone = m_videoEntry.codec == Codec::Other;
    if (alone && !(m_cutter.format() == m_sound)) {
        flush();
        m_hasInit = false;
    }
    m_open = m_open || alone;
    const bool fits = !m_hasInit || m_cutter.format() == m_sound;
    if (!m_open || !fits) {
        m_soundRuns = false;  // it has a place from the next key frame on
        return;
    }
    const auto rate = static_cast<int64_t>(m_cutter.format().rate);
    int64_t lasted = 0;
    for (size_t i = 0; i < std::min(before, frames.size()); ++i) {
        lasted += frames[i].samples;
    }
    int64_t time = m_nextSound;
    if (head.hasStamp) {
        const int64_t step = kSecond * frames.back().samples / rate;
        const int64_t ticks = m_timeline.put(Timeline::SOUND, head.decoded, step);
        const int64_t stamped = (ticks * rate + kSecond / 2) / kSecond - lasted;
        const bool loose = std::abs(stamped - m_nextSound) > rate / kLoose_per_s;
        time = !m_soundRuns || loose ? stamped : m_nextSound;
    } else if (!m_soundRuns) {
        return;
    }
    for (SoundFrame& frame : frames) {
        const int64_t samples = frame.samples;
        addSound(std::move(frame), time);
        time += samples;
    }
    emit();
}

/// A run has no holes: the frame before one lasts longer. What lies before its end is left out.
void Remuxer::addSound(SoundFrame&& frame, int64_t time) {
    if (time < 0 || (m_soundRuns && time < m_nextSound)) {
        return;
    }
    if (m_sounds.samples.empty()) {
        m_sounds.decoded = static_cast<uint64_t>(time);
    } else {
        m_sounds.samples.back().duration += static_cast<uint32_t>(time - m_nextSound);
    }
    Sample sample;
    sample.bytes = std::move(frame.bytes);
    sample.duration = frame.samples;
    m_sounds.samples.push_back(std::move(sample));
    m_nextSound = time + frame.samples;
    m_soundRuns = true;
}

/// For the format of the sound.
bool Remuxer::isWaiting() const {
    if (m_soundEntry.codec == Codec::Other || m_cutter.hasFormat()) {
        return false;
    }
    return m_pictureBytes < kMaxHeld && m_lastPicture - static_cast<int64_t>(m_pictures.decoded) < kPatience;
}

void Remuxer::makeInit() {
    m_sound = m_cutter.hasFormat() ? m_cutter.format() : SoundFormat();
    const bool pictures = m_videoEntry.codec != Codec::Other;
    const bool sound = m_sound.rate != 0;
    Mp4Init init;
    init.bytes = std::make_shared<const std::vector<uint8_t>>(
        makeInitSegment(pictures ? &m_video : nullptr, sound ? &m_sound : nullptr));
    init.codecs = (pictures ? m_video.name : "") + (pictures && sound ? "," : "") + m_sound.name;
    init.first = !m_everInit;
    m_hasInit = true;
    m_everInit = true;
    m_sink.onInit(init);
}

void Remuxer::emit() {
    const bool pictures = m_videoEntry.codec != Codec::Other;
    if (pictures && m_pictures.samples.empty()) {
        const auto lasts = m_nextSound - static_cast<int64_t>(m_sounds.decoded);
        const bool alone = m_hasInit && lasts * kSoundAlone_per_s > static_cast<int64_t>(m_sound.rate);
        if (alone) {
            emitRuns();
        }
        return;
    }
    if (!m_hasInit) {
        if (pictures && isWaiting()) {
            return;
        }
        makeInit();
    }
    emitRuns();
}

void Remuxer::emitRuns() {
    Mp4Fragment fragment;
    const bool pictures = !m_pictures.samples.empty();
    if (!pictures && m_sounds.samples.empty()) {
        return;
    }
    const Run& run = pictures ? m_pictures : m_sounds;
    for (const Sample& sample : run.samples) {
        fragment.duration += sample.duration;
    }
    fragment.time = run.decoded;
    if (!pictures) {
        fragment.time = fragment.time * kVideoScale / m_sound.rate;
        fragment.duration = fragment.duration * kVideoScale / m_sound.rate;
    }
    fragment.key = pictures ? run.samples.front().key : m_videoEntry.codec == Codec::Other;
    fragment.disposable = pictures && run.samples.front().disposable && m_sounds.samples.empty();
    fragment.bytes =
        std::make_shared<const std::vector<uint8_t>>(makeFragment(++m_number, m_pictures, m_sounds));
    m_pictures.samples.clear();
    m_pictureBytes = 0;
    m_sounds.samples.clear();
    m_sink.onFragment(std::move(fragment));
}

void Remuxer::flush() {
    if (m_hasInit) {
        emitRuns();
    }
}

}  // namespace relay
