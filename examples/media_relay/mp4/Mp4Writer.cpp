// Mp4Writer: boxes within boxes.

#include "media_relay/mp4/Mp4Writer.h"

#include "media_relay/mp4/Box.h"

namespace relay {

namespace {

constexpr unsigned kUndefinedLanguage = 0x55C4;  // "und", five bits a letter
constexpr unsigned kBaseIsMoof = 0x020000;
constexpr unsigned kRunFlags =
    0x000001 | 0x000100 | 0x000200 | 0x000400 | 0x000800;  // all is said of each sample

void writeMatrix(BoxWriter& box) {
    for (const uint32_t value : {0x10000U, 0U, 0U, 0U, 0x10000U, 0U, 0U, 0U, 0x40000000U}) {
        box.u32(value);
    }
}

void writeMovieHead(BoxWriter& box) {
    const size_t begin = box.begin("mvhd", 0, 0);
    box.u32(0).u32(0).u32(1000).u32(0);  // it has no end
    box.u32(0x10000).u16(0x100).zeros(10);
    writeMatrix(box);
    box.zeros(24).u32(kSoundTrack + 1);
    box.end(begin);
}

void writeTrackHead(BoxWriter& box, unsigned track, const VideoFormat* video) {
    const size_t begin = box.begin("tkhd", 0, 3);
    box.u32(0).u32(0).u32(track).u32(0).u32(0).zeros(8);
    box.u16(0).u16(0).u16(video == nullptr ? 0x100U : 0U).u16(0);
    writeMatrix(box);
    box.u32(video != nullptr ? uint64_t{video->width} << 16 : 0);
    box.u32(video != nullptr ? uint64_t{video->height} << 16 : 0);
    box.end(begin);
}

void writeMediaHead(BoxWriter& box, unsigned scale, bool video) {
    const size_t begin = box.begin("mdhd", 0, 0);
    box.u32(0).u32(0).u32(scale).u32(0).u16(kUndefinedLanguage).u16(0);
    box.end(begin);
    const size_t handler = box.begin("hdlr", 0, 0);
    box.u32(0).text(video ? "vide" : "soun").zeros(12).text(video ? "video" : "sound").u8(0);
    box.end(handler);
}

void writeVideoEntry(BoxWriter& box, const VideoFormat& video) {
    const size_t begin = box.begin(video.codec == Codec::H265 ? "hvc1" : "avc1");
    box.zeros(6).u16(1).zeros(16).u16(video.width).u16(video.height);
    box.u32(0x480000).u32(0x480000).u32(0).u16(1).zeros(32).u16(0x18).u16(0xFFFF);
    box.raw(video.configuration);
    box.end(begin);
}

void writeSoundEntry(BoxWriter& box, const SoundFormat& sound) {
    const size_t begin = box.begin(sound.codec == Codec::Opus ? "Opus" : "mp4a");
    box.zeros(6).u16(1).zeros(8).u16(sound.channels).u16(16).u32(0);
    box.u32(sound.rate < 65536 ? uint64_t{sound.rate} << 16 : 0);
    box.raw(sound.configuration);
    box.end(begin);
}

/// Where samples lie is said by the fragments, so these tables are empty.
void writeEmptyTables(BoxWriter& box) {
    for (const char* type : {"stts", "stsc", "stco"}) {
        const size_t begin = box.begin(type, 0, 0);
        box.u32(0);
        box.end(begin);
    }
    const size_t begin = box.begin("stsz", 0, 0);
    box.u32(0).u32(0);
    box.end(begin);
}

void writeTrack(BoxWriter& box, const VideoFormat* video, const SoundFormat* sound) {
    const bool isVideo = video != nullptr;
    const size_t track = box.begin("trak");
    writeTrackHead(box, isVideo ? kVideoTrack : kSoundTrack, video);
    const size_t media = box.begin("mdia");
    writeMediaHead(box, isVideo ? kVideoScale : sound->rate, isVideo);
    const size_t information = box.begin("minf");
    const size_t head = box.begin(isVideo ? "vmhd" : "smhd", 0, isVideo ? 1 : 0);
    box.zeros(isVideo ? 8 : 4);
    box.end(head);
    const size_t data = box.begin("dinf");
    const size_t references = box.begin("dref", 0, 0);
    box.u32(1);
    box.end(box.begin("url ", 0, 1));  // in this very file
    box.end(references);
    box.end(data);
    const size_t tables = box.begin("stbl");
    const size_t description = box.begin("stsd", 0, 0);
    box.u32(1);
    if (isVideo) {
        writeVideoEntry(box, *video);
    } else {
        writeSoundEntry(box, *sound);
    }
    box.end(description);
    writeEmptyTables(box);
    box.end(tables);
    box.end(information);
    box.end(media);
    box.end(track);
}

void writeExtension(BoxWriter& box, unsigned track) {
    const size_t begin = box.begin("trex", 0, 0);
    box.u32(track).u32(1).u32(0).u32(0).u32(0);
    box.end(begin);
}

/// Flags of a sample (8.8.3.1): what it needs, what needs it, and whether a decoder can begin there.
uint32_t flagsOf(const Sample& sample) {
    if (sample.key) {
        return 0x02000000;
    }
    return 0x01010000U | (sample.disposable ? 0x00800000U : 0U);
}

/// The result is the place that is to hold where the samples begin.
size_t writeRun(BoxWriter& box, unsigned track, const Run& run) {
    const size_t fragment = box.begin("traf");
    const size_t head = box.begin("tfhd", 0, kBaseIsMoof);
    box.u32(track);
    box.end(head);
    const size_t time = box.begin("tfdt", 1, 0);
    box.u64(run.decoded);
    box.end(time);
    const size_t begin = box.begin("trun", 1, kRunFlags);
    box.u32(run.samples.size());
    const size_t place = box.size();
    box.u32(0);
    for (const Sample& sample : run.samples) {
        box.u32(sample.duration).u32(sample.bytes.size()).u32(flagsOf(sample));
        box.u32(static_cast<uint32_t>(sample.offset));
    }
    box.end(begin);
    box.end(fragment);
    return place;
}

}  // namespace

std::vector<uint8_t> makeInitSegment(const VideoFormat* video, const SoundFormat* sound) {
    std::vector<uint8_t> bytes;
    BoxWriter box(bytes);
    const size_t type = box.begin("ftyp");
    box.text("iso5").u32(512).text("iso5").text("iso6").text("mp41");
    box.end(type);
    const size_t movie = box.begin("moov");
    writeMovieHead(box);
    if (video != nullptr) {
        writeTrack(box, video, nullptr);
    }
    if (sound != nullptr) {
        writeTrack(box, nullptr, sound);
    }
    const size_t extension = box.begin("mvex");
    if (video != nullptr) {
        writeExtension(box, kVideoTrack);
    }
    if (sound != nullptr) {
        writeExtension(box, kSoundTrack);
    }
    box.end(extension);
    box.end(movie);
    return bytes;
}

std::vector<uint8_t> makeFragment(uint32_t number, const Run& video, const Run& sound) {
    size_t size = 256 + 16 * (video.samples.size() + sound.samples.size());
    for (const Run* run : {&video, &sound}) {
        for (const Sample& sample : run->samples) {
            size += sample.bytes.size();
        }
    }
    std::vector<uint8_t> bytes;
    bytes.reserve(size);
    BoxWriter box(bytes);
    const size_t movie = box.begin("moof");
    const size_t head = box.begin("mfhd", 0, 0);
    box.u32(number);
    box.end(head);
    const size_t videoPlace = video.samples.empty() ? 0 : writeRun(box, kVideoTrack, video);
    const size_t soundPlace = sound.samples.empty() ? 0 : writeRun(box, kSoundTrack, sound);
    box.end(movie);
    const size_t data = box.begin("mdat");
    const auto writeSamples = [&](const Run& run, size_t place) {
        if (place != 0) {
            box.patch(place, box.size());  // the fragment begins with its moof, from which this counts
        }
        for (const Sample& sample : run.samples) {
            box.raw(sample.bytes);
        }
    };
    writeSamples(video, videoPlace);
    writeSamples(sound, soundPlace);
    box.end(data);
    return bytes;
}

}  // namespace relay
