// WriteRing: batches of writes by io_uring(7).
#pragma once

#include <cstdint>
#include <memory>

#include "Tool/batch/BatchWriter.h"

namespace Orvex::Reticor {

/// A ring of its owner's, without registered files (a socket that is closed is closed at once) and without a
/// thread of the kernel's. Writes that would wait are not kept there: each has its result when write returns.
/// Calls may come from any thread, one at a time.
class WriteRing final : public BatchWriter_IF {
public:
    static constexpr uint32_t ENTRIES = 256;

    /// Null if the kernel refuses, with its reason in errno: ENOSYS, EPERM (kernel.io_uring_disabled, or a
    /// filter of system calls), ENOMEM.
    static std::unique_ptr<WriteRing> make();
    ~WriteRing() override;
    WriteRing(const WriteRing&) = delete;
    WriteRing& operator=(const WriteRing&) = delete;

    void write(BatchedWrite* writes, size_t count) override;

private:
    struct Maps;

    WriteRing(int fd, std::unique_ptr<Maps> maps);

    uint32_t push(BatchedWrite* writes, uint32_t count);
    uint32_t enter(uint32_t count);
    uint32_t collect(BatchedWrite* writes);

    const int m_fd;
    const std::unique_ptr<Maps> m_maps;
};

}  // namespace Orvex::Reticor
