// The private side of CMediaStreamSender: what its buffer calls.
#pragma once

#include "Tool/media/MediaSending.h"
#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// Says how a turn ended that did not end well: in the log, and to whoever waits for it.
void reportTurn(SenderRecord& record, TurnEnd end) INFRA_REQUIRES(CORE_MUTEX);

}  // namespace Orvex::Reticor
