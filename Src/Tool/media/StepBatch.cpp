// StepBatch: which writes are certain, and what came of them.
#include "Tool/media/StepBatch.h"

#include <climits>
#include <utility>

#include "Socket/socket/SocketWriter.h"
#include "Tool/media/FrameChoice.h"

namespace Orvex::Reticor {

// Whoever calls this inside a step is called back by a sender that has ended the batch before it.
void StepBatch::set(std::unique_ptr<Room>& room, size_t least) {
    std::swap(m_room, room);
    m_least = least;
    begin(nullptr, nullptr);
}

void StepBatch::begin(SenderRecord* first, CFrame* offered) {
    const bool offers = offered != nullptr && offered->m_frame_len >= 1 && !offered->is_filling() &&
                        offered->m_packet_num <= IOV_MAX;
    m_scan = offers ? first : nullptr;
    m_offered = offered;
    m_count = 0;
    m_taken = 0;
}

// What was written is taken in the order of the walk.
bool StepBatch::find(SenderRecord& record, int& answer) {
    if (m_scan == &record) {
        collect();
    }
    if (m_taken == m_count || m_room->m_records[m_taken] != &record) {
        return false;
    }
    const int result = m_room->m_writes[m_taken++].result;
    if (result == BatchedWrite::NOT_TRIED) {
        return false;
    }
    answer = answer_of_write(*Infra::relaxedLoad(record.m_stream), result);
    return true;
}

void StepBatch::collect() {
    m_count = 0;
    m_taken = 0;
    while (m_scan != nullptr && m_count < MOST) {
        SenderRecord& record = *m_scan;
        record.fetch_next();
        m_scan = record.m_next;
        if (calls_back(record)) {
            break;
        }
        if (is_certain(record)) {
            m_room->m_records[m_count++] = &record;
        }
    }
    if (m_count >= m_least) {
        write();
    } else {
        m_count = 0;
    }
}

void StepBatch::write() {
    for (size_t i = 0; i < m_count; ++i) {
        BatchedWrite& write = m_room->m_writes[i];
        write.fd = Infra::relaxedLoad(m_room->m_records[i]->m_stream)->GetHandle();
        write.message.msg_iov = m_offered->m_iovec;
        write.message.msg_iovlen = m_offered->m_packet_num;
        write.result = BatchedWrite::NOT_TRIED;
    }
    m_room->m_writer->write(m_room->m_writes.data(), m_count);
    m_writes += m_count;
}

bool StepBatch::calls_back(const SenderRecord& record) {
    return record.m_procedure.is_set() || record.wishes(SenderRecord::WISH_FILTER);
}

// Everything that a turn would look at before its write. Others may attach sockets, choose channels or send
// other data meanwhile: then this turn was the earlier one.
bool StepBatch::is_certain(SenderRecord& record) const {
    const CSock* const stream = Infra::relaxedLoad(record.m_stream);
    if (stream == nullptr || stream->GetType() != SOCK_TYPE_STREAM || stream->GetBlockOpt()) {
        return false;
    }
    if (record.m_leaving || record.m_full || !record.has_joined() || record.m_frame != nullptr ||
        !record.at_boundary() || record.m_other.waits() || record.wants_keep() != record.m_keeps) {
        return false;
    }
    return FrameChoice::decide(record, *m_offered, record.now()).send;
}

}  // namespace Orvex::Reticor
