// LockClasses: the library's locks, from the outside in. script/check_locks writes the table in
// docs/architecture.md from this one, and proves with the orders that a test run has seen that each lock is
// entered under earlier ones alone.
#pragma once

#include <Infra/LockClass.h>

/// Each line: the enumerator, the lock as a reader finds it in the sources, and what it guards.
// clang-format off
#define INFRA_LOCK_CLASSES(X) \
    X(SETUP, "Library::m_mutex of NetThread", \
      "creating and destroying of pools; held while threads are joined") \
    X(STATS_SERVING, "m_mutex of Serving in NetThread", \
      "start and end of the threads that look on; held while they are joined") \
    X(R3_START, "start mutex of R3Server", "start and end of the debug server") \
    X(RECEIVER, "MediaReceiverState::m_mutex", "one stream receiver") \
    X(RECEIVER_GROUPS, "ReceiverGroup::sm_mutex", "the groups of receivers' threads") \
    X(RECEIVER_THREAD, "CReceiverThread::m_mutex", "a thread's list of receivers") \
    X(R3_DAEMON, "CR3Daemon::m_mutex", "the acceptor, and the hand-over of clients to the session") \
    X(R3_SESSION, "CR3TelnetSession::m_mutex", "the present client; left around a command") \
    X(R3_POINTER, "daemon mutex of R3Server", "the step from the pointer to a reference on the daemon") \
    X(R3_BOXES, "g_r3_funcbox_mutex", "the commands of the debug server") \
    X(FILE_LIST, "FileList::sm_files_mutex", "the list of all files") \
    X(FILE_API, "CallerSide::m_api_mutex", "a file's position and its caller's side") \
    X(FILE_PASS, "DeviceSide::m_pass_mutex", "a pass over a file; held over calls of its device") \
    X(FILE_WRITE, "PassTurn::m_write_mutex", "what a pass is asked for") \
    X(FILE_READ, "PendingLoad::m_read_mutex", "whether a load is under way") \
    X(FILE_INFO, "KnownInfo::m_info_mutex", "what the device said of the file") \
    X(FILE_MESSAGES, "OwedMessages::m_msg_mutex", \
      "which messages the caller is owed; held while they are posted") \
    X(FILE_ORDER, "CFileSlots::m_order_mutex", "the places of a file's buffers") \
    X(FILE_BUFFER, "CNFileBuf::m_mutex", "which side holds a buffer") \
    X(FILE_POOL_LIFE, "CNFileBuf::m_pool_mutex", "the life of the pool of buffers") \
    X(FILE_POOL, "CNBufPool::m_mutex", "the free buffers") \
    X(FILE_DEVICE, "CPosixStorDev::m_mutex", "a device's position") \
    X(FILE_TASKS, "FileTaskQueue::m_mutex", "the tasks of all files") \
    X(TICK, "m_mutex of CNTimer", "the events of a shared tick") \
    X(STREAM_SENDER, "m_mutex of CStreamSender", "a stream sender; held while it registers and posts") \
    X(AUTO_SEND, "AutoSend::m_mutex", "whether a buffer is swept") \
    X(SENDER_LIST, "CSenderHandler::m_list_mutex", "the sweep's list of buffers") \
    X(MEDIA_CORE, "MediaCore::m_mutex", \
      "frames and senders of a buffer; two only when a call-back puts into another one") \
    X(MEDIA_COMING, "m_mutex of SenderRecord's Coming", "to which buffer a sender comes") \
    X(MEDIA_MOVES, "MoveLine::m_mutex", "who waits for a key frame of a buffer, to move to it") \
    X(MEDIA_OTHER, "SenderRecord::m_other_mutex", "other data, the send procedure, the filter") \
    X(MEDIA_TAPS, "m_mutex of the taps' registry", "which taps are alive") \
    X(MEDIA_INBOX, "LaneInbox::m_mutex", "the frames that wait for a lane") \
    X(MEDIA_ROLL, "CoreRoll::sm_mutex", "the list of all media buffers") \
    X(MEDIA_ENDED, "EndedVerdicts::sm_mutex", "the last verdicts on senders that have ended") \
    X(KIT_POOL, "PoolState::m_mutex of the kit", \
      "what lives on a pool of the kit; held while something new is made there") \
    X(KIT_LISTENER, "ListenerBody::m_mutex", "a listening socket of the kit, and its spare descriptor") \
    X(KIT_SERVER, "ServerState::m_mutex", "whom a server of the kit has let in and turned away") \
    X(KIT_CONNECTOR, "Connector::m_mutex of the kit", "an attempt to connect") \
    X(KIT_MAILBOX, "MailboxBody::m_mutex", "calls that were posted to a pool of the kit") \
    X(KIT_CONNECTION, "ConnectionBody::m_mutex", \
      "a connection's descriptor and output; held while it registers and posts") \
    X(SOCKET_TREE, "BTree::m_lock of a pool's sockets", "the tree, the multiplexer's array of records") \
    X(SOCKET_RECORD, "CEvent::m_mutex", "a socket's record") \
    X(SOCKET_TIMER, "CSockTimer::m_mutex", \
      "the list of time-outs. Its own thread then tries a record, and goes on to the queue") \
    X(SELECT_LIST, "AlwaysReady::m_list_mutex", "the sockets that are always ready") \
    X(TIMER, "m_lock of NetTimer", "when the timer thread wakes") \
    X(TIMER_HEAP, "CTimerHeap::m_mutex", "armed timers") \
    X(POOL_SERIAL, "CThreadPool::m_serial_mutex", "the serial line and its idle flag") \
    X(OBJECT_IDS, "CObjectId::m_mutex", "the free ids of a pool") \
    X(OBJECT_TABLE, "CObjectTable::m_lock", \
      "the open handlers; nothing but a reference count is touched under it") \
    X(STUCK_HOOK, "StuckWatch::sm_mutex", "the hook for calls that do not come back") \
    X(STATS, "m_mutex of OpenedSoFar", "how many handlers of each class were made") \
    X(HANDLER_LIST, "shards of HandlerList", "the list of all handlers, also of those that nobody finds") \
    X(CLASS_ROWS, "ClassRows::sm_mutex", "the names of handler classes") \
    X(THREAD_COUNTS, "ThreadCounts::sm_mutex", "the list of the threads' counters") \
    X(SELECT_PIPE, "Waker::m_pipe_mutex", "wake-ups on their way") \
    X(QUEUE, "CEventQueue::m_mutex", "a queue's records") \
    X(FREE_RECORDS, "CEventFreeList::m_mutex", "the records that rest") \
    X(KIT_RESOLVER, "mutex of the kit's Resolver", "names that are to be looked up, and who does that") \
    X(RESOLVER, "CGetHostByName::sm_mutex", "names that are looked up") \
    X(TS_KEY, "MemTables::sm_key_mutex", "the thread-local key") \
    X(TS_POOL, "MemTables::sm_pool_mutex", "memory that threads have left") \
    X(THREAD_LIFE, "CThread::m_life_mutex", \
      "one start or end of a thread at a time; held while it is joined") \
    X(POOL_SET, "State::m_mutex of CPoolSet", "what is reserved in each of its pools") \
    X(OBJECT_ROLL, "ObjectRoll::sm_mutex", "the objects that tell figures of themselves") \
    X(COMPONENTS, "g_mutex of ComponentRegistry", "the components on offer") \
    X(LOG, "m_mutex of DefaultSink", "lines on their way to standard error")
// clang-format on

namespace Orvex::Infra {

enum class LockClass : uint16_t {
    UNNAMED = 0,
#define INFRA_LOCK_CLASS(name, lock, guards) name,
    INFRA_LOCK_CLASSES(INFRA_LOCK_CLASS)
#undef INFRA_LOCK_CLASS
};

/// The enumerator as text: "SETUP"; "a product's lock" for one without a class.
constexpr const char* lock_class_word(LockClass lock_class) noexcept {
    switch (lock_class) {
#define INFRA_LOCK_CLASS(name, lock, guards) \
    case LockClass::name:                    \
        return #name;
        INFRA_LOCK_CLASSES(INFRA_LOCK_CLASS)
#undef INFRA_LOCK_CLASS
        default:
            return "a product's lock";
    }
}

}  // namespace Orvex::Infra
