// CNetSock: binds a socket to a handler, and turns its readiness into calls.
#pragma once

#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

class CNetHandler;
class CSock;
class CThreadPool;

/// All static; the state is in the pool's socket tree, the records, the multiplexer and the socket timer.
///
/// A record is idle (watched for what its mask asks), in flight (queued or being served: watched for nothing,
/// run by one worker only), or removing (in flight, and freed by that worker). Only the worker frees a record
/// that it serves.
///
/// Lock order, outermost first: the lock of the pool's socket tree; the record's mutex, which may be kept
/// after the tree's lock is left; one of the leaves {multiplexer, socket timer, queue}. Never the tree's lock
/// while a record's mutex is held. Handlers are called with no lock held.
class CNetSock {
public:
    /// Watches `sock` for the directions of `type` (SOCK_READ, SOCK_WRITE, SOCK_EXCEPT). `time_out` is in
    /// microseconds, cut to milliseconds. Other bits of `type` are ignored, here and in UnregisterSock.
    /// Result: 0, or -1 with a line for a negative handle or without memory.
    static int RegisterSock(CNetHandler* handler, CSock& sock, unsigned int type, int time_out);

    /// Ends the interest in the directions of `type`. Always 0.
    static int UnregisterSock(CNetHandler* handler, CSock& sock, unsigned int type);

    /// Ends the registration; a record in flight is freed by its worker. Always 0.
    static int RemoveSock(CNetHandler* handler, CSock& sock);

    /// What is known of a socket in the handler's pool at this moment.
    struct Registration {
        bool exists;
        uint32_t mask;
    };
    static Registration Look(CNetHandler* handler, CSock& sock);

    /// Serves a record in flight: calls the handler, then watches the socket again or frees the record.
    /// Always 0.
    static int handle_netevent(CEvent* event);

private:
    static int check_valid(int fd);
    static int register_new_event(CThreadPool& pool, CNetHandler* handler, int fd, unsigned int type,
                                  int time_out);
    static void modify_exist_event(CThreadPool& pool, CNetHandler* handler, RecordPin event,
                                   unsigned int type, int time_out);
    /// These three set `missing_owner` to the id of an owner that was not found.
    static int handle_net(CEvent* event, int64_t& missing_owner);
    static int handle_timeout(CEvent* event, int64_t& missing_owner);
    static int deliver(CEvent* event, int64_t& missing_owner);
    static void finish(CEvent* record, int ret, int64_t missing_owner);
    static bool free_removed(CEvent* record, CThreadPool& pool);
    static void reset_timer(CEvent* event, int time_out);
    static void remove_sock(RecordPin event, CThreadPool& pool);

    friend struct NetSockProbe;  // tests
};

/// Starts what registered sockets need, the socket timer. Result: 0, or -1.
int InitSocketLibrary();

/// The counterpart; nothing to do on this system. Result 0.
int CleanupSocketLibrary();

/// Stops the socket timer. Result 0.
int StopSockTimer();

}  // namespace Orvex::Reticor
