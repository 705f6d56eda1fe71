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
    if (m_turn.want_flush()) {
        PostFileTask(&m_file, FILE_TASK_WRITE, 1);
    }
}

void FileExchange::post_load() {
    PostFileTask(&m_file, FILE_TASK_READ, 0);
}

}  // namespace Orvex::Reticor
