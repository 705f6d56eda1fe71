// CMediaVerdicts: all senders, one after another.
#include <Reticor/MediaVerdicts.h>

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaStreamSender.h>

#include "Tool/judge/EndedVerdicts.h"
#include "Tool/judge/VerdictText.h"
#include "Tool/media/MediaBufferState.h"
#include "Tool/media/SenderLook.h"
#include "Tool/step/CoreRoll.h"
#include "Tool/verdict/HeldSenders.h"

namespace Orvex::Reticor {

namespace {

void add_all(MediaCore& core, HeldSenders& senders) {
    const CoreGuard guard(core);
    if (const MediaBufferState* const state = MediaBufferState::find(core)) {
        senders.add_all(*state);
    }
}

void look_at_all(const HeldSenders& senders, std::vector<SenderVerdict>& verdicts) {
    verdicts.reserve(senders.all().size());
    for (CMediaStreamSender* const sender : senders.all()) {
        SenderVerdict verdict;
        sender->GetVerdict(verdict);
        if (verdict.listed != 0) {
            verdicts.push_back(verdict);
        }
    }
    std::sort(verdicts.begin(), verdicts.end(), &VerdictText::suffers_more);
}

}  // namespace

int CMediaVerdicts::List(bool (*call)(void* context, const SenderVerdict& verdict), void* context,
                         CMediaBuffer* buffer) {
    std::vector<SenderVerdict> verdicts;
    try {
        std::vector<std::shared_ptr<MediaCore>> cores;
        if (buffer != nullptr) {
            if (const MediaBufferState* const state = MediaBufferState::find(*buffer)) {
                cores.push_back(state->m_core);
            }
        } else {
            CoreRoll::list(cores);
        }
        HeldSenders senders;
        for (const std::shared_ptr<MediaCore>& core : cores) {
            add_all(*core, senders);
        }
        look_at_all(senders, verdicts);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    for (const SenderVerdict& verdict : verdicts) {
        if (!call(context, verdict)) {
            break;
        }
    }
    return static_cast<int>(verdicts.size());
}

int CMediaVerdicts::ListEnded(bool (*call)(void* context, const SenderVerdict& verdict), void* context) {
    const std::unique_ptr<SenderVerdict[]> verdicts(new (std::nothrow) SenderVerdict[EndedVerdicts::MOST]);
    if (verdicts == nullptr) {
        return -1;
    }
    const size_t count = EndedVerdicts::copy(verdicts.get());
    for (size_t i = 0; i < count && call(context, verdicts[i]); ++i) {
    }
    return static_cast<int>(count);
}

int CMediaVerdicts::SetWindow(unsigned int window_ms) {
    if (window_ms < 100 || window_ms > 600000) {
        return -1;
    }
    SenderLook::set_window(uint64_t{window_ms} * 1000);
    return 0;
}

const char* CMediaVerdicts::GetName(SenderVerdictKind kind) {
    return VerdictText::name(kind);
}

}  // namespace Orvex::Reticor
