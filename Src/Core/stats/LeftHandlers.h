// LeftHandlers: what a pool leaves behind at its end.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// The handlers that a pool leaves behind when it ends, by class; those of the library's own are left out.
/// Takes no memory.
class LeftHandlers {
public:
    struct Row {
        const char* class_name;
        uint32_t open;
        uint32_t unreleased;  ///< Closed, and handle_close was not called.
    };

    /// Of the pool with that index, whose ids have counters from `first` to before `next`. When nobody works
    /// in it any more.
    LeftHandlers(int index, int64_t first, int64_t next);

    /// The rows, those with the most handlers first: MOST of them, and one less if there are others.
    static constexpr size_t MOST = 10;
    size_t Count() const { return m_count; }
    const Row& At(size_t place) const { return m_rows[place]; }

    /// What is not in them.
    uint32_t OtherHandlers() const { return m_other_handlers; }
    uint32_t OtherClasses() const { return m_other_classes; }

private:
    void insert(const Row& row);
    void drop_last();

    Row m_rows[MOST + 1] = {};
    size_t m_count = 0;
    uint32_t m_other_handlers = 0;
    uint32_t m_other_classes = 0;
};

}  // namespace Orvex::Reticor
