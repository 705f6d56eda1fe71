// FileExchange: where the two sides of a file meet.
#include "Tool/file/FileExchange.h"

#include "Tool/task/FileTask.h"
#include "Tool/task/FileTaskQueue.h"

namespace Orvex::Reticor {

void FileExchange::post_write() {
    if (m_turn.want_write()) {
        PostFileTask(&m_file, FILE_TASK_WRITE, 0);
    }
}

void FileExchange::post_flush() {
    if (m_turn.want_flush() && PostFileTask(&m_file, FILE_TASK_WRITE, 1) != 0) {
        m_turn.flush_not_posted();
        m_owed.notify_write_message();
        m_owed.notify_stalled_read();
    }
}

void FileExchange::post_load() {
    if (PostFileTask(&m_file, FILE_TASK_READ, 0) != 0) {
        m_slots.DropLoads(true);
        m_load.read_end();
        m_owed.notify_read_message();
    }
}

void FileExchange::post_ahead() {
    if (m_turn.want_load() && PostFileTask(&m_file, FILE_TASK_READ, 0) != 0) {
        m_slots.DropLoads(false);
    }
}

}  // namespace Orvex::Reticor
