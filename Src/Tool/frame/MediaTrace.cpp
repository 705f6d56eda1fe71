// MediaTrace: the texts. They name operations as products and operators know them.
#include "Tool/frame/MediaTrace.h"

#include <Reticor/R3.h>

#include "R3/print/FuncBox.h"
#include "R3/print/HelpText.h"

namespace Orvex::Reticor {

std::atomic<int32_t> MediaTrace::sm_print{0};

namespace {

const R3Command g_media_command(&r3_store_flag<MediaTrace::sm_print>, "MediaBufferPrt", HELP_MEDIABUFFERPRT);

constexpr const char* DO_SEND_NAME = "Orvex::Reticor::CMediaBuffer::do_send";
constexpr const char* PUT_NAME = "Orvex::Reticor::CMediaBuffer::put";
constexpr const char* SEND_PACKET_NAME = "Orvex::Reticor::CMediaBuffer::send_packet";
constexpr const char* CHECK_NAME = "Orvex::Reticor::CMediaBuffer::check_valid_frames";
constexpr const char* REBUILD_NAME = "Orvex::Reticor::CMediaBuffer::rebuild_frame_list";
constexpr const char* SEND_NAME = "Orvex::Reticor::CMediaStreamSender::Send";
constexpr const char* FRAME_PUT_NAME = "Orvex::Reticor::CFrame::Put";

}  // namespace

void MediaTrace::do_send(const void* buffer) {
    R3Printf("%s, %p do send!\n", DO_SEND_NAME, buffer);
}

void MediaTrace::packet_taken(const void* buffer, const void* packet, int len, int mark, int level) {
    R3Printf("%s, %p put packet to buffer, packet :%p, len:%d, mark:%d, level:%x!\n", PUT_NAME, buffer,
             packet, len, mark, static_cast<unsigned>(level));
}

void MediaTrace::walk_begins(const void* buffer, uint64_t should_discard, uint64_t min_discard) {
    R3Printf("%s, %p mediabuffer send packet, should_discard:%ju, min_discard:%ju \n", SEND_PACKET_NAME,
             buffer, static_cast<uintmax_t>(should_discard), static_cast<uintmax_t>(min_discard));
}

void MediaTrace::sender_begins(const void* buffer, const void* sender, const void* frame) {
    R3Printf("%s, %p sender %p send frame:%p!\n", SEND_PACKET_NAME, buffer, sender, frame);
}

void MediaTrace::sender_ends(const void* buffer, const void* sender, long long total) {
    R3Printf("%s, %p sender %p send total:%jd Bytes!\n", SEND_PACKET_NAME, buffer, sender,
             static_cast<intmax_t>(total));
}

void MediaTrace::sender_failed(const void* buffer, const void* next) {
    R3Printf("%s, %p delete sender %p because socket exception\n", SEND_PACKET_NAME, buffer, next);
}

void MediaTrace::walk_ends(const void* buffer, uint64_t should_discard, uint64_t byte_discard) {
    R3Printf("%s, %p mediabuffer send packet, should_discard:%ju, m_byte_discard:%ju \n", SEND_PACKET_NAME,
             buffer, static_cast<uintmax_t>(should_discard), static_cast<uintmax_t>(byte_discard));
}

void MediaTrace::frame_passed(const void* buffer, const void* frame, int64_t length) {
    R3Printf("%s, %p mediabuffer send packet, delete frame:%p, byte:%jd \n", SEND_PACKET_NAME, buffer, frame,
             static_cast<intmax_t>(length));
}

void MediaTrace::frame_expired(const void* buffer, const void* frame, int64_t length, uint64_t byte_discard) {
    R3Printf("%s, %p rebuild frame list, delete frame:%p, byte:%jd, m_byte_discard:%ju !\n", REBUILD_NAME,
             buffer, frame, static_cast<intmax_t>(length), static_cast<uintmax_t>(byte_discard));
}

void MediaTrace::valid_frames(const void* buffer, uint32_t valid, uint32_t invalid) {
    R3Printf("%s, check valid frames%p buffer %d valid frames,invalid frames:%d!\n", CHECK_NAME, buffer,
             static_cast<int>(valid), static_cast<int>(invalid));
}

void MediaTrace::turn_begins(const void* sender, const void* frame) {
    R3Printf("%s, media strem sender %p send begin, frame:%p!\n", SEND_NAME, sender, frame);
}

void MediaTrace::frame_put(const void* frame, const void* packet, int len, int mark, int level) {
    R3Printf("%s, Frame:%p put packet:%p, len:%d, mark:%d, level:%x!\n", FRAME_PUT_NAME, frame, packet, len,
             mark, static_cast<unsigned>(level));
}

void MediaTrace::frame_grew(const void* frame, int64_t length, uint32_t packets) {
    R3Printf("%p Frame had put %d bytes data, %d packets!\n", frame, static_cast<int>(length),
             static_cast<int>(packets));
}

}  // namespace Orvex::Reticor
