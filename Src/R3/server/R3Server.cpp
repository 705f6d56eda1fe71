// R3ServerStart, R3ServerExit: the debug server's door, open or shut by the build's option.
#include "R3/server/R3Server.h"

#include <Infra/LockClasses.h>
#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/R3.h>

#include "R3/print/FuncBox.h"
#include "R3/print/R3Printf.h"
#include "R3/server/R3Daemon.h"

namespace Orvex::Reticor {

namespace {

/// One start at a time.
Infra::CMutex g_start_mutex{Infra::LockClass::R3_START};

/// Guards the change of g_r3_daemon, and everybody's step from that pointer to a reference. A leaf: R3Printf
/// comes here with any locks held.
Infra::CMutex g_daemon_mutex{Infra::LockClass::R3_POINTER};

/// The daemon that runs, with a reference, or null. Its first reference is dropped after it has left
/// g_r3_daemon, so there is one to add to.
CR3Daemon* hold_daemon() {
    const Infra::CGuard guard(g_daemon_mutex);
    if (g_r3_daemon != nullptr) {
        g_r3_daemon->AddRef();
    }
    return g_r3_daemon;
}

CR3Daemon* exchange_daemon(CR3Daemon* daemon) {
    const Infra::CGuard guard(g_daemon_mutex);
    CR3Daemon* const before = g_r3_daemon;
    __atomic_store_n(&g_r3_daemon, daemon, __ATOMIC_RELEASE);
    return before;
}

// The daemon that R3Printf has seen may have gone since.
void print(CR3Daemon*, const char* text) {
    if (CR3Daemon* const daemon = hold_daemon()) {
        daemon->Print(text);
        daemon->DecRef();
    }
}

}  // namespace

int start_debug_server(unsigned short port, const char* name, bool local_only) {
    const Infra::CGuard guard(g_start_mutex);
    if (__atomic_load_n(&g_r3_daemon, __ATOMIC_RELAXED) != nullptr) {
        INFRA_LOG_STATIC(2, "R3Server runs already\n");
        return -1;
    }
    CR3Daemon* const daemon = CR3Daemon::Create(local_only);
    if (daemon == nullptr) {
        INFRA_LOG_STATIC(2, "R3Server has no memory\n");
        return -1;
    }
    daemon->SetFuncBox(acquire_func_box());
    if (daemon->Init(port, name) < 0) {
        daemon->Close();
        return -1;
    }
    __atomic_store_n(&g_r3_print, &print, __ATOMIC_RELAXED);
    exchange_daemon(daemon);
    return 0;
}

void end_debug_server() {
    if (CR3Daemon* const daemon = exchange_daemon(nullptr)) {
        daemon->Close();
    }
}

int R3ServerStart([[maybe_unused]] unsigned short port, [[maybe_unused]] const char* name,
                  [[maybe_unused]] bool open) {
#if RETICOR_R3_SERVER
    return start_debug_server(port, name, open);
#else
    INFRA_LOG_PLAIN(4, "R3 has been disable.\n");
    return -1;
#endif
}

int R3ServerExit() {
    end_debug_server();
    drop_func_box();
    return 0;
}

}  // namespace Orvex::Reticor
