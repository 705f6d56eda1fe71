// DeviceSide: a file's device, and the passes over it.
#pragma once

#include <atomic>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/StorDev.h>

#include "Core/count/Tally.h"
#include "Tool/file/FileExchange.h"
#include "Tool/file/KnownInfo.h"

namespace Orvex::Reticor {

/// What came of a pass.
enum class PassResult {
    done,
    refused,  ///< Another pass runs.
    failed,   ///< The device failed.
    cut,      ///< Somebody drops the buffers, or writes them out in another way: not to be tried again.
};

/// The one place where bytes go between buffers and the device. A file has one pass at a time: it writes out
/// what is submitted and then loads what is asked for, so that a load never overtakes the bytes that it must
/// bring, and nobody else moves the device's position.
///
/// Thread safety: every operation on any thread, but for the direct ones, which are for a file without
/// buffers and one thread at a time. All of them may block as long as the device does.
class DeviceSide {
public:
    DeviceSide(FileExchange& exchange, CNStorDev_IF* device) : m_exchange(exchange), m_dev(device) {}
    DeviceSide(const DeviceSide&) = delete;
    DeviceSide& operator=(const DeviceSide&) = delete;

    /// Opens the device, and asks it what is asked once. The device's result. Before anybody knows the file.
    int open(const char* path, const char* mode);
    /// Whether the device wants file workers, as it said when it was opened.
    bool needs_aio() const { return m_needs_aio; }

    /// What is known of the file. A device that did not know when it was opened is asked again, between two
    /// passes, and not once it may have got its Close. Result: 0, or the device's.
    int stat(NFile_Info& info);

    /// The same without a question.
    void known_info(NFile_Info& info) { m_info.get(info); }

    /// Finish and Close, once. What Finish tells is message 8.
    void close();
    bool closed() const { return m_dev.load() == nullptr; }
    /// What Finish will be told.
    void set_sync(bool on) { m_sync.store(on); }

    // ---- passes, on a file worker

    /// The task of a write pass; `arg` 1 pays message 6.
    PassResult write_pass(long long arg);
    /// The task of a read pass.
    PassResult read_pass();
    /// For the file's last task: writes what no task could be posted for.
    PassResult write_left() { return m_exchange.m_slots.HasWrites() ? write_pass(1) : PassResult::done; }
    /// Teardown's own pass, on its thread, with no file worker running. False if something could not be
    /// written.
    bool write_out_at_end();

    // ---- without buffers

    int write_directly(const char* data, unsigned len);
    int read_directly(char* dst, unsigned len, bool& eof);
    int seek_directly(long long offset, int whence);

    // ---- what it has done so far: any thread

    uint64_t bytes_written() const { return m_bytes_written.Get(); }
    uint64_t bytes_read() const { return m_bytes_read.Get(); }
    uint64_t errors() const { return m_errors.Get(); }

    // ---- the change of buffers

    /// A pass that runs is to end after the call of the device that it is in: the buffers are about to go,
    /// and what they hold with them. Until `allow_passes`.
    void cut_passes_short() { m_discard.store(true); }
    void allow_passes() INFRA_REQUIRES(m_pass_mutex) { m_discard.store(false); }

    /// Held over a whole pass, over Stat, and over the device's end.
    Infra::CMutex m_pass_mutex{Infra::LockClass::FILE_PASS};

private:
    enum class Outcome { done, failed, cut };

    void tell_error();

    PassResult serve_rounds() INFRA_REQUIRES(m_pass_mutex);
    PassResult end_pass(const PassTurn::Wanted& left, Outcome outcome, bool comes_again);
    bool cut_short() const;
    bool seek_to(long long position) INFRA_REQUIRES(m_pass_mutex);
    bool seek_to_block(FileSlot& slot) INFRA_REQUIRES(m_pass_mutex);
    Outcome write_out() INFRA_REQUIRES(m_pass_mutex);
    Outcome write_slot(FileSlot& slot) INFRA_REQUIRES(m_pass_mutex);
    Outcome load() INFRA_REQUIRES(m_pass_mutex);
    Outcome load_slot(FileSlot& slot) INFRA_REQUIRES(m_pass_mutex);

    FileExchange& m_exchange;
    KnownInfo m_info;
    bool m_opened = false;  ///< Constant once somebody knows the file, and so is the next.
    bool m_needs_aio = true;
    std::atomic<bool> m_sync{false};
    std::atomic<bool> m_discard{false};  ///< Somebody waits to drop the buffers.

    /// Null after its Close. Changed under `m_pass_mutex`.
    std::atomic<CNStorDev_IF*> m_dev;
    /// Where the device stands, as far as its results tell.
    long long m_dev_pos INFRA_GUARDED_BY(m_pass_mutex) = 0;

    // For snapshots. Direct operations are those of one thread at a time.
    Tally m_bytes_written;
    Tally m_bytes_read;
    Tally m_errors;

    friend struct NFileProbe;  // tests
};

}  // namespace Orvex::Reticor
